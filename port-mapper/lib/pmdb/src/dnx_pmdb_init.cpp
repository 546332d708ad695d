/*
 * dnx_pmdb_init.cpp - the database frame: configuration table, per-process
 * handles, shared context regions, lazy initialisation and reference-counted
 * write protection of the table store.
 *
 * Concurrency contract (per process; the shared objects are covered below):
 *   - pmdb_init_mutex (recursive, one for all types) serialises handle
 *     creation, region mapping and table opening: it guards pmdb_hdl[], and
 *     a handle's event_mgr, cfg, shrd_ctx and tabra until the type is
 *     marked initialised.
 *   - pmdb_prot_mutex[type] (recursive) guards pmdb_wr_refcnt[type], the
 *     handle's prot_state and the two protection calls of the table store.
 *   - Lock order: pmdb_init_mutex before pmdb_prot_mutex[type]
 *     (dpa_pmdb_init releases the first writer while holding the former);
 *     nothing takes them the other way round.  Entry locks are never taken
 *     while either is held.
 *   - pmdb_inited[type] is stored with release order last, once the handle,
 *     region and table are in place, and never cleared; readers load it
 *     with acquire order and may then read pmdb_hdl[type] and the handle's
 *     shrd_ctx, tabra and cfg without a lock.
 *   - pmdb_cfg[type].max_entries is refreshed under either mutex; it is
 *     stored and loaded atomically (relaxed) because the two paths that
 *     write it take different mutexes.
 *
 * Shared region (one per type, see dnx_pmdb_shrd_ctx_t in pmdb.h):
 *   - magic (offset 0) goes from "anything else" to PMDB_SHRD_CTX_MAGIC
 *     exactly once per object, stored with release order after the region
 *     has been zeroed, under the named semaphore; readers load it with
 *     acquire order, so a process that sees the magic sees the zeroes.
 *   - entry_lock[slot] belongs to dnx_pmdb_lock.cpp; the globals block to
 *     the scale and node information code (IFH region only).
 *
 * The region semaphore.  "pmdb_shm_semaphore" orders the zeroing between
 * processes.  A process that dies while holding it would leave every later
 * first-time mapper waiting for ever, so the wait is bounded
 * (PMDB_SEM_WAIT_MS_DEFAULT, 5 s; zeroing takes about a millisecond): when
 * the bound passes and the region still has no magic, the stale semaphore
 * is traced (72), unlinked and obtained afresh, up to kSemRounds times.
 * Two waiters that time out together may end up on different semaphores;
 * each re-tests the magic under its own, so a second zeroing can only
 * happen if their checks interleave within that millisecond, and only on a
 * region whose creator died.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "halvo.h"
#include "pmdb.h"
#include "pmdb_fields.h"
#include "pmdb_internal.h"
#include "pmdb_trace.h"
#include "tabra.h"
#include "vorn_os.h"

extern "C" {

PMDB_EXPORT dnxpm_dbg_desc_t dnxpm_dbg_pmdb_types;

u32 dpa_pmdb_key_hash(u32 key) { return pmdb_fields::key_hash(key); }

#define PMDB_CFG_ROW(shm, table, entry)                                                     \
    {                                                                                     \
        shm, PMDB_SHM_SIZE, table, PMDB_TBL_PARAM1, PMDB_TBL_PARAM2, PMDB_HASH_BUCKETS,  \
            dpa_pmdb_key_hash, PMDB_MAX_ENTRIES, entry, PMDB_TBL_PARAM3                   \
    }

dnx_db_cfg_t pmdb_cfg[PMDB_NUM_TYPES] = {
    PMDB_CFG_ROW(PMDB_IFH_SHM_NAME, PMDB_IFH_TABLE_NAME, PMDB_IFH_ENTRY_SIZE),
    PMDB_CFG_ROW(PMDB_PUNT_SHM_NAME, PMDB_PUNT_TABLE_NAME, PMDB_PUNT_ENTRY_SIZE),
    PMDB_CFG_ROW(PMDB_OAM_SHM_NAME, PMDB_OAM_TABLE_NAME, PMDB_OAM_ENTRY_SIZE),
};

}  // extern "C"

namespace {

constexpr const char *kOpenFn =
    "cerrno dpa_chk_pmdb_open(event_mgr_p, dnx_db_hdl_t **, pmdb_type_t, int)";
constexpr unsigned kAssertLineInitialised = 824; /* this call initialised the type */
constexpr unsigned kAssertLineKnown = 813;       /* the type was initialised before */
constexpr useconds_t kFirstProtectPauseUs = 100000;
constexpr unsigned kSemRounds = 3;

