/*
 * os.cpp - operating-system layer of the host platform: namespaced shared
 * memory and named semaphores, mmap/close, the sysctl key store and the
 * robust-mutex repair call.
 *
 * Naming: object "X" of namespace N is the POSIX object "/N.X", which Linux
 * keeps as the file /dev/shm/N.X; named semaphore "X" is /dev/shm/sem.N.X.
 * Namespace names contain no '.', so the prefix "N." never matches an object
 * of another namespace; and no namespace is called "sem", whose objects
 * "/dev/shm/sem.X" would be the semaphores of the other namespaces.
 *
 * Ownership: an object this layer creates gets the host's mode (0600, or
 * 0660 with group sharing) whatever the caller's mode and the umask; an
 * object that exists already is used only when it is a regular file of the
 * process's effective user (or, with group sharing, group).  Opens that may
 * create first try to create exclusively, so the layer knows which case it
 * is in.
 *
 * Concurrency contract:
 *   - `g_ns_current` (acquire/release) points at an interned, never-modified
 *     string of `g_ns_pool`, or is null (use PMDB_NS).  Pool entries are
 *     appended under `g_ns_lock`; `g_ns_pool_used` is read under the lock.
 *   - `g_ns_env` (acquire/release) points at PMDB_NS as read once (an
 *     interned string or a literal), or is null (not read since the last
 *     vorn_host_set_namespace).  Two threads that read it first both store
 *     the same interned copy.
 *   - The sysctl override table is read and written only under
 *     `g_sysctl_lock`.
 * The two locks are never held together, and no callback runs under either.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "host/host_internal.h"
#include "host/os_host.h"
#include "host/pm_fault.h"
#include "pmdb_trace_points.h"
#include "vesk.h"
#include "vorn_os.h"

namespace {

constexpr const char *kShmDir = "/dev/shm";
constexpr size_t kNsMax = 40;
constexpr size_t kNsPool = 128;
constexpr size_t kPathMax = 256;

pthread_mutex_t g_ns_lock = PTHREAD_MUTEX_INITIALIZER;
char g_ns_pool[kNsPool][kNsMax + 1];
size_t g_ns_pool_used;
std::atomic<const char *> g_ns_current{nullptr};

/* Returns the interned copy of a valid ns.  When the pool is full the oldest
 * entries are reused: a process that switches namespaces more than kNsPool
 * times must not keep old results of vorn_host_namespace(). */
const char *intern_namespace(const char *ns) {
    pthread_mutex_lock(&g_ns_lock);
    const char *found = nullptr;
    const size_t used = g_ns_pool_used < kNsPool ? g_ns_pool_used : kNsPool;
    for (size_t i = 0; i < used && found == nullptr; i++) {
        if (strcmp(g_ns_pool[i], ns) == 0) found = g_ns_pool[i];
    }
    if (found == nullptr) {
        char *slot = g_ns_pool[g_ns_pool_used % kNsPool];
        snprintf(slot, kNsMax + 1, "%s", ns);
        g_ns_pool_used++;
        found = slot;
    }
    pthread_mutex_unlock(&g_ns_lock);
    return found;
}

/* PMDB_NS as read at its first use after load or after the last
 * vorn_host_set_namespace: every trace record and named object asks for
 * the namespace, and getenv walks the whole environment.  The copy is
 * interned; every intern but its own happens in vorn_host_set_namespace,
 * which drops it first, so the pool never reuses its slot while it is kept. */
std::atomic<const char *> g_ns_env{nullptr};

/* PMDB_NS, the default when it is unset, "" (no namespace: every named
 * call fails) when it is set to an invalid name. */
const char *env_namespace() {
    const char *ns = g_ns_env.load(std::memory_order_acquire);
    if (ns != nullptr) return ns;
    const char *env = getenv(VORN_NS_ENV);
    ns = env == nullptr                    ? VORN_NS_DEFAULT
         : !vorn_host_namespace_valid(env) ? ""
                                           : intern_namespace(env);
    g_ns_env.store(ns, std::memory_order_release);
    return ns;
}

/* Calls fn for each entry of /dev/shm that starts with prefix, with the rest
 * of the entry's name; returns the count. */
