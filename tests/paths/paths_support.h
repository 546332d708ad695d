// Helpers of the whole-interface path tests (and of the dispatcher's and
// the card model's): interfaces described by a number, their events, and
// the three tables as other processes read them.
#ifndef PMDB_TESTS_PATHS_SUPPORT_H
#define PMDB_TESTS_PATHS_SUPPORT_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "card.h"

namespace paths_test {

using card::Ifh;

// Interface n's block: LIFs, system port, OAM id and slots (indices 2 and
// 31) all derived from n so that interfaces never share a key; slot_id 3,
// lc_slot 5, npu_index 1, node 1.  Callers then set ifh, sub_ifh, bundle_ifh.
pmdb_intf_info_t Info(u32 n, bool egress_key);
// The worked interface: egress LIF 0x1234, ingress LIF 0x567, system port
// 0xABC, slot_id 3, npu_index 0, lc_slot 5, oam_id 0x99, OAM slot 2 = 0x42.
pmdb_intf_info_t Worked(bool egress_key);
pmdb_event_t Event(u8 type, const pmdb_intf_info_t &in, u32 event_id = 1);
// The punt reading of `ifh` (interface type 1, punt words 0x51 to 0x55).
pmdb_event_t PuntEvent(u8 type, u32 ifh, u32 event_id = 1);

// Every entry of every table (key -> bytes), with the change stamps cleared
// unless `stamps`: what another process sees, less the time of the last change.
struct Tables {
    std::map<u32, std::vector<u8>> t[PMDB_NUM_TYPES];
    bool operator==(const Tables &) const = default;
};
Tables Snapshot(bool stamps = false);
// Keys present in `after` and not in `before` ("PUNT +0x567 "), the reverse
// ("-"), and entries changed under a common key ("~"); "" when equal.
std::string Diff(const Tables &before, const Tables &after);
bool Has(pmdb_type_t type, u32 key);
std::set<u32> Keys(pmdb_type_t type);

// Overrides one host setting (halvo name) for this process.
void Set(const char *name, int64_t value);
// The walk's sub-interface list, when set, replaces the reader's answer.
void OverrideSubList(const std::vector<u32> &handles);

}  // namespace paths_test

#endif
