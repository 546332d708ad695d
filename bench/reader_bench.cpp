// Reader library figures: IFH lookups by key at 60,000 entries (lookups per
// second, and the median cost of one lookup over batches of 64), lock-free
// and, side by side, with every entry open for writing (locked copies), and
// the member list scan of a 65,536-slot IFH table at 10 % and 90 % occupancy,
// with the machine's cost of one cache miss as a reference.
//
// Everything runs in the namespace of PMDB_NS, or one of its own when that is
// unset; the namespace is removed at the end.  The
// table only grows, so the benchmarks run in registration order: the scans at
// 10 % and 90 %, then the lookups at 60,000 entries.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "host/os_host.h"
#include "pmdb.h"
#include "pmdb_reader.h"
#include "tabra.h"

namespace {

constexpr u32 kSlots = 65536;
constexpr u32 kKeyBase = 0x10000;
constexpr u32 kBundle = 0xB0000001;
constexpr u32 kMembers = 8;
constexpr u32 kLookupEntries = 60000;
constexpr int kBatch = 64;

u32 g_present = 0;

/* Writes entry i the way the library does: slot lock initialised for a new
 * slot, fields changed under it.  The first kMembers multiples of
 * member_every are active members of kBundle. */
bool add_entry(dnx_db_hdl_t *hdl, u32 i, u32 member_every) {
    void *entry = nullptr;
    i32 slot = -1;
    const u32 key = kKeyBase + i;
    if (tabra_add_entry(hdl->tabra, key, &entry, &slot) != 0) return false;
    pellin_mutex_type *lock = &hdl->shrd_ctx->entry_lock[slot];
    pmdb_lock_init(lock);
    if (pmdb_entry_lock(lock) != 0) return false;
    auto *e = static_cast<pmdb_ifh_entry_t *>(entry);
    memset(e, 0, sizeof *e);
    e->key = key;
    e->intf_info.ifh = key;
    e->intf_info.node_id = 1 + i % 2;
    if (i % member_every == 0 && i / member_every < kMembers) {
        e->ifh_flags = PMDB_IFH_MEMBER_ACTIVE;
        e->intf_info.bundle_ifh = kBundle;
    }
    return pmdb_entry_unlock(lock) == 0;
}

/* Grows the IFH table to n entries. */
void ensure_entries(benchmark::State &state, u32 n) {
    if (g_present >= n) return;
    dnx_db_hdl_t *hdl = nullptr;
    if (dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_IFH, 1) != 0) {
        state.SkipWithError("open failed");
        return;
    }
    const u32 member_every = kSlots / 10 / kMembers; /* members spread over the first 10 % */
    for (; g_present < n; g_present++) {
        if (!add_entry(hdl, g_present, member_every)) break;
    }
    dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, PMDB_TYPE_IFH);
    if (g_present < n) state.SkipWithError("could not add entries");
}