int list_with_prefix(const char *prefix, void (*fn)(void *, const char *), void *ctx) {
    DIR *dir = opendir(kShmDir);
    if (dir == nullptr) return 0;
    const size_t plen = strlen(prefix);
    int count = 0;
    for (dirent *de = readdir(dir); de != nullptr; de = readdir(dir)) {
        if (strncmp(de->d_name, prefix, plen) != 0 || de->d_name[plen] == '\0') continue;
        count++;
        if (fn != nullptr) fn(ctx, de->d_name + plen);
    }
    closedir(dir);
    return count;
}

struct remove_ctx {
    const char *prefix;
    int removed;
};

void remove_one(void *ctx, const char *rest) {
    auto *rc = static_cast<remove_ctx *>(ctx);
    char path[kPathMax];
    if (snprintf(path, sizeof path, "%s/%s%s", kShmDir, rc->prefix, rest) >= (int)sizeof path) {
        return;
    }
    if (unlink(path) == 0) rc->removed++;
}

/* --- sysctl key store --------------------------------------------------- */

constexpr const char *kSysctlEnv = "PMDB_SYSCTL";
constexpr size_t kSysctlKeyMax = 96;
constexpr size_t kSysctlOverrides = 32;

/* Keys the library reads; each defaults to 0. */
constexpr const char *kKnownSysctl[] = {
    "tarvo.qen.vorn.platform.max_bundle_l3_vlan",
};

struct sysctl_override {
    char key[kSysctlKeyMax];
    int64_t value;
    bool used;
};

pthread_mutex_t g_sysctl_lock = PTHREAD_MUTEX_INITIALIZER;
sysctl_override g_sysctl[kSysctlOverrides];

