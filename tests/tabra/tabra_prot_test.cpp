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

#include "host_tabra.h"
#include "tabra_rest.h"

using namespace host_test;
using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;
using pmdb::test::StartHeldChild;

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
};

void Write(void *entry, u8 v) { static_cast<volatile u8 *>(entry)[0] = v; }

void *Find(tabra_hdl_t h, u32 key) {
    void *e = nullptr;
    i32 slot = -1;
    return tabra_get_entry_by_key(h, key, &e, &slot) == 0 ? e : nullptr;
}

/* Each row writes inside a window in a child and returns an entry (or a byte
 * of one) it wrote there, null when a step failed; the child then closes the
 * window and writes there again, which must fault, and nothing before it. */
struct WindowCase {
    const char *what;
    u32 entry_size;
    void *(*write_inside)(tabra_hdl_t h, const tabra_params_t &p);
};

void *Reopen(tabra_hdl_t h, const tabra_params_t &p) {
    tabra_make_shm_readonly_protected(h, &p);
    return tabra_make_shm_writable(h, &p) == 0 ? h : nullptr;
}

const WindowCase kWindows[] = {
    {"before the first protection the table is writable", 328,
     [](tabra_hdl_t h, const tabra_params_t &) {
         void *e = AddOrDie(h, 1);
         Write(e, 1);
         return e;
     }},
    {"entries handed out by add, lookup and add of a present key", 328,
     [](tabra_hdl_t h, const tabra_params_t &p) -> void * {
         if (Reopen(h, p) == nullptr) return nullptr;
         Write(AddOrDie(h, 1), 1);
         AddOrDie(h, 0x50000); /* slot 1, same page */
         void *found = Find(h, 0x50000), *again = nullptr;
         i32 slot = -1;
         if (found == nullptr || tabra_add_entry(h, 1, &again, &slot) != TABRA_E_EXISTS) return nullptr;
         Write(found, 2);
         Write(again, 3);
         return found;
     }},
    {"an entry across a page boundary, its second page", 328,
     [](tabra_hdl_t h, const tabra_params_t &p) -> void * {
         /* 328-byte entries: slot 12 spans bytes 3936..4263, two pages. */
         for (u32 k = 1; k <= 13; k++) AddOrDie(h, k);
         auto *e = static_cast<u8 *>(Reopen(h, p) ? Find(h, 13) : nullptr);
         if (e == nullptr) return nullptr;
         memset(e, 0x77, 328);
         return e + 327;
     }},
    {"a window over many pages", 328,
     [](tabra_hdl_t h, const tabra_params_t &p) -> void * {
         for (u32 k = 0; k < 3000; k++) AddOrDie(h, k + 1);
         if (Reopen(h, p) == nullptr) return nullptr;
         /* Every 12th entry: about one per page, well past 64 pages. */
         for (u32 k = 12; k < 3000; k += 12) Write(Find(h, k + 1), 9);
         void *first = Find(h, 1);
         Write(first, 9);
         return first;
     }},
    {"windows of many threads share the process state", 80,
     [](tabra_hdl_t h, const tabra_params_t &p) -> void * {
         if (Reopen(h, p) == nullptr) return nullptr;
         std::vector<std::thread> threads;
         for (u32 t = 0; t < 4; t++)
             threads.emplace_back([h, t] {
                 for (u32 k = 0; k < 500; k++) memset(AddOrDie(h, t * 1000 + k + 1), static_cast<int>(t + 1), 80);
             });
         for (auto &t : threads) t.join();
         auto *e = static_cast<u8 *>(Find(h, 3001));
         return tabra_count(h) == 2000 && e != nullptr && e[79] == 4 ? e : nullptr;
     }},
};

TEST_F(TabraProtection, WritesInsideAWindowPassAndAfterItFault) {
    int n = 0;
    for (const WindowCase &c : kWindows) {
        SCOPED_TRACE(c.what);
        const std::string name = "P" + std::to_string(n++);
        const tabra_params_t p = Params(name.c_str(), c.entry_size);
        *progress = 0;
        auto r = RunInChild([&] {
            tabra_hdl_t h = OpenOrDie(p);
            void *e = c.write_inside(h, p);
            if (e == nullptr) return 1;
            Step();
            if (tabra_make_shm_readonly_protected(h, &p) != 0) return 2;
            Step();
            Write(e, 0xEE);
            Step();
            return 0;
        });
        EXPECT_TRUE(r.KilledBy(SIGSEGV)) << r.Describe();
        EXPECT_EQ(*progress, 2);
    }
    /* What the second row's child wrote inside its window is in the table. */
    tabra_hdl_t h = nullptr;
    ASSERT_EQ(tabra_attach_hashed("P1", Low16, &h), 0u);
    u8 b[2] = {};
    i32 slot = -1;
    ASSERT_EQ(tabra_copy_entry_by_key(h, 1, &b[0], 1, &slot), 0u);
    ASSERT_EQ(tabra_copy_entry_by_key(h, 0x50000, &b[1], 1, &slot), 0u);
    EXPECT_EQ(b[0], 3);
    EXPECT_EQ(b[1], 2);
}

