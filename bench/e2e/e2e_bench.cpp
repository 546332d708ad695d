// e2e_bench: the library end to end, side by side with LMDB and a raw limit,
// in one run.
//
//   e2e_bench [--rounds N] [--changes N] [--only card|scale]
//
// E2E_RATIOS_FILE, when set, also gets the table of ratios.
// --only runs one part (for a profile: `perf record -g e2e_bench --only
// scale`); the ratios then print only what was measured.
//
// 1. A generated card (a `pmdbctl gen` stream of about 4,000 interfaces) is
//    applied through the exported entry points: bring-up, churn (flaps of
//    about 10 % of the interfaces), teardown.  Strict: every change opens and
//    releases write access.  Batched: the caller holds write access to the
//    three tables across each phase.  Events per second, per-event p50/p99.
// 2. The entry changes the library made for that stream, recorded once by a
//    process with tabra_record preloaded (key, table, the entry's bytes,
//    removals; one record per write window, which is one change cycle when
//    every change opens and releases), are applied to LMDB (one write
//    transaction per entry change, MDB_NOSYNC on /dev/shm, writable map and
//    the default read-only map) and to a raw limit (a hash map and memcpy in
//    this process: no locks, no protection, no sharing).
// 3. At 1,000 and 60,000 IFH entries: the node-list change strict and
//    batched, one RO/RW mprotect pair on one entry page of a mapping as large
//    and as populated as the table's (interleaved with the strict change, so
//    that both see the same noise), an LMDB write transaction of the same
//    328-byte record, lookups by key against LMDB read transactions, idle and
//    while another process churns the same table.
//
// Every library run is a process of its own (a namespace of its own, removed
// afterwards): the library keeps its handles for the life of a process.
// Every figure is the median over the rounds; every ratio is the median of
// the per-round ratios (both sides measured in the same round).
#include <errno.h>
#include <fcntl.h>
#include <lmdb.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <array>
#include <dlfcn.h>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "event_stream.h"
#include "host/os_host.h"
#include "pmdb.h"
#include "pmdb_reader.h"
#include "stream_apply.h"
#include "tabra.h"

extern char **environ;

namespace {

using pmdbctl::StreamLine;
using pmdbctl::StreamOp;

constexpr int kPhases = 3;
constexpr const char *kPhaseNames[kPhases] = {"bring-up", "churn", "teardown"};
constexpr u32 kSizes[] = {1000, 60000};
constexpr int kNumSizes = 2;
constexpr int kBatch = 64;
constexpr double kLookupSeconds = 0.25;
constexpr u32 kKeyBase = 0x10000;

/* The card: 8 nodes x 150 ports, 2 sub-interfaces each, 60 bundles of 4
 * members with 4 sub-interfaces each, 100 BVIs: 4,000 interfaces. */
constexpr const char *kGenCard =
    " gen --seed 7 --nodes 8 --ports 150 --subs 2 --bundles 60 --members 4 --bundle-subs 4"
    " --bvis 100 --oam 1";
constexpr unsigned kCardInterfaces = 8 * 150 * 3 + 60 * 5 + 100;
constexpr unsigned kChurn = kCardInterfaces / 10;

double now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

double quantile(std::vector<double> v, double q) {
    if (v.empty()) return 0;
    const size_t i = std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())));
    std::nth_element(v.begin(), v.begin() + static_cast<long>(i), v.end());
    return v[i];
}
double median(const std::vector<double> &v) { return quantile(v, 0.5); }

void die(const std::string &why) {
    fprintf(stderr, "e2e_bench: %s\n", why.c_str());
    exit(1);
}

/* ---- processes ---------------------------------------------------------- */

std::string g_ns_base;
unsigned g_ns_next;
std::vector<std::string> g_namespaces;

std::string fresh_namespace() {
    g_namespaces.push_back(g_ns_base + "_" + std::to_string(g_ns_next++));
    return g_namespaces.back();
}

