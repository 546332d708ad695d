/*
 * pm_fault.h - fault injection and call log of the host platform services.
 *
 * Every platform call that the library makes (table store, trace getters,
 * system properties, identity, OS layer, thread-debug) asks pm_fault_hit()
 * with its own name before doing its work.  A test arms a call with
 * pm_fault_set(name, result, n): the next n calls of that name return
 * `result` (for calls returning a pointer or descriptor: failure, with errno
 * = result) without doing anything else.  State is per process; arming and
 * hitting are thread-safe, and an unarmed hit costs one relaxed atomic load.
 *
 * The call log records, when enabled, each platform call by name with up to
 * four integer arguments and a CLOCK_MONOTONIC time, so that tests can check
 * the order and timing of calls (for example open, then protect >= 100 ms
 * later).
 */
#ifndef PMDB_HOST_PM_FAULT_H
#define PMDB_HOST_PM_FAULT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

void pm_fault_set(const char *call, int64_t result, int count);
void pm_fault_clear(void);
/* Nonzero when `call` is armed; consumes one count and stores the result. */
int pm_fault_hit(const char *call, int64_t *result);

typedef struct pm_call_rec {
    char call[48];
    uint64_t args[4];
    uint64_t mono_ns;
} pm_call_rec_t;

void pm_calllog_enable(int on);
void pm_calllog_clear(void);
void pm_calllog_note(const char *call, uint64_t a0, uint64_t a1, uint64_t a2, uint64_t a3);
/* Copies up to `max` records in call order; returns how many were recorded. */
size_t pm_calllog_get(pm_call_rec_t *out, size_t max);

#ifdef __cplusplus
}
#endif

#endif
