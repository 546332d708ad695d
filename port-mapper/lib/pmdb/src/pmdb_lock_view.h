/*
 * pmdb_lock_view.h - what the bytes of an entry lock say about it.
 *
 * An entry lock is a glibc pthread_mutex_t in shared memory.  Retiring one
 * safely (dnx_pmdb_lock.cpp) and reporting on a region without taking its
 * locks (pmdbctl regions) both read the mutex implementation's own fields;
 * this header is the one place that knows them.  Header-only, so that a
 * tool can use it without the library's internal symbols.
 *
 * glibc (nptl, x86-64) struct __pthread_mutex_s, as used here:
 *
 *    0 int __lock    futex word: owner tid (bits 0-29), FUTEX_OWNER_DIED
 *                    (bit 30, set by the kernel when a robust owner dies),
 *                    FUTEX_WAITERS (bit 31)
 *    8 int __owner   owner tid, or INT_MAX ("owner died, not yet made
 *                    consistent"), or INT_MAX - 1 ("not recoverable")
 *   16 int __kind    type bits; 16 = robust; -1 once destroyed
 *
 * All reads are relaxed atomic loads: the fields change under the feet of
 * an observer, and a view is a snapshot, never a basis for taking the lock.
 */
#ifndef PMDB_SRC_LOCK_VIEW_H
#define PMDB_SRC_LOCK_VIEW_H

#include <limits.h>
#include <stddef.h>
#include <string.h>

#include "pmdb.h"

#ifdef __GLIBC__
static_assert(offsetof(pthread_mutex_t, __data.__lock) == 0, "futex word");
static_assert(offsetof(pthread_mutex_t, __data.__owner) == 8, "owner tid");
static_assert(offsetof(pthread_mutex_t, __data.__kind) == 16, "kind");
#define PMDB_MUTEX_KIND_ROBUST 16 /* PTHREAD_MUTEX_ROBUST_NORMAL_NP */
#define PMDB_MUTEX_KIND_INVALID (-1)
#define PMDB_MUTEX_OWNER_NOTRECOVERABLE (INT_MAX - 1)
#define PMDB_FUTEX_WAITERS 0x80000000u
#define PMDB_FUTEX_OWNER_DIED 0x40000000u
#define PMDB_FUTEX_TID_MASK 0x3fffffffu

static inline int pmdb_mutex_kind(const pthread_mutex_t *m) {
    return __atomic_load_n(&m->__data.__kind, __ATOMIC_RELAXED);
}
static inline int pmdb_mutex_owner(const pthread_mutex_t *m) {
    return __atomic_load_n(&m->__data.__owner, __ATOMIC_RELAXED);
}
static inline unsigned pmdb_mutex_word(const pthread_mutex_t *m) {
    return (unsigned)__atomic_load_n(&m->__data.__lock, __ATOMIC_RELAXED);
}
/* A robust lock, as pmdb_lock_init leaves it (and not destroyed). */
static inline int pmdb_mutex_is_robust(const pthread_mutex_t *m) {
    const int kind = pmdb_mutex_kind(m);
    return kind != PMDB_MUTEX_KIND_INVALID && (kind & PMDB_MUTEX_KIND_ROBUST) != 0;
}
#endif

typedef struct pmdb_lock_view {
    int initialised;     /* a robust lock, as pmdb_lock_init leaves it */
    int destroyed;       /* retired by pmdb_lock_destroy */
    int held;            /* some thread holds it (owner_tid) */
    int owner_died;      /* its holder died and nobody has taken it since */
    int not_recoverable; /* unlocked by a holder that did not repair it */
    int owner_tid;       /* 0 when free or unknown */
} pmdb_lock_view_t;

static inline void pmdb_lock_inspect(const pellin_mutex_type *lock, pmdb_lock_view_t *view) {
    memset(view, 0, sizeof *view);
#ifdef __GLIBC__
    const unsigned word = pmdb_mutex_word(lock);
    view->destroyed = pmdb_mutex_kind(lock) == PMDB_MUTEX_KIND_INVALID;
    view->initialised = pmdb_mutex_is_robust(lock);
    if (view->initialised) {
        view->owner_tid = (int)(word & PMDB_FUTEX_TID_MASK);
        view->owner_died = (word & PMDB_FUTEX_OWNER_DIED) != 0 && view->owner_tid == 0;
        view->not_recoverable = pmdb_mutex_owner(lock) == PMDB_MUTEX_OWNER_NOTRECOVERABLE;
    } else if (!view->destroyed && word != 0) {
        /* A zeroed slot is a plain mutex: the word is 1 or 2, the owner
         * field names the holder. */
        view->owner_tid = pmdb_mutex_owner(lock);
    }
    view->held = view->owner_tid != 0;
#else
    (void)lock;
#endif
}

#endif
