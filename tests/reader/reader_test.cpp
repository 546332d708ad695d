// The reader library as other processes use it, on entries written through
// the library's entry change cycle: lookups, list queries and the IFH walk on
// a hand-built card (exactly the expected keys and handles, in slot order,
// within capacity, zeros after the last match, untouched buffers on failure)
// and the pmdbctl commands that print it; and the consistency of copies
// against writers in other processes: no torn copy, lock-free or locked, no
// endless wait behind a dead or stuck writer, and sound entries, locks and
// copies when many writers race on the same keys.
//
// Nothing here depends on how the scheduler interleaves the processes: an
// interleaving a test needs is either made by a handshake (a writer holds the
// entry until the reader is seen on the path under test) or awaited by
// reading until it has been seen.  Time bounds only detect hangs.
#include <gmock/gmock.h>
#include <sched.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "card.h"
#include "pmdb_cycle.h"
#include "pmdb_fields.h"
#include "pmdb_lock_view.h"
#include "pmdb_reader.h"
#include "pmdb_test.h"
#include "tabra.h"

namespace {

using namespace std::chrono_literals;
using pmdb::test::ChildLink;
using pmdb::test::ChildProcess;
using pmdb::test::PmdbTest;
using pmdb::test::RemoveEntry;
using pmdb::test::SlotOf;
using pmdb::test::WriteEntry;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using Clock = std::chrono::steady_clock;

constexpr u32 kNode1 = 1, kNode2 = 2, kBundleNode = 999;
constexpr u32 P1 = 0x1001, P2 = 0x1002, P6 = 0x1003;
constexpr u32 P3 = 0x2001, P4 = 0x2002, P5 = 0x2003;
constexpr u32 S1 = 0x3001;
constexpr u32 B = 0x5000, B2 = 0x5100;
constexpr u32 BS1 = 0x6001, BS2 = 0x6002, BS3 = 0x6101;
constexpr u32 kGuard = 0xDEADBEEFu;

/* Interface block naming ifh / sub_ifh / bundle_ifh on node, with a few
 * distinctive values derived from the handles. */
pmdb_intf_info_t Intf(u32 ifh, u32 sub, u32 bundle, u32 node) {
    pmdb_intf_info_t info{};
    const u32 self = sub != 0 ? sub : (ifh != 0 ? ifh : bundle);
    info.ifh = ifh;
    info.sub_ifh = sub;
    info.bundle_ifh = bundle;
    info.egress_lif = 0x8000u | (self & 0xFFFu);
    info.ingress_lif = static_cast<u16>(self & 0xFFFu);
    info.sys_port = static_cast<u16>(self & 0x3FFFu);
    info.node_id = node;
    info.intf_type = 1;
    info.sub_flags = sub != 0 ? PMDB_SUB_VALID : 0;
    for (int i = 0; i < 6; i++) info.mac_addr[i] = static_cast<u8>(self >> (i % 4 * 8));
    memset(info.opaque_20, static_cast<int>(self & 0xFF), sizeof info.opaque_20);
    info.oam_slots[31] = self;
    return info;
}

void PutIfh(u32 key, const pmdb_intf_info_t &info, u8 ifh_flags = 0, u8 member_count = 0) {
    card::PutIfh(key, [&](pmdb_ifh_entry_t &e) {
        e.ifh_flags = ifh_flags;
        e.member_count = member_count;
        e.intf_info = info;
        e.punt_info.ifh = key;
        e.punt_info.punt_data[0] = key ^ 0xA5A5u;
    });
}

void PutPunt(u32 key, const pmdb_intf_info_t &info) {
    pmdb_punt_entry_t e{};
    e.key = key;
    e.intf_info = info;
    e.punt_info.punt_data[4] = key;
    card::PutRecord(PMDB_TYPE_PUNT, key, &e);
}

void PutOam(u32 key, u32 oam_ifh) {
    pmdb_oam_entry_t e{};
    e.key = key;
    e.oam_info.oam_ifh = oam_ifh;
    e.oam_info.oam_word = key >> 16;
    pmdb_stamp(&e.event_id, &e.last_update, key);
    card::PutRecord(PMDB_TYPE_OAM, key, &e);
}

/* The card: ports P1 (with port sub-interface S1), P2, P6 on node 1, P3, P4,
 * P5 on node 2; bundle B with active members P2, P3, P4 (P5 carries B but is
 * not active) and sub-interfaces BS1, BS2; bundle B2 with P6 and BS3.  Each
 * row: handles, node, IFH flags and member count, and the PUNT keys written
 * with the interface's block.  BS2's IFH entry is the one of node 1 (the
 * later row). */
const struct {
    u32 ifh, sub, bundle, node;
    u8 flags, members;
    std::vector<u32> punt_keys;
} kCard[] = {
    {P1, 0, 0, kNode1, 0, 0, {0x101, 0x110000, 0x40008101}},
    {P2, 0, B, kNode1, PMDB_IFH_MEMBER_ACTIVE, 0, {0x102, 0x120000, 0x40008102, 0x80050000}},
    {P3, 0, B, kNode2, PMDB_IFH_MEMBER_ACTIVE, 0, {0x103, 0x40008103, 0x80060000}},
    {P4, 0, B, kNode2, PMDB_IFH_MEMBER_ACTIVE, 0, {0x104, 0x80070000}},
    {P5, 0, B, kNode2, 0, 0, {0x105}},
    {P6, 0, B2, kNode1, PMDB_IFH_MEMBER_ACTIVE, 0, {0x106, 0x80080000}},
    {P1, S1, 0, kNode1, 0, 0, {0x201}},
    {0, 0, B, kBundleNode, 0, 3, {0x500}},
    {0, 0, B2, kBundleNode, 0, 1, {0x510}},
    {0, BS1, B, kBundleNode, 0, 0, {0x601}},
    {0, BS2, B, kBundleNode, 0, 0, {0x602}},
    {0, BS2, B, kNode1, 0, 0, {0x40000602}},
    {0, BS3, B2, kBundleNode, 0, 0, {0x611}},
};

/* Writes the whole card above. */
void BuildCard() {
    for (const auto &c : kCard) {
        const pmdb_intf_info_t info = Intf(c.ifh, c.sub, c.bundle, c.node);
        PutIfh(c.sub != 0 ? c.sub : (c.ifh != 0 ? c.ifh : c.bundle), info, c.flags, c.members);
        for (u32 key : c.punt_keys) PutPunt(key, info);
    }
    for (const auto &[key, ifh] :
         {std::pair{0x81010008u, P1}, {0x0042001Cu, P1}, {0x0043001Cu, S1}, {0x0050001Cu, B}})
        PutOam(key, ifh);
}

/* `keys` sorted by their table slot (the order the list queries promise). */
std::vector<u32> InSlotOrder(pmdb_type_t type, std::vector<u32> keys) {
    std::sort(keys.begin(), keys.end(),
              [type](u32 a, u32 b) { return SlotOf(type, a) < SlotOf(type, b); });
    return keys;
}

constexpr size_t kWords = PMDB_READER_INFO_COPY_SIZE / 4;
/* Hang detector of every loop that waits for something to be seen, and the
 * reader's lock wait bound where a wait must end only by the writer's hand. */
constexpr auto kHang = 30s;
constexpr u32 kHangMs = 30000;
using Copy = std::array<u32, PMDB_PUNT_ENTRY_SIZE / 4>;

class ReaderQueryTest : public PmdbTest {
  protected:
    void TearDown() override {
        dpa_pmdb_reader_set_lock_wait_ms(0);
        PmdbTest::TearDown();
    }
#ifdef PMDBCTL_PATH
    /* Runs pmdbctl in this test's namespace. */
    pmdb::test::ToolRun Pmdbctl(const std::string &args) {
        return pmdb::test::RunTool(PMDBCTL_PATH, pmdb::test::Words("--ns " + ns() + " " + args));
    }
#endif
};
using ReaderConsistencyTest = ReaderQueryTest;

/* The interface and punt blocks of an IFH or PUNT entry. */
u32 *Blocks(pmdb_type_t type, void *entry) {
    if (type == PMDB_TYPE_IFH)
        return reinterpret_cast<u32 *>(&static_cast<pmdb_ifh_entry_t *>(entry)->intf_info);
    return reinterpret_cast<u32 *>(&static_cast<pmdb_punt_entry_t *>(entry)->intf_info);
}

/* Entry `key` of `type` with every block word `value` (the key field kept),
 * yielding half way so that an unlocked reader would see a mix. */
cerrno PutPattern(pmdb_type_t type, u32 key, u32 value) {
    return WriteEntry(type, key, [&](void *e) {
        *static_cast<u32 *>(e) = key;
        u32 *w = Blocks(type, e);
        for (size_t i = 0; i < kWords; i++) {
            if (i == kWords / 2) sched_yield();
            __atomic_store_n(&w[i], value, __ATOMIC_RELAXED);
        }
    });
}

/* What the reader copies of `key`: the interface and punt blocks of an IFH
 * or PUNT entry, a whole OAM entry. */
cerrno ReadBlocks(pmdb_type_t type, u32 key, Copy *out) {
    if (type == PMDB_TYPE_OAM)
        return dpa_pmdb_get_oam_entry_by_key(key,
                                             reinterpret_cast<pmdb_oam_entry_t *>(out->data()));
    return type == PMDB_TYPE_IFH ? dpa_pmdb_get_ifh_entry_by_key(key, out->data(), 0, 0)
                                 : dpa_pmdb_get_punt_entry_by_key(key, out->data());
}

/* Every word of a copy is one writer's: each copied block word, or each
 * word of an OAM entry after its key. */
bool Uniform(const Copy &c, pmdb_type_t type = PMDB_TYPE_IFH) {
    const bool oam = type == PMDB_TYPE_OAM;
    const size_t first = oam ? 1 : 0, end = oam ? PMDB_OAM_ENTRY_SIZE / 4 : kWords;
    return std::all_of(c.begin() + first, c.begin() + end, [&](u32 w) { return w == c[first]; });
}

/* How a holder child holds its entry. */
enum class Hold {
    locked,    /* found, under its slot lock */
    open_only, /* found (open for writing), its slot lock left alone */
    created,   /* created under its slot lock, its key not written yet */
};

/* A child that holds `key` of `type` open for writing as `how` says, with
 * the second half of the blocks rewritten to `value` (the handles in the
 * first half stay), then waits to be released or killed.  Released, it
 * writes `value` into the first half too when `complete` is set, and lets
 * the entry go. */
std::unique_ptr<ChildProcess> StartHolder(pmdb_type_t type, u32 key, u32 value,
                                          bool complete = false, Hold how = Hold::locked) {
    return std::make_unique<ChildProcess>([=](ChildLink &link) {
        pmdb_cycle_t cyc;
        if (pmdb_cycle_open(&cyc, type) != 0) return 1;
        const cerrno rc = how == Hold::locked    ? pmdb_cycle_find_lock(&cyc, key)
                          : how == Hold::created ? pmdb_cycle_find_or_create(&cyc, key)
                                                 : pmdb_cycle_find(&cyc, key);
        if (rc != 0 || (how == Hold::created && pmdb_cycle_lock(&cyc) != 0)) return 2;
        u32 *w = Blocks(type, cyc.entry);
        for (size_t i = kWords / 2; i < kWords; i++) w[i] = value;
        link.Ready();
        link.WaitRelease();
        for (size_t i = 0; complete && i < kWords / 2; i++) w[i] = value;
        return static_cast<int>(pmdb_cycle_release(&cyc, 0));
    });
}

dpa_pmdb_reader_stats_t Stats() {
    dpa_pmdb_reader_stats_t s;
    dpa_pmdb_reader_get_stats(&s);
    return s;
}

/* Lock-free copies while another process rewrites `key` with patterns 1, 2,
 * 3, ... (leaving it at rest a little after each, so that lock-free copies
 * come soon even when the reader waits long for the processor): read until
 * more than 20 patterns and a lock-free copy have been seen; none torn. */
void ExpectNoTornCopyOfRewrites(pmdb_type_t type, u32 key) {
    ChildProcess writer([type, key](ChildLink &link) {
        link.Ready();
        for (u32 v = 1;; v++) {
            if (PutPattern(type, key, v) != PMDB_OK) return 1;
            usleep(50);
        }
    });
    ASSERT_TRUE(writer.WaitReady());
    std::set<u32> seen;
    size_t copies = 0, torn = 0;
    const dpa_pmdb_reader_stats_t before = Stats();
    bool lock_free = false;
    for (const auto hang = Clock::now() + kHang;
         (seen.size() <= 20 || !lock_free) && Clock::now() < hang;) {
        Copy c;
        ASSERT_EQ(ReadBlocks(type, key, &c), PMDB_OK);
        copies++;
        torn += Uniform(c) ? 0 : 1;
        seen.insert(c[0]);
        const dpa_pmdb_reader_stats_t now = Stats();
        lock_free = now.copies - before.copies > now.locked_copies - before.locked_copies;
    }
    EXPECT_EQ(torn, 0u) << "of " << copies << " copies";
    EXPECT_GT(seen.size(), 20u) << "the writer must have changed the entry during the reads";
    EXPECT_TRUE(lock_free);
}

/* Runs `read` in a thread of this process while `holder` holds the entry,
 * and releases the holder once the read is on the locked path (which a read
 * of an entry open for writing in another process must take).  The read's
 * result. */
cerrno ReadPastHolder(ChildProcess *holder, const std::function<cerrno()> &read) {
    dpa_pmdb_reader_set_lock_wait_ms(kHangMs);
    const u64 locked_before = Stats().locked_copies;
    cerrno rc = PMDB_EINVAL;
    std::thread reader([&] { rc = read(); });
    bool locked_path = false;
    for (const auto hang = Clock::now() + kHang; !locked_path && Clock::now() < hang;) {
        locked_path = Stats().locked_copies > locked_before;
        if (!locked_path) std::this_thread::sleep_for(1ms);
    }
    holder->Release();
    reader.join();
    EXPECT_TRUE(locked_path);
    EXPECT_TRUE(holder->Wait().ExitedWith(0));
    return rc;
}

/* A copy that meets `key` half rewritten and held under its slot lock takes
 * the locked path and waits; the holder finishes its pattern only once the
 * reader is seen on that path, and the copy is the finished pattern.  The
 * same entry copied without the slot lock meanwhile is torn, so a reader
 * that skipped the lock would be caught.  A copy of 1 to 3 bytes on that
 * path still checks the record's whole key (its first four bytes), and
 * hands over only the bytes asked for. */
void ExpectLockedCopiesWaitForTheWriter(pmdb_type_t type, u32 key) {
    constexpr u32 kHeld = 0x77;
    for (u32 len = 0; len <= 3; len++) { /* 0: the type's lookup */
        SCOPED_TRACE(len);
        auto holder = StartHolder(type, key, kHeld + len, true);
        ASSERT_TRUE(holder->WaitReady());
        std::array<u8, PMDB_IFH_ENTRY_SIZE> raw;
        ASSERT_TRUE(pmdb::test::CopyEntry(type, key, raw.data(), pmdb_fields::kEntrySize[type]));
        Copy c;
        memcpy(c.data(), Blocks(type, raw.data()), PMDB_READER_INFO_COPY_SIZE);
        EXPECT_FALSE(Uniform(c));
        std::array<u8, 4> buf{0xEE, 0xEE, 0xEE, 0xEE};
        ASSERT_EQ(ReadPastHolder(holder.get(),
                                 [&] {
                                     return len == 0
                                                ? ReadBlocks(type, key, &c)
                                                : dpa_pmdb_copy_entry(type, key, buf.data(), len);
                                 }),
                  PMDB_OK);
        ASSERT_EQ(len > 0 ? ReadBlocks(type, key, &c) : PMDB_OK, PMDB_OK);
        EXPECT_TRUE(Uniform(c));
        EXPECT_EQ(c[0], kHeld + len);
        const std::array<u8, 4> want{len > 0 ? u8{0x74} : u8{0xEE}, len > 1 ? u8{0x73} : u8{0xEE},
                                     len > 2 ? u8{0x72} : u8{0xEE}, 0xEE};
        EXPECT_EQ(buf, want);
    }
}

/* Runs a list query into `capacity` places followed by two guard words;
 * fails the test when the guards changed.  Returns the places. */
template <typename Query>
std::vector<u32> Ask(Query query, u32 capacity, cerrno expect = PMDB_OK) {
    std::vector<u32> out(capacity + 2, kGuard);
    EXPECT_EQ(query(out.data(), capacity), expect);
    EXPECT_EQ(out[capacity], kGuard) << "capacity overrun";
    EXPECT_EQ(out[capacity + 1], kGuard) << "capacity overrun";
    out.resize(capacity);
    return out;
}

/* `keys` in slot order, cut or padded with zeros to `capacity`. */
std::vector<u32> Expected(pmdb_type_t type, std::vector<u32> keys, u32 capacity) {
    keys = InSlotOrder(type, keys);
    keys.resize(capacity, 0);
    return keys;
}

/* A list query of `handle` (and the trailing arguments) as Ask takes it. */
template <typename... Rest>
auto List(cerrno (*fn)(u32, u32 *, u32, Rest...), u32 handle, Rest... rest) {
    return [=](u32 *out, u32 cap) { return fn(handle, out, cap, rest...); };
}
const auto PortPunt = [](u32 ifh) { return List(dpa_pmdb_get_port_punt_entries, ifh); };
const auto Members = [](u32 bundle, u32 node) {
    return List(dpa_pmdb_get_bundle_member_ifh_entries, bundle, node);
};

struct Visits {
    std::vector<u32> keys;
    int stop_after = -1; /* return 17 from this visit on */
    int result = 22;
};

int Visit(void *arg, const pmdb_ifh_entry_t *entry, void *aux, void *ctx) {
    auto *v = static_cast<Visits *>(ctx);
    EXPECT_EQ(arg, ctx);
    EXPECT_EQ(entry->key, *static_cast<u32 *>(aux));
    if (v->stop_after >= 0 && static_cast<int>(v->keys.size()) >= v->stop_after) return 17;
    v->keys.push_back(entry->key);
    return v->result;
}

/* Nothing is found before the database exists, and a reader that asked too
 * early finds the tables once a writer has made them, without a restart. */
TEST_F(ReaderQueryTest, MissingEntriesAndBadArgumentsLeaveBuffersAlone) {
    Copy buf;
    buf.fill(kGuard);
    const Copy untouched = buf;
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, buf.data(), 0, 0), PMDB_ENOTFOUND);
    EXPECT_EQ(dpa_pmdb_get_punt_entry_by_key(0x101, buf.data()), PMDB_ENOTFOUND);
    EXPECT_EQ(Ask(List(dpa_pmdb_get_bundle_punt_entries, B), 3, PMDB_ENOTFOUND),
              std::vector<u32>(3, 0));
    Visits none;
    EXPECT_EQ(dpa_pmdb_iterate(Visit, &none, &none, 0), PMDB_ENOTFOUND);
    EXPECT_TRUE(none.keys.empty());
    u32 n = 5;
    EXPECT_EQ(dpa_pmdb_count_entries(PMDB_TYPE_OAM, &n), PMDB_ENOTFOUND);
    EXPECT_EQ(n, 5u);
    BuildCard();
    EXPECT_EQ(dpa_pmdb_count_entries(PMDB_TYPE_IFH, &n), PMDB_OK);
    EXPECT_EQ(n, 12u);

    for (const pmdb_type_t type : {PMDB_TYPE_IFH, PMDB_TYPE_PUNT, PMDB_TYPE_OAM})
        EXPECT_EQ(ReadBlocks(type, 0x7777, &buf), PMDB_ENOTFOUND) << type;
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(0, buf.data(), 0, 0), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, buf.data(), 1, 0), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, buf.data(), 0, 1), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_punt_entry_by_key(0, buf.data()), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_copy_entry(PMDB_TYPE_OAM, 0x0043001C, buf.data(), PMDB_OAM_ENTRY_SIZE + 1),
              PMDB_EINVAL);
    /* Present in the table, at rest, but its key field never written (an
     * event that set only other fields): missing, and the buffer is not
     * touched even though the entry could be copied without a lock. */
    const auto fill = [](void *p) { static_cast<pmdb_ifh_entry_t *>(p)->intf_info.ifh = 0x7778; };
    ASSERT_EQ(WriteEntry(PMDB_TYPE_IFH, 0x7778, fill), PMDB_OK);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(0x7778, buf.data(), 0, 0), PMDB_ENOTFOUND);
    EXPECT_EQ(buf, untouched);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, nullptr, 0, 0), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_punt_entry_by_key(0x101, nullptr), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_oam_entry_by_key(0x0043001C, nullptr), PMDB_EINVAL);

    u8 count = 7;
    EXPECT_EQ(dpa_pmdb_get_num_members(&count, 0x7777), PMDB_ENOTFOUND);
    EXPECT_EQ(dpa_pmdb_get_num_members(&count, 0), PMDB_EINVAL);
    EXPECT_EQ(count, 7);
    EXPECT_EQ(dpa_pmdb_get_num_members(nullptr, B), PMDB_EINVAL);

    EXPECT_EQ(dpa_pmdb_get_port_punt_entries(P1, nullptr, 4), PMDB_EINVAL);
    EXPECT_EQ(Ask(PortPunt(0), 2, PMDB_EINVAL), std::vector<u32>(2, kGuard));
    EXPECT_EQ(Ask(Members(0, PMDB_READER_ALL_NODES), 2, PMDB_EINVAL), std::vector<u32>(2, kGuard));
    EXPECT_EQ(Ask(PortPunt(P1), 0), std::vector<u32>{});
    /* A lookup fills the interface and punt blocks, or the whole OAM entry,
     * and nothing past them (what it copies is checked against the stored
     * entries by the dispatch, path and example tests). */
    for (const auto &[type, key, words] :
         {std::tuple{PMDB_TYPE_IFH, P1, kWords},
          {PMDB_TYPE_PUNT, 0x101u, kWords},
          {PMDB_TYPE_OAM, 0x0043001Cu, size_t{PMDB_OAM_ENTRY_SIZE / 4}}}) {
        buf = untouched;
        EXPECT_EQ(ReadBlocks(type, key, &buf), PMDB_OK);
        EXPECT_NE(buf[words - 1], kGuard) << type;
        EXPECT_EQ(std::count(buf.begin() + words, buf.end(), kGuard), buf.size() - words) << type;
    }
}