/* Value of key from the setter table or PMDB_SYSCTL; the default 0 else. */
pmdb_setting_source_t sysctl_lookup(const char *key, int64_t *value) {
    pmdb_setting_source_t src = PMDB_SETTING_DEFAULT;
    *value = 0;
    pthread_mutex_lock(&g_sysctl_lock);
    for (const sysctl_override &o : g_sysctl) {
        if (o.used && strcmp(o.key, key) == 0) {
            *value = o.value;
            src = PMDB_SETTING_SETTER;
        }
    }
    pthread_mutex_unlock(&g_sysctl_lock);
    if (src == PMDB_SETTING_SETTER) return src;
    char text[32];
    const char *list = getenv(kSysctlEnv);
    if (list == nullptr || !pmdb_host_list_find(list, key, text, sizeof text)) return src;
    char *end = nullptr;
    errno = 0;
    const long long v = strtoll(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0') return src;
    *value = v;
    return PMDB_SETTING_ENV;
}

void emit_sysctl(pmdb_setting_fn fn, void *ctx, const char *key) {
    int64_t v = 0;
    const pmdb_setting_source_t src = sysctl_lookup(key, &v);
    char name[sizeof(pmdb_host_setting_t::name)];
    char value[32];
    snprintf(name, sizeof name, "sysctl.%s", key);
    snprintf(value, sizeof value, "%" PRId64, v);
    pmdb_host_setting_emit(fn, ctx, name, value, kSysctlEnv, src);
}

/* Distinct keys, in the order first added; extra keys beyond the capacity
 * are not listed. */
struct key_set {
    char key[kSysctlOverrides * 2][kSysctlKeyMax];
    size_t n;
    void add(const char *k) {
        const size_t len = strlen(k);
        if (len >= kSysctlKeyMax) return;
        for (size_t i = 0; i < n; i++) {
            if (strcmp(key[i], k) == 0) return;
        }
        if (n < sizeof key / sizeof key[0]) memcpy(key[n++], k, len + 1);
    }
};

/* Entry of a call on a named object: fault injection, then the namespaced
 * name in full.  False (errno set) when the call must fail: EINVAL for a
 * null name or an invalid namespace. */
bool enter_named(const char *call, const char *name, char (&full)[kPathMax], uint64_t a0,
                 uint64_t a1, uint64_t a2) {
    int64_t fault = 0;
    if (pm_fault_enter(call, &fault, a0, a1, a2, 0)) {
        errno = (int)fault;
        return false;
    }
    const bool valid = name != nullptr && vorn_host_namespace_valid(vorn_host_namespace());
    if (!valid || vorn_host_shm_name(name, full, sizeof full) != 0) {
        errno = valid ? ENAMETOOLONG : EINVAL;
        return false;
    }
    return true;
}

/* --- modes and owners ----------------------------------------------------- */

constexpr const char *kGroupEnv = VORN_SHM_GROUP_ENV;
constexpr mode_t kModePrivate = 0600;
constexpr mode_t kModeGroup = 0660;
constexpr int kOpenTries = 8; /* creates and opens of an object that keeps vanishing */

std::atomic<int> g_group_override{-1};

pmdb_setting_source_t group_setting(int *on) {
    const int over = g_group_override.load(std::memory_order_relaxed);
    int64_t env = 0;
    if (over >= 0) {
        *on = over;
        return PMDB_SETTING_SETTER;
    }
    if (pmdb_host_env_i64(kGroupEnv, &env)) {
        *on = env != 0;
        return PMDB_SETTING_ENV;
    }
    *on = 0;
    return PMDB_SETTING_DEFAULT;
}

/* The object `name` exists and belongs to someone else: traced. */
void refuse_owner(const char *name, uid_t owner) {
    constexpr auto point = pmdb_tp::host_object_not_ours;
    static_assert(point.kForm == pmdb_tpt::S && point.number() == VORN_TP_NOT_OWNER,
                  "the owner refusal is the table's string record that vorn_os.h names");
    _svesk(dpa_port_mapper_get_error_vesk(), VESK_SID(point.number()), name, owner);
    errno = EPERM;
}

/* Opens with O_CREAT by creating exclusively first and opening what exists
 * otherwise, again while the object vanishes in between; *created says
 * which.  `attempt(flags)` opens with flags and returns the handle or
 * `failed` with errno set. */
template <class Handle, class Attempt>
Handle open_or_create(int oflag, Handle failed, bool *created, Attempt attempt) {
    const bool create = (oflag & O_CREAT) != 0;
    const bool excl = (oflag & O_EXCL) != 0;
    Handle h = failed;
    *created = false;
    for (int i = 0; i < kOpenTries && h == failed; i++) {
        if (create) {
            h = attempt(oflag | O_EXCL);
            *created = h != failed;
            if (h != failed || errno != EEXIST || excl) break;
        }
        h = attempt(oflag & ~(O_CREAT | O_EXCL));
        if (h != failed || errno != ENOENT || !create) break;
    }
    return h;
}

/* A new object gets the host's mode; an existing one must be ours.  0, or
 * -1 with errno set (the object stays open: the caller closes it). */
int adopt_object(int fd, const char *name, bool created) {
    struct stat st {};
    if (created) return fchmod(fd, vorn_host_object_mode());
    if (fstat(fd, &st) != 0) return -1;
    if (vorn_host_owner_ok(&st)) return 0;
    refuse_owner(name, st.st_uid);
    return -1;
}

/* The same for a named semaphore, through its file under /dev/shm. */
int adopt_semaphore(const char *full, const char *name, bool created) {
    char path[kPathMax + 16];
    struct stat st {};
    snprintf(path, sizeof path, "%s/sem.%s", kShmDir, full + 1);
    if (lstat(path, &st) != 0) return -1;
    if (!vorn_host_owner_ok(&st)) {
        refuse_owner(name, st.st_uid);
        return -1;
    }
    return created ? chmod(path, vorn_host_object_mode()) : 0;
}

}  // namespace

