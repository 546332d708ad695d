// Trace service: what a record carries; concurrent writers lose nothing; full
// rings lose their oldest records and say how many; a damaged buffer is an
// error, never a source of records.  Records decoded in another process, a
// reader following a writer, and the capacity taken from the environment
// are checked through pmdbctl (pmdbctl_test).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "host/os_host.h"
#include "host/pm_fault.h"
#include "host/settings.h"
#include "host/vesk_reader.h"
#include "pmdb_test.h"
#include "vesk.h"

namespace {

class TraceTest : public pmdb::test::PmdbTest {};

uint64_t RealtimeNs() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec * 1000000000ull + ts.tv_nsec;
}

/* A record carries the realtime clock and its writer's process and thread;
 * a long string is cut to fit, a null one is empty.  While the getter of a
 * buffer fails there is no buffer, and writing to none is a no-op. */
TEST_F(TraceTest, RecordCarriesRealtimeThreadAndItsString) {
    pm_fault_set("dpa_port_mapper_get_error_vesk", 0, 1);
    vesk_buf_t *none = dpa_port_mapper_get_error_vesk();
    EXPECT_EQ(none, nullptr);
    _vesk_1(none, VESK_ID(1, 53), 9);
    _svesk(none, VESK_SID(58), "x", 1);
    const uint64_t before = RealtimeNs();
    uint32_t writer_tid = 0;
    std::thread t([&] {
        writer_tid = (uint32_t)gettid();
        _svesk(dpa_port_mapper_get_error_vesk(), VESK_SID(60), std::string(100, 'x').c_str(), 7);
        _svesk(dpa_port_mapper_get_error_vesk(), VESK_SID(61), nullptr, 8);
    });
    t.join();
    const uint64_t after = RealtimeNs();
    ExpectTrace(VESK_ERROR, 60, {7}, std::string(VESK_STR_MAX - 1, 'x').c_str());
    ExpectTrace(VESK_ERROR, 61, {8}, "");
    ASSERT_EQ(Traces(VESK_ERROR).size(), 2u);
    for (const vesk_rec_t &r : Traces(VESK_ERROR)) {
        EXPECT_EQ(r.tid, writer_tid);
        EXPECT_EQ(r.pid, (uint32_t)getpid());
        const uint64_t at = r.tv_sec * 1000000000ull + r.tv_nsec;
        EXPECT_TRUE(at >= before && at <= after) << before << " " << at << " " << after;
    }
}

TEST_F(TraceTest, ConcurrentWritersFromProcessesAndThreadsLoseNothing) {
    constexpr int kProcs = 3, kThreads = 2, kEach = 500;
    pmdb::test::RunAtOnce(
        kProcs, [] {},
        [](size_t p) {
            std::vector<std::thread> ts;
            for (int t = 0; t < kThreads; t++)
                ts.emplace_back([p, t] {
                    for (int i = 0; i < kEach; i++)
                        _vesk_3(dpa_port_mapper_get_error_vesk(), VESK_ID(3, 200), p, t, i);
                });
            for (auto &th : ts) th.join();
        });
    const auto recs = Traces(VESK_ERROR);
    ASSERT_EQ(recs.size(), (size_t)kProcs * kThreads * kEach);
    // Per writer thread, its records appear complete and in its own order.
    std::vector<int> next(kProcs * kThreads, 0);
    for (const auto &r : recs) {
        ASSERT_EQ(r.nargs, 3u);
        const size_t w = r.args[0] * kThreads + r.args[1];
        ASSERT_LT(w, next.size());
        EXPECT_EQ(r.args[2], (uint64_t)next[w]);
        next[w] = (int)r.args[2] + 1;
    }
}

/* A small ring lapped constantly by two writers: every record a reader
 * returns is one record as written (its words belong together). */