/* Each list query finds exactly the entries that belong to its handle, in
 * slot order, zeros after the last; a full array has no zero place. */
TEST_F(ReaderQueryTest, ListsHoldWhatBelongsToTheirHandle) {
    BuildCard();
    const u32 all = PMDB_READER_ALL_NODES;
    const auto punt = PMDB_TYPE_PUNT, ifh = PMDB_TYPE_IFH, oam = PMDB_TYPE_OAM;
    const auto sub_punt = dpa_pmdb_get_bundle_sub_punt_entries;
    const auto bundle_punt = dpa_pmdb_get_bundle_punt_entries;
    const struct {
        std::function<cerrno(u32 *, u32)> query;
        u32 capacity;
        pmdb_type_t type;
        std::vector<u32> keys; /* all that belong; the first `capacity` expected */
    } cases[] = {
        {PortPunt(P1), 5, punt, {0x101, 0x110000, 0x40008101}},
        {PortPunt(P1), 2, punt, {0x101, 0x110000, 0x40008101}},
        /* A member port keeps its own keys; its bundle-member key is the bundle's. */
        {PortPunt(P2), 5, punt, {0x102, 0x120000, 0x40008102}},
        {PortPunt(S1), 2, punt, {0x201}},
        {PortPunt(B), 2, punt, {0x500}},
        {PortPunt(0x7777), 3, punt, {}},
        {List(bundle_punt, B),
         21,
         punt,
         {0x102, 0x120000, 0x40008102, 0x80050000, 0x103, 0x40008103, 0x80060000, 0x104, 0x80070000,
          0x105}},
        {List(bundle_punt, B2), 7, punt, {0x106, 0x80080000}},
        {List(sub_punt, BS1, all), 1, punt, {0x601}},
        {List(sub_punt, BS2, all), 3, punt, {0x602, 0x40000602}},
        {List(sub_punt, BS2, kBundleNode), 3, punt, {0x602}},
        {List(sub_punt, BS2, kNode1), 3, punt, {0x40000602}},
        /* A port sub-interface is no bundle sub-interface. */
        {List(sub_punt, S1, all), 2, punt, {}},
        {Members(B, all), 4, ifh, {P2, P3, P4}},
        {Members(B, all), 2, ifh, {P2, P3, P4}},
        {Members(B, kNode1), 3, ifh, {P2}},
        {Members(B, kNode2), 3, ifh, {P3, P4}},
        {Members(B, 7), 2, ifh, {}},
        {Members(B2, all), 2, ifh, {P6}},
        {List(dpa_pmdb_get_bundle_sub_ifh_entries, B), 3, ifh, {BS1, BS2}},
        {List(dpa_pmdb_get_bundle_sub_ifh_entries, B2), 1, ifh, {BS3}},
        {List(dpa_pmdb_get_bundle_sub_ifh_entries, P1), 2, ifh, {}},
        {List(dpa_pmdb_get_intf_oam_entries, P1), 3, oam, {0x81010008, 0x0042001C}},
        {List(dpa_pmdb_get_intf_oam_entries, S1), 1, oam, {0x0043001C}},
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        EXPECT_EQ(Ask(cases[i].query, cases[i].capacity),
                  Expected(cases[i].type, cases[i].keys, cases[i].capacity))
            << "case " << i;
    }
    /* A member that leaves (flag cleared, bundle field cleared) drops out. */
    PutIfh(P3, Intf(P3, 0, 0, kNode2));
    EXPECT_EQ(Ask(Members(B, all), 3), Expected(PMDB_TYPE_IFH, {P2, P4}, 3));
}

