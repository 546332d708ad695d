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
 *
 * Steps: a platform call may also name a point inside its work (for example
 * "tabra_pin_slot:found", between a lookup and what the lookup decided), so
 * that a test can run its own code there, on the caller's thread: another
 * process's or thread's change that lands exactly in that window.  A test
 * registers a function for a step with pm_fault_on_step(step, fn, ctx, n);
 * the next n passes through the step call it (negative n: every pass).
 * Steps share the armed table and its limit with armed calls.
 *
 * Arming: a count of 0 disarms the call; a negative count arms it for every
 * call until pm_fault_clear().  Up to PM_FAULT_MAX_ARMED distinct calls may be
 * armed at once; arming more is ignored.  The call log keeps the first
 * PM_CALLLOG_CAPACITY records after pm_calllog_clear(); pm_calllog_get still
 * counts the ones it could not keep.
 */
#ifndef PMDB_HOST_PM_FAULT_H
#define PMDB_HOST_PM_FAULT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PM_FAULT_MAX_ARMED 32
#define PM_CALLLOG_CAPACITY 4096

void pm_fault_set(const char *call, int64_t result, int count);
void pm_fault_clear(void);
/* Nonzero when `call` is armed; consumes one count and stores the result. */
int pm_fault_hit(const char *call, int64_t *result);

/* A test's code run at a step, with the step's two arguments. */
typedef void (*pm_fault_step_fn)(void *ctx, uint64_t a0, uint64_t a1);
void pm_fault_on_step(const char *step, pm_fault_step_fn fn, void *ctx, int count);
/* Step point of a platform call: runs the registered function, if any,
 * outside every lock of this service.  Callers skip it while
 * pm_fault_hooks_on() is 0. */
void pm_fault_step(const char *step, uint64_t a0, uint64_t a1);

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

/* Nonzero while some call is armed or the call log is on.  A call on a hot
 * path may skip pm_fault_enter() while pm_fault_hooks_on() is 0. */
extern int pm_fault_hooks;
static inline int pm_fault_hooks_on(void) {
    return __atomic_load_n(&pm_fault_hooks, __ATOMIC_RELAXED);
}

/* Entry hook of every host platform call: notes the call in the log (when
 * enabled) and then asks pm_fault_hit().  Nonzero means the call is armed and
 * must fail with *result. */
int pm_fault_enter(const char *call, int64_t *result, uint64_t a0, uint64_t a1, uint64_t a2,
                   uint64_t a3);

#ifdef __cplusplus
}
#endif

#endif
