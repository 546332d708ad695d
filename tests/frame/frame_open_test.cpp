// Opening a database: configuration, lazy initialisation, the table store's
// call sequence and timing, the writable-reference count, failure paths
// and the open's assertion.  Shared context regions across processes:
// sizing, zeroing exactly once, the named semaphore (including a holder
// that died), and the failures of each mapping step.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/kemt_host.h"
#include "host/os_host.h"
#include "host/pm_fault.h"
#include "host/settings.h"
#include "pmdb.h"
#include "pmdb_internal.h"
#include "pmdb_test.h"
#include "tabra.h"
#include "vorn_os.h"

namespace {

using pmdb::test::CallLog;
using pmdb::test::CallNames;
using pmdb::test::ChildLink;
using pmdb::test::ChildProcess;
using Names = std::vector<std::string>;
using Words = std::vector<uint64_t>;
using namespace std::chrono_literals;

constexpr uint64_t kPauseNs = 100'000'000;
const Names kProtect = {"tabra_make_shm_readonly_protected"};
const Names kInitRead = {"tabra_init", "tabra_open", "tabra_make_shm_readonly_protected"};
constexpr uint64_t kEntrySize[] = {sizeof(pmdb_ifh_entry_t), 312, 80};
const Names kInitWrite = {"tabra_init", "tabra_open", "tabra_make_shm_readonly_protected",
                          "tabra_make_shm_writable"};

// The recorded opens of region objects (the table store opens objects of
// its own through the same call; regions are opened with mode 0777).
std::vector<pm_call_rec_t> RegionObjectOpens() {
    std::vector<pm_call_rec_t> out;
    for (const pm_call_rec_t &r : CallLog("_shm_open"))
        if (r.args[1] == 0777) out.push_back(r);
    return out;
}

struct ErrorTrace {
    uint32_t point;
    std::vector<uint64_t> args;
    const char *str = nullptr;
};
using Errors = std::vector<ErrorTrace>;

class FrameOpenTest : public pmdb::test::PmdbTest {
  protected:
    void SetUp() override {
        PmdbTest::SetUp();
        pm_calllog_enable(1);
    }
    // The handle the open of `type` returns; the test fails unless it returns 0.
    static dnx_db_hdl_t *Open(pmdb_type_t type, int write_intent) {
        dnx_db_hdl_t *hdl = nullptr;
        EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, type, write_intent), 0u);
        return hdl;
    }
    static cerrno Release(dnx_db_hdl_t *hdl, pmdb_type_t type) {
        return dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, type);
    }
};
using FrameOpenDeathTest = FrameOpenTest;

// ---- configuration ---------------------------------------------------------

// The key hash keeps the low 16 bits; the debug descriptor is the IFH
// type's only; unknown types are refused (null pointers: null_args_test).
TEST_F(FrameOpenTest, KeyHashDebugFlagAndUnknownTypes) {
    EXPECT_EQ(dpa_pmdb_key_hash(0x12345678u), 0x5678u);
    EXPECT_EQ(dpa_pmdb_key_hash(0xFFFF0000u), 0u);
    EXPECT_EQ(dpa_pmdb_key_hash(0xFFFFFFFFu), 0xFFFFu);
    EXPECT_EQ(pmdb_debug_flag(0), static_cast<void *>(&dnxpm_dbg_pmdb_types));
    for (int type : {1, 2, 3}) EXPECT_EQ(pmdb_debug_flag(type), nullptr);
    const dnxpm_dbg_desc_t zero = {};
    EXPECT_EQ(memcmp(&dnxpm_dbg_pmdb_types, &zero, sizeof zero), 0);
    dnx_db_hdl_t *hdl = nullptr;
    EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, static_cast<pmdb_type_t>(3), 1), PMDB_EINVAL);
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, static_cast<pmdb_type_t>(7)), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_hdl_get(static_cast<pmdb_type_t>(3)), nullptr);
    EXPECT_EQ(hdl, nullptr);
}