std::atomic<u32> pmdb_inited[PMDB_NUM_TYPES];
dnx_db_hdl_t *pmdb_hdl[PMDB_NUM_TYPES];
i32 pmdb_wr_refcnt[PMDB_NUM_TYPES];
pthread_mutex_t pmdb_prot_mutex[PMDB_NUM_TYPES] = {PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP,
                                                   PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP,
                                                   PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP};
pthread_mutex_t pmdb_init_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
std::atomic<u32> g_sem_wait_ms{0};

bool type_valid(pmdb_type_t type) { return static_cast<u32>(type) < PMDB_NUM_TYPES; }

bool type_inited(pmdb_type_t type) {
    return pmdb_inited[type].load(std::memory_order_acquire) == PMDB_INITED_MARKER;
}

u32 region_magic(const dnx_pmdb_shrd_ctx_t *ctx) {
    return __atomic_load_n(&ctx->magic, __ATOMIC_ACQUIRE);
}

/* ---- configuration ----------------------------------------------------- */

/* The region has one entry lock per slot: a table with more entries would
 * hand out slots that have no lock (the entry change cycle refuses them),
 * so the table must not hold more entries. */
void max_entries_refresh(dnx_db_cfg_t *cfg) {
    u32 max = halvo_config_get_port_mapper_max_entries();
    if (max > PMDB_MAX_ENTRIES) {
        PMDB_TRACE(tp::max_entries_clamped, max, PMDB_MAX_ENTRIES);
        max = PMDB_MAX_ENTRIES;
    }
    __atomic_store_n(&cfg->max_entries, max, __ATOMIC_RELAXED);
}

tabra_params_t params_build(const dnx_db_cfg_t *cfg, u32 open_flags) {
    tabra_params_t p;
    memset(&p, 0, sizeof p);
    p.version = PMDB_TABRA_PARAMS_VERSION;
    p.table_name = cfg->table_name;
    p.open_flags = open_flags;
    p.tbl_param1 = cfg->tbl_param1;
    p.tbl_param2 = cfg->tbl_param2;
    p.hash_buckets = cfg->hash_buckets;
    p.hash_fn = cfg->hash_fn;
    p.max_entries = __atomic_load_n(&cfg->max_entries, __ATOMIC_RELAXED);
    p.entry_size = cfg->entry_size;
    p.tbl_param3 = cfg->tbl_param3;
    return p;
}

/* ---- shared context region --------------------------------------------- */

u32 sem_wait_ms() {
    const u32 ms = g_sem_wait_ms.load(std::memory_order_relaxed);
    return ms != 0 ? ms : PMDB_SEM_WAIT_MS_DEFAULT;
}

int shm_object_open(const dnx_db_cfg_t *cfg) {
    int fd = _shm_open(cfg->shm_name, O_CREAT | O_EXCL | O_RDWR, 0777);
    if (fd < 0) fd = _shm_open(cfg->shm_name, O_CREAT | O_RDWR, 0777);
    if (fd < 0) PMDB_TRACE(tp::shm_open_failed, cfg->shm_name, cfg->shm_size);
    return fd;
}

