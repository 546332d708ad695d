/*
 * trace.cpp - host trace service: three shared-memory ring buffers per
 * namespace (error, database, event), lock-free writers, seqlock readers.
 *
 * Object "vesk.<kind>" of the namespace (file /dev/shm/<ns>.vesk.<kind>):
 *
 *   header, 64 bytes
 *   off  size  field
 *     0     4  magic         0x4B534556 ("VESK")
 *     4     4  format        1
 *     8     4  header_size   64
 *    12     4  record_size   96
 *    16     4  capacity      records in the ring, a power of two
 *    20     4  kind          0 error, 1 database, 2 event
 *    24     8  head          sequence number the next writer reserves
 *    32     8  dropped       records given up by writers (see below)
 *    40     8  created_sec   CLOCK_REALTIME seconds at creation
 *    48    16  reserved      0
 *
 *   record i (sequence s with s % capacity == i) at 64 + 96 * i
 *   off  size  field
 *     0     8  stamp         0 never written; 2s+1 being written; 2s+2 done
 *     8     8  id            as passed: argument count << 32 | point
 *    16     8  tv_sec        CLOCK_REALTIME of the write
 *    24     4  tv_nsec
 *    28     4  pid
 *    32     4  tid
 *    36     4  info          bits 0..7 integer argument count, bit 8 string
 *    40    56  args[7]       integer arguments; unused ones 0
 *                            a string record keeps its integer in args[0]
 *                            and its string (47 bytes + NUL) in bytes 48..95
 *
 * A buffer is created complete under a private name and then published
 * with link(2), which never replaces an existing file: every process that
 * can open "vesk.<kind>" sees a fully initialised header, and when two
 * processes race to create it one wins and the other opens the winner's.
 * It is created with the host's mode (vorn_os.h) whatever the umask, and
 * an existing one that belongs to another user is never mapped.
 *
 * Damage.  The header is checked when the buffer is mapped and again at
 * every read, head included: a head at or beyond 2^62, a slot holding a
 * record the head has not reached, or a head more than a ring's length
 * past every record in the ring is a damaged buffer, and the read returns
 * nothing.  A read visits at most `capacity` records and waits at most
 * kPendingWaitNs in all, so a damaged head costs bounded work.
 *
 * Concurrency contract (all processes of the namespace share the buffer):
 *   - Writers reserve a sequence with fetch_add on `head` (relaxed: the
 *     stamp carries the ordering).  A writer claims its slot by a CAS of the
 *     stamp from an even value below 2s+1 to 2s+1, writes each field word
 *     with a release store (so a reader that sees any new word also sees the
 *     odd stamp before it), and publishes with a release store of 2s+2.  A
 *     slot whose stamp is odd (a writer lapped by the whole ring is still in
 *     it) or already newer is not claimed: the record is counted in
 *     `dropped` instead, so writers never wait and a slot's stamp only grows.
 *   - The claiming CAS is a release: a reader that sees a claim of s also
 *     sees `head` beyond s.
 *   - Readers load the stamp with acquire (pairs with the publishing store),
 *     copy the words with acquire loads (pair with the word stores) and load
 *     the stamp again: the copy is the record s only when both loads give
 *     2s+2.  No fences are used, so the protocol is visible to race
 *     detectors.
 *   - Process-local: `g_maps` (the list of mapped buffers) is changed only
 *     under `g_map_lock`; `g_current[kind]` (acquire/release) points at an
 *     entry of the list, whose fields are immutable once published except
 *     `live` (acquire/release), cleared when its namespace is removed.
 *     Mappings are never unmapped, so a pointer handed out stays valid.
 */
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "host/host_internal.h"
#include "host/os_host.h"
#include "host/pm_fault.h"
#include "host/vesk_reader.h"
#include "pmdb_trace_points.h"
#include "vesk.h"