// max_entries is read at the initialisation and at every protection change,
// and clamped to the number of entry locks.
TEST_F(FrameOpenTest, MaxEntriesIsReadAtEveryChangeAndClampedToTheEntryLocks) {
    halvo_host_set("max_entries", 70000);
    dnx_db_hdl_t *hdl = Open(PMDB_TYPE_OAM, 1);
    EXPECT_EQ(pmdb_cfg[PMDB_TYPE_OAM].max_entries, 65536u);
    ASSERT_EQ(CallNames("tabra_"), kInitWrite);
    for (const pm_call_rec_t &r : CallLog("tabra_o")) EXPECT_EQ(r.args[1], 65536u) << r.call;
    for (const pm_call_rec_t &r : CallLog("tabra_m")) EXPECT_EQ(r.args[1], 65536u) << r.call;
    ExpectTrace(VESK_ERROR, 73, {70000, 65536});
    tabra_info_t info;  // the table store enforces the bound it was given
    ASSERT_EQ(tabra_get_info(hdl->tabra, &info), 0u);
    EXPECT_EQ(info.max_entries, 65536u);
    halvo_host_set("max_entries", 2000);
    ASSERT_EQ(Release(hdl, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(pmdb_cfg[PMDB_TYPE_OAM].max_entries, 2000u);
    EXPECT_EQ(CallLog("tabra_make_shm_readonly_protected").back().args[1], 2000u);

    MarkTraces();
    halvo_host_set("max_entries", 65536);
    EXPECT_EQ(Open(PMDB_TYPE_OAM, 1), hdl);
    EXPECT_EQ(pmdb_cfg[PMDB_TYPE_OAM].max_entries, 65536u);
    EXPECT_EQ(CallLog("tabra_make_shm_writable").back().args[1], 65536u);
    ExpectNoTrace(VESK_ERROR, 73);
}

// ---- open and write protection ------------------------------------------

TEST_F(FrameOpenTest, FirstWriteOpenOpensProtectsLaterThenMakesWritable) {
    halvo_host_set("max_entries", 4096);
    const auto em = reinterpret_cast<event_mgr_p>(0x5eed);
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(em, &hdl, PMDB_TYPE_OAM, 1), 0u);
    ASSERT_NE(hdl, nullptr);

    const auto calls = CallLog("tabra_");
    ASSERT_EQ(CallNames("tabra_"), kInitWrite);
    EXPECT_EQ(calls[0].args[0], reinterpret_cast<uint64_t>(em));
    EXPECT_EQ(calls[0].args[1], reinterpret_cast<uint64_t>(&dnxpm_dbg_pmdb_types));
    // flags, max_entries, entry size, entry locks
    EXPECT_EQ(Words(calls[1].args, calls[1].args + 4), (Words{66, 4096, 80, 65536}));
    EXPECT_GE(calls[2].mono_ns - calls[1].mono_ns, kPauseNs);
    EXPECT_EQ(calls[2].args[0], 64u);
    EXPECT_EQ(calls[3].args[0], 64u);

    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 1);
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_WRITABLE);
    EXPECT_EQ(hdl->event_mgr, em);
    EXPECT_EQ(hdl->shrd_ctx->magic, PMDB_SHRD_CTX_MAGIC);
    ExpectTrace(VESK_DATABASE, 63, {2});
    ExpectTrace(VESK_DATABASE, 55, {2});
    ExpectTrace(VESK_DATABASE, 57, {2});

    // Overlapping writers change protection only at the edges.
    pm_calllog_clear();
    EXPECT_EQ(Open(PMDB_TYPE_OAM, 1), hdl);
    EXPECT_TRUE(CallNames("tabra_").empty());
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 2);
    ASSERT_EQ(Release(hdl, PMDB_TYPE_OAM), 0u);
    EXPECT_TRUE(CallNames("tabra_").empty());
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 1);
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_WRITABLE);
    ASSERT_EQ(Release(hdl, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(CallNames("tabra_"), kProtect);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 0);
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_READONLY);
}