TEST_F(ReaderQueryTest, ListsFollowSlotOrderNotKeyOrder) {
    const pmdb_intf_info_t p1 = Intf(P1, 0, 0, kNode1);
    for (u32 key : {0x101u, 0x102u, 0x103u}) PutPunt(key, p1);
    ASSERT_EQ(RemoveEntry(PMDB_TYPE_PUNT, 0x101), PMDB_OK);
    PutPunt(0x40000999, p1); /* takes the freed first slot */
    ASSERT_LT(SlotOf(PMDB_TYPE_PUNT, 0x40000999), SlotOf(PMDB_TYPE_PUNT, 0x102));
    EXPECT_EQ(Ask(PortPunt(P1), 3), (std::vector<u32>{0x40000999, 0x102, 0x103}));
}

/* Every IFH entry once, in slot order, until the callback answers 17
 * (full: a success unless asked to be an error) or another failure. */
TEST_F(ReaderQueryTest, IterateVisitsEveryIfhEntryOnceAndStopsWhenFull) {
    BuildCard();
    const std::vector<u32> all =
        InSlotOrder(PMDB_TYPE_IFH, {P1, P2, P3, P4, P5, P6, S1, B, B2, BS1, BS2, BS3});
    const struct {
        int stop_after, result;
        u32 flags;
        cerrno want;
        size_t visited;
    } cases[] = {
        {-1, 22, 0, PMDB_OK, all.size()},
        {4, 22, 0, PMDB_OK, 4},
        {4, 22, PMDB_ITER_FULL_IS_ERROR, PMDB_EFULL, 4},
        {-1, 5, 0, 5, 1},
        {-1, 0, 0, PMDB_OK, all.size()},
    };
    for (const auto &c : cases) {
        Visits v{{}, c.stop_after, c.result};
        EXPECT_EQ(dpa_pmdb_iterate(Visit, &v, &v, c.flags), c.want) << c.stop_after << c.result;
        EXPECT_EQ(v.keys, std::vector<u32>(all.begin(), all.begin() + c.visited));
    }
    EXPECT_EQ(dpa_pmdb_iterate(nullptr, nullptr, nullptr, 0), PMDB_EINVAL);
    Visits v;
    EXPECT_EQ(dpa_pmdb_iterate(Visit, &v, &v, 2), PMDB_EINVAL);
}

