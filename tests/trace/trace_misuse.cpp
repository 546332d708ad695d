// Calls that write trace points, compiled by trace_compile_check.cmake once
// as they are (they must compile) and once per MISUSE_* case (each must be
// refused).  Never linked.
#include "pmdb_cycle.h"
#include "pmdb_trace.h"

void write_points(u32 key, cerrno rc, const char *name) {
    PMDB_TRACE(tp::punt_add_zero_key);
    PMDB_TRACE(tp::punt_remove_done, key);
    PMDB_TRACE(tp::punt_remove_failed, key, rc);
    PMDB_TRACE(tp::inv_node_recorded_mac, key, 1, 2, 3, 4, 5, 6);
    PMDB_TRACE(tp::shm_open_failed, name, 4096u);
#if defined(MISUSE_ARGUMENT_COUNT)
    PMDB_TRACE(tp::punt_remove_done, key, rc);
#elif defined(MISUSE_UNKNOWN_POINT)
    PMDB_TRACE(tp::punt_remove_finished, key);
#elif defined(MISUSE_BARE_NUMBER)
    PMDB_TRACE(177, key);
#elif defined(MISUSE_STRING_ARGUMENTS)
    PMDB_TRACE(tp::shm_open_failed, name, 4096u, 0);
#endif
}

[[maybe_unused]] const pmdb_cycle_traces_t kTraces = {
    .zero_key = tp::oam_remove_zero_key,
    .open_failed = tp::oam_remove_open_failed,
    .lookup_failed = tp::oam_remove_not_found,
#if defined(MISUSE_CYCLE_SHAPE)
    .lock_failed = tp::oam_removed, /* a database point with one argument */
#elif defined(MISUSE_CYCLE_NUMBER)
    .lock_failed = 170,
#endif
    .remove_failed = tp::oam_remove_failed,
    .removed = tp::oam_removed,
};

#if defined(MISUSE_DUPLICATE_NUMBER)
// The table's own check, on a list that gives one number twice.
#define DUPLICATE_NUMBER_LIST(X) X(5, E, first, N) X(5, E, second, N, "key")
constexpr pmdb_tpt::row kDuplicate[] = {DUPLICATE_NUMBER_LIST(PMDB_TP_ROW)};
static_assert(pmdb_tpt::rows_ascending(kDuplicate), "numbers must be unique");
#endif
