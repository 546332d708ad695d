/*
 * Table store: opening, adding, finding, removing, walking and copying
 * entries, limits, hooks, and the consistency check on damaged tables.
 * Missing keys, full tables, slot reuse, pins and entry bounds within one
 * process are checked against a model in tests/model.
 */
#include <signal.h>
#include <sys/stat.h>

#include <vector>

#include "host/pm_fault.h"
#include "host_tabra.h"

using namespace host_test;
using pmdb::test::FindTraces;
using pmdb::test::RunInChild;

namespace {

class Tabra : public pmdb::test::PmdbTest {};

/* Status of attaching table `name` from this process. */
cerrno Attach(const char *name) {
    tabra_hdl_t h = nullptr;
    return tabra_attach(name, &h);
}

TEST_F(Tabra, RefusesBadParameterRecords) {
    const struct {
        const char *what;
        void (*spoil)(tabra_params_t *);
        u64 reason;
    } cases[] = {
        {"version", [](tabra_params_t *p) { p->version = 2; }, 2},
        {"no name", [](tabra_params_t *p) { p->table_name = nullptr; }, 3},
        {"empty name", [](tabra_params_t *p) { p->table_name = ""; }, 3},
        {"long name", [](tabra_params_t *p) { p->table_name = "T234567890123456789012345678901234567890123456789012345678901234"; }, 3},
        {"entry size 0", [](tabra_params_t *p) { p->entry_size = 0; }, 4},
        {"entry size too big", [](tabra_params_t *p) { p->entry_size = TABRA_MAX_ENTRY_SIZE + 1; }, 4},
        {"no buckets", [](tabra_params_t *p) { p->hash_buckets = 0; }, 5},
        {"too many buckets", [](tabra_params_t *p) { p->hash_buckets = 65537; }, 5},
        {"no hash function", [](tabra_params_t *p) { p->hash_fn = nullptr; }, 6},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        tabra_params_t p = Params("T");
        c.spoil(&p);
        MarkTraces();
        tabra_hdl_t h = nullptr;
        EXPECT_EQ(tabra_open(&p, &h), TABRA_E_INVAL);
        EXPECT_EQ(h, nullptr);
        ExpectTrace(VESK_ERROR, TABRA_TP_OPEN_INVAL, {TABRA_E_INVAL, c.reason, p.entry_size});
    }
    EXPECT_EQ(tabra_open(nullptr, nullptr), TABRA_E_INVAL);
    EXPECT_EQ(Attach("T"), TABRA_E_NOTFOUND) << "a refused open created the object";
}

TEST_F(Tabra, OtherEntrySizeOrHashRangeIsAMismatch) {
    auto r = RunInChild([] { return OpenOrDie(Params("SIZED", 328)) ? 0 : 1; });
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
    tabra_hdl_t h = nullptr;
    /* Against the object (no handle here yet), then against this process's handle. */
    for (bool own : {false, true}) {
        if (own) {
            ASSERT_NE(OpenOrDie(Params("SIZED", 328)), nullptr);
        }
        tabra_params_t p = Params("SIZED", own ? 80 : 312);
        MarkTraces();
        EXPECT_EQ(tabra_open(&p, &h), TABRA_E_MISMATCH);
        ExpectTrace(VESK_ERROR, TABRA_TP_OPEN_MISMATCH, {TABRA_E_MISMATCH, 328, p.entry_size});
        p = Params("SIZED", 328, Mod7, 7);
        EXPECT_EQ(tabra_open(&p, &h), TABRA_E_MISMATCH);
    }
}

TEST_F(Tabra, OnlyOCreatCreates) {
    tabra_params_t p = Params("ABSENT", 80, Low16, 65536, 65536, O_RDWR);
    tabra_hdl_t h = nullptr;
    EXPECT_EQ(tabra_open(&p, &h), TABRA_E_NOTFOUND);
    EXPECT_EQ(tabra_attach("ABSENT", &h), TABRA_E_NOTFOUND);
    EXPECT_EQ(CountTraces(VESK_ERROR, TABRA_TP_NO_TABLE), 2u);
    p.open_flags = PMDB_TABRA_OPEN_READ; /* O_CREAT alone creates, and may write */
    h = OpenOrDie(p);
    EXPECT_EQ(Attach("ABSENT"), 0u);
    AddOrDie(h, 5);
}

TEST_F(Tabra, BadCallsAreRefusedAndTraced) {
    tabra_hdl_t h = OpenOrDie(Params("M"));
    AddOrDie(h, 0x10007);
    void *e = nullptr;
    i32 slot = -1;
    MarkTraces();
    EXPECT_EQ(tabra_remove_entry(h, 0, 0x10007), TABRA_E_INVAL) << "flags other than by key";
    ExpectTrace(VESK_ERROR, TABRA_TP_RM_INVAL, {TABRA_E_INVAL, 0x10007, 0});
    const void *pinned = nullptr;
    EXPECT_EQ(tabra_pin_slot(h, 0x10007, nullptr, &slot), TABRA_E_INVAL);
    EXPECT_EQ(tabra_pin_slot(h, 0x10007, &pinned, nullptr), TABRA_E_INVAL);
    EXPECT_EQ(tabra_count(h), 1u);
    /* A hash value beyond the buckets is refused, not stored. */
    tabra_hdl_t out = OpenOrDie(Params("H", 80, [](u32 k) { return k == 99 ? 7 : k % 7; }, 7));
    MarkTraces();
    EXPECT_EQ(tabra_add_entry(out, 99, &e, &slot), TABRA_E_INVAL);
    ExpectTrace(VESK_ERROR, TABRA_TP_ADD_INVAL, {TABRA_E_INVAL, 99, 7});
    EXPECT_EQ(tabra_get_entry_by_key(out, 99, &e, &slot), TABRA_E_INVAL);
    EXPECT_EQ(tabra_count(out), 0u);
    EXPECT_EQ(CheckReport(out), "");
}

TEST_F(Tabra, AllSixtyFiveThousandSlotsAndNoMore) {
    tabra_hdl_t h = OpenOrDie(Params("ALL", 8));
    std::vector<bool> seen(TABRA_CAPACITY, false);
    void *e = nullptr;
    i32 slot = -1;
    for (u32 k = 0; k < TABRA_CAPACITY; k++) {
        ASSERT_EQ(tabra_add_entry(h, k * 3 + 1, &e, &slot), 0u) << k;
        ASSERT_TRUE(slot >= 0 && slot < 65536 && !seen[slot]) << slot;
        seen[slot] = true;
    }
    EXPECT_EQ(tabra_add_entry(h, 2, &e, &slot), TABRA_E_FULL);
    EXPECT_EQ(tabra_count(h), TABRA_CAPACITY);
    EXPECT_EQ(CheckReport(h), "");
    for (u32 k = 0; k < TABRA_CAPACITY; k += 2)
        ASSERT_EQ(tabra_remove_entry(h, TABRA_REMOVE_BY_KEY, k * 3 + 1), 0u);
    EXPECT_EQ(tabra_count(h), TABRA_CAPACITY / 2);
    EXPECT_EQ(CheckReport(h), "");
    EXPECT_EQ(tabra_add_entry(h, 2, &e, &slot), 0u);
    EXPECT_EQ(slot, 0);
}

/* Another process copies, finds and walks a table it never made: a child
 * makes and fills it, so later children attach by name.  A handle without a
 * hash function finds keys of a low-16 hash in their bucket and keys of any
 * other hash by a scan; a hashed attach gives the same handle, which cannot
 * write what it finds.  An open in
 * this process then takes the table as it is, and another process's
 * protection call sets the entry bound for every process. */
TEST_F(Tabra, TablesMadeInOneProcessAreOpenedAndAttachedInOthers) {
    const struct {
        const char *name;
        dpa_pmdb_hash_fn_t fn;
        u32 n, mult, base, absent;
    } tables[] = {{"RD", Low16, 50, 1, 0x10000, 0x20001}, {"HI", High16, 300, 0x10001, 0, 0x10002}};
    for (const auto &t : tables) {
        SCOPED_TRACE(t.name);
        const auto key = [&t](u32 k) { return t.base + k * t.mult; };
        auto fill = RunInChild([&] {
            tabra_hdl_t h = OpenOrDie(Params(t.name, 328, t.fn));
            tabra_make_shm_writable(h, nullptr);
            for (u32 k = 1; k <= t.n; k++) memset(AddOrDie(h, key(k)), static_cast<int>(k), 328);
        });
        ASSERT_TRUE(fill.ExitedWith(0)) << fill.Describe();
        auto r = RunInChild([&] {
            tabra_hdl_t rd = nullptr, hashed = nullptr;
            if (tabra_attach(t.name, &rd) != 0) return 1;
            u8 buf[328];
            i32 slot = -1;
            for (u32 k = 1; k <= t.n; k++) {
                if (tabra_copy_entry_by_key(rd, key(k), buf, sizeof buf, &slot) != 0) return 2;
                if (slot != static_cast<i32>(k - 1) || buf[0] != static_cast<u8>(k) || buf[327] != buf[0]) return 3;
            }
            if (tabra_copy_entry_by_key(rd, t.absent, buf, 4, &slot) != TABRA_E_NOTFOUND) return 4;
            void *e = nullptr;
            if (tabra_add_entry(rd, 5, &e, &slot) != TABRA_E_INVAL) return 5;
            if (tabra_get_entry_by_key(rd, key(5), &e, &slot) != 0 || slot != 4) return 6;
            if (Contents(rd).size() != t.n || tabra_count(rd) != t.n) return 7;
            if (tabra_attach_hashed(t.name, t.fn, &hashed) != 0 || hashed != rd) return 8;
            signal(SIGSEGV, SIG_DFL); /* no sanitizer's handler: the fault ends the child */
            static_cast<volatile u8 *>(e)[0] = 1; /* an attached handle starts read-only */
            return 9;
        });
        EXPECT_TRUE(r.KilledBy(SIGSEGV)) << r.Describe();
    }
    tabra_params_t p = Params("RD");
    tabra_hdl_t h = OpenOrDie(p);
    EXPECT_EQ(OpenOrDie(p), h) << "a second open in one process gives the same handle";
    void *e = nullptr;
    i32 slot = -1;
    ASSERT_EQ(tabra_get_entry_by_key(h, 0x10001, &e, &slot), 0u);
    EXPECT_EQ(std::make_pair(slot, static_cast<u8 *>(e)[327]), std::make_pair(0, u8{1}));
    auto r = RunInChild([] {
        tabra_params_t q = Params("RD", 328, Low16, 65536, 51);
        tabra_hdl_t h2 = nullptr;
        if (tabra_attach("RD", &h2) != 0) return 1;
        return tabra_make_shm_readonly_protected(h2, &q) == 0 ? 0 : 2;
    });
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
    AddOrDie(h, 2);
    EXPECT_EQ(tabra_add_entry(h, 3, &e, &slot), TABRA_E_FULL);
}

/* An armed failure is returned before the call does anything; each call is
 * logged with its arguments.  (The protection calls' log and failures: the
 * frame's tests.) */
TEST_F(Tabra, InjectedFailuresAndCallLog) {
    tabra_params_t p = Params("LOG", 80, Low16, 65536, 1000, PMDB_TABRA_OPEN_WRITE);
    pm_calllog_enable(1);
    pm_fault_set("tabra_open", 0xA6F01404, 1);
    tabra_hdl_t h = nullptr;
    EXPECT_EQ(tabra_open(&p, &h), 0xA6F01404u);
    EXPECT_EQ(h, nullptr);
    EXPECT_LT(TableFd("LOG"), 0) << "an injected failure did the work anyway";
    h = OpenOrDie(p);
    pm_fault_set("tabra_add_entry", 0xA6F01402, 1);
    void *e = nullptr;
    i32 slot = -1;
    EXPECT_EQ(tabra_add_entry(h, 9, &e, &slot), 0xA6F01402u);
    EXPECT_EQ(tabra_count(h), 0u);
    EXPECT_EQ(tabra_add_entry(h, 9, &e, &slot), 0u);
    pm_calllog_enable(0);
    std::vector<std::vector<u64>> calls;
    for (const pm_call_rec_t &c : pmdb::test::CallLog("tabra_"))
        calls.push_back({c.args[0], c.args[1], c.args[2]});
    EXPECT_EQ(calls,
              (std::vector<std::vector<u64>>{{66, 1000, 80}, {66, 1000, 80}, {9, 0, 0}, {9, 0, 0}}))
        << "open: flags, max_entries, entry size; add: key";
    EXPECT_EQ(pmdb::test::CallNames("tabra_"),
              (std::vector<std::string>{"tabra_open", "tabra_open", "tabra_add_entry",
                                        "tabra_add_entry"}));
}

/* ---- damaged tables ------------------------------------------------------ */

tabra_slot_meta_t *Slot(u8 *obj, u32 s) { return reinterpret_cast<tabra_slot_meta_t *>(obj + TABRA_OFF_SLOTS) + s; }
u64 *Bucket(u8 *obj, u32 b) { return reinterpret_cast<u64 *>(obj + TABRA_OFF_BUCKETS) + b; }
u64 *Bitmap(u8 *obj) { return reinterpret_cast<u64 *>(obj + TABRA_OFF_BITMAP); }

/* Keys 1..10 in Mod7 table `name` of 16-byte entries, made in a child so
 * that this process has no handle and each open checks the object. */
void MakeTenInChild(const std::string &name) {
    const auto made = RunInChild([&name] {
        tabra_hdl_t h = OpenOrDie(Params(name.c_str(), 16, Mod7, 7));
        for (u32 k = 1; k <= 10; k++) AddOrDie(h, k);
    });
    ASSERT_TRUE(made.ExitedWith(0)) << made.Describe();
}

TEST_F(Tabra, DamagedTablesAreRefusedAndKeptUnmadeOnesAreMade) {
    constexpr off_t kObject = TABRA_OFF_ENTRIES + 65536 * 16;
    const struct {
        const char *what;
        void (*apply)(int fd, u8 *obj);
        u32 code; /* TABRA_DAMAGE_*; 0: a half-made table, made again */
    } cases[] = {
        {"bucket count 0", [](int, u8 *o) { Header(o)->buckets = 0; }, TABRA_DAMAGE_BUCKETS},
        {"bucket count 2^31", [](int, u8 *o) { Header(o)->buckets = 1u << 31; }, TABRA_DAMAGE_BUCKETS},
        {"entry size changed within its stride", [](int, u8 *o) { Header(o)->entry_size = 13; }, TABRA_DAMAGE_CHECK},
        {"entry size 0", [](int, u8 *o) { Header(o)->entry_size = 0; }, TABRA_DAMAGE_ENTRY_SIZE},
        {"object shorter than the header says", [](int fd, u8 *) { ASSERT_EQ(ftruncate(fd, TABRA_OFF_ENTRIES + 4096), 0); }, TABRA_DAMAGE_SIZE},
        {"object cut inside its index", [](int fd, u8 *) { ASSERT_EQ(ftruncate(fd, 4096), 0); }, TABRA_DAMAGE_SIZE},
        {"magic zeroed with entries present", [](int, u8 *o) { Header(o)->magic = 0; }, TABRA_DAMAGE_NO_MAGIC},
        {"count above the capacity", [](int, u8 *o) { Header(o)->count = 70000; }, TABRA_DAMAGE_COUNTS},
        {"add in flight on no slot", [](int, u8 *o) { Header(o)->intent = tabra_intent_t{TABRA_OP_ADD, 1, 70000, 1, {}}; }, TABRA_DAMAGE_INTENT},
        {"header of another table", [](int, u8 *o) { Header(o)->name[0] ^= 1; }, TABRA_DAMAGE_NAME},
        /* What a creator killed before the magic leaves: sized, a few header fields. */
        {"creator killed before the magic",
         [](int fd, u8 *o) {
             ASSERT_EQ(ftruncate(fd, 0), 0);
             ASSERT_EQ(ftruncate(fd, kObject), 0);
             Header(o)->format = TABRA_SHM_FORMAT;
             Header(o)->entry_size = 16;
         },
         0},
    };
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const std::string name = "R" + std::to_string(n++);
        MakeTenInChild(name);
        const int fd = TableFd(name);
        u8 *obj = MapTableObject(name);
        ASSERT_NE(obj, nullptr);
        c.apply(fd, obj);
        struct stat before {}, after {};
        fstat(fd, &before);
        const u64 bits = before.st_size >= TABRA_OFF_ENTRIES ? Bitmap(obj)[0] : 0;
        MarkTraces();
        tabra_hdl_t h = nullptr;
        const tabra_params_t p = Params(name.c_str(), 16, Mod7, 7);
        if (c.code == 0) {
            EXPECT_EQ(tabra_attach(name.c_str(), &h), TABRA_E_NOTFOUND) << "not a table yet";
            ASSERT_EQ(tabra_open(&p, &h), 0u);
            for (u32 k = 1; k <= 20; k++) AddOrDie(h, k);
            EXPECT_EQ(CheckReport(h), "");
        } else {
            EXPECT_EQ(tabra_attach(name.c_str(), &h), TABRA_E_CORRUPT);
            EXPECT_EQ(tabra_attach_hashed(name.c_str(), Mod7, &h), TABRA_E_CORRUPT);
            EXPECT_EQ(tabra_open(&p, &h), TABRA_E_CORRUPT) << "made again over a damaged table";
            const auto traced = FindTraces(mark(), VESK_ERROR, TABRA_TP_DAMAGED);
            ASSERT_EQ(traced.size(), 3u);
            for (const vesk_rec_t &r : traced)
                EXPECT_EQ(std::make_pair(r.args[0], r.args[1]), std::make_pair(u64{TABRA_E_CORRUPT}, u64{c.code}));
            fstat(fd, &after);
            EXPECT_EQ(after.st_size, before.st_size) << "the object was changed";
            if (bits != 0) {
                EXPECT_EQ(Bitmap(obj)[0], bits) << "its entries were dropped";
            }
        }
        munmap(obj, TABRA_OFF_ENTRIES);
        close(fd);
    }
}