/* Runs fn in a child process of namespace `ns` and returns what it wrote. */
template <class T, class Fn>
T in_child(const std::string &ns, Fn fn) {
    int fd[2];
    if (pipe(fd) != 0) die("pipe failed");
    const pid_t pid = fork();
    if (pid < 0) die("fork failed");
    if (pid == 0) {
        close(fd[0]);
        setenv(VORN_NS_ENV, ns.c_str(), 1);
        vorn_host_set_namespace(nullptr);  // PMDB_NS is read again
        const T out = fn();
        const ssize_t n = write(fd[1], &out, sizeof out);
        _exit(n == static_cast<ssize_t>(sizeof out) ? 0 : 1);
    }
    close(fd[1]);
    T out{};
    size_t got = 0;
    while (got < sizeof out) {
        const ssize_t n = read(fd[0], reinterpret_cast<char *>(&out) + got, sizeof out - got);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    close(fd[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (got != sizeof out || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        die("a benchmark process failed in namespace " + ns);
    return out;
}

/* A process that runs `work` over and over until stopped (churn). */
class Churner {
public:
    template <class Fn>
    explicit Churner(Fn work) {
        int go[2];
        if (pipe(stop_) != 0 || pipe(go) != 0) die("pipe failed");
        pid_ = fork();
        if (pid_ < 0) die("fork failed");
        if (pid_ == 0) {
            close(stop_[1]);
            close(go[0]);
            work(0);  // first pass, then tell the parent it churns
            (void)!write(go[1], "g", 1);
            pollfd p{stop_[0], POLLIN, 0};
            for (unsigned i = 1; poll(&p, 1, 0) == 0; i++) work(i);
            _exit(0);
        }
        close(stop_[0]);
        close(go[1]);
        char c;
        if (read(go[0], &c, 1) != 1) die("churn process failed");
        close(go[0]);
    }
    ~Churner() {
        close(stop_[1]);
        int status = 0;
        waitpid(pid_, &status, 0);
    }

private:
    int stop_[2];
    pid_t pid_;
};

/* ---- the card's stream -------------------------------------------------- */

struct Stream {
    std::vector<StreamLine> lines;
    size_t end[kPhases] = {};  // end of each phase in lines
};

std::vector<StreamLine> gen_lines(const std::string &extra) {
    const std::string cmd = std::string(PMDBCTL_PATH) + kGenCard + extra;
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) die("cannot run " + cmd);
    std::vector<StreamLine> out;
    char *buf = nullptr;
    size_t cap = 0;
    for (ssize_t n; (n = getline(&buf, &cap, p)) > 0;) {
        StreamLine l;
        const std::string why = pmdbctl::ParseStreamLine(std::string(buf, static_cast<size_t>(n)), &l);
        if (!why.empty()) die("generated line refused: " + why);
        out.push_back(l);
    }
    free(buf);
    if (pclose(p) != 0) die(cmd + " failed");
    return out;
}

Stream card_stream() {
    Stream s;
    s.lines = gen_lines(" --churn " + std::to_string(kChurn) + " --teardown");
    s.end[0] = gen_lines("").size();
    s.end[1] = gen_lines(" --churn " + std::to_string(kChurn)).size();
    s.end[2] = s.lines.size();
    return s;
}

/* Write access to tables [0, n) while it lives. */
class WriteAccess {
public:
    explicit WriteAccess(int n) : n_(n) {
        for (int t = 0; t < n_; t++)
            if (dpa_chk_pmdb_open(nullptr, &hdl_[t], static_cast<pmdb_type_t>(t), 1) != 0)
                die("write open failed");
    }
    ~WriteAccess() {
        for (int t = 0; t < n_; t++)
            dpa_pmdb_mprotect_tabra(hdl_[t]->tabra, hdl_[t], static_cast<pmdb_type_t>(t));
    }
    dnx_db_hdl_t *hdl(int t) const { return hdl_[t]; }

private:
    int n_;
    dnx_db_hdl_t *hdl_[PMDB_NUM_TYPES] = {};
};

/* Opens the tables once, so that no timed change pays the first open. */
void open_tables(int n) { WriteAccess w(n); }

struct PhaseFig {
    double total_ns = 0, p50_ns = 0, p99_ns = 0;
    unsigned count = 0;
};
/* Time by what a line calls: event type 0..31, or 32 + the operation. */
constexpr int kKinds = 40;
int kind_of(const StreamLine &l) {
    return l.op == StreamOp::kEvent ? l.event.event_type % 32 : 32 + static_cast<int>(l.op);
}
struct CardFig {
    PhaseFig phase[kPhases];
    double kind_ns[kPhases][kKinds];
    unsigned kind_n[kPhases][kKinds];
};

CardFig run_card(Stream s, bool batched) {
    open_tables(PMDB_NUM_TYPES);
    CardFig f{};
    size_t at = 0;
    for (int p = 0; p < kPhases; p++) {
        std::vector<double> each;
        const double t0 = now_ns();
        {
            WriteAccess hold(batched ? PMDB_NUM_TYPES : 0);
            for (; at < s.end[p]; at++) {
                const double e0 = now_ns();
                ApplyStreamLine(s.lines[at]);
                each.push_back(now_ns() - e0);
                f.kind_ns[p][kind_of(s.lines[at])] += each.back();
                f.kind_n[p][kind_of(s.lines[at])]++;
            }
        }
        f.phase[p] = {now_ns() - t0, quantile(each, 0.5), quantile(each, 0.99),
                      static_cast<unsigned>(each.size())};
    }
    u32 left = 0, n = 0;
    for (int t = 0; t < PMDB_NUM_TYPES; t++)
        left += dpa_pmdb_count_entries(static_cast<pmdb_type_t>(t), &n) == 0 ? n : 1;
    if (left != 0) die("the teardown left entries behind");
    return f;
}

/* ---- recorded entry changes --------------------------------------------- */

struct Change {
    u8 type, removed;
    u32 key;
    std::vector<u8> bytes;
};
using Window = std::vector<Change>;  // one change cycle
struct Recording {
    std::vector<Window> phase[kPhases];
};

/* The recorder, behind the sanitizer's runtime when this build has one
 * as a shared library (it must come first in the preload list). */
std::string preload_list() {
    std::string list = TABRA_RECORD_PATH;
    Dl_info info{};
    void *asan = dlsym(RTLD_DEFAULT, "__asan_init");
    if (asan != nullptr && dladdr(asan, &info) != 0 && info.dli_fname != nullptr &&
        strstr(info.dli_fname, "libasan") != nullptr)
        list = std::string(info.dli_fname) + ":" + list;
    return list;
}

/* Replays the stream strict in a process with the recorder preloaded. */
Recording record(const std::string &self) {
    const std::string file = "/dev/shm/" + g_ns_base + "_record";
    const std::string ns = fresh_namespace();
    std::vector<std::string> env = {"LD_PRELOAD=" + preload_list(),
                                    "E2E_RECORD_FILE=" + file,
                                    std::string(VORN_NS_ENV) + "=" + ns};
    for (char **e = environ; *e != nullptr; e++)
        if (strncmp(*e, "LD_PRELOAD=", 11) != 0 && strncmp(*e, VORN_NS_ENV "=", 8) != 0)
            env.push_back(*e);
    std::vector<char *> envp, argv = {const_cast<char *>(self.c_str()),
                                      const_cast<char *>("--record-replay"), nullptr};
    for (std::string &e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv.data(), envp.data()) != 0)
        die("cannot start the recording process");
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) die("the recording process failed");
    Recording r;
    FILE *f = fopen(file.c_str(), "rb");
    if (f == nullptr) die("no recording");
    int phase = -1;
    for (int c; (c = fgetc(f)) != EOF;) {
        if (c == 'P') {
            phase = fgetc(f);
            continue;
        }
        u16 n = 0;
        if (c != 'W' || fread(&n, sizeof n, 1, f) != 1 || phase < 0 || phase >= kPhases)
            die("bad recording");
        Window w(n);
        for (Change &ch : w) {
            u16 len = 0;
            if (fread(&ch.type, 1, 1, f) != 1 || fread(&ch.removed, 1, 1, f) != 1 ||
                fread(&ch.key, 4, 1, f) != 1 || fread(&len, 2, 1, f) != 1)
                die("bad recording");
            ch.bytes.resize(len);
            if (len != 0 && fread(ch.bytes.data(), len, 1, f) != 1) die("bad recording");
        }
        r.phase[phase].push_back(std::move(w));
    }
    fclose(f);
    unlink(file.c_str());
    return r;
}

/* The recording process: the strict stream, phases marked. */
int record_replay() {
    auto mark = reinterpret_cast<void (*)(int)>(dlsym(RTLD_DEFAULT, "e2e_record_phase"));
    if (mark == nullptr) die("the recorder is not loaded");
    Stream s = card_stream();
    open_tables(PMDB_NUM_TYPES);
    size_t at = 0;
    for (int p = 0; p < kPhases; p++) {
        mark(p);
        for (; at < s.end[p]; at++) ApplyStreamLine(s.lines[at]);
    }
    vorn_host_remove_namespace(nullptr);
    return 0;
}

/* ---- LMDB and the raw limit --------------------------------------------- */

class Lmdb {
public:
    Lmdb(const std::string &dir, bool writemap) : dir_(dir) {
        mkdir(dir.c_str(), 0700);
        check(mdb_env_create(&env_));
        check(mdb_env_set_mapsize(env_, size_t{1} << 30));
        check(mdb_env_set_maxdbs(env_, PMDB_NUM_TYPES));
        check(mdb_env_open(env_, dir.c_str(), MDB_NOSYNC | (writemap ? MDB_WRITEMAP : 0), 0600));
        MDB_txn *txn = nullptr;
        check(mdb_txn_begin(env_, nullptr, 0, &txn));
        for (int t = 0; t < PMDB_NUM_TYPES; t++) {
            const std::string name = "t" + std::to_string(t);
            check(mdb_dbi_open(txn, name.c_str(), MDB_CREATE | MDB_INTEGERKEY, &dbi_[t]));
        }
        check(mdb_txn_commit(txn));
    }
    ~Lmdb() {
        mdb_env_close(env_);
        unlink((dir_ + "/data.mdb").c_str());
        unlink((dir_ + "/lock.mdb").c_str());
        rmdir(dir_.c_str());
    }
    static void check(int rc) {
        if (rc != 0 && rc != MDB_NOTFOUND) die(std::string("lmdb: ") + mdb_strerror(rc));
    }
    /* One write transaction. */
    void apply(const Window &w) {
        MDB_txn *txn = nullptr;
        check(mdb_txn_begin(env_, nullptr, 0, &txn));
        for (const Change &c : w) {
            MDB_val k{sizeof c.key, const_cast<u32 *>(&c.key)};
            if (c.removed) {
                check(mdb_del(txn, dbi_[c.type], &k, nullptr));
            } else {
                MDB_val v{c.bytes.size(), const_cast<u8 *>(c.bytes.data())};
                check(mdb_put(txn, dbi_[c.type], &k, &v, 0));
            }
        }
        check(mdb_txn_commit(txn));
    }
    MDB_env *env() const { return env_; }
    MDB_dbi dbi(int t) const { return dbi_[t]; }

private:
    std::string dir_;
    MDB_env *env_ = nullptr;
    MDB_dbi dbi_[PMDB_NUM_TYPES] = {};
};

class Raw {
public:
    void apply(const Window &w) {
        for (const Change &c : w) {
            auto &m = map_[c.type];
            if (c.removed) {
                m.erase(c.key);
                continue;
            }
            auto &v = m[c.key];
            v.resize(c.bytes.size());
            memcpy(v.data(), c.bytes.data(), c.bytes.size());
        }
    }

private:
    std::unordered_map<u32, std::vector<u8>> map_[PMDB_NUM_TYPES];
};

/* Applies every phase's windows to `store`: the total once without per-change
 * timers, then p50/p99 from a second store timed per change. */
template <class Make>
CardFig replay_changes(const Recording &r, Make make) {
    CardFig f;
    {
        auto store = make();
        for (int p = 0; p < kPhases; p++) {
            const double t0 = now_ns();
            for (const Window &w : r.phase[p]) store->apply(w);
            f.phase[p].total_ns = now_ns() - t0;
            f.phase[p].count = static_cast<unsigned>(r.phase[p].size());
        }
    }
    auto store = make();
    for (int p = 0; p < kPhases; p++) {
        std::vector<double> each;
        for (const Window &w : r.phase[p]) {
            const double t0 = now_ns();
            store->apply(w);
            each.push_back(now_ns() - t0);
        }
        f.phase[p].p50_ns = quantile(each, 0.5);
        f.phase[p].p99_ns = quantile(each, 0.99);
    }
    return f;
}

/* ---- scaling: node-list changes, lookups ------------------------------- */

struct ScaleFig {
    double strict_ns, mprotect_ns, mprotect_write_ns, mprotect_table_ns, bracket_ns, batched_ns, lookup_ns,
        lookup_churn_ns;
};
struct LmdbScaleFig {
    double wm_ns, ro_ns, raw_ns, read_ns, read_churn_ns;
};

std::vector<u32> random_keys(u32 n, size_t count, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<u32> keys(count);
    for (u32 &k : keys) k = kKeyBase + rng() % n;
    return keys;
}

/* n bundle sub-interface entries, whose node lists the changes flip. */
void fill_ifh(u32 n) {
    WriteAccess w(1);
    dnx_db_hdl_t *hdl = w.hdl(PMDB_TYPE_IFH);
    for (u32 i = 0; i < n; i++) {
        void *entry = nullptr;
        i32 slot = -1;
        const u32 key = kKeyBase + i;
        if (tabra_add_entry(hdl->tabra, key, &entry, &slot) != 0) die("fill failed");
        pellin_mutex_type *lock = &hdl->shrd_ctx->entry_lock[slot];
        if (pmdb_entry_lock(lock) != 0) die("fill lock failed");
        auto *e = static_cast<pmdb_ifh_entry_t *>(entry);
        memset(e, 0, sizeof *e);
        e->key = key;
        e->intf_info.ifh = key;
        e->intf_info.sub_ifh = key;
        e->intf_info.bundle_ifh = 0xb00100;
        e->intf_info.node_id = 1;
        pmdb_entry_unlock(lock);
    }
}

/* A mapping as large as the IFH table's entries, its first n entries'
 * pages populated, read-only: the reference of one entry page's pair. */
u8 *reference_mapping(const std::string &ns, u32 n, size_t *len) {
    *len = (size_t{PMDB_MAX_ENTRIES} * PMDB_IFH_ENTRY_SIZE + 4095) / 4096 * 4096;
    const std::string name = "/" + ns + ".e2e_mprotect_ref";
    const int fd = shm_open(name.c_str(), O_CREAT | O_RDWR, 0600);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(*len)) != 0) die("reference mapping failed");
    void *m = mmap(nullptr, *len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    shm_unlink(name.c_str());
    if (m == MAP_FAILED) die("reference mapping failed");
    memset(m, 1, size_t{n} * PMDB_IFH_ENTRY_SIZE);
    mprotect(m, *len, PROT_READ);
    return static_cast<u8 *>(m);
}

