// crash_campaign: writer processes replay disjoint parts of a generated card
// (bring-up, churn, teardown; campaign_plan.cpp) while this supervisor kills
// a writer with SIGKILL at a moment chosen at random from the seed (an item
// and an offset into it; a timer the writer arms on the supervisor's word
// delivers the kill on time, see MaybeKill) and restarts it from the item
// after the last one it reported done.  The item it was killed in is thus
// applied again from its start.
//
// A round is one kill: the other writers are paused after their current
// item, the killed writer restarts and re-applies its interrupted item,
// then
//   - `pmdbctl check` must pass, or pass after `pmdbctl repair` (counted as
//     a violation found and repaired); what still fails after the repair
//     is a known re-application finding, reported apart, only when a kill
//     inside a known kind of item explains all of it (a removal's PUNT and
//     OAM entries left behind); an entry lock that names a dead
//     process after that next writer ends the campaign;
//   - the tables must equal the shadow's: a process in a namespace of its
//     own that applied every item the writers reported done, once each, in
//     the order the reports came, without kills.  So every item a dead
//     writer completed is fully visible, and re-applying an interrupted
//     item leaves what one application leaves.
// At the end of each pass's churn and teardown the tables must also equal
// those of the same stream applied in stream order by one process, which
// shows that the phases' interleavings do not matter.  A difference after a
// round is a re-application finding: the kind of item is reported, known
// kinds (--known-unsafe) do not fail the campaign, and the pass goes on from
// fresh tables at its end.
//
// Every wait is bounded (--hang-ms without any report is a hang, which ends
// the campaign naming what it waited for).  Exit status 0 when every round
// passed or found only known kinds, 1 otherwise, 2 on bad options.
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <nlohmann/json.hpp>
#include <random>

#include "campaign.h"
#include "host/os_host.h"

