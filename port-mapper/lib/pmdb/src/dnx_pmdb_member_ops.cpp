/*
 * dnx_pmdb_member_ops.cpp - the member operation log (pmdb_member_ops_t in
 * pmdb.h) and the test-only crash points of the member paths.
 *
 * Concurrency contract:
 *   - The log object is initialised once per machine under an fcntl write
 *     lock on it: a process that finds it without its magic (new, or left
 *     by a creator that died before storing the magic, which it stores
 *     last with release order) initialises it while holding that lock.  The
 *     kernel drops the lock of a process that dies, so nobody waits on a
 *     dead initialiser.  Processes that only look (the tools) never take it
 *     and treat a log without magic as one that holds no record.
 *   - g_log is set once per process (release, under g_open_mutex) and never
 *     unmapped.
 *   - Record i belongs to whoever holds its owner lock: the thread that
 *     claimed it holds it for the rest of its life; when that thread dies
 *     the lock reports a dead owner, and the thread that then takes it
 *     completes the record and lets it go.  Owner locks are only tried.
 *   - The owning thread writes its record's bundle_ifh and member_ifh
 *     (the last of them a sequentially consistent exchange, before its
 *     member entry changes) and clears bundle_ifh (release) after its bundle
 *     changed.
 *     Everyone else reads them with relaxed loads; see
 *     pmdb_member_ops_busy for the order that makes that enough.
 *   - t_record and t_in_op are per thread; a forked child starts with
 *     neither (it does not own its parent's records).
 */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "pmdb.h"
#include "pmdb_internal.h"
#include "pmdb_lock_view.h"
#include "pmdb_member_ops.h"
#include "pmdb_trace.h"
#include "tabra.h"
#include "vorn_os.h"

