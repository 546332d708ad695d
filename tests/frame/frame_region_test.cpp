// Shared context regions across processes: sizing, zeroing exactly once,
// the named semaphore (including a holder that died), and the failures of
// each mapping step.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <string.h>

#include <chrono>

#include "frame_support.h"
#include "host/pm_fault.h"
#include "pmdb.h"
#include "pmdb_internal.h"
#include "pmdb_test.h"
#include "vorn_os.h"

namespace {

using pmdb::test::CallNames;
using frame_test::MakeGarbageRegion;
using frame_test::MapRegionObject;
using frame_test::OpenRegionSemaphore;
using frame_test::RegionContentsZero;
using pmdb::test::ChildLink;
using pmdb::test::ChildProcess;
using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;
using namespace std::chrono_literals;

class FrameRegionTest : public PmdbTest {
protected:
    // The IFH region as a creator that died before zeroing it leaves it,
    // with the region semaphore taken by this test.
    static void GarbageRegionBehindTheSemaphore(dnx_pmdb_shrd_ctx_t **raw, sem_t **sem) {
        *raw = MapRegionObject("dnx_pmdb_ifh_shrd");
        ASSERT_NE(*raw, nullptr);
        MakeGarbageRegion(*raw);
        *sem = OpenRegionSemaphore();
        ASSERT_NE(*sem, nullptr);
        ASSERT_EQ(sem_wait(*sem), 0);
    }
};

constexpr u32 kMarker = 0x5a5a1234;

// Child body: maps the IFH region, then sets `bit` in the globals block.
int MapAndMark(u32 bit) {
    dnx_db_hdl_t *hdl = nullptr;
    if (dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH) != 0) return 1;
    __atomic_fetch_or(&hdl->shrd_ctx->glbls.hs_node_mask, bit, __ATOMIC_SEQ_CST);
    return 0;
}

TEST_F(FrameRegionTest, ObjectIsSizedToWholePages) {
    EXPECT_EQ(pmdb_region_length(PMDB_SHM_SIZE, 4096), 2625536);
    EXPECT_EQ(pmdb_region_length(PMDB_SHM_SIZE, 65536), 2686976);
    EXPECT_EQ(pmdb_region_length(8192, 4096), 8192);

    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_PUNT), 0u);
    EXPECT_EQ(frame_test::RegionObjectSize("dnx_pmdb_punt_shrd"),
              pmdb_region_length(PMDB_SHM_SIZE, sysconf(_SC_PAGESIZE)));
    ExpectTrace(VESK_DATABASE, 62, {2621472}, "dnx_pmdb_punt_shrd");
    // The semaphore exists only while a region is being initialised.
    sem_t *probe = vorn_sem_open(PMDB_SHM_SEMAPHORE_NAME, 0, 0, 0);
    EXPECT_EQ(probe, SEM_FAILED);
}

TEST_F(FrameRegionTest, LaterProcessesTouchNeitherTheSemaphoreNorTheContents) {
    auto r = RunInChild([] { return MapAndMark(0x1); });
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();

    pm_calllog_enable(1);
    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), 0u);
    EXPECT_EQ(hdl->shrd_ctx->glbls.hs_node_mask, 0x1u);
    EXPECT_TRUE(CallNames("vorn_sem").empty());

    // A second type's mapping in the same process: no semaphore either.
    pm_calllog_clear();
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), 0u);
    EXPECT_TRUE(frame_test::RegionObjectOpens().empty()) << "mapped once per process";
}

TEST_F(FrameRegionTest, RegionWithoutMagicIsZeroedByTheNextProcess) {
    dnx_pmdb_shrd_ctx_t *raw = MapRegionObject("dnx_pmdb_oam_shrd");
    ASSERT_NE(raw, nullptr);
    MakeGarbageRegion(raw);

    auto r = RunInChild([] {
        dnx_db_hdl_t *hdl = nullptr;
        return dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM) == 0 ? 0 : 1;
    });
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
    EXPECT_EQ(raw->magic, PMDB_SHRD_CTX_MAGIC);
    EXPECT_TRUE(RegionContentsZero(raw));
}