/* Median ns of one lookup, in batches of kBatch, for kLookupSeconds. */
template <class Lookup>
double time_lookups(const std::vector<u32> &keys, Lookup lookup) {
    std::vector<double> per;
    size_t next = 0;
    const double end = now_ns() + kLookupSeconds * 1e9;
    while (now_ns() < end) {
        const double t0 = now_ns();
        for (int i = 0; i < kBatch; i++) {
            lookup(keys[next]);
            next = next + 1 == keys.size() ? 0 : next + 1;
        }
        per.push_back((now_ns() - t0) / kBatch);
    }
    return median(per);
}

ScaleFig run_scale(u32 n, size_t changes) {
    fill_ifh(n);
    ScaleFig f{};
    const std::vector<u32> keys = random_keys(n, changes, n);
    size_t len = 0;
    u8 *ref = reference_mapping(vorn_host_namespace(), n, &len);
    /* Each change is followed by one of three pairs, in turn: on the
     * reference page of its entry; the same with a write of the entry's
     * first byte between, as the change writes its entry; on the table's
     * own page of the entry (its address from a lookup outside any write
     * window; the pair leaves it read-only as it was). */
    dnx_db_hdl_t *hdl = dpa_pmdb_hdl_get(PMDB_TYPE_IFH);
    std::vector<double> strict, pair[3];
    u32 id = 1;
    for (const u32 key : keys) {
        const double t0 = now_ns();
        if (dpa_pmdb_update_ifh_entry_nodelist(key, id & 1, id, 1 + id % 4, nullptr) != 0)
            die("node-list change failed");
        const double t1 = now_ns();
        void *entry = nullptr;
        i32 slot = -1;
        u8 *at = ref + size_t{key - kKeyBase} * PMDB_IFH_ENTRY_SIZE;
        if (id % 3 == 2 && tabra_get_entry_by_key(hdl->tabra, key, &entry, &slot) != 0)
            die("lookup failed");
        const double t2 = now_ns();
        u8 *page = id % 3 == 2 ? static_cast<u8 *>(entry) : at;
        page -= reinterpret_cast<uintptr_t>(page) % 4096;
        mprotect(page, 4096, PROT_READ | PROT_WRITE);
        if (id % 3 == 1) *at = static_cast<u8>(id);
        mprotect(page, 4096, PROT_READ);
        pair[id % 3].push_back(now_ns() - t2);
        strict.push_back(t1 - t0);
        id++;
    }
    munmap(ref, len);
    f.strict_ns = median(strict);
    f.mprotect_ns = median(pair[0]);
    f.mprotect_write_ns = median(pair[1]);
    f.mprotect_table_ns = median(pair[2]);
    /* Opening and releasing write access with no entry handed out between:
     * the bookkeeping of the cycle's protection without its system calls. */
    std::vector<double> bracket;
    for (size_t i = 0; i < keys.size(); i++) {
        const double t0 = now_ns();
        open_tables(1);
        bracket.push_back(now_ns() - t0);
    }
    f.bracket_ns = median(bracket);
    {
        WriteAccess hold(1);
        std::vector<double> each;
        for (int pass = 0; pass < 2; pass++) {  // the first pass opens the pages
            each.clear();
            for (const u32 key : keys) {
                const double t0 = now_ns();
                dpa_pmdb_update_ifh_entry_nodelist(key, id & 1, id, 1 + id % 4, nullptr);
                each.push_back(now_ns() - t0);
                id++;
            }
        }
        f.batched_ns = median(each);
    }
    unsigned char buf[PMDB_IFH_ENTRY_SIZE];
    auto lookup = [&buf](u32 key) {
        if (dpa_pmdb_get_ifh_entry_by_key(key, buf, 0, 0) != 0) die("lookup failed");
    };
    const std::vector<u32> look = random_keys(n, 1 << 16, n + 1);
    f.lookup_ns = time_lookups(look, lookup);
    Churner churn([&keys](unsigned pass) {
        u32 i = pass;
        for (const u32 key : keys) dpa_pmdb_update_ifh_entry_nodelist(key, i & 1, i, 1 + i % 4, nullptr), i++;
    });
    f.lookup_churn_ns = time_lookups(look, lookup);
    return f;
}

