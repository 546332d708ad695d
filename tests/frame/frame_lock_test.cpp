// Entry locks through the shared object's exported names, with holders in
// other processes and threads: dead owners, unrecoverable and destroyed
// locks, self-deadlock, and retirement that refuses a held lock.
#include <errno.h>
#include <limits.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "host/kemt_host.h"
#include "host/pm_fault.h"
#include "pmdb.h"
#include "card.h"
#include "pmdb_test.h"

namespace {

using pmdb::test::ChildLink;
using pmdb::test::ChildProcess;
using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;
using namespace std::chrono_literals;

const char *const kConsistentAssert =
    "platforms/common/dnx/port-mapper/lib/pmdb/src/dnx_pmdb_lock:113: cerrno "
    "pmdb_entry_lock\\(pellin_mutex_type \\*\\): Assertion `rc==0' failed";

class FrameLockTest : public PmdbTest {
protected:
    void SetUp() override {
        PmdbTest::SetUp();
        dnx_db_hdl_t *hdl = nullptr;
        ASSERT_EQ(dpa_chk_shrd_ctx_open(nullptr, &hdl, PMDB_TYPE_OAM), 0u);
        lock_ = &hdl->shrd_ctx->entry_lock[4711];
        pmdb_lock_init(lock_);
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

    pellin_mutex_type *lock_ = nullptr;
};
using FrameLockDeathTest = FrameLockTest;

TEST_F(FrameLockTest, InitialisedLockIsRobustSharedErrorChecking) {
    EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
    EXPECT_EQ(pmdb_entry_lock(lock_), static_cast<cerrno>(EDEADLK));
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
    EXPECT_EQ(pmdb_entry_unlock(lock_), static_cast<cerrno>(EPERM));
    // Another process sees the same lock.
    ASSERT_EQ(pmdb_entry_lock(lock_), 0u);
    auto r = RunInChild([this] { return pthread_mutex_trylock(lock_); }, 10s);
    EXPECT_TRUE(r.ExitedWith(EBUSY)) << r.Describe();
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
}

TEST_F(FrameLockTest, LockOfAKilledHolderIsTakenInOneAttempt) {
    KillHolder();
    EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
    EXPECT_EQ(CountTraces(VESK_DATABASE, 69), 1u);
    ExpectTrace(VESK_DATABASE, 69, {});
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);

    // Consistent again: another process uses it normally, no more 69.
    MarkTraces();
    auto r = RunInChild(
        [this] { return pmdb_entry_lock(lock_) == 0 && pmdb_entry_unlock(lock_) == 0 ? 0 : 1; },
        10s);
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
    ExpectNoTrace(VESK_DATABASE, 69);
}

TEST_F(FrameLockTest, UnrecoverableLockIsRebuilt) {
    KillHolder();
    // The next holder unlocks without making the lock consistent.
    auto r = RunInChild(
        [this] {
            if (pthread_mutex_lock(lock_) != EOWNERDEAD) return 1;
            return pthread_mutex_unlock(lock_) == 0 ? 0 : 2;
        },
        10s);
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
    // (Probed by its owner field: glibc's try-lock of an unrecoverable lock
    // leaves the lock taken.)
    ASSERT_EQ(lock_->__data.__owner, INT_MAX - 1) << "not in the unrecoverable state";

    EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
    ExpectNoTrace(VESK_DATABASE, 69);
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
    auto again = RunInChild([this] { return pthread_mutex_trylock(lock_); }, 10s);
    EXPECT_TRUE(again.ExitedWith(0)) << again.Describe();
}

TEST_F(FrameLockTest, HolderGetsEdeadlkWithoutWaiting) {
    auto r = RunInChild(
        [this] {
            if (pmdb_entry_lock(lock_) != 0) return 1;
            if (pmdb_entry_lock(lock_) != EDEADLK) return 2;
            // A zeroed slot is a plain mutex: its holder must not block either.
            memset(lock_, 0, sizeof *lock_);
            if (pmdb_entry_lock(lock_) != 0) return 3;
            return pmdb_entry_lock(lock_) == EDEADLK ? 0 : 4;
        },
        10s);
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
}

TEST_F(FrameLockTest, WaitForABusyLockIsRegisteredAtItsLine) {
    auto holder = card::HoldInChild(lock_);
    ASSERT_TRUE(holder->WaitReady());
    std::thread releaser([&] {
        while (kemt_host_location_waits("pmdb_entry_lock", 101) == 0) std::this_thread::sleep_for(1ms);
        holder->Release();
    });
    EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
    releaser.join();
    kemt_wait_t wait;
    ASSERT_EQ(kemt_host_last_wait(&wait), 0);
    EXPECT_STREQ(wait.location, "pmdb_entry_lock");
    EXPECT_EQ(wait.line, 101);
    EXPECT_EQ(wait.mutex, lock_);
    EXPECT_NE(wait.until_ns, 0u);
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
    EXPECT_TRUE(holder->Wait().ExitedWith(0));
}

TEST_F(FrameLockTest, DestroyRefusesALockHeldInAnotherProcess) {
    auto holder = card::HoldInChild(lock_);
    ASSERT_TRUE(holder->WaitReady());
    EXPECT_EQ(pmdb_lock_destroy(lock_), PMDB_EBUSY);
    EXPECT_EQ(pmdb_lock_destroy(lock_), PMDB_EBUSY);
    EXPECT_EQ(CountTraces(VESK_DATABASE, 71), 2u);
    holder->Release();
    const auto r = holder->Wait();
    EXPECT_TRUE(r.ExitedWith(0)) << "the holder kept its lock: " << r.Describe();

    MarkTraces();
    EXPECT_EQ(pmdb_lock_destroy(lock_), 0u);
    ExpectNoTrace(VESK_DATABASE, 71);
    EXPECT_EQ(pthread_mutex_trylock(lock_), EINVAL);
}

TEST_F(FrameLockTest, DestroyRefusesALockHeldByAThreadOrTheCaller) {
    std::atomic<int> stage{0};
    std::thread holder([&] {
        EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
        stage = 1;
        while (stage != 2) std::this_thread::sleep_for(1ms);
        EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
    });
    while (stage != 1) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(pmdb_lock_destroy(lock_), PMDB_EBUSY);
    stage = 2;
    holder.join();

    ASSERT_EQ(pmdb_entry_lock(lock_), 0u);
    EXPECT_EQ(pmdb_lock_destroy(lock_), PMDB_EBUSY);
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u) << "the refused destroy released the caller's hold";
    EXPECT_EQ(CountTraces(VESK_DATABASE, 71), 2u);
    EXPECT_EQ(pmdb_lock_destroy(lock_), 0u);
}