TEST_F(TraceTest, ReaderNeverSeesTornRecordsWhileRingIsOverwritten) {
    vesk_host_set_records(16);
    const std::string other = pmdb::test::UniqueNamespace();
    ASSERT_EQ(vorn_host_set_namespace(other.c_str()), 0);
    vesk_buf_t *buf = dpa_port_mapper_get_db_vesk();
    ASSERT_EQ(vesk_capacity(buf), 16u);
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (uint64_t w = 1; w <= 2; w++)
        writers.emplace_back([&, w] {
            for (uint64_t i = 0; !stop.load(); i++)
                _vesk_4(buf, VESK_ID(4, 100 + w), i, i * 3 + 1, ~i, w);
        });
    while (vesk_mark(buf) < 64) std::this_thread::yield();
    size_t seen = 0, torn = 0;
    vesk_rec_t recs[16];
    for (int round = 0; round < 20000; round++) {
        // Read the oldest records: the ones writers are overwriting now.
        const uint64_t head = vesk_mark(buf);
        const size_t n = vesk_read(buf, head > 16 ? head - 16 : 0, recs, 16, nullptr, nullptr);
        for (const vesk_rec_t &r : std::span(recs, n))
            torn += r.nargs != 4 || r.point != 100 + r.args[3] || r.args[1] != r.args[0] * 3 + 1 ||
                    r.args[2] != ~r.args[0];
        seen += n;
    }
    stop = true;
    for (auto &t : writers) t.join();
    EXPECT_EQ(torn, 0u) << "of " << seen;
    EXPECT_GT(seen, 0u);
    vorn_host_remove_namespace(other.c_str());
}

/* A damaged ring returns nothing and says so once.  (Counting what a full
 * ring lost, and reading from inside it: pmdbctl_test.) */
TEST_F(TraceTest, DamagedHeaderOrHeadIsAnErrorAndNoRecordIsReturned) {
    // Rings of 16; the header's fields by their offsets in the object.
    const struct {
        const char *what;
        uint64_t written; /* records written before the damage */
        size_t off;       /* 0 magic, 16 capacity, 24 head */
        uint64_t value;
    } cases[] = {
        {"head at 2^63, slots never written", 8, 24, 1ull << 63},
        {"head far beyond every record", 8, 24, 1000},
        {"head moved back behind the records", 40, 24, 20},
        {"capacity changed after mapping", 40, 16, 32},
        {"magic zeroed after mapping", 40, 0, 0},
    };
    vesk_host_set_records(16);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const std::string other = pmdb::test::UniqueNamespace();
        ASSERT_EQ(vorn_host_set_namespace(other.c_str()), 0);
        vesk_buf_t *buf = dpa_port_mapper_get_eve_vesk();
        for (uint64_t i = 0; i < c.written; i++) _vesk_1(buf, VESK_ID(1, 300), i);
        vesk_rec_t recs[16];
        size_t n = 0;
        uint64_t next = 0, lost = 0;
        ASSERT_EQ(vesk_read_checked(buf, 0, recs, 16, &n, &next, &lost), 0u);
        ASSERT_EQ(n, std::min<uint64_t>(c.written, 16)) << "intact before the damage";

        const int fd = open(("/dev/shm/" + other + ".vesk.event").c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(pwrite(fd, &c.value, c.off == 24 ? 8 : 4, (off_t)c.off), c.off == 24 ? 8 : 4);
        close(fd);
        MarkTraces();
        EXPECT_EQ(vesk_read_checked(buf, 0, recs, 16, &n, &next, &lost), VESK_E_DAMAGED);
        EXPECT_EQ(n + next + lost, 0u);
        EXPECT_EQ(vesk_read(buf, 0, recs, 16, nullptr, nullptr), 0u) << "returned a record";
        EXPECT_EQ(CountTraces(VESK_ERROR, VESK_TP_DAMAGED), 1u) << "traced once while damaged";
        ExpectTrace(VESK_ERROR, VESK_TP_DAMAGED,
                    {VESK_E_DAMAGED, VESK_EVENT, c.off == 24 ? c.value : c.written});
        vorn_host_remove_namespace(other.c_str());
    }
    vorn_host_set_namespace(ns().c_str());
}

}  // namespace