LmdbScaleFig run_lmdb_scale(u32 n, size_t changes) {
    LmdbScaleFig f{};
    const std::vector<u32> keys = random_keys(n, changes, n);
    const std::string dir = "/dev/shm/" + g_ns_base + "_lmdb";
    std::vector<u8> rec(PMDB_IFH_ENTRY_SIZE, 1);
    auto fill = [&](Lmdb &db) {
        MDB_txn *txn = nullptr;
        Lmdb::check(mdb_txn_begin(db.env(), nullptr, 0, &txn));
        for (u32 i = 0; i < n; i++) {
            u32 key = kKeyBase + i;
            MDB_val k{sizeof key, &key}, v{rec.size(), rec.data()};
            Lmdb::check(mdb_put(txn, db.dbi(0), &k, &v, 0));
        }
        Lmdb::check(mdb_txn_commit(txn));
    };
    auto puts = [&](Lmdb &db) {
        std::vector<double> each;
        Window w(1);
        w[0] = {0, 0, 0, rec};
        for (const u32 key : keys) {
            w[0].key = key;
            w[0].bytes[8] = static_cast<u8>(key);
            const double t0 = now_ns();
            db.apply(w);
            each.push_back(now_ns() - t0);
        }
        return median(each);
    };
    for (int writemap = 0; writemap < 2; writemap++) {
        Lmdb db(dir, writemap != 0);
        fill(db);
        (writemap ? f.wm_ns : f.ro_ns) = puts(db);
        if (writemap) continue;
        /* Reads: one read transaction per lookup (reset and renewed), get, copy. */
        MDB_txn *txn = nullptr;
        Lmdb::check(mdb_txn_begin(db.env(), nullptr, MDB_RDONLY, &txn));
        mdb_txn_reset(txn);
        unsigned char buf[PMDB_IFH_ENTRY_SIZE];
        auto read = [&](u32 key) {
            Lmdb::check(mdb_txn_renew(txn));
            MDB_val k{sizeof key, &key}, v{};
            if (mdb_get(txn, db.dbi(0), &k, &v) != 0) die("lmdb read failed");
            memcpy(buf, v.mv_data, std::min(v.mv_size, sizeof buf));
            mdb_txn_reset(txn);
        };
        const std::vector<u32> look = random_keys(n, 1 << 16, n + 1);
        f.read_ns = time_lookups(look, read);
        {
            Churner churn([&](unsigned pass) {
                static Lmdb *own = nullptr;  // the churn process's own environment
                if (own == nullptr) own = new Lmdb(dir, false);
                Window w(1);
                w[0] = {0, 0, 0, rec};
                for (const u32 key : keys) {
                    w[0].key = key;
                    w[0].bytes[8] = static_cast<u8>(pass);
                    own->apply(w);
                }
            });
            f.read_churn_ns = time_lookups(look, read);
        }
        mdb_txn_abort(txn);
    }
    std::unordered_map<u32, std::array<u8, PMDB_IFH_ENTRY_SIZE>> raw;
    for (u32 i = 0; i < n; i++) raw[kKeyBase + i].fill(1);
    const double t0 = now_ns();
    for (const u32 key : keys) memcpy(raw[key].data(), rec.data(), rec.size());
    f.raw_ns = (now_ns() - t0) / static_cast<double>(keys.size());
    return f;
}

