/*
 * pmdb_test.h - shared test support: a fixture with a private namespace
 * (PmdbTest), trace expectations, helpers for child processes and for
 * programs (the tools) run as a user runs them.
 */
#ifndef PMDB_TEST_SUPPORT_H
#define PMDB_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "host/pm_fault.h"
#include "host/vesk_reader.h"

namespace pmdb::test {

using namespace std::chrono_literals;

/* ---- traces -------------------------------------------------------------- */

/* Sequence numbers of the three trace buffers of the current namespace. */
struct TraceMark {
    uint64_t seq[VESK_KINDS] = {};
    static TraceMark Now();
};

/* Records written to `kind` since `mark` (at most the ring's capacity), and
 * those of them with trace point `point`. */
std::vector<vesk_rec_t> TracesSince(const TraceMark &mark, vesk_kind_t kind);
std::vector<vesk_rec_t> FindTraces(const TraceMark &mark, vesk_kind_t kind, uint32_t point);

/* Successful when a record of `point` with exactly `args` (same count) was
 * written to `kind` since mark; with `str`, the record must be a string
 * record of that text.  The failure message lists what was written. */
::testing::AssertionResult TraceWritten(const TraceMark &mark, vesk_kind_t kind, uint32_t point,
                                        const std::vector<uint64_t> &args,
                                        const char *str = nullptr);
/* Successful when no record of `point` was written to `kind` since mark. */
::testing::AssertionResult TraceNotWritten(const TraceMark &mark, vesk_kind_t kind,
                                           uint32_t point);

/* ---- platform call log --------------------------------------------------- */

/* Platform calls recorded since the log was last cleared (pm_fault.h), in
 * call order; with `prefix`, only those whose name starts with it. */
std::vector<pm_call_rec_t> CallLog(const std::string &prefix = "");
/* Their names. */
std::vector<std::string> CallNames(const std::string &prefix = "");

/* ---- processes ----------------------------------------------------------- */

struct ChildResult {
    bool exited = false;    /* ended through exit */
    int exit_code = -1;     /* when exited */
    int signal = 0;         /* terminating signal, when not exited */
    bool timed_out = false; /* killed by the helper after the timeout */
    bool ExitedWith(int code) const { return exited && exit_code == code; }
    bool KilledBy(int sig) const { return !exited && signal == sig; }
    std::string Describe() const;
};

ChildResult RunInChildProcess(const std::function<int()> &body, std::chrono::milliseconds timeout);

/* Runs body (returning int, or void meaning 0) in a forked child and waits
 * for it; the child exits with the body's result (101 when it failed an
 * EXPECT, 102 when it threw).  After `timeout` the child is killed with
 * SIGKILL and timed_out is set. */
template <class Body>
ChildResult RunInChild(Body &&body, std::chrono::milliseconds timeout = 60s) {
    return RunInChildProcess(
        [&body] {
            if constexpr (std::is_void_v<std::invoke_result_t<Body>>) {
                body();
                return 0;
            } else {
                return static_cast<int>(body());
            }
        },
        timeout);
}

/* Child side of a ChildProcess handshake. */
class ChildLink {
public:
    /* Tells the parent the child is ready (ChildProcess::WaitReady returns). */
    void Ready();
    /* Blocks until the parent calls Release (true), or it died (false). */
    bool WaitRelease();

private:
    friend class ChildProcess;
    int ready_fd_ = -1;
    int release_fd_ = -1;
};

/* A forked child that the parent can synchronise with, release or kill.
 * The destructor kills (SIGKILL) and reaps a child that still runs. */
class ChildProcess {
public:
    explicit ChildProcess(std::function<int(ChildLink &)> body);
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    pid_t pid() const { return pid_; }
    /* True once the child called Ready; false when it ended or timed out. */
    bool WaitReady(std::chrono::milliseconds timeout = 30s);
    void Release();
    void Kill(int sig = SIGKILL);
    ChildResult Wait(std::chrono::milliseconds timeout = 60s);

private:
    pid_t pid_ = -1;
    int ready_fd_ = -1;
    int release_fd_ = -1;
    bool reaped_ = false;
    ChildResult result_;
};

/* Starts a child that runs `before`, reports ready, and then waits to be
 * released (exits 0 after `after`, when given) or killed. */
std::unique_ptr<ChildProcess> StartHeldChild(std::function<void()> before,
                                             std::function<void()> after = {});

/* Runs work(0) .. work(n - 1) in n children released together, after each
 * ran `setup`; a child fails when its work adds a gtest failure, and every
 * child must exit 0. */
void RunAtOnce(size_t n, const std::function<void()> &setup,
               const std::function<void(size_t)> &work);

/* Waits (up to 10 s, a hang detector) until the process or thread `tid`
 * sleeps in a futex wait (a mutex or semaphore it waits for); false when
 * it never does. */
bool WaitUntilBlockedOnFutex(pid_t tid);

/* ---- programs ------------------------------------------------------------ */

/* What a program run by a test did. */
struct ToolRun {
    int status = -1;  /* exit status; -signal when a signal ended it */
    std::string out;  /* standard output */
    std::string err;  /* standard error */
};

/* A program started by a test (no shell; `path` is looked up in PATH when
 * it has no slash), with its standard output and error going to files of
 * its own.  It inherits the environment, so PMDB_NS names the test's
 * namespace.  The destructor kills (SIGKILL) and reaps a program still
 * running and removes the files. */
class Tool {
public:
    Tool(const std::string &path, const std::vector<std::string> &args);
    ~Tool();

    pid_t pid() const { return child_->pid(); }
    /* What it has written to standard output (error) so far. */
    std::string OutSoFar() const;
    std::string ErrSoFar() const;
    /* Waits for its end. */
    ToolRun Finish();

private:
    std::string out_path_;
    std::string err_path_;
    std::unique_ptr<ChildProcess> child_;
};

/* Runs `path` with `args` to its end. */
ToolRun RunTool(const std::string &path, const std::vector<std::string> &args);
/* The words of `line`, split at spaces (no quoting). */
std::vector<std::string> Words(const std::string &line);

/* ---- fixture ------------------------------------------------------------- */

/* Base fixture: a fresh namespace per test ("t<pid>_<n>", also exported as
 * PMDB_NS so children inherit it), no PMDB_* environment settings, all host
 * overrides, faults and the call log cleared, and a trace mark taken at the
 * start.  TearDown removes every object of the namespace. */
class PmdbTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    const std::string &ns() const { return ns_; }
    /* Takes a new trace mark; later expectations look only after it. */
    void MarkTraces() { mark_ = TraceMark::Now(); }
    const TraceMark &mark() const { return mark_; }

    std::vector<vesk_rec_t> Traces(vesk_kind_t kind) const { return TracesSince(mark_, kind); }
    size_t CountTraces(vesk_kind_t kind, uint32_t point) const {
        return FindTraces(mark_, kind, point).size();
    }
    /* Failures are reported at the caller's file and line. */
    void ExpectTrace(vesk_kind_t kind, uint32_t point, std::initializer_list<uint64_t> args,
                     const char *str = nullptr, const char *file = __builtin_FILE(),
                     int line = __builtin_LINE()) const;
    void ExpectNoTrace(vesk_kind_t kind, uint32_t point, const char *file = __builtin_FILE(),
                       int line = __builtin_LINE()) const;

private:
    std::string ns_;
    TraceMark mark_;
};

/* A fresh namespace name unique in this process and among live processes. */
std::string UniqueNamespace();

}  // namespace pmdb::test

#endif
