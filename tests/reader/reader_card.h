/*
 * reader_card.h - a small line card built by hand for the reader tests,
 * written the way the library writes entries (pmdb_db_test.h).
 *
 *   node 1: ports P1 (with port sub-interface S1), P2, P6
 *   node 2: ports P3, P4, P5
 *   bundle B  (node 999 punt key): active members P2, P3, P4; P5 carries B but
 *             is not active; sub-interfaces BS1, BS2
 *   bundle B2: active member P6; sub-interface BS3
 */
#ifndef PMDB_TEST_READER_CARD_H
#define PMDB_TEST_READER_CARD_H

#include <vector>

#include "pmdb.h"
#include "pmdb_db_test.h"

namespace rcard {

using pmdb::test::RemoveEntry;
using pmdb::test::SlotOf;
using pmdb::test::WriteEntry;

constexpr u32 kNode1 = 1, kNode2 = 2, kBundleNode = 999;
constexpr u32 P1 = 0x1001, P2 = 0x1002, P6 = 0x1003;
constexpr u32 P3 = 0x2001, P4 = 0x2002, P5 = 0x2003;
constexpr u32 S1 = 0x3001;
constexpr u32 B = 0x5000, B2 = 0x5100;
constexpr u32 BS1 = 0x6001, BS2 = 0x6002, BS3 = 0x6101;

/* Interface block naming ifh / sub_ifh / bundle_ifh on node, with a few
 * distinctive values derived from the handles. */
pmdb_intf_info_t Intf(u32 ifh, u32 sub, u32 bundle, u32 node);
cerrno PutIfh(u32 key, const pmdb_intf_info_t &info, u8 ifh_flags = 0, u8 member_count = 0);
cerrno PutPunt(u32 key, const pmdb_intf_info_t &info);
cerrno PutOam(u32 key, u32 oam_ifh);

/* Writes the whole card above. */
void BuildCard();

/* `keys` sorted by their table slot (the order the list queries promise). */
std::vector<u32> InSlotOrder(pmdb_type_t type, std::vector<u32> keys);

}  // namespace rcard

#endif