/* ---- report ------------------------------------------------------------- */

struct Round {
    CardFig strict, batched, lmdb_wm, lmdb_ro, raw;
    ScaleFig scale[kNumSizes];
    LmdbScaleFig lscale[kNumSizes];
};

template <class Get>
double med(const std::vector<Round> &rs, Get get) {
    std::vector<double> v;
    for (const Round &r : rs) v.push_back(get(r));
    return median(v);
}

void print_card(const std::vector<Round> &rs, const Recording &rec) {
    printf("\nCard: %u interfaces; events, entry changes (write windows, one transaction\n"
           "each elsewhere) and the entries they wrote or removed, per phase:\n",
           kCardInterfaces);
    for (int p = 0; p < kPhases; p++) {
        size_t entries = 0;
        for (const Window &w : rec.phase[p]) entries += w.size();
        printf("  %-9s %6u events  %6zu entry changes  %6zu entries\n", kPhaseNames[p],
               rs[0].strict.phase[p].count, rec.phase[p].size(), entries);
    }
    printf("\n%-9s %-14s %12s %12s %10s %10s\n", "phase", "run", "events/s", "us/change",
           "p50 us", "p99 us");
    const struct {
        const char *name;
        CardFig Round::*fig;
        bool events;
    } runs[] = {{"pmdb strict", &Round::strict, true},   {"pmdb batched", &Round::batched, true},
                {"lmdb wmap", &Round::lmdb_wm, false},  {"lmdb default", &Round::lmdb_ro, false},
                {"raw limit", &Round::raw, false}};
    for (int p = 0; p < kPhases; p++) {
        const double changes = static_cast<double>(rec.phase[p].size());
        for (const auto &run : runs) {
            const double total = med(rs, [&](const Round &r) { return (r.*run.fig).phase[p].total_ns; });
            const double events = rs[0].strict.phase[p].count;
            printf("%-9s %-14s %12s %12.3f %10.3f %10.3f\n", kPhaseNames[p], run.name,
                   run.events ? std::to_string(static_cast<long>(events / total * 1e9)).c_str() : "-",
                   total / changes / 1e3,
                   med(rs, [&](const Round &r) { return (r.*run.fig).phase[p].p50_ns; }) / 1e3,
                   med(rs, [&](const Round &r) { return (r.*run.fig).phase[p].p99_ns; }) / 1e3);
        }
    }
    printf("(p50/p99: per event for pmdb, per entry change for lmdb and raw)\n");
    printf("\nWhere batched time goes (median us per call and share of the phase):\n");
    for (int p = 0; p < kPhases; p++) {
        const double total = med(rs, [&](const Round &r) { return r.batched.phase[p].total_ns; });
        for (int k = 0; k < kKinds; k++) {
            const unsigned n = rs[0].batched.kind_n[p][k];
            if (n == 0) continue;
            const double ns = med(rs, [&](const Round &r) { return r.batched.kind_ns[p][k]; });
            const char *name = k < 32 ? pmdbctl::EventTypeName(static_cast<unsigned>(k))
                                      : pmdbctl::StreamOpName(static_cast<StreamOp>(k - 32));
            printf("  %-9s %-18s %6u calls %9.2f us %5.1f %%\n", kPhaseNames[p], name, n,
                   ns / n / 1e3, 100 * ns / total);
        }
    }
}