namespace {

constexpr uint32_t kMagic = 0x4B534556u;
constexpr uint32_t kFormat = 1;
constexpr uint32_t kMinRecords = 16;
constexpr uint32_t kMaxRecords = 1u << 20;
constexpr uint32_t kInfoString = 1u << 8;
constexpr size_t kPathMax = 256;
constexpr size_t kNsMax = 41;
/* How long one read waits, in all, for records whose writers are between
 * reserving and publishing them before counting them lost (a writer may
 * have died there, or the head may be damaged). */
constexpr uint64_t kPendingWaitNs = 2000000;
/* No sound buffer's head gets here (146 years at 10^9 records a second);
 * below it a stamp 2s + 2 never wraps. */
constexpr uint64_t kMaxSeq = 1ull << 62;

struct vesk_hdr {
    uint32_t magic;
    uint32_t format;
    uint32_t header_size;
    uint32_t record_size;
    uint32_t capacity;
    uint32_t kind;
    std::atomic<uint64_t> head;
    std::atomic<uint64_t> dropped;
    int64_t created_sec;
    uint64_t reserved[2];
};

/* The record as 12 words; word 0 is the stamp. */
constexpr size_t kRecWords = 12;
struct vesk_shm_rec {
    std::atomic<uint64_t> stamp;
    uint64_t words[kRecWords - 1];
};

static_assert(std::atomic<uint64_t>::is_always_lock_free, "shared atomics must be lock-free");
static_assert(sizeof(vesk_hdr) == 64, "trace header is 64 bytes");
static_assert(offsetof(vesk_hdr, capacity) == 16, "capacity at 16");
static_assert(offsetof(vesk_hdr, kind) == 20, "kind at 20");
static_assert(offsetof(vesk_hdr, head) == 24, "head at 24");
static_assert(offsetof(vesk_hdr, dropped) == 32, "dropped at 32");
static_assert(offsetof(vesk_hdr, created_sec) == 40, "created_sec at 40");
static_assert(sizeof(vesk_shm_rec) == 96, "trace record is 96 bytes");
/* Word indexes of the record fields (word w at byte 8 * w). */
enum : size_t { W_ID = 1, W_SEC = 2, W_NSEC_PID = 3, W_TID_INFO = 4, W_ARGS = 5, W_STR = 6 };
static_assert(W_ARGS * 8 == 40 && W_STR * 8 == 48, "args at 40, string at 48");
static_assert(VESK_STR_MAX == (kRecWords - W_STR) * 8, "string fills the record's tail");

const char *const kKindNames[VESK_KINDS] = {"error", "database", "event"};

}  // namespace

/* Process-local view of one mapped buffer. */
struct vesk_buf {
    char ns[kNsMax];
    vesk_kind_t kind;
    vesk_hdr *hdr;
    vesk_shm_rec *recs;
    uint32_t mask;
    std::atomic<bool> live;
    vesk_buf *next;
};