TEST_F(ReaderConsistencyTest, NoTornCopyWhileAnotherProcessRewrites) {
    constexpr u32 kKey = 0x71727374; /* bytes of their own, for the short copies */
    for (const pmdb_type_t type : {PMDB_TYPE_IFH, PMDB_TYPE_PUNT}) {
        SCOPED_TRACE(type);
        ASSERT_EQ(PutPattern(type, kKey, 0), PMDB_OK);
        ExpectNoTornCopyOfRewrites(type, kKey);
        ExpectLockedCopiesWaitForTheWriter(type, kKey);
    }
}

TEST_F(ReaderConsistencyTest, DeadOrOwnWriterHoldingTheLockDoesNotBlockReaders) {
    ASSERT_EQ(PutPattern(PMDB_TYPE_IFH, P1, 1), PMDB_OK);
    auto holder = StartHolder(PMDB_TYPE_IFH, P1, 9);
    ASSERT_TRUE(holder->WaitReady());
    holder->Kill(SIGKILL);
    EXPECT_TRUE(holder->Wait().KilledBy(SIGKILL));

    /* A reader that waited on the dead holder's lock would end in 16 after
     * the bound, not with a copy. */
    dpa_pmdb_reader_set_lock_wait_ms(kHangMs);
    const u64 dead_before = Stats().owner_dead;
    Copy c;
    ASSERT_EQ(ReadBlocks(PMDB_TYPE_IFH, P1, &c), PMDB_OK);
    EXPECT_EQ(Stats().owner_dead, dead_before + 1);
    /* The copy shows what the dead writer left: the old half, then its half. */
    EXPECT_EQ(c[0], 1u);
    EXPECT_EQ(c[kWords - 1], 9u);
    /* The reader made the lock consistent: a second read, with no writer in
     * between (the dead writer's window still refuses lock-free copies),
     * takes it at once, without another recovery. */
    dpa_pmdb_reader_set_lock_wait_ms(1000);
    ASSERT_EQ(ReadBlocks(PMDB_TYPE_IFH, P1, &c), PMDB_OK);
    EXPECT_EQ(Stats().owner_dead, dead_before + 1);
    EXPECT_EQ(c[kWords - 1], 9u);

    /* The lock is usable again for writers and readers. */
    ASSERT_EQ(PutPattern(PMDB_TYPE_IFH, P1, 3), PMDB_OK);
    ASSERT_EQ(ReadBlocks(PMDB_TYPE_IFH, P1, &c), PMDB_OK);
    EXPECT_TRUE(Uniform(c));
    EXPECT_EQ(c[0], 3u);

    /* A writer thread reading its own locked entry does not wait (it would
     * end in 16) and does not release the writer's lock. */
    pmdb_cycle_t cyc;
    ASSERT_EQ(pmdb_cycle_open(&cyc, PMDB_TYPE_IFH), PMDB_OK);
    ASSERT_EQ(pmdb_cycle_find_lock(&cyc, P1), PMDB_OK);
    dpa_pmdb_reader_set_lock_wait_ms(5000);
    c.fill(0);
    EXPECT_EQ(ReadBlocks(PMDB_TYPE_IFH, P1, &c), PMDB_OK);
    EXPECT_EQ(c[0], 3u);
    EXPECT_EQ(pmdb_cycle_release(&cyc, PMDB_OK), PMDB_OK);
}

