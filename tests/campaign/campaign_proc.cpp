// The campaign's processes: writers and the shadow, which call the library,
// and programs run with a bounded wait.
//
// A writer or the shadow talks to the supervisor over two pipes of its own
// (commands in, reports out) and holds no other descriptor of the
// supervisor's, so that a dead writer's report pipe ends when it does and a
// supervisor that ends takes every child with it (end of file on the
// command pipe, and the parent-death signal).
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>

#include "campaign.h"
#include "pmdb.h"

namespace campaign {
namespace {

using pmdbctl::StreamLine;
using pmdbctl::StreamOp;
using Clock = std::chrono::steady_clock;

// Where a child keeps its two pipe ends, above anything it inherits.
constexpr int kChildIn = 200, kChildOut = 201;

bool ReadWord(int fd, Word *w) { return read(fd, w, sizeof *w) == static_cast<ssize_t>(sizeof *w); }

void Reply(MsgKind kind, uint32_t value) {
    const Word w{kind, value};
    if (write(kChildOut, &w, sizeof w) != static_cast<ssize_t>(sizeof w)) _exit(3);
}

// The entry point of line `l`, as pmdbctl replay calls it.  A call the
// library refuses is not retried: the tables, compared with the shadow's,
// judge the outcome.
void ApplyLine(StreamLine l) {
    u32 bundle = 0, state = 0, changed = 0, slot = 0;
    switch (l.op) {
    case StreamOp::kEvent:
        return dpa_pmdb_oper(&l.event, l.node);
    case StreamOp::kOamEvent:
        return dpa_pmdb_oam_oper(&l.event);
    case StreamOp::kOor:
        (void)dpa_pmdb_update_bundle_oor_state(l.ifh, l.state, l.reason, &bundle, &state,
                                               &changed, &slot);
        return;
    case StreamOp::kBundleOor:
        (void)dpa_pmdb_set_bundle_oor_state(l.ifh, static_cast<i32>(l.state), l.reason, &slot);
        return;
    case StreamOp::kInventoryAdd:
        (void)pm_port_inv_entry_add(l.node_id, l.node_index, l.npu_index, l.high_scale);
        return;
    case StreamOp::kInventoryRemove:
        (void)pm_port_inv_entry_remove(l.node_id);
        return;
    }
}

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

bool CommandWaiting() {
    pollfd p{kChildIn, POLLIN, 0};
    return poll(&p, 1, 0) > 0;
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

[[noreturn]] void WriterMain(const Plan &plan, unsigned w, uint32_t start, InCall *in_call) {
    Prepare(plan);
    Reply(kReady, start);
    const std::vector<uint32_t> &items = plan.items[w];
    uint32_t pos = start, limit = start;
    for (;;) {
        if (pos < limit && !CommandWaiting()) {
            const uint32_t line = items[pos % items.size()];
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
        if (c.kind != kPause) continue;
        limit = pos;
        Reply(kPaused, pos);
    }
}

[[noreturn]] void ShadowMain(const Plan &plan) {
    Prepare(plan);
    Reply(kReady, 0);
    for (Word c{}; ReadWord(kChildIn, &c);) {
        if (c.kind == kApply && c.value < plan.lines.size()) ApplyLine(plan.lines[c.value].parsed);
        if (c.kind == kSync) Reply(kSynced, 0);
    }
    _exit(0);
}

// Forks a child that runs body() in namespace ns with only its two pipe
// ends (and stdin, stdout, stderr) open.
template <class Body>
Child Fork(const std::string &ns, Body body) {
    int in[2], out[2];
    if (pipe(in) != 0) return {};
    if (pipe(out) != 0) {
        close(in[0]);
        close(in[1]);
        return {};
    }
    const pid_t parent = getpid();
    Child c;
    c.pid = fork();
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
        body();
    }
    close(in[0]);
    close(out[1]);
    c.cmd = in[1];
    c.rep = out[0];
    if (c.pid < 0) CloseChild(&c);
    return c;
}

}  // namespace

Child StartWriter(const Plan &plan, unsigned w, uint32_t start, const std::string &ns,
                  InCall *in_call) {
    return Fork(ns, [&] { WriterMain(plan, w, start, in_call); });
}

Child StartShadow(const Plan &plan, const std::string &ns) {
    return Fork(ns, [&] { ShadowMain(plan); });
}

void CloseChild(Child *c) {
    if (c->cmd >= 0) close(c->cmd);
    if (c->rep >= 0) close(c->rep);
    c->cmd = c->rep = -1;
}

bool Send(int fd, CmdKind kind, uint32_t value) {
    const Word w{kind, value};
    return write(fd, &w, sizeof w) == static_cast<ssize_t>(sizeof w);
}

namespace {

// Reads fds[0] and fds[1] to their ends into out[0] and out[1], until the
// deadline; false when it passed first.
bool ReadBoth(int fds[2], std::string *out[2], Clock::time_point deadline) {
    int open = 2;
    char buf[4096];
    while (open > 0) {
        pollfd p[2] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        if (poll(p, 2, static_cast<int>(left.count())) <= 0) continue;
        for (int i = 0; i < 2; i++) {
            if (fds[i] < 0 || p[i].revents == 0) continue;
            const ssize_t n = read(fds[i], buf, sizeof buf);
            if (n > 0) {
                out[i]->append(buf, static_cast<size_t>(n));
                continue;
            }
            close(fds[i]);
            fds[i] = -1;
            open--;
        }
    }
    return true;
}

// Waits for pid until the deadline; true with *status when it ended.
bool WaitUntil(pid_t pid, Clock::time_point deadline, int *status) {
    for (;;) {
        if (waitpid(pid, status, WNOHANG) == pid) return true;
        if (Clock::now() >= deadline) return false;
        const timespec ts{0, 1000000};
        nanosleep(&ts, nullptr);
    }
}

}  // namespace

ToolResult RunTool(const std::vector<std::string> &argv, unsigned timeout_ms) {
    ToolResult r;
    int out[2], err[2];
    if (pipe(out) != 0 || pipe(err) != 0) return r;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        close_range(3, ~0u, 0);
        std::vector<char *> args;
        for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    int fds[2] = {out[0], err[0]};
    std::string *texts[2] = {&r.out, &r.err};
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    int status = 0;
    r.timed_out = pid < 0 || !ReadBoth(fds, texts, deadline) || !WaitUntil(pid, deadline, &status);
    for (int fd : fds)
        if (fd >= 0) close(fd);
    if (r.timed_out) {
        if (pid > 0) kill(pid, SIGKILL);
        if (pid > 0) waitpid(pid, &status, 0);
        return r;
    }
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return r;
}

}  // namespace campaign
