// Thread-debug service (who waits where) and fault-injection arming rules.
#include <pthread.h>

#include <atomic>
#include <span>
#include <string>
#include <tuple>
#include <thread>
#include <vector>

#include "host/kemt_host.h"
#include "host/pm_fault.h"
#include "kemt.h"
#include "pmdb_test.h"

namespace {

using pmdb::test::PmdbTest;
using namespace std::chrono_literals;

class KemtTest : public PmdbTest {};

/* Waits like the library does: try-lock, register the wait, lock, unset. */
void RegisteredLock(pthread_mutex_t *m, const char *where, int line) {
    if (pthread_mutex_trylock(m) == 0) return;
    kemt_set_mutex_block(m, where, line);
    pthread_mutex_lock(m);
    kemt_unset_mutex_block();
}

/* Threads waiting at once are all listed, each with its mutex, place and
 * thread, until they get the mutex; their waits are counted. */
TEST_F(KemtTest, BlockedThreadsAreVisibleUntilTheyGetTheMutex) {
    constexpr int kThreads = 4;
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&m);
    std::atomic<uint32_t> tids[kThreads] = {};
    std::vector<std::thread> ts;
    for (int i = 0; i < kThreads; i++) {
        ts.emplace_back([&, i] {
            tids[i] = (uint32_t)gettid();
            RegisteredLock(&m, "dpa_pmdb_mprotect_tabra", 600 + i);
            pthread_mutex_unlock(&m);
        });
    }
    kemt_wait_t w[kThreads + 1];
    size_t n = 0;
    for (int i = 0; i < 5000 && n < kThreads; i++) {  // a bound against a hang only
        n = kemt_host_waiters(w, kThreads + 1);
        if (n < kThreads) std::this_thread::sleep_for(1ms);
    }
    ASSERT_EQ(n, (size_t)kThreads);
    for (const kemt_wait_t &x : std::span(w, n)) {
        const int i = x.line - 600;
        ASSERT_TRUE(i >= 0 && i < kThreads) << x.line;
        EXPECT_EQ(std::make_tuple(x.mutex, std::string(x.location), x.tid, x.until_ns),
                  std::make_tuple((const void *)&m, std::string("dpa_pmdb_mprotect_tabra"), tids[i].load(), uint64_t{0}));
    }
    pthread_mutex_unlock(&m);
    for (auto &t : ts) t.join();
    EXPECT_EQ(kemt_host_waiters(w, kThreads), 0u);
    EXPECT_EQ(kemt_host_total_waits(), (uint64_t)kThreads);
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_mprotect_tabra", -1), (uint64_t)kThreads);
}

TEST_F(KemtTest, CountsPerLocationAndLastWaitOfThread) {
    int a = 0;
    int b = 0;
    kemt_wait_t last;
    EXPECT_EQ(kemt_host_last_wait(&last), -1);
    for (int i = 0; i < 3; i++) {
        kemt_set_mutex_block(&a, "pmdb_entry_lock", 90);
        kemt_unset_mutex_block();
    }
    kemt_set_mutex_block(&b, "pmdb_entry_lock", 95);
    kemt_unset_mutex_block();
    kemt_set_mutex_block(&b, "dpa_pmdb_init", 400);

    EXPECT_EQ(kemt_host_total_waits(), 5u);
    EXPECT_EQ(kemt_host_location_waits("pmdb_entry_lock", 90), 3u);
    EXPECT_EQ(kemt_host_location_waits("pmdb_entry_lock", -1), 4u);
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_init", 400), 1u);
    EXPECT_EQ(kemt_host_location_waits("elsewhere", -1), 0u);
    ASSERT_EQ(kemt_host_last_wait(&last), 0);
    EXPECT_EQ(last.mutex, &b);
    EXPECT_EQ(last.line, 400);
    EXPECT_EQ(last.until_ns, 0u);
    kemt_unset_mutex_block();
    ASSERT_EQ(kemt_host_last_wait(&last), 0);
    EXPECT_GE(last.until_ns, last.since_ns);

    // Another thread has its own last wait.
    std::thread([] {
        kemt_wait_t mine;
        EXPECT_EQ(kemt_host_last_wait(&mine), -1);
    }).join();

    kemt_host_reset();
    EXPECT_EQ(kemt_host_total_waits(), 0u);
    EXPECT_EQ(kemt_host_location_waits("pmdb_entry_lock", -1), 0u);
}

class FaultTest : public PmdbTest {};

TEST_F(FaultTest, CountedNegativeZeroAndRearming) {
    int64_t r = 0;
    EXPECT_EQ(pm_fault_hit("tabra_open", &r), 0);
    pm_fault_set("tabra_open", 17, 2);
    EXPECT_EQ(pm_fault_hit("tabra_init", &r), 0);
    EXPECT_EQ(pm_fault_hit("tabra_open", &r), 1);
    EXPECT_EQ(r, 17);
    EXPECT_EQ(pm_fault_hit("tabra_open", &r), 1);
    EXPECT_EQ(pm_fault_hit("tabra_open", &r), 0);

    pm_fault_set("tabra_add_entry", 0xA6F01400, -1);
    for (int i = 0; i < 100; i++) ASSERT_EQ(pm_fault_hit("tabra_add_entry", &r), 1);
    pm_fault_set("tabra_add_entry", 0, 0);
    EXPECT_EQ(pm_fault_hit("tabra_add_entry", &r), 0);

    pm_fault_set("a", 1, -1);
    pm_fault_set("b", 2, 5);
    pm_fault_clear();
    EXPECT_EQ(pm_fault_hit("a", &r), 0);
    EXPECT_EQ(pm_fault_hit("b", &r), 0);

    /* Re-arming replaces the result and the count. */
    pm_fault_set("vorn_close", 1, 5);
    pm_fault_set("vorn_close", 2, 1);
    EXPECT_EQ(pm_fault_hit("vorn_close", &r), 1);
    EXPECT_EQ(r, 2);
    EXPECT_EQ(pm_fault_hit("vorn_close", &r), 0);
}

TEST_F(FaultTest, ExactlyCountHitsAcrossThreads) {
    pm_fault_set("contended", 1, 1000);
    std::atomic<int> hits{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; t++) {
        ts.emplace_back([&] {
            int64_t r = 0;
            for (int i = 0; i < 1000; i++) hits += pm_fault_hit("contended", &r);
        });
    }
    for (auto &t : ts) t.join();
    EXPECT_EQ(hits.load(), 1000);
}

TEST_F(FaultTest, CallLogKeepsCapacityAndCountsTheRest) {
    pm_calllog_enable(1);
    for (uint64_t i = 0; i < PM_CALLLOG_CAPACITY + 10; i++) pm_calllog_note("x", i, 0, 0, 0);
    std::vector<pm_call_rec_t> recs(PM_CALLLOG_CAPACITY + 10);
    EXPECT_EQ(pm_calllog_get(recs.data(), recs.size()), PM_CALLLOG_CAPACITY + 10u);
    EXPECT_EQ(recs[PM_CALLLOG_CAPACITY - 1].args[0], PM_CALLLOG_CAPACITY - 1u);
    pm_calllog_clear();
    EXPECT_EQ(pm_calllog_get(recs.data(), recs.size()), 0u);
}

}  // namespace
