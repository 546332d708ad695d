/*
 * card.h - the line card of the library's operation tests: events as the
 * port mapper sends them, entries put in place the way the library's writers
 * put them (one entry change cycle each, pmdb_db_test.h) and read back the
 * way other processes read them, recorders of the two callbacks, holders of
 * slot locks, and a fixture (CardTest) that starts every test without
 * callbacks and with an empty inventory.
 */
#ifndef PMDB_TEST_CARD_H
#define PMDB_TEST_CARD_H

#include <array>
#include <ctime>
#include <functional>
#include <memory>
#include <vector>

#include "pmdb.h"
#include "pmdb_db_test.h"
#include "pmdb_test.h"

namespace card {

using namespace pmdb::test;
using Mac = std::array<uint8_t, 6>;
using Bytes = std::vector<unsigned char>;

/* ---- events -------------------------------------------------------------- */

/* An all-zero event record with its type, valid_flags and event_id set:
 * every builder below starts from it. */
pmdb_event_t BlankEvent(u8 type, u8 valid_flags, u32 event_id);

/* An event of `type` with the interface reading (valid_flags bit 0) of port
 * `ifh` on `node_id`, with distinctive LIFs, port and slot values; event_id
 * 1000 + type. */
pmdb_event_t PortEvent(u8 type, u32 ifh, u32 node_id = 0);
/* A bare interface event of a bundle member: only the handles and the member
 * port are set. */
pmdb_event_t MemberEvent(u8 type, u32 event_id, u32 ifh, u32 bundle_ifh = 0, u16 member_port = 0,
                         u8 member_port_shift = 0);
/* An event with the punt reading only (valid_flags bit 1); event_id 2000 + type. */
pmdb_event_t PuntEvent(u8 type, u32 punt_ifh, std::array<u32, 5> words);
/* An OAM event (valid_flags bit 2) whose OAM block is `fill` bytes. */
pmdb_event_t OamEvent(u8 type, u32 event_id, u32 key, u8 fill);
/* The port event of a BVI (intf_type 78) hosted by node_id, with a stale node MAC. */
pmdb_event_t BviEvent(u32 ifh, u32 node_id);

/* ---- entries ------------------------------------------------------------- */

/* Creates or changes the IFH entry `key` under its slot lock (a new entry is
 * zero-filled first, the key field set); fails the test when the cycle fails. */
void PutIfh(u32 key, const std::function<void(pmdb_ifh_entry_t &)> &fill);
/* Writes the whole entry `key` of `type` as `record` (its key field too). */
void PutRecord(pmdb_type_t type, u32 key, const void *record);
/* A port (intf_info.ifh = key) with LIFs derived from the key, or a bundle
 * (intf_info.bundle_ifh = key) with its two out-of-resource counters. */
void PutPort(u32 key, u32 oor_state = 0);
void PutBundle(u32 key, u16 members_1 = 0, u16 members_2 = 0);
/* A port at `oor_state` with carried bits in member_port_shift and punt
 * words of its own; an active member of `bundle` unless that is 0. */
void PutMember(u32 key, u32 bundle, u32 oor_state = 0);

/* Consistent copies of entries as another process reads them; they fail the
 * test when the entry is absent. */
pmdb_ifh_entry_t Ifh(u32 key);
pmdb_punt_entry_t Punt(u32 key);
pmdb_oam_entry_t Oam(u32 key);
/* The out-of-resource fields of the IFH entry `key`, to compare whole:
 * oor_members_1, oor_members_2, oor_state, oor_reason, oor_changes. */
using Oor = std::array<u32, 5>;
Oor OorOf(u32 key);
/* The bytes of the entry `key` of `type`; empty when absent. */
Bytes EntryBytes(pmdb_type_t type, u32 key);
Bytes BytesOf(const void *p, size_t n);

/* Now (CLOCK_REALTIME), and whether t lies in [a, b]. */
timespec Now();
bool Within(const timespec &t, const timespec &a, const timespec &b);

/* From now on the library's lookups of `key` fail with `status` (0: none
 * fail).  Only in executables linked with lookup_fault.cpp and
 * -Wl,--wrap=tabra_get_entry_by_key. */
void FailLookupOf(u32 key, cerrno status);

/* ---- slot locks ---------------------------------------------------------- */

/* The slot lock of the entry `key` of `type` in this process's mapping. */
pellin_mutex_type *SlotLock(pmdb_type_t type, u32 key);
/* A child process that takes `lock` (exported calls only), reports ready and
 * exits with its unlock's result once released; killed by the destructor. */
std::unique_ptr<ChildProcess> HoldInChild(pellin_mutex_type *lock);

/* ---- callbacks ----------------------------------------------------------- */

struct OorCall {
    u32 ifh, slot, state, removed;
    bool operator==(const OorCall &) const = default;
};
/* Registers a recorder of the out-of-resource callback (this process). */
void RecordOorCalls();
std::vector<OorCall> &OorCalls();

struct AibCall {
    std::vector<u32> handles, status;
};
void AibRecorder(u32 *handles, u32 *status, u16 count);
void RecordAibCalls();
const std::vector<AibCall> &AibCalls();

/* ---- node values and inventory ------------------------------------------- */

/* The MAC the host platform reports for (node, unit 0). */
void SetNodeMac(u32 node, const Mac &mac);
Mac MacOf(const uint8_t *bytes);
/* The globals block of the IFH region as another process maps it. */
dnx_pmdb_glbls_t Globals();
/* Node ids of this process's inventory list from the head. */
std::vector<u32> InventoryNodes();

/* Creates or refreshes the IFH entry `ifh` from `ev` and expects 0. */
void AddOk(u32 ifh, const pmdb_event_t &ev, u16 node = 0);

/* A fresh namespace, an empty inventory and no callbacks, before and after. */
class CardTest : public PmdbTest {
protected:
    void SetUp() override;
    void TearDown() override;
};

}  // namespace card

/* Field by field (the record has padding). */
bool operator==(const dpa_pmdb_ifh_summary_t &a, const dpa_pmdb_ifh_summary_t &b);

#endif