namespace {

/* The writer's pid and tid, cached per thread: getpid/gettid are system
 * calls and every trace record carries both.  `g_fork_gen` (relaxed) is
 * bumped in a forked child so that threads re-read them there. */
std::atomic<uint32_t> g_fork_gen{1};
thread_local uint32_t t_ids_gen;
thread_local uint32_t t_pid;
thread_local uint32_t t_tid;

void after_fork_in_child() { g_fork_gen.fetch_add(1, std::memory_order_relaxed); }

__attribute__((constructor)) void register_fork_handler() {
    pthread_atfork(nullptr, nullptr, after_fork_in_child);
}

void writer_ids(uint32_t *pid, uint32_t *tid) {
    const uint32_t gen = g_fork_gen.load(std::memory_order_relaxed);
    if (t_ids_gen != gen) {
        t_pid = (uint32_t)getpid();
        t_tid = (uint32_t)gettid();
        t_ids_gen = gen;
    }
    *pid = t_pid;
    *tid = t_tid;
}

pthread_mutex_t g_map_lock = PTHREAD_MUTEX_INITIALIZER;
vesk_buf *g_maps;
std::atomic<vesk_buf *> g_current[VESK_KINDS];
std::atomic<uint32_t> g_records_override{0};

uint32_t round_capacity(int64_t want) {
    if (want < kMinRecords) return kMinRecords;
    if (want > kMaxRecords) return kMaxRecords;
    uint32_t cap = kMinRecords;
    while (cap < (uint64_t)want) cap <<= 1;
    return cap;
}

pmdb_setting_source_t records_setting(uint32_t *records) {
    const uint32_t over = g_records_override.load(std::memory_order_relaxed);
    int64_t env = 0;
    if (over != 0) {
        *records = round_capacity(over);
        return PMDB_SETTING_SETTER;
    }
    if (pmdb_host_env_i64(VESK_RECORDS_ENV, &env)) {
        *records = round_capacity(env);
        return PMDB_SETTING_ENV;
    }
    *records = VESK_RECORDS_DEFAULT;
    return PMDB_SETTING_DEFAULT;
}

size_t buffer_bytes(uint32_t capacity) {
    return sizeof(vesk_hdr) + (size_t)capacity * sizeof(vesk_shm_rec);
}

/* Creates the complete buffer under a private name and links it into
 * place; returns 0 when the object exists afterwards (ours or a racer's). */
int create_buffer(const char *ns, vesk_kind_t kind, const char *path) {
    char tmp_name[64];
    char tmp[kPathMax];
    snprintf(tmp_name, sizeof tmp_name, "vesk.%s.tmp-%d-%d", kKindNames[kind], (int)getpid(),
             (int)gettid());
    if (vorn_host_shm_path(ns, tmp_name, tmp, sizeof tmp) != 0) return -1;
    uint32_t cap = 0;
    records_setting(&cap);
    const size_t len = buffer_bytes(cap);
    const int fd = open(tmp, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return -1;
    int rc = fchmod(fd, vorn_host_object_mode()); /* whatever the umask */
    if (rc == 0) rc = ftruncate(fd, (off_t)len);
    void *mem = rc == 0 ? mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;
    close(fd);
    if (mem == MAP_FAILED) rc = -1;
    if (rc == 0) {
        auto *hdr = static_cast<vesk_hdr *>(mem); /* the file is zero-filled */
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        hdr->format = kFormat;
        hdr->header_size = sizeof(vesk_hdr);
        hdr->record_size = sizeof(vesk_shm_rec);
        hdr->capacity = cap;
        hdr->kind = (uint32_t)kind;
        hdr->created_sec = now.tv_sec;
        hdr->magic = kMagic;
        munmap(mem, len);
        rc = link(tmp, path) == 0 || errno == EEXIST ? 0 : -1;
    }
    unlink(tmp);
    return rc;
}

bool header_valid(const vesk_hdr *hdr, size_t file_len, vesk_kind_t kind) {
    if (file_len < sizeof(vesk_hdr)) return false;
    const uint32_t cap = hdr->capacity;
    return hdr->magic == kMagic && hdr->format == kFormat &&
           hdr->header_size == sizeof(vesk_hdr) && hdr->record_size == sizeof(vesk_shm_rec) &&
           hdr->kind == (uint32_t)kind && cap >= kMinRecords && cap <= kMaxRecords &&
           (cap & (cap - 1)) == 0 && file_len >= buffer_bytes(cap);
}

/* Maps the whole of buffer file fd of `kind` when it is another user's
 * neither and its header is sound: 0, or the status (*detail: the owner's
 * uid, or errno). */
uint32_t map_file(int fd, vesk_kind_t kind, void **mem, size_t *len, uint64_t *detail) {
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        *detail = (uint64_t)errno;
        return VESK_E_SHM;
    }
    if (!vorn_host_owner_ok(&st)) {
        *detail = st.st_uid;
        return VESK_E_OWNER;
    }
    *len = (size_t)st.st_size;
    if (*len < sizeof(vesk_hdr)) return VESK_E_DAMAGED;
    *mem = mmap(nullptr, *len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (*mem == MAP_FAILED) {
        *detail = (uint64_t)errno;
        return VESK_E_SHM;
    }
    if (header_valid(static_cast<vesk_hdr *>(*mem), *len, kind)) return 0;
    munmap(*mem, *len);
    return VESK_E_DAMAGED;
}

/* Opens (creating if absent) and maps buffer kind of ns: 0 and *out, or the
 * status (*detail as map_file). */
uint32_t map_buffer(const char *ns, vesk_kind_t kind, vesk_buf **out, uint64_t *detail) {
    char name[32];
    char path[kPathMax];
    snprintf(name, sizeof name, "vesk.%s", kKindNames[kind]);
    if (vorn_host_shm_path(ns, name, path, sizeof path) != 0) return VESK_E_NAMESPACE;
    int fd = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0 && errno == ENOENT && create_buffer(ns, kind, path) == 0) {
        fd = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    }
    if (fd < 0) {
        *detail = (uint64_t)errno;
        return VESK_E_SHM;
    }
    void *mem = MAP_FAILED;
    size_t len = 0;
    const uint32_t st = map_file(fd, kind, &mem, &len, detail);
    close(fd);
    void *raw = st == 0 ? calloc(1, sizeof(vesk_buf)) : nullptr;
    if (st == 0 && raw == nullptr) munmap(mem, len);
    if (raw == nullptr) return st != 0 ? st : VESK_E_SHM;
    auto *hdr = static_cast<vesk_hdr *>(mem);
    auto *buf = new (raw) vesk_buf{};
    snprintf(buf->ns, sizeof buf->ns, "%s", ns);
    buf->kind = kind;
    buf->hdr = hdr;
    buf->recs = reinterpret_cast<vesk_shm_rec *>(static_cast<char *>(mem) + sizeof(vesk_hdr));
    buf->mask = hdr->capacity - 1;
    buf->live.store(true, std::memory_order_relaxed);
    *out = buf;
    return 0;
}

/* The last status traced per trace point of the service and buffer kind:
 * a failure that repeats at every write or read is traced once. */
std::atomic<uint32_t> g_noted[2][VESK_KINDS];

/* The service's own points (pmdb_trace_points.h): error buffer, the status
 * and two numbers.  vesk_reader.h lists the same numbers for its users. */
using service_point = pmdb_tpt::point<pmdb_tpt::E, 3, pmdb_tpt::N>;
static_assert(pmdb_tp::trace_buffer_unusable.number() == VESK_TP_OPEN &&
                  pmdb_tp::trace_buffer_damaged.number() == VESK_TP_DAMAGED,
              "vesk_reader.h numbers the service's points as the trace point table does");

/* Traces a failure of buffer `kind` to the error buffer, unless it is that
 * buffer's own failure (nowhere to write it) or the same as last time. */

void note(service_point point, vesk_kind_t kind, uint32_t status, uint64_t detail) {
    const uint32_t before = g_noted[point.number() - VESK_TP_OPEN][kind].exchange(status);
    if (status == 0 || status == before || kind == VESK_ERROR) return;
    _vesk_3(dpa_port_mapper_get_error_vesk(), VESK_ID(service_point::kArgs, point.number()), status,
            (uint64_t)kind, detail);
}

vesk_buf *buffer_of(vesk_kind_t kind, uint32_t *status) {
    const char *ns = vorn_host_namespace();
    vesk_buf *cur = g_current[kind].load(std::memory_order_acquire);
    *status = 0;
    if (cur != nullptr && cur->live.load(std::memory_order_acquire) && strcmp(cur->ns, ns) == 0) {
        return cur;
    }
    pthread_mutex_lock(&g_map_lock);
    vesk_buf *found = nullptr;
    uint64_t detail = 0;
    for (vesk_buf *b = g_maps; b != nullptr && found == nullptr; b = b->next) {
        const bool same = b->kind == kind && strcmp(b->ns, ns) == 0;
        if (same && b->live.load(std::memory_order_relaxed)) found = b;
    }
    if (found == nullptr) {
        *status = map_buffer(ns, kind, &found, &detail);
        if (found != nullptr) {
            found->next = g_maps;
            g_maps = found;
        }
    }
    if (found != nullptr) g_current[kind].store(found, std::memory_order_release);
    pthread_mutex_unlock(&g_map_lock);
    note(pmdb_tp::trace_buffer_unusable, kind, *status,
         detail); /* may map the error buffer: not under the lock */
    return found;
}

vesk_buf_t *getter(const char *call, vesk_kind_t kind) {
    int64_t ignored = 0;
    uint32_t status = 0;
    if (pm_fault_hit(call, &ignored)) return nullptr;
    return buffer_of(kind, &status);
}

inline void put(vesk_shm_rec *r, size_t word, uint64_t v) {
    __atomic_store_n(&r->words[word - 1], v, __ATOMIC_RELEASE);
}

inline uint64_t get(const vesk_shm_rec *r, size_t word) {
    return __atomic_load_n(&r->words[word - 1], __ATOMIC_ACQUIRE);
}

/* Claims the slot of sequence s; false when it must be given up. */
bool claim(vesk_shm_rec *r, uint64_t s) {
    const uint64_t want = 2 * s + 1;
    uint64_t cur = r->stamp.load(std::memory_order_relaxed);
    while ((cur & 1) == 0 && cur < want) {
        /* Release: a reader that sees the claim also sees the head moved
         * past s (vesk_read_checked relies on it). */
        if (r->stamp.compare_exchange_weak(cur, want, std::memory_order_release,
                                           std::memory_order_relaxed))
            return true;
    }
    return false;
}

/* Who wrote a record, and when. */
struct origin {
    int64_t sec;
    uint32_t nsec;
    uint32_t pid;
    uint32_t tid;
};

/* Fills the claimed slot r with sequence s's record and publishes it; str
 * is null for integer records. */
void fill_record(vesk_shm_rec *r, uint64_t s, const origin &o, uint64_t id, uint32_t nargs,
                 const uint64_t *args, const char *str) {
    const uint32_t info = nargs | (str != nullptr ? kInfoString : 0);
    put(r, W_ID, id);
    put(r, W_SEC, (uint64_t)o.sec);
    put(r, W_NSEC_PID, (uint64_t)o.nsec | ((uint64_t)o.pid << 32));
    put(r, W_TID_INFO, (uint64_t)o.tid | ((uint64_t)info << 32));
    uint64_t tail[kRecWords - W_ARGS] = {};
    if (nargs > 0) memcpy(tail, args, nargs * sizeof(uint64_t));
    if (str != nullptr) {
        char text[VESK_STR_MAX] = {};
        strncpy(text, str, sizeof text - 1);
        memcpy(&tail[W_STR - W_ARGS], text, sizeof text);
    }
    for (size_t w = W_ARGS; w < kRecWords; w++) put(r, w, tail[w - W_ARGS]);
    r->stamp.store(2 * s + 2, std::memory_order_release);
}

/* Appends one record; str is null for integer records. */
void write_record(vesk_buf_t *buf, uint64_t id, uint32_t nargs, const uint64_t *args,
                  const char *str) {
    if (buf == nullptr) return;
    vesk_hdr *hdr = buf->hdr;
    const uint64_t s = hdr->head.fetch_add(1, std::memory_order_relaxed);
    vesk_shm_rec *r = &buf->recs[s & buf->mask];
    if (!claim(r, s)) {
        hdr->dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    origin o{now.tv_sec, (uint32_t)now.tv_nsec, 0, 0};
    writer_ids(&o.pid, &o.tid);
    fill_record(r, s, o, id, nargs, args, str);
}

void decode(const uint64_t *w, uint64_t s, vesk_rec_t *out) {
    memset(out, 0, sizeof *out);
    const uint32_t info = (uint32_t)(w[W_TID_INFO] >> 32);
    out->seq = s;
    out->id = w[W_ID];
    out->point = (uint32_t)w[W_ID];
    out->nargs = info & 0xFF;
    if (out->nargs > VESK_MAX_ARGS) out->nargs = VESK_MAX_ARGS;
    out->is_string = (info & kInfoString) != 0;
    out->tv_sec = (int64_t)w[W_SEC];
    out->tv_nsec = (uint32_t)w[W_NSEC_PID];
    out->pid = (uint32_t)(w[W_NSEC_PID] >> 32);
    out->tid = (uint32_t)w[W_TID_INFO];
    memcpy(out->args, &w[W_ARGS], out->nargs * sizeof(uint64_t));
    if (out->is_string) {
        memcpy(out->str, &w[W_STR], sizeof out->str);
        out->str[sizeof out->str - 1] = '\0';
    }
}

uint64_t mono_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint64_t)ts.tv_sec * 1000000000ull + (uint64_t)ts.tv_nsec;
}

