/*
 * tabra_open.cpp - opening and attaching tables: making, mapping and
 * checking the shared object, and this process's registry of handles.
 *
 * Concurrency.  `g_tables` (registry of this process's handles) is guarded
 * by `g_tables_lock`; handles are never freed, so a handle pointer stays
 * valid for the life of the process.  Between processes, an open holds the
 * object's flock while it makes, checks and maps the object, which also
 * orders a creator's header stores before another opener's reads; the
 * handle is built from a checked copy of the header, never from the shared
 * header, which may change later.  Lock order: `g_tables_lock` before the
 * flock.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/os_host.h"
#include "tabra_internal.h"
#include "vorn_os.h"

using namespace tabra_detail;

namespace tabra_detail {

/* ---------------------------------------------------------------------- */
/* Creating, attaching and mapping                                        */
/* ---------------------------------------------------------------------- */

namespace {

u32 stride_of(u32 entry_size) {
    return (entry_size + 7u) & ~7u;
}
size_t object_size_of(u32 stride) {
    const size_t end = TABRA_OFF_ENTRIES + static_cast<size_t>(TABRA_SLOTS) * stride;
    return (end + kPage - 1) & ~(kPage - 1);
}

/* 0, or the reason code traced with pmdb_tp::tabra_open_bad_params. */
u32 params_fault(const tabra_params_t *p) {
    if (p == nullptr) return 1;
    if (p->version != PMDB_TABRA_PARAMS_VERSION) return 2;
    if (p->table_name == nullptr || p->table_name[0] == '\0' || strlen(p->table_name) > 63)
        return 3;
    if (p->entry_size == 0 || p->entry_size > TABRA_MAX_ENTRY_SIZE) return 4;
    if (p->hash_buckets == 0 || p->hash_buckets > TABRA_BUCKET_WORDS) return 5;
    if (p->hash_fn == nullptr) return 6;
    return 0;
}

bool name_ok(const char *name) {
    return name != nullptr && name[0] != '\0' && strlen(name) <= 63;
}

/* What an open asks of the object. */
struct open_req {
    const char *name;
    const char *object;           /* namespaced object name */
    const tabra_params_t *params; /* null: attach */
    bool create;
};

/* Bytes of the header's first run of fields fixed at creation, format to
 * buckets (tabra_layout.h). */
constexpr size_t kFixedFields =
    offsetof(tabra_shm_hdr_t, max_entries) - offsetof(tabra_shm_hdr_t, format);

/* FNV-1a of n bytes at p, continuing from hash. */
u32 fnv1a(const void *p, size_t n, u32 hash) {
    const u8 *b = static_cast<const u8 *>(p);
    for (size_t i = 0; i < n; i++) hash = (hash ^ b[i]) * 16777619u;
    return hash;
}

/* The check word of the fields fixed at creation (tabra_layout.h). */
u32 header_check(const tabra_shm_hdr_t &h) {
    u32 x = fnv1a(&h.format, kFixedFields, 2166136261u);
    x = fnv1a(&h.object_size, sizeof h.object_size, x);
    return fnv1a(h.name, sizeof h.name, x);
}

void init_header(u8 *index, const open_req &rq) {
    tabra_shm_hdr_t *h = reinterpret_cast<tabra_shm_hdr_t *>(index);
    memset(h, 0, sizeof *h);
    h->format = TABRA_SHM_FORMAT;
    h->entry_size = rq.params->entry_size;
    h->stride = stride_of(rq.params->entry_size);
    h->capacity = TABRA_CAPACITY;
    h->buckets = rq.params->hash_buckets;
    h->max_entries = TABRA_CAPACITY;
    h->object_size = object_size_of(h->stride);
    h->hash_is_mod = 1;
    snprintf(h->name, sizeof h->name, "%s", rq.name);
    h->hdr_check = header_check(*h);
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&h->writer, &a);
    pthread_mutexattr_destroy(&a);
    st_rel(&h->magic, TABRA_SHM_MAGIC);
}

