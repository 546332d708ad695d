/*
 * Table store: per-process write protection.  Each case runs the writes in a
 * child process and looks at how it ended: a write outside a write window
 * must kill the writer with SIGSEGV, a write inside one must not.  A shared
 * progress counter tells which write the child was at when it died.  The
 * same windows decide which entries the store vouches for as "at rest".
 */
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include "tabra_rest.h"
#include "tabra_test_util.h"

using namespace tabra_test;
using pmdb::test::ChildLink;
using pmdb::test::ChildProcess;
using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;
using pmdb::test::StartHeldChild;
using tabra_rest::copied;

namespace {

class TabraProtection : public PmdbTest {
  protected:
    /* A protection fault must end the child with SIGSEGV, also in builds
     * whose sanitizer would otherwise catch the signal and exit. */
    void SetUp() override {
        PmdbTest::SetUp();
        signal(SIGSEGV, SIG_DFL);
    }

    /* Steps the child completed, visible after it died. */
    Shared<int> progress;
    void Step() { (*progress)++; }

    /* In a child: closes the write window and writes to `entry`, which must
     * fault; the progress then reads 2. */
    int CloseWindowAndWrite(tabra_hdl_t h, const tabra_params_t &p, void *entry) {
        Step();
        if (tabra_make_shm_readonly_protected(h, &p) != 0) return 1;
        Step();
        static_cast<volatile u8 *>(entry)[0] = 0xEE;
        Step();
        return 0;
    }
    void ExpectFaultAfterClosing(const pmdb::test::ChildResult &r) {
        EXPECT_TRUE(r.KilledBy(SIGSEGV)) << r.Describe();
        EXPECT_EQ(*progress, 2);
    }
};

void Write(void *entry, u8 v) {
    static_cast<volatile u8 *>(entry)[0] = v;
}

TEST_F(TabraProtection, WriteOutsideAWindowFaults) {
    tabra_params_t p = Params("P");
    auto r = RunInChild([&] {
        tabra_hdl_t h = OpenOrDie(p);
        void *e = AddOrDie(h, 1);
        Write(e, 1); /* before the first protection the table is writable */
        return CloseWindowAndWrite(h, p, e);
    });
    ExpectFaultAfterClosing(r);
}

TEST_F(TabraProtection, EntriesHandedOutInAWindowAreWritableUntilItCloses) {
    tabra_params_t p = Params("P");
    auto r = RunInChild([&] {
        tabra_hdl_t h = OpenOrDie(p);
        tabra_make_shm_readonly_protected(h, &p);
        if (tabra_make_shm_writable(h, &p) != 0) return 1;
        void *added = AddOrDie(h, 1);
        Write(added, 1);
        void *found = nullptr;
        i32 slot = -1;
        AddOrDie(h, 0x50000); /* slot 1, same page */
        if (tabra_get_entry_by_key(h, 0x50000, &found, &slot) != 0) return 2;
        Write(found, 2);
        void *again = nullptr;
        if (tabra_add_entry(h, 1, &again, &slot) != TABRA_E_EXISTS) return 3;
        Write(again, 3);
        return CloseWindowAndWrite(h, p, found);
    });
    ExpectFaultAfterClosing(r);
    /* What the child wrote inside its window is in the table. */
    tabra_hdl_t h = nullptr;
    ASSERT_EQ(tabra_attach_hashed("P", Low16, &h), 0u);
    u8 b = 0;
    i32 slot = -1;
    ASSERT_EQ(tabra_copy_entry_by_key(h, 1, &b, 1, &slot), 0u);
    EXPECT_EQ(b, 3);
    ASSERT_EQ(tabra_copy_entry_by_key(h, 0x50000, &b, 1, &slot), 0u);
    EXPECT_EQ(b, 2);
}

TEST_F(TabraProtection, APointerFromBeforeTheWindowMustBeLookedUpAgain) {
    tabra_params_t p = Params("P");
    auto lookup_first = RunInChild([&] {
        tabra_hdl_t h = OpenOrDie(p);
        void *e = AddOrDie(h, 7);
        tabra_make_shm_readonly_protected(h, &p);
        tabra_make_shm_writable(h, &p);
        void *again = nullptr;
        i32 slot = -1;
        if (tabra_get_entry_by_key(h, 7, &again, &slot) != 0 || again != e) return 1;
        Write(e, 1);
        return 0;
    });
    EXPECT_TRUE(lookup_first.ExitedWith(0)) << lookup_first.Describe();
    auto stale = RunInChild([&] {
        tabra_hdl_t h = OpenOrDie(p);
        void *e = nullptr;
        i32 slot = -1;
        if (tabra_get_entry_by_key(h, 7, &e, &slot) != 0) return 1;
        tabra_make_shm_readonly_protected(h, &p);
        tabra_make_shm_writable(h, &p);
        Write(e, 1);
        return 0;
    });
    EXPECT_TRUE(stale.KilledBy(SIGSEGV)) << stale.Describe();
}

TEST_F(TabraProtection, EntriesAcrossAPageBoundaryAreWritableWhole) {
    /* 328-byte entries: slot 12 spans bytes 3936..4263, two pages. */
    tabra_params_t p = Params("P");
    auto r = RunInChild([&] {
        tabra_hdl_t h = OpenOrDie(p);
        for (u32 k = 1; k <= 13; k++) AddOrDie(h, k);
        tabra_make_shm_readonly_protected(h, &p);
        tabra_make_shm_writable(h, &p);
        void *e = nullptr;
        i32 slot = -1;
        if (tabra_get_entry_by_key(h, 13, &e, &slot) != 0 || slot != 12) return 1;
        memset(e, 0x77, 328);
        /* The entry's second page is protected again. */
        return CloseWindowAndWrite(h, p, static_cast<u8 *>(e) + 327);
    });
    ExpectFaultAfterClosing(r);
}

TEST_F(TabraProtection, AWindowOverManyPagesCoversThemAllAndProtectsThemAll) {
    tabra_params_t p = Params("P");
    auto r = RunInChild([&] {
        tabra_hdl_t h = OpenOrDie(p);
        for (u32 k = 0; k < 3000; k++) AddOrDie(h, k + 1);
        tabra_make_shm_readonly_protected(h, &p);
        tabra_make_shm_writable(h, &p);
        void *first = nullptr;
        i32 slot = -1;
        /* Every 12th entry: about one per page, well past 64 pages. */
        for (u32 k = 0; k < 3000; k += 12) {
            void *e = nullptr;
            if (tabra_get_entry_by_key(h, k + 1, &e, &slot) != 0) return 1;
            Write(e, 9);
            if (first == nullptr) first = e;
        }
        return CloseWindowAndWrite(h, p, first);
    });
    ExpectFaultAfterClosing(r);
}

TEST_F(TabraProtection, ProtectionBelongsToEachProcess) {
    tabra_params_t p = Params("P");
    tabra_hdl_t h = OpenOrDie(p);
    tabra_make_shm_readonly_protected(h, &p);
    tabra_make_shm_writable(h, &p);
    void *mine = AddOrDie(h, 5);
    /* This process holds its window open while another writes outside its
     * own: only the other one faults. */
    auto r = RunInChild([&] {
        tabra_make_shm_readonly_protected(h, &p);
        Step();
        Write(mine, 1);
        Step();
        return 0;
    });
    EXPECT_TRUE(r.KilledBy(SIGSEGV)) << r.Describe();
    EXPECT_EQ(*progress, 1);
    Write(mine, 2);
    EXPECT_EQ(static_cast<u8 *>(mine)[0], 2);
    /* And a child that opens its own window while this one is closed. */
    ASSERT_EQ(tabra_make_shm_readonly_protected(h, &p), 0u);
    auto w = RunInChild([&] {
        tabra_make_shm_writable(h, &p);
        void *e = nullptr;
        i32 slot = -1;
        if (tabra_get_entry_by_key(h, 5, &e, &slot) != 0) return 1;
        Write(e, 3);
        return 0;
    });
    EXPECT_TRUE(w.ExitedWith(0)) << w.Describe();
    EXPECT_EQ(static_cast<u8 *>(mine)[0], 3);
}

TEST_F(TabraProtection, AttachedHandlesStartReadOnly) {
    auto fill = RunInChild([] { return AddOrDie(OpenOrDie(Params("P")), 4) ? 0 : 1; });
    ASSERT_TRUE(fill.ExitedWith(0)) << fill.Describe();
    auto r = RunInChild([&] {
        tabra_hdl_t h = nullptr;
        if (tabra_attach("P", &h) != 0) return 1;
        void *e = nullptr;
        i32 slot = -1;
        if (tabra_get_entry_by_key(h, 4, &e, &slot) != 0) return 2;
        Step();
        Write(e, 1);
        Step();
        return 0;
    });
    EXPECT_TRUE(r.KilledBy(SIGSEGV)) << r.Describe();
    EXPECT_EQ(*progress, 1);
}

TEST_F(TabraProtection, WindowsOfManyThreadsShareTheProcessState) {
    tabra_params_t p = Params("P", 80);
    auto r = RunInChild([&] {
        tabra_hdl_t h = OpenOrDie(p);
        tabra_make_shm_readonly_protected(h, &p);
        tabra_make_shm_writable(h, &p);
        std::vector<std::thread> threads;
        for (u32 t = 0; t < 4; t++) {
            threads.emplace_back([h, t] {
                for (u32 k = 0; k < 500; k++) {
                    void *e = AddOrDie(h, t * 1000 + k + 1);
                    if (e != nullptr) memset(e, static_cast<int>(t + 1), 80);
                }
            });
        }
        for (auto &t : threads) t.join();
        if (tabra_count(h) != 2000) return 1;
        void *e = nullptr;
        i32 slot = -1;
        tabra_get_entry_by_key(h, 3001, &e, &slot);
        if (static_cast<u8 *>(e)[79] != 4) return 2;
        return CloseWindowAndWrite(h, p, e);
    });
    ExpectFaultAfterClosing(r);
}

/* Copies at rest: the store refuses them exactly for the entries some
 * process obtained while it could write them, until that process protects
 * the table again; a process killed inside its window keeps refusing its
 * entries until they are removed, without making the table inconsistent. */
TEST_F(TabraProtection, CopiesAtRestRefuseEntriesOpenForWritingInAnyProcess) {
    tabra_params_t p = Params("P", 8);
    tabra_hdl_t h = OpenOrDie(p);
    memset(AddOrDie(h, 1), 0x11, 8);
    memset(AddOrDie(h, 2), 0x22, 8);
    u8 b[8] = {};
    i32 slot = -1;
    const auto at_rest = [&](u32 key) {
        return tabra_copy_entry_at_rest(h, key, b, 0, sizeof b, 0);
    };
    EXPECT_EQ(at_rest(1), TABRA_E_WRITING) << "writable from tabra_open on";
    EXPECT_EQ(tabra_entry_open_here(h, 1), 1) << "this process obtained it writable";
    ASSERT_EQ(tabra_make_shm_readonly_protected(h, &p), 0u);
    ASSERT_EQ(at_rest(1), 0u);
    EXPECT_EQ(b[7], 0x11);

    /* Another process's window covers the entry it took, not its neighbour. */
    auto writer = StartHeldChild(
        [&] {
            tabra_make_shm_writable(h, &p);
            void *e = nullptr;
            i32 s = -1;
            if (tabra_get_entry_by_key(h, 1, &e, &s) == 0) memset(e, 0x33, 8);
        },
        [&] { tabra_make_shm_readonly_protected(h, &p); });
    ASSERT_TRUE(writer->WaitReady());
    EXPECT_EQ(at_rest(1), TABRA_E_WRITING);
    EXPECT_EQ(at_rest(2), 0u);
    writer->Release();
    ASSERT_TRUE(writer->Wait().ExitedWith(0));
    ASSERT_EQ(at_rest(1), 0u);
    EXPECT_EQ(b[0], 0x33);

    /* Killed inside its window: refused until the entry is removed. */
    auto dead = StartHeldChild([&] {
        tabra_make_shm_writable(h, &p);
        void *e = nullptr;
        i32 s = -1;
        tabra_get_entry_by_key(h, 2, &e, &s);
    });
    ASSERT_TRUE(dead->WaitReady());
    dead->Kill();
    dead->Wait();
    EXPECT_EQ(at_rest(2), TABRA_E_WRITING);
    EXPECT_EQ(tabra_copy_entry_by_key(h, 2, b, sizeof b, &slot), 0u) << "one occupant all along";
    EXPECT_EQ(CheckReport(h), "");
    ASSERT_EQ(tabra_remove_entry(h, TABRA_REMOVE_BY_KEY, 2), 0u);
    EXPECT_EQ(CheckReport(h), "") << "a freed slot keeps no bracket";
    tabra_make_shm_writable(h, &p);
    memset(AddOrDie(h, 2), 0x44, 8);
    ASSERT_EQ(tabra_make_shm_readonly_protected(h, &p), 0u);
    ASSERT_EQ(at_rest(2), 0u);
    EXPECT_EQ(b[0], 0x44);

    /* A missing key is an answer, not a fault. */
    const auto mark = pmdb::test::TraceMark::Now();
    EXPECT_EQ(at_rest(3), TABRA_E_NOTFOUND);
    EXPECT_TRUE(pmdb::test::TracesSince(mark, VESK_ERROR).empty());
}

/* Where an at-rest copy goes: bytes [off, off + len) straight into the
 * caller's buffer, and nothing at all into it when the answer is that the
 * key is absent, its entry does not begin with its key, or a process has it
 * open for writing.  Tables whose keys are not all in bucket key % buckets
 * (another hash) and whose bucket count is not a power of two take the same
 * answers, and so does a call the fault hooks see.  The inline attempt on a
 * table's view, which the reader library makes, gives the same answers,
 * except that it leaves a table with another hash to the exported call. */
TEST_F(TabraProtection, CopiesAtRestWriteTheBufferOnlyWithAnEntryThatCanStand) {
    struct Table {
        const char *name;
        dpa_pmdb_hash_fn_t fn;
        u32 buckets;
    };
    const Table tables[] = {{"K1", Low16, PMDB_HASH_BUCKETS},
                            {"K2", High16, PMDB_HASH_BUCKETS},
                            {"K3", Mod7, 7}};
    for (const Table &tt : tables) {
        SCOPED_TRACE(tt.name);
        tabra_params_t p = Params(tt.name, 16, tt.fn, tt.buckets);
        tabra_hdl_t h = OpenOrDie(p);
        const u32 keyed = 0x20001, unkeyed = 0x30002, absent = 0x40003;
        u8 *e = static_cast<u8 *>(AddOrDie(h, keyed));
        for (u32 i = 0; i < 16; i++) e[i] = static_cast<u8>(0x10 + i);
        memcpy(e, &keyed, sizeof keyed);
        memset(AddOrDie(h, unkeyed), 0x5A, 16); /* first word not its key */
        ASSERT_EQ(tabra_make_shm_readonly_protected(h, &p), 0u);

        u8 b[12];
        memset(b, 0xEE, sizeof b);
        const auto untouched = [&] {
            return std::all_of(b, b + sizeof b, [](u8 v) { return v == 0xEE; });
        };
        EXPECT_EQ(tabra_copy_entry_at_rest(h, absent, b, 0, 8, TABRA_COPY_KEYED),
                  TABRA_E_NOTFOUND);
        EXPECT_EQ(tabra_copy_entry_at_rest(h, unkeyed, b, 0, 8, TABRA_COPY_KEYED),
                  TABRA_E_UNKEYED);
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 4, 13, 0), TABRA_E_INVAL);
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 0, 8, 2), TABRA_E_INVAL);
        EXPECT_TRUE(untouched());

        tabra_rest_view_t v{};
        EXPECT_EQ(tabra_rest_view(h, TABRA_SHM_FORMAT + 1, &v), TABRA_E_MISMATCH);
        ASSERT_EQ(tabra_rest_view(h, TABRA_SHM_FORMAT, &v), 0u);
        const bool on_view = tt.fn != High16;
        const auto attempt = [&](u32 key, u32 off, u32 len) {
            return tabra_rest::attempt(v, key, true, b, off, len);
        };
        if (!on_view) {
            EXPECT_EQ(attempt(keyed, 0, 8), copied::general);
        } else {
            EXPECT_EQ(attempt(absent, 0, 8), copied::absent);
            EXPECT_EQ(attempt(unkeyed, 0, 8), copied::unkeyed);
            EXPECT_TRUE(untouched());
            ASSERT_EQ(attempt(keyed, 4, 9), copied::ok);
            for (u32 i = 0; i < 9; i++) EXPECT_EQ(b[i], 0x14 + i) << i;
            EXPECT_EQ(b[9], 0xEE) << "past len";
            memset(b, 0xEE, sizeof b);
        }

        ASSERT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 6, 10, TABRA_COPY_KEYED), 0u);
        for (u32 i = 0; i < 10; i++) EXPECT_EQ(b[i], 0x16 + i) << i;
        EXPECT_EQ(b[10], 0xEE) << "past len";
        ASSERT_EQ(tabra_copy_entry_at_rest(h, unkeyed, b, 0, 1, 0), 0u) << "unkeyed asked";
        EXPECT_EQ(b[0], 0x5A);

        memset(b, 0xEE, sizeof b);
        auto writer = StartHeldChild(
            [&] {
                tabra_make_shm_writable(h, &p);
                void *w = nullptr;
                i32 s = -1;
                tabra_get_entry_by_key(h, keyed, &w, &s);
            },
            [&] { tabra_make_shm_readonly_protected(h, &p); });
        ASSERT_TRUE(writer->WaitReady());
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 0, 12, TABRA_COPY_KEYED),
                  TABRA_E_WRITING);
        if (on_view) {
            EXPECT_EQ(attempt(keyed, 0, 12), copied::writing);
        }
        EXPECT_TRUE(untouched());
        EXPECT_EQ(tabra_entry_open_here(h, keyed), 0) << "open in another process";
        writer->Release();
        ASSERT_TRUE(writer->Wait().ExitedWith(0));

        pm_fault_set("tabra_copy_entry_at_rest", 0x77, 1);
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 0, 12, TABRA_COPY_KEYED), 0x77u);
        EXPECT_TRUE(untouched());
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 0, 12, TABRA_COPY_KEYED), 0u)
            << "armed once";
    }

    /* Entries too short to begin with a key cannot be copied keyed. */
    tabra_params_t p = Params("K4", 2);
    tabra_hdl_t h = OpenOrDie(p);
    AddOrDie(h, 5);
    ASSERT_EQ(tabra_make_shm_readonly_protected(h, &p), 0u);
    u8 b[2] = {};
    EXPECT_EQ(tabra_copy_entry_at_rest(h, 5, b, 0, 2, TABRA_COPY_KEYED), TABRA_E_INVAL);
    EXPECT_EQ(tabra_copy_entry_at_rest(h, 5, b, 0, 2, 0), 0u);
}

}  // namespace