TEST_F(FrameOpenTest, ConcurrentWritersInThreadsBalanceTheCount) {
    dnx_db_hdl_t *hdl = Open(PMDB_TYPE_OAM, 0);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; i++) {
                dnx_db_hdl_t *h = nullptr;
                if (dpa_chk_pmdb_open(nullptr, &h, PMDB_TYPE_OAM, 1) != 0) failures++;
                if (h == nullptr || h->prot_state != PMDB_PROT_WRITABLE) failures++;
                if (h != nullptr && Release(h, PMDB_TYPE_OAM) != 0) failures++;
            }
        });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 0);
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_READONLY);
}

// The region object is sized to whole pages; the semaphore exists only
// while a region is being initialised.
TEST_F(FrameOpenTest, ShrdCtxOpenFirstMapsTheRegionAndTheOpenAddsTheTable) {
    EXPECT_EQ(pmdb_region_length(PMDB_SHM_SIZE, 4096), 2625536);
    EXPECT_EQ(pmdb_region_length(PMDB_SHM_SIZE, 65536), 2686976);
    EXPECT_EQ(pmdb_region_length(8192, 4096), 8192);
    dnx_db_hdl_t *ctx_hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &ctx_hdl, PMDB_TYPE_IFH), 0u);
    ASSERT_NE(ctx_hdl, nullptr);
    struct stat st;
    const std::string path =
        std::string("/dev/shm/") + vorn_host_namespace() + ".dnx_pmdb_ifh_shrd";
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, pmdb_region_length(PMDB_SHM_SIZE, sysconf(_SC_PAGESIZE)));
    ExpectTrace(VESK_DATABASE, 62, {2621472}, "dnx_pmdb_ifh_shrd");
    EXPECT_EQ(vorn_sem_open(PMDB_SHM_SEMAPHORE_NAME, 0, 0, 0), SEM_FAILED);
    EXPECT_EQ(ctx_hdl->shrd_ctx->magic, PMDB_SHRD_CTX_MAGIC);
    EXPECT_EQ(ctx_hdl->tabra, nullptr);
    EXPECT_TRUE(CallNames("tabra_").empty());
    EXPECT_EQ(RegionObjectOpens().size(), 1u);
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_IFH), nullptr);  // not initialised yet

    pm_calllog_clear();
    dnx_db_hdl_t *hdl = Open(PMDB_TYPE_IFH, 1);
    EXPECT_EQ(hdl, ctx_hdl);
    EXPECT_NE(hdl->tabra, nullptr);
    EXPECT_TRUE(RegionObjectOpens().empty());
    EXPECT_TRUE(CallNames("vorn_sem").empty());
    EXPECT_EQ(CallNames("tabra_"), kInitWrite);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_IFH), 1);
}

// While a thread initialises PUNT, and so holds the initialisation mutex
// through its 100 ms pause, opens of an initialised type neither wait (a
// wait would be registered) nor call the table store, and callers that find
// the mutex taken register their wait under the location of the step that
// waits.
TEST_F(FrameOpenTest, OnlyOpensOfUninitialisedTypesWaitForTheInitialisation) {
    dnx_db_hdl_t *hdl = Open(PMDB_TYPE_OAM, 0);
    kemt_host_reset();
    std::thread initialiser([] { Open(PMDB_TYPE_PUNT, 0); });
    while (CountTraces(VESK_DATABASE, 55) < 2) std::this_thread::sleep_for(1ms);
    pm_calllog_clear();
    dnx_db_hdl_t *ctx_hdl = nullptr;
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &ctx_hdl, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(Open(PMDB_TYPE_OAM, 0), hdl);
    EXPECT_TRUE(CallNames("tabra_").empty());
    EXPECT_EQ(ctx_hdl, hdl);
    EXPECT_EQ(kemt_host_total_waits(), 0u);

    std::thread ctx_opener([] {
        dnx_db_hdl_t *h = nullptr;
        EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &h, PMDB_TYPE_IFH), 0u);
    });
    std::thread opener([] { Open(PMDB_TYPE_IFH, 0); });
    initialiser.join();
    ctx_opener.join();
    opener.join();
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_shrd_ctx_init", 697), 1u);
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_init", 568), 1u);
    EXPECT_EQ(kemt_host_total_waits(), 2u);
}

