// Opening a database: configuration, lazy initialisation, the table store's
// call sequence and timing, the writable-reference count, failure paths
// and the open's assertion.
#include <gtest/gtest.h>
#include <string.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "frame_support.h"
#include "host/kemt_host.h"
#include "host/pm_fault.h"
#include "host/settings.h"
#include "pmdb.h"
#include "pmdb_internal.h"
#include "pmdb_test.h"
#include "tabra.h"

namespace {

using pmdb::test::CallNames;
using pmdb::test::CallLog;
using pmdb::test::PmdbTest;
using namespace std::chrono_literals;

constexpr uint64_t kPauseNs = 100'000'000;
const char *const kOpenAssert =
    "platforms/common/dnx/port-mapper/lib/pmdb/src/dnx_pmdb_init:%u: cerrno "
    "dpa_chk_pmdb_open\\(event_mgr_p, dnx_db_hdl_t \\*\\*, pmdb_type_t, int\\): Assertion "
    "`pmdb_hdl\\[db_type\\]->tabra' failed";

std::string OpenAssertion(unsigned line) {
    char buf[512];
    snprintf(buf, sizeof buf, kOpenAssert, line);
    return buf;
}

class FrameConfigTest : public PmdbTest {};
class FrameOpenTest : public PmdbTest {
protected:
    void SetUp() override {
        PmdbTest::SetUp();
        pm_calllog_enable(1);
    }
};
using FrameOpenDeathTest = FrameOpenTest;

// ---- configuration ---------------------------------------------------------

// The key hash keeps the low 16 bits; the debug descriptor is the IFH
// type's only; unknown types are refused (null pointers: null_args_test).
TEST_F(FrameConfigTest, KeyHashDebugFlagAndUnknownTypes) {
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

TEST_F(FrameConfigTest, HandleOfAnUninitialisedTypeIsNullAndTraced) {
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_PUNT), nullptr);
    ExpectTrace(VESK_ERROR, 51, {});
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_PUNT, 0), 0u);
    MarkTraces();
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_PUNT), hdl);
    ExpectNoTrace(VESK_ERROR, 51);
}

TEST_F(FrameConfigTest, MaxEntriesIsReadAtInitAndAtEveryProtectionChange) {
    pm_calllog_enable(1);
    halvo_host_set("max_entries", 1000);
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 0), 0u);
    EXPECT_EQ(pmdb_cfg[PMDB_TYPE_OAM].max_entries, 1000u);
    EXPECT_EQ(CallLog("tabra_open").at(0).args[1], 1000u);

    halvo_host_set("max_entries", 2000);
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 1), 0u);
    EXPECT_EQ(pmdb_cfg[PMDB_TYPE_OAM].max_entries, 2000u);
    EXPECT_EQ(CallLog("tabra_make_shm_writable").at(0).args[1], 2000u);

    halvo_host_set("max_entries", 3000);
    ASSERT_EQ(dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(pmdb_cfg[PMDB_TYPE_OAM].max_entries, 3000u);
    EXPECT_EQ(CallLog("tabra_make_shm_readonly_protected").back().args[1], 3000u);
    EXPECT_EQ(hdl->cfg, &pmdb_cfg[PMDB_TYPE_OAM]);
}