TEST_F(Tabra, CheckFindsEachKindOfDamage) {
    /* Keys 1..10 in a Mod7 table: slot k-1 holds key k; bucket 1 chains
     * 8 -> 1 (slots 7 -> 0). */
    const struct {
        const char *what;
        void (*apply)(u8 *obj);
        const char *report_part;
    } cases[] = {
        {"bitmap bit lost", [](u8 *o) { Bitmap(o)[0] &= ~u64{4}; }, "bitmap"},
        {"count off", [](u8 *o) { Header(o)->count += 1; }, "count"},
        {"chain cut: slot leaked", [](u8 *o) { Slot(o, 7)->next = 0; }, "slot 0"},
        {"slot on two chains", [](u8 *o) { *Bucket(o, 2) = (*Bucket(o, 2) & ~u64{0xFFFFFFFF}) | 1u; }, "twice"},
        {"key in the wrong bucket", [](u8 *o) { Slot(o, 0)->key = 3; }, "hashes"},
        {"linked slot marked free", [](u8 *o) { Slot(o, 4)->state = TABRA_SLOT_FREE; }, "state"},
        {"duplicate key", [](u8 *o) { Slot(o, 0)->key = 8; }, "present"},
        {"operation left in flight", [](u8 *o) { Header(o)->intent.op = 7; }, "in flight"},
        {"write bracket on a free slot", [](u8 *o) { Slot(o, 20)->occ += TABRA_OCC_BRACKET_ONE; }, "write brackets"},
        {"bucket count zeroed", [](u8 *o) { Header(o)->buckets = 0; }, "bucket count 0"},
        {"entry size changed within its stride", [](u8 *o) { Header(o)->entry_size = 13; }, "check word"},
    };
    int n = 0;
    for (const auto &d : cases) {
        SCOPED_TRACE(d.what);
        const std::string name = "D" + std::to_string(n++);
        tabra_hdl_t h = OpenOrDie(Params(name.c_str(), 16, Mod7, 7));
        for (u32 k = 1; k <= 10; k++) AddOrDie(h, k);
        ASSERT_EQ(CheckReport(h), "");
        u8 *obj = MapTableObject(name);
        ASSERT_NE(obj, nullptr);
        d.apply(obj);
        MarkTraces();
        const std::string report = CheckReport(h);
        EXPECT_EQ(report.rfind("status " + std::to_string(TABRA_E_CORRUPT) + ": ", 0), 0u) << report;
        EXPECT_NE(report.find(d.report_part), std::string::npos) << report;
        EXPECT_EQ(CountTraces(VESK_ERROR, TABRA_TP_CHECK), 1u);
        munmap(obj, TABRA_OFF_ENTRIES);
    }
}

}  // namespace
