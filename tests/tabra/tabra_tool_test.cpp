/*
 * pmdbctl tables / check, run as a separate program on tables made here.
 */
#include <signal.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "host_tabra.h"

using namespace host_test;
using pmdb::test::PmdbTest;

namespace {

class TabraTool : public PmdbTest {};

struct Output {
    int status = -1;
    std::string out; /* standard output, then standard error */
};

/* Runs pmdbctl with `args` in this test's namespace (PMDB_NS is exported). */
Output Pmdbctl(const std::string &args) {
    const pmdb::test::ToolRun r = pmdb::test::RunTool(PMDBCTL_PATH, pmdb::test::Words(args));
    return {r.status, r.out + r.err};
}

TEST_F(TabraTool, TablesListsEachTableWithItsFiguresAndCheckSelectsOne) {
    tabra_hdl_t a = OpenOrDie(Params("ALPHA", 328));
    tabra_hdl_t b = OpenOrDie(Params("BETA", 80, Mod7, 7, 1000));
    for (u32 k = 1; k <= 655; k++) AddOrDie(a, k);
    for (u32 k = 1; k <= 3; k++) AddOrDie(b, k);

    const Output o = Pmdbctl("tables --json");
    ASSERT_EQ(o.status, 0) << o.out;
    auto j = nlohmann::json::parse(o.out);
    /* Entries of 80 and 328 bytes need no padding. */
    const auto row = [](const char *name, u32 size, u32 n, u32 max, u32 buckets) {
        return nlohmann::json{{"name", name},
                              {"entry_size", size},
                              {"entries", n},
                              {"capacity", 65536},
                              {"max_entries", max},
                              {"occupancy_percent", 100.0 * n / 65536},
                              {"hash_buckets", buckets},
                              {"object_size", TABRA_OFF_ENTRIES + 65536ull * size},
                              {"adds", n},
                              {"removes", 0},
                              {"repairs", 0},
                              {"pinned_free", 0}};
    };
    for (auto &t : j) t.erase("max_lock_wait_ns");
    EXPECT_EQ(j, nlohmann::json::array(
                     {row("ALPHA", 328, 655, 65536, 65536), row("BETA", 80, 3, 1000, 7)}))
        << o.out;

    const Output text = Pmdbctl("tables");
    ASSERT_EQ(text.status, 0) << text.out;
    EXPECT_NE(text.out.find("ALPHA"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("1.0%"), std::string::npos) << text.out;

    EXPECT_EQ(Pmdbctl("check --table BETA").status, 0);
    const Output unknown = Pmdbctl("check --table NOSUCH");
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.out.find("no table NOSUCH"), std::string::npos) << unknown.out;
}

/* What is done to table BAD (10 entries, beside a sound table GOOD) and
 * what check then says on BAD's line; {pid} stands for the pid of the
 * child that a row keeps alive meanwhile. */
struct Damage {
    const char *what;
    std::function<std::unique_ptr<pmdb::test::ChildProcess>(tabra_shm_hdr_t *)> apply;
    const char *says;
};

void PrintTo(const Damage &d, std::ostream *os) { *os << d.what; }

/* A thread id no kernel hands out (above the largest pid_max). */
constexpr int kNeverTid = 0x3ffffffe;

std::unique_ptr<pmdb::test::ChildProcess> HoldWriterLock(tabra_shm_hdr_t *h) {
    auto child = pmdb::test::StartHeldChild([h] { pthread_mutex_lock(&h->writer); });
    EXPECT_TRUE(child->WaitReady());
    return child;
}

const Damage kDamages[] = {
    {"count", [](tabra_shm_hdr_t *h) { h->count = 3; return nullptr; },
     "count 3, occupied slots 10"},
    {"zeroed magic", [](tabra_shm_hdr_t *h) { h->magic = 0; return nullptr; },
     "cannot be attached: "},
    {"writer lock held by a live thread", HoldWriterLock,
     "gave up after 200 ms: writer lock held by pid {pid} tid {pid} (alive)"},
    {"writer lock naming a thread that never existed",
     [](tabra_shm_hdr_t *h) {
         h->writer.__data.__lock = kNeverTid;
         h->writer.__data.__owner = kNeverTid;
         return nullptr;
     },
     "gave up after 200 ms: writer lock held by tid 1073741822 (gone)"},
};

class TabraToolDamage : public TabraTool, public ::testing::WithParamInterface<Damage> {};

TEST_P(TabraToolDamage, CheckReportsTheDamagedTableOnItsLine) {
    tabra_hdl_t good = OpenOrDie(Params("GOOD", 80));
    tabra_hdl_t bad = OpenOrDie(Params("BAD", 80));
    for (u32 k = 1; k <= 10; k++) {
        AddOrDie(good, k);
        AddOrDie(bad, k);
    }
    EXPECT_EQ(Pmdbctl("check").status, 0);

    u8 *obj = MapTableObject("BAD");
    ASSERT_NE(obj, nullptr);
    const auto child = GetParam().apply(reinterpret_cast<tabra_shm_hdr_t *>(obj));
    std::string says = GetParam().says;
    for (size_t at; child && (at = says.find("{pid}")) != std::string::npos;)
        says.replace(at, 5, std::to_string(child->pid()));

    const Output o = Pmdbctl("check --wait-ms 200");
    EXPECT_EQ(o.status, 1) << o.out;
    const size_t line = o.out.find("BAD ");
    ASSERT_NE(line, std::string::npos) << o.out;
    EXPECT_NE(o.out.substr(line, o.out.find('\n', line) - line).find(says), std::string::npos)
        << "want: " << says << "\n" << o.out;
    EXPECT_NE(o.out.find("GOOD                             ok"), std::string::npos) << o.out;

    const pmdb::test::ToolRun r =
        pmdb::test::RunTool(PMDBCTL_PATH, {"check", "--json", "--wait-ms", "200"});
    EXPECT_EQ(r.status, 1) << r.err;
    const auto j = nlohmann::json::parse(r.out, nullptr, false);
    ASSERT_TRUE(j.is_array() && j.size() == 2u) << r.out;
    EXPECT_EQ(j[0]["name"], "BAD");
    EXPECT_EQ(j[0]["ok"], false);
    EXPECT_NE(j[0]["problem"].get<std::string>().find(says), std::string::npos) << r.out;
    EXPECT_EQ(j[1]["ok"], true);
    munmap(obj, TABRA_OFF_ENTRIES);
}

/* Rows are named by their number; PrintTo shows what each one does. */
INSTANTIATE_TEST_SUITE_P(Rows, TabraToolDamage, ::testing::ValuesIn(kDamages));

TEST_F(TabraTool, InterruptEndsTheWaitForAWriterLockAndSaysWhatItWaitedFor) {
    OpenOrDie(Params("BAD", 80));
    u8 *obj = MapTableObject("BAD");
    ASSERT_NE(obj, nullptr);
    const auto holder = HoldWriterLock(reinterpret_cast<tabra_shm_hdr_t *>(obj));
    pmdb::test::Tool tool(PMDBCTL_PATH, {"check", "--wait-ms", "600000"});
    // The tool says when it starts to wait; a generous bound detects a hang.
    for (int i = 0; i < 3000 && tool.ErrSoFar().find("waiting up to") == std::string::npos; i++)
        usleep(10000);
    ASSERT_NE(tool.ErrSoFar().find("writer lock of table BAD, held by pid " +
                                   std::to_string(holder->pid())),
              std::string::npos)
        << tool.ErrSoFar();
    kill(tool.pid(), SIGINT);
    const pmdb::test::ToolRun r = tool.Finish();
    EXPECT_EQ(r.status, 128 + SIGINT);
    EXPECT_NE(r.err.find("pmdbctl: interrupted while waiting for the writer lock of table BAD\n"),
              std::string::npos)
        << r.err;
    munmap(obj, TABRA_OFF_ENTRIES);
}

}  // namespace