// ---- failures ------------------------------------------------------------

// A failing step of the first open (in a process of its own): its result
// and traces, no handle.  The next open resumes: it calls every step of the
// table store again, and maps the region again only when mapping failed.
TEST_F(FrameOpenTest, EachFailingStepOfTheFirstOpenIsTracedAndTheNextOpenResumes) {
    const struct {
        const char *call;
        cerrno fault;
        int times; /* the region object is opened twice: exclusively, then not */
        pmdb_type_t type;
        int write_intent;
        cerrno status;
        Errors errors;
        Names table_calls; /* before the failure; none when mapping failed */
    } cases[] = {
        {"tabra_init", 0xA6F01405, 1, PMDB_TYPE_OAM, 1, 0xA6F01405,
         Errors{{53, {0xA6F01405}}, {67, {0xA6F01405, 2}}}, Names{"tabra_init"}},
        {"tabra_open", TABRA_E_SHM, 1, PMDB_TYPE_PUNT, 0, TABRA_E_SHM,
         Errors{{54, {TABRA_E_SHM}}, {67, {TABRA_E_SHM, 1}}}, Names{"tabra_init", "tabra_open"}},
        {"tabra_make_shm_readonly_protected", TABRA_E_PROT, 1, PMDB_TYPE_OAM, 0, TABRA_E_PROT,
         Errors{{56, {TABRA_E_PROT}}, {67, {TABRA_E_PROT, 2}}}, kInitRead},
        {"_shm_open", EACCES, 2, PMDB_TYPE_IFH, 1, PMDB_ESHM,
         Errors{{58, {2621472}, "dnx_pmdb_ifh_shrd"}, {67, {PMDB_ESHM, 0}}}, Names{}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.call);
        const auto r = pmdb::test::RunInChild([&] {
            MarkTraces();
            pm_fault_set(c.call, c.fault, c.times);
            dnx_db_hdl_t *hdl = nullptr;
            EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, c.type, c.write_intent), c.status);
            EXPECT_EQ(hdl, nullptr);
            EXPECT_EQ(dpa_pmdb_hdl_get(c.type), nullptr);
            ExpectTrace(VESK_ERROR, 51, {});  // asking for a type without a handle
            for (const ErrorTrace &t : c.errors)
                EXPECT_TRUE(pmdb::test::TraceWritten(mark(), VESK_ERROR, t.point, t.args, t.str));
            // The table is opened (55) only by the open that reached the protection.
            EXPECT_EQ(CountTraces(VESK_DATABASE, 55), c.table_calls == kInitRead ? 1u : 0u);
            ExpectNoTrace(VESK_DATABASE, 57);
            EXPECT_EQ(CallNames("tabra_"), c.table_calls);
            pm_calllog_clear();
            hdl = Open(c.type, c.write_intent);
            EXPECT_EQ(CallNames("tabra_"), c.write_intent ? kInitWrite : kInitRead);
            const pm_call_rec_t table_open = CallLog("tabra_open").at(0);
            EXPECT_EQ(table_open.args[0], c.write_intent ? 66u : 64u);  // flags
            EXPECT_EQ(table_open.args[2], kEntrySize[c.type]);
            EXPECT_EQ(RegionObjectOpens().size(), c.table_calls.empty() ? 1u : 0u);
            EXPECT_EQ(hdl->prot_state, c.write_intent ? PMDB_PROT_WRITABLE : PMDB_PROT_READONLY);
            EXPECT_TRUE(!c.write_intent || pmdb_frame_wr_refcnt(c.type) == 1);
            // A later read open of the initialised type costs nothing.
            pm_calllog_clear();
            MarkTraces();
            EXPECT_EQ(Open(c.type, 0), hdl);
            EXPECT_EQ(dpa_pmdb_hdl_get(c.type), hdl);
            EXPECT_TRUE(CallLog().empty());
            EXPECT_TRUE(Traces(VESK_DATABASE).empty());
            ExpectNoTrace(VESK_ERROR, 51);
        });
        EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
    }
}