extern "C" {

/* --- namespace ----------------------------------------------------------- */

int vorn_host_namespace_valid(const char *ns) {
    if (ns == nullptr) return 0;
    const size_t len = strlen(ns);
    if (len == 0 || len > kNsMax || strcmp(ns, "sem") == 0) return 0;
    for (size_t i = 0; i < len; i++) {
        const char c = ns[i];
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '_' || c == '-';
        if (!ok) return 0;
    }
    return 1;
}

const char *vorn_host_namespace(void) {
    const char *ns = g_ns_current.load(std::memory_order_acquire);
    return ns != nullptr ? ns : env_namespace();
}

int vorn_host_set_namespace(const char *ns) {
    g_ns_env.store(nullptr, std::memory_order_release);
    if (ns == nullptr) {
        g_ns_current.store(nullptr, std::memory_order_release);
        return 0;
    }
    if (!vorn_host_namespace_valid(ns)) return -1;
    g_ns_current.store(intern_namespace(ns), std::memory_order_release);
    return 0;
}

int vorn_host_shm_name(const char *name, char *out, size_t len) {
    if (name == nullptr || out == nullptr || !vorn_host_namespace_valid(vorn_host_namespace()))
        return -1;
    const int n = snprintf(out, len, "/%s.%s", vorn_host_namespace(), name);
    return n < 0 || (size_t)n >= len ? -1 : 0;
}

int vorn_host_shm_path(const char *ns, const char *name, char *out, size_t len) {
    if (!vorn_host_namespace_valid(ns) || name == nullptr || out == nullptr) return -1;
    const int n = snprintf(out, len, "%s/%s.%s", kShmDir, ns, name);
    return n < 0 || (size_t)n >= len ? -1 : 0;
}

int vorn_host_list_objects(const char *ns, void (*fn)(void *ctx, const char *name), void *ctx) {
    const char *target = ns != nullptr ? ns : vorn_host_namespace();
    char prefix[kNsMax + 8];
    if (!vorn_host_namespace_valid(target)) return 0;
    snprintf(prefix, sizeof prefix, "%s.", target);
    return list_with_prefix(prefix, fn, ctx);
}

int vorn_host_list_semaphores(const char *ns, void (*fn)(void *ctx, const char *name),
                              void *ctx) {
    const char *target = ns != nullptr ? ns : vorn_host_namespace();
    char prefix[kNsMax + 8];
    if (!vorn_host_namespace_valid(target)) return 0;
    snprintf(prefix, sizeof prefix, "sem.%s.", target);
    return list_with_prefix(prefix, fn, ctx);
}

int vorn_host_remove_namespace(const char *ns) {
    const char *target = ns != nullptr ? ns : vorn_host_namespace();
    if (!vorn_host_namespace_valid(target)) return 0;
    char objects[kNsMax + 8];
    char sems[kNsMax + 8];
    snprintf(objects, sizeof objects, "%s.", target);
    snprintf(sems, sizeof sems, "sem.%s.", target);
    remove_ctx rc{objects, 0};
    list_with_prefix(objects, remove_one, &rc);
    rc.prefix = sems;
    list_with_prefix(sems, remove_one, &rc);
    vesk_host_forget_namespace(target);
    return rc.removed;
}

/* --- platform OS calls --------------------------------------------------- */

int _shm_open(const char *name, int oflag, mode_t mode) {
    char full[kPathMax];
    if (!enter_named("_shm_open", name, full, (uint64_t)oflag, mode, 0)) return -1;
    bool created = false;
    const int fd = open_or_create(oflag, -1, &created, [&full](int flags) {
        return shm_open(full, flags, vorn_host_object_mode());
    });
    if (fd < 0 || adopt_object(fd, name, created) == 0) return fd;
    const int err = errno;
    if (created) shm_unlink(full); /* not left behind with a mode we did not choose */
    close(fd);
    errno = err;
    return -1;
}

void *vornos_mmap(void *addr, size_t len, int prot, int flags, int fd, off_t off) {
    int64_t fault = 0;
    if (pm_fault_enter("vornos_mmap", &fault, len, (uint64_t)prot, (uint64_t)flags,
                       (uint64_t)off)) {
        errno = (int)fault;
        return MAP_FAILED;
    }
    return mmap(addr, len, prot, flags, fd, off);
}

int vorn_close(int fd) {
    int64_t fault = 0;
    if (pm_fault_enter("vorn_close", &fault, (uint64_t)fd, 0, 0, 0)) {
        /* Like every injected failure: nothing else is done, so the
         * descriptor stays open. */
        errno = (int)fault;
        return -1;
    }
    return close(fd);
}

sem_t *vorn_sem_open(const char *name, int oflag, mode_t mode, unsigned int value) {
    char full[kPathMax];
    if (!enter_named("vorn_sem_open", name, full, (uint64_t)oflag, mode, value)) {
        return SEM_FAILED;
    }
    /* The owner check goes through the semaphore's file, by name, after the
     * open: another process may unlink the name in between (the frame
     * unlinks its first-init semaphore when done), so a file gone (ENOENT)
     * means open again, as open_or_create does for an object that vanishes. */
    int err = ENOENT;
    for (int i = 0; i < kOpenTries && err == ENOENT; i++) {
        bool created = false;
        sem_t *s = open_or_create(oflag, SEM_FAILED, &created, [&full, value](int flags) {
            return sem_open(full, flags, vorn_host_object_mode(), value);
        });
        if (s == SEM_FAILED || adopt_semaphore(full, name, created) == 0) return s;
        err = errno;
        /* Not ours to unlink once the name is gone: it may be another's by now. */
        if (created && err != ENOENT) sem_unlink(full);
        sem_close(s);
    }
    errno = err;
    return SEM_FAILED;
}

int vorn_sem_unlink(const char *name) {
    char full[kPathMax];
    if (!enter_named("vorn_sem_unlink", name, full, 0, 0, 0)) return -1;
    return sem_unlink(full);
}

int64_t vorn_sysctl_get_int64(const char *key, int flags) {
    int64_t fault = 0;
    if (pm_fault_enter("vorn_sysctl_get_int64", &fault, (uint64_t)flags, 0, 0, 0)) return fault;
    int64_t value = 0;
    if (key != nullptr) sysctl_lookup(key, &value);
    return value;
}

int vorn_pthread_mutex_consistent_np(pthread_mutex_t *mutex) {
    int64_t fault = 0;
    if (pm_fault_enter("vorn_pthread_mutex_consistent_np", &fault, (uint64_t)(uintptr_t)mutex, 0,
                       0, 0)) {
        return (int)fault;
    }
    return pthread_mutex_consistent(mutex);
}

/* --- host settings ------------------------------------------------------- */

int vorn_host_shm_group(void) {
    int on = 0;
    group_setting(&on);
    return on;
}

void vorn_host_set_shm_group(int on) {
    g_group_override.store(on < 0 ? -1 : on != 0, std::memory_order_relaxed);
}

mode_t vorn_host_object_mode(void) {
    return vorn_host_shm_group() ? kModeGroup : kModePrivate;
}

int vorn_host_owner_ok(const struct stat *st) {
    if (!S_ISREG(st->st_mode)) return 0;
    if (st->st_uid == geteuid()) return 1;
    return vorn_host_shm_group() && st->st_gid == getegid();
}

void vorn_host_sysctl_set(const char *key, int64_t value) {
    if (key == nullptr || strlen(key) >= kSysctlKeyMax) return;
    pthread_mutex_lock(&g_sysctl_lock);
    sysctl_override *slot = nullptr;
    for (sysctl_override &o : g_sysctl) {
        if (o.used && strcmp(o.key, key) == 0) slot = &o;
    }
    for (sysctl_override &o : g_sysctl) {
        if (slot == nullptr && !o.used) slot = &o;
    }
    if (slot != nullptr) {
        snprintf(slot->key, sizeof slot->key, "%s", key);
        slot->value = value;
        slot->used = true;
    }
    pthread_mutex_unlock(&g_sysctl_lock);
}

void vorn_host_sysctl_reset(void) {
    pthread_mutex_lock(&g_sysctl_lock);
    memset(g_sysctl, 0, sizeof g_sysctl);
    pthread_mutex_unlock(&g_sysctl_lock);
}

void pmdb_host_os_settings(pmdb_setting_fn fn, void *ctx) {
    const bool overridden = g_ns_current.load(std::memory_order_acquire) != nullptr;
    const bool from_env = !overridden && getenv(VORN_NS_ENV) != nullptr;
    const pmdb_setting_source_t ns_src = overridden ? PMDB_SETTING_SETTER
                                         : from_env ? PMDB_SETTING_ENV
                                                    : PMDB_SETTING_DEFAULT;
    pmdb_host_setting_emit(fn, ctx, "os.namespace", vorn_host_namespace(), VORN_NS_ENV, ns_src);
    int group = 0;
    const pmdb_setting_source_t group_src = group_setting(&group);
    pmdb_host_setting_emit(fn, ctx, "os.shm_group", group ? "1" : "0", kGroupEnv, group_src);
    /* The keys the library reads, then any other key given by a setter or
     * by PMDB_SYSCTL, each once. */
    key_set keys{};
    for (const char *k : kKnownSysctl) keys.add(k);
    pthread_mutex_lock(&g_sysctl_lock);
    for (const sysctl_override &o : g_sysctl) {
        if (o.used) keys.add(o.key);
    }
    pthread_mutex_unlock(&g_sysctl_lock);
    pmdb_host_list_keys(
        getenv(kSysctlEnv), [](void *c, const char *k) { static_cast<key_set *>(c)->add(k); },
        &keys);
    for (size_t i = 0; i < keys.n; i++) emit_sysctl(fn, ctx, keys.key[i]);
}

}  // extern "C"