namespace campaign {
namespace {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

struct Options {
    CardShape shape;
    unsigned kills = 50;
    unsigned per_pass = 10;     // kills planned in one pass over the card
    unsigned hang_ms = 10000;   // no report for this long is a hang
    unsigned max_offset_us = 30;  // a kill lands this far at most into an item
    std::string pmdbctl = PMDBCTL_PATH;
    // Kinds of item ("sub_add", "oor" ...) known not to be safe to apply
    // again after a kill inside them: their rounds are reported as known
    // findings and do not fail the campaign.
    std::vector<std::string> known_unsafe;
    bool keep = false;
    bool verbose = false;
};

struct Figures {
    unsigned kills = 0, in_call = 0, rounds = 0, passes = 0;
    unsigned found = 0, repaired = 0;
    std::map<std::string, unsigned> unsafe;  // re-application findings by kind
    std::map<std::string, unsigned> check_known;  // check findings explained, by kind of item
    unsigned retired = 0;  // entries left with a retired lock by a killed removal
    unsigned unknown_unsafe = 0;
    double longest_ms = 0;
    std::string longest_what;
};

// The tables of namespace `ns` as `pmdbctl dump --json` gives them, each
// entry under its key, without the times of the last change and of the
// out-of-resource state (they differ between any two runs).  A bundle's
// entry is changed by the writers of all its members, so which event
// stamped it last and how often its out-of-resource state flipped depend on
// how their items interleave: those two fields are left out of a bundle's
// entry (each member's own entry keeps them).
json Tables(const std::string &pmdbctl, const std::string &ns, std::string *error) {
    json all = json::object();
    for (const char *t : {"ifh", "punt", "oam"}) {
        const ToolResult r = RunTool({pmdbctl, "--ns", ns, "dump", t, "--json"}, 10000);
        json j = json::parse(r.out, nullptr, false);
        if (r.status != 0 || !j.is_array()) {
            *error = std::string("pmdbctl dump ") + t + " failed: " + r.err;
            return all;
        }
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

// At most a few lines of what differs from `want` in `got`.
std::string Differences(const json &got, const json &want) {
    const json d = json::diff(want, got);
    std::string text;
    for (size_t i = 0; i < d.size() && i < 8; i++) {
        const json &op = d[i];
        text += "\n    " + op["op"].get<std::string>() + " " + op["path"].get<std::string>();
        if (op.contains("value")) text += " = " + op["value"].dump().substr(0, 160);
        if (op["op"] != "add") text += " (expected " + want.at(json::json_pointer(op["path"].get<std::string>())).dump().substr(0, 160) + ")";
    }
    if (d.size() > 8) text += "\n    ... " + std::to_string(d.size() - 8) + " more";
    return text;
}

// The kind of item of a plan line ("sub_add" of "sub_add of a port
// sub-interface").
std::string ItemKind(const std::string &line_kind) { return line_kind.substr(0, line_kind.find(' ')); }

struct Problem {
    std::string kind, line;  // the item's kind; "\n    name: problem"
    bool dead_lock;          // an entry lock that names a dead process
    bool operator<(const Problem &o) const { return line < o.line; }
};

// What a check's JSON report names as problems (a report that is not JSON
// is one problem too).
std::set<Problem> Problems(const ToolResult &r) {
    const json items = json::parse(r.out, nullptr, false);
    if (!items.is_array())
        return {{"", "\n    not a check report (status " + std::to_string(r.status) + "): " + (r.out + r.err).substr(0, 400), false}};
    std::set<Problem> found;
    for (const json &i : items) {
        if (!i.is_object() || i.value("ok", true)) continue;
        const std::string kind = i.value("kind", "");
        found.insert({kind, "\n    " + i.value("name", "?") + ": " + i.value("problem", "?"),
                      kind == "entry_lock" && !i.value("alive", true)});
    }
    return found;
}

std::string Lines(const std::set<Problem> &problems, bool dead_only = false) {
    std::string text;
    for (const Problem &p : problems)
        if (!dead_only || p.dead_lock) text += p.line;
    return text;
}

// Whether a check finding that survives a repair is what a kill inside an
// item of kind `item` leaves when the item is applied again: a removal
// killed after the IFH entry went stops at that entry the second time and
// leaves the interface's PUNT and OAM entries, which name no IFH entry.
bool IsRemoval(const std::string &item) {
    const std::string removal = "_remove";
    return item.size() > removal.size() &&
           item.compare(item.size() - removal.size(), removal.size(), removal) == 0;
}

bool Explained(const Problem &p, const std::string &item) { return p.kind == "orphan" && IsRemoval(item); }

// The card check's finding that some entries stayed locked and were not
// looked at.
bool StayedLocked(const Problem &p) {
    return p.kind == "card" && p.line.find("stayed locked by a writer") != std::string::npos;
}

// How many entry locks `pmdbctl regions --json` shows retired (destroyed)
// in namespace `ns`; -1 when the report cannot be read.
long RetiredLocks(const std::string &pmdbctl, const std::string &ns, unsigned hang_ms) {
    const ToolResult r = RunTool({pmdbctl, "--ns", ns, "regions", "--json"}, hang_ms);
    const json report = json::parse(r.out, nullptr, false);
    if (r.timed_out || !report.is_object() || !report.contains("regions") || !report["regions"].is_array()) return -1;
    const json &regions = report["regions"];
    long n = 0;
    for (const json &g : regions)
        if (g.is_object() && g.contains("entry_locks")) n += g["entry_locks"].value("destroyed", 0L);
    return n;
}

class Campaign {
public:
    Campaign(const Options &o, const Plan &plan)
        : o_(o), plan_(plan), rng_(o.shape.seed), ns_("camp" + std::to_string(getpid())),
          shadow_ns_(ns_ + "s"), seq_ns_(ns_ + "q") {}

    int Run();

private:
    const Options &o_;
    const Plan &plan_;
    std::mt19937_64 rng_;
    const std::string ns_, shadow_ns_, seq_ns_;
    InCall *in_call_ = nullptr;
    std::vector<Child> writers_;
    std::vector<uint32_t> done_, target_;
    std::vector<bool> ready_, paused_;
    std::vector<bool> armed_, died_;  // a kill armed in the writer; it died
    Child shadow_;
    bool synced_ = false;
    bool diverged_ = false;  // this pass had a re-application finding
    std::set<Problem> accepted_;  // check findings explained in this pass
    using KillMap = std::map<std::pair<unsigned, uint32_t>, unsigned>;
    KillMap kill_at_;  // (writer, position) -> offset in us
    json seq_card_, seq_whole_;
    Figures f_;
    std::string round_;  // what the current round did, for messages

    [[noreturn]] void Fail(const std::string &why);
    void Note(const std::string &what, Clock::time_point since);
    void Start(unsigned pass);
    void Stop();
    std::string Against(const json &want, const std::string &ns);
    void Handle(int w, const Word &m);
    bool Pump(int timeout_ms, bool kills);
    void WaitFor(const std::function<bool()> &done, const std::string &what, bool kills = false);
    uint32_t PhaseTarget(unsigned w, unsigned pass, size_t end) const;
    void PlanKills(unsigned pass, unsigned count);
    bool KillPlanned(unsigned w, KillMap::iterator *it);
    uint32_t Limit(unsigned w);
    std::string Positions();
    void LetRun(unsigned w);
    bool MaybeKill();
    void Round(unsigned w);
    void Restart(unsigned w);
    void PauseOthers(unsigned w);
    void SyncShadow();
    void Check(const std::string &known_kind);
    std::set<Problem> NewProblems(const ToolResult &r);
    bool Known(const std::string &item) const {
        return std::find(o_.known_unsafe.begin(), o_.known_unsafe.end(), item) != o_.known_unsafe.end();
    }
    void Compare(const json &want, const std::string &against);
    void CompareRound(const std::string &kind);
    void EndPass(unsigned pass);
    void Pass(unsigned pass, unsigned kills);
    void References();
    void Cleanup();
};

// Ends the writers and the shadow.
void Campaign::Stop() {
    for (Child &c : writers_) {
        if (c.pid > 0) kill(c.pid, SIGKILL);
        CloseChild(&c);
        c.pid = -1;
    }
    if (shadow_.pid > 0) kill(shadow_.pid, SIGKILL);
    CloseChild(&shadow_);
    shadow_.pid = -1;
    while (wait(nullptr) > 0) {
    }
}

void Campaign::Cleanup() {
    Stop();
    if (o_.keep) return;
    for (const std::string &ns : {ns_, shadow_ns_, seq_ns_})
        vorn_host_remove_namespace(ns.c_str());
}

void Campaign::Fail(const std::string &why) {
    fprintf(stderr, "crash campaign: FAILED (seed %u): %s\n", o_.shape.seed, why.c_str());
    if (!round_.empty()) fprintf(stderr, "  in %s\n", round_.c_str());
    Cleanup();
    if (o_.keep) fprintf(stderr, "  objects kept: namespaces %s, %s\n", ns_.c_str(), shadow_ns_.c_str());
    exit(1);
}

void Campaign::Note(const std::string &what, Clock::time_point since) {
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - since).count();
    if (ms <= f_.longest_ms) return;
    f_.longest_ms = ms;
    f_.longest_what = what;
}

void Campaign::Handle(int w, const Word &m) {
    if (w < 0) {
        synced_ = m.kind == kSynced;
        return;
    }
    if (m.kind == kReady) ready_[w] = true;
    if (m.kind == kPaused) paused_[w] = true;
    if (m.kind != kDone) return;
    if (m.value != done_[w]) Fail("writer " + std::to_string(w) + " reported item " + std::to_string(m.value) + " out of order");
    done_[w]++;
    const auto &items = plan_.items[w];
    if (!Send(shadow_.cmd, kApply, items[m.value % items.size()])) Fail("the shadow process is gone");
}

// Reads one report of each process that has one, waiting up to timeout_ms;
// true when any came.  With `kills`, a planned kill is made after a report
// that reaches it.
// How process `pid` ended, after waiting for it at most a second.
std::string EndOf(pid_t pid) {
    int status = 0;
    for (int i = 0; i < 1000 && waitpid(pid, &status, WNOHANG) != pid; i++) usleep(1000);
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status)) : "still running";
}

bool Campaign::Pump(int timeout_ms, bool kills) {
    std::vector<pollfd> p;
    for (size_t w = 0; w < writers_.size(); w++) p.push_back({died_[w] ? -1 : writers_[w].rep, POLLIN, 0});
    p.push_back({shadow_.rep, POLLIN, 0});
    if (poll(p.data(), p.size(), timeout_ms) <= 0) return false;
    bool any = false;
    for (size_t i = 0; i < p.size(); i++) {
        if (p[i].revents == 0) continue;
        const int w = i + 1 == p.size() ? -1 : static_cast<int>(i);
        Word m{};
        any = true;
        if (read(p[i].fd, &m, sizeof m) != static_cast<ssize_t>(sizeof m)) {
            if (w < 0 || !armed_[w]) Fail(w < 0 ? "the shadow process ended" : "writer " + std::to_string(w) + " ended without being killed: " + EndOf(writers_[w].pid));
            died_[w] = true;
            continue;
        }
        Handle(w, m);
        // A round replaces the killed writer's pipes: p is stale after it.
        if (kills && MaybeKill()) break;
    }
    return any;
}

void Campaign::WaitFor(const std::function<bool()> &done, const std::string &what, bool kills) {
    auto since = Clock::now();
    for (;;) {
        // A round may leave another writer waiting at its kill's item.
        while (kills && MaybeKill()) {
        }
        if (done()) return Note(what, since);
        const auto quiet = Clock::now() - since;
        if (quiet >= std::chrono::milliseconds(o_.hang_ms))
            Fail(Positions() + "hang: no report for " + std::to_string(o_.hang_ms) + " ms while waiting for " + what);
        const int left = o_.hang_ms - std::chrono::duration_cast<std::chrono::milliseconds>(quiet).count();
        if (!Pump(left, kills)) continue;
        Note(what, since);
        since = Clock::now();
    }
}

// Starts the shadow and the writers at the beginning of pass `pass`.
void Campaign::Start(unsigned pass) {
    const size_t n = o_.shape.writers;
    void *shared = in_call_ != nullptr ? in_call_ : mmap(nullptr, sizeof(InCall), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) Fail("no shared page for the writers");
    in_call_ = static_cast<InCall *>(shared);
    done_.assign(n, 0);
    for (unsigned w = 0; w < n; w++) done_[w] = static_cast<uint32_t>(pass * plan_.items[w].size());
    target_ = done_;
    ready_.assign(n, false);
    paused_.assign(n, false);
    armed_.assign(n, false);
    died_.assign(n, false);
    writers_.assign(n, Child{});
    shadow_ = StartShadow(plan_, shadow_ns_);
    if (shadow_.pid < 0) Fail("cannot start the shadow process");
    for (unsigned w = 0; w < n; w++) {
        writers_[w] = StartWriter(plan_, w, done_[w], ns_, in_call_);
        if (writers_[w].pid < 0) Fail("cannot start writer " + std::to_string(w));
    }
    for (unsigned w = 0; w < n; w++)
        WaitFor([&] { return ready_[w]; }, "writer " + std::to_string(w) + " to start");
}

// The position at which writer w is done with the lines before `end` of
// pass `pass`.
uint32_t Campaign::PhaseTarget(unsigned w, unsigned pass, size_t end) const {
    const auto &items = plan_.items[w];
    uint32_t k = 0;
    while (k < items.size() && items[k] < end) k++;
    return static_cast<uint32_t>(pass * items.size() + k);
}

// `count` kills at items of pass `pass` chosen at random, each at a random
// offset into its item.
void Campaign::PlanKills(unsigned pass, unsigned count) {
    size_t total = 0;
    for (const auto &items : plan_.items) total += items.size();
    for (unsigned k = 0; k < count && total != 0;) {
        size_t g = rng_() % total;
        unsigned w = 0;
        while (g >= plan_.items[w].size()) g -= plan_.items[w].size(), w++;
        const uint32_t pos = static_cast<uint32_t>(pass * plan_.items[w].size() + g);
        k += kill_at_.try_emplace({w, pos}, static_cast<unsigned>(rng_() % (o_.max_offset_us + 1))).second;
    }
}

// The first kill planned for writer w in the current phase: true with
// *it when there is one.  A kill at an item the writer has passed (the
// restart after a kill re-applies one item unasked) moves to its next item.
bool Campaign::KillPlanned(unsigned w, KillMap::iterator *it) {
    *it = kill_at_.lower_bound({w, 0});
    while (*it != kill_at_.end() && (*it)->first.first == w && (*it)->first.second < done_[w]) {
        const unsigned offset = (*it)->second;
        kill_at_.erase(*it);
        kill_at_.try_emplace({w, done_[w]}, offset);
        *it = kill_at_.lower_bound({w, 0});
    }
    return *it != kill_at_.end() && (*it)->first.first == w && (*it)->first.second < target_[w];
}

// How far writer w is let run: to the end of its part of the phase, or to
// the item of its next planned kill, where it waits to be let go.
uint32_t Campaign::Limit(unsigned w) {
    KillMap::iterator it;
    return KillPlanned(w, &it) ? it->first.second : target_[w];
}

// Where each writer is ("writer 0 done 12, let run to 14 of 20; ..."), for
// a hang.
std::string Campaign::Positions() {
    std::string text;
    for (unsigned w = 0; w < writers_.size(); w++)
        text += "writer " + std::to_string(w) + " done " + std::to_string(done_[w]) + ", let run to " +
                std::to_string(Limit(w)) + " of " + std::to_string(target_[w]) + "; ";
    return text;
}

void Campaign::LetRun(unsigned w) {
    // An armed writer may be dead already: its round comes next.
    if (!Send(writers_[w].cmd, kRunTo, Limit(w)) && !armed_[w]) Fail("writer " + std::to_string(w) + " is gone");
}

// Kills are placed by timers in the writers (ArmKill, campaign_proc.cpp):
// a writer waiting at the item of a planned kill is told to arm one for the
// kill's offset and let go.  A writer that died of it, or that stopped
// alive with the kill armed (its items ended before the offset), is killed
// by the supervisor and has its round run here: true when one ran.  One
// kill is armed at a time, so that a round judges the tables with no other
// writer lying dead in the middle of an item.
bool Campaign::MaybeKill() {
    bool armed = false;
    for (unsigned w = 0; w < writers_.size(); w++) armed = armed || armed_[w];
    for (unsigned w = 0; w < writers_.size(); w++) {
        if (died_[w] || (armed_[w] && done_[w] == Limit(w))) {
            Round(w);
            return true;
        }
        KillMap::iterator it;
        if (armed || !KillPlanned(w, &it) || it->first.second != done_[w]) continue;
        const unsigned offset = it->second;
        kill_at_.erase(it);
        armed_[w] = true;
        Send(writers_[w].cmd, kArm, offset);
        LetRun(w);
        armed = true;
    }
    return false;
}

void Campaign::SyncShadow() {
    synced_ = false;
    if (!Send(shadow_.cmd, kSync)) Fail("the shadow process is gone");
    WaitFor([&] { return synced_; }, "the shadow to catch up");
}

// The problems of a check report other than those already explained in
// this pass.
std::set<Problem> Campaign::NewProblems(const ToolResult &r) {
    std::set<Problem> found = Problems(r);
    for (const Problem &p : accepted_) found.erase(p);
    return found;
}

// `pmdbctl check` must pass, or pass after `pmdbctl repair`.  What still
// fails after the repair is a known re-application finding when every
// problem is explained by a kill inside the round's item, of a kind in
// --known-unsafe (`known_kind`, "" when none); those problems are then
// expected for the rest of the pass.  Anything else ends the campaign.
void Campaign::Check(const std::string &known_kind) {
    const std::vector<std::string> check = {o_.pmdbctl, "--ns", ns_, "check", "--json", "--wait-ms", "500"};
    const auto since = Clock::now();
    ToolResult r = RunTool(check, o_.hang_ms);
    Note("pmdbctl check", since);
    if (r.timed_out || r.status < 0) Fail("hang: pmdbctl check did not end within the wait");
    if (r.status == 0) return;
    const std::set<Problem> problems = NewProblems(r);
    const std::string dead = Lines(problems, true);
    if (!dead.empty()) Fail("an entry lock names a dead process after the next writer:" + dead);
    if (problems.empty()) return;
    f_.found++;
    if (o_.verbose) printf("  %s: check found:%s\n", round_.c_str(), Lines(problems).c_str());
    const ToolResult repair = RunTool({o_.pmdbctl, "--ns", ns_, "repair", "--wait-ms", "500"}, o_.hang_ms);
    r = RunTool(check, o_.hang_ms);
    if (r.timed_out || r.status < 0) Fail("hang: pmdbctl check did not end within the wait");
    const std::set<Problem> after = r.status == 0 ? std::set<Problem>{} : NewProblems(r);
    f_.repaired += std::any_of(problems.begin(), problems.end(), [&](const Problem &p) { return after.count(p) == 0; });
    // A removal killed after it retired a PUNT entry's lock but before the
    // entry went leaves that entry unreadable for good: the card check
    // cannot look at it, and it drops out of the orphan list.  Accepted
    // only after a kill inside a known removal, and only when the regions
    // do show a retired lock.
    const bool retired = IsRemoval(known_kind) &&
                         std::any_of(after.begin(), after.end(), StayedLocked) &&
                         RetiredLocks(o_.pmdbctl, ns_, o_.hang_ms) > 0;
    bool explained = !known_kind.empty();
    for (const Problem &p : after)
        explained = explained && (Explained(p, known_kind) || (retired && StayedLocked(p)));
    if (!after.empty() && !explained)
        Fail("pmdbctl check fails after pmdbctl repair (status " + std::to_string(repair.status) + "):" + Lines(after) + "\n  repair said: " + repair.out + repair.err);
    if (after.empty()) return;
    f_.check_known[known_kind]++;
    f_.retired += retired;
    if (retired) printf("known re-application finding, %s: entry left with a retired lock by a killed removal\n", round_.c_str());
    accepted_.insert(after.begin(), after.end());
    printf("known re-application finding (check after repair), %s:%s\n", round_.c_str(), Lines(after).c_str());
}

void Campaign::Compare(const json &want, const std::string &against) {
    std::string error;
    const json got = Tables(o_.pmdbctl, ns_, &error);
    if (!error.empty()) Fail(error);
    if (got != want) Fail("the tables differ from " + against + ":" + Differences(got, want));
}

// The tables after a round against the shadow's.  A difference means that
// the item the writer was killed in, applied again from its start, did not
// leave what one application leaves (or that a completed item was lost):
// it is reported as a finding about that kind of item, and the rest of the
// pass is compared only at its end, when the teardown has emptied both.
void Campaign::CompareRound(const std::string &kind) {
    std::string error;
    const json want = Tables(o_.pmdbctl, shadow_ns_, &error);
    if (!error.empty()) Fail(error);
    const std::string apart = Against(want, ns_);
    if (apart.empty()) return;
    diverged_ = true;
    const std::string name = ItemKind(kind);
    const bool known = Known(name);
    f_.unsafe[name]++;
    f_.unknown_unsafe += !known;
    printf("%s re-application finding, %s:\n  tables against the shadow's (every completed item applied once, no kills):%s\n",
           known ? "known" : "NEW", round_.c_str(), apart.c_str());
}

// What in the tables of namespace `ns` differs from `want`, "" when nothing
// does; a table that cannot be read whole is a difference too.
std::string Campaign::Against(const json &want, const std::string &ns) {
    std::string error;
    const json got = Tables(o_.pmdbctl, ns, &error);
    if (!error.empty()) return "\n    " + error;
    return got == want ? "" : Differences(got, want);
}

// Every writer but w stops after its current item.
void Campaign::PauseOthers(unsigned w) {
    for (unsigned o = 0; o < writers_.size(); o++) {
        if (o == w) continue;
        paused_[o] = false;
        if (!Send(writers_[o].cmd, kPause) && !armed_[o]) Fail("writer " + std::to_string(o) + " is gone");
        if (died_[o]) continue;
        WaitFor([&] { return paused_[o] || died_[o]; }, "writer " + std::to_string(o) + " to pause");
    }
}

void Campaign::Restart(unsigned w) {
    writers_[w] = StartWriter(plan_, w, done_[w], ns_, in_call_);
    if (writers_[w].pid < 0) Fail("cannot restart writer " + std::to_string(w));
    ready_[w] = false;
    WaitFor([&] { return ready_[w]; }, "writer " + std::to_string(w) + " to restart");
}

void Campaign::Round(unsigned w) {
    Child &c = writers_[w];
    kill(c.pid, SIGKILL);
    f_.kills++;
    f_.rounds++;
    int status = 0;
    if (waitpid(c.pid, &status, 0) != c.pid) Fail("the killed writer could not be reaped");
    c.pid = -1;
    Word m{};
    while (read(c.rep, &m, sizeof m) == static_cast<ssize_t>(sizeof m)) Handle(static_cast<int>(w), m);
    CloseChild(&c);
    const uint32_t line = in_call_->line[w];
    in_call_->line[w] = 0;
    armed_[w] = died_[w] = false;
    f_.in_call += line != 0;
    const auto &items = plan_.items[w];
    const uint32_t redo = done_[w];
    const uint32_t redo_line = items[redo % items.size()];
    round_ = "round " + std::to_string(f_.rounds) + ": writer " + std::to_string(w) + " killed " +
             (line != 0 ? "inside" : "outside") + " the call of line " + std::to_string(redo_line + 1) +
             " (" + plan_.lines[redo_line].kind + "), which it then applied again from its start";
    PauseOthers(w);
    Restart(w);
    if (redo < target_[w]) {
        Send(writers_[w].cmd, kRunTo, redo + 1);
        WaitFor([&] { return done_[w] > redo; }, "the restarted writer " + std::to_string(w) + " to re-apply its item");
    }
    SyncShadow();
    const std::string kind = plan_.lines[redo_line].kind;
    Check(line != 0 && Known(ItemKind(kind)) ? ItemKind(kind) : "");
    if (!diverged_) CompareRound(kind);
    if (o_.verbose) printf("  %s: done\n", round_.c_str());
    round_.clear();
    for (unsigned o = 0; o < writers_.size(); o++) LetRun(o);
}

// One pass over the card with `kills` kills planned in it.
void Campaign::Pass(unsigned pass, unsigned kills) {
    PlanKills(pass, kills);
    for (size_t end : plan_.phase_end) {
        for (unsigned w = 0; w < writers_.size(); w++) {
            target_[w] = PhaseTarget(w, pass, end);
            LetRun(w);
        }
        const std::string what = "the writers to finish lines up to " + std::to_string(end) + " (" + plan_.lines[end - 1].kind + ")";
        WaitFor([&] {
            for (unsigned w = 0; w < writers_.size(); w++)
                if (done_[w] < target_[w]) return false;
            return true;
        }, what, true);
        if (end == plan_.churn_end && !diverged_)
            Compare(seq_card_, "those of the bring-up and churn in stream order");
    }
    EndPass(pass);
}

// A pass ends with the teardown: the tables must equal those of the stream
// in stream order, and check must pass.  After a re-application finding
// they may not; what is left is reported, and the campaign goes on from
// fresh tables and processes.
void Campaign::EndPass(unsigned pass) {
    SyncShadow();
    const std::string apart = Against(seq_whole_, ns_);
    f_.passes++;
    if (!diverged_) {
        if (!apart.empty()) Fail("the tables at the end of a pass differ from those of the stream in stream order:" + apart);
        return Check("");
    }
    printf("  what the finding(s) left at the end of the pass:%s\n", apart.empty() ? " nothing" : apart.c_str());
    Stop();
    vorn_host_remove_namespace(ns_.c_str());
    vorn_host_remove_namespace(shadow_ns_.c_str());
    diverged_ = false;
    accepted_.clear();
    Start(pass + 1);
}

// The tables of the stream applied in stream order by one process of the
// shadow's kind (pmdbctl replay registers no out-of-resource callback, so
// its bundle counters are not a port mapper's), at the end of the churn and
// of the whole card.
void Campaign::References() {
    Child seq = StartShadow(plan_, seq_ns_);
    if (seq.pid < 0) Fail("cannot start the reference process");
    std::string error;
    for (uint32_t i = 0; i < plan_.lines.size() && error.empty(); i++) {
        if (plan_.lines[i].writer == kEveryWriter) continue;
        Send(seq.cmd, kApply, i);
        if (i + 1 != plan_.churn_end && i + 1 != plan_.lines.size()) continue;
        Send(seq.cmd, kSync);
        Word m{};
        while (m.kind != kSynced) {
            pollfd p{seq.rep, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(o_.hang_ms)) != 1) Fail("hang: the reference process made no progress for the wait");
            if (read(seq.rep, &m, sizeof m) != static_cast<ssize_t>(sizeof m)) Fail("the reference process ended");
        }
        (i + 1 == plan_.churn_end ? seq_card_ : seq_whole_) = Tables(o_.pmdbctl, seq_ns_, &error);
    }
    CloseChild(&seq);
    kill(seq.pid, SIGKILL);
    waitpid(seq.pid, nullptr, 0);
    if (!error.empty()) Fail(error);
}