void BM_MemberScan(benchmark::State &state) {
    const u32 n = static_cast<u32>(static_cast<u64>(kSlots) * state.range(0) / 100);
    ensure_entries(state, n);
    /* One place more than there are members, so that every scan runs to the
     * end of the table instead of stopping at a full array. */
    u32 handles[kMembers + 1];
    for (auto _ : state) {
        if (dpa_pmdb_get_bundle_member_ifh_entries(kBundle, handles, kMembers + 1,
                                                   PMDB_READER_ALL_NODES) != 0)
            state.SkipWithError("scan failed");
        benchmark::DoNotOptimize(handles);
    }
    if (handles[kMembers - 1] == 0 || handles[kMembers] != 0) state.SkipWithError("wrong members");
    state.counters["entries"] = n;
    state.counters["scans_per_s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                       benchmark::Counter::kIsRate);
    state.counters["entries_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * n, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_MemberScan)->Arg(10)->Arg(90)->Unit(benchmark::kMicrosecond)->MinTime(1.0);

double now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

/* range(0) of the 60,000 keys, in random order. */
std::vector<u32> lookup_keys(const benchmark::State &state) {
    std::vector<u32> keys(kLookupEntries);
    for (u32 i = 0; i < kLookupEntries; i++) keys[i] = kKeyBase + i;
    std::shuffle(keys.begin(), keys.end(), std::mt19937(7));
    keys.resize(static_cast<size_t>(state.range(0)));
    return keys;
}

/* Times lookups cycling through `keys`, in batches of kBatch. */
void time_lookups(benchmark::State &state, const std::vector<u32> &keys) {
    unsigned char buf[PMDB_PUNT_ENTRY_SIZE];
    std::vector<double> batch_ns;
    size_t next = 0;
    for (auto _ : state) {
        const double t0 = now_ns();
        for (int i = 0; i < kBatch; i++) {
            if (dpa_pmdb_get_ifh_entry_by_key(keys[next], buf, 0, 0) != 0)
                state.SkipWithError("lookup failed");
            next = next + 1 == keys.size() ? 0 : next + 1;
        }
        batch_ns.push_back((now_ns() - t0) / kBatch);
        benchmark::DoNotOptimize(buf);
    }
    std::nth_element(batch_ns.begin(), batch_ns.begin() + batch_ns.size() / 2, batch_ns.end());
    state.counters["median_ns"] = batch_ns[batch_ns.size() / 2];
    state.counters["lookups_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kBatch, benchmark::Counter::kIsRate);
}

/* Lookups of IFH entries by key in a table of 60,000 entries, cycling
 * through range(0) of them: all 60,000 (nearly every lookup finds its
 * entry outside the caches) or a hot set of 512 (the library's own cost).
 * No process writes, so every copy is made without a lock. */
void BM_IfhLookup(benchmark::State &state) {
    ensure_entries(state, kLookupEntries);
    time_lookups(state, lookup_keys(state));
}
BENCHMARK(BM_IfhLookup)->Arg(kLookupEntries)->Arg(512)->Unit(benchmark::kMicrosecond)->MinTime(2.0);

/* The same lookups while this process has every looked-up entry open for
 * writing (a write window in which it obtained each of them), so that every
 * copy takes the entry's slot lock: the cost the lock-free copy saves. */
void BM_IfhLookupOpenForWriting(benchmark::State &state) {
    ensure_entries(state, kLookupEntries);
    const std::vector<u32> keys = lookup_keys(state);
    dnx_db_hdl_t *hdl = nullptr;
    if (dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_IFH, 1) != 0) {
        state.SkipWithError("open failed");
        return;
    }
    for (const u32 key : keys) {
        void *entry = nullptr;
        i32 slot = -1;
        if (tabra_get_entry_by_key(hdl->tabra, key, &entry, &slot) != 0)
            state.SkipWithError("entry missing");
    }
    time_lookups(state, keys);
    dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, PMDB_TYPE_IFH);
}
BENCHMARK(BM_IfhLookupOpenForWriting)
    ->Arg(kLookupEntries)
    ->Arg(512)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(2.0);

/* Reference for the figures above: one dependent cache miss over 20 MB (the
 * size of 60,000 IFH entries), measured by chasing pointers. */
void BM_MemoryMissReference(benchmark::State &state) {
    constexpr size_t kLines = 20u * 1024 * 1024 / 64;
    std::vector<size_t> order(kLines);
    for (size_t i = 0; i < kLines; i++) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    std::vector<size_t> next(kLines * 8);
    for (size_t i = 0; i < kLines; i++) next[order[i] * 8] = order[(i + 1) % kLines] * 8;
    size_t at = 0;
    for (auto _ : state) {
        for (int i = 0; i < kBatch; i++) at = next[at];
        benchmark::DoNotOptimize(at);
    }
    state.counters["ns_per_miss"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * kBatch,
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_MemoryMissReference)->Unit(benchmark::kMicrosecond)->MinTime(1.0);

}  // namespace

int main(int argc, char **argv) {
    if (getenv(VORN_NS_ENV) == nullptr) {
        const std::string ns = "rbench" + std::to_string(getpid());
        setenv(VORN_NS_ENV, ns.c_str(), 1);
    }
    const std::string ns = vorn_host_namespace();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    vorn_host_remove_namespace(ns.c_str());
    return 0;
}
