/*
 * pmdbctl tables / check, run as a separate program on tables made here.
 */
#include <nlohmann/json.hpp>
#include <string>

#include "tabra_test_util.h"

using namespace tabra_test;
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

TEST_F(TabraTool, TablesListsEachTableWithItsFigures) {
    tabra_hdl_t a = OpenOrDie(Params("ALPHA", 328));
    tabra_hdl_t b = OpenOrDie(Params("BETA", 80, Mod7, 7, 1000));
    for (u32 k = 1; k <= 655; k++) AddOrDie(a, k);
    for (u32 k = 1; k <= 3; k++) AddOrDie(b, k);

    const Output o = Pmdbctl("tables --json");
    ASSERT_EQ(o.status, 0) << o.out;
    const auto j = nlohmann::json::parse(o.out);
    ASSERT_EQ(j.size(), 2u) << o.out;
    EXPECT_EQ(j[0]["name"], "ALPHA");
    EXPECT_EQ(j[0]["entry_size"], 328);
    EXPECT_EQ(j[0]["entries"], 655);
    EXPECT_EQ(j[0]["capacity"], 65536);
    EXPECT_NEAR(j[0]["occupancy_percent"].get<double>(), 1.0, 0.01);
    EXPECT_EQ(j[1]["name"], "BETA");
    EXPECT_EQ(j[1]["entry_size"], 80);
    EXPECT_EQ(j[1]["entries"], 3);
    EXPECT_EQ(j[1]["max_entries"], 1000);
    EXPECT_EQ(j[1]["hash_buckets"], 7);

    const Output text = Pmdbctl("tables");
    ASSERT_EQ(text.status, 0) << text.out;
    EXPECT_NE(text.out.find("ALPHA"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("1.0%"), std::string::npos) << text.out;
}

TEST_F(TabraTool, CheckExitsNonZeroOnADamagedTable) {
    tabra_hdl_t good = OpenOrDie(Params("GOOD", 80));
    tabra_hdl_t bad = OpenOrDie(Params("BAD", 80));
    for (u32 k = 1; k <= 10; k++) {
        AddOrDie(good, k);
        AddOrDie(bad, k);
    }
    Output o = Pmdbctl("check");
    EXPECT_EQ(o.status, 0) << o.out;

    u8 *obj = MapTableObject("BAD");
    ASSERT_NE(obj, nullptr);
    reinterpret_cast<tabra_shm_hdr_t *>(obj)->count = 3;
    munmap(obj, TABRA_OFF_ENTRIES);

    o = Pmdbctl("check");
    EXPECT_EQ(o.status, 1) << o.out;
    EXPECT_NE(o.out.find("BAD"), std::string::npos) << o.out;
    EXPECT_NE(o.out.find("count 3, occupied slots 10"), std::string::npos) << o.out;
    o = Pmdbctl("check --json");
    EXPECT_EQ(o.status, 1) << o.out;
    const auto j = nlohmann::json::parse(o.out.substr(0, o.out.rfind(']') + 1));
    ASSERT_EQ(j.size(), 2u);
    EXPECT_EQ(j[0]["name"], "BAD");
    EXPECT_EQ(j[0]["ok"], false);
    EXPECT_EQ(j[1]["ok"], true);
    EXPECT_EQ(Pmdbctl("check --table GOOD").status, 0);
    o = Pmdbctl("check --table NOSUCH");
    EXPECT_EQ(o.status, 1);
    EXPECT_NE(o.out.find("no table NOSUCH"), std::string::npos) << o.out;
}

}  // namespace