/* What one look at the slot of record s found. */
enum class look { copied, gone, pending };

/* Copies record s when its slot holds it, published; `gone` when the slot
 * holds a later record (*stamp: its stamp), `pending` when the record is
 * not published yet. */
look look_at(const vesk_buf_t *buf, uint64_t s, vesk_rec_t *out, uint64_t *stamp) {
    const vesk_shm_rec *r = &buf->recs[s & buf->mask];
    const uint64_t done = 2 * s + 2;
    *stamp = r->stamp.load(std::memory_order_acquire);
    if (*stamp < done) return look::pending;
    if (*stamp > done) return look::gone;
    uint64_t w[kRecWords];
    for (size_t i = 1; i < kRecWords; i++) w[i] = get(r, i);
    if (r->stamp.load(std::memory_order_relaxed) != done) return look::gone;
    decode(w, s, out);
    return look::copied;
}

/* One read: its wait budget, shared by all the records it waits for. */
struct read_state {
    uint64_t deadline; /* 0 until the first wait */
    bool gave_up;      /* a record was counted lost while still pending */
    bool damaged;
};

/* Record s, waiting while it is pending as long as the read's budget lasts. */
look fetch(const vesk_buf_t *buf, uint64_t s, vesk_rec_t *out, read_state *rs) {
    uint64_t stamp = 0;
    for (;;) {
        const look l = look_at(buf, s, out, &stamp);
        /* A slot never holds a record the head has not reached. */
        if (l == look::gone && (stamp - 1) / 2 >= buf->hdr->head.load(std::memory_order_acquire))
            rs->damaged = true;
        if (l != look::pending) return l;
        const uint64_t now = mono_ns();
        if (rs->deadline == 0) rs->deadline = now + kPendingWaitNs;
        if (now >= rs->deadline) {
            rs->gave_up = true;
            return l;
        }
        sched_yield();
    }
}