// A writer whose protection change fails stays counted, and the change is
// owed: the next writer in (for write access) or out (for protection)
// makes it.  (Count and state right after the failure: ops/failure_test.)
TEST_F(FrameOpenTest, FailedProtectionChangesAreMadeByTheNextWriter) {
    dnx_db_hdl_t *hdl = Open(PMDB_TYPE_OAM, 0);
    pm_fault_set("tabra_make_shm_writable", TABRA_E_PROT, 1);
    MarkTraces();
    EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 1), TABRA_E_PROT);
    ExpectTrace(VESK_ERROR, 68, {TABRA_E_PROT});
    pm_calllog_clear();
    EXPECT_EQ(Open(PMDB_TYPE_OAM, 1), hdl);
    EXPECT_EQ(CallNames("tabra_"), Names{"tabra_make_shm_writable"});
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 2);

    ASSERT_EQ(Release(hdl, PMDB_TYPE_OAM), 0u);
    pm_fault_set("tabra_make_shm_readonly_protected", TABRA_E_PROT, 1);
    MarkTraces();
    EXPECT_EQ(Release(hdl, PMDB_TYPE_OAM), TABRA_E_PROT);
    EXPECT_TRUE(Traces(VESK_ERROR).empty());
    pm_calllog_clear();
    EXPECT_EQ(Open(PMDB_TYPE_OAM, 1), hdl);
    EXPECT_TRUE(CallNames("tabra_").empty());
    ASSERT_EQ(Release(hdl, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(CallNames("tabra_"), kProtect);
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_READONLY);
}

// A table store that opens without a table: the initialisation traces a
// failed open, and the open stops at the line of the path it took.
TEST_F(FrameOpenDeathTest, OpenWithoutATableStopsAtItsLine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto at = [](unsigned line) {
        return "platforms/common/dnx/port-mapper/lib/pmdb/src/dnx_pmdb_init:" +
               std::to_string(line) +
               ": cerrno dpa_chk_pmdb_open\\(event_mgr_p, dnx_db_hdl_t \\*\\*, pmdb_type_t, "
               "int\\): Assertion `pmdb_hdl\\[db_type\\]->tabra' failed";
    };
    pm_fault_set("tabra_open", 0, 1);  // success, but no handle
    EXPECT_EQ(dpa_pmdb_init(nullptr, PMDB_TYPE_OAM, 0), 0u);
    ExpectTrace(VESK_ERROR, 54, {0});
    ExpectNoTrace(VESK_DATABASE, 55);
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_OAM)->tabra, nullptr);
    dnx_db_hdl_t *hdl = nullptr;
    EXPECT_DEATH(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 0), at(813));
    EXPECT_DEATH(
        {
            pm_fault_set("tabra_open", 0, 1);
            dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_PUNT, 0);
        },
        at(824));
}

// ---- shared context regions ---------------------------------------------

// The region object `name` of the test's namespace, mapped read-write, as a
// creator that died before zeroing it leaves it: garbage without a magic.
dnx_pmdb_shrd_ctx_t *GarbageRegion(const char *name) {
    const int fd = _shm_open(name, O_CREAT | O_RDWR, 0777);
    const size_t len = pmdb_region_length(PMDB_SHM_SIZE, 4096);
    EXPECT_EQ(ftruncate(fd, (off_t)len), 0) << name;
    void *map = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED) return nullptr;
    memset(map, 0xAB, PMDB_SHM_SIZE);
    static_cast<dnx_pmdb_shrd_ctx_t *>(map)->magic = 0;
    return static_cast<dnx_pmdb_shrd_ctx_t *>(map);
}

