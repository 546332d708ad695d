/*
 * dnx_pmdb_lock.cpp - robust entry locks, one per table slot.
 *
 * An entry lock is a 40-byte pthread mutex in a shared context region
 * (entry_lock[slot]); it is error-checking, process-shared and robust, so a
 * holder that dies does not leave its entry locked for ever.
 *
 * Concurrency contract:
 *   - Any thread of any process that maps a region may call any of the four
 *     operations on any of its locks.  A slot's lock is written (initialised,
 *     rebuilt, retired) only by: the add path that has just been given a new
 *     slot by the table store (pmdb_lock_init), pmdb_entry_lock when the
 *     lock it was asked to take is broken (rebuild), and the remove path
 *     (pmdb_lock_destroy).  Everything else is the mutex implementation's.
 *   - Entry locks are taken between an open with write intent and its
 *     release, never while a process-local mutex of the frame is held; a
 *     member's lock is taken before its bundle's.
 *
 * Retiring a lock.  The removers wait for a holder by retrying
 * pmdb_lock_destroy until it stops reporting EBUSY, so the destroy must
 * refuse a held lock, atomically with respect to lockers in any process.
 * glibc's pthread_mutex_destroy only refuses a held lock of a non-robust
 * kind; for a robust one it marks the object invalid whoever holds it.  So
 * pmdb_lock_destroy claims a robust lock's futex word itself, with one
 * compare-and-swap from "no owner" to the caller's tid: a word that names
 * an owner (the caller included) means EBUSY.  A word whose owner died is
 * claimed too, so a dead holder never makes a remover wait for ever.
 * While the word is claimed nobody can acquire the lock, and the claim:
 *   1. sets the owner field to glibc's "not recoverable" cookie, so that a
 *      locker that read the lock's kind before step 2 and acquires the word
 *      after step 3 is handed ENOTRECOVERABLE, not the lock;
 *   2. calls pthread_mutex_destroy, which marks the kind invalid: later
 *      lockers get EINVAL;
 *   3. releases the word and wakes every waiter (shared futex).
 * pmdb_entry_lock repairs both answers by rebuilding the lock.  The claim is
 * not entered in the caller's robust list: a remover killed inside these
 * few instructions (no call in them blocks) would leave the lock taken.
 */
#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "kemt.h"
#include "pmdb.h"
#include "pmdb_internal.h"
#include "pmdb_lock_view.h"
#include "pmdb_trace.h"
#include "vorn_os.h"

