// pmdbctl trace/settings as a user runs them, and the trace point table the
// tool decodes with.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/os_host.h"
#include "pmdb_test.h"
#include "trace_points.h"
#include "vesk.h"

namespace {

using json = nlohmann::json;
using namespace std::chrono_literals;
using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;
using pmdb::test::ToolRun;
using pmdbctl::AllTracePoints;
using pmdbctl::FindTracePoint;
using pmdbctl::TracePoint;

/* pmdbctl with `args`, run to its end. */
ToolRun Pmdbctl(const std::vector<std::string> &args) {
    return pmdb::test::RunTool(PMDBCTL_PATH, args);
}

size_t Lines(const std::string &s) {
    size_t n = 0;
    for (char c : s) n += c == '\n';
    return n;
}

class PmdbctlTest : public PmdbTest {};

void WriteSampleInChild() {
    const auto r = RunInChild([] {
        _svesk(dpa_port_mapper_get_db_vesk(), VESK_SID(62), "dnx_pmdb_ifh_shrd", 2621472);
        _vesk_3(dpa_port_mapper_get_eve_vesk(), VESK_ID(3, 278), 1, 0x4000, 77);
        _vesk_2(dpa_port_mapper_get_error_vesk(), VESK_ID(2, 277), 23, 0);
        _vesk_1(dpa_port_mapper_get_error_vesk(), VESK_ID(1, 9999), 5);
    });
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
}

TEST_F(PmdbctlTest, TraceJsonDecodesNamesAndArguments) {
    WriteSampleInChild();
    const ToolRun r = Pmdbctl({"trace", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const json j = json::parse(r.out);
    EXPECT_EQ(j["namespace"], ns());
    const json &recs = j["records"];
    ASSERT_EQ(recs.size(), 4u);
    // Merged by time: the order of writing.
    EXPECT_EQ(recs[0]["point"], 62);
    EXPECT_EQ(recs[0]["buffer"], "database");
    EXPECT_EQ(recs[0]["name"], "shm_region_mapped");
    EXPECT_EQ(recs[0]["args"]["region"], "dnx_pmdb_ifh_shrd");
    EXPECT_EQ(recs[0]["args"]["shm_size"], 2621472);
    EXPECT_EQ(recs[0]["id"], "0x1020000003e");
    EXPECT_EQ(recs[1]["name"], "event_accepted");
    EXPECT_EQ(recs[1]["args"], json({{"event_type", 1}, {"handle", 0x4000}, {"event_id", 77}}));
    EXPECT_EQ(recs[2]["name"], "invalid_event_type");
    EXPECT_EQ(recs[2]["args"]["event_type"], 23);
    EXPECT_EQ(recs[3]["name"], "unknown");
    EXPECT_EQ(recs[3]["args"]["arg0"], 5);
    EXPECT_EQ(j["next"]["error"], 2);
    EXPECT_EQ(j["lost"]["event"], 0);
}

TEST_F(PmdbctlTest, TraceTextOneBufferAndSince) {
    WriteSampleInChild();
    ToolRun r = Pmdbctl({"trace", "--buffer", "error"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Lines(r.out), 2u) << r.out;
    EXPECT_NE(r.out.find(" error 277 invalid_event_type "), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("event_type=23 zero=0"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("database"), std::string::npos);

    r = Pmdbctl({"--ns", ns(), "trace", "--buffer", "error", "--since", "1"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Lines(r.out), 1u) << r.out;
    EXPECT_NE(r.out.find(" 9999 unknown "), std::string::npos) << r.out;
}

TEST_F(PmdbctlTest, NamespaceOptionSelectsOtherNamespace) {
    WriteSampleInChild();
    const std::string other = pmdb::test::UniqueNamespace();
    const ToolRun r = Pmdbctl({"--ns", other, "trace", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(json::parse(r.out)["records"].empty());
    vorn_host_remove_namespace(other.c_str());
}

TEST_F(PmdbctlTest, LostRecordsOfFullRingAreReported) {
    const std::string other = pmdb::test::UniqueNamespace();
    const auto w = RunInChild([&other] {
        setenv(VORN_NS_ENV, other.c_str(), 1);
        setenv("PMDB_TRACE_RECORDS", "16", 1);
        vorn_host_set_namespace(nullptr);
        for (uint64_t i = 0; i < 20; i++) _vesk_1(dpa_port_mapper_get_eve_vesk(), VESK_ID(1, 318), i);
    });
    ASSERT_TRUE(w.ExitedWith(0)) << w.Describe();
    ToolRun r = Pmdbctl({"--ns", other, "trace", "--buffer", "event"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(Lines(r.out), 16u);
    EXPECT_NE(r.err.find("4 records of event lost"), std::string::npos) << r.err;
    r = Pmdbctl({"--ns", other, "trace", "--buffer", "event", "--json"});
    EXPECT_EQ(json::parse(r.out)["lost"]["event"], 4);
    vorn_host_remove_namespace(other.c_str());
}

TEST_F(PmdbctlTest, FollowPrintsNewRecordsUntilInterrupted) {
    pmdb::test::Tool tool(PMDBCTL_PATH, {"trace", "--follow", "--json"});
    std::this_thread::sleep_for(300ms);
    _vesk_1(dpa_port_mapper_get_eve_vesk(), VESK_ID(1, 318), 0xABC);
    std::string seen;
    for (int i = 0; i < 100 && seen.find("oor_callback_registered") == std::string::npos; i++) {
        std::this_thread::sleep_for(50ms);
        seen = tool.OutSoFar();
    }
    kill(tool.pid(), SIGINT);
    const ToolRun r = tool.Finish();
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(Lines(r.out), 1u) << r.out;
    const json rec = json::parse(r.out.substr(0, r.out.find('\n')));
    EXPECT_EQ(rec["args"]["callback"], 0xABC);
    EXPECT_EQ(rec["pid"], getpid());
}

TEST_F(PmdbctlTest, BadUsageIsOneLineOnStderrAndNonZero) {
    struct Usage {
        const char *pmdb_ns; /* PMDB_NS, when not the test's namespace */
        std::vector<std::string> args;
    };
    for (const Usage &u :
         {Usage{nullptr, {"trace", "--buffer", "errors"}}, Usage{nullptr, {"trace", "--since", "x"}},
          Usage{nullptr, {"trace", "--bogus"}}, Usage{nullptr, {"nosuch"}},
          Usage{nullptr, {"--ns", "bad/ns", "settings"}}, Usage{nullptr, {"--ns", "", "settings"}},
          Usage{nullptr, {"--ns", "sem", "settings"}}, Usage{"", {"settings"}},
          Usage{"bad/ns", {"tables"}}, Usage{nullptr, {}}}) {
        setenv(VORN_NS_ENV, u.pmdb_ns != nullptr ? u.pmdb_ns : ns().c_str(), 1);
        const ToolRun r = Pmdbctl(u.args);
        EXPECT_NE(r.status, 0);
        EXPECT_EQ(Lines(r.err), 1u) << r.err;
        EXPECT_EQ(r.err.rfind("pmdbctl: ", 0), 0u) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
    }
}

TEST_F(PmdbctlTest, SettingsShowValueAndOrigin) {
    const auto r = RunInChild([] {
        setenv("PMDB_OAM_ENABLE", "0", 1);
        const ToolRun t = Pmdbctl({"settings", "--json"});
        if (t.status != 0) return 1;
        for (const json &s : json::parse(t.out)) {
            if (s["name"] == "halvo.oam_enable") {
                return s["value"] == "0" && s["source"] == "environment" ? 0 : 2;
            }
        }
        return 3;
    });
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
    const ToolRun t = Pmdbctl({"settings"});
    ASSERT_EQ(t.status, 0);
    EXPECT_NE(t.out.find("halvo.max_entries"), std::string::npos);
    EXPECT_NE(t.out.find(ns()), std::string::npos);
}

/* Bytes that are not text where the tool prints text: a trace string, a
 * sysctl key (part of a setting's name), a table object's name.  Each
 * command prints them escaped, as valid JSON with --json, and ends with its
 * own status, never on an exception. */
struct DamagedInput {
    std::vector<std::string> args;
    int status;
    const char *says;  // in standard output
};

TEST_F(PmdbctlTest, BytesThatAreNotTextAreEscapedInEveryCommand) {
    const auto w = RunInChild([] {
        _svesk(dpa_port_mapper_get_db_vesk(), VESK_SID(62), "reg\xff\xfe\x01", 1);
    });
    ASSERT_TRUE(w.ExitedWith(0)) << w.Describe();
    setenv("PMDB_SYSCTL", "k\xff=1", 1);
    char object[128];
    vorn_host_shm_name("tabra.T\xff", object, sizeof object);
    const int fd = shm_open(object, O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    for (const DamagedInput &d : {
             DamagedInput{{"trace", "--json"}, 0, R"("region": "reg\\xff\\xfe\\x01")"},
             DamagedInput{{"trace"}, 0, R"(region="reg\xff\xfe\x01")"},
             DamagedInput{{"settings", "--json"}, 0, R"("name": "sysctl.k\\xff")"},
             DamagedInput{{"settings"}, 0, R"(sysctl.k\xff )"},
             DamagedInput{{"check", "--json"}, 1, R"("name": "T\\xff")"},
             DamagedInput{{"check"}, 1, R"(T\xff )"},
         }) {
        const ToolRun r = Pmdbctl(d.args);
        SCOPED_TRACE(d.args[0] + (d.args.size() > 1 ? " " + d.args[1] : ""));
        EXPECT_EQ(r.status, d.status) << r.err;
        EXPECT_NE(r.out.find(d.says), std::string::npos) << r.out;
        EXPECT_TRUE(d.args.back() != "--json" || json::accept(r.out)) << r.out;
    }
    unsetenv("PMDB_SYSCTL");
}

/* ---- the trace point table ---------------------------------------------- */

bool SnakeCase(const char *s) {
    if (s == nullptr || !islower((unsigned char)s[0])) return false;
    for (const char *p = s; *p; p++) {
        if (!islower((unsigned char)*p) && !isdigit((unsigned char)*p) && *p != '_') return false;
    }
    return true;
}

TEST(TracePoints, CoverEveryDocumentedPointOnce) {
    std::set<uint32_t> documented;
    for (uint32_t p = 51; p <= 69; p++) documented.insert(p);
    documented.insert(71);
    for (uint32_t p = 99; p <= 107; p++) documented.insert(p);
    for (uint32_t p = 109; p <= 261; p++) documented.insert(p);
    for (uint32_t p = 263; p <= 283; p++) documented.insert(p);
    for (uint32_t p = 288; p <= 318; p++) documented.insert(p);
    std::set<uint32_t> have;
    for (const TracePoint &tp : AllTracePoints()) {
        EXPECT_TRUE(have.insert(tp.point).second) << "point " << tp.point << " listed twice";
    }
    for (uint32_t p : documented) EXPECT_EQ(have.count(p), 1u) << "point " << p << " missing";
}

TEST(TracePoints, RowsAreWellFormed) {
    std::set<std::string> names;
    uint32_t prev = 0;
    for (const TracePoint &tp : AllTracePoints()) {
        SCOPED_TRACE(tp.point);
        EXPECT_GT(tp.point, prev) << "not sorted";
        prev = tp.point;
        EXPECT_TRUE(SnakeCase(tp.name)) << tp.name;
        EXPECT_TRUE(names.insert(tp.name).second) << "duplicate name " << tp.name;
        std::set<std::string> args;
        for (size_t i = 0; i < tp.nargs(); i++) {
            EXPECT_TRUE(SnakeCase(tp.args[i])) << tp.args[i];
            EXPECT_TRUE(args.insert(tp.args[i]).second) << "duplicate argument " << tp.args[i];
        }
        // A string record carries the string and one number.
        if (tp.is_string) {
            EXPECT_EQ(tp.nargs(), 2u);
        }
        EXPECT_EQ(FindTracePoint(tp.point), &tp);
    }
    EXPECT_EQ(FindTracePoint(70), nullptr);
    EXPECT_EQ(FindTracePoint(0), nullptr);
}

TEST(TracePoints, BuffersAndArgumentCountsOfSamplePoints) {
    struct Want {
        uint32_t point;
        vesk_kind_t buffer;
        size_t nargs;
    };
    for (const Want &w : {Want{58, VESK_ERROR, 2}, Want{62, VESK_DATABASE, 2},
                          Want{69, VESK_DATABASE, 0}, Want{109, VESK_EVENT, 7},
                          Want{127, VESK_EVENT, 5}, Want{166, VESK_DATABASE, 7},
                          Want{235, VESK_ERROR, 1}, Want{277, VESK_ERROR, 2},
                          Want{281, VESK_EVENT, 7}, Want{318, VESK_EVENT, 1}}) {
        const TracePoint *tp = FindTracePoint(w.point);
        ASSERT_NE(tp, nullptr) << w.point;
        EXPECT_EQ(tp->buffer, w.buffer) << w.point;
        EXPECT_EQ(tp->nargs(), w.nargs) << w.point;
    }
    for (uint32_t p = 58; p <= 62; p++) EXPECT_TRUE(FindTracePoint(p)->is_string) << p;
}

}  // namespace