/* An entry held open for writing past the reader's bound: the locked path
 * ends the read on its own, with the buffer untouched.  A slot lock that is
 * not one, zeroed (a plain mutex that keeps no writer out) or retired, is
 * neither taken nor changed: busy while the entry is there.  A new entry
 * whose key its writer has not written yet is found twice without its key:
 * missing, not busy.  A stuck writer's lock is waited on for the bound: busy,
 * and a list query reports it and still returns the others. */
TEST_F(ReaderConsistencyTest, EntryHeldPastTheBoundEndsTheReadOnItsOwn) {
    constexpr int kLockKept = 1;
    const struct {
        const char *what;
        Hold how;
        int lock_kind; /* the slot lock zeroed with this kind, or kLockKept */
        cerrno want;
    } cases[] = {
        {"zeroed lock", Hold::open_only, 0, PMDB_EBUSY},
        {"retired lock", Hold::open_only, -1, PMDB_EBUSY},
        {"new entry without its key", Hold::created, kLockKept, PMDB_ENOTFOUND},
        {"stuck writer", Hold::locked, kLockKept, PMDB_EBUSY},
    };
    card::PutMember(P2, B);
    dpa_pmdb_reader_set_lock_wait_ms(60);
    for (u32 i = 0; i < std::size(cases); i++) {
        const auto &k = cases[i];
        SCOPED_TRACE(k.what);
        const u32 key = 0x4300 + i;
        const bool stuck = k.how == Hold::locked; /* only it is a member of B */
        if (k.how != Hold::created) card::PutMember(key, stuck ? B : 0);
        auto holder = StartHolder(PMDB_TYPE_IFH, key, 9, false, k.how);
        ASSERT_TRUE(holder->WaitReady());
        pellin_mutex_type *lock =
            k.lock_kind != kLockKept ? card::SlotLock(PMDB_TYPE_IFH, key) : nullptr;
        pellin_mutex_type before{};
        if (lock != nullptr) {
            memset(lock, 0, sizeof *lock);
            lock->__data.__kind = k.lock_kind;
            before = *lock;
        }
        const u64 locked_before = Stats().locked_copies;
        Copy c;
        c.fill(7);
        const auto t0 = Clock::now();
        EXPECT_EQ(ReadBlocks(PMDB_TYPE_IFH, key, &c), k.want);
        const auto waited = Clock::now() - t0;
        EXPECT_GT(Stats().locked_copies, locked_before) << "the locked path was not taken";
        EXPECT_EQ(c[0], 7u);
        EXPECT_EQ(c[kWords - 1], 7u);
        EXPECT_TRUE(k.want != PMDB_EBUSY || waited >= 60ms);
        EXPECT_LT(waited, kHang) << "the bound was not kept";
        EXPECT_TRUE(lock == nullptr || memcmp(&before, lock, sizeof before) == 0) << "lock changed";
        EXPECT_EQ(dpa_pmdb_copy_entry(PMDB_TYPE_IFH, key, c.data(), 8), k.want);
        std::array<u32, 3> members{7, 7, 7};
        EXPECT_EQ(
            dpa_pmdb_get_bundle_member_ifh_entries(B, members.data(), 2, PMDB_READER_ALL_NODES),
            stuck ? PMDB_EBUSY : PMDB_OK);
        EXPECT_EQ(members, (std::array<u32, 3>{P2, 0, 7}));
        holder->Release();
        EXPECT_TRUE(holder->Wait().ExitedWith(0));
        if (!stuck) continue;
        ASSERT_EQ(ReadBlocks(PMDB_TYPE_IFH, key, &c), PMDB_OK);
        EXPECT_EQ(c[0], key);
        EXPECT_EQ(c[kWords - 1], 9u);
    }
}

