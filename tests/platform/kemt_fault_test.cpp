// Thread-debug service (who waits where) and fault-injection arming rules.
// A single registered wait of the library is checked by the frame's lock and
// open tests; here, many at once.
#include <pthread.h>

#include <atomic>
#include <span>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host/kemt_host.h"
#include "host/pm_fault.h"
#include "kemt.h"
#include "pmdb_test.h"

namespace {

using namespace std::chrono_literals;

class KemtTest : public pmdb::test::PmdbTest {};

/* Waits like the library does: try-lock, register the wait, lock, unset. */
void RegisteredLock(pthread_mutex_t *m, const char *where, int line) {
    if (pthread_mutex_trylock(m) == 0) return;
    kemt_set_mutex_block(m, where, line);
    pthread_mutex_lock(m);
    kemt_unset_mutex_block();
}

/* Threads waiting at once are all listed, each with its mutex, place and
 * thread, until they get the mutex; their waits are counted, and each thread
 * has a last wait of its own. */
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
            kemt_wait_t last;
            EXPECT_EQ(kemt_host_last_wait(&last), 0);
            EXPECT_EQ(last.line, 600 + i);
            EXPECT_GE(last.until_ns, last.since_ns);
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
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_mprotect_tabra", 601), 1u);
    EXPECT_EQ(kemt_host_location_waits("elsewhere", -1), 0u);
    kemt_wait_t last;
    EXPECT_EQ(kemt_host_last_wait(&last), -1) << "this thread never waited";
    kemt_host_reset();
    EXPECT_EQ(kemt_host_total_waits(), 0u);
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_mprotect_tabra", -1), 0u);
}

class FaultTest : public pmdb::test::PmdbTest {};

/* "1" for each of n calls of `name` that the armed faults fail, else "0". */
std::string Hits(const char *name, int n, int64_t *result) {
    std::string s;
    for (int i = 0; i < n; i++) s += pm_fault_hit(name, result) ? '1' : '0';
    return s;
}

TEST_F(FaultTest, CountedNegativeZeroAndRearming) {
    int64_t r = 0;
    EXPECT_EQ(Hits("tabra_open", 1, &r), "0");
    pm_fault_set("tabra_open", 17, 2);
    EXPECT_EQ(Hits("tabra_init", 1, &r), "0");
    EXPECT_EQ(Hits("tabra_open", 1, &r), "1");
    EXPECT_EQ(r, 17);
    EXPECT_EQ(Hits("tabra_open", 2, &r), "10");

    pm_fault_set("tabra_add_entry", 0xA6F01400, -1);
    EXPECT_EQ(Hits("tabra_add_entry", 100, &r), std::string(100, '1'));
    pm_fault_set("tabra_add_entry", 0, 0);
    EXPECT_EQ(Hits("tabra_add_entry", 1, &r), "0");

    pm_fault_set("a", 1, -1);
    pm_fault_set("b", 2, 5);
    pm_fault_clear();
    EXPECT_EQ(Hits("a", 1, &r) + Hits("b", 1, &r), "00");

    /* Re-arming replaces the result and the count. */
    pm_fault_set("vorn_close", 1, 5);
    pm_fault_set("vorn_close", 2, 1);
    EXPECT_EQ(Hits("vorn_close", 1, &r), "1");
    EXPECT_EQ(r, 2);
    EXPECT_EQ(Hits("vorn_close", 1, &r), "0");

    /* Threads share the count: exactly that many hits. */
    pm_fault_set("contended", 1, 1000);
    std::atomic<int> hits{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; t++) {
        ts.emplace_back([&] {
            int64_t mine = 0;
            for (int i = 0; i < 1000; i++) hits += pm_fault_hit("contended", &mine);
        });
    }
    for (auto &t : ts) t.join();
    EXPECT_EQ(hits.load(), 1000);
}

}  // namespace
