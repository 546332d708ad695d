#include "pmdb_test.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "host/kemt_host.h"
#include "host/os_host.h"
#include "host/pm_fault.h"
#include "host/settings.h"

extern char **environ;

namespace pmdb::test {

/* ---- traces -------------------------------------------------------------- */

TraceMark TraceMark::Now() {
    TraceMark m;
    for (int k = 0; k < VESK_KINDS; k++) m.seq[k] = vesk_mark(vesk_open((vesk_kind_t)k));
    return m;
}

std::vector<vesk_rec_t> TracesSince(const TraceMark &mark, vesk_kind_t kind) {
    const vesk_buf_t *buf = vesk_open(kind);
    std::vector<vesk_rec_t> out(vesk_capacity(buf));
    uint64_t lost = 0;
    out.resize(vesk_read(buf, mark.seq[kind], out.data(), out.size(), nullptr, &lost));
    return out;
}

std::vector<vesk_rec_t> FindTraces(const TraceMark &mark, vesk_kind_t kind, uint32_t point) {
    std::vector<vesk_rec_t> found;
    for (const vesk_rec_t &r : TracesSince(mark, kind))
        if (r.point == point) found.push_back(r);
    return found;
}

namespace {

/* Exit codes of a child whose body failed a gtest expectation or threw. */
constexpr int kChildFailedExpectation = 101;
constexpr int kChildThrew = 102;

std::string Join(const uint64_t *args, size_t n) {
    std::ostringstream os;
    for (size_t i = 0; i < n; i++) os << (i ? ", " : "") << args[i];
    return os.str();
}

/* One line per record: "error 58 (0x1020000003a) [2621472] \"name\" pid 12". */
std::string ListRecords(vesk_kind_t kind, const std::vector<vesk_rec_t> &recs) {
    std::ostringstream os;
    for (const vesk_rec_t &r : recs) {
        os << "\n  " << vesk_kind_name(kind) << ' ' << r.point << " (0x" << std::hex << r.id
           << std::dec << ") [" << Join(r.args, r.nargs) << ']';
        if (r.is_string) os << " \"" << r.str << '"';
        os << " pid " << r.pid;
    }
    return recs.empty() ? "\n  (none)" : os.str();
}

bool RecordMatches(const vesk_rec_t &r, const std::vector<uint64_t> &args, const char *str) {
    if (r.nargs != args.size() || !std::equal(args.begin(), args.end(), r.args)) return false;
    return str == nullptr ? !r.is_string : r.is_string && strcmp(r.str, str) == 0;
}

}  // namespace

::testing::AssertionResult TraceWritten(const TraceMark &mark, vesk_kind_t kind, uint32_t point,
                                        const std::vector<uint64_t> &args, const char *str) {
    const std::vector<vesk_rec_t> all = TracesSince(mark, kind);
    for (const vesk_rec_t &r : all)
        if (r.point == point && RecordMatches(r, args, str)) return ::testing::AssertionSuccess();
    ::testing::AssertionResult r = ::testing::AssertionFailure();
    r << "no " << vesk_kind_name(kind) << " trace " << point << " [" << Join(args.data(), args.size())
      << ']';
    if (str != nullptr) r << " \"" << str << '"';
    return r << "; " << vesk_kind_name(kind) << " records since the mark:" << ListRecords(kind, all);
}

::testing::AssertionResult TraceNotWritten(const TraceMark &mark, vesk_kind_t kind,
                                           uint32_t point) {
    const std::vector<vesk_rec_t> found = FindTraces(mark, kind, point);
    if (found.empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << vesk_kind_name(kind) << " trace " << point
                                         << " was written:" << ListRecords(kind, found);
}

/* ---- platform call log --------------------------------------------------- */

std::vector<pm_call_rec_t> CallLog(const std::string &prefix) {
    std::vector<pm_call_rec_t> log(PM_CALLLOG_CAPACITY);
    log.resize(std::min(pm_calllog_get(log.data(), log.size()), log.size()));
    std::vector<pm_call_rec_t> out;
    for (const pm_call_rec_t &r : log)
        if (strncmp(r.call, prefix.c_str(), prefix.size()) == 0) out.push_back(r);
    return out;
}

std::vector<std::string> CallNames(const std::string &prefix) {
    std::vector<std::string> names;
    for (const pm_call_rec_t &r : CallLog(prefix)) names.emplace_back(r.call);
    return names;
}

/* ---- processes ----------------------------------------------------------- */

std::string ChildResult::Describe() const {
    std::ostringstream os;
    if (exited)
        os << "exited with " << exit_code;
    else
        os << "killed by signal " << signal << " (" << strsignal(signal) << ')';
    if (timed_out) os << " after timing out";
    return os.str();
}

namespace {

/* Reaps pid within timeout, killing it with SIGKILL after the timeout. */
ChildResult Reap(pid_t pid, std::chrono::milliseconds timeout) {
    ChildResult r;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    for (;;) {
        const pid_t got = waitpid(pid, &status, WNOHANG);
        if (got == pid) break;
        if (got < 0) return r;
        if (std::chrono::steady_clock::now() >= deadline && !r.timed_out) {
            r.timed_out = true;
            kill(pid, SIGKILL);
        }
        std::this_thread::sleep_for(1ms);
    }
    r.exited = WIFEXITED(status);
    r.exit_code = r.exited ? WEXITSTATUS(status) : -1;
    r.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return r;
}

/* The child's exit: its own result unless it failed an expectation. */
[[noreturn]] void ChildExit(const std::function<int()> &body) {
    int code = kChildThrew;
    try {
        code = body();
    } catch (...) {
    }
    if (::testing::Test::HasFailure()) code = kChildFailedExpectation;
    fflush(nullptr);
    _exit(code);
}

pid_t ForkChild() {
    fflush(nullptr);
    return fork();
}

}  // namespace

ChildResult RunInChildProcess(const std::function<int()> &body, std::chrono::milliseconds timeout) {
    return ChildProcess([&body](ChildLink &) { return body(); }).Wait(timeout);
}

void ChildLink::Ready() {
    const char c = 'r';
    if (write(ready_fd_, &c, 1) != 1) _exit(kChildThrew);
}

bool ChildLink::WaitRelease() {
    char c = 0;
    return TEMP_FAILURE_RETRY(read(release_fd_, &c, 1)) == 1;
}

ChildProcess::ChildProcess(std::function<int(ChildLink &)> body) {
    int ready[2], release[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(release, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe failed: " << strerror(errno);
        return;
    }
    pid_ = ForkChild();
    if (pid_ == 0) {
        close(ready[0]);
        close(release[1]);
        ChildLink link;
        link.ready_fd_ = ready[1];
        link.release_fd_ = release[0];
        ChildExit([&] { return body(link); });
    }
    close(ready[1]);
    close(release[0]);
    ready_fd_ = ready[0];
    release_fd_ = release[1];
    if (pid_ < 0) ADD_FAILURE() << "fork failed: " << strerror(errno);
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && !reaped_) {
        kill(pid_, SIGKILL);
        Wait(10s);
    }
    if (ready_fd_ >= 0) close(ready_fd_);
    if (release_fd_ >= 0) close(release_fd_);
}

bool ChildProcess::WaitReady(std::chrono::milliseconds timeout) {
    if (ready_fd_ < 0) return false;
    pollfd p{ready_fd_, POLLIN, 0};
    if (poll(&p, 1, (int)timeout.count()) != 1) return false;
    char c = 0;
    return read(ready_fd_, &c, 1) == 1;
}

void ChildProcess::Release() {
    const char c = 'g';
    if (release_fd_ >= 0 && write(release_fd_, &c, 1) != 1)
        ADD_FAILURE() << "could not release child " << pid_;
}

void ChildProcess::Kill(int sig) {
    if (pid_ > 0 && !reaped_) kill(pid_, sig);
}

ChildResult ChildProcess::Wait(std::chrono::milliseconds timeout) {
    if (pid_ > 0 && !reaped_) {
        result_ = Reap(pid_, timeout);
        reaped_ = true;
    }
    return result_;
}

std::unique_ptr<ChildProcess> StartHeldChild(std::function<void()> before,
                                             std::function<void()> after) {
    return std::make_unique<ChildProcess>([before, after](ChildLink &link) {
        if (before) before();
        link.Ready();
        if (!link.WaitRelease()) return 0;
        if (after) after();
        return 0;
    });
}

void RunAtOnce(size_t n, const std::function<void()> &setup,
               const std::function<void(size_t)> &work) {
    std::vector<std::unique_ptr<ChildProcess>> child;
    for (size_t i = 0; i < n; i++) child.push_back(StartHeldChild(setup, [i, &work] { work(i); }));
    for (auto &c : child) ASSERT_TRUE(c->WaitReady());
    for (auto &c : child) c->Release();
    for (auto &c : child) {
        const ChildResult r = c->Wait();
        EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
    }
}

/* ---- programs ------------------------------------------------------------ */

namespace {

std::atomic<unsigned> g_tool_counter{0};

std::string ReadFile(const std::string &path) {
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

}  // namespace

Tool::Tool(const std::string &path, const std::vector<std::string> &args) {
    const std::string base = "/tmp/pmdb_tool." + std::to_string(getpid()) + "." +
                             std::to_string(g_tool_counter++);
    out_path_ = base + ".out";
    err_path_ = base + ".err";
    child_ = std::make_unique<ChildProcess>([&](ChildLink &) -> int {
        const int o = open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int e = open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
        std::vector<char *> argv{const_cast<char *>(path.c_str())};
        for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execvp(path.c_str(), argv.data());
        _exit(127);
    });
}

Tool::~Tool() {
    child_.reset();
    unlink(out_path_.c_str());
    unlink(err_path_.c_str());
}

std::string Tool::OutSoFar() const { return ReadFile(out_path_); }
std::string Tool::ErrSoFar() const { return ReadFile(err_path_); }

/* Bounded below the test timeout: a tool that hangs fails its test. */
ToolRun Tool::Finish() {
    const ChildResult c = child_->Wait(240s);
    ToolRun r;
    r.status = c.exited ? c.exit_code : c.signal != 0 ? -c.signal : -1;
    r.out = ReadFile(out_path_);
    r.err = ReadFile(err_path_);
    return r;
}

ToolRun RunTool(const std::string &path, const std::vector<std::string> &args) {
    return Tool(path, args).Finish();
}

bool WaitUntilBlockedOnFutex(pid_t tid) {
    const std::string path = "/proc/" + std::to_string(tid) + "/wchan";
    for (int i = 0; i < 10000; i++, usleep(1000)) {
        std::string wchan;
        std::ifstream(path) >> wchan;
        if (wchan.find("futex") != std::string::npos) return true;
    }
    return false;
}

std::vector<std::string> Words(const std::string &line) {
    std::vector<std::string> words;
    std::istringstream in(line);
    for (std::string w; in >> w;) words.push_back(w);
    return words;
}

/* ---- fixture ------------------------------------------------------------- */

namespace {

std::atomic<unsigned> g_ns_counter{0};

/* Removes the namespaces "t<pid>_<n>" left by test processes that died
 * before their TearDown. */
void SweepDeadNamespaces() {
    DIR *dir = opendir("/dev/shm");
    if (dir == nullptr) return;
    for (dirent *de = readdir(dir); de != nullptr; de = readdir(dir)) {
        const char *name = strncmp(de->d_name, "sem.", 4) == 0 ? de->d_name + 4 : de->d_name;
        unsigned long pid = 0;
        unsigned n = 0;
        char dot = 0;
        if (sscanf(name, "t%lu_%u%c", &pid, &n, &dot) != 3 || dot != '.') continue;
        if (kill((pid_t)pid, 0) == 0 || errno != ESRCH) continue;
        unlink((std::string("/dev/shm/") + de->d_name).c_str());
    }
    closedir(dir);
}

void ClearPmdbEnvironment() {
    std::vector<std::string> names;
    for (char **e = environ; *e != nullptr; e++) {
        if (strncmp(*e, "PMDB_", 5) != 0) continue;
        const char *eq = strchr(*e, '=');
        names.emplace_back(*e, eq != nullptr ? (size_t)(eq - *e) : strlen(*e));
    }
    for (const std::string &n : names) unsetenv(n.c_str());
}

}  // namespace

std::string UniqueNamespace() {
    return "t" + std::to_string(getpid()) + "_" + std::to_string(g_ns_counter++);
}

void PmdbTest::SetUp() {
    static std::once_flag swept;
    std::call_once(swept, SweepDeadNamespaces);
    ClearPmdbEnvironment();
    ns_ = UniqueNamespace();
    ASSERT_EQ(vorn_host_set_namespace(ns_.c_str()), 0);
    setenv(VORN_NS_ENV, ns_.c_str(), 1);
    pm_fault_clear();
    pm_calllog_enable(0);
    pm_calllog_clear();
    halvo_host_reset();
    platform_host_reset();
    vorn_host_sysctl_reset();
    vesk_host_set_records(0);
    kemt_host_reset();
    mark_ = TraceMark::Now();
}

void PmdbTest::TearDown() {
    pm_fault_clear();
    vorn_host_remove_namespace(ns_.c_str());
    vorn_host_set_namespace(nullptr);
    unsetenv(VORN_NS_ENV);
}

void PmdbTest::ExpectTrace(vesk_kind_t kind, uint32_t point, std::initializer_list<uint64_t> args,
                           const char *str, const char *file, int line) const {
    const ::testing::AssertionResult r = TraceWritten(mark_, kind, point, args, str);
    if (!r) ADD_FAILURE_AT(file, line) << r.message();
}

void PmdbTest::ExpectNoTrace(vesk_kind_t kind, uint32_t point, const char *file,
                             int line) const {
    const ::testing::AssertionResult r = TraceNotWritten(mark_, kind, point);
    if (!r) ADD_FAILURE_AT(file, line) << r.message();
}

}  // namespace pmdb::test
