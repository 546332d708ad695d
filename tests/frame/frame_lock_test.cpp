// Entry locks with holders in other processes and threads: dead owners,
// unrecoverable and destroyed locks, self-deadlock, retirement that refuses
// a held lock.  The executable is linked with --wrap for the thread
// library's calls below, to make them fail on demand: the fatal assertions
// of the lock initialisation, the bound on lock attempts, and how many
// attempts each broken lock state takes.
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "card.h"
#include "host/kemt_host.h"
#include "host/pm_fault.h"
#include "pmdb.h"
#include "pmdb_test.h"

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
    if (strcmp(call, "trylock") == 0) ++g_trylocks;
    if (g_failure.call != call) return 0;
    const int n = ++g_calls;
    return n >= g_failure.nth && n < g_failure.nth + g_failure.times ? g_failure.result : 0;
}

}  // namespace

// Both robustness calls of the lock initialisation arrive at setrobust (the
// older name is an alias of it): the first is the older, the second the
// standard one.
#define FRAME_WRAP(fn, key, Params, Args)     \
    extern "C" int __real_##fn Params;        \
    extern "C" int __wrap_##fn Params {       \
        const int f = Fault(key);             \
        return f != 0 ? f : __real_##fn Args; \
    }
FRAME_WRAP(pthread_mutexattr_init, "attr_init", (pthread_mutexattr_t * a), (a))
FRAME_WRAP(pthread_mutexattr_settype, "settype", (pthread_mutexattr_t * a, int t), (a, t))
FRAME_WRAP(pthread_mutexattr_setpshared, "setpshared", (pthread_mutexattr_t * a, int p), (a, p))
FRAME_WRAP(pthread_mutexattr_setrobust, "setrobust", (pthread_mutexattr_t * a, int r), (a, r))
FRAME_WRAP(pthread_mutex_init, "mutex_init", (pthread_mutex_t * m, const pthread_mutexattr_t *a),
           (m, a))
FRAME_WRAP(pthread_mutexattr_destroy, "attr_destroy", (pthread_mutexattr_t * a), (a))
FRAME_WRAP(pthread_mutex_trylock, "trylock", (pthread_mutex_t * m), (m))

namespace {

using pmdb::test::RunInChild;
using namespace std::chrono_literals;

// The assertion message of `function` (a pattern) at `line`.
std::string LockAssertion(const char *function, const char *expr, unsigned line) {
    return "platforms/common/dnx/port-mapper/lib/pmdb/src/dnx_pmdb_lock:" + std::to_string(line) +
           ": " + function + ": Assertion `" + expr + "' failed";
}

class FrameLockTest : public pmdb::test::PmdbTest {
  protected:
    void SetUp() override {
        PmdbTest::SetUp();
        Arm("", 0, 0);
        dnx_db_hdl_t *hdl = nullptr;
        ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM), 0u);
        lock_ = &hdl->shrd_ctx->entry_lock[4711];
        pmdb_lock_init(lock_);
    }
    void TearDown() override {
        Arm("", 0, 0);
        PmdbTest::TearDown();
    }
    // Leaves lock_ with a dead owner: a child takes it and is killed.
    void KillHolder() {
        auto child = pmdb::test::StartHeldChild([this] {
            if (pmdb_entry_lock(lock_) != 0) _exit(7);
        });
        ASSERT_TRUE(child->WaitReady());
        child->Kill(SIGKILL);
        ASSERT_TRUE(child->Wait().KilledBy(SIGKILL));
    }
    // pmdb_entry_lock takes lock_ in `attempts` try-locks; the unlock works.
    void ExpectTakenIn(int attempts, int line = __builtin_LINE()) {
        SCOPED_TRACE("taken at line " + std::to_string(line));
        const int before = g_trylocks.load();
        EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
        EXPECT_EQ(g_trylocks.load() - before, attempts);
        EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
    }
    pellin_mutex_type *lock_ = nullptr;
};
using FrameLockDeathTest = FrameLockTest;

