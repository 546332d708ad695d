// snapshot.h - a card's whole database as one value, and its file format
// (docs/snapshot-format.md): what pmdbctl save writes, load rebuilds and
// diff compares.
//
// Capture reads the current namespace the way other processes read it:
// entries through the reader library (consistent copies, never torn), the
// regions mapped read-only without taking a lock, the trace rings through
// the trace reader.  Nothing of the card is changed.
#ifndef PMDBCTL_SNAPSHOT_H
#define PMDBCTL_SNAPSHOT_H

#include <stdint.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/vesk_reader.h"
#include "lock_survey.h"
#include "pmdb.h"

namespace pmdbctl {

constexpr uint32_t kSnapshotFormat = 1;
// Bytes of one trace record in the file (fields written one by one).
constexpr uint32_t kSnapTraceRecordSize = 152;

struct SnapEntry {
    uint32_t slot = 0;
    uint32_t key = 0;
    std::string bytes;  // the whole record, the table's entry size
};

struct SnapTable {
    bool present = false;  // the table existed when it was captured
    uint32_t entry_size = 0;
    uint32_t max_entries = 0;
    uint64_t adds = 0, removes = 0, repairs = 0;
    std::vector<SnapEntry> entries;  // ascending slot order
};

struct SnapRegion {
    bool present = false;  // the object existed and was large enough to map
    uint32_t magic = 0;
    dnx_pmdb_glbls_t glbls{};
    LockCounts locks;  // states of the entry locks; the locks are not kept
};

struct SnapTrace {
    uint32_t capacity = 0;
    uint64_t next = 0;                // sequence number the next record would get
    uint64_t lost = 0;                // records before `next` that the ring no longer held
    uint64_t dropped = 0;             // records writers gave up
    std::vector<vesk_rec_t> records;  // oldest first
};

struct Snapshot {
    nlohmann::ordered_json header;  // format, record sizes, time, node, capture
    SnapTable tables[PMDB_NUM_TYPES];
    SnapRegion regions[PMDB_NUM_TYPES];
    SnapTrace traces[VESK_KINDS];
    nlohmann::ordered_json settings = nlohmann::ordered_json::array();
};

// "ifh", "punt", "oam".
extern const char *const kTypeNames[PMDB_NUM_TYPES];
// The entry size of each database type.
uint32_t EntrySize(int type);

// Captures the current namespace into *out; false with the reason in *why
// when a table exists but cannot be read.  The tables are read again while
// the copy breaks an invariant a writer keeps only between its steps (a
// bundle's counters behind its members, entries of an interface whose IFH
// entry a removal has just taken), for at most wait_ms; header
// "invariants_hold" says how it ended.
bool Capture(Snapshot *out, unsigned wait_ms, std::string *why);

// Whether the captured tables hold the invariants: every IFH entry's
// member_count, oor_members_1 and oor_members_2 agree with the entries
// naming it as their bundle with member_active set, and the card checks of
// check.h find nothing.
bool InvariantsHold(const Snapshot &s);

// The file's bytes of s.
std::string Encode(const Snapshot &s);
// A file's bytes as a compressed file (zstd, with its content checksum);
// the bytes unchanged when compression fails.
std::string Compress(const std::string &file);
// Parses and checks a file's bytes: format version, every section's
// checksum, the record sizes; a compressed file is inflated first.  false with a one-line reason in
// *why.
bool Decode(const std::string &bytes, Snapshot *out, std::string *why);

// Reads and decodes the file at path.
bool ReadSnapshotFile(const std::string &path, Snapshot *out, std::string *why);

// The counters of s that diff compares, by dotted name.
std::map<std::string, uint64_t> Counters(const Snapshot &s);

}  // namespace pmdbctl

#endif
