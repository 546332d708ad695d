// Entry locks with the thread library's calls made to fail on demand (the
// executable is linked with --wrap for them): the fatal assertions of the
// lock initialisation, the bound on lock attempts, and how many attempts
// each broken lock state takes.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "pmdb.h"
#include "pmdb_test.h"

extern "C" {
int __real_pthread_mutexattr_init(pthread_mutexattr_t *);
int __real_pthread_mutexattr_settype(pthread_mutexattr_t *, int);
int __real_pthread_mutexattr_setpshared(pthread_mutexattr_t *, int);
int __real_pthread_mutexattr_setrobust(pthread_mutexattr_t *, int);
int __real_pthread_mutex_init(pthread_mutex_t *, const pthread_mutexattr_t *);
int __real_pthread_mutexattr_destroy(pthread_mutexattr_t *);
int __real_pthread_mutex_trylock(pthread_mutex_t *);
}

namespace {

// One call is made to fail: its `nth` call from now (1 = the next one), or
// its next `times` calls from the nth on.
struct Failure {
    std::string call;
    int nth = 0;
    int times = 0;
    int result = 0;
};
Failure g_failure;
std::atomic<int> g_calls{0};     // calls of g_failure.call since armed
std::atomic<int> g_trylocks{0};  // every try-lock, armed or not

void Arm(const char *call, int nth, int result, int times = 1) {
    g_failure = Failure{call, nth, times, result};
    g_calls = 0;
}

// The armed result for this call of `call`, or 0 to go ahead.
int Fault(const char *call) {
    if (g_failure.call != call) return 0;
    const int n = ++g_calls;
    return n >= g_failure.nth && n < g_failure.nth + g_failure.times ? g_failure.result : 0;
}

}  // namespace

extern "C" {
int __wrap_pthread_mutexattr_init(pthread_mutexattr_t *a) {
    const int f = Fault("attr_init");
    return f != 0 ? f : __real_pthread_mutexattr_init(a);
}
int __wrap_pthread_mutexattr_settype(pthread_mutexattr_t *a, int t) {
    const int f = Fault("settype");
    return f != 0 ? f : __real_pthread_mutexattr_settype(a, t);
}
int __wrap_pthread_mutexattr_setpshared(pthread_mutexattr_t *a, int p) {
    const int f = Fault("setpshared");
    return f != 0 ? f : __real_pthread_mutexattr_setpshared(a, p);
}
// Both robustness calls of the lock initialisation arrive here (the older
// name is an alias of this one): the first is the older, the second the
// standard one.
int __wrap_pthread_mutexattr_setrobust(pthread_mutexattr_t *a, int r) {
    const int f = Fault("setrobust");
    return f != 0 ? f : __real_pthread_mutexattr_setrobust(a, r);
}
int __wrap_pthread_mutex_init(pthread_mutex_t *m, const pthread_mutexattr_t *a) {
    const int f = Fault("mutex_init");
    return f != 0 ? f : __real_pthread_mutex_init(m, a);
}
int __wrap_pthread_mutexattr_destroy(pthread_mutexattr_t *a) {
    const int f = Fault("attr_destroy");
    return f != 0 ? f : __real_pthread_mutexattr_destroy(a);
}
int __wrap_pthread_mutex_trylock(pthread_mutex_t *m) {
    ++g_trylocks;
    const int f = Fault("trylock");
    return f != 0 ? f : __real_pthread_mutex_trylock(m);
}
}

namespace {

using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;
using namespace std::chrono_literals;

std::string LockAssertion(const char *function, const char *expr, unsigned line) {
    std::string re = "platforms/common/dnx/port-mapper/lib/pmdb/src/dnx_pmdb_lock:" +
                     std::to_string(line) + ": " + function + ": Assertion `" + expr + "' failed";
    std::string escaped;
    for (char c : re) {
        if (strchr("()*[]", c) != nullptr) escaped += '\\';
        escaped += c;
    }
    return escaped;
}

std::string InitAssertion(unsigned line) {
    return LockAssertion("void pmdb_lock_init(pellin_mutex_type *)", "rc == 0", line);
}

class FrameWrappedTest : public PmdbTest {
protected:
    void SetUp() override {
        PmdbTest::SetUp();
        Arm("", 0, 0);
        dnx_db_hdl_t *hdl = nullptr;
        ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM), 0u);
        lock_ = &hdl->shrd_ctx->entry_lock[99];
        pmdb_lock_init(lock_);
    }
    void TearDown() override {
        Arm("", 0, 0);
        PmdbTest::TearDown();
    }
    // pmdb_entry_lock on lock_, counting its try-locks.
    cerrno LockCounting(int *trylocks) {
        const int before = g_trylocks.load();
        const cerrno rc = pmdb_entry_lock(lock_);
        *trylocks = g_trylocks.load() - before;
        return rc;
    }
    pellin_mutex_type *lock_ = nullptr;
};
using FrameWrappedDeathTest = FrameWrappedTest;