TEST_F(FrameLockTest, InitialisedLockIsRobustSharedErrorChecking) {
    Arm("setrobust", 3, EINVAL);  // a third call would be one too many
    pmdb_lock_init(lock_);
    EXPECT_EQ(g_calls.load(), 2) << "robustness is set twice";
    EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
    EXPECT_EQ(pmdb_entry_lock(lock_), static_cast<cerrno>(EDEADLK));
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
    EXPECT_EQ(pmdb_entry_unlock(lock_), static_cast<cerrno>(EPERM));
    // Another process sees the same lock.
    ASSERT_EQ(pmdb_entry_lock(lock_), 0u);
    auto r = RunInChild([this] { return pthread_mutex_trylock(lock_); }, 10s);
    EXPECT_TRUE(r.ExitedWith(EBUSY)) << r.Describe();
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
    // A zeroed slot is a plain mutex: its holder must not block either.
    r = RunInChild(
        [this] {
            memset(lock_, 0, sizeof *lock_);
            if (pmdb_entry_lock(lock_) != 0) return 1;
            return pmdb_entry_lock(lock_) == EDEADLK ? 0 : 2;
        },
        10s);
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
}

TEST_F(FrameLockDeathTest, EachFailingInitialisationCallStopsAtItsLine) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Case {
        const char *call;
        int nth;
        unsigned line;
    } cases[] = {
        {"attr_init", 1, 52}, {"settype", 1, 52},    {"setpshared", 1, 55},   {"setrobust", 1, 55},
        {"setrobust", 2, 61}, {"mutex_init", 1, 68}, {"attr_destroy", 1, 77},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.call) + " #" + std::to_string(c.nth));
        EXPECT_DEATH(
            {
                Arm(c.call, c.nth, EINVAL);
                pmdb_lock_init(lock_);
            },
            LockAssertion("void pmdb_lock_init\\(pellin_mutex_type \\*\\)", "rc == 0", c.line));
    }
}

// Nine attempts may end in success; the tenth stops whatever its result.
// A dead owner's lock that cannot be made consistent stops too.
TEST_F(FrameLockDeathTest, EntryLockStopsAfterNineAttemptsOrAnInconsistentLock) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Arm("trylock", 1, EAGAIN, 8);
    ExpectTakenIn(9);

    // The tenth try-lock succeeds, or a rebuild never sticks.
    const char *const fn = "cerrno pmdb_entry_lock\\(pellin_mutex_type \\*\\)";
    for (const auto &[result, times] : {std::pair{EAGAIN, 9}, std::pair{EINVAL, 1000}}) {
        EXPECT_DEATH(
            {
                Arm("trylock", 1, result, times);
                pmdb_entry_lock(lock_);
            },
            LockAssertion(fn, "loop_count < 10", 125));
    }
    EXPECT_DEATH(
        {
            KillHolder();
            pm_fault_set("vorn_pthread_mutex_consistent_np", EINVAL, 1);
            pmdb_entry_lock(lock_);
        },
        LockAssertion(fn, "rc==0", 113));
}

TEST_F(FrameLockTest, BrokenLocksTakeOneRebuildEach) {
    // destroyed: rejected as invalid, rebuilt, taken; retired by a remover:
    // the same
    pthread_mutex_destroy(lock_);
    ExpectTakenIn(2);
    ASSERT_EQ(pmdb_lock_destroy(lock_), 0u);
    ExpectTakenIn(2);

    // holder killed: one attempt, traced once
    ASSERT_NO_FATAL_FAILURE(KillHolder());
    ExpectTakenIn(1);
    EXPECT_EQ(CountTraces(VESK_DATABASE, 69), 1u);
    ExpectTrace(VESK_DATABASE, 69, {});

    // not recoverable (a dead owner's lock unlocked without being made
    // consistent): rebuilt, not traced
    ASSERT_NO_FATAL_FAILURE(KillHolder());
    ASSERT_EQ(pthread_mutex_lock(lock_), EOWNERDEAD);
    ASSERT_EQ(pthread_mutex_unlock(lock_), 0);
    ASSERT_EQ(lock_->__data.__owner, INT_MAX - 1) << "not in the unrecoverable state";
    MarkTraces();
    ExpectTakenIn(2);
    ExpectNoTrace(VESK_DATABASE, 69);

    // A locker that read the lock's kind (robust) before the lock was
    // retired and acquires its futex word afterwards goes by the kind it
    // read: the retirement's owner marker must make it answer
    // ENOTRECOVERABLE rather than hand over the retired lock; the entry lock
    // then rebuilds and takes it (error-checking again).
    const int kind = lock_->__data.__kind;
    ASSERT_EQ(pmdb_lock_destroy(lock_), 0u);
    lock_->__data.__kind = kind;
    EXPECT_EQ(pthread_mutex_lock(lock_), ENOTRECOVERABLE);
    EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
    EXPECT_EQ(pmdb_entry_lock(lock_), static_cast<cerrno>(EDEADLK));
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
}