void print_scale(const std::vector<Round> &rs) {
    printf("\nPer change and per lookup, by IFH entries (medians, us):\n");
    printf("%-46s %12s %12s\n", "", "1,000", "60,000");
    const struct {
        const char *name;
        double (*get)(const Round &, int);
    } rows[] = {
        {"strict node-list change", [](const Round &r, int i) { return r.scale[i].strict_ns; }},
        {"RO/RW mprotect pair, one entry page", [](const Round &r, int i) { return r.scale[i].mprotect_ns; }},
        {"the pair with a write to the page between", [](const Round &r, int i) { return r.scale[i].mprotect_write_ns; }},
        {"the pair on the table's own entry page", [](const Round &r, int i) { return r.scale[i].mprotect_table_ns; }},
        {"open and release write access, no entry", [](const Round &r, int i) { return r.scale[i].bracket_ns; }},
        {"node-list change, write access held", [](const Round &r, int i) { return r.scale[i].batched_ns; }},
        {"lmdb write txn, writable map", [](const Round &r, int i) { return r.lscale[i].wm_ns; }},
        {"lmdb write txn, default map", [](const Round &r, int i) { return r.lscale[i].ro_ns; }},
        {"raw limit put (hash map + memcpy)", [](const Round &r, int i) { return r.lscale[i].raw_ns; }},
        {"pmdb lookup by key", [](const Round &r, int i) { return r.scale[i].lookup_ns; }},
        {"pmdb lookup by key, churn in another process", [](const Round &r, int i) { return r.scale[i].lookup_churn_ns; }},
        {"lmdb read txn + get + copy", [](const Round &r, int i) { return r.lscale[i].read_ns; }},
        {"lmdb read txn, churn in another process", [](const Round &r, int i) { return r.lscale[i].read_churn_ns; }},
    };
    for (const auto &row : rows)
        printf("%-46s %12.3f %12.3f\n", row.name, med(rs, [&](const Round &r) { return row.get(r, 0); }) / 1e3,
               med(rs, [&](const Round &r) { return row.get(r, 1); }) / 1e3);
}