/* ---- many writers of the same keys ---------------------------------------
 * Adds, refreshes and removals of the same few keys, from several threads in
 * each of several processes at once, while another process copies them
 * through the reader: no call crashes or hangs, every call answers a status
 * it documents, a writer never shares its entry with another writer, no
 * reader copy mixes two writers' words or is of another key whose entry
 * took the slot, and the table and its locks are sound afterwards. */

constexpr int kWriterProcs = 3, kThreadsPerProc = 2, kOpsPerThread = 1500, kReads = 20000;
constexpr std::array<u32, 2> kKeys = {0x0011, 0x0012};

class SameKeyRaceTest : public PmdbTest, public ::testing::WithParamInterface<pmdb_type_t> {};

/* Writes `tag` with the key in its top byte into every word of the entry
 * after its key, yielding half way so that a second writer would interleave,
 * then checks that every word still holds it: under a sound entry lock nobody
 * else writes meanwhile. */
bool FillAndCheck(void *entry, pmdb_type_t type, u32 key, u32 tag) {
    const u32 words = pmdb_fields::kEntrySize[type] / 4, value = key << 24 | tag;
    u32 *w = static_cast<u32 *>(entry);
    __atomic_store_n(&w[0], key, __ATOMIC_RELAXED);
    for (u32 i = 1; i < words; i++) {
        if (i == words / 2) sched_yield();
        __atomic_store_n(&w[i], value, __ATOMIC_RELAXED);
    }
    sched_yield();
    for (u32 i = 1; i < words; i++)
        if (__atomic_load_n(&w[i], __ATOMIC_RELAXED) != value) return false;
    return true;
}

