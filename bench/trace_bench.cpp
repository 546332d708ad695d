// Cost of the host platform calls the library makes on every operation: a
// trace write (buffer getter included), and an unarmed fault check.
#include <benchmark/benchmark.h>

#include "host/pm_fault.h"
#include "vesk.h"

namespace {

void BM_TraceWrite3(benchmark::State &state) {
    uint64_t i = 0;
    for (auto _ : state) {
        _vesk_3(dpa_port_mapper_get_eve_vesk(), VESK_ID(3, 278), 1, i++, 7);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TraceWrite3)->Threads(1)->Threads(2)->UseRealTime();

void BM_TraceWriteString(benchmark::State &state) {
    for (auto _ : state) {
        _svesk(dpa_port_mapper_get_db_vesk(), VESK_SID(62), "dnx_pmdb_ifh_shrd", 2621472);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TraceWriteString);

void BM_UnarmedFaultCheck(benchmark::State &state) {
    int64_t r = 0;
    for (auto _ : state) benchmark::DoNotOptimize(pm_fault_hit("tabra_get_entry_by_key", &r));
}
BENCHMARK(BM_UnarmedFaultCheck);

}  // namespace