// Retirement refuses a lock held by another thread or the caller (traced
// each time), and leaves the holder its lock.  (Holders in other processes,
// alive or killed: tests/ops/removal_wait_test.cpp.)
TEST_F(FrameLockTest, DestroyRefusesAHeldLock) {
    std::atomic<int> stage{0};
    std::thread thread_holder([&] {
        EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
        stage = 1;
        while (stage != 2) std::this_thread::sleep_for(1ms);
        EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
    });
    while (stage != 1) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(pmdb_lock_destroy(lock_), PMDB_EBUSY);
    stage = 2;
    thread_holder.join();

    ASSERT_EQ(pmdb_entry_lock(lock_), 0u);
    EXPECT_EQ(pmdb_lock_destroy(lock_), PMDB_EBUSY);
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u) << "the refused destroy released the caller's hold";
    EXPECT_EQ(CountTraces(VESK_DATABASE, 71), 2u);
    MarkTraces();
    EXPECT_EQ(pmdb_lock_destroy(lock_), 0u);
    ExpectNoTrace(VESK_DATABASE, 71);
    EXPECT_EQ(pthread_mutex_trylock(lock_), EINVAL);
}

// A locker that is already waiting when the lock is retired must end up
// with a working lock, not an error or a hang.  Its wait is registered at
// the line of the lock attempt.
TEST_F(FrameLockTest, WaiterAtRetirementGetsARebuiltLock) {
    ASSERT_EQ(pmdb_entry_lock(lock_), 0u);
    std::atomic<cerrno> waiter_rc{12345};
    kemt_wait_t wait;
    int last_wait = -1;
    std::atomic<pid_t> tid{0};
    std::thread waiter([&] {
        tid = gettid();
        waiter_rc = pmdb_entry_lock(lock_);
        last_wait = kemt_host_last_wait(&wait);
        if (waiter_rc == 0) pmdb_entry_unlock(lock_);
    });
    while (kemt_host_location_waits("pmdb_entry_lock", 101) == 0) std::this_thread::sleep_for(1ms);
    ASSERT_TRUE(pmdb::test::WaitUntilBlockedOnFutex(tid));
    ASSERT_EQ(pmdb_entry_unlock(lock_), 0u);
    cerrno destroyed = PMDB_EBUSY;
    while (destroyed == PMDB_EBUSY) destroyed = pmdb_lock_destroy(lock_);
    waiter.join();
    EXPECT_EQ(destroyed, 0u);
    EXPECT_EQ(waiter_rc.load(), 0u);
    ASSERT_EQ(last_wait, 0);
    EXPECT_STREQ(wait.location, "pmdb_entry_lock");
    EXPECT_EQ(wait.line, 101);
    EXPECT_EQ(wait.mutex, lock_);
    EXPECT_NE(wait.until_ns, 0u);
}

// A locker racing a remover, many times: a destroy that succeeded while
// the locker held the lock would leave the locker's unlock failing (the
// object is no longer a valid mutex).
TEST_F(FrameLockTest, DestroyNeverSucceedsUnderAHolder) {
    for (int round = 0; round < 500; round++) {
        pmdb_lock_init(lock_);
        std::atomic<cerrno> unlock_rc{0};
        std::thread locker([&] {
            if (pmdb_entry_lock(lock_) != 0) return;
            usleep(round % 3 == 0 ? 0 : 20);
            unlock_rc = pmdb_entry_unlock(lock_);
        });
        if (round % 2 == 0) usleep(10);
        cerrno rc = PMDB_EBUSY;
        while (rc == PMDB_EBUSY) rc = pmdb_lock_destroy(lock_);
        locker.join();
        ASSERT_EQ(rc, 0u) << "round " << round;
        ASSERT_EQ(unlock_rc.load(), 0u) << "round " << round;
    }
}

}  // namespace
