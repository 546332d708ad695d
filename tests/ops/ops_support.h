// Helpers of the single-entry operation tests: entries put in place the way
// the library's writers do (one entry change cycle each), entries read back
// the way other processes read them (the table store's consistent copies),
// events, and a recorder of the out-of-resource callback.
#ifndef PMDB_TESTS_OPS_SUPPORT_H
#define PMDB_TESTS_OPS_SUPPORT_H

#include <ctime>
#include <functional>
#include <vector>

#include "pmdb.h"
#include "pmdb_db_test.h"
#include "pmdb_test.h"

namespace ops_test {

// Creates or changes the IFH entry `key` under its slot lock; a new entry
// is zero-filled first.  Fails the test when the cycle fails.
void PutIfh(u32 key, const std::function<void(pmdb_ifh_entry_t &)> &fill);
// A port (intf_info.ifh = key) with distinctive LIFs, or a bundle
// (intf_info.bundle_ifh = key).
void PutPort(u32 key, u32 oor_state = 0);
void PutBundle(u32 key, u16 members_1 = 0, u16 members_2 = 0);

// Consistent copies of entries; they fail the test when the entry is absent.
pmdb_ifh_entry_t Ifh(u32 key);
pmdb_punt_entry_t Punt(u32 key);
pmdb_oam_entry_t Oam(u32 key);
using pmdb::test::SlotOf;

// True when the named table exists at all in the test's namespace.
bool TableExists(const char *table_name);
using pmdb::test::CallNames;

// Event of `type` with the interface reading (valid_flags bit 0).
pmdb_event_t IntfEvent(u8 type, u32 event_id, u32 ifh, u32 bundle_ifh = 0,
                       u16 member_port = 0, u8 member_port_shift = 0);

// Now, CLOCK_REALTIME, and whether t lies in [a, b].
timespec Now();
bool Within(const timespec &t, const timespec &a, const timespec &b);

// Out-of-resource callback recorder (per process).
struct OorCall {
    u32 ifh, slot, state, removed;
    bool operator==(const OorCall &) const = default;
};
void RecordOorCalls();
std::vector<OorCall> &OorCalls();

class OpsTest : public pmdb::test::PmdbTest {
protected:
    void TearDown() override;
};

}  // namespace ops_test

#endif
