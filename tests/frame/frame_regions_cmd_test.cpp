// pmdbctl regions reports what the regions hold, read from another process
// without disturbing any lock: initialised, held, dead-owner and destroyed
// entry locks with their holders, the magic and the globals block; pmdbctl
// check reports damaged regions and entry locks that block their writers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "card.h"
#include "pmdb.h"
#include "pmdb_test.h"
#include "vorn_os.h"

namespace {

using pmdb::test::ChildProcess;

/* A thread id no kernel hands out (above the largest pid_max). */
constexpr int kNeverTid = 0x3ffffffe;

// The IFH region, with the entry locks of slots 10 to 14 initialised.
class FrameRegionsCommandTest : public pmdb::test::PmdbTest {
  protected:
    void SetUp() override {
        PmdbTest::SetUp();
        dnx_db_hdl_t *hdl = nullptr;
        ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_IFH), 0u);
        ctx_ = hdl->shrd_ctx;
        for (int slot = 10; slot < 15; slot++) pmdb_lock_init(&ctx_->entry_lock[slot]);
    }
    dnx_pmdb_shrd_ctx_t *ctx_ = nullptr;
};

using Holder = std::unique_ptr<ChildProcess>;

Holder Hold(pellin_mutex_type *lock) {
    auto child = card::HoldInChild(lock);
    EXPECT_TRUE(child->WaitReady());
    return child;
}

// Leaves `lock` with a dead owner; its next writer recovers it.
Holder KillHolder(pellin_mutex_type *lock) {
    const Holder child = Hold(lock);
    child->Kill(SIGKILL);
    EXPECT_TRUE(child->Wait().KilledBy(SIGKILL));
    return Holder();
}

// `text` with {pid} replaced by the pid of `child` (when there is one) and
// {ns} by `ns`.
std::string WithPid(std::string text, const ChildProcess *child, const std::string &ns = "") {
    for (size_t at; child && (at = text.find("{pid}")) != std::string::npos;)
        text.replace(at, 5, std::to_string(child->pid()));
    if (const size_t at = text.find("{ns}"); at != std::string::npos) text.replace(at, 4, ns);
    return text;
}

TEST_F(FrameRegionsCommandTest, CountsLockStatesAndShowsTheGlobals) {
    pellin_mutex_type *locks = ctx_->entry_lock;
    ctx_->glbls.inv_node_id = 7;
    ctx_->glbls.inv_node_mac[5] = 0x42;
    const Holder alive = Hold(&locks[11]);
    KillHolder(&locks[12]);
    ASSERT_EQ(pmdb_lock_destroy(&locks[13]), 0u);
    locks[14].__data.__lock = kNeverTid;  // left by a thread the kernel never marked dead

    const pmdb::test::ToolRun r =
        pmdb::test::RunTool(PMDBCTL, {"--ns", ns(), "regions", "--json", "--wait-ms", "100"});
    EXPECT_EQ(r.status, 0) << r.err;
    nlohmann::json out = nlohmann::json::parse(r.out, nullptr, false);
    ASSERT_FALSE(out.is_discarded()) << r.out;
    nlohmann::json &held_ms = out["regions"][0]["entry_locks"]["holders"][0]["held_ms"];
    EXPECT_GE(held_ms.get<int>(), 100);  // sampled for all of --wait-ms
    held_ms = 100;
    // 13 was destroyed; 14 names a thread that never existed.
    EXPECT_EQ(out, nlohmann::json::parse(WithPid(R"({"namespace": "{ns}", "regions": [
        {"type": "ifh", "object": "dnx_pmdb_ifh_shrd", "present": true, "initialised": true,
         "magic": "0xc0dec0de", "object_size": 2625536,
         "globals": {"hs_node_id": 0, "hs_node_mask": "0x00000000", "inv_node_id": 7,
                     "inv_node_mac": "00:00:00:00:00:42"},
         "entry_locks": {"initialised": 4, "held": 1, "dead_owner": 2, "destroyed": 1,
                         "not_recoverable": 0, "holders": [
             {"slot": 11, "tid": {pid}, "pid": {pid}, "alive": true, "still_held": true,
              "held_ms": 100},
             {"slot": 14, "tid": 1073741822, "pid": 0, "alive": false, "still_held": true,
              "held_ms": 0}]}},
        {"type": "punt", "object": "dnx_pmdb_punt_shrd", "present": false},
        {"type": "oam", "object": "dnx_pmdb_oam_shrd", "present": false}]})",
                                                 alive.get(), ns())));

    // Reading took nothing: the live holder still holds, the dead owner's
    // lock is still waiting for its recovery.
    EXPECT_EQ(pmdb_entry_lock(&locks[12]), 0u);
    ExpectTrace(VESK_DATABASE, 69, {});
    EXPECT_EQ(pmdb_lock_destroy(&locks[11]), PMDB_EBUSY);
}