sem_t *sem_obtain(const dnx_db_cfg_t *cfg) {
    sem_t *sem = vorn_sem_open(PMDB_SHM_SEMAPHORE_NAME, O_CREAT | O_EXCL, 0777, 1);
    if (sem == SEM_FAILED) sem = vorn_sem_open(PMDB_SHM_SEMAPHORE_NAME, O_CREAT, 0777, 1);
    if (sem == SEM_FAILED) PMDB_TRACE(tp::shm_semaphore_failed, cfg->shm_name, cfg->shm_size);
    return sem;
}

/* 0 once the semaphore is taken, ETIMEDOUT after the bound, else errno. */
int sem_wait_bounded(sem_t *sem, u32 ms) {
    const struct timespec deadline = pmdb_deadline(CLOCK_MONOTONIC, ms);
    int rc = EINTR;
    while (rc == EINTR) rc = sem_clockwait(sem, CLOCK_MONOTONIC, &deadline) == 0 ? 0 : errno;
    return rc;
}

/* Caller holds the semaphore.  The magic is re-tested here: it may have
 * appeared while this process waited. */
void region_zero_once(const dnx_db_cfg_t *cfg, dnx_pmdb_shrd_ctx_t *ctx) {
    if (region_magic(ctx) == PMDB_SHRD_CTX_MAGIC) return;
    memset(ctx, 0, static_cast<size_t>(cfg->shm_size));
    __atomic_store_n(&ctx->magic, PMDB_SHRD_CTX_MAGIC, __ATOMIC_RELEASE);
}

/* Zeroes a region that has no magic yet, once per machine. */
cerrno region_first_init(const dnx_db_cfg_t *cfg, dnx_pmdb_shrd_ctx_t *ctx) {
    const u32 ms = sem_wait_ms();
    for (unsigned round = 0; round < kSemRounds; round++) {
        sem_t *sem = sem_obtain(cfg);
        if (sem == SEM_FAILED) return PMDB_ESHM;
        const int rc = sem_wait_bounded(sem, ms);
        if (rc == 0) {
            region_zero_once(cfg, ctx);
            sem_post(sem);
        }
        sem_close(sem);
        if (rc != ETIMEDOUT) {
            vorn_sem_unlink(PMDB_SHM_SEMAPHORE_NAME);
            return rc == 0 ? PMDB_OK : PMDB_ESHM;
        }
        /* Whoever holds it finished this region meanwhile: leave the
         * semaphore to them. */
        if (region_magic(ctx) == PMDB_SHRD_CTX_MAGIC) return PMDB_OK;
        PMDB_TRACE(tp::shm_semaphore_stale, cfg->shm_name, ms);
        vorn_sem_unlink(PMDB_SHM_SEMAPHORE_NAME);
    }
    return PMDB_ESHM;
}

/* ---- handles and the table store ---------------------------------------- */

/* Caller holds pmdb_init_mutex.  Null only when the allocation failed. */
dnx_db_hdl_t *hdl_obtain(event_mgr_p em, pmdb_type_t type) {
    if (pmdb_hdl[type] != nullptr) return pmdb_hdl[type];
    auto *hdl = static_cast<dnx_db_hdl_t *>(calloc(1, sizeof(dnx_db_hdl_t)));
    if (hdl == nullptr) return nullptr;
    hdl->event_mgr = em;
    hdl->prot_state = PMDB_PROT_WRITABLE;
    /* Stands for the initialising open, whose first release protects. */
    pmdb_wr_refcnt[type] = 1;
    pmdb_hdl[type] = hdl;
    return hdl;
}

/* Caller holds pmdb_prot_mutex[type]; a change of protection always carries
 * a freshly read max_entries. */
cerrno protection_change(tabra_hdl_t table, dnx_db_hdl_t *hdl, i32 new_state) {
    max_entries_refresh(hdl->cfg);
    const tabra_params_t params = params_build(hdl->cfg, PMDB_TABRA_OPEN_READ);
    const cerrno rc = new_state == PMDB_PROT_WRITABLE
                          ? tabra_make_shm_writable(table, &params)
                          : tabra_make_shm_readonly_protected(table, &params);
    if (rc == 0) hdl->prot_state = new_state;
    return rc;
}

