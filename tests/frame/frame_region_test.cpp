// Shared context regions across processes: sizing, zeroing exactly once,
// the named semaphore (including a holder that died), and the failures of
// each mapping step.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "frame_support.h"
#include "host/os_host.h"
#include "host/pm_fault.h"
#include "pmdb.h"
#include "pmdb_internal.h"
#include "pmdb_test.h"
#include "vorn_os.h"

namespace {

using frame_test::RegionObjectOpens;
using pmdb::test::CallNames;
using pmdb::test::ChildLink;
using pmdb::test::ChildProcess;
using namespace std::chrono_literals;

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

// Waits (up to 10 s, a hang detector) until process `pid` sleeps in a futex
// wait: for these tests' children, the region semaphore.
bool WaitUntilBlockedOnFutex(int pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/wchan";
    for (int i = 0; i < 10000; i++, usleep(1000)) {
        char wchan[128] = {};
        FILE *f = fopen(path.c_str(), "r");
        if (f == nullptr) continue;
        wchan[fread(wchan, 1, sizeof wchan - 1, f)] = 0;
        fclose(f);
        if (strstr(wchan, "futex") != nullptr) return true;
    }
    return false;
}

// Child body: maps the IFH region, then sets `bit` in the globals block.
int MapAndMark(u32 bit) {
    dnx_db_hdl_t *hdl = nullptr;
    if (dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH) != 0) return 1;
    __atomic_fetch_or(&hdl->shrd_ctx->glbls.hs_node_mask, bit, __ATOMIC_SEQ_CST);
    return 0;
}

class FrameRegionTest : public pmdb::test::PmdbTest {
  protected:
    // The IFH region as a creator that died before zeroing it leaves it,
    // with the region semaphore taken by this test.
    void GarbageBehindTheSemaphore() {
        raw_ = GarbageRegion("dnx_pmdb_ifh_shrd");
        ASSERT_NE(raw_, nullptr);
        sem_ = vorn_sem_open(PMDB_SHM_SEMAPHORE_NAME, O_CREAT, 0777, 1);
        ASSERT_NE(sem_, SEM_FAILED);
        ASSERT_EQ(sem_wait(sem_), 0);
    }
    // A child that runs `body` once it has waited for that semaphore.
    static std::unique_ptr<ChildProcess> BlockedChild(std::function<int()> body) {
        auto child = std::make_unique<ChildProcess>([body](ChildLink &link) {
            link.Ready();
            return body();
        });
        EXPECT_TRUE(child->WaitReady());
        EXPECT_TRUE(WaitUntilBlockedOnFutex(child->pid()));
        return child;
    }
    void PostSemaphore() {
        ASSERT_EQ(sem_post(sem_), 0);
        sem_close(sem_);
    }
    dnx_pmdb_shrd_ctx_t *raw_ = nullptr;
    sem_t *sem_ = nullptr;
};

TEST_F(FrameRegionTest, ObjectIsSizedToWholePages) {
    EXPECT_EQ(pmdb_region_length(PMDB_SHM_SIZE, 4096), 2625536);
    EXPECT_EQ(pmdb_region_length(PMDB_SHM_SIZE, 65536), 2686976);
    EXPECT_EQ(pmdb_region_length(8192, 4096), 8192);

    dnx_db_hdl_t *hdl = nullptr;
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_PUNT), 0u);
    struct stat st;
    const std::string path =
        std::string("/dev/shm/") + vorn_host_namespace() + ".dnx_pmdb_punt_shrd";
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, pmdb_region_length(PMDB_SHM_SIZE, sysconf(_SC_PAGESIZE)));
    ExpectTrace(VESK_DATABASE, 62, {2621472}, "dnx_pmdb_punt_shrd");
    // The semaphore exists only while a region is being initialised.
    EXPECT_EQ(vorn_sem_open(PMDB_SHM_SEMAPHORE_NAME, 0, 0, 0), SEM_FAILED);
}

TEST_F(FrameRegionTest, LaterProcessesTouchNeitherTheSemaphoreNorTheContents) {
    auto r = pmdb::test::RunInChild([] { return MapAndMark(0x1); });
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();

    pm_calllog_enable(1);
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
    ASSERT_NO_FATAL_FAILURE(GarbageBehindTheSemaphore());
    auto a = BlockedChild([] { return MapAndMark(0x2); });
    auto b = BlockedChild([] { return MapAndMark(0x4); });
    __atomic_store_n(&raw_->magic, PMDB_SHRD_CTX_MAGIC, __ATOMIC_RELEASE);
    PostSemaphore();
    for (auto *child : {a.get(), b.get()}) {
        const auto r = child->Wait();
        ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
    }
    EXPECT_EQ(raw_->glbls.hs_node_mask, 0xABABABABu | 0x6u);
    EXPECT_EQ(raw_->entry_lock[7].__size[3], static_cast<char>(0xAB));
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
    pm_calllog_enable(1);
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), 0u);
    auto opens = RegionObjectOpens();
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].args[0], 194u);
    EXPECT_EQ(opens[1].args[0], 66u);
    EXPECT_EQ(raw->magic, PMDB_SHRD_CTX_MAGIC);

    MarkTraces();
    pm_fault_set("_shm_open", EACCES, 2);
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM), PMDB_ESHM);
    ExpectTrace(VESK_ERROR, 58, {2621472}, "dnx_pmdb_oam_shrd");
    ExpectTrace(VESK_ERROR, 65, {2, PMDB_ESHM});
    // Exclusive create refused, plain open works, the mapping fails.
    MarkTraces();
    pm_fault_set("_shm_open", EEXIST, 1);
    pm_fault_set("vornos_mmap", ENOMEM, 1);
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM), PMDB_ENOMEM);
    ExpectNoTrace(VESK_ERROR, 58);
    ExpectTrace(VESK_ERROR, 60, {2625536}, "dnx_pmdb_oam_shrd");
    ExpectTrace(VESK_ERROR, 65, {2, PMDB_ENOMEM});
    MarkTraces();
    pm_calllog_clear();
    ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM), 0u);
    ExpectTrace(VESK_DATABASE, 62, {2621472}, "dnx_pmdb_oam_shrd");
    opens = RegionObjectOpens();
    ASSERT_EQ(opens.size(), 2u);
    EXPECT_EQ(opens[0].args[0], 194u);
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
