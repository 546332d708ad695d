// pmdbctl replay, gen, graph, check, save, load and diff as a user runs
// them: refused lines, a generated card against the same card built by
// calling the library, its teardown, its drawing, the check of it damaged the
// way faults do, a card saved and loaded elsewhere (also during churn),
// refused snapshot files, and the diff of a churn.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <set>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "card.h"
#include "event_stream.h"
#include "host/os_host.h"
#include "pmdb.h"

namespace {

using json = nlohmann::json;
using card::PutIfh;
using pmdb::test::ToolRun;

ToolRun Pmdbctl(const std::vector<std::string> &args) {
    return pmdb::test::RunTool(PMDBCTL_PATH, args);
}

std::string Read(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class ReplayTest : public pmdb::test::PmdbTest {
protected:
    void TearDown() override {
        for (const std::string &f : files_) unlink(f.c_str());
        for (const std::string &ns : others_) vorn_host_remove_namespace(ns.c_str());
        PmdbTest::TearDown();
    }
    // A file of the test holding `text`.
    std::string File(const std::string &text) {
        files_.push_back("/tmp/" + ns() + "_" + std::to_string(files_.size()) + ".jsonl");
        std::ofstream(files_.back()) << text;
        return files_.back();
    }
    // A namespace besides the test's, removed with it.
    std::string OtherNs() {
        others_.push_back(pmdb::test::UniqueNamespace());
        return others_.back();
    }
    // Loads `snap` into a new namespace, which must check clean and hold
    // every entry of the file in its slot (diff); returns the namespace.
    std::string LoadElsewhere(const std::string &snap) {
        const std::string other = OtherNs();
        const ToolRun load = Pmdbctl({"load", snap, "--ns", other});
        EXPECT_EQ(load.status, 0) << load.err;
        const ToolRun check = Pmdbctl({"--ns", other, "check"});
        EXPECT_EQ(check.status, 0) << check.out << check.err;
        const json d = json::parse(Pmdbctl({"diff", snap, other, "--json"}).out);
        for (const char *t : {"ifh", "punt", "oam"})
            for (const char *what : {"added", "removed", "changed"})
                EXPECT_EQ(d["tables"][t][what], json::array()) << t << " " << what;
        return other;
    }

private:
    std::vector<std::string> files_, others_;
};

// Every table as `pmdbctl dump --json` prints it in namespace `ns` (a table
// not made yet: its error line).
json Tables(const std::string &ns, bool keep_stamps) {
    json all;
    for (const char *t : {"ifh", "punt", "oam"}) {
        const ToolRun r = Pmdbctl({"--ns", ns, "dump", t, "--json"});
        json j = r.status == 0 ? json::parse(r.out, nullptr, false) : json(r.err);
        // The times of an entry's last change and of its out-of-resource
        // state differ from one build to the next.
        if (!keep_stamps && j.is_array())
            for (json &e : j) {
                e.erase("last_update");
                if (e.contains("intf_info")) e["intf_info"].erase("oor_time");
            }
        all[t] = j;
    }
    return all;
}

// The stream line of a port's add event, `intf_extra` appended to its
// interface block.
std::string PortLine(u32 ifh, const std::string &intf_extra = "") {
    return R"({"type":"intf_add","event_id":7,"node":1,"intf":{"ifh":")" + std::to_string(ifh) +
           R"(","egress_lif":"0x12000","ingress_lif":"0x1200","sys_port":"0x120","node_id":1,)" +
           R"("slot_id":1,"intf_type":1,"mac_addr":"02:00:00:00:12:00")" + intf_extra + "}}";
}