/* The table store's add hook: a new slot's entry lock is made ready before
 * its key can be found, so that every writer that finds the key finds a
 * usable lock (see pmdb_cycle.h).  Runs under the table's writer lock on a
 * slot nobody pins. */
void slot_lock_ready(void *ctx, i32 slot) {
    const auto *hdl = static_cast<const dnx_db_hdl_t *>(ctx);
    if (slot >= 0 && static_cast<u32>(slot) < PMDB_NUM_ENTRY_LOCKS)
        pmdb_lock_init(&hdl->shrd_ctx->entry_lock[slot]);
}

/* Caller holds pmdb_init_mutex. */
cerrno table_open(dnx_db_hdl_t *hdl, pmdb_type_t type, int write_intent) {
    const tabra_params_t params =
        params_build(hdl->cfg, write_intent != 0 ? PMDB_TABRA_OPEN_WRITE : PMDB_TABRA_OPEN_READ);
    cerrno rc = tabra_init(hdl->event_mgr, &dnxpm_dbg_pmdb_types);
    if (rc != 0) {
        PMDB_TRACE(tp::tabra_init_failed, rc);
        return rc;
    }
    tabra_hdl_t table = nullptr;
    rc = tabra_open(&params, &table);
    if (rc != 0 || table == nullptr) {
        /* Success without a table leaves tabra null; the open asserts. */
        PMDB_TRACE(tp::tabra_open_failed, rc);
        return rc;
    }
    rc = tabra_set_add_hook(table, slot_lock_ready, hdl);
    if (rc != 0) {
        PMDB_TRACE(tp::tabra_open_failed, rc);
        return rc;
    }
    PMDB_TRACE(tp::table_opened, type);
    usleep(kFirstProtectPauseUs);
    rc = dpa_pmdb_mprotect_tabra(table, hdl, type);
    if (rc != 0) {
        PMDB_TRACE(tp::first_protect_failed, rc);
        return rc;
    }
    hdl->tabra = table;
    PMDB_TRACE(tp::table_protected, type);
    return 0;
}

/* Caller holds pmdb_init_mutex.  Resumes from the first missing piece. */
cerrno init_locked(event_mgr_p em, pmdb_type_t type, int write_intent) {
    dnx_db_hdl_t *hdl = hdl_obtain(em, type);
    if (hdl == nullptr) return PMDB_ENOMEM;
    if (hdl->cfg == nullptr) hdl->cfg = &pmdb_cfg[type];
    max_entries_refresh(hdl->cfg);
    cerrno rc = hdl->shrd_ctx != nullptr ? 0 : dpa_pmdb_shrd_ctx_map(hdl->cfg, hdl);
    if (rc == 0 && hdl->tabra == nullptr) rc = table_open(hdl, type, write_intent);
    if (rc == 0) pmdb_inited[type].store(PMDB_INITED_MARKER, std::memory_order_release);
    return rc;
}

/* Handle and region without the table store (dpa_chk_shrd_ctx_open). */
cerrno dpa_pmdb_shrd_ctx_init(event_mgr_p em, pmdb_type_t type, dnx_db_hdl_t **out) {
    const int err = pmdb_mutex_take(&pmdb_init_mutex, "dpa_pmdb_shrd_ctx_init", 697);
    if (err != 0) {
        PMDB_TRACE(tp::shrd_ctx_open_failed, type, err);
        return static_cast<cerrno>(err);
    }
    dnx_db_hdl_t *hdl = hdl_obtain(em, type);
    cerrno rc = hdl != nullptr ? 0 : PMDB_ENOMEM;
    if (hdl != nullptr && hdl->cfg == nullptr) hdl->cfg = &pmdb_cfg[type];
    if (hdl != nullptr && hdl->shrd_ctx == nullptr) rc = dpa_pmdb_shrd_ctx_map(hdl->cfg, hdl);
    pthread_mutex_unlock(&pmdb_init_mutex);
    if (rc != 0) {
        PMDB_TRACE(tp::shrd_ctx_open_failed, type, rc);
        return rc;
    }
    *out = hdl;
    return 0;
}

}  // namespace