int Campaign::Run() {
    References();
    Start(0);
    const unsigned passes = o_.kills == 0 ? 1 : (o_.kills + o_.per_pass - 1) / o_.per_pass;
    const auto start = Clock::now();
    for (unsigned p = 0; p < passes; p++) Pass(p, std::min(o_.per_pass, o_.kills - p * o_.per_pass));
    SyncShadow();
    const double secs = std::chrono::duration<double>(Clock::now() - start).count();
    printf("crash campaign: seed %u, %u writers, card of %zu lines in %zu phases, %u pass(es), %.1f s\n",
           o_.shape.seed, o_.shape.writers, plan_.lines.size(), plan_.phase_end.size(), f_.passes, secs);
    printf("  kills          %u (%u inside a library call, %u between calls)\n", f_.kills, f_.in_call, f_.kills - f_.in_call);
    printf("  rounds         %u, each: check, tables against the shadow's\n", f_.rounds);
    printf("  violations     %u found by pmdbctl check, %u repaired by pmdbctl repair\n", f_.found, f_.repaired);
    std::string check_known;
    for (const auto &[kind, n] : f_.check_known) check_known += " " + kind + " x" + std::to_string(n);
    printf("  check known    %s\n", check_known.empty() ? "no check finding outlived the repair" : ("left after repair by a kill inside:" + check_known).c_str());
    printf("  retired lock   %u entr%s left with a retired lock by a killed removal\n", f_.retired, f_.retired == 1 ? "y" : "ies");
    std::string unsafe;
    for (const auto &[kind, n] : f_.unsafe) unsafe += " " + kind + " x" + std::to_string(n);
    printf("  re-applied     %s\n", unsafe.empty() ? "every interrupted item left what one application leaves" : ("items that did not:" + unsafe + " (" + std::to_string(f_.unknown_unsafe) + " not known)").c_str());
    printf("  longest wait   %.1f ms (%s)\n", f_.longest_ms, f_.longest_what.c_str());
    printf("  result         %s\n", f_.unknown_unsafe == 0 ? "passed" : "FAILED: new re-application findings");
    Cleanup();
    return f_.unknown_unsafe == 0 ? 0 : 1;
}

}  // namespace
}  // namespace campaign

