// crash_campaign: writer processes replay disjoint parts of a generated card
// (bring-up, churn, teardown) while this supervisor kills one with SIGKILL at
// a moment chosen at random from the seed (an item and an offset into it,
// delivered on time by a timer the writer arms, see MaybeKill) and restarts
// it from the item after the last one it reported done, which it thus
// applies again from its start.  After each kill (a round, see Round) the
// tables must pass `pmdbctl check`, or pass it after `pmdbctl repair`, and
// equal the shadow's: a process in a namespace of its own that applied every
// item the writers reported done, once each, without kills.  So every item a
// dead writer completed is fully visible, and re-applying an interrupted
// item leaves what one application leaves.  At the end of each pass's churn
// and teardown they must also equal the stream's applied in stream order by
// one process: the phases' interleavings do not matter.  Kinds of item named
// in --known-unsafe are known not to be safe to apply again: their findings
// are reported and do not fail the campaign.
//
// Every wait is bounded (--hang-ms without any report is a hang, which ends
// the campaign naming what it waited for).  Exit status 0 when every round
// passed or found only known kinds, 1 otherwise, 2 on bad options.
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <sstream>
#include <unordered_map>

#include "event_stream.h"
#include "host/os_host.h"
#include "pmdb.h"
#include "pmdb_test.h"
#include "stream_apply.h"