namespace {

/* Reasons of error trace 341 (the log is not usable). */
enum log_fault : u32 {
    kFaultNone = 0,
    kFaultOpen = 1,     /* the object cannot be opened or created */
    kFaultOwner = 2,    /* it belongs to another user */
    kFaultSize = 3,     /* its size is not PMDB_MEMBER_OPS_SIZE, or cannot be set */
    kFaultHeader = 4,   /* wrong magic, size or record count in its header */
    kFaultMap = 5,      /* it cannot be mapped */
    kFaultInitLock = 6, /* the initialisation lock cannot be taken */
    kFaultFull = 7      /* every record is owned by a live thread */
};

constexpr int kNoRecord = -1;
constexpr int kOpenLockLine = 1;

pthread_mutex_t g_open_mutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<pmdb_member_ops_t *> g_log{nullptr};
thread_local int t_record = kNoRecord; /* index of this thread's record */
thread_local bool t_in_op = false;     /* a scope of this thread records */

cerrno log_fault_traced(u32 why) {
    PMDB_TRACE(tp::member_ops_unusable, PMDB_MEMBER_OPS_NAME, why);
    return PMDB_ESHM;
}

u32 ld(const u32 *p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }

/* ---- the object ---------------------------------------------------------- */

/* The magic is written last (log_initialise) and no record is claimed
 * before it, so a log without it holds nothing: also one whose creator was
 * killed between the other header words and the magic. */
bool header_blank(const pmdb_member_ops_t *log) {
    return __atomic_load_n(&log->magic, __ATOMIC_ACQUIRE) == 0;
}

bool header_valid(const pmdb_member_ops_t *log) {
    return __atomic_load_n(&log->magic, __ATOMIC_ACQUIRE) == PMDB_MEMBER_OPS_MAGIC &&
           ld(&log->size) == PMDB_MEMBER_OPS_SIZE && ld(&log->records) == PMDB_MEMBER_OPS_RECORDS &&
           ld(&log->claimed) <= PMDB_MEMBER_OPS_RECORDS;
}

/* Caller holds the initialisation lock; nobody maps the log before the
 * magic, so no record can be in use. */
void log_initialise(pmdb_member_ops_t *log) {
    for (pmdb_member_op_t &op : log->op) {
        pmdb_lock_init(&op.owner);
        memset(op.bundle_ifh, 0, sizeof op.bundle_ifh);
        op.member_ifh = op.pid = op.tid = 0;
    }
    log->size = PMDB_MEMBER_OPS_SIZE;
    log->records = PMDB_MEMBER_OPS_RECORDS;
    log->claimed = 0;
    __atomic_store_n(&log->magic, PMDB_MEMBER_OPS_MAGIC, __ATOMIC_RELEASE);
}

bool file_lock(int fd, short type) {
    struct flock fl;
    memset(&fl, 0, sizeof fl);
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    int rc = -1;
    do rc = fcntl(fd, F_SETLKW, &fl);
    while (rc != 0 && errno == EINTR);
    return rc == 0;
}

/* Checks the owner and size of the object open on fd and maps it; with
 * `create` (and the initialisation lock held) a new object is sized and a
 * blank one initialised.  *out stays null for a log that holds no record
 * yet (looked at without `create`). */
u32 log_map(int fd, bool create, pmdb_member_ops_t **out) {
    struct stat st;
    if (fstat(fd, &st) != 0) return kFaultOpen;
    if (st.st_uid != geteuid()) return kFaultOwner;
    if (st.st_size == 0 && !create) return kFaultNone;
    if (st.st_size == 0 && ftruncate(fd, PMDB_MEMBER_OPS_SIZE) != 0) return kFaultSize;
    if (st.st_size != 0 && st.st_size != static_cast<off_t>(PMDB_MEMBER_OPS_SIZE)) return kFaultSize;
    void *map = vornos_mmap(nullptr, PMDB_MEMBER_OPS_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (map == MAP_FAILED) return kFaultMap;
    auto *log = static_cast<pmdb_member_ops_t *>(map);
    if (create && header_blank(log)) log_initialise(log);
    if (header_valid(log)) {
        *out = log;
        return kFaultNone;
    }
    const bool blank = header_blank(log);
    munmap(map, PMDB_MEMBER_OPS_SIZE);
    return blank ? kFaultNone : kFaultHeader;
}

cerrno log_open(bool create, pmdb_member_ops_t **out) {
    const int fd = _shm_open(PMDB_MEMBER_OPS_NAME, create ? O_CREAT | O_RDWR : O_RDWR, 0777);
    if (fd < 0) return !create && errno == ENOENT ? PMDB_OK : log_fault_traced(kFaultOpen);
    u32 fault = create && !file_lock(fd, F_WRLCK) ? kFaultInitLock : kFaultNone;
    if (fault == kFaultNone) fault = log_map(fd, create, out);
    if (create) file_lock(fd, F_UNLCK);
    vorn_close(fd);
    return fault == kFaultNone ? PMDB_OK : log_fault_traced(fault);
}

/* ---- records ------------------------------------------------------------- */

u32 owner_tid(const pmdb_member_op_t *r) {
    pmdb_lock_view_t v;
    pmdb_lock_inspect(&r->owner, &v);
    return static_cast<u32>(v.owner_tid);
}

bool pending(const pmdb_member_op_t *r) {
    return ld(&r->bundle_ifh[0]) != 0 || ld(&r->bundle_ifh[1]) != 0;
}

bool names(const pmdb_member_op_t *r, u32 bundle_ifh) {
    if (bundle_ifh == 0) return false;
    return ld(&r->bundle_ifh[0]) == bundle_ifh || ld(&r->bundle_ifh[1]) == bundle_ifh;
}

u32 claimed(const pmdb_member_ops_t *log) {
    const u32 n = __atomic_load_n(&log->claimed, __ATOMIC_ACQUIRE);
    return n < PMDB_MEMBER_OPS_RECORDS ? n : PMDB_MEMBER_OPS_RECORDS;
}

void raise_claimed(pmdb_member_ops_t *log, u32 n) {
    u32 seen = __atomic_load_n(&log->claimed, __ATOMIC_RELAXED);
    while (seen < n && !__atomic_compare_exchange_n(&log->claimed, &seen, n, false,
                                                    __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
    }
}

/* Tries a record's owner lock: true when the caller now holds it (a dead
 * owner's lock made consistent). */
bool record_take(pmdb_member_op_t *r) {
    int rc = pthread_mutex_trylock(&r->owner);
    if (rc == EOWNERDEAD) {
        rc = pthread_mutex_consistent_np(&r->owner);
        if (rc != 0) pthread_mutex_unlock(&r->owner);
    }
    return rc == 0;
}

/* Caller holds the record's owner lock.  Recounts each bundle it names and
 * clears that name once done (or once the bundle is gone); true when
 * nothing is left. */
bool record_complete(pmdb_member_op_t *r, u32 wait_ms) {
    for (u32 &field : r->bundle_ifh) {
        const u32 bundle_ifh = ld(&field);
        if (bundle_ifh == 0) continue;
        const cerrno rc = pmdb_bundle_recount(bundle_ifh, wait_ms, true, nullptr);
        if (rc == PMDB_OK || rc == TABRA_E_NOTFOUND) __atomic_store_n(&field, 0u, __ATOMIC_RELEASE);
    }
    return !pending(r);
}

/* The calling thread's record: the one it holds, or a free one (completed
 * first when a dead owner left it pending). */
pmdb_member_op_t *record_claim(pmdb_member_ops_t *log) {
    if (t_record != kNoRecord) return &log->op[t_record];
    for (u32 i = 0; i < PMDB_MEMBER_OPS_RECORDS; i++) {
        pmdb_member_op_t *r = &log->op[i];
        if (owner_tid(r) != 0 || !record_take(r)) continue;
        if (pending(r) && !record_complete(r, 0)) {
            pthread_mutex_unlock(&r->owner);
            continue;
        }
        __atomic_store_n(&r->pid, static_cast<u32>(getpid()), __ATOMIC_RELAXED);
        __atomic_store_n(&r->tid, static_cast<u32>(gettid()), __ATOMIC_RELAXED);
        raise_claimed(log, i + 1);
        t_record = static_cast<int>(i);
        return r;
    }
    log_fault_traced(kFaultFull);
    return nullptr;
}

/* ---- crash points ----------------------------------------------------------- */

constexpr const char *kCrashNames[PMDB_CRASH_POINTS] = {
    nullptr,          "join_member_set",   "leave_counted_out", "account_locked",
    "member_changed", "member_released",   "bundle_locked",     "oor_member_set",
    "oor_bundle_locked", "oor_counted_out", "member_removed"};

constexpr char kStopPrefix[] = "stop:";
int g_crash_signal = SIGKILL;

void crash_read_env() {
    const char *v = getenv(PMDB_CRASH_ENV);
    int at = 0;
    int sig = SIGKILL;
    if (v != nullptr && strncmp(v, kStopPrefix, sizeof kStopPrefix - 1) == 0) {
        sig = SIGSTOP;
        v += sizeof kStopPrefix - 1;
    }
    __atomic_store_n(&g_crash_signal, sig, __ATOMIC_RELAXED);
    for (int i = 1; v != nullptr && i < PMDB_CRASH_POINTS; i++)
        if (strcmp(v, kCrashNames[i]) == 0) at = i;
    __atomic_store_n(&pmdb_crash_armed, at, __ATOMIC_RELAXED);
}

void after_fork_child() {
    t_record = kNoRecord;
    t_in_op = false;
    __atomic_store_n(&pmdb_crash_armed, -1, __ATOMIC_RELAXED);
}

__attribute__((constructor)) void register_fork_hook() {
    pthread_atfork(nullptr, nullptr, after_fork_child);
}

}  // namespace

int pmdb_crash_armed = -1;

void pmdb_crash_slow(pmdb_crash_at_t at) {
    if (__atomic_load_n(&pmdb_crash_armed, __ATOMIC_RELAXED) < 0) crash_read_env();
    if (__atomic_load_n(&pmdb_crash_armed, __ATOMIC_RELAXED) == at) raise(__atomic_load_n(&g_crash_signal, __ATOMIC_RELAXED));
}

cerrno pmdb_member_ops_open(bool create, pmdb_member_ops_t **out) {
    *out = g_log.load(std::memory_order_acquire);
    if (*out != nullptr) return PMDB_OK;
    const int err = pmdb_mutex_take(&g_open_mutex, "pmdb_member_ops_open", kOpenLockLine);
    if (err != 0) return static_cast<cerrno>(err);
    pmdb_member_ops_t *log = g_log.load(std::memory_order_relaxed);
    const cerrno rc = log != nullptr ? PMDB_OK : log_open(create, &log);
    if (log != nullptr) g_log.store(log, std::memory_order_release);
    pthread_mutex_unlock(&g_open_mutex);
    *out = log;
    return rc;
}

void pmdb_member_ops_sweep(pmdb_member_ops_t *log, u32 wait_ms) {
    const u32 n = claimed(log);
    for (u32 i = 0; i < n; i++) {
        pmdb_member_op_t *r = &log->op[i];
        if (!pending(r) || owner_tid(r) != 0 || !record_take(r)) continue;
        record_complete(r, wait_ms);
        pthread_mutex_unlock(&r->owner);
    }
}

/* A member operation writes its record, then (ordered by a sequentially
 * consistent exchange) changes its member, and clears the record only
 * after its bundle changed.  The caller read the members before calling;
 * the read-modify-write here orders those reads before the record reads
 * below, so an operation whose member change the caller saw is found here
 * unless it has finished.  Owner ids: a record
 * whose owner lock names a thread is live (the kernel clears the id when
 * the owner dies); the caller's own records (its own, and one it is
 * completing) do not count. */
bool pmdb_member_ops_busy(u32 bundle_ifh) {
    pmdb_member_ops_t *log = nullptr;
    if (pmdb_member_ops_open(false, &log) != PMDB_OK || log == nullptr) return false;
    /* A read-modify-write rather than a fence: thread checkers know it. */
    const u32 n = std::min(__atomic_fetch_add(&log->claimed, 0u, __ATOMIC_SEQ_CST),
                           PMDB_MEMBER_OPS_RECORDS);
    const u32 me = static_cast<u32>(gettid());
    for (u32 i = 0; i < n; i++) {
        const pmdb_member_op_t *r = &log->op[i];
        if (!names(r, bundle_ifh)) continue;
        const u32 tid = owner_tid(r);
        if (tid != 0 && tid != me) return true;
    }
    return false;
}

/* An operation begun from inside another's callback on the same thread runs
 * unrecorded: the thread has one record, and the outer operation owns it. */
pmdb_member_op_scope::pmdb_member_op_scope() : rec_(nullptr) {
    if (t_in_op) return;
    pmdb_member_ops_t *log = nullptr;
    if (pmdb_member_ops_open(true, &log) != PMDB_OK || log == nullptr) return;
    pmdb_member_ops_sweep(log, 0);
    rec_ = record_claim(log);
    t_in_op = rec_ != nullptr;
}

pmdb_member_op_scope::~pmdb_member_op_scope() {
    if (rec_ == nullptr) return;
    __atomic_store_n(&rec_->bundle_ifh[0], 0u, __ATOMIC_RELEASE);
    __atomic_store_n(&rec_->bundle_ifh[1], 0u, __ATOMIC_RELEASE);
    t_in_op = false;
}

void pmdb_member_op_scope::name(u32 bundle_ifh, u32 other_bundle_ifh, u32 member_ifh) {
    if (rec_ == nullptr) return;
    __atomic_store_n(&rec_->member_ifh, member_ifh, __ATOMIC_RELAXED);
    __atomic_store_n(&rec_->bundle_ifh[1], other_bundle_ifh != bundle_ifh ? other_bundle_ifh : 0u,
                     __ATOMIC_RELAXED);
    /* Sequentially consistent read-modify-write: no store of the member
     * change that follows can be seen before the record. */
    __atomic_exchange_n(&rec_->bundle_ifh[0], bundle_ifh, __ATOMIC_SEQ_CST);
}
