// pmdbctl trace/settings as a user runs them, and the trace point table the
// tool decodes with.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
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
using pmdb::test::RunTool;
using pmdb::test::ToolRun;
using pmdbctl::FindTracePoint;

class PmdbctlTest : public PmdbTest {};

void WriteSampleInChild() {
    const auto r = RunInChild([] {
        _svesk(dpa_port_mapper_get_db_vesk(), VESK_SID(62), "dnx_pmdb_ifh_shrd", 2621472);
        _vesk_3(dpa_port_mapper_get_eve_vesk(), VESK_ID(3, 278), 1, 0x4000, 77);
        _vesk_2(dpa_port_mapper_get_error_vesk(), VESK_ID(2, 277), 23, 0);
        _vesk_1(dpa_port_mapper_get_error_vesk(), VESK_ID(1, 9999), 5);
        _vesk_7(dpa_port_mapper_get_db_vesk(), VESK_ID(7, 109), 5, 0x02, 0, 0, 0, 5, 0xFF);
        _vesk(dpa_port_mapper_get_eve_vesk(), VESK_ID(0, 51));
    });
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
}

TEST_F(PmdbctlTest, TraceJsonDecodesNamesAndArguments) {
    WriteSampleInChild();
    const ToolRun r = RunTool(PMDBCTL_PATH, {"trace", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    json j = json::parse(r.out);
    EXPECT_EQ(j["namespace"], ns());
    EXPECT_EQ(j["next"], json({{"error", 2}, {"database", 2}, {"event", 2}}));
    EXPECT_EQ(j["lost"], json({{"error", 0}, {"database", 0}, {"event", 0}}));
    const json child = j["records"][0]["pid"];
    EXPECT_NE(child, getpid());
    // Merged by time: the order of writing, all by the child (times apart).
    for (json &rec : j["records"]) {
        EXPECT_EQ(rec["pid"], child);
        for (const char *varies : {"pid", "tid", "time", "time_ns"}) rec.erase(varies);
    }
    EXPECT_EQ(j["records"], json::parse(R"([
      {"buffer": "database", "seq": 0, "point": 62, "name": "shm_region_mapped",
       "id": "0x1020000003e", "args": {"region": "dnx_pmdb_ifh_shrd", "shm_size": 2621472}},
      {"buffer": "event", "seq": 0, "point": 278, "name": "event_accepted", "id": "0x300000116",
       "args": {"event_type": 1, "handle": 16384, "event_id": 77}},
      {"buffer": "error", "seq": 0, "point": 277, "name": "invalid_event_type",
       "id": "0x200000115", "args": {"event_type": 23, "zero": 0}},
      {"buffer": "error", "seq": 1, "point": 9999, "name": "unknown", "id": "0x10000270f",
       "args": {"arg0": 5}},
      {"buffer": "database", "seq": 1, "point": 109, "name": "first_inventory_node",
       "id": "0x70000006d", "args": {"node_id": 5, "mac0": 2, "mac1": 0, "mac2": 0, "mac3": 0,
                                     "mac4": 5, "mac5": 255}},
      {"buffer": "event", "seq": 1, "point": 51, "name": "hdl_get_uninitialised", "id": "0x33",
       "args": {}}])"));
}

// The follower starts at the end of the ring, so a record written before it
// is ready is not "new": the test writes records until one shows, and
// every line printed must be one of them.
TEST_F(PmdbctlTest, FollowPrintsNewRecordsUntilInterrupted) {
    pmdb::test::Tool tool(PMDBCTL_PATH, {"trace", "--follow", "--json"});
    std::string seen;
    uint64_t written = 0;
    for (; written < 600 && seen.find("oor_callback_registered") == std::string::npos; written++) {
        _vesk_1(dpa_port_mapper_get_eve_vesk(), VESK_ID(1, 318), 0xA00 + written);
        std::this_thread::sleep_for(50ms);
        seen = tool.OutSoFar();
    }
    kill(tool.pid(), SIGINT);
    const ToolRun r = tool.Finish();
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_FALSE(r.out.empty());
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        const json rec = json::parse(line);
        EXPECT_EQ(rec["name"], "oor_callback_registered") << line;
        EXPECT_GE(rec["args"]["callback"].get<uint64_t>(), 0xA00u) << line;
        EXPECT_LT(rec["args"]["callback"].get<uint64_t>(), 0xA00u + written) << line;
        EXPECT_EQ(rec["pid"], getpid());
    }
}

/* Commands as a user types them, on the sample records: {ns} is this test's
 * namespace, {other} an empty one, {full} one whose event ring, made with
 * PMDB_TRACE_RECORDS of 17, holds 32 of the 40 records written to it (the
 * tool's own PMDB_TRACE_RECORDS does not change an existing ring).  A
 * failing command (status -1: any but 0) says so in one line on standard
 * error and prints nothing else. */
TEST_F(PmdbctlTest, CommandsPrintWhatTheyWereAskedOrOneLineOfError) {
    WriteSampleInChild();
    const std::string other = pmdb::test::UniqueNamespace(), full = other + "f";
    const auto w = RunInChild([&full] {
        setenv(VORN_NS_ENV, full.c_str(), 1);
        setenv("PMDB_TRACE_RECORDS", "17", 1);
        vorn_host_set_namespace(nullptr);
        for (uint64_t i = 0; i < 40; i++)
            _vesk_1(dpa_port_mapper_get_eve_vesk(), VESK_ID(1, 318), i);
    });
    ASSERT_TRUE(w.ExitedWith(0)) << w.Describe();
    setenv("PMDB_TRACE_RECORDS", "100", 1);
    setenv("PMDB_OAM_ENABLE", "0", 1);
    const struct {
        const char *pmdb_ns; /* PMDB_NS, when not the test's namespace */
        const char *args;
        int status;
        size_t lines;     /* of standard output; SIZE_MAX: any */
        const char *says; /* in standard output */
        const char *errs = ""; /* in standard error */
    } rows[] = {
        {nullptr, "trace --buffer error", 0, 2, " error 277 invalid_event_type "},
        {nullptr, "trace --buffer error", 0, 2, "event_type=23 zero=0"},
        {nullptr, "--ns {ns} trace --buffer error --since 1", 0, 1, " 9999 unknown "},
        {nullptr, "--ns {other} trace", 0, 0, ""},
        {nullptr, "--ns {full} trace --buffer event", 0, 32, "", "8 records of event lost"},
        {nullptr, "--ns {full} trace --buffer event --json", 0, SIZE_MAX, R"("event": 8)"},
        {nullptr, "settings", 0, SIZE_MAX, "halvo.max_entries"},
        {nullptr, "settings", 0, SIZE_MAX, "{ns}"},
        {nullptr, "settings --json", 0, SIZE_MAX, R"("name": "halvo.oam_enable",)"},
        {nullptr, "settings --json", 0, SIZE_MAX, R"("source": "environment",)"},
        {nullptr, "trace --buffer errors", -1, 0, ""},
        {nullptr, "trace --since x", -1, 0, ""},
        {nullptr, "trace --bogus", -1, 0, ""},
        {nullptr, "nosuch", -1, 0, ""},
        {nullptr, "--ns bad/ns settings", -1, 0, ""},
        {nullptr, "--ns sem settings", -1, 0, ""},
        {"", "settings", -1, 0, ""},
        {"bad/ns", "tables", -1, 0, ""},
        {nullptr, "", -1, 0, ""},
    };
    for (const auto &row : rows) {
        std::string args = row.args;
        for (const auto &[from, to] :
             {std::pair{std::string("{ns}"), ns()}, {"{other}", other}, {"{full}", full}})
            if (const size_t at = args.find(from); at != std::string::npos) args.replace(at, from.size(), to);
        std::string says = row.says;
        if (says == "{ns}") says = ns();
        SCOPED_TRACE(std::string(row.pmdb_ns ? row.pmdb_ns : "") + " | " + args);
        setenv(VORN_NS_ENV, row.pmdb_ns != nullptr ? row.pmdb_ns : ns().c_str(), 1);
        const ToolRun r = RunTool(PMDBCTL_PATH, pmdb::test::Words(args));
        if (row.status < 0) {
            EXPECT_NE(r.status, 0);
            EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
            EXPECT_EQ(r.err.rfind("pmdbctl: ", 0), 0u) << r.err;
        } else {
            EXPECT_EQ(r.status, row.status) << r.err;
        }
        const size_t lines = std::count(r.out.begin(), r.out.end(), '\n');
        EXPECT_TRUE(row.lines == SIZE_MAX || lines == row.lines) << r.out;
        EXPECT_NE(r.out.find(says), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(row.errs), std::string::npos) << r.err;
    }
    /* An empty --ns is refused, not taken for the current namespace. */
    const ToolRun empty = RunTool(PMDBCTL_PATH, {"--ns", "", "settings"});
    EXPECT_NE(empty.status, 0);
    EXPECT_TRUE(empty.out.empty()) << empty.out;
    vorn_host_remove_namespace(other.c_str());
    vorn_host_remove_namespace(full.c_str());
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
        const ToolRun r = RunTool(PMDBCTL_PATH, d.args);
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

/* Every documented point once, with a snake_case name and unique snake_case
 * arguments, and found by its number (the table's order and the uniqueness
 * of numbers and names are checked where it is compiled). */
TEST(TracePoints, CoverEveryDocumentedPointOnceAndAreWellFormed) {
    std::set<uint32_t> documented{71};
    for (const auto &[from, to] :
         {std::pair{51u, 69u}, {99u, 107u}, {109u, 261u}, {263u, 283u}, {288u, 318u}})
        for (uint32_t p = from; p <= to; p++) documented.insert(p);
    std::set<uint32_t> have;
    for (const pmdbctl::TracePoint &tp : pmdbctl::AllTracePoints()) {
        SCOPED_TRACE(tp.point);
        have.insert(tp.point);
        EXPECT_TRUE(SnakeCase(tp.name)) << tp.name;
        std::set<std::string> args;
        for (size_t i = 0; i < tp.nargs(); i++) {
            EXPECT_TRUE(SnakeCase(tp.args[i])) << tp.args[i];
            EXPECT_TRUE(args.insert(tp.args[i]).second) << "duplicate argument " << tp.args[i];
        }
        EXPECT_EQ(FindTracePoint(tp.point), &tp);
    }
    for (uint32_t p : documented) EXPECT_EQ(have.count(p), 1u) << "point " << p << " missing";
    EXPECT_EQ(FindTracePoint(70), nullptr);
    EXPECT_EQ(FindTracePoint(0), nullptr);
}

}  // namespace