namespace campaign {
namespace {

using json = nlohmann::json;
using pmdb::test::ToolRun;
using pmdbctl::StreamLine;
using pmdbctl::StreamOp;

constexpr unsigned kPerPass = 10;      // kills planned in one pass over the card
constexpr unsigned kMaxOffsetUs = 30;  // a kill lands this far at most into an item

// pmdbctl run to its end, or ended by timeout(1) after `ms` (exit status
// 124, or 137 when it had to be killed).
ToolRun Pmdbctl(std::vector<std::string> args, unsigned ms) {
    args.insert(args.begin(), {"--kill-after=1", std::to_string(ms / 1000.0), PMDBCTL_PATH});
    return pmdb::test::RunTool("timeout", args);
}

bool TimedOut(const ToolRun &r) {
    return r.status == 124 || r.status == 137;
}

// ---- the plan ---------------------------------------------------------------
//
// Every line belongs to the interface it is about (a port's, a member's or
// an out-of-resource line to the port, a sub-interface's to its port or
// bundle, a bundle's to the bundle, a BVI's to the BVI), and every
// interface to one writer, so that one process applies each interface's
// lines in their order.  Writers meet only on shared bundles, whose
// counters members of several writers change at once: the campaign's point.
//
// Bring-up and teardown are cut into phases where the kind of line changes
// (ports before their sub-interfaces, bundles before their members...),
// since the later kind needs the earlier one done.  The churn is one phase:
// a flap is a member's leave and join by the member's writer, so a bundle
// with more members than there are writers never loses all of them, and the
// flaps of different writers commute.

// A line every process applies for itself (the inventory list is process
// local), not handed to one writer.
constexpr int kEveryWriter = -1;

struct Line {
    StreamLine parsed;
    int writer = kEveryWriter;
    std::string item, kind;  // "member_leave", and "member_leave of a member"
};

struct Plan {
    std::vector<Line> lines;
    // Phases are runs of lines that writers may apply in any interleaving
    // and still reach the tables of the stream's order; the supervisor waits
    // for every writer at each phase's end.  phase_end[i] is the index
    // after phase i.
    std::vector<size_t> phase_end;
    size_t card_end = 0;                       // bring-up ends here, churn begins
    size_t churn_end = 0;                      // churn ends here, teardown begins
    std::vector<std::vector<uint32_t>> items;  // per writer: its line indexes
};

// The interface a line is about: its key and role.
using Owner = std::pair<uint32_t, const char *>;

Owner OwnerOf(const StreamLine &l) {
    const pmdb_intf_info_t &in = l.event.intf_info;
    const unsigned t = l.event.event_type;
    if (l.op == StreamOp::kOor || l.op == StreamOp::kBundleOor) return {l.ifh, "member"};
    // Inventory lines; the OAM event entry is not in a card.
    if (l.op != StreamOp::kEvent) return {0, "node"};
    if (t == PMDB_EV_BUNDLE_ADD || t == PMDB_EV_BUNDLE_REMOVE) return {in.bundle_ifh, "bundle"};
    if ((t == PMDB_EV_SUB_ADD || t == PMDB_EV_SUB_REMOVE) && in.bundle_ifh != 0)
        return {in.bundle_ifh, "bundle sub-interface"};
    if (t == PMDB_EV_SUB_ADD || t == PMDB_EV_SUB_REMOVE) return {in.ifh, "port sub-interface"};
    if (t == PMDB_EV_MEMBER_JOIN || t == PMDB_EV_MEMBER_MODIFY || t == PMDB_EV_MEMBER_LEAVE)
        return {in.ifh, "member"};
    return {in.ifh, in.intf_type == PMDB_INTF_TYPE_BVI ? "BVI" : "port"};
}

std::string ParseAll(const std::string &text, unsigned writers, Plan *plan) {
    std::istringstream in(text);
    std::unordered_map<uint32_t, int> writer_of;
    size_t owners = 0;
    plan->items.assign(writers, {});
    for (std::string t; std::getline(in, t);) {
        Line line;
        const std::string bad = pmdbctl::ParseStreamLine(t, &line.parsed);
        if (!bad.empty()) return "gen wrote a line the stream parser refuses: " + bad;
        const StreamLine &l = line.parsed;
        const Owner o = OwnerOf(l);
        line.item = l.op == StreamOp::kEvent ? pmdbctl::EventTypeName(l.event.event_type)
                                             : pmdbctl::StreamOpName(l.op);
        line.kind = line.item + " of a " + o.second;
        if (l.op != StreamOp::kInventoryAdd) {
            auto [it, fresh] = writer_of.try_emplace(o.first, static_cast<int>(owners % writers));
            owners += fresh;
            line.writer = it->second;
            plan->items[line.writer].push_back(static_cast<uint32_t>(plan->lines.size()));
        }
        plan->lines.push_back(line);
    }
    return "";
}

// A phase ends where the kind of line changes, outside the churn.
void CutPhases(Plan *plan) {
    const auto &l = plan->lines;
    for (size_t i = 1; i <= l.size(); i++) {
        const bool churn = i > plan->card_end && i < plan->churn_end;
        if (i == l.size() || i == plan->card_end || i == plan->churn_end ||
            (!churn && l[i].kind != l[i - 1].kind))
            plan->phase_end.push_back(i);
    }
}

// Runs `pmdbctl gen` (the card, with churn, with teardown; 2 nodes of 4
// ports, 2 bundles of one member more than there are writers) and builds
// the plan; "" or why it could not.
std::string MakePlan(unsigned seed, unsigned writers, Plan *plan) {
    if (writers < 2 || writers > 64) return "--writers: 2 to 64";
    const std::string card = "gen --seed " + std::to_string(seed) +
                             " --nodes 2 --ports 4 --bundles 2 --bundle-subs 2 --bvis 2" +
                             " --members " + std::to_string(writers + 1);
    const char *const extra[3] = {"", " --churn 30", " --churn 30 --teardown"};
    std::string text[3];
    for (int i = 0; i < 3; i++) {
        const ToolRun r = Pmdbctl(pmdb::test::Words(card + extra[i]), 10000);
        if (r.status != 0) return "pmdbctl gen failed: " + r.err;
        text[i] = r.out;
    }
    if (text[1].compare(0, text[0].size(), text[0]) != 0 ||
        text[2].compare(0, text[1].size(), text[1]) != 0)
        return "pmdbctl gen: the card with churn and teardown does not begin with the card";
    plan->card_end = std::count(text[0].begin(), text[0].end(), '\n');
    plan->churn_end = std::count(text[1].begin(), text[1].end(), '\n');
    const std::string bad = ParseAll(text[2], writers, plan);
    if (bad.empty()) CutPhases(plan);
    return bad;
}

// ---- the writer and shadow processes ------------------------------------------
//
// A writer or the shadow talks to the supervisor over two pipes of its own
// (commands in, reports out) and holds no other descriptor of the
// supervisor's, so that a dead writer's report pipe ends when it does and a
// supervisor that ends takes every child with it (end of file on the
// command pipe, and the parent-death signal).

// Supervisor to process.
enum CmdKind : uint32_t {
    kRunTo = 1,  // writer: apply your items up to this position (exclusive)
    kArm,        // writer: SIGKILL yourself after this many us
    kPause,      // writer: stop after the current item, answer kPaused
    kApply,      // shadow: apply this line index
    kSync,       // shadow: answer kSynced once everything before is applied
};
// Process to supervisor.
enum MsgKind : uint32_t {
    kReady = 1,  // tables opened, inventory applied; value: first position
    kDone,       // value: the position just completed (the call returned)
    kPaused,     // value: the next position
    kSynced,
};
struct Word {
    uint32_t kind;
    uint32_t value;
};

// Per writer, in memory shared with the supervisor: the line index + 1 of
// the call in progress, 0 between calls.
struct InCall {
    volatile uint32_t line[64];
};

struct Child {
    pid_t pid = -1;
    int cmd = -1;  // supervisor writes
    int rep = -1;  // supervisor reads
};

// Where a child keeps its two pipe ends, above anything it inherits.
constexpr int kChildIn = 200, kChildOut = 201;

bool ReadWord(int fd, Word *w) { return read(fd, w, sizeof *w) == static_cast<ssize_t>(sizeof *w); }

// Writes one word; false when the process is gone.
bool Send(int fd, uint32_t kind, uint32_t value = 0) {
    const Word w{kind, value};
    return write(fd, &w, sizeof w) == static_cast<ssize_t>(sizeof w);
}

void Reply(MsgKind kind, uint32_t value) {
    if (!Send(kChildOut, kind, value)) _exit(3);
}

// The entry point of line `l`, called as pmdbctl replay calls it, on a copy
// (the plan stays as generated).  A call the library refuses is not
// retried: the tables, compared with the shadow's, judge the outcome.
void ApplyLine(StreamLine l) { (void)pmdbctl::ApplyStreamLine(l); }

// A port mapper registers an out-of-resource callback; only then do member
// joins and leaves move their level in the bundle's counters.
void OorCallback(u32, u32, u32, u32) {}

// Opens the three tables with write intent and lets go again, so that the
// first open's pause is behind the process before it reports ready, and
// lists the card's nodes in this process's inventory.
void Prepare(const Plan &plan) {
    dpa_pmdb_set_oor_cb(OorCallback);
    for (int t = 0; t < PMDB_NUM_TYPES; t++) {
        dnx_db_hdl_t *h = nullptr;
        const auto type = static_cast<pmdb_type_t>(t);
        // Exit status 4: the open with write intent failed; its status goes
        // to stderr so that the supervisor's "ended without being killed"
        // can be traced to the library's documented cause.
        if (const cerrno rc = dpa_chk_pmdb_open(nullptr, &h, type, 1); rc != 0) {
            fprintf(stderr, "campaign writer %d: opening type %d with write intent failed with status %d\n",
                    static_cast<int>(getpid()), t, static_cast<int>(rc));
            _exit(4);
        }
        (void)dpa_pmdb_mprotect_tabra(h->tabra, h, type);
    }
    for (const Line &l : plan.lines)
        if (l.parsed.op == StreamOp::kInventoryAdd) ApplyLine(l.parsed);
}

// A timer that delivers SIGKILL `us` microseconds from now.  Armed just
// before the item of the kill, it lands within microseconds of where the
// supervisor chose, however loaded the machine is: a kill sent by another
// process when it gets the processor lands, on a busy machine, long after
// the item, mostly between calls.
void ArmKill(uint32_t us) {
    sigevent ev{};
    ev.sigev_notify = SIGEV_SIGNAL;
    ev.sigev_signo = SIGKILL;
    timer_t t;
    itimerspec when{};
    when.it_value.tv_sec = us / 1000000;
    when.it_value.tv_nsec = static_cast<long>(us % 1000000) * 1000 + 1;
    if (timer_create(CLOCK_MONOTONIC, &ev, &t) != 0 || timer_settime(t, 0, &when, nullptr) != 0)
        _exit(6);
}

// A writer (w >= 0) applies plan.items[w] (position p is item p % size,
// pass p / size) from position `start` as told; the shadow (w < 0) applies
// the line indexes it is sent.
[[noreturn]] void ChildMain(const Plan &plan, int w, uint32_t start, InCall *in_call) {
    Prepare(plan);
    Reply(kReady, start);
    uint32_t pos = start, limit = start;
    for (;;) {
        pollfd p{kChildIn, POLLIN, 0};
        if (pos < limit && poll(&p, 1, 0) <= 0) {  // no command waiting
            const uint32_t line = plan.items[w][pos % plan.items[w].size()];
            in_call->line[w] = line + 1;
            ApplyLine(plan.lines[line].parsed);
            in_call->line[w] = 0;
            Reply(kDone, pos++);
            continue;
        }
        Word c{};
        if (!ReadWord(kChildIn, &c)) _exit(0);
        if (c.kind == kRunTo) limit = c.value;
        if (c.kind == kArm) ArmKill(c.value);
        if (c.kind == kApply && c.value < plan.lines.size()) ApplyLine(plan.lines[c.value].parsed);
        if (c.kind == kSync) Reply(kSynced, 0);
        if (c.kind != kPause) continue;
        limit = pos;
        Reply(kPaused, pos);
    }
}

void CloseChild(Child *c) {
    if (c->cmd >= 0) close(c->cmd);
    if (c->rep >= 0) close(c->rep);
    c->cmd = c->rep = -1;
}

// ---- the supervisor ---------------------------------------------------------

struct Options {
    unsigned seed = 1, writers = 3, kills = 50;
    unsigned hang_ms = 10000;  // no report for this long is a hang
    // Kinds of item ("sub_add", "oor" ...) known not to be safe to apply
    // again after a kill inside them: their rounds are reported as known
    // findings and do not fail the campaign.
    std::vector<std::string> known_unsafe;
    bool verbose = false;
};

// At most a few lines of what differs from `want` in `got`.
std::string Differences(const json &got, const json &want) {
    const json d = json::diff(want, got);
    std::string text;
    for (size_t i = 0; i < d.size() && i < 8; i++) {
        const std::string op = d[i]["op"], path = d[i]["path"];
        text += "\n    " + op + " " + path;
        if (d[i].contains("value")) text += " = " + d[i]["value"].dump().substr(0, 160);
        if (op != "add") text += " (expected " + want.at(json::json_pointer(path)).dump() + ")";
    }
    if (d.size() > 8) text += "\n    ... " + std::to_string(d.size() - 8) + " more";
    return text;
}

struct Problem {
    std::string kind, line;  // the check item's kind; "\n    name: problem"
    bool operator<(const Problem &o) const { return line < o.line; }
};

std::string Lines(const std::set<Problem> &problems) {
    std::string text;
    for (const Problem &p : problems) text += p.line;
    return text;
}

// The card check's finding that some entries stayed locked and were not
// looked at.
bool StayedLocked(const Problem &p) {
    return p.kind == "card" && p.line.find("stayed locked by a writer") != std::string::npos;
}

// How process `pid` ended, after waiting for it at most a second.
std::string EndOf(pid_t pid) {
    int status = 0;
    for (int i = 0; i < 1000 && waitpid(pid, &status, WNOHANG) != pid; i++) usleep(1000);
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status)) : "still running";
}