extern "C" {

struct timespec pmdb_deadline(clockid_t clock, u32 ms) {
    struct timespec t;
    clock_gettime(clock, &t);
    t.tv_sec += ms / 1000u;
    t.tv_nsec += static_cast<long>(ms % 1000u) * 1000000L;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec++;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

i64 pmdb_region_length(i32 shm_size, i64 page) {
    const i64 rounded_up = static_cast<i64>(shm_size) + page - 1;
    return rounded_up - rounded_up % page;
}

void pmdb_frame_set_sem_wait_ms(u32 ms) { g_sem_wait_ms.store(ms, std::memory_order_relaxed); }

i32 pmdb_frame_wr_refcnt(pmdb_type_t type) {
    if (!type_valid(type)) return 0;
    pthread_mutex_lock(&pmdb_prot_mutex[type]);
    const i32 count = pmdb_wr_refcnt[type];
    pthread_mutex_unlock(&pmdb_prot_mutex[type]);
    return count;
}

cerrno dpa_pmdb_shrd_ctx_map(const dnx_db_cfg_t *cfg, dnx_db_hdl_t *hdl) {
    const int fd = shm_object_open(cfg);
    if (fd < 0) return PMDB_ESHM;
    const i64 len = pmdb_region_length(cfg->shm_size, sysconf(_SC_PAGESIZE));
    if (ftruncate(fd, len) != 0) {
        PMDB_TRACE(tp::shm_size_failed, cfg->shm_name, len);
        vorn_close(fd);
        return PMDB_ESHM;
    }
    void *map = vornos_mmap(nullptr, static_cast<size_t>(len), PROT_READ | PROT_WRITE, MAP_SHARED,
                            fd, 0);
    if (map == MAP_FAILED) {
        PMDB_TRACE(tp::shm_map_failed, cfg->shm_name, len);
        vorn_close(fd);
        return PMDB_ENOMEM;
    }
    vorn_close(fd);
    auto *ctx = static_cast<dnx_pmdb_shrd_ctx_t *>(map);
    const cerrno rc = region_magic(ctx) == PMDB_SHRD_CTX_MAGIC ? 0 : region_first_init(cfg, ctx);
    if (rc != 0) {
        /* A failed attempt leaves nothing behind in the process. */
        munmap(map, static_cast<size_t>(len));
        return rc;
    }
    hdl->shrd_ctx = ctx;
    PMDB_TRACE(tp::shm_region_mapped, cfg->shm_name, cfg->shm_size);
    return 0;
}

cerrno dpa_pmdb_munprotect_tabra(dnx_db_hdl_t *hdl, pmdb_type_t type) {
    const int err =
        pmdb_mutex_take(&pmdb_prot_mutex[type], "dpa_pmdb_munprotect_tabra", 265);
    if (err != 0) {
        PMDB_TRACE(tp::write_enable_failed, err);
        return static_cast<cerrno>(err);
    }
    /* The writer stays counted even if the table store refuses below: its
     * caller gets the error, and the count is this process's to keep. */
    pmdb_wr_refcnt[type]++;
    cerrno rc = 0;
    if (hdl->prot_state != PMDB_PROT_WRITABLE && hdl->cfg != nullptr)
        rc = protection_change(hdl->tabra, hdl, PMDB_PROT_WRITABLE);
    pthread_mutex_unlock(&pmdb_prot_mutex[type]);
    if (rc != 0) PMDB_TRACE(tp::write_enable_failed, rc);
    return rc;
}

PMDB_EXPORT cerrno dpa_pmdb_mprotect_tabra(tabra_hdl_t table, dnx_db_hdl_t *hdl,
                                           pmdb_type_t type) {
    /* Refused before the count moves: a release without a table would count
     * the writer out and leave the table store writable. */
    if (!type_valid(type) || hdl == nullptr || table == nullptr) return PMDB_EINVAL;
    const int err = pmdb_mutex_take(&pmdb_prot_mutex[type], "dpa_pmdb_mprotect_tabra", 206);
    if (err != 0) {
        PMDB_TRACE(tp::mprotect_lock_failed);
        return static_cast<cerrno>(err);
    }
    cerrno rc = 0;
    /* Other writers of this process still need write access while > 0. */
    if (--pmdb_wr_refcnt[type] <= 0 && hdl->prot_state != PMDB_PROT_READONLY &&
        hdl->cfg != nullptr)
        rc = protection_change(table, hdl, PMDB_PROT_READONLY);
    pthread_mutex_unlock(&pmdb_prot_mutex[type]);
    return rc;
}

PMDB_EXPORT cerrno dpa_pmdb_init(event_mgr_p em, pmdb_type_t type, int write_intent) {
    if (!type_valid(type)) return PMDB_EINVAL;
    PMDB_TRACE(tp::init_entered, type);
    const int err = pmdb_mutex_take(&pmdb_init_mutex, "dpa_pmdb_init", 568);
    if (err != 0) {
        PMDB_TRACE(tp::init_lock_failed, type, err);
        return static_cast<cerrno>(err);
    }
    const cerrno rc = type_inited(type) ? 0 : init_locked(em, type, write_intent);
    pthread_mutex_unlock(&pmdb_init_mutex);
    return rc;
}

PMDB_EXPORT cerrno dpa_chk_pmdb_open(event_mgr_p em, dnx_db_hdl_t **out, pmdb_type_t type,
                                     int write_intent) {
    if (!type_valid(type) || out == nullptr) return PMDB_EINVAL;
    unsigned line = kAssertLineKnown;
    if (!type_inited(type)) {
        const cerrno rc = dpa_pmdb_init(em, type, write_intent);
        if (rc != 0) {
            PMDB_TRACE(tp::open_init_failed, rc, type);
            return rc;
        }
        line = kAssertLineInitialised;
    }
    dnx_db_hdl_t *hdl = pmdb_hdl[type];
    if (hdl->tabra == nullptr)
        __assert_fail("pmdb_hdl[db_type]->tabra", PMDB_INIT_SRC_FILE, line, kOpenFn);
    *out = hdl;
    if (write_intent == 0) return 0;
    return dpa_pmdb_munprotect_tabra(hdl, type);
}

PMDB_EXPORT cerrno dpa_chk_shrd_ctx_open(event_mgr_p em, dnx_db_hdl_t **out,
                                         pmdb_type_t type) {
    if (!type_valid(type) || out == nullptr) return PMDB_EINVAL;
    if (type_inited(type)) {
        dnx_db_hdl_t *hdl = pmdb_hdl[type];
        if (region_magic(hdl->shrd_ctx) != PMDB_SHRD_CTX_MAGIC) return PMDB_ENOTFOUND;
        *out = hdl;
        return 0;
    }
    dnx_db_hdl_t *hdl = nullptr;
    const cerrno rc = dpa_pmdb_shrd_ctx_init(em, type, &hdl);
    if (rc != 0) return rc;
    if (region_magic(hdl->shrd_ctx) != PMDB_SHRD_CTX_MAGIC) {
        PMDB_TRACE(tp::shrd_ctx_no_magic, type);
        return PMDB_ENOTFOUND;
    }
    *out = hdl;
    return 0;
}

PMDB_EXPORT dnx_db_hdl_t *dpa_pmdb_hdl_get(pmdb_type_t type) {
    if (type_valid(type) && type_inited(type)) return pmdb_hdl[type];
    PMDB_TRACE(tp::hdl_get_uninitialised);
    return nullptr;
}

PMDB_EXPORT void *pmdb_debug_flag(int type) {
    return type == PMDB_TYPE_IFH ? static_cast<void *>(&dnxpm_dbg_pmdb_types) : nullptr;
}

}  // extern "C"