TEST_F(FrameConfigTest, MaxEntriesBeyondTheEntryLocksIsClamped) {
    pm_calllog_enable(1);
    halvo_host_set("max_entries", 70000);
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 1), 0u);
    EXPECT_EQ(pmdb_cfg[PMDB_TYPE_OAM].max_entries, 65536u);
    for (const pm_call_rec_t &r : CallLog("tabra_")) {
        if (strcmp(r.call, "tabra_init") == 0) continue;
        EXPECT_EQ(r.args[1], 65536u) << r.call;
    }
    ExpectTrace(VESK_ERROR, 73, {70000, 65536});
    EXPECT_EQ(dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, PMDB_TYPE_OAM), 0u);

    // The table store enforces the bound it was given.
    tabra_info_t info;
    ASSERT_EQ(tabra_get_info(hdl->tabra, &info), 0u);
    EXPECT_EQ(info.max_entries, 65536u);

    MarkTraces();
    halvo_host_set("max_entries", 65536);
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 1), 0u);
    EXPECT_EQ(dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, PMDB_TYPE_OAM), 0u);
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
    ASSERT_EQ(CallNames("tabra_"),
              (std::vector<std::string>{"tabra_init", "tabra_open",
                                        "tabra_make_shm_readonly_protected",
                                        "tabra_make_shm_writable"}));
    EXPECT_EQ(calls[0].args[0], reinterpret_cast<uint64_t>(em));
    EXPECT_EQ(calls[0].args[1], reinterpret_cast<uint64_t>(&dnxpm_dbg_pmdb_types));
    EXPECT_EQ(calls[1].args[0], 66u);  // flags
    EXPECT_EQ(calls[1].args[1], 4096u);
    EXPECT_EQ(calls[1].args[2], 80u);  // entry size
    EXPECT_EQ(calls[1].args[3], 65536u);
    EXPECT_GE(calls[2].mono_ns - calls[1].mono_ns, kPauseNs);
    EXPECT_EQ(calls[2].args[0], 64u);
    EXPECT_EQ(calls[3].args[0], 64u);

    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 1);
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_WRITABLE);
    EXPECT_EQ(hdl->event_mgr, em);
    EXPECT_NE(hdl->shrd_ctx, nullptr);
    EXPECT_EQ(hdl->shrd_ctx->magic, PMDB_SHRD_CTX_MAGIC);
    ExpectTrace(VESK_DATABASE, 63, {2});
    ExpectTrace(VESK_DATABASE, 62, {2621472}, "dnx_pmdb_oam_shrd");
    ExpectTrace(VESK_DATABASE, 55, {2});
    ExpectTrace(VESK_DATABASE, 57, {2});

    pm_calllog_clear();
    ASSERT_EQ(dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(CallNames("tabra_"),
              (std::vector<std::string>{"tabra_make_shm_readonly_protected"}));
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 0);
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_READONLY);
}

TEST_F(FrameOpenTest, OverlappingWritersChangeProtectionOnlyAtTheEdges) {
    dnx_db_hdl_t *first = nullptr;
    dnx_db_hdl_t *second = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &first, PMDB_TYPE_OAM, 1), 0u);
    pm_calllog_clear();

    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &second, PMDB_TYPE_OAM, 1), 0u);
    EXPECT_EQ(second, first);
    EXPECT_TRUE(CallNames("tabra_").empty());
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 2);

    ASSERT_EQ(dpa_pmdb_mprotect_tabra(first->tabra, first, PMDB_TYPE_OAM), 0u);
    EXPECT_TRUE(CallNames("tabra_").empty());
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 1);
    EXPECT_EQ(first->prot_state, PMDB_PROT_WRITABLE);

    ASSERT_EQ(dpa_pmdb_mprotect_tabra(second->tabra, second, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(CallNames("tabra_"),
              (std::vector<std::string>{"tabra_make_shm_readonly_protected"}));
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 0);
    EXPECT_EQ(first->prot_state, PMDB_PROT_READONLY);
}

TEST_F(FrameOpenTest, ConcurrentWritersInThreadsBalanceTheCount) {
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 0), 0u);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; i++) {
                dnx_db_hdl_t *h = nullptr;
                if (dpa_chk_pmdb_open(nullptr, &h, PMDB_TYPE_OAM, 1) != 0) failures++;
                if (h == nullptr || h->prot_state != PMDB_PROT_WRITABLE) failures++;
                if (h != nullptr && dpa_pmdb_mprotect_tabra(h->tabra, h, PMDB_TYPE_OAM) != 0)
                    failures++;
            }
        });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 0);
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_READONLY);
}

TEST_F(FrameOpenTest, FirstReadOpenProtectsWithoutMakingWritable) {
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_PUNT, 0), 0u);
    EXPECT_EQ(CallNames("tabra_"),
              (std::vector<std::string>{"tabra_init", "tabra_open",
                                        "tabra_make_shm_readonly_protected"}));
    const auto calls = CallLog("tabra_");
    EXPECT_EQ(calls[1].args[0], 64u);
    EXPECT_EQ(calls[1].args[2], 312u);
    EXPECT_GE(calls[2].mono_ns - calls[1].mono_ns, kPauseNs);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_PUNT), 0);
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_READONLY);

    // A later read open of the initialised type costs nothing.
    pm_calllog_clear();
    MarkTraces();
    dnx_db_hdl_t *again = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &again, PMDB_TYPE_PUNT, 0), 0u);
    EXPECT_EQ(again, hdl);
    EXPECT_TRUE(CallLog().empty());
    EXPECT_TRUE(Traces(VESK_DATABASE).empty());
}