TEST_F(ReplayTest, RefusedLineIsNamedAndAppliesNothing) {
    ASSERT_EQ(Pmdbctl({"replay", File(PortLine(0x1000) + "\n")}).status, 0);
    const json before = Tables(ns(), true);
    const std::string good = PortLine(0x2000);
    struct Case {
        const char *what;
        std::string line;
        const char *reason;
    };
    const Case cases[] = {
        {"malformed", R"({"type":"intf_add",,"node":1})" "\n", "malformed JSON: "},
        {"unknown field", PortLine(0x3000, R"(,"colour":1)") + "\n", "unknown field \"intf.colour\""},
        {"out of range", PortLine(0x3000, R"(,"member_port_shift":4)") + "\n",
         "intf.member_port_shift: 4 is out of range (largest 3)"},
        {"unknown name", R"({"type":"intf_addd","node":1,"intf":{"ifh":"0x3000"}})" "\n",
         "type: unknown event name \"intf_addd\""},
        {"bad MAC", PortLine(0x3000, R"(,"node_mac":"02:00:00:00:12")") + "\n",
         "intf.node_mac: not a MAC address"},
        {"truncated", PortLine(0x3000).substr(0, 60), "malformed JSON: "},
        {"name holding an end of line", R"({"type":"intf_add","co\nlour":1})" "\n",
         "unknown field \"co\\x0alour\" for op \"event\""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        // Line 1 blank: lines are counted as the file has them.
        const std::string file = File("\n" + c.line);
        const ToolRun r = Pmdbctl({"replay", file});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err.rfind(file + ":2: " + c.reason, 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_EQ(Tables(ns(), true), before);
    }
    // --keep-going skips the refused line, counts it and applies the next.
    const ToolRun r = Pmdbctl({"replay", "--keep-going", "--json",
                               File(cases[1].line + good + "\n")});
    ASSERT_EQ(r.status, 0) << r.err;
    const json s = json::parse(r.out);
    EXPECT_EQ(s["skipped"], 1);
    EXPECT_EQ(s["applied"], 1);
    EXPECT_EQ(s["tables"]["ifh"]["after"], before["ifh"].size() + 1);
}

// The entry point of a generated line, called from this process.
void CallDirectly(pmdbctl::StreamLine &l) {
    u32 bundle = 0, state = 0, changed = 0, slot = 0;
    switch (l.op) {
        case pmdbctl::StreamOp::kEvent:
            return dpa_pmdb_oper(&l.event, l.node);
        case pmdbctl::StreamOp::kOor:
            EXPECT_EQ(dpa_pmdb_update_bundle_oor_state(l.ifh, l.state, l.reason, &bundle, &state,
                                                       &changed, &slot),
                      0);
            return;
        case pmdbctl::StreamOp::kInventoryAdd:
            EXPECT_NE(pm_port_inv_entry_add(l.node_id, l.node_index, l.npu_index, l.high_scale),
                      nullptr);
            return;
        case pmdbctl::StreamOp::kInventoryRemove:
            EXPECT_EQ(pm_port_inv_entry_remove(l.node_id), 0);
            return;
        default:
            ADD_FAILURE() << "gen wrote an operation this test does not call";
    }
}

const std::vector<std::string> kCard = {"gen", "--seed", "7", "--nodes", "2", "--ports", "3",
                                        "--subs", "2", "--bundles", "2", "--members", "2",
                                        "--bundle-subs", "2", "--bvis", "2", "--churn", "9"};

TEST_F(ReplayTest, GeneratedCardReplaysAsTheLibraryCalledDirectly) {
    const ToolRun gen = Pmdbctl(kCard);
    ASSERT_EQ(gen.status, 0) << gen.err;
    std::istringstream lines(gen.out);
    for (std::string text; std::getline(lines, text);) {
        pmdbctl::StreamLine l;
        ASSERT_EQ(pmdbctl::ParseStreamLine(text, &l), "") << text;
        CallDirectly(l);
    }
    const json direct = Tables(ns(), false);
    ASSERT_GT(direct["punt"].size(), 20u);
    const std::string file = File(gen.out);
    for (const char *mode : {"--keep-going", "--batch"}) {
        SCOPED_TRACE(mode);
        const std::string other = OtherNs();
        const ToolRun r = Pmdbctl({"--ns", other, "replay", mode, file});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(json::diff(direct, Tables(other, false)), json::array());
    }
}

// A small card: ports 0x11000 0x11001 0x21000 0x21001, each with one
// sub-interface (0xn2001, 0xn2011); bundle 0xb00100 with two members and
// sub-interface 0xb00101; BVI 0xe00001 on node 1.
const std::vector<std::string> kSmallCard = {"gen", "--nodes", "2", "--ports", "2", "--members",
                                             "2", "--bundle-subs", "1", "--bvis", "1"};

class CardToolTest : public ReplayTest {
protected:
    void SetUp() override {
        ReplayTest::SetUp();
        const ToolRun gen = Pmdbctl(kSmallCard);
        ASSERT_EQ(gen.status, 0) << gen.err;
        const ToolRun r = Pmdbctl({"replay", File(gen.out)});
        ASSERT_EQ(r.status, 0) << r.err;
    }
};

// The lines of `text` that start with `name` and contain `says`.
size_t LinesSaying(const std::string &text, const std::string &name, const std::string &says) {
    std::istringstream in(text);
    size_t n = 0;
    for (std::string line; std::getline(in, line);)
        n += line.rfind(name, 0) == 0 && line.find(says) != std::string::npos;
    return n;
}

// Its rendering to SVG is the demo's to check.
TEST_F(CardToolTest, GraphNamesTheCardsInterfacesOrSaysWhyItCannotRender) {
    const ToolRun dot = Pmdbctl({"graph"});
    ASSERT_EQ(dot.status, 0) << dot.err;
    const json members = json::parse(Pmdbctl({"show", "0xb00100", "--json"}).out)["members"];
    ASSERT_EQ(members.size(), 2u);
    std::vector<std::string> want = {
        R"(subgraph "cluster_node_1")",
        R"(subgraph "cluster_node_2")",
        R"("0x00021001" [shape=box, fillcolor="white", label="port 0x00021001\npunt 3  oam 0"])",
        R"("0x00e00001" [shape=diamond)",
        R"(label="bundle 0x00b00100\nmembers 2  subs 1\npunt 1  oam 1")",
        R"("0x00011000" -> "0x00012001")",
        R"("0x00021001" -> "0x00022011")",
        R"("0x00b00100" -> "0x00b00101")",
    };
    for (const json &m : members) want.push_back("\"" + m.get<std::string>() + "\" -> \"0x00b00100\"");
    for (const std::string &w : want) EXPECT_NE(dot.out.find(w), std::string::npos) << w << "\n" << dot.out;

    const std::string svg = File("");
    // Without dot: one line, and a non-zero exit.
    const std::string path = getenv("PATH");
    setenv("PATH", "/nonexistent", 1);
    const ToolRun none = Pmdbctl({"graph", "--svg", svg});
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err.rfind("pmdbctl: cannot run dot", 0), 0u) << none.err;
    EXPECT_EQ(std::count(none.err.begin(), none.err.end(), '\n'), 1) << none.err;
}

struct Damage {
    const char *what;
    std::function<void()> apply;
    const char *kind;  // of the JSON item
    std::string name, says;  // its text lines
    size_t lines = 1;
    bool repaired = false;  // pmdbctl repair puts it right
};

void PrintTo(const Damage &d, std::ostream *os) { *os << d.what; }

// The lock of IFH entry `key` taken by a process killed while it holds it.
void KillHolderOf(u32 key) {
    const auto child = card::HoldInChild(card::SlotLock(PMDB_TYPE_IFH, key));
    ASSERT_TRUE(child->WaitReady());
    child->Kill(SIGKILL);
    ASSERT_TRUE(child->Wait().KilledBy(SIGKILL));
}

const Damage kDamages[] = {
    {"bundle member count", [] { PutIfh(0xb00100, [](auto &e) { e.member_count = 3; }); },
     "bundle", "bundle 0xb00100", "member_count 3 (members 2)"},
    {"bundle out-of-resource counter",
     [] { PutIfh(0xb00100, [](auto &e) { e.intf_info.oor_members_2 = 1; }); }, "bundle",
     "bundle 0xb00100", "oor_members_2 1 (0)"},
    {"sub-interface count", [] { PutIfh(0x11000, [](auto &e) { e.sub_intf_count = 2; }); },
     "sub_intf_count", "ifh 0x00011000",
     "sub_intf_count 2, but 1 sub-interface(s) name it: 0x00012001"},
    {"sub-interface count one short, repaired",
     [] { PutIfh(0x11000, [](auto &e) { e.sub_intf_count = 0; }); }, "sub_intf_count",
     "ifh 0x00011000", "sub_intf_count 0, but 1 sub-interface(s) name it: 0x00012001", 1, true},
    {"PUNT entry of a lost interface",
     [] { ASSERT_EQ(pmdb::test::RemoveEntry(PMDB_TYPE_IFH, 0xe00001), 0u); }, "orphan", "punt 0x",
     "belongs to 0x00e00001, which has no IFH entry", 3},
    {"OAM entry of a lost bundle",
     [] { ASSERT_EQ(pmdb::test::RemoveEntry(PMDB_TYPE_IFH, 0xb00100), 0u); }, "orphan", "oam 0x",
     "belongs to 0x00b00100, which has no IFH entry"},
    {"lock left by a killed writer", [] { KillHolderOf(0x11001); }, "entry_lock",
     "dnx_pmdb_ifh_shrd slot ", "(ifh 0x00011001) left by a dead owner"},
};

class CheckDamage : public CardToolTest, public ::testing::WithParamInterface<Damage> {};

TEST_P(CheckDamage, CheckNamesTheDamageOnOneLine) {
    ASSERT_EQ(Pmdbctl({"check"}).status, 0) << Pmdbctl({"check"}).out;  // the card is sound
    const Damage &d = GetParam();
    d.apply();
    const ToolRun r = Pmdbctl({"check"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(LinesSaying(r.out, d.name, d.says), d.lines) << r.out;
    const ToolRun j = Pmdbctl({"check", "--json"});
    EXPECT_EQ(j.status, 1);
    size_t found = 0;
    for (const json &item : json::parse(j.out))
        found += item["kind"] == d.kind && !item["ok"].get<bool>();
    EXPECT_GE(found, 1u) << j.out;
    if (!d.repaired) return;
    const ToolRun repair = Pmdbctl({"repair"});
    EXPECT_EQ(repair.status, 0) << repair.out;
    EXPECT_EQ(Pmdbctl({"check"}).status, 0) << Pmdbctl({"check"}).out << repair.out;
}

INSTANTIATE_TEST_SUITE_P(Rows, CheckDamage, ::testing::ValuesIn(kDamages), [](const auto &info) {
    std::string n = info.param.what;
    for (char &c : n) c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return n;
});


/* ---- save, load, diff ---------------------------------------------------- */

std::vector<std::string> CardArgs(const std::string &churn) {
    std::vector<std::string> args(kCard.begin(), kCard.end() - 1);
    args.push_back(churn);
    return args;
}

size_t ObjectCount(const std::string &ns) {
    auto ignore = [](void *, const char *) {};
    return static_cast<size_t>(vorn_host_list_objects(ns.c_str(), ignore, nullptr));
}

// `pmdbctl globals --json` of ns, without the namespace's own name.
json Globals(const std::string &ns) {
    json g = json::parse(Pmdbctl({"--ns", ns, "globals", "--json"}).out, nullptr, false);
    if (g.is_object()) g.erase("namespace");
    return g;
}

// Every trace record of ns, by buffer and sequence number.
std::map<std::string, json> TraceRecords(const std::string &ns) {
    std::map<std::string, json> out;
    const json t = json::parse(Pmdbctl({"--ns", ns, "trace", "--json"}).out, nullptr, false);
    if (t.is_object())
        for (const json &r : t["records"])
            out[r["buffer"].get<std::string>() + "." + r["seq"].dump()] = r;
    return out;
}

// The teardown leaves nothing; a saved card loads elsewhere as it was; a
// damaged, foreign or misdirected snapshot creates nothing.
TEST_F(ReplayTest, TeardownThenSavedCardsLoadedElsewhereOrRefused) {
    std::vector<std::string> teardown = kCard;
    teardown.push_back("--teardown");
    const std::string full = Pmdbctl(teardown).out;
    const ToolRun gone = Pmdbctl({"--ns", OtherNs(), "replay", "--json", File(full)});
    ASSERT_EQ(gone.status, 0) << gone.err;
    const json s = json::parse(gone.out);
    EXPECT_EQ(s["failed"], 0);
    for (const char *t : {"ifh", "punt", "oam"}) EXPECT_EQ(s["tables"][t]["after"], 0) << t;
    // The card, then its teardown's last port removal: the first slots are
    // free, so a load that lets the table store choose slots moves entries.
    const size_t last_port = full.rfind(R"({"type":"main_remove")");
    ASSERT_NE(last_port, std::string::npos);
    const std::string removal = full.substr(last_port, full.find('\n', last_port) - last_port + 1);
    ASSERT_EQ(Pmdbctl({"replay", File(Pmdbctl(kCard).out + removal)}).status, 0);
    // A compressed save holds the same card.
    const std::string snap = File(""), zsnap = File("");
    const ToolRun save = Pmdbctl({"save", snap});
    ASSERT_EQ(save.status, 0) << save.err;
    const std::map<std::string, json> traces = TraceRecords(ns());
    ASSERT_EQ(Pmdbctl({"save", "--compress", zsnap}).status, 0);
    const json tables = Tables(ns(), true);
    ASSERT_GT(tables["punt"].size(), 20u);
    ASSERT_GT(traces.size(), 50u);
    for (const std::string &file : {snap, zsnap}) {
        SCOPED_TRACE(file);
        const std::string other = LoadElsewhere(file);
        EXPECT_EQ(json::diff(tables, Tables(other, true)), json::array());
        EXPECT_EQ(Globals(other), Globals(ns()));
        // The saved records keep their numbers, times and writers; the
        // load's own opens follow them.
        const std::map<std::string, json> loaded = TraceRecords(other);
        for (const auto &[where, record] : traces) {
            const auto it = loaded.find(where);
            ASSERT_NE(it, loaded.end()) << where;
            EXPECT_EQ(it->second, record);
        }
    }

    const std::string good = Read(snap);
    std::string flipped = good, other_version = good, zflipped = Read(zsnap);
    flipped[good.size() / 2] ^= 0x10;
    other_version[8] = 2;  // the format version follows the 8-byte magic
    ASSERT_LT(zflipped.size(), good.size() / 2);
    zflipped[zflipped.size() / 2] ^= 0x10;
    struct Case {
        const char *what;
        std::string bytes;
        bool into_existing;
        const char *reason;
    };
    const Case cases[] = {
        {"truncated", good.substr(0, good.size() - 100), false, "truncated: section "},
        {"flipped byte", flipped, false, "damaged: section "},
        {"other version", other_version, false, "snapshot format 2, this build reads format 1"},
        {"compressed, flipped byte", zflipped, false,
         "damaged: its compressed data does not decompress"},
        {"existing namespace", good, true, "exists already"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        const std::string file = File(c.bytes);
        const std::string target = c.into_existing ? ns() : OtherNs();
        const ToolRun r = Pmdbctl({"load", file, "--ns", target});
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find(c.reason), std::string::npos) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        if (!c.into_existing) {
            EXPECT_EQ(ObjectCount(target), 0u);
        }
    }
    EXPECT_EQ(Tables(ns(), true), tables);
}

TEST_F(ReplayTest, SaveDuringChurnLoadsACardThatChecks) {
    pmdb::test::Tool replay(PMDBCTL_PATH, {"replay", File(Pmdbctl(CardArgs("20000")).out)});
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    // Saves from the churn on: once members have joined their bundles.
    while (Pmdbctl({"dump", "ifh", "--json"}).out.find("member_active") == std::string::npos) {
        ASSERT_LT(std::chrono::steady_clock::now(), give_up) << "the replay made no card";
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::vector<std::string> snaps;
    for (int i = 0; i < 8; i++) {
        snaps.push_back(File(""));
        const ToolRun save = Pmdbctl({"save", snaps.back()});
        ASSERT_EQ(save.status, 0) << save.err;
        EXPECT_EQ(save.err, "");  // every bundle agreed with its members
    }
    EXPECT_EQ(replay.Finish().status, 0);
    for (const std::string &snap : snaps) LoadElsewhere(snap);
}

TEST_F(ReplayTest, DiffListsExactlyTheEntriesAChurnChanged) {
    const std::string card = Pmdbctl(CardArgs("0")).out;
    const std::string churned = Pmdbctl(CardArgs("40")).out;
    ASSERT_EQ(churned.rfind(card, 0), 0u);  // the churn follows the same card
    ASSERT_EQ(Pmdbctl({"replay", File(card)}).status, 0);
    const json before = Tables(ns(), true);
    const std::string snap = File("");
    ASSERT_EQ(Pmdbctl({"save", snap}).status, 0);
    ASSERT_EQ(Pmdbctl({"replay", File(churned.substr(card.size()))}).status, 0);
    const json after = Tables(ns(), true);
    const json d = json::parse(Pmdbctl({"diff", snap, ns(), "--json"}).out);
    size_t changes = 0;
    for (const char *t : {"ifh", "punt", "oam"}) {
        std::map<std::string, json> was, is;  // by key
        for (const json &e : before[t]) was[e["key"].get<std::string>()] = e;
        for (const json &e : after[t]) is[e["key"].get<std::string>()] = e;
        std::map<std::string, std::set<std::string>> want, got;
        for (const auto &[key, e] : is)
            if (was.count(key) == 0)
                want["added"].insert(key);
            else if (was.at(key) != e)
                want["changed"].insert(key);
        for (const auto &[key, e] : was)
            if (is.count(key) == 0) want["removed"].insert(key);
        for (const auto &[what, entries] : d["tables"][t].items())
            for (const json &e : entries) got[what].insert(e["key"].get<std::string>());
        EXPECT_EQ(got, want) << t;
        for (const auto &[what, keys] : want) changes += keys.size();
    }
    EXPECT_GT(changes, 10u);
}

}  // namespace
