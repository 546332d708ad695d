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
 * Owning the futex word.  Every holder of a robust lock has its tid in the
 * lock's futex word, so whoever changes a lock's other fields while owning
 * the word (one compare-and-swap from "no live owner" to the caller's tid)
 * cannot wipe anybody's hold.  Retiring and rebuilding both work that way;
 * they are the only writers of a lock that is in use, and the add path's
 * pmdb_lock_init runs on a slot that nobody can reach yet (the table store
 * calls it before the slot's key is linked, on a slot no reader pins).
 * A word that names a thread which no longer exists is owned by nobody:
 * the kernel clears the tid of a robust holder that dies, so such a word is
 * a claim whose maker died inside it, and it is taken over.  A word that
 * names a live thread is waited for: a claim lasts a few instructions.
 *
 * Retiring a lock.  The removers wait for a holder by retrying
 * pmdb_lock_destroy until it stops reporting EBUSY, so the destroy must
 * refuse a held lock, atomically with respect to lockers in any process.
 * glibc's pthread_mutex_destroy only refuses a held lock of a non-robust
 * kind; for a robust one it marks the object invalid whoever holds it.  So
 * pmdb_lock_destroy claims the futex word itself: a word that names a live
 * owner (the caller included) means EBUSY.  While the word is claimed
 * nobody can acquire the lock, and the claim:
 *   1. sets the owner field to glibc's "not recoverable" cookie, so that a
 *      locker that read the lock's kind before step 2 and acquires the word
 *      after step 3 is handed ENOTRECOVERABLE, not the lock;
 *   2. calls pthread_mutex_destroy, which marks the kind invalid: later
 *      lockers get EINVAL;
 *   3. releases the word and wakes every waiter (shared futex).
 *
 * Rebuilding a lock.  pmdb_entry_lock answers EINVAL and ENOTRECOVERABLE by
 * rebuilding the lock, and two lockers may meet the same broken lock; the
 * rebuild therefore owns the word too (glibc's try-lock of a not
 * recoverable lock already leaves it to the caller), builds a fresh lock
 * with pmdb_lock_init in a private copy, writes every field but the word
 * (the kind last), then releases the word and wakes every waiter.  A
 * second locker that meets the lock while it is being rebuilt waits for the
 * word and tries again.  Neither claim is entered in the caller's robust
 * list; a thread killed inside one leaves a word naming a dead tid, which
 * the next claim takes over.
 */
#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <string.h>
#include <sys/syscall.h>
#include <signal.h>
#include <time.h>
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

#ifdef __GLIBC__
/* A thread that exists (in any process of this pid namespace).  EPERM
 * still means it exists. */
bool tid_alive(int tid) {
    return tid > 0 && (kill(tid, 0) == 0 || errno == EPERM);
}

/* Pause between looks at a word that another thread has claimed. */
void claim_pause() {
    const timespec ts{0, 20000};
    nanosleep(&ts, nullptr);
}

/* Takes the futex word of `lock` for the caller unless a live thread other
 * than the caller holds it: true when the caller owns the word on return
 * (it may have owned it already).  The waiters bit is kept, so the release
 * wakes them. */
bool lock_word_claim(pellin_mutex_type *lock) {
    const int me = gettid();
    int seen = static_cast<int>(pmdb_mutex_word(lock));
    for (;;) {
        const int owner = static_cast<int>(static_cast<unsigned>(seen) & PMDB_FUTEX_TID_MASK);
        if (owner == me) return true;
        if (owner != 0 && tid_alive(owner)) return false;
        const int mine = me | static_cast<int>(static_cast<unsigned>(seen) & PMDB_FUTEX_WAITERS);
        /* Acquire pairs with the release of the word by its last owner. */
        if (__atomic_compare_exchange_n(&lock->__data.__lock, &seen, mine, false,
                                        __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
            return true;
    }
}

/* Releases a claimed word (release: the fields written under the claim are
 * seen by the next owner) and wakes every waiter. */
void lock_word_release(pellin_mutex_type *lock) {
    __atomic_exchange_n(&lock->__data.__lock, 0, __ATOMIC_RELEASE);
    syscall(SYS_futex, &lock->__data.__lock, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

/* A lock that pmdb_entry_lock can take as it is. */
bool lock_sound(const pellin_mutex_type *lock) {
    return pmdb_mutex_is_robust(lock) && pmdb_mutex_owner(lock) != PMDB_MUTEX_OWNER_NOTRECOVERABLE;
}

/* REQUIRES: the caller owns the word.  Every field but the word becomes
 * that of a fresh lock; the kind is stored last, so a locker that sees the
 * new kind also sees the rest once it owns the word. */
void lock_refill(pellin_mutex_type *lock) {
    pellin_mutex_type fresh;
    pmdb_lock_init(&fresh);
    constexpr size_t kKindOff = offsetof(pthread_mutex_t, __data.__kind);
    constexpr size_t kAfterKind = kKindOff + sizeof(int);
    auto *dst = reinterpret_cast<unsigned char *>(lock);
    const auto *src = reinterpret_cast<const unsigned char *>(&fresh);
    memcpy(dst + sizeof(int), src + sizeof(int), kKindOff - sizeof(int));
    memcpy(dst + kAfterKind, src + kAfterKind, sizeof fresh - kAfterKind);
    __atomic_store_n(&lock->__data.__kind, fresh.__data.__kind, __ATOMIC_RELEASE);
    pthread_mutex_destroy(&fresh);
}

/* Rebuilds a broken lock (see the header comment); destroy first when
 * asked.  While another live thread owns the word the lock is being retired
 * or rebuilt, or it was rebuilt and taken since: once it is sound again the
 * next attempt takes it the ordinary way. */
int lock_rebuild(pellin_mutex_type *lock, bool destroy_first) {
    while (!lock_word_claim(lock)) {
        if (lock_sound(lock)) return EAGAIN;
        claim_pause();
    }
    if (destroy_first) pthread_mutex_destroy(lock);
    lock_refill(lock);
    lock_word_release(lock);
    return EAGAIN;
}
#else
int lock_rebuild(pellin_mutex_type *lock, bool destroy_first) {
    if (destroy_first) pthread_mutex_destroy(lock);
    pmdb_lock_init(lock);
    return EAGAIN;
}
#endif

/* Repairs the answers of a broken lock: EAGAIN asks for another attempt. */
int lock_classify(pellin_mutex_type *lock, int rc) {
    if (rc == ENOTRECOVERABLE) return lock_rebuild(lock, true);
    if (rc == EOWNERDEAD) {
        PMDB_TRACE(tp::lock_owner_dead);
        rc = pthread_mutex_consistent_np(lock);
        if (rc != 0) __assert_fail("rc==0", PMDB_LOCK_SRC_FILE, 113, kEntryLockFn);
        return 0;
    }
    if (rc == EINVAL) return lock_rebuild(lock, false);
    return rc;
}

/* Destroys a lock unless a live thread holds it (EBUSY). */
int lock_retire(pellin_mutex_type *lock) {
#ifdef __GLIBC__
    /* The caller's own hold counts as busy, as it did for a plain destroy. */
    if ((pmdb_mutex_word(lock) & PMDB_FUTEX_TID_MASK) == static_cast<unsigned>(gettid()))
        return EBUSY;
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
    if (rc != 0) PMDB_TRACE(tp::lock_destroy_failed);
    return static_cast<cerrno>(rc);
}

}  // extern "C"