class Campaign {
  public:
    Campaign(const Options &o, const Plan &plan)
        : o_(o),
          plan_(plan),
          rng_(o.seed),
          ns_("camp" + std::to_string(getpid())),
          in_call_(static_cast<InCall *>(mmap(nullptr, sizeof(InCall), PROT_READ | PROT_WRITE,
                                              MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}

    int Run() {
        if (in_call_ == MAP_FAILED) Fail("no shared page for the writers");
        References();
        Start(0);
        const unsigned passes = o_.kills == 0 ? 1 : (o_.kills + kPerPass - 1) / kPerPass;
        const auto start = std::chrono::steady_clock::now();
        for (unsigned p = 0; p < passes; p++) Pass(p, std::min(kPerPass, o_.kills - p * kPerPass));
        SyncShadow();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        std::string findings;
        for (const auto &[kind, n] : findings_) findings += " " + kind + " x" + std::to_string(n);
        printf(
            "crash campaign: seed %u, %u writers, %zu lines in %zu phases, %u pass(es), %.1f s\n",
            o_.seed, o_.writers, plan_.lines.size(), plan_.phase_end.size(), passes, took.count());
        printf("  %u kills (%u inside a library call), each a round: check, tables against the shadow's\n",
               kills_, kills_in_call_);
        printf("  %u violations found by pmdbctl check, %u repaired by pmdbctl repair; findings:%s\n",
               found_, repaired_, findings.empty() ? " none" : findings.c_str());
        printf("  longest wait without a report: %.1f ms (%s)\n", longest_ms_, longest_what_.c_str());
        printf("  result: %s\n", unknown_ == 0 ? "passed" : "FAILED: new re-application findings");
        Cleanup();
        return unknown_ == 0 ? 0 : 1;
    }

  private:
    using KillMap = std::map<std::pair<unsigned, uint32_t>, unsigned>;
    struct Writer {
        Child c;
        uint32_t done = 0, target = 0;  // positions reported done; to reach in this phase
        bool ready = false, paused = false, armed = false, died = false;  // armed: a kill
    };
    const Options &o_;
    const Plan &plan_;
    std::mt19937_64 rng_;
    const std::string ns_, shadow_ns_ = ns_ + "s", seq_ns_ = ns_ + "q";
    InCall *const in_call_;
    std::vector<Writer> writers_;
    Child shadow_;
    bool synced_ = false;
    bool diverged_ = false;       // this pass had a re-application finding
    std::set<Problem> accepted_;  // check findings explained in this pass
    KillMap kill_at_;             // (writer, position) -> offset in us
    json seq_card_, seq_whole_;
    unsigned kills_ = 0, kills_in_call_ = 0, found_ = 0, repaired_ = 0, unknown_ = 0;
    // The longest a wait went without a report from any child (the hang
    // bound is --hang-ms), and what it waited for.
    double longest_ms_ = 0;
    std::string longest_what_;
    std::map<std::string, unsigned> findings_;  // known and new findings, by kind of item
    std::string round_;                         // what the current round did, for messages

    static void End(Child *c) {
        if (c->pid > 0) kill(c->pid, SIGKILL);
        CloseChild(c);
        c->pid = -1;
    }

    void Stop() {
        for (Writer &w : writers_) End(&w.c);
        End(&shadow_);
        while (wait(nullptr) > 0) {
        }
    }

    void Cleanup() {
        Stop();
        for (const std::string &ns : {ns_, shadow_ns_, seq_ns_})
            vorn_host_remove_namespace(ns.c_str());
    }

    [[noreturn]] void Fail(const std::string &why) {
        fprintf(stderr, "crash campaign: FAILED (seed %u): %s\n", o_.seed, why.c_str());
        if (!round_.empty()) fprintf(stderr, "  in %s\n", round_.c_str());
        Cleanup();
        exit(1);
    }

    // The tables of namespace `ns` as `pmdbctl dump --json` gives them, each
    // entry under its key, without the times of the last change and of the
    // out-of-resource state (they differ between any two runs).  A bundle's
    // entry is changed by the writers of all its members, so which event
    // stamped it last and how often its out-of-resource state flipped depend
    // on how their items interleave: those two fields are left out of a
    // bundle's entry (each member's own entry keeps them).  A table that
    // cannot be read is an "error" entry, and so a difference too.
    json Tables(const std::string &ns) const {
        json all = json::object();
        for (const char *t : {"ifh", "punt", "oam"}) {
            const ToolRun r = Pmdbctl({"--ns", ns, "dump", t, "--json"}, 10000);
            json j = json::parse(r.out, nullptr, false);
            if (r.status != 0 || !j.is_array())
                return {{"error", std::string("pmdbctl dump ") + t + " failed: " + r.err}};
            json &table = all[t] = json::object();
            for (json &e : j) {
                e.erase("last_update");
                if (e.contains("intf_info")) e["intf_info"].erase("oor_time");
                if (t[0] == 'i' && e["intf_info"]["bundle_ifh"] == e["key"]) {
                    e.erase("event_id");
                    e["intf_info"].erase("oor_changes");
                }
                table[e["key"].get<std::string>()] = e;
            }
        }
        return all;
    }

    json TablesOrFail(const std::string &ns) {
        json all = Tables(ns);
        if (all.contains("error")) Fail(all["error"].get<std::string>());
        return all;
    }

    // What in the tables of namespace `ns` differs from `want`, "" when
    // nothing does.
    std::string Against(const json &want, const std::string &ns) const {
        const json got = Tables(ns);
        return got == want ? "" : Differences(got, want);
    }

    void Handle(int w, const Word &m) {
        if (w < 0) {
            synced_ = m.kind == kSynced;
            return;
        }
        if (m.kind == kReady) writers_[w].ready = true;
        if (m.kind == kPaused) writers_[w].paused = true;
        if (m.kind != kDone) return;
        if (m.value != writers_[w].done) Fail(Name(w) + " reported an item out of order");
        writers_[w].done++;
        const auto &items = plan_.items[w];
        if (!Send(shadow_.cmd, kApply, items[m.value % items.size()]))
            Fail("the shadow process is gone");
    }

    static std::string Name(int w) { return "writer " + std::to_string(w); }

    // Reads one report of each process that has one, waiting up to
    // timeout_ms; true when any came.  With `kills`, a planned kill is made
    // after a report that reaches it.
    bool Pump(int timeout_ms, bool kills) {
        std::vector<pollfd> p;
        for (const Writer &x : writers_) p.push_back({x.died ? -1 : x.c.rep, POLLIN, 0});
        p.push_back({shadow_.rep, POLLIN, 0});
        if (poll(p.data(), p.size(), timeout_ms) <= 0) return false;
        for (size_t i = 0; i < p.size(); i++) {
            if (p[i].revents == 0) continue;
            const int w = i + 1 == p.size() ? -1 : static_cast<int>(i);
            Word m{};
            if (ReadWord(p[i].fd, &m)) {
                Handle(w, m);
            } else if (w < 0) {
                Fail("the shadow process ended");
            } else if (!writers_[w].armed) {
                Fail(Name(w) + " ended without being killed: " + EndOf(writers_[w].c.pid));
            } else {
                writers_[w].died = true;
                continue;
            }
            // A round replaces the killed writer's pipes: p is stale after it.
            if (kills && MaybeKill()) break;
        }
        return true;
    }

    void Note(const std::string &what, std::chrono::steady_clock::time_point since) {
        const std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - since;
        if (ms.count() <= longest_ms_) return;
        longest_ms_ = ms.count();
        longest_what_ = what;
    }

    void WaitFor(const std::function<bool()> &done, const std::string &what, bool kills = false) {
        auto since = std::chrono::steady_clock::now();
        const auto hang = std::chrono::milliseconds(o_.hang_ms);
        for (;;) {
            // A round may leave another writer waiting at its kill's item.
            while (kills && MaybeKill()) {
            }
            if (done()) return Note(what, since);
            const auto left = hang - (std::chrono::steady_clock::now() - since);
            if (left <= left.zero())
                Fail("hang: no report for " + std::to_string(o_.hang_ms) +
                     " ms while waiting for " + what);
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
            if (!Pump(static_cast<int>(ms) + 1, kills)) continue;
            Note(what, since);
            since = std::chrono::steady_clock::now();
        }
    }

    // Starts writer w from the position after the last it reported done,
    // or (w < 0) the shadow, in namespace ns, with only its two pipe ends
    // (and stdin, stdout, stderr) open.
    Child Spawn(const std::string &ns, int w) {
        const uint32_t from = w < 0 ? 0 : writers_[w].done;
        int in[2], out[2];
        if (pipe(in) != 0 || pipe(out) != 0) Fail("no pipes for a child process");
        const pid_t parent = getpid();
        Child c{fork(), in[1], out[0]};
        if (c.pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(5);
            if (dup2(in[0], kChildIn) < 0 || dup2(out[1], kChildOut) < 0) _exit(5);
            close_range(3, kChildIn - 1, 0);
            close_range(kChildOut + 1, ~0u, 0);
            setenv("PMDB_NS", ns.c_str(), 1);
            // Below the supervisor, which must see a writer reach an item and
            // kill it within microseconds even on a machine with few cores.
            if (nice(10) < 0) _exit(5);
            ChildMain(plan_, w, from, in_call_);
        }
        close(in[0]);
        close(out[1]);
        if (c.pid < 0) Fail(w < 0 ? "cannot start the shadow process" : "cannot start " + Name(w));
        return c;
    }

    void Start(unsigned pass) {
        writers_.assign(o_.writers, Writer{});
        shadow_ = Spawn(shadow_ns_, -1);
        for (unsigned w = 0; w < o_.writers; w++) {
            writers_[w].done = writers_[w].target =
                static_cast<uint32_t>(pass * plan_.items[w].size());
            writers_[w].c = Spawn(ns_, static_cast<int>(w));
        }
        for (unsigned w = 0; w < o_.writers; w++)
            WaitFor([&] { return writers_[w].ready; }, Name(w) + " to start");
    }

    // `count` kills at items of pass `pass` chosen at random, each at a
    // random offset into its item.
    void PlanKills(unsigned pass, unsigned count) {
        size_t total = 0;
        for (const auto &items : plan_.items) total += items.size();
        for (unsigned k = 0; k < count && total != 0;) {
            size_t g = rng_() % total;
            unsigned w = 0;
            while (g >= plan_.items[w].size()) g -= plan_.items[w].size(), w++;
            const uint32_t pos = static_cast<uint32_t>(pass * plan_.items[w].size() + g);
            const unsigned offset = static_cast<unsigned>(rng_() % (kMaxOffsetUs + 1));
            k += kill_at_.try_emplace({w, pos}, offset).second;
        }
    }

    // The first kill planned for writer w in the current phase, or end().
    // A kill at an item the writer has passed (the restart after a kill
    // re-applies one item unasked) moves to its next item.
    KillMap::iterator NextKill(unsigned w) {
        const Writer &x = writers_[w];
        auto it = kill_at_.lower_bound({w, 0});
        while (it != kill_at_.end() && it->first.first == w && it->first.second < x.done) {
            const unsigned offset = it->second;
            kill_at_.erase(it);
            kill_at_.try_emplace({w, x.done}, offset);
            it = kill_at_.lower_bound({w, 0});
        }
        const bool in_phase =
            it != kill_at_.end() && it->first.first == w && it->first.second < x.target;
        return in_phase ? it : kill_at_.end();
    }

    // How far writer w is let run: to the end of its part of the phase, or
    // to the item of its next planned kill, where it waits to be let go.
    uint32_t Limit(unsigned w) {
        const auto it = NextKill(w);
        return it != kill_at_.end() ? it->first.second : writers_[w].target;
    }

    void LetRun(unsigned w) {
        // An armed writer may be dead already: its round comes next.
        if (!Send(writers_[w].c.cmd, kRunTo, Limit(w)) && !writers_[w].armed)
            Fail(Name(w) + " is gone");
    }

    // Kills are placed by timers in the writers (ArmKill): a writer waiting
    // at the item of a planned kill is told to arm one for the kill's offset
    // and let go.  A writer that died of it, or that stopped alive with the
    // kill armed (its items ended before the offset), is killed by the
    // supervisor and has its round run here: true when one ran.  One kill is
    // armed at a time, so that a round judges the tables with no other
    // writer lying dead in the middle of an item.
    bool MaybeKill() {
        bool armed =
            std::any_of(writers_.begin(), writers_.end(), [](const Writer &x) { return x.armed; });
        for (unsigned w = 0; w < writers_.size(); w++) {
            if (writers_[w].died || (writers_[w].armed && writers_[w].done == Limit(w))) {
                Round(w);
                return true;
            }
            const auto it = armed ? kill_at_.end() : NextKill(w);
            if (it == kill_at_.end() || it->first.second != writers_[w].done) continue;
            const unsigned offset = it->second;
            kill_at_.erase(it);
            writers_[w].armed = true;
            Send(writers_[w].c.cmd, kArm, offset);
            LetRun(w);
            armed = true;
        }
        return false;
    }

    void SyncShadow() {
        synced_ = false;
        if (!Send(shadow_.cmd, kSync)) Fail("the shadow process is gone");
        WaitFor([&] { return synced_; }, "the shadow to catch up");
    }

    // What a check's JSON report names as problems (a report that is not
    // JSON is one problem too), but those already explained in this pass.
    // An entry lock that names a dead process (after the next writer, since
    // a check follows one) ends the campaign.
    std::set<Problem> NewProblems(const ToolRun &r) {
        const json items = json::parse(r.out, nullptr, false);
        if (!items.is_array())
            return {{"", "\n    not a check report (status " + std::to_string(r.status) +
                             "): " + (r.out + r.err).substr(0, 400)}};
        std::set<Problem> found;
        std::string dead;
        for (const json &i : items) {
            if (!i.is_object() || i.value("ok", true)) continue;
            const Problem p{i.value("kind", ""),
                            "\n    " + i.value("name", "?") + ": " + i.value("problem", "?")};
            if (accepted_.count(p) != 0) continue;
            found.insert(p);
            if (p.kind == "entry_lock" && !i.value("alive", true)) dead += p.line;
        }
        if (!dead.empty()) Fail("an entry lock names a dead process after the next writer:" + dead);
        return found;
    }

    // `pmdbctl check --json` or `pmdbctl repair`, each lock waited for at
    // most 500 ms.
    ToolRun Waited(bool check) {
        std::vector<std::string> args = {"--ns", ns_, "repair", "--wait-ms", "500"};
        if (check) args[2] = "check", args.push_back("--json");
        const ToolRun r = Pmdbctl(args, o_.hang_ms);
        if (TimedOut(r)) Fail("hang: pmdbctl check or repair did not end within the wait");
        return r;
    }

    // How many entry locks `pmdbctl regions --json` shows retired
    // (destroyed); -1 when the report cannot be read.
    long RetiredLocks() {
        const ToolRun r = Pmdbctl({"--ns", ns_, "regions", "--json"}, o_.hang_ms);
        const json report = json::parse(r.out, nullptr, false);
        if (TimedOut(r) || !report.is_object() || !report.contains("regions") ||
            !report["regions"].is_array())
            return -1;
        long n = 0;
        for (const json &g : report["regions"])
            if (g.is_object() && g.contains("entry_locks"))
                n += g["entry_locks"].value("destroyed", 0L);
        return n;
    }

    // `pmdbctl check` must pass, or pass after `pmdbctl repair` (a violation
    // found and repaired).  What still fails after the repair is a known
    // re-application finding when every problem is explained by a kill
    // inside the round's item, of a kind in --known-unsafe (`known_kind`, ""
    // when none); those problems are then expected for the rest of the
    // pass.  Anything else ends the campaign.
    void Check(const std::string &known_kind) {
        ToolRun r = Waited(true);
        if (r.status == 0) return;
        const std::set<Problem> problems = NewProblems(r);
        if (problems.empty()) return;
        found_++;
        if (o_.verbose) printf("  %s: check found:%s\n", round_.c_str(), Lines(problems).c_str());
        const ToolRun repair = Waited(false);
        r = Waited(true);
        const std::set<Problem> after = r.status == 0 ? std::set<Problem>{} : NewProblems(r);
        // A removal killed after the IFH entry went stops at that entry the
        // second time and leaves the interface's PUNT and OAM entries, which
        // name no IFH entry (orphans).  One killed after it retired a PUNT
        // entry's lock but before the entry went leaves that entry
        // unreadable for good: the card check cannot look at it, and it
        // drops out of the orphan list.  Accepted only after a kill inside a
        // known removal, and only when the regions do show a retired lock.
        const bool removal =
            known_kind.size() > 7 && known_kind.compare(known_kind.size() - 7, 7, "_remove") == 0;
        const bool retired =
            removal && std::any_of(after.begin(), after.end(), StayedLocked) && RetiredLocks() > 0;
        bool explained = !known_kind.empty();
        for (const Problem &p : after)
            explained =
                explained && ((p.kind == "orphan" && removal) || (retired && StayedLocked(p)));
        if (!after.empty() && !explained)
            Fail("pmdbctl check fails after pmdbctl repair (status " +
                 std::to_string(repair.status) + "):" + Lines(after) +
                 "\n  repair said: " + repair.out + repair.err);
        repaired_ += after.empty();
        if (after.empty()) return;
        findings_[known_kind + (retired ? " (retired lock)" : " (check)")]++;
        accepted_.insert(after.begin(), after.end());
        printf("known re-application finding (check after repair), %s:%s\n", round_.c_str(),
               Lines(after).c_str());
    }

    // The tables after a round against the shadow's.  A difference (the
    // re-applied item did not leave what one application leaves, or a
    // completed item was lost) is a finding about that kind of item; the rest
    // of the pass is compared only at its end, when the teardown has emptied
    // both.
    void CompareRound(const std::string &item) {
        const std::string apart = Against(TablesOrFail(shadow_ns_), ns_);
        if (apart.empty()) return;
        diverged_ = true;
        const bool known = Known(item);
        findings_[item]++;
        unknown_ += !known;
        printf(
            "%s re-application finding, %s:\n  tables against the shadow's (every completed "
            "item applied once, no kills):%s\n",
            known ? "known" : "NEW", round_.c_str(), apart.c_str());
    }

    bool Known(const std::string &item) const {
        return std::find(o_.known_unsafe.begin(), o_.known_unsafe.end(), item) !=
               o_.known_unsafe.end();
    }

    // Every writer but w stops after its current item.
    void PauseOthers(unsigned w) {
        for (unsigned o = 0; o < writers_.size(); o++) {
            if (o == w) continue;
            writers_[o].paused = false;
            if (!Send(writers_[o].c.cmd, kPause) && !writers_[o].armed) Fail(Name(o) + " is gone");
            if (writers_[o].died) continue;
            WaitFor([&] { return writers_[o].paused || writers_[o].died; }, Name(o) + " to pause");
        }
    }

    // The other writers pause after their current item, the killed writer
    // restarts and re-applies its interrupted item, then the tables are
    // checked and compared with the shadow's.
    void Round(unsigned w) {
        Child &c = writers_[w].c;
        kill(c.pid, SIGKILL);
        kills_++;
        int status = 0;
        if (waitpid(c.pid, &status, 0) != c.pid) Fail("the killed writer could not be reaped");
        c.pid = -1;
        Word m{};
        while (ReadWord(c.rep, &m)) Handle(static_cast<int>(w), m);
        CloseChild(&c);
        const uint32_t line = in_call_->line[w];
        in_call_->line[w] = 0;
        writers_[w].armed = writers_[w].died = false;
        kills_in_call_ += line != 0;
        const auto &items = plan_.items[w];
        const uint32_t redo = writers_[w].done;
        const uint32_t redo_line = items[redo % items.size()];
        const Line &l = plan_.lines[redo_line];
        round_ = "round " + std::to_string(kills_) + ": " + Name(w) + " killed " +
                 (line != 0 ? "inside" : "outside") + " the call of line " +
                 std::to_string(redo_line + 1) + " (" + l.kind +
                 "), which it then applied again from its start";
        PauseOthers(w);
        writers_[w].ready = false;
        writers_[w].c = Spawn(ns_, static_cast<int>(w));
        WaitFor([&] { return writers_[w].ready; }, Name(w) + " to restart");
        if (redo < writers_[w].target) {
            Send(writers_[w].c.cmd, kRunTo, redo + 1);
            WaitFor([&] { return writers_[w].done > redo; },
                    "the restarted " + Name(w) + " to re-apply its item");
        }
        SyncShadow();
        Check(line != 0 && Known(l.item) ? l.item : "");
        if (!diverged_) CompareRound(l.item);
        if (o_.verbose) printf("  %s: done\n", round_.c_str());
        round_.clear();
        for (unsigned o = 0; o < writers_.size(); o++) LetRun(o);
    }

    // One pass over the card with `kills` kills planned in it.
    void Pass(unsigned pass, unsigned kills) {
        PlanKills(pass, kills);
        for (size_t end : plan_.phase_end) {
            for (unsigned w = 0; w < writers_.size(); w++) {
                // Writer w is done with the lines before `end` of this pass
                // at this position (its items ascend).
                const auto &items = plan_.items[w];
                const auto k = std::lower_bound(items.begin(), items.end(), end) - items.begin();
                writers_[w].target = static_cast<uint32_t>(pass * items.size() + k);
                LetRun(w);
            }
            const std::string what = "the writers to finish lines up to " + std::to_string(end) +
                                     " (" + plan_.lines[end - 1].kind + ")";
            const auto all_done = [&] {
                return std::all_of(writers_.begin(), writers_.end(),
                                   [](const Writer &x) { return x.done >= x.target; });
            };
            WaitFor(all_done, what, true);
            if (end != plan_.churn_end || diverged_) continue;
            const std::string apart = Against(seq_card_, ns_);
            if (!apart.empty())
                Fail("the tables differ from those of the bring-up and churn in stream order:" +
                     apart);
        }
        EndPass(pass);
    }

    // A pass ends with the teardown: the tables must equal those of the
    // stream in stream order, and check must pass.  After a re-application
    // finding they may not; what is left is reported, and the campaign goes
    // on from fresh tables and processes.
    void EndPass(unsigned pass) {
        SyncShadow();
        const std::string apart = Against(seq_whole_, ns_);
        if (!diverged_) {
            if (!apart.empty())
                Fail(
                    "the tables at the end of a pass differ from those of the stream in "
                    "stream order:" +
                    apart);
            return Check("");
        }
        printf("  what the finding(s) left at the end of the pass:%s\n",
               apart.empty() ? " nothing" : apart.c_str());
        Stop();
        vorn_host_remove_namespace(ns_.c_str());
        vorn_host_remove_namespace(shadow_ns_.c_str());
        diverged_ = false;
        accepted_.clear();
        Start(pass + 1);
    }

    // The tables of the stream applied in stream order by one process of
    // the shadow's kind (pmdbctl replay registers no out-of-resource
    // callback, so its bundle counters are not a port mapper's), at the end
    // of the churn and of the whole card.
    void References() {
        shadow_ = Spawn(seq_ns_, -1);
        for (uint32_t i = 0; i < plan_.lines.size(); i++) {
            if (plan_.lines[i].writer == kEveryWriter) continue;
            if (!Send(shadow_.cmd, kApply, i)) Fail("the reference process is gone");
            if (i + 1 != plan_.churn_end && i + 1 != plan_.lines.size()) continue;
            SyncShadow();
            (i + 1 == plan_.churn_end ? seq_card_ : seq_whole_) = TablesOrFail(seq_ns_);
        }
        Stop();
    }
};

}  // namespace
}  // namespace campaign

int main(int argc, char **argv) {
    campaign::Options o;
    CLI::App app{"Crash campaign: writers replay a generated card while they are killed"};
    app.add_option("--kills", o.kills, "kills in all")->capture_default_str();
    app.add_option("--seed", o.seed, "seed of the card, the kills and their moments")
        ->capture_default_str();
    app.add_option("--writers", o.writers, "writer processes")->capture_default_str();
    app.add_option("--hang-ms", o.hang_ms, "no report for this long is a hang")
        ->capture_default_str();
    app.add_option("--known-unsafe", o.known_unsafe,
                   "kinds of item known not to be safe to apply again (sub_add ...)")
        ->delimiter(',');
    app.add_flag("--verbose", o.verbose, "one line per round");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    signal(SIGPIPE, SIG_IGN);
    campaign::Plan plan;
    const std::string bad = campaign::MakePlan(o.seed, o.writers, &plan);
    if (bad.empty()) return campaign::Campaign(o, plan).Run();
    fprintf(stderr, "crash campaign: %s\n", bad.c_str());
    return 2;
}