// A locker that read the lock's kind (robust) before the lock was retired
// and acquires its futex word afterwards goes by the kind it read: the
// retirement's owner marker must make it answer ENOTRECOVERABLE rather than
// hand over the retired lock; pmdb_entry_lock then rebuilds and takes it.
TEST_F(FrameLockTest, LockerThatReadTheKindBeforeRetirementFindsItNotRecoverable) {
    const int kind = lock_->__data.__kind;
    ASSERT_EQ(pmdb_lock_destroy(lock_), 0u);
    lock_->__data.__kind = kind; /* what that locker still goes by */
    EXPECT_EQ(pthread_mutex_lock(lock_), ENOTRECOVERABLE);
    EXPECT_EQ(pmdb_entry_lock(lock_), 0u);
    EXPECT_EQ(pmdb_entry_lock(lock_), static_cast<cerrno>(EDEADLK)) << "rebuilt error-checking";
    EXPECT_EQ(pmdb_entry_unlock(lock_), 0u);
}

TEST_F(FrameLockTest, DeadHoldersLockCanBeRetired) {
    KillHolder();
    EXPECT_EQ(pmdb_lock_destroy(lock_), 0u);
    EXPECT_EQ(pthread_mutex_trylock(lock_), EINVAL);
}

// A locker that is already waiting when the lock is retired must end up
// with a working lock, not an error or a hang.
TEST_F(FrameLockTest, WaiterAtRetirementGetsARebuiltLock) {
    ASSERT_EQ(pmdb_entry_lock(lock_), 0u);
    std::atomic<cerrno> waiter_rc{12345};
    std::thread waiter([&] {
        waiter_rc = pmdb_entry_lock(lock_);
        if (waiter_rc == 0) pmdb_entry_unlock(lock_);
    });
    while (kemt_host_location_waits("pmdb_entry_lock", 101) == 0) std::this_thread::sleep_for(1ms);
    std::this_thread::sleep_for(20ms);  // the waiter sleeps in the kernel now
    ASSERT_EQ(pmdb_entry_unlock(lock_), 0u);
    cerrno destroyed = PMDB_EBUSY;
    while (destroyed == PMDB_EBUSY) destroyed = pmdb_lock_destroy(lock_);
    waiter.join();
    EXPECT_EQ(destroyed, 0u);
    EXPECT_EQ(waiter_rc.load(), 0u);
}

// A locker racing a remover, many times: a destroy that succeeded while
// the locker held the lock would leave the locker's unlock failing (the
// object is no longer a valid mutex).
TEST_F(FrameLockTest, DestroyNeverSucceedsUnderAHolder) {
    auto r = RunInChild(
        [this] {
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
                if (rc != 0) return 1;
                if (unlock_rc != 0) return 2;
            }
            return 0;
        },
        60s);
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
}

TEST_F(FrameLockDeathTest, FailureToMakeADeadOwnersLockConsistentStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    KillHolder();
    EXPECT_DEATH(
        {
            pm_fault_set("vorn_pthread_mutex_consistent_np", EINVAL, 1);
            pmdb_entry_lock(lock_);
        },
        kConsistentAssert);
}

}  // namespace