/* One writer thread: a random mix of adds or refreshes (two in three) and
 * removals, until the first fault. */
void WriterThread(pmdb_type_t type, u32 seed) {
    std::mt19937 rng(seed);
    for (int op = 0; op < kOpsPerThread; op++) {
        const u32 key = kKeys[rng() % kKeys.size()];
        const bool remove = rng() % 3 == 2;
        bool shared = false;
        const cerrno st = remove ? RemoveEntry(type, key) : WriteEntry(type, key, [&](void *e) {
            shared = !FillAndCheck(e, type, key, (seed << 16) | (op + 1u));
        });
        ASSERT_FALSE(shared) << "another writer wrote in entry " << key;
        ASSERT_TRUE(st == 0 || (remove && st == TABRA_E_NOTFOUND)) << remove << " " << st;
    }
}

/* The reader's lock wait is long: a writer holds an entry for microseconds,
 * so a busy answer would be a fault, not a loaded machine. */
void ReadWhileWritten(pmdb_type_t type) {
    dpa_pmdb_reader_set_lock_wait_ms(kHangMs);
    for (int i = 0; i < kReads; i++) {
        Copy c;
        const u32 key = kKeys[i % kKeys.size()];
        const cerrno st = ReadBlocks(type, key, &c);
        ASSERT_TRUE(st == 0 || st == PMDB_ENOTFOUND) << st;
        ASSERT_TRUE(st != 0 || (Uniform(c, type) && c[1] >> 24 == key)) << "torn or another key";
    }
}