TEST_F(FrameOpenTest, ShrdCtxOpenFirstMapsTheRegionAndTheOpenAddsTheTable) {
    dnx_db_hdl_t *ctx_hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &ctx_hdl, PMDB_TYPE_IFH), 0u);
    ASSERT_NE(ctx_hdl, nullptr);
    EXPECT_EQ(ctx_hdl->shrd_ctx->magic, PMDB_SHRD_CTX_MAGIC);
    EXPECT_EQ(ctx_hdl->tabra, nullptr);
    EXPECT_EQ(ctx_hdl->cfg, &pmdb_cfg[PMDB_TYPE_IFH]);
    EXPECT_TRUE(CallNames("tabra_").empty());
    EXPECT_EQ(frame_test::RegionObjectOpens().size(), 1u);
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_IFH), nullptr);  // not initialised yet

    pm_calllog_clear();
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_IFH, 1), 0u);
    EXPECT_EQ(hdl, ctx_hdl);
    EXPECT_NE(hdl->tabra, nullptr);
    EXPECT_TRUE(frame_test::RegionObjectOpens().empty());
    EXPECT_TRUE(CallNames("vorn_sem").empty());
    EXPECT_EQ(CallNames("tabra_"),
              (std::vector<std::string>{"tabra_init", "tabra_open",
                                        "tabra_make_shm_readonly_protected",
                                        "tabra_make_shm_writable"}));
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_IFH), 1);
    EXPECT_EQ(dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, PMDB_TYPE_IFH), 0u);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_IFH), 0);
}

// While another thread initialises a second type (and so holds the
// initialisation mutex through its 100 ms pause), opens of an initialised
// type must neither wait nor call the table store.
TEST_F(FrameOpenTest, InitialisedTypeIsOpenedWithoutAnyLock) {
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 0), 0u);
    kemt_host_reset();
    std::thread initialiser([] {
        dnx_db_hdl_t *other = nullptr;
        EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &other, PMDB_TYPE_PUNT, 0), 0u);
    });
    while (CountTraces(VESK_DATABASE, 55) < 2) std::this_thread::sleep_for(1ms);
    const auto paused_at = std::chrono::steady_clock::now();
    pm_calllog_clear();

    dnx_db_hdl_t *ctx_hdl = nullptr;
    dnx_db_hdl_t *read_hdl = nullptr;
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &ctx_hdl, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &read_hdl, PMDB_TYPE_OAM, 0), 0u);
    const auto calls = CallNames("tabra_");
    const auto took = std::chrono::steady_clock::now() - paused_at;
    initialiser.join();

    // The initialiser sleeps for 100 ms after its trace 55; had the two
    // opens waited for its mutex they would have taken about that long.
    EXPECT_LT(took, 50ms);
    EXPECT_EQ(ctx_hdl, hdl);
    EXPECT_EQ(read_hdl, hdl);
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_shrd_ctx_init", -1), 0u);
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_init", -1), 0u);
    EXPECT_TRUE(calls.empty());
}

// Callers that find the initialisation mutex taken register their wait
// under the location of the step that waits.
TEST_F(FrameOpenTest, WaitsForTheInitialisationMutexAreRegistered) {
    std::thread initialiser([] {
        dnx_db_hdl_t *h = nullptr;
        EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &h, PMDB_TYPE_PUNT, 0), 0u);
    });
    while (CountTraces(VESK_DATABASE, 55) < 1) std::this_thread::sleep_for(1ms);
    std::thread ctx_opener([] {
        dnx_db_hdl_t *h = nullptr;
        EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &h, PMDB_TYPE_IFH), 0u);
    });
    std::thread opener([] {
        dnx_db_hdl_t *h = nullptr;
        EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &h, PMDB_TYPE_OAM, 0), 0u);
    });
    initialiser.join();
    ctx_opener.join();
    opener.join();
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_shrd_ctx_init", 697), 1u);
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_init", 568), 1u);
    EXPECT_EQ(kemt_host_total_waits(), 2u);
}

// ---- failures ------------------------------------------------------------

TEST_F(FrameOpenTest, TableStoreInitFailureIsTracedAndTheNextOpenResumes) {
    pm_fault_set("tabra_init", 0xA6F01405, 1);
    dnx_db_hdl_t *hdl = nullptr;
    EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 1), 0xA6F01405u);
    EXPECT_EQ(hdl, nullptr);
    ExpectTrace(VESK_ERROR, 53, {0xA6F01405});
    ExpectTrace(VESK_ERROR, 67, {0xA6F01405, 2});
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_OAM), nullptr);

    pm_calllog_clear();
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 1), 0u);
    EXPECT_TRUE(frame_test::RegionObjectOpens().empty()) << "the region was mapped already";
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 1);
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_WRITABLE);
}