// True when all of the region's contents past the magic are zero.
bool RegionContentsZero(const dnx_pmdb_shrd_ctx_t *ctx) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(ctx);
    return std::all_of(bytes + sizeof ctx->magic, bytes + PMDB_SHM_SIZE,
                       [](unsigned char b) { return b == 0; });
}

// Child body: maps the IFH region, then sets `bit` in the globals block.
int MapAndMark(u32 bit) {
    dnx_db_hdl_t *hdl = nullptr;
    if (dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH) != 0) return 1;
    __atomic_fetch_or(&hdl->shrd_ctx->glbls.hs_node_mask, bit, __ATOMIC_SEQ_CST);
    return 0;
}

using FrameRegionTest = FrameOpenTest;

TEST_F(FrameRegionTest, LaterProcessesTouchNeitherTheSemaphoreNorTheContents) {
    auto r = pmdb::test::RunInChild([] { return MapAndMark(0x1); });
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();

    pm_calllog_clear();
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), 0u);
    EXPECT_EQ(hdl->shrd_ctx->glbls.hs_node_mask, 0x1u);
    EXPECT_TRUE(CallNames("vorn_sem").empty());
    pm_calllog_clear();
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), 0u);
    EXPECT_TRUE(RegionObjectOpens().empty()) << "mapped once per process";
}

// Two processes find the magic missing and queue on the semaphore that the
// test holds; meanwhile the test finishes the region itself.  Each must see
// the magic under the semaphore, leave the contents (the garbage) alone,
// and mark the region once it returns.
TEST_F(FrameRegionTest, MagicThatAppearsDuringTheWaitIsNotZeroedAgain) {
    dnx_pmdb_shrd_ctx_t *raw = GarbageRegion("dnx_pmdb_ifh_shrd");
    ASSERT_NE(raw, nullptr);
    sem_t *sem = vorn_sem_open(PMDB_SHM_SEMAPHORE_NAME, O_CREAT, 0777, 1);
    ASSERT_NE(sem, SEM_FAILED);
    ASSERT_EQ(sem_wait(sem), 0);
    std::vector<std::unique_ptr<ChildProcess>> waiters;
    for (u32 bit : {0x2u, 0x4u}) {
        waiters.push_back(std::make_unique<ChildProcess>([bit](ChildLink &link) {
            link.Ready();
            return MapAndMark(bit);
        }));
        ASSERT_TRUE(waiters.back()->WaitReady());
        ASSERT_TRUE(pmdb::test::WaitUntilBlockedOnFutex(waiters.back()->pid()));
    }
    __atomic_store_n(&raw->magic, PMDB_SHRD_CTX_MAGIC, __ATOMIC_RELEASE);
    ASSERT_EQ(sem_post(sem), 0);
    sem_close(sem);
    for (auto &child : waiters) {
        const auto r = child->Wait();
        ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
    }
    EXPECT_EQ(raw->glbls.hs_node_mask, 0xABABABABu | 0x6u);
    EXPECT_EQ(raw->entry_lock[7].__size[3], static_cast<char>(0xAB));
}