TEST_F(FrameWrappedDeathTest, EachFailingInitialisationCallStopsAtItsLine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Case {
        const char *call;
        int nth;
        unsigned line;
    } cases[] = {
        {"attr_init", 1, 52},  {"settype", 1, 52},   {"setpshared", 1, 55},
        {"setrobust", 1, 55},  {"setrobust", 2, 61}, {"mutex_init", 1, 68},
        {"attr_destroy", 1, 77},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.call) + " #" + std::to_string(c.nth));
        EXPECT_DEATH(
            {
                Arm(c.call, c.nth, EINVAL);
                pmdb_lock_init(lock_);
            },
            InitAssertion(c.line));
    }
}

TEST_F(FrameWrappedTest, InitialisationWithoutFailuresPassesEveryCheck) {
    Arm("setrobust", 3, EINVAL);  // a third call would be one too many
    pmdb_lock_init(lock_);
    EXPECT_EQ(g_calls.load(), 2) << "robustness is set twice";
    EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
}

TEST_F(FrameWrappedTest, NineAttemptsMayEndInSuccess) {
    Arm("trylock", 1, EAGAIN, 8);
    int trylocks = 0;
    EXPECT_EQ(LockCounting(&trylocks), 0u);
    EXPECT_EQ(trylocks, 9);
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
}

TEST_F(FrameWrappedDeathTest, TheTenthAttemptStopsWhateverItsResult) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string expected = LockAssertion(
        "cerrno pmdb_entry_lock(pellin_mutex_type *)", "loop_count < 10", 125);
    EXPECT_DEATH(
        {
            Arm("trylock", 1, EAGAIN, 9);  // the tenth try-lock succeeds
            pmdb_entry_lock(lock_);
        },
        expected);
    EXPECT_DEATH(
        {
            Arm("trylock", 1, EINVAL, 1000);  // a rebuild that never sticks
            pmdb_entry_lock(lock_);
        },
        expected);
}

TEST_F(FrameWrappedTest, BrokenLocksTakeOneRebuildEach) {
    int trylocks = 0;
    // destroyed: rejected as invalid, rebuilt, taken
    pthread_mutex_destroy(lock_);
    EXPECT_EQ(LockCounting(&trylocks), 0u);
    EXPECT_EQ(trylocks, 2);
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);

    // retired by a remover: the same
    ASSERT_EQ(pmdb_lock_destroy(lock_), 0u);
    EXPECT_EQ(LockCounting(&trylocks), 0u);
    EXPECT_EQ(trylocks, 2);
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);

    // holder killed: one attempt
    auto holder = pmdb::test::StartHeldChild([this] {
        if (pmdb_entry_lock(lock_) != 0) _exit(7);
    });
    ASSERT_TRUE(holder->WaitReady());
    holder->Kill(SIGKILL);
    ASSERT_TRUE(holder->Wait().KilledBy(SIGKILL));
    EXPECT_EQ(LockCounting(&trylocks), 0u);
    EXPECT_EQ(trylocks, 1);
    ExpectTrace(VESK_DATABASE, 69, {});

    // not recoverable (unlocked without being made consistent): rebuilt
    ASSERT_EQ(pmdb_entry_unlock(lock_), 0u);
    auto r = RunInChild([this] { return pmdb_entry_lock(lock_) == 0 ? 0 : 1; }, 10s);
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();  // it ended holding the lock
    auto spoil = RunInChild(
        [this] {
            if (pthread_mutex_lock(lock_) != EOWNERDEAD) return 1;
            return pthread_mutex_unlock(lock_);
        },
        10s);
    ASSERT_TRUE(spoil.ExitedWith(0)) << spoil.Describe();
    EXPECT_EQ(LockCounting(&trylocks), 0u);
    EXPECT_EQ(trylocks, 2);
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
}

}  // namespace