void print_ratios(FILE *out, const std::vector<Round> &rs) {
    auto phase_ratio = [&](int p) {
        return med(rs, [p](const Round &r) { return r.lmdb_wm.phase[p].total_ns / r.batched.phase[p].total_ns; });
    };
    auto growth = [](double ScaleFig::*a, const Round &r) { return r.scale[1].*a / r.scale[0].*a; };
    auto lgrowth = [](double LmdbScaleFig::*a, const Round &r) { return r.lscale[1].*a / r.lscale[0].*a; };
    const int big = kNumSizes - 1;
    const struct {
        const char *what;
        double value;
        const char *goal;
        bool met;
    } rows[] = {
        {"batched bring-up: lmdb writable map / pmdb, per change", phase_ratio(0), ">= 4", phase_ratio(0) >= 4},
        {"batched churn: lmdb writable map / pmdb, per change", phase_ratio(1), ">= 4", phase_ratio(1) >= 4},
        {"strict change / mprotect pair, 1,000 entries",
         med(rs, [](const Round &r) { return r.scale[0].strict_ns / r.scale[0].mprotect_ns; }), "<= 1.1", false},
        {"strict change / mprotect pair, 60,000 entries",
         med(rs, [big](const Round &r) { return r.scale[big].strict_ns / r.scale[big].mprotect_ns; }), "<= 1.1", false},
        {"lookup at 60,000: lmdb read txn / pmdb",
         med(rs, [big](const Round &r) { return r.lscale[big].read_ns / r.scale[big].lookup_ns; }), ">= 6", false},
        {"lookup at 60,000 during churn: lmdb / pmdb",
         med(rs, [big](const Round &r) { return r.lscale[big].read_churn_ns / r.scale[big].lookup_churn_ns; }), ">= 6", false},
        {"growth 1k->60k: pmdb held / lmdb writable map",
         med(rs, [&](const Round &r) { return growth(&ScaleFig::batched_ns, r) / lgrowth(&LmdbScaleFig::wm_ns, r); }), "<= 1", false},
        {"growth 1k->60k: pmdb strict / lmdb default map",
         med(rs, [&](const Round &r) { return growth(&ScaleFig::strict_ns, r) / lgrowth(&LmdbScaleFig::ro_ns, r); }), "<= 1", false},
        {"raw limit / pmdb batched, bring-up, per change",
         med(rs, [](const Round &r) { return r.raw.phase[0].total_ns / r.batched.phase[0].total_ns; }), "-", true},
    };
    fprintf(out, "\nRatios (median of %zu per-round ratios, both sides measured in the same round):\n", rs.size());
    fprintf(out, "%-58s %9s %8s %6s\n", "figure", "ratio", "goal", "met");
    for (const auto &row : rows) {
        const char *g = row.goal;
        if (!std::isfinite(row.value) || row.value == 0) continue;  // not measured (--only)
        const bool met = g[0] == '-' ? true
                         : g[0] == '>' ? row.value >= atof(g + 3)
                                       : row.value <= atof(g + 3);
        fprintf(out, "%-58s %9.2f %8s %6s\n", row.what, row.value, g, g[0] == '-' ? "" : met ? "yes" : "NO");
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc > 1 && strcmp(argv[1], "--record-replay") == 0) return record_replay();
    int rounds = 9;
    size_t changes = 4000;
    std::string only;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--rounds") == 0) rounds = std::max(1, atoi(argv[i + 1]));
        if (strcmp(argv[i], "--changes") == 0) changes = std::max(100, atoi(argv[i + 1]));
        if (strcmp(argv[i], "--only") == 0) only = argv[i + 1];
    }
    const bool card = only != "scale", scale = only != "card";
    const char *ns = getenv(VORN_NS_ENV);
    g_ns_base = ns != nullptr ? std::string(ns).substr(0, 30) : "e2e" + std::to_string(getpid());
    const Stream stream = card ? card_stream() : Stream{};
    const Recording rec = card ? record(argv[0]) : Recording{};
    printf("e2e_bench: %d rounds; every library run in a process of its own\n", rounds);
    std::vector<Round> rs;
    for (int i = 0; i < rounds; i++) {
        Round r{};
        for (int s = 0; s < kNumSizes && scale; s++) {
            r.scale[s] = in_child<ScaleFig>(fresh_namespace(), [&] { return run_scale(kSizes[s], changes); });
            r.lscale[s] = run_lmdb_scale(kSizes[s], changes);
        }
        rs.push_back(r);
        fprintf(stderr, "round %d done\n", i + 1);
        if (!card) continue;
        r.strict = in_child<CardFig>(fresh_namespace(), [&] { return run_card(stream, false); });
        r.batched = in_child<CardFig>(fresh_namespace(), [&] { return run_card(stream, true); });
        const std::string dir = "/dev/shm/" + g_ns_base + "_lmdb";
        r.lmdb_wm = replay_changes(rec, [&] { return std::make_unique<Lmdb>(dir, true); });
        r.lmdb_ro = replay_changes(rec, [&] { return std::make_unique<Lmdb>(dir, false); });
        r.raw = replay_changes(rec, [] { return std::make_unique<Raw>(); });
        rs.back() = r;
    }
    for (const std::string &n : g_namespaces) vorn_host_remove_namespace(n.c_str());
    if (card) print_card(rs, rec);
    if (scale) print_scale(rs);
    print_ratios(stdout, rs);
    /* bench/run.sh prints the ratios again after every program's output. */
    const char *ratios = getenv("E2E_RATIOS_FILE");
    FILE *f = ratios != nullptr ? fopen(ratios, "w") : nullptr;
    if (f != nullptr) print_ratios(f, rs), fclose(f);
    return 0;
}