damage geometry_fault(const tabra_shm_hdr_t &h) {
    if (h.entry_size == 0 || h.entry_size > TABRA_MAX_ENTRY_SIZE)
        return {TABRA_DAMAGE_ENTRY_SIZE, h.entry_size};
    if (h.buckets == 0 || h.buckets > TABRA_BUCKET_WORDS) return {TABRA_DAMAGE_BUCKETS, h.buckets};
    if (h.capacity != TABRA_CAPACITY || h.stride != stride_of(h.entry_size) ||
        h.object_size != object_size_of(h.stride))
        return {TABRA_DAMAGE_GEOMETRY, h.object_size};
    return {0, 0};
}

/* The fields writers change: the intent may name an add or a remove in
 * flight (a writer died), but only of a slot and bucket that exist. */
damage state_fault(const tabra_shm_hdr_t &h) {
    if (h.count > TABRA_CAPACITY || h.max_entries > TABRA_CAPACITY)
        return {TABRA_DAMAGE_COUNTS, h.count};
    const tabra_intent_t &in = h.intent;
    const bool sound = in.op == TABRA_OP_NONE ||
                       ((in.op == TABRA_OP_ADD || in.op == TABRA_OP_REMOVE) &&
                        in.slot < TABRA_SLOTS && in.bucket < h.buckets);
    return sound ? damage{0, 0} : damage{TABRA_DAMAGE_INTENT, in.op};
}

}  // namespace

damage header_fault(const tabra_shm_hdr_t &h, const char *name, u64 size) {
    damage d = geometry_fault(h);
    if (d.code == 0 && size < h.object_size) d = {TABRA_DAMAGE_SIZE, size};
    if (d.code == 0 && strncmp(h.name, name, sizeof h.name) != 0) d = {TABRA_DAMAGE_NAME, 0};
    if (d.code == 0 && h.hdr_check != header_check(h)) d = {TABRA_DAMAGE_CHECK, h.hdr_check};
    return d.code != 0 ? d : state_fault(h);
}

void copy_header(const tabra_shm_hdr_t *src, tabra_shm_hdr_t *h) {
    memset(h, 0, sizeof *h);
    h->magic = ld_acq(&src->magic);
    memcpy(&h->format, &src->format, kFixedFields);
    h->max_entries = ld_rlx(&src->max_entries);
    h->count = ld_rlx(&src->count);
    h->object_size = src->object_size;
    memcpy(h->name, src->name, sizeof h->name);
    h->hdr_check = src->hdr_check;
    h->intent.op = ld_acq(&src->intent.op);
    h->intent.slot = ld_rlx(&src->intent.slot);
    h->intent.bucket = ld_rlx(&src->intent.bucket);
}

