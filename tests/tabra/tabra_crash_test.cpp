/*
 * Table store: writers killed with SIGKILL inside adds, removes and repairs.
 *
 * Deterministic series: a child sets TABRA_CRASH_AT=<op>:<k> and runs one
 * operation, for k = 1, 2, ... until the operation completes; the child must
 * die at every point the operation has.  After each death the table must pass
 * the check and hold exactly the state before or after the operation, the
 * other entries untouched.  Random series: writers are killed at random
 * moments, and every add and remove that returned must be reflected.
 */
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "host_tabra.h"

using namespace host_test;
using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;

namespace {

class TabraCrash : public PmdbTest {};

enum class Op { kAdd, kRemove };

/* A table state to start from and one operation on it. */
struct Scenario {
    std::vector<u32> adds;    /* made in this order (slots 0, 1, ...) */
    std::vector<u32> removes; /* then removed */
    Op op;
    u32 key;
    const char *name() const { return op == Op::kAdd ? "add" : "remove"; }
    int points() const { return op == Op::kAdd ? TABRA_CRASH_ADD_POINTS : TABRA_CRASH_REMOVE_POINTS; }
    cerrno Run(tabra_hdl_t h) const {
        void *e = nullptr;
        i32 slot = -1;
        return op == Op::kAdd ? tabra_add_entry(h, key, &e, &slot) : tabra_remove_entry(h, TABRA_REMOVE_BY_KEY, key);
    }
};

/* A writer dies in the middle of the operation at crash point `point` of
 * `what` ("add", "remove" or "repair"). */
pmdb::test::ChildResult RunOpDyingAt(tabra_hdl_t h, const Scenario &sc, const char *what, int point) {
    return RunInChild([&] {
        setenv(TABRA_CRASH_ENV, (std::string(what) + ":" + std::to_string(point)).c_str(), 1);
        return sc.Run(h) == 0 ? 0 : 3;
    });
}

/* A fresh table for one run, and the keys before and after the operation. */
struct Prepared {
    tabra_hdl_t h = nullptr;
    std::map<u32, i32> before;
    std::set<u32> before_keys, after_keys;
};

Prepared Prepare(const std::string &name, const Scenario &sc) {
    Prepared p;
    p.h = OpenOrDie(Params(name.c_str(), 80, Mod7, 7));
    tabra_make_shm_writable(p.h, nullptr);
    for (u32 k : sc.adds) memset(AddOrDie(p.h, k), static_cast<int>(k & 0xFF), 80);
    for (u32 k : sc.removes) EXPECT_EQ(tabra_remove_entry(p.h, TABRA_REMOVE_BY_KEY, k), 0u);
    p.before = Contents(p.h);
    for (const auto &[k, s] : p.before) p.before_keys.insert(k);
    p.after_keys = p.before_keys;
    if (sc.op == Op::kAdd) p.after_keys.insert(sc.key);
    if (sc.op == Op::kRemove) p.after_keys.erase(sc.key);
    return p;
}

/* After a death: the check passes (repairing on the way), the table is the
 * state before or after the operation, entries other than the one operated
 * on kept their slot and bytes, and an added entry is zeroed.  Then the table
 * works on: the operation (or its undo) gives the expected result.  Returns
 * true for "after". */
bool ExpectBeforeOrAfterAndUsable(const Prepared &p, const Scenario &sc) {
    EXPECT_EQ(CheckReport(p.h), "");
    const std::map<u32, i32> now = Contents(p.h);
    std::set<u32> keys;
    for (const auto &[k, s] : now) keys.insert(k);
    const bool after = keys == p.after_keys;
    EXPECT_TRUE(after || keys == p.before_keys) << "neither before nor after";
    u8 b[80];
    i32 slot = -1;
    for (const auto &[k, s] : now) {
        EXPECT_EQ(tabra_copy_entry_by_key(p.h, k, b, sizeof b, &slot), 0u);
        if (k == sc.key) {
            EXPECT_TRUE(sc.op != Op::kAdd || std::all_of(b, b + 80, [](u8 v) { return v == 0; })) << "added entry not zeroed";
        } else {
            EXPECT_EQ(s, p.before.at(k)) << "key " << k << " moved";
            EXPECT_EQ(b[79], static_cast<u8>(k & 0xFF)) << "key " << k << " entry changed";
        }
    }
    void *e = nullptr;
    const cerrno again = sc.op == Op::kAdd ? TABRA_E_EXISTS : TABRA_E_NOTFOUND;
    EXPECT_EQ(sc.Run(p.h), after ? again : 0u);
    EXPECT_EQ(sc.op == Op::kAdd ? tabra_remove_entry(p.h, TABRA_REMOVE_BY_KEY, sc.key) : tabra_add_entry(p.h, sc.key, &e, &slot), 0u);
    EXPECT_EQ(CheckReport(p.h), "");
    return after;
}

/* Kills the operation at each of its points in turn; the run past the last
 * point completes.  Once the state is "after", later points stay "after". */
void CrashSeries(const std::string &tag, const Scenario &sc) {
    bool seen_after = false;
    const int points = sc.points();
    for (int k = 1; k <= points + 1; k++) {
        SCOPED_TRACE(tag + " " + sc.name() + ":" + std::to_string(k));
        const Prepared p = Prepare(tag + std::to_string(k), sc);
        const auto r = RunOpDyingAt(p.h, sc, sc.name(), k);
        if (k == points + 1) {
            EXPECT_TRUE(r.ExitedWith(0)) << "the operation has more points: " << r.Describe();
        } else {
            ASSERT_TRUE(r.KilledBy(SIGKILL)) << "point not reached: " << r.Describe();
        }
        const bool after = ExpectBeforeOrAfterAndUsable(p, sc);
        EXPECT_FALSE(seen_after && !after) << "an earlier point already left the state after";
        seen_after = seen_after || after;
    }
    EXPECT_TRUE(seen_after);
}

/* A writer dies in an operation; the next writer dies at each point of its
 * repair; the one after that must still converge. */
void RepairSeries(const std::string &tag, const Scenario &sc) {
    for (int k = 2; k <= sc.points() - 1; k++) {
        for (int j = 1; j <= TABRA_CRASH_REPAIR_POINTS; j++) {
            SCOPED_TRACE(tag + " " + sc.name() + ":" + std::to_string(k) +
                         " repair:" + std::to_string(j));
            const Prepared p = Prepare(tag + std::to_string(k) + "_" + std::to_string(j), sc);
            ASSERT_TRUE(RunOpDyingAt(p.h, sc, sc.name(), k).KilledBy(SIGKILL));
            /* The second writer repairs on its way into any operation. */
            const Scenario other{{}, {}, Op::kAdd, 1000 + static_cast<u32>(j)};
            const auto r = RunOpDyingAt(p.h, other, "repair", j);
            ASSERT_TRUE(r.KilledBy(SIGKILL)) << "repair point not reached: " << r.Describe();
            ExpectBeforeOrAfterAndUsable(p, sc);
            tabra_info_t later{};
            tabra_get_info(p.h, &later);
            EXPECT_GE(later.repairs, 1u);
        }
    }
}

/* Rows with `repair` also kill the repair of each of their deaths. */
TEST_F(TabraCrash, AddsAndRemovesAndTheirRepairsKilledAtEveryPoint) {
    const std::vector<u32> chain{1, 8, 15, 22, 3}; /* bucket 1: 22 -> 15 -> 8 -> 1 */
    const struct {
        const char *tag;
        Scenario sc;
        bool repair;
    } series[] = {
        {"A", {{1, 2, 8}, {}, Op::kAdd, 15}, true}, /* into bucket 1, which holds 8 and 1 */
        {"E", {{1, 2}, {}, Op::kAdd, 6}, false},    /* into an empty bucket */
        {"H", {chain, {}, Op::kRemove, 22}, false}, /* head */
        {"M", {chain, {}, Op::kRemove, 15}, true},  /* middle */
        {"T", {chain, {}, Op::kRemove, 1}, false},  /* tail */
        {"S", {chain, {}, Op::kRemove, 3}, false},  /* alone */
        /* Slots 1 (key 8) and 3 (key 4) were freed; the add takes slot 1,
         * whose old occupant was on the same chain. */
        {"U", {{1, 8, 15, 4, 5}, {8, 4}, Op::kAdd, 22}, false},
    };
    for (const auto &s : series) {
        CrashSeries(s.tag, s.sc);
        if (s.repair) RepairSeries("R" + std::string(s.tag), s.sc);
    }
    EXPECT_GT(CountTraces(VESK_ERROR, TABRA_TP_REPAIR), 0u);
}

/* ---- random kills --------------------------------------------------------- */

constexpr int kWriters = 4;
constexpr u32 kKeysPerWriter = 96;
constexpr int kKills = 200;

enum KeyState : u32 { kAbsent = 0, kPresent = 1, kUnknown = 2 };

/* What each writer knows of its own keys (no other writer touches them):
 * the state a finished call proves, kUnknown while a call is under way. */
struct WriterLog {
    std::atomic<u32> state[kWriters][kKeysPerWriter];
    std::atomic<u64> ops, violations;
};

u32 RandomKey(int w, u32 i) { return static_cast<u32>(w + 1) * 0x100000u + i * 37 + 5; }

/* One writer: random adds and removes of its keys; a status that contradicts
 * what the writer knows of the key is a violation. */
[[noreturn]] void RandomWriter(tabra_hdl_t h, int w, WriterLog *log, unsigned seed) {
    std::mt19937 rng(seed);
    for (;; log->ops++) {
        const u32 i = rng() % kKeysPerWriter, key = RandomKey(w, i);
        const u32 known = log->state[w][i].exchange(kUnknown);
        void *e = nullptr;
        i32 slot = -1;
        const bool add = rng() % 2 == 0;
        const cerrno st = add ? tabra_add_entry(h, key, &e, &slot) : tabra_remove_entry(h, TABRA_REMOVE_BY_KEY, key);
        const bool present = known == kPresent;
        const cerrno want = known == kUnknown ? st : add ? (present ? TABRA_E_EXISTS : 0u) : (present ? 0u : TABRA_E_NOTFOUND);
        if (st != want || (st != 0 && st != (add ? TABRA_E_EXISTS : TABRA_E_NOTFOUND))) log->violations++;
        log->state[w][i] = add ? kPresent : kAbsent;
    }
}

/* Writers killed after a random number of further operations (where each
 * kill lands is left to chance; what is checked does not depend on it):
 * every add and remove that returned is reflected, the table passes the
 * check, nobody's key appears. */
TEST_F(TabraCrash, TwoHundredRandomKillsLoseNothing) {
    Shared<WriterLog> log;
    /* Two buckets: long chains keep writers inside the index update for a
     * good share of their time, so that many kills land there. */
    tabra_hdl_t h = OpenOrDie(Params("RND", 80, [](u32 k) { return k % 2; }, 2));
    ASSERT_NE(h, nullptr);
    std::mt19937 rng(12345);
    pid_t writers[kWriters];
    auto spawn = [&](int w) {
        const unsigned seed = static_cast<unsigned>(rng());
        if ((writers[w] = fork()) == 0) RandomWriter(h, w, log.get(), seed);
    };
    for (int w = 0; w < kWriters; w++) spawn(w);
    for (int kill_no = 0; kill_no <= kKills; kill_no++) {
        const u64 until = log->ops.load() + 1 + rng() % 64;
        const auto hang = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (log->ops.load() < until && std::chrono::steady_clock::now() < hang) sched_yield();
        ASSERT_GE(log->ops.load(), until) << "the writers stopped before kill " << kill_no;
        const int w = static_cast<int>(rng() % kWriters);
        for (int v = 0; v < kWriters; v++) {
            if (v != w && kill_no < kKills) continue;
            int status = 0;
            kill(writers[v], SIGKILL);
            ASSERT_EQ(waitpid(writers[v], &status, 0), writers[v]);
            ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
            if (kill_no < kKills) spawn(v);
        }
    }
    EXPECT_EQ(log->violations.load(), 0u);
    EXPECT_EQ(CheckReport(h), "");
    std::map<u32, i32> now = Contents(h);
    for (int w = 0; w < kWriters; w++) {
        for (u32 i = 0; i < kKeysPerWriter; i++) {
            const u32 key = RandomKey(w, i), st = log->state[w][i].load();
            EXPECT_TRUE(st == kUnknown || now.count(key) == (st == kPresent ? 1u : 0u)) << key << " state " << st;
            now.erase(key);
        }
    }
    EXPECT_TRUE(now.empty()) << "keys nobody added: " << now.size();
}

}  // namespace