TEST_F(FrameRegionTest, SemaphoreLeftTakenByADeadProcessIsRecovered) {
    dnx_pmdb_shrd_ctx_t *raw = GarbageRegion("dnx_pmdb_punt_shrd");
    ASSERT_NE(raw, nullptr);
    auto holder = pmdb::test::StartHeldChild([] {
        sem_t *sem = vorn_sem_open(PMDB_SHM_SEMAPHORE_NAME, O_CREAT, 0777, 1);
        if (sem == SEM_FAILED || sem_wait(sem) != 0) _exit(9);
    });
    ASSERT_TRUE(holder->WaitReady());
    holder->Kill(SIGKILL);
    ASSERT_TRUE(holder->Wait().KilledBy(SIGKILL));

    pmdb_frame_set_sem_wait_ms(200);
    const auto t0 = std::chrono::steady_clock::now();
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_PUNT), 0u);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 200ms);
    EXPECT_EQ(CountTraces(VESK_ERROR, 72), 1u);
    ExpectTrace(VESK_ERROR, 72, {200}, "dnx_pmdb_punt_shrd");
    EXPECT_EQ(raw->magic, PMDB_SHRD_CTX_MAGIC);
    EXPECT_TRUE(RegionContentsZero(raw));
    EXPECT_EQ(vorn_sem_open(PMDB_SHM_SEMAPHORE_NAME, 0, 0, 0), SEM_FAILED);
}

// A failed mapping keeps nothing: the next call maps and initialises afresh
// (an exclusive create, 194, then a plain open, 66, of the existing object).
TEST_F(FrameRegionTest, EachMappingStepFailureHasItsResultAndTrace) {
    dnx_pmdb_shrd_ctx_t *raw = GarbageRegion("dnx_pmdb_ifh_shrd");
    ASSERT_NE(raw, nullptr);
    pm_fault_set("vorn_sem_open", EACCES, 2);
    dnx_db_hdl_t *hdl = nullptr;
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), PMDB_ESHM);
    ExpectTrace(VESK_ERROR, 61, {2621472}, "dnx_pmdb_ifh_shrd");
    ExpectTrace(VESK_ERROR, 65, {0, PMDB_ESHM});
    EXPECT_EQ(raw->magic, 0u);
    EXPECT_EQ(hdl, nullptr);
    pm_calllog_clear();
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), 0u);
    const auto opens = RegionObjectOpens();
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].args[0], 194u);
    EXPECT_EQ(opens[1].args[0], 66u);
    EXPECT_EQ(raw->magic, PMDB_SHRD_CTX_MAGIC);
    EXPECT_TRUE(RegionContentsZero(raw));

    // Exclusive create refused, plain open works, the mapping fails.
    MarkTraces();
    pm_fault_set("_shm_open", EEXIST, 1);
    pm_fault_set("vornos_mmap", ENOMEM, 1);
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM), PMDB_ENOMEM);
    ExpectNoTrace(VESK_ERROR, 58);
    ExpectTrace(VESK_ERROR, 60, {2625536}, "dnx_pmdb_oam_shrd");
    ExpectTrace(VESK_ERROR, 65, {2, PMDB_ENOMEM});
    MarkTraces();
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM), 0u);
    ExpectTrace(VESK_DATABASE, 62, {2621472}, "dnx_pmdb_oam_shrd");
}

TEST_F(FrameRegionTest, RegionThatLostItsMagicIsRefused) {
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM), 0u);
    dnx_pmdb_shrd_ctx_t *ctx = hdl->shrd_ctx;
    ctx->magic = 0;
    dnx_db_hdl_t *out = nullptr;
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &out, PMDB_TYPE_OAM), PMDB_ENOTFOUND);
    ExpectTrace(VESK_DATABASE, 66, {2});
    EXPECT_EQ(out, nullptr);

    // Once the type is initialised, the refusal is silent.
    ctx->magic = PMDB_SHRD_CTX_MAGIC;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &out, PMDB_TYPE_OAM, 0), 0u);
    ctx->magic = 0;
    MarkTraces();
    out = nullptr;
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &out, PMDB_TYPE_OAM), PMDB_ENOTFOUND);
    EXPECT_TRUE(Traces(VESK_DATABASE).empty());
    EXPECT_EQ(out, nullptr);
    ctx->magic = PMDB_SHRD_CTX_MAGIC;
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &out, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(out, hdl);
}

}  // namespace
