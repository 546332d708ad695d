// Helpers of the IFH writer, inventory, node value and BVI refresh tests:
// events as the port mapper sends them, and the tables and node values as
// any process on the card sees them (through the reader library and a
// mapping of the IFH region).
#ifndef PMDB_TESTS_WRITER_SUPPORT_H
#define PMDB_TESTS_WRITER_SUPPORT_H

#include <array>
#include <cstdint>
#include <vector>

#include "pmdb.h"
#include "pmdb_test.h"

namespace writer_test {

using Mac = std::array<uint8_t, 6>;

// An event of `type` carrying interface information (valid_flags bit 0) of
// port `ifh` on `node_id`.
pmdb_event_t PortEvent(uint8_t type, uint32_t ifh, uint32_t node_id = 0);
// An event carrying only punt information (valid_flags bit 1).
pmdb_event_t PuntEvent(uint8_t type, uint32_t punt_ifh, std::array<uint32_t, 5> words);
// The interface information of a BVI (intf_type 78) hosted by node_id.
pmdb_event_t BviEvent(uint32_t ifh, uint32_t node_id);

// The MAC the host platform reports for (node, unit 0) once SetNodeMac ran.
void SetNodeMac(uint32_t node, const Mac &mac);
Mac MacOf(const uint8_t *bytes);

// The whole IFH entry of `key`, copied consistently through the reader
// library; fails the test when it is missing.
pmdb_ifh_entry_t ReadEntry(uint32_t key);
// True when the reader library finds an entry under `key`.
bool EntryPresent(uint32_t key);
// Raw copy of the table slot of `key` from the table store, also for an
// entry the reader treats as unfilled (key field 0); false when absent.
bool RawEntry(uint32_t key, pmdb_ifh_entry_t *out);

// The globals block of the IFH region as another process maps it.
dnx_pmdb_glbls_t Globals();

// Node ids of the inventory list from the head.
std::vector<uint32_t> InventoryNodes();
// Empties this process's inventory list (tests that share a process).
void ClearInventory();

// Creates or refreshes the IFH entry of event `ev` (key `ifh`) and expects 0.
void AddOk(uint32_t ifh, const pmdb_event_t &ev, uint16_t node = 0);

// Base fixture: fresh namespace, empty inventory, no AIB callback.
class WriterTest : public pmdb::test::PmdbTest {
protected:
    void SetUp() override;
    void TearDown() override;
};

// Records every call of the AIB update callback.
struct AibCall {
    std::vector<uint32_t> handles;
    std::vector<uint32_t> status;
};
// Registers a recording callback; Calls() returns what it saw.
void RecordAibCalls();
const std::vector<AibCall> &AibCalls();
void AibRecorder(uint32_t *handles, uint32_t *status, uint16_t count);

}  // namespace writer_test

#endif