int main(int argc, char **argv) {
    campaign::Options o;
    CLI::App app{"Crash campaign: writers replay a generated card while they are killed and restarted"};
    app.add_option("--kills", o.kills, "kills in all")->capture_default_str();
    app.add_option("--per-pass", o.per_pass, "kills in one pass over the card")->check(CLI::PositiveNumber)->capture_default_str();
    app.add_option("--seed", o.shape.seed, "seed of the card, the kills and their moments")->capture_default_str();
    app.add_option("--writers", o.shape.writers, "writer processes")->capture_default_str();
    app.add_option("--members", o.shape.members, "members per bundle")->capture_default_str();
    app.add_option("--churn", o.shape.churn, "flaps in the churn")->capture_default_str();
    app.add_option("--hang-ms", o.hang_ms, "no report for this long is a hang")->capture_default_str();
    app.add_option("--max-offset-us", o.max_offset_us, "a kill lands at most this far into an item")->capture_default_str();
    app.add_option("--pmdbctl", o.pmdbctl, "the pmdbctl program")->capture_default_str();
    app.add_option("--known-unsafe", o.known_unsafe, "kinds of item known not to be safe to apply again (sub_add ...)")->delimiter(',');
    app.add_flag("--keep", o.keep, "keep the shared objects of a failed campaign");
    app.add_flag("--verbose", o.verbose, "one line per round");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    signal(SIGPIPE, SIG_IGN);
    campaign::Plan plan;
    const std::string bad = campaign::MakePlan(o.pmdbctl, o.shape, &plan);
    if (!bad.empty()) {
        fprintf(stderr, "crash campaign: %s\n", bad.c_str());
        return 2;
    }
    return campaign::Campaign(o, plan).Run();
}