// The test holds the semaphore while the child waits for it, and meanwhile
// finishes the region itself: the child must see the magic under the
// semaphore and leave the contents alone.
TEST_F(FrameRegionTest, MagicThatAppearsDuringTheWaitIsNotZeroedAgain) {
    dnx_pmdb_shrd_ctx_t *raw = nullptr;
    sem_t *sem = nullptr;
    ASSERT_NO_FATAL_FAILURE(GarbageRegionBehindTheSemaphore(&raw, &sem));

    ChildProcess child([](ChildLink &link) {
        link.Ready();
        dnx_db_hdl_t *hdl = nullptr;
        return dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH) == 0 ? 0 : 1;
    });
    ASSERT_TRUE(child.WaitReady());
    ASSERT_TRUE(frame_test::WaitUntilBlockedOnFutex(child.pid()));
    raw->glbls.inv_node_id = kMarker;
    __atomic_store_n(&raw->magic, PMDB_SHRD_CTX_MAGIC, __ATOMIC_RELEASE);
    ASSERT_EQ(sem_post(sem), 0);
    sem_close(sem);

    const auto r = child.Wait();
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
    EXPECT_EQ(raw->glbls.inv_node_id, kMarker);
    EXPECT_EQ(raw->entry_lock[7].__size[3], static_cast<char>(0xAB));
}

// Two processes find the magic missing and queue on the semaphore; each
// marks the region once it returns.  A second zeroing after the first
// process's return would wipe that process's mark.
TEST_F(FrameRegionTest, RacingProcessesZeroTheRegionOnce) {
    dnx_pmdb_shrd_ctx_t *raw = nullptr;
    sem_t *sem = nullptr;
    ASSERT_NO_FATAL_FAILURE(GarbageRegionBehindTheSemaphore(&raw, &sem));

    auto body = [](u32 bit) {
        return [bit](ChildLink &link) {
            link.Ready();
            return MapAndMark(bit);
        };
    };
    ChildProcess a(body(0x2));
    ChildProcess b(body(0x4));
    ASSERT_TRUE(a.WaitReady());
    ASSERT_TRUE(b.WaitReady());
    ASSERT_TRUE(frame_test::WaitUntilBlockedOnFutex(a.pid()));
    ASSERT_TRUE(frame_test::WaitUntilBlockedOnFutex(b.pid()));
    ASSERT_EQ(raw->magic, 0u);
    ASSERT_EQ(sem_post(sem), 0);
    sem_close(sem);

    const auto ra = a.Wait();
    const auto rb = b.Wait();
    ASSERT_TRUE(ra.ExitedWith(0)) << ra.Describe();
    ASSERT_TRUE(rb.ExitedWith(0)) << rb.Describe();
    EXPECT_EQ(raw->magic, PMDB_SHRD_CTX_MAGIC);
    EXPECT_EQ(raw->glbls.hs_node_mask, 0x6u);
    raw->glbls.hs_node_mask = 0;
    EXPECT_TRUE(RegionContentsZero(raw));
}

TEST_F(FrameRegionTest, SemaphoreLeftTakenByADeadProcessIsRecovered) {
    dnx_pmdb_shrd_ctx_t *raw = MapRegionObject("dnx_pmdb_punt_shrd");
    ASSERT_NE(raw, nullptr);
    MakeGarbageRegion(raw);
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

TEST_F(FrameRegionTest, SemaphoreThatCannotBeObtainedFailsWithoutLeavingAMapping) {
    dnx_pmdb_shrd_ctx_t *raw = MapRegionObject("dnx_pmdb_ifh_shrd");
    ASSERT_NE(raw, nullptr);
    MakeGarbageRegion(raw);
    pm_fault_set("vorn_sem_open", EACCES, 2);
    dnx_db_hdl_t *hdl = nullptr;
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), PMDB_ESHM);
    ExpectTrace(VESK_ERROR, 61, {2621472}, "dnx_pmdb_ifh_shrd");
    ExpectTrace(VESK_ERROR, 65, {0, PMDB_ESHM});
    EXPECT_EQ(raw->magic, 0u);
    EXPECT_EQ(hdl, nullptr);

    // Nothing was kept: the next call maps and initialises afresh.
    pm_calllog_enable(1);
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), 0u);
    const auto opens = frame_test::RegionObjectOpens();
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].args[0], 194u);  // exclusive create: the object exists
    EXPECT_EQ(opens[1].args[0], 66u);
    EXPECT_EQ(raw->magic, PMDB_SHRD_CTX_MAGIC);
}

TEST_F(FrameRegionTest, EachMappingStepFailureHasItsResultAndTrace) {
    dnx_db_hdl_t *hdl = nullptr;
    pm_fault_set("_shm_open", EACCES, 2);
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM), PMDB_ESHM);
    ExpectTrace(VESK_ERROR, 58, {2621472}, "dnx_pmdb_oam_shrd");
    ExpectTrace(VESK_ERROR, 65, {2, PMDB_ESHM});

    // Exclusive create refused, plain open works: success.
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