namespace {

cerrno damaged(damage d) {
    return fail(pmdb_tp::tabra_damaged_table_refused, TABRA_E_CORRUPT, d.code, d.value);
}

cerrno shm_fail(int err, u64 stage) {
    return fail(pmdb_tp::tabra_object_failed, TABRA_E_SHM, static_cast<u64>(err), stage);
}

cerrno map_index(int fd, u8 **index) {
    void *m = vornos_mmap(nullptr, TABRA_OFF_ENTRIES, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (m == MAP_FAILED) return shm_fail(errno, 3);
    *index = static_cast<u8 *>(m);
    return 0;
}

/* Offset of the first nonzero byte of an index part after its header, 0
 * when there is none: a creator killed before writing the magic leaves
 * nothing there, a table that was ever used always does. */
u64 first_written(const u8 *index) {
    const u64 *w = reinterpret_cast<const u64 *>(index + TABRA_OFF_BUCKETS);
    const size_t n = (TABRA_OFF_ENTRIES - TABRA_OFF_BUCKETS) / sizeof(u64);
    for (size_t i = 0; i < n; i++) {
        if (w[i] != 0) return TABRA_OFF_BUCKETS + i * sizeof(u64);
    }
    return 0;
}

/* An object of *size bytes without the magic (its index part at *index when
 * it is long enough to have one).  Only one that nothing was ever written to
 * becomes a table, and only for a creating open; any other is damaged and
 * left as it is. */
cerrno make_unwritten(int fd, const open_req &rq, u64 *size, u8 **index) {
    const u64 at = *index != nullptr ? first_written(*index) : 0;
    if (*size != 0 && *index == nullptr) return damaged({TABRA_DAMAGE_SIZE, *size});
    if (at != 0) return damaged({TABRA_DAMAGE_NO_MAGIC, at});
    if (!rq.create) return fail(pmdb_tp::tabra_no_table, TABRA_E_NOTFOUND, 0, 0);
    const off_t want = static_cast<off_t>(object_size_of(stride_of(rq.params->entry_size)));
    if (ftruncate(fd, 0) != 0 || ftruncate(fd, want) != 0) return shm_fail(errno, 2);
    *size = static_cast<u64>(want);
    const cerrno st = *index == nullptr ? map_index(fd, index) : 0;
    if (st == 0) init_header(*index, rq);
    return st;
}

/* The checks of tabra.h on header copy h; then, for an open, its format
 * against the caller's parameters. */
cerrno check_header_copy(const tabra_shm_hdr_t &h, const open_req &rq, u64 size) {
    if (h.format != TABRA_SHM_FORMAT)
        return fail(pmdb_tp::tabra_format_mismatch, TABRA_E_MISMATCH, h.format, h.entry_size);
    const damage d = header_fault(h, rq.name, size);
    if (d.code != 0) return damaged(d);
    if (rq.params &&
        (rq.params->entry_size != h.entry_size || rq.params->hash_buckets != h.buckets))
        return fail(pmdb_tp::tabra_format_mismatch, TABRA_E_MISMATCH, h.entry_size,
                    rq.params->entry_size);
    return 0;
}

/* Holding the object's flock (which also orders the creator's stores before
 * these reads): maps the index part into *index and leaves in *h a copy of
 * the header that passed every check, making the table first when the
 * object was never written and the caller may create.  The handle is built
 * from the copy, never from the shared header, which may change later. */
cerrno prepare_object(int fd, const open_req &rq, u8 **index, tabra_shm_hdr_t *h) {
    struct stat sb {};
    if (fstat(fd, &sb) != 0) return shm_fail(errno, 1);
    u64 size = static_cast<u64>(sb.st_size);
    cerrno st = size >= TABRA_OFF_ENTRIES ? map_index(fd, index) : 0;
    const bool ready = *index != nullptr &&
                       ld_acq(&reinterpret_cast<tabra_shm_hdr_t *>(*index)->magic) == TABRA_SHM_MAGIC;
    if (st == 0 && !ready) st = make_unwritten(fd, rq, &size, index);
    if (st == 0) copy_header(reinterpret_cast<const tabra_shm_hdr_t *>(*index), h);
    return st == 0 ? check_header_copy(*h, rq, size) : st;
}

cerrno map_entries(int fd, tabra_table *t, bool writable, u32 nbuckets) {
    const int prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    void *e = vornos_mmap(nullptr, t->entries_len, prot, MAP_SHARED, fd, TABRA_OFF_ENTRIES);
    if (e == MAP_FAILED) return shm_fail(errno, 4);
    void *a = vornos_mmap(nullptr, t->entries_len, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                          TABRA_OFF_ENTRIES);
    if (a == MAP_FAILED) {
        munmap(e, t->entries_len);
        return shm_fail(errno, 5);
    }
    t->entries = static_cast<u8 *>(e);
    t->alias = static_cast<u8 *>(a);
    const tabra_shm_hdr_t *h = hdr(t);
    t->rest = tabra_rest_view_t{buckets(t), slots(t), t->entries, &h->hash_is_mod,
                                nbuckets,    t->stride, t->entry_size, 0};
    t->whole_rw = writable ? 1 : 0;
    return 0;
}

void free_handle(tabra_table *t) {
    free(t->page_rw);
    free(t->bracket_gen);
    free(t->bracket_slot);
    free(t);
}

tabra_table *new_handle(const open_req &rq, u8 *index, const tabra_shm_hdr_t &h) {
    tabra_table *t = static_cast<tabra_table *>(calloc(1, sizeof(tabra_table)));
    if (t == nullptr) return nullptr;
    snprintf(t->name, sizeof t->name, "%s", rq.name);
    snprintf(t->object, sizeof t->object, "%s", rq.object);
    t->index = index;
    t->stride = h.stride;
    t->entry_size = h.entry_size;
    t->entries_len = static_cast<size_t>(TABRA_SLOTS) * h.stride;
    t->entries_len = (t->entries_len + kPage - 1) & ~(kPage - 1);
    t->page_rw = static_cast<u64 *>(calloc(t->entries_len / kPage / 64 + 1, sizeof(u64)));
    t->bracket_gen = static_cast<u32 *>(calloc(TABRA_SLOTS, sizeof(u32)));
    t->bracket_slot = static_cast<u32 *>(calloc(TABRA_SLOTS, sizeof(u32)));
    if (t->page_rw == nullptr || t->bracket_gen == nullptr || t->bracket_slot == nullptr) {
        free_handle(t);
        return nullptr;
    }
    pthread_mutex_init(&t->prot_lock, nullptr);
    return t;
}

/* Builds a handle for the object (flock held). */
cerrno handle_for(int fd, const open_req &rq, tabra_table **out) {
    u8 *index = nullptr;
    tabra_shm_hdr_t h;
    cerrno st = prepare_object(fd, rq, &index, &h);
    tabra_table *t = st == 0 ? new_handle(rq, index, h) : nullptr;
    if (st == 0 && t == nullptr)
        st = fail(pmdb_tp::tabra_no_memory, TABRA_E_NOMEM, sizeof(tabra_table), 0);
    if (st == 0) st = map_entries(fd, t, rq.params != nullptr, h.buckets);
    if (st != 0 && index != nullptr) munmap(index, TABRA_OFF_ENTRIES);
    if (st != 0 && t != nullptr) free_handle(t);
    if (st == 0) *out = t;
    return st;
}

cerrno map_table(const open_req &rq, tabra_table **out) {
    char obj[96];
    snprintf(obj, sizeof obj, TABRA_SHM_PREFIX "%s", rq.name);
    /* The OS layer gives a new object the host's mode, whatever is passed. */
    const int fd = _shm_open(obj, O_RDWR | (rq.create ? O_CREAT : 0), 0600);
    if (fd < 0 && errno == ENOENT && !rq.create)
        return fail(pmdb_tp::tabra_no_table, TABRA_E_NOTFOUND, 0, 0);
    if (fd < 0 && errno == EPERM)
        return fail(pmdb_tp::tabra_object_not_ours, TABRA_E_OWNER, EPERM, 0);
    if (fd < 0) return shm_fail(errno, 0);
    cerrno st = 0;
    if (flock(fd, LOCK_EX) != 0) st = shm_fail(errno, 6);
    if (st == 0) st = handle_for(fd, rq, out);
    flock(fd, LOCK_UN);
    vorn_close(fd);
    return st;
}

pthread_mutex_t g_tables_lock = PTHREAD_MUTEX_INITIALIZER;
tabra_table *g_tables;

/* Caller holds g_tables_lock.  Keyed by the namespaced object, so that a
 * process that changes namespace does not meet its old tables. */
tabra_table *registry_find(const char *object) {
    for (tabra_table *t = g_tables; t != nullptr; t = t->next) {
        if (strcmp(t->object, object) == 0) return t;
    }
    return nullptr;
}

/* Reuses this process's handle of the table or maps a new one. */
cerrno get_handle(open_req rq, dpa_pmdb_hash_fn_t hash_fn, tabra_table **out) {
    char bare[96];
    char object[128];
    snprintf(bare, sizeof bare, TABRA_SHM_PREFIX "%s", rq.name);
    if (vorn_host_shm_name(bare, object, sizeof object) != 0) {
        const bool ns_ok = vorn_host_namespace_valid(vorn_host_namespace());
        return shm_fail(ns_ok ? ENAMETOOLONG : EINVAL, 0); /* EINVAL: PMDB_NS names no namespace */
    }
    rq.object = object;
    pthread_mutex_lock(&g_tables_lock);
    cerrno st = 0;
    tabra_table *t = registry_find(object);
    if (t != nullptr && rq.params != nullptr &&
        (rq.params->entry_size != t->entry_size || rq.params->hash_buckets != hdr(t)->buckets))
        st = fail(pmdb_tp::tabra_format_mismatch, TABRA_E_MISMATCH, t->entry_size,
                  rq.params->entry_size);
    if (t == nullptr && st == 0) {
        st = map_table(rq, &t);
        if (st == 0) {
            t->next = g_tables;
            g_tables = t;
        }
    }
    if (st == 0 && ld_rlx(&t->hash_fn) == nullptr && hash_fn != nullptr)
        st_rel(&t->hash_fn, hash_fn);
    pthread_mutex_unlock(&g_tables_lock);
    if (st == 0) *out = t;
    return st;
}

}  // namespace

void refresh_max_entries(tabra_table *t, const tabra_params_t *p) {
    if (p == nullptr || p->max_entries == 0) return;
    const u32 v = p->max_entries > TABRA_CAPACITY ? TABRA_CAPACITY : p->max_entries;
    if (ld_rlx(&hdr(t)->max_entries) != v) st_rlx(&hdr(t)->max_entries, v);
}

namespace {

struct list_ctx {
    void (*fn)(void *, const char *);
    void *ctx;
    int n;
};

void list_one(void *p, const char *object) {
    list_ctx *l = static_cast<list_ctx *>(p);
    const size_t len = strlen(TABRA_SHM_PREFIX);
    if (strncmp(object, TABRA_SHM_PREFIX, len) != 0 || object[len] == '\0') return;
    l->n++;
    if (l->fn != nullptr) l->fn(l->ctx, object + len);
}

}  // namespace

}  // namespace tabra_detail