namespace {

constexpr const char *kLockInitFn = "void pmdb_lock_init(pellin_mutex_type *)";
constexpr const char *kEntryLockFn = "cerrno pmdb_entry_lock(pellin_mutex_type *)";
constexpr int kMaxAttempts = 10;

#ifdef __GLIBC__
/* True when the calling thread holds m (any kind). */
bool lock_held_by_caller(const pthread_mutex_t *m) { return pmdb_mutex_owner(m) == gettid(); }
#else
bool lock_held_by_caller(const pthread_mutex_t *) { return false; }
#endif

void lock_init_check(int rc, unsigned line) {
    if (rc != 0) __assert_fail("rc == 0", PMDB_LOCK_SRC_FILE, line, kLockInitFn);
}

/* Repairs the answers of a broken lock: EAGAIN asks for another attempt.
 * glibc's try-lock of an unrecoverable lock returns with the futex word
 * still naming the caller; the rebuild zeroes it.  Two lockers that meet
 * the same broken lock may both rebuild it, and the later rebuild can wipe
 * a hold the earlier one already took.  Accepted: a slot's lock is broken
 * only by a holder's death followed by a careless unlock, or by a removal,
 * and a locker racing the removal of its own entry has no entry left. */
int lock_classify(pellin_mutex_type *lock, int rc) {
    if (rc == ENOTRECOVERABLE) {
        pthread_mutex_destroy(lock);
        pmdb_lock_init(lock);
        return EAGAIN;
    }
    if (rc == EOWNERDEAD) {
        PMDB_TRACE_D(69);
        rc = pthread_mutex_consistent_np(lock);
        if (rc != 0) __assert_fail("rc==0", PMDB_LOCK_SRC_FILE, 113, kEntryLockFn);
        return 0;
    }
    if (rc == EINVAL) {
        pmdb_lock_init(lock);
        return EAGAIN;
    }
    return rc;
}

#ifdef __GLIBC__
/* Takes the futex word of a robust lock that has no live owner; false when
 * someone holds it.  See the header comment. */
bool lock_word_claim(pellin_mutex_type *lock) {
    int seen = static_cast<int>(pmdb_mutex_word(lock));
    if ((static_cast<unsigned>(seen) & PMDB_FUTEX_TID_MASK) != 0) return false;
    const int mine = gettid() | static_cast<int>(static_cast<unsigned>(seen) & PMDB_FUTEX_WAITERS);
    return __atomic_compare_exchange_n(&lock->__data.__lock, &seen, mine, false, __ATOMIC_ACQUIRE,
                                       __ATOMIC_RELAXED);
}

void lock_word_release(pellin_mutex_type *lock) {
    __atomic_exchange_n(&lock->__data.__lock, 0, __ATOMIC_RELEASE);
    syscall(SYS_futex, &lock->__data.__lock, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}
#endif

/* Destroys a lock unless someone holds it (EBUSY). */
int lock_retire(pellin_mutex_type *lock) {
#ifdef __GLIBC__
    if (!pmdb_mutex_is_robust(lock)) return pthread_mutex_destroy(lock);
    if (!lock_word_claim(lock)) return EBUSY;
    __atomic_store_n(&lock->__data.__owner, PMDB_MUTEX_OWNER_NOTRECOVERABLE, __ATOMIC_RELAXED);
    const int rc = pthread_mutex_destroy(lock);
    lock_word_release(lock);
    return rc;
#else
    return pthread_mutex_destroy(lock);
#endif
}

}  // namespace

extern "C" {

int pmdb_mutex_take(pthread_mutex_t *mutex, const char *location, int line) {
    int rc = pthread_mutex_trylock(mutex);
    if (rc != EBUSY) return rc;
    /* A plain or zeroed lock answers EBUSY to its own holder and would then
     * block for ever; an error-checking one says EDEADLK. */
    if (lock_held_by_caller(mutex)) return EDEADLK;
    kemt_set_mutex_block(mutex, location, line);
    rc = pthread_mutex_lock(mutex);
    kemt_unset_mutex_block();
    return rc;
}

PMDB_EXPORT void pmdb_lock_init(pellin_mutex_type *lock) {
    if (lock == nullptr) return;
    pthread_mutexattr_t attr;
    int rc = pthread_mutexattr_init(&attr);
    if (rc == 0) rc = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    lock_init_check(rc, 52);
    rc = pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    if (rc == 0) rc = pthread_mutexattr_setrobust_np(&attr, PTHREAD_MUTEX_ROBUST);
#pragma GCC diagnostic pop
    lock_init_check(rc, 55);
    rc = pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    lock_init_check(rc, 61);
    memset(lock, 0, sizeof *lock);
    rc = pthread_mutex_init(lock, &attr);
    lock_init_check(rc, 68);
    rc = pthread_mutexattr_destroy(&attr);
    lock_init_check(rc, 77);
}

PMDB_EXPORT cerrno pmdb_entry_lock(pellin_mutex_type *lock) {
    if (lock == nullptr) return PMDB_EINVAL;
    int loop_count = 0;
    int rc = EAGAIN;
    while (rc == EAGAIN) {
        rc = lock_classify(lock, pmdb_mutex_take(lock, "pmdb_entry_lock", 101));
        loop_count++;
        if (!(loop_count < kMaxAttempts))
            __assert_fail("loop_count < 10", PMDB_LOCK_SRC_FILE, 125, kEntryLockFn);
    }
    return static_cast<cerrno>(rc);
}

PMDB_EXPORT cerrno pmdb_entry_unlock(pellin_mutex_type *lock) {
    if (lock == nullptr) return PMDB_EINVAL;
    return static_cast<cerrno>(pthread_mutex_unlock(lock));
}

PMDB_EXPORT cerrno pmdb_lock_destroy(pellin_mutex_type *lock) {
    if (lock == nullptr) return PMDB_EINVAL;
    const int rc = lock_retire(lock);
    if (rc != 0) PMDB_TRACE_D(71);
    return static_cast<cerrno>(rc);
}

}  // extern "C"