TEST_F(TabraProtection, ProtectionBelongsToEachProcess) {
    tabra_params_t p = Params("P");
    tabra_hdl_t h = OpenOrDie(p);
    Reopen(h, p);
    void *mine = AddOrDie(h, 5);
    /* This process holds its window open while another writes outside its
     * own, through a pointer from before its fresh window (looked up again in
     * the window it is writable: the second row above): only the other one
     * faults.  (A child writing in its own window while this one is closed:
     * the writer of the at-rest copy test.) */
    auto r = RunInChild([&] {
        Reopen(h, p);
        Step();
        Write(mine, 1);
        Step();
    });
    EXPECT_TRUE(r.KilledBy(SIGSEGV)) << r.Describe();
    EXPECT_EQ(*progress, 1);
    Write(mine, 2);
    EXPECT_EQ(static_cast<u8 *>(mine)[0], 2);
}

/* Where an at-rest copy goes: bytes [off, off + len) straight into the
 * caller's buffer, and nothing at all into it when the answer is that the
 * key is absent (an answer, not a fault: nothing traced), its entry does
 * not begin with its key, or another process has it open for writing (its
 * window covers that entry, not its neighbour; what it wrote is copied once
 * it protects the table again).  Tables whose keys are not all in bucket
 * key % buckets (another hash) and whose bucket count is not a power of two
 * take the same answers, and so does a call the fault hooks see.  (The
 * reader's inline attempt on a table's view: the reader's tests.) */
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
        u8 b[12];
        memset(b, 0xEE, sizeof b);
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 0, 8, 0), TABRA_E_WRITING)
            << "writable from tabra_open on";
        EXPECT_EQ(tabra_entry_open_here(h, keyed), 1) << "this process obtained it writable";
        ASSERT_EQ(tabra_make_shm_readonly_protected(h, &p), 0u);
        const auto untouched = [&] {
            return std::all_of(b, b + sizeof b, [](u8 v) { return v == 0xEE; });
        };
        const auto mark = pmdb::test::TraceMark::Now();
        EXPECT_EQ(tabra_copy_entry_at_rest(h, absent, b, 0, 8, TABRA_COPY_KEYED),
                  TABRA_E_NOTFOUND);
        EXPECT_TRUE(pmdb::test::TracesSince(mark, VESK_ERROR).empty());
        EXPECT_EQ(tabra_copy_entry_at_rest(h, unkeyed, b, 0, 8, TABRA_COPY_KEYED),
                  TABRA_E_UNKEYED);
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 4, 13, 0), TABRA_E_INVAL);
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 0, 8, 2), TABRA_E_INVAL);
        EXPECT_TRUE(untouched());

        tabra_rest_view_t v{};
        EXPECT_EQ(tabra_rest_view(h, TABRA_SHM_FORMAT + 1, &v), TABRA_E_MISMATCH);
        EXPECT_EQ(tabra_rest_view(h, TABRA_SHM_FORMAT, &v), 0u)
            << "the reader's inline copies use it";
        ASSERT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 6, 10, TABRA_COPY_KEYED), 0u);
        for (u32 i = 0; i < 10; i++) EXPECT_EQ(b[i], 0x16 + i) << i;
        EXPECT_EQ(b[10], 0xEE) << "past len";
        ASSERT_EQ(tabra_copy_entry_at_rest(h, unkeyed, b, 0, 1, 0), 0u) << "unkeyed asked";
        EXPECT_EQ(b[0], 0x5A);

        memset(b, 0xEE, sizeof b);
        auto writer = StartHeldChild(
            [&] {
                tabra_make_shm_writable(h, &p);
                if (void *w = Find(h, keyed)) static_cast<u8 *>(w)[4] = 0x33;
            },
            [&] { tabra_make_shm_readonly_protected(h, &p); });
        ASSERT_TRUE(writer->WaitReady());
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 0, 12, TABRA_COPY_KEYED), TABRA_E_WRITING);
        EXPECT_TRUE(untouched());
        EXPECT_EQ(tabra_entry_open_here(h, keyed), 0) << "open in another process";
        EXPECT_EQ(tabra_copy_entry_at_rest(h, unkeyed, b, 0, 1, 0), 0u);
        writer->Release();
        ASSERT_TRUE(writer->Wait().ExitedWith(0));
        ASSERT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 4, 1, TABRA_COPY_KEYED), 0u);
        EXPECT_EQ(b[0], 0x33);
        memset(b, 0xEE, sizeof b);

        pm_fault_set("tabra_copy_entry_at_rest", 0x77, 1);
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 0, 12, TABRA_COPY_KEYED), 0x77u);
        EXPECT_TRUE(untouched());
        EXPECT_EQ(tabra_copy_entry_at_rest(h, keyed, b, 0, 12, TABRA_COPY_KEYED), 0u)
            << "armed once";

        /* A writer killed inside its window: its entry is refused until removed. */
        auto dead = StartHeldChild([&] {
            tabra_make_shm_writable(h, &p);
            Find(h, unkeyed);
        });
        ASSERT_TRUE(dead->WaitReady());
        dead->Kill();
        dead->Wait();
        EXPECT_EQ(tabra_copy_entry_at_rest(h, unkeyed, b, 0, 1, 0), TABRA_E_WRITING);
        i32 slot = -1;
        EXPECT_EQ(tabra_copy_entry_by_key(h, unkeyed, b, 1, &slot), 0u) << "one occupant all along";
        EXPECT_EQ(CheckReport(h), "");
        ASSERT_EQ(tabra_remove_entry(h, TABRA_REMOVE_BY_KEY, unkeyed), 0u);
        EXPECT_EQ(CheckReport(h), "") << "a freed slot keeps no bracket";
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