TEST_F(FrameOpenTest, TableOpenFailureOrNoTableIsTraced) {
    pm_fault_set("tabra_open", TABRA_E_SHM, 1);
    dnx_db_hdl_t *hdl = nullptr;
    EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_PUNT, 0), TABRA_E_SHM);
    ExpectTrace(VESK_ERROR, 54, {TABRA_E_SHM});
    ExpectTrace(VESK_ERROR, 67, {TABRA_E_SHM, 1});
    ExpectNoTrace(VESK_DATABASE, 55);

    // An open that succeeds without a table is traced as a failed one.
    MarkTraces();
    pm_fault_set("tabra_open", 0, 1);
    EXPECT_EQ(dpa_pmdb_init(nullptr, PMDB_TYPE_OAM, 0), 0u);
    ExpectTrace(VESK_ERROR, 54, {0});
    ExpectNoTrace(VESK_DATABASE, 55);
    EXPECT_EQ(dpa_pmdb_hdl_get(PMDB_TYPE_OAM)->tabra, nullptr);
}

TEST_F(FrameOpenTest, FirstProtectionFailureIsTracedAndRetriedByTheNextOpen) {
    pm_fault_set("tabra_make_shm_readonly_protected", TABRA_E_PROT, 1);
    dnx_db_hdl_t *hdl = nullptr;
    EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 0), TABRA_E_PROT);
    ExpectTrace(VESK_DATABASE, 55, {2});
    ExpectTrace(VESK_ERROR, 56, {TABRA_E_PROT});
    ExpectTrace(VESK_ERROR, 67, {TABRA_E_PROT, 2});
    ExpectNoTrace(VESK_DATABASE, 57);

    pm_calllog_clear();
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 0), 0u);
    EXPECT_EQ(CallNames("tabra_"),
              (std::vector<std::string>{"tabra_init", "tabra_open",
                                        "tabra_make_shm_readonly_protected"}));
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_READONLY);
}

TEST_F(FrameOpenTest, WriteEnableFailureKeepsTheWriterCounted) {
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 0), 0u);
    pm_fault_set("tabra_make_shm_writable", TABRA_E_PROT, 1);
    MarkTraces();
    EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 1), TABRA_E_PROT);
    ExpectTrace(VESK_ERROR, 68, {TABRA_E_PROT});
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_READONLY);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 1);

    // The next writer finds protection still on and tries again.
    pm_calllog_clear();
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 1), 0u);
    EXPECT_EQ(CallNames("tabra_"), (std::vector<std::string>{"tabra_make_shm_writable"}));
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 2);
}

TEST_F(FrameOpenTest, FailedProtectionIsReportedAndRetriedByTheNextRelease) {
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 1), 0u);
    pm_fault_set("tabra_make_shm_readonly_protected", TABRA_E_PROT, 1);
    MarkTraces();
    EXPECT_EQ(dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, PMDB_TYPE_OAM), TABRA_E_PROT);
    EXPECT_TRUE(Traces(VESK_ERROR).empty());
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_WRITABLE);
    EXPECT_EQ(pmdb_frame_wr_refcnt(PMDB_TYPE_OAM), 0);

    // Protection is still owed: the next writer in does not call the table
    // store, its release protects.
    pm_calllog_clear();
    ASSERT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 1), 0u);
    EXPECT_TRUE(CallNames("tabra_").empty());
    ASSERT_EQ(dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, PMDB_TYPE_OAM), 0u);
    EXPECT_EQ(CallNames("tabra_"),
              (std::vector<std::string>{"tabra_make_shm_readonly_protected"}));
    EXPECT_EQ(hdl->prot_state, PMDB_PROT_READONLY);
}

TEST_F(FrameOpenTest, RegionFailureStopsTheOpenBeforeTheTableStore) {
    pm_fault_set("_shm_open", EACCES, 2);
    dnx_db_hdl_t *hdl = nullptr;
    EXPECT_EQ(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_IFH, 1), PMDB_ESHM);
    ExpectTrace(VESK_ERROR, 58, {2621472}, "dnx_pmdb_ifh_shrd");
    ExpectTrace(VESK_ERROR, 67, {PMDB_ESHM, 0});
    EXPECT_TRUE(CallNames("tabra_").empty());
}

TEST_F(FrameOpenDeathTest, OpenWithoutATableStopsAtTheInitialisingLine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            pm_fault_set("tabra_open", 0, 1);  // success, but no handle
            dnx_db_hdl_t *hdl = nullptr;
            dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 0);
        },
        OpenAssertion(824));
}

TEST_F(FrameOpenDeathTest, OpenWithoutATableStopsAtTheKnownTypeLine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            pm_fault_set("tabra_open", 0, 1);
            if (dpa_pmdb_init(nullptr, PMDB_TYPE_OAM, 0) != 0) exit(3);
            dnx_db_hdl_t *hdl = nullptr;
            dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_OAM, 0);
        },
        OpenAssertion(813));
}

}  // namespace