/* ---------------------------------------------------------------------- */
/* Exported calls                                                         */
/* ---------------------------------------------------------------------- */

extern "C" {

cerrno tabra_init(event_mgr_p em, void *debug_desc) {
    cerrno st = 0;
    if (injected("tabra_init", reinterpret_cast<u64>(em), reinterpret_cast<u64>(debug_desc), 0, 0,
                 &st))
        return st;
    return 0;
}

cerrno tabra_open(const tabra_params_t *params, tabra_hdl_t *out) {
    cerrno st = 0;
    const u64 flags = params ? params->open_flags : 0;
    const u64 max = params ? params->max_entries : 0;
    const u64 esz = params ? params->entry_size : 0;
    const u64 nb = params ? params->hash_buckets : 0;
    if (injected("tabra_open", flags, max, esz, nb, &st)) return st;
    const u32 why = params_fault(params);
    if (why != 0 || out == nullptr)
        return fail(pmdb_tp::tabra_open_bad_params, TABRA_E_INVAL, why, esz);
    const open_req rq{params->table_name, nullptr, params, (params->open_flags & O_CREAT) != 0};
    tabra_table *t = nullptr;
    st = get_handle(rq, params->hash_fn, &t);
    if (st != 0) return st;
    refresh_max_entries(t, params);
    *out = t;
    return 0;
}

cerrno tabra_attach_hashed(const char *table_name, dpa_pmdb_hash_fn_t hash_fn, tabra_hdl_t *out) {
    cerrno st = 0;
    if (injected("tabra_attach", 0, 0, 0, 0, &st)) return st;
    if (!name_ok(table_name) || out == nullptr)
        return fail(pmdb_tp::tabra_open_bad_params, TABRA_E_INVAL, 3, 0);
    const open_req rq{table_name, nullptr, nullptr, false};
    tabra_table *t = nullptr;
    st = get_handle(rq, hash_fn, &t);
    if (st == 0) *out = t;
    return st;
}

cerrno tabra_attach(const char *table_name, tabra_hdl_t *out) {
    return tabra_attach_hashed(table_name, nullptr, out);
}

cerrno tabra_rest_view(tabra_hdl_t t, u32 format, tabra_rest_view_t *out) {
    if (t == nullptr || out == nullptr) return TABRA_E_INVAL;
    if (format != TABRA_SHM_FORMAT) return TABRA_E_MISMATCH;
    *out = t->rest;
    return 0;
}

int tabra_list(void (*fn)(void *ctx, const char *table_name), void *ctx) {
    list_ctx l{fn, ctx, 0};
    vorn_host_list_objects(nullptr, list_one, &l);
    return l.n;
}

}  // extern "C"