/* Runs body(0) .. body(n - 1) in threads released together. */
void InThreads(int n, const std::function<void(int)> &body) {
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < n; t++)
        threads.emplace_back([&, t] {
            while (!go.load()) {
            }
            body(t);
        });
    go = true;
    for (auto &th : threads) th.join();
}

TEST_P(SameKeyRaceTest, EveryInterleavingLeavesOneWriterPerEntry) {
    const pmdb_type_t type = GetParam();
    pmdb::test::RunAtOnce(kWriterProcs + 1, {}, [type](size_t p) {
        if (p == kWriterProcs) return ReadWhileWritten(type);
        InThreads(kThreadsPerProc, [&](int t) {
            WriterThread(type, static_cast<u32>(p * kThreadsPerProc + t + 1));
        });
    });

    tabra_hdl_t table = nullptr;
    ASSERT_EQ(tabra_attach(pmdb_fields::kTableName[type], &table), 0u);
    char report[256] = "";
    EXPECT_EQ(tabra_check(table, report, sizeof report), 0u) << report;
    /* One more entry, so that the reads below find at least one. */
    constexpr u32 kAfter = 0x0013;
    ASSERT_EQ(WriteEntry(type, kAfter, [&](void *e) { FillAndCheck(e, type, kAfter, 5); }), 0u);
    std::vector<u32> left;
    for (u32 key : {kKeys[0], kKeys[1], kAfter}) {
        if (SlotOf(type, key) < 0) continue;
        left.push_back(key);
        pmdb_lock_view_t view;
        pmdb_lock_inspect(card::SlotLock(type, key), &view);
        EXPECT_TRUE(view.initialised && !view.held) << "key " << key;
    }
    /* Threads of this process, which has not used the reader yet, race to
     * attach and each reads every entry left, whole. */
    InThreads(4, [&](int) {
        Copy c;
        for (int i = 0; i < 200; i++)
            for (u32 key : left)
                ASSERT_TRUE(ReadBlocks(type, key, &c) == 0 && Uniform(c, type)) << key;
    });
}

INSTANTIATE_TEST_SUITE_P(Tables, SameKeyRaceTest,
                         ::testing::Values(PMDB_TYPE_IFH, PMDB_TYPE_PUNT, PMDB_TYPE_OAM),
                         [](const auto &info) {
                             return std::string(std::array{"Ifh", "Punt", "Oam"}[info.param]);
                         });

#ifdef PMDBCTL_PATH
/* pmdbctl dump and show: fields printed by name with handles in hex, MACs
 * with colons and flags by name; one line and status 1 for a bad key, a
 * missing entry or a missing table. */
TEST_F(ReaderQueryTest, DumpAndShowPrintEntriesFieldByField) {
    BuildCard();
    const struct {
        const char *args;
        std::vector<testing::Matcher<std::string>> out;
    } cases[] = {
        {"dump ifh --key 0x1002",
         {HasSubstr("ifh 0x00001002\n"), ContainsRegex("ifh_flags +member_active\n"),
          ContainsRegex("intf_info.bundle_ifh +0x00005000\n"),
          ContainsRegex("intf_info.mac_addr +02:10:00:00:02:10\n"),
          ContainsRegex("punt_info.punt_data +0x0000b5a7,0x00000000")}},
        {"dump oam",
         {HasSubstr("oam 0x81010008\n"), HasSubstr("oam 0x0042001c\n"),
          HasSubstr("oam 0x0043001c\n"), HasSubstr("oam 0x0050001c\n")}},
        {"dump punt --key 0x80050000 --json",
         {HasSubstr("\"key_flags\": [\n      \"bundle_member\"\n    ]"),
          HasSubstr("\"bundle_ifh\": \"0x00005000\"")}},
        /* A bundle with its punt keys, OAM entries, members and sub-interfaces,
         * but not a sub-interface's punt key. */
        {"show 0x5000",
         {HasSubstr("punt 0x00000500\n"), HasSubstr("bundle_punt 0x80060000\n"),
          HasSubstr("oam 0x0050001c\n"), ContainsRegex("members: 0x0000(1002|2001|2002)"),
          HasSubstr("sub_interfaces: 0x00006001 0x00006002\n"), Not(HasSubstr("0x00000601"))}},
        {"show 0x1001",
         {HasSubstr("punt 0x40008101\n"), Not(HasSubstr("punt 0x00000201")),
          Not(HasSubstr("members:"))}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args);
        const pmdb::test::ToolRun r = Pmdbctl(c.args);
        EXPECT_EQ(r.status, 0) << r.err;
        for (const auto &m : c.out) EXPECT_THAT(r.out, m);
    }
}

TEST_F(ReaderQueryTest, BadKeysAndMissingEntriesAreOneLineErrors) {
    const pmdb::test::ToolRun no_table = Pmdbctl("dump punt");
    EXPECT_EQ(no_table.status, 1);
    EXPECT_EQ(no_table.out + no_table.err,
              "pmdbctl: the punt table does not exist in this namespace\n");
    BuildCard();
    const pmdb::test::ToolRun missing = Pmdbctl("dump ifh --key 0x9999");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out + missing.err, "pmdbctl: no ifh entry under key 0x00009999\n");
    const pmdb::test::ToolRun bad = Pmdbctl("show 12zz");
    EXPECT_EQ(bad.status, 1);
    EXPECT_THAT(bad.out + bad.err, testing::StartsWith("pmdbctl: bad interface handle '12zz'"));
    EXPECT_THAT(bad.out + bad.err, testing::MatchesRegex("[^\n]*\n"));
    EXPECT_EQ(Pmdbctl("dump ifh --key 0").status, 1);
}
#endif

}  // namespace