/* The header still says what it said when the buffer was mapped, and head
 * is a sequence writers can have reserved. */
bool header_intact(const vesk_buf_t *buf, uint64_t head) {
    const vesk_hdr *h = buf->hdr;
    return h->magic == kMagic && h->format == kFormat && h->header_size == sizeof(vesk_hdr) &&
           h->record_size == sizeof(vesk_shm_rec) && h->capacity == buf->mask + 1 &&
           h->kind == (uint32_t)buf->kind && head < kMaxSeq;
}

/* True when no record of the last `capacity` sequences before head was ever
 * published: with fewer writers in flight than records in the ring that
 * cannot happen, so the head has been moved on. */
bool head_beyond_ring(const vesk_buf_t *buf, uint64_t head) {
    uint64_t newest = 0; /* sequence + 1 of the newest record seen */
    for (uint64_t i = 0; i <= buf->mask; i++) {
        const uint64_t st = buf->recs[i].stamp.load(std::memory_order_relaxed);
        const uint64_t seq1 = st == 0 ? 0 : (st + 1) / 2;
        if (seq1 > newest) newest = seq1;
    }
    return head - newest > (uint64_t)buf->mask + 1;
}

/* Reads [s, head) into out: the number copied; *s and *missed move on. */
size_t read_range(const vesk_buf_t *buf, uint64_t *s, uint64_t head, vesk_rec_t *out, size_t max,
                  uint64_t *missed, read_state *rs) {
    size_t n = 0;
    for (; *s < head && n < max && !rs->damaged; (*s)++) {
        if (fetch(buf, *s, &out[n], rs) == look::copied) {
            n++;
        } else {
            (*missed)++;
        }
    }
    if (rs->gave_up && !rs->damaged) rs->damaged = head_beyond_ring(buf, head);
    return n;
}

}  // namespace