/* What is done to the IFH region and what check says about it on one
 * line; {pid} is the pid of the child a row keeps alive meanwhile.  No
 * table exists: only the regions are checked. */
struct RegionDamage {
    const char *what;
    std::function<Holder(dnx_pmdb_shrd_ctx_t *)> apply;
    int status;
    const char *says;
};

void PrintTo(const RegionDamage &d, std::ostream *os) {
    *os << d.what;
}

Holder Truncate(dnx_pmdb_shrd_ctx_t *) {
    const int fd = _shm_open(PMDB_IFH_SHM_NAME, O_RDWR, 0);
    EXPECT_EQ(ftruncate(fd, 4096), 0);
    close(fd);
    return Holder();
}

const RegionDamage kRegionDamages[] = {
    {"sound", [](dnx_pmdb_shrd_ctx_t *) { return Holder(); }, 0,
     "dnx_pmdb_ifh_shrd                ok"},
    {"lock held by a live thread", [](dnx_pmdb_shrd_ctx_t *c) { return Hold(&c->entry_lock[11]); },
     1,
     "dnx_pmdb_ifh_shrd slot 11        held by pid {pid} tid {pid} (alive) at every sample "
     "over "},
    {"holder killed", [](dnx_pmdb_shrd_ctx_t *c) { return KillHolder(&c->entry_lock[12]); }, 1,
     "dnx_pmdb_ifh_shrd slot 12        left by a dead owner: its entry may hold a half-done "
     "change"},
    {"lock naming a thread that never existed",
     [](dnx_pmdb_shrd_ctx_t *c) {
         c->entry_lock[10].__data.__lock = kNeverTid;
         return Holder();
     },
     1, "dnx_pmdb_ifh_shrd slot 10        names tid 1073741822 (gone): its writers wait for ever"},
    {"zeroed magic",
     [](dnx_pmdb_shrd_ctx_t *c) {
         c->magic = 0;
         return Holder();
     },
     1, "dnx_pmdb_ifh_shrd                magic 0x00000000, not 0xc0dec0de"},
    {"truncated object", Truncate, 1,
     "dnx_pmdb_ifh_shrd                object is 4096 bytes, a region 2625536: truncated"},
};

class FrameRegionsCheck : public FrameRegionsCommandTest,
                          public ::testing::WithParamInterface<RegionDamage> {};

TEST_P(FrameRegionsCheck, ReportsEachFindingOnOneLine) {
    const Holder child = GetParam().apply(ctx_);
    const std::string says = WithPid(GetParam().says, child.get());

    const pmdb::test::ToolRun r = pmdb::test::RunTool(PMDBCTL, {"check", "--wait-ms", "100"});
    EXPECT_EQ(r.status, GetParam().status) << r.out << r.err;
    EXPECT_NE(r.out.find(says), std::string::npos) << "want: " << says << "\n" << r.out;
}

INSTANTIATE_TEST_SUITE_P(Rows, FrameRegionsCheck, ::testing::ValuesIn(kRegionDamages),
                         [](const auto &info) {
                             std::string n = info.param.what;
                             for (char &c : n) c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return n;
                         });

}  // namespace