extern "C" {

vesk_buf_t *dpa_port_mapper_get_error_vesk(void) {
    return getter("dpa_port_mapper_get_error_vesk", VESK_ERROR);
}

vesk_buf_t *dpa_port_mapper_get_db_vesk(void) {
    return getter("dpa_port_mapper_get_db_vesk", VESK_DATABASE);
}

vesk_buf_t *dpa_port_mapper_get_eve_vesk(void) {
    return getter("dpa_port_mapper_get_eve_vesk", VESK_EVENT);
}

void _vesk(vesk_buf_t *buf, uint64_t id) { write_record(buf, id, 0, nullptr, nullptr); }

void _vesk_1(vesk_buf_t *buf, uint64_t id, uint64_t a1) {
    const uint64_t a[] = {a1};
    write_record(buf, id, 1, a, nullptr);
}

void _vesk_2(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2) {
    const uint64_t a[] = {a1, a2};
    write_record(buf, id, 2, a, nullptr);
}

void _vesk_3(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2, uint64_t a3) {
    const uint64_t a[] = {a1, a2, a3};
    write_record(buf, id, 3, a, nullptr);
}

void _vesk_4(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4) {
    const uint64_t a[] = {a1, a2, a3, a4};
    write_record(buf, id, 4, a, nullptr);
}

void _vesk_5(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4,
             uint64_t a5) {
    const uint64_t a[] = {a1, a2, a3, a4, a5};
    write_record(buf, id, 5, a, nullptr);
}

void _vesk_6(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4,
             uint64_t a5, uint64_t a6) {
    const uint64_t a[] = {a1, a2, a3, a4, a5, a6};
    write_record(buf, id, 6, a, nullptr);
}

void _vesk_7(vesk_buf_t *buf, uint64_t id, uint64_t a1, uint64_t a2, uint64_t a3, uint64_t a4,
             uint64_t a5, uint64_t a6, uint64_t a7) {
    const uint64_t a[] = {a1, a2, a3, a4, a5, a6, a7};
    write_record(buf, id, 7, a, nullptr);
}

void _svesk(vesk_buf_t *buf, uint64_t id, const char *str, uint64_t a1) {
    const uint64_t a[] = {a1};
    write_record(buf, id, 1, a, str != nullptr ? str : "");
}

const char *vesk_kind_name(vesk_kind_t kind) {
    return (unsigned)kind < VESK_KINDS ? kKindNames[kind] : nullptr;
}

int vesk_kind_from_name(const char *name) {
    if (name == nullptr) return -1;
    for (int k = 0; k < VESK_KINDS; k++) {
        if (strcmp(name, kKindNames[k]) == 0) return k;
    }
    if (strcmp(name, "db") == 0) return VESK_DATABASE;
    if (strcmp(name, "eve") == 0) return VESK_EVENT;
    return -1;
}

uint32_t vesk_open_checked(vesk_kind_t kind, vesk_buf_t **out) {
    uint32_t status = VESK_E_INVAL;
    if (out != nullptr) *out = nullptr;
    if (out != nullptr && (unsigned)kind < VESK_KINDS) *out = buffer_of(kind, &status);
    return status;
}

vesk_buf_t *vesk_open(vesk_kind_t kind) {
    vesk_buf_t *buf = nullptr;
    vesk_open_checked(kind, &buf);
    return buf;
}

uint64_t vesk_mark(const vesk_buf_t *buf) {
    return buf != nullptr ? buf->hdr->head.load(std::memory_order_acquire) : 0;
}

uint32_t vesk_capacity(const vesk_buf_t *buf) { return buf != nullptr ? buf->mask + 1 : 0; }

uint64_t vesk_dropped(const vesk_buf_t *buf) {
    return buf != nullptr ? buf->hdr->dropped.load(std::memory_order_relaxed) : 0;
}

uint32_t vesk_read_checked(const vesk_buf_t *buf, uint64_t since, vesk_rec_t *out, size_t max,
                           size_t *count, uint64_t *next, uint64_t *lost) {
    uint64_t missed = 0;
    size_t n = 0;
    uint64_t s = since;
    uint32_t status = buf == nullptr || (out == nullptr && max != 0) ? VESK_E_INVAL : 0;
    const uint64_t head = status == 0 ? buf->hdr->head.load(std::memory_order_acquire) : 0;
    read_state rs{0, false, status == 0 && !header_intact(buf, head)};
    if (status == 0 && !rs.damaged) {
        const uint64_t oldest = head > buf->mask ? head - buf->mask - 1 : 0;
        if (s > head) s = head; /* a mark of an older incarnation of the buffer */
        if (s < oldest) {
            missed += oldest - s;
            s = oldest;
        }
        n = read_range(buf, &s, head, out, max, &missed, &rs);
    }
    if (rs.damaged) {
        status = VESK_E_DAMAGED;
        n = 0;
        s = since;
        missed = 0;
    }
    if (buf != nullptr && status != VESK_E_INVAL)
        note(pmdb_tp::trace_buffer_damaged, buf->kind, status, head);
    if (count != nullptr) *count = n;
    if (next != nullptr) *next = s;
    if (lost != nullptr) *lost = missed;
    return status;
}

size_t vesk_read(const vesk_buf_t *buf, uint64_t since, vesk_rec_t *out, size_t max,
                 uint64_t *next, uint64_t *lost) {
    size_t n = 0;
    vesk_read_checked(buf, since, out, max, &n, next, lost);
    return n;
}

void vesk_host_set_records(uint32_t records) {
    g_records_override.store(records, std::memory_order_relaxed);
}

uint32_t vesk_host_restore(vesk_kind_t kind, uint32_t capacity, const vesk_rec_t *recs, size_t n,
                           uint64_t next) {
    if ((unsigned)kind >= VESK_KINDS || (recs == nullptr && n > 0) || next >= kMaxSeq)
        return VESK_E_INVAL;
    const uint32_t before = g_records_override.exchange(capacity, std::memory_order_relaxed);
    uint32_t status = 0;
    vesk_buf *buf = buffer_of(kind, &status);
    g_records_override.store(before, std::memory_order_relaxed);
    if (buf == nullptr) return status;
    uint64_t unwritten = 0;
    if (!buf->hdr->head.compare_exchange_strong(unwritten, next, std::memory_order_relaxed))
        return VESK_E_INVAL; /* records were written here already */
    const uint64_t cap = (uint64_t)buf->mask + 1;
    for (size_t i = 0; i < n; i++) {
        const vesk_rec_t &rec = recs[i];
        vesk_shm_rec *r = &buf->recs[rec.seq & buf->mask];
        /* Only what a ring of this size ending at `next` holds. */
        if (rec.seq >= next || next - rec.seq > cap || !claim(r, rec.seq)) continue;
        const origin o{rec.tv_sec, rec.tv_nsec, rec.pid, rec.tid};
        const uint32_t nargs = rec.nargs > VESK_MAX_ARGS ? VESK_MAX_ARGS : rec.nargs;
        fill_record(r, rec.seq, o, rec.id, nargs, rec.args, rec.is_string ? rec.str : nullptr);
    }
    return 0;
}

void vesk_host_forget_namespace(const char *ns) {
    pthread_mutex_lock(&g_map_lock);
    for (vesk_buf *b = g_maps; b != nullptr; b = b->next) {
        if (strcmp(b->ns, ns) == 0) b->live.store(false, std::memory_order_release);
    }
    pthread_mutex_unlock(&g_map_lock);
}

void pmdb_host_trace_settings(pmdb_setting_fn fn, void *ctx) {
    uint32_t records = 0;
    const pmdb_setting_source_t src = records_setting(&records);
    char value[32];
    snprintf(value, sizeof value, "%" PRIu32, records);
    pmdb_host_setting_emit(fn, ctx, "trace.records", value, VESK_RECORDS_ENV, src);
}

}  // extern "C"
