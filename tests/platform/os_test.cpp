// OS layer: namespaced objects seen across processes, namespace isolation and
// removal, modes and owners of the card's objects, injected faults and the
// call log; the thread-debug service (who waits where) and fault arming.
// The named semaphore, robust-mutex repair and a single registered wait are
// checked through the library's own use of them (frame region, lock and open
// tests).
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <span>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "host/kemt_host.h"
#include "host/os_host.h"
#include "host/pm_fault.h"
#include "host/vesk_reader.h"
#include "kemt.h"
#include "pmdb_test.h"
#include "tabra.h"
#include "tabra_params.h"
#include "vorn_os.h"

namespace {

using namespace std::chrono_literals;
using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;
using pmdb::test::StartHeldChild;

class OsTest : public PmdbTest {};

std::vector<std::string> Objects(const std::string &ns) {
    std::vector<std::string> names;
    vorn_host_list_objects(
        ns.c_str(),
        [](void *ctx, const char *name) {
            static_cast<std::vector<std::string> *>(ctx)->push_back(name);
        },
        &names);
    std::sort(names.begin(), names.end());
    return names;
}

/* Creates object `name` of size 4096 holding `value` in its first word. */
int CreateObject(const char *name, uint32_t value) {
    const int fd = _shm_open(name, O_CREAT | O_EXCL | O_RDWR, 0600);
    if (fd < 0 || ftruncate(fd, 4096) != 0) return -1;
    void *p = vornos_mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    vorn_close(fd);
    if (p == MAP_FAILED) return -1;
    *static_cast<uint32_t *>(p) = value;
    return 0;
}

/* First word of object `name`, or -1 when it cannot be opened. */
int64_t ReadObject(const char *name) {
    const int fd = _shm_open(name, O_RDWR, 0);
    if (fd < 0) return -1;
    void *p = vornos_mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    vorn_close(fd);
    return p == MAP_FAILED ? -1 : *static_cast<uint32_t *>(p);
}

/* Processes of two namespaces each create "a": both exclusive creates
 * succeed and each reads back only its own value.  The other namespace's
 * name starts with ours ("t1_2" vs "t1_20"): removing ours takes our objects
 * and semaphores only. */
TEST_F(OsTest, NamespacesAreSeparateAndRemovedAlone) {
    const std::string other = ns() + "0";
    auto a = StartHeldChild([] {
        if (CreateObject("a", 1) != 0) _exit(10);
    });
    ASSERT_TRUE(a->WaitReady());
    const auto b = RunInChild([&other] {
        setenv(VORN_NS_ENV, other.c_str(), 1);
        vorn_host_set_namespace(nullptr);
        if (ReadObject("a") != -1) return 11;
        if (CreateObject("a", 2) != 0) return 12;
        return ReadObject("a") == 2 ? 0 : 13;
    });
    EXPECT_TRUE(b.ExitedWith(0)) << b.Describe();
    EXPECT_EQ(ReadObject("a"), 1);
    a->Release();
    EXPECT_TRUE(a->Wait().ExitedWith(0));

    sem_t *s = vorn_sem_open("pmdb_shm_semaphore", O_CREAT | O_EXCL, 0600, 1);
    ASSERT_NE(s, SEM_FAILED);
    sem_close(s);
    EXPECT_EQ(vorn_host_list_semaphores(ns().c_str(), nullptr, nullptr), 1);
    // The trace buffers of the fixture's mark are objects too.
    EXPECT_EQ(Objects(ns()), (std::vector<std::string>{"a", "vesk.database", "vesk.error", "vesk.event"}));
    EXPECT_EQ(vorn_host_remove_namespace(nullptr), 1 + 1 + 3);
    EXPECT_EQ(vorn_host_list_semaphores(ns().c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(ReadObject("a"), -1);
    EXPECT_EQ(Objects(other), std::vector<std::string>{"a"});
    EXPECT_EQ(vorn_host_remove_namespace(other.c_str()), 1);
    EXPECT_TRUE(Objects(other).empty());
}

TEST_F(OsTest, InvalidNamespacesAreRefused) {
    sem_t *s = vorn_sem_open("pmdb_shm_semaphore", O_CREAT, 0777, 1);
    ASSERT_NE(s, SEM_FAILED);
    sem_close(s);
    const std::string too_long(41, 'n');
    for (const char *bad : {"a.b", "a/b", "", "sem", "../etc", too_long.c_str()}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(vorn_host_set_namespace(bad), -1);
        EXPECT_STREQ(vorn_host_namespace(), ns().c_str());
        // An invalid PMDB_NS is an error, never the card's own namespace.
        // PMDB_NS is read once: a change shows after vorn_host_set_namespace.
        const auto r = RunInChild([bad] {
            vorn_host_set_namespace(nullptr);
            const std::string kept = vorn_host_namespace();
            setenv(VORN_NS_ENV, bad, 1);
            if (kept != vorn_host_namespace()) return 5;
            vorn_host_set_namespace(nullptr);
            vesk_buf_t *buf = nullptr;
            if (strcmp(vorn_host_namespace(), "") != 0) return 1;
            if (_shm_open("probe", O_CREAT | O_RDWR, 0777) != -1 || errno != EINVAL) return 2;
            if (vorn_sem_open("probe", O_CREAT, 0777, 1) != SEM_FAILED || errno != EINVAL) return 3;
            return vesk_open_checked(VESK_ERROR, &buf) == VESK_E_NAMESPACE ? 0 : 4;
        });
        EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
    }
    // "sem" would name the semaphores of every namespace.
    EXPECT_EQ(vorn_host_list_objects("sem", nullptr, nullptr), 0);
    char name[16];
    EXPECT_EQ(vorn_host_shm_name("a_rather_long_object_name_here", name, sizeof name), -1);
}

/* One kind of object of the card, for the ownership tests. */
struct OwnedObject {
    const char *what;
    const char *file;  /* under /dev/shm; %s is the namespace */
    uint64_t (*use)(); /* makes or opens it: 0, or the failure */
    uint64_t refused;  /* use() of another user's object */
    uint32_t point;    /* the refusal's trace (error buffer) */
};

uint64_t UseRegion() {
    const int fd = _shm_open("owned", O_CREAT | O_RDWR, 0777);
    return fd < 0 ? (uint64_t)errno : (uint64_t)close(fd);
}
uint64_t UseSemaphore() {
    sem_t *s = vorn_sem_open("owned", O_CREAT, 0777, 1);
    return s == SEM_FAILED ? (uint64_t)errno : (uint64_t)sem_close(s);
}
uint64_t UseTraceBuffer() {
    vesk_buf_t *buf = nullptr;
    return vesk_open_checked(VESK_EVENT, &buf);
}
uint64_t UseTable() {
    const tabra_params_t p = pmdb::test::Params("OWNED", 16);
    tabra_hdl_t h = nullptr;
    return tabra_open(&p, &h);
}

TEST_F(OsTest, ObjectsArePrivateAndAnotherUsersAreRefused) {
    const OwnedObject kinds[] = {
        {"region", "%s.owned", UseRegion, EPERM, VORN_TP_NOT_OWNER},
        {"semaphore", "sem.%s.owned", UseSemaphore, EPERM, VORN_TP_NOT_OWNER},
        {"trace buffer", "%s.vesk.event", UseTraceBuffer, VESK_E_OWNER, VESK_TP_OPEN},
        {"table", "%s.tabra.OWNED", UseTable, TABRA_E_OWNER, TABRA_TP_OWNER},
    };
    struct Owner {
        const char *what;
        bool our_group;
        int group_sharing;
        bool usable;
    } const owners[] = {{"another user", false, 0, false},
                        {"another user, group sharing", false, 1, false},
                        {"another user of our group", true, 0, false},
                        {"another user of our group, group sharing", true, 1, true}};
    const std::string other = pmdb::test::UniqueNamespace(); /* no trace buffer mapped yet */
    for (const OwnedObject &k : kinds) {
        SCOPED_TRACE(k.what);
        char path[256];
        snprintf(path, sizeof path, (std::string("/dev/shm/") + k.file).c_str(), other.c_str());
        // Made with the host's mode whatever the umask; a fresh process each
        // time, so that nothing is already mapped.
        for (int group = 0; group <= 1; group++) {
            const auto made = RunInChild([&] {
                umask(0277);
                vorn_host_set_namespace(other.c_str());
                vorn_host_set_shm_group(group);
                return k.use() == 0 ? 0 : 1;
            });
            ASSERT_TRUE(made.ExitedWith(0)) << made.Describe();
            struct stat st {};
            ASSERT_EQ(stat(path, &st), 0) << path;
            EXPECT_EQ(st.st_mode & 07777, group ? 0660u : 0600u);
            if (group == 0) unlink(path);
        }
        for (const Owner &o : owners) {
            SCOPED_TRACE(o.what);
            ASSERT_EQ(chown(path, 65534, o.our_group ? getegid() : 65534), 0);
            const auto r = RunInChild([&] {
                vorn_host_set_namespace(other.c_str());
                vorn_host_set_shm_group(o.group_sharing);
                pmdb::test::TraceMark mark{};
                mark.seq[VESK_ERROR] = vesk_mark(vesk_open(VESK_ERROR));
                if (k.use() != (o.usable ? 0 : k.refused)) return 1;
                const size_t traced = pmdb::test::FindTraces(mark, VESK_ERROR, k.point).size();
                return traced == (o.usable ? 0u : 1u) ? 0 : 2;
            });
            EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
        }
    }
    vorn_host_remove_namespace(other.c_str());
}

/* The first opener of a region unlinks its semaphore when done: an open
 * that meets that unlink between opening the semaphore and checking its
 * owner (through its file, by name) must open again, not fail. */
TEST_F(OsTest, SemaphoreOpensWhileAnotherProcessUnlinksIt) {
    pmdb::test::RunAtOnce(
        3, [] {},
        [](size_t k) {
            for (int i = 0; i < 1000; i++) {
                if (k == 0) {
                    vorn_sem_unlink("race");
                    usleep(100); /* paces the unlinks; the openers run freely */
                    continue;
                }
                sem_t *s = vorn_sem_open("race", O_CREAT, 0777, 1);
                ASSERT_NE(s, SEM_FAILED) << "open " << i << ": errno " << errno;
                sem_close(s);
            }
        });
}

/* Each injected fault fails its call with its errno and does nothing, as
 * many times as armed; the call log holds only the calls made while on. */
TEST_F(OsTest, InjectedFaultsFailWithErrnoAndDoNothingAndCallsAreLogged) {
    pm_fault_set("_shm_open", EACCES, 1);
    EXPECT_EQ(_shm_open("x", O_CREAT | O_RDWR, 0600), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(ReadObject("x"), -1);  // nothing was created
    pm_fault_set("vorn_sem_open", EMFILE, 2);
    EXPECT_EQ(vorn_sem_open("s", O_CREAT | O_EXCL, 0600, 1), SEM_FAILED);
    EXPECT_EQ(vorn_sem_open("s", O_CREAT, 0600, 1), SEM_FAILED);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(vorn_host_list_semaphores(nullptr, nullptr, nullptr), 0);
    pm_fault_set("vorn_sysctl_get_int64", -7, 1);
    EXPECT_EQ(vorn_sysctl_get_int64("tarvo.qen.vorn.platform.max_bundle_l3_vlan", 0), -7);

    pm_calllog_enable(1);
    const int fd = _shm_open("logged", O_CREAT | O_RDWR, 0640);
    ASSERT_GE(fd, 0);
    vorn_close(fd);
    pm_calllog_enable(0);
    _shm_open("not_logged", O_RDWR, 0);
    pm_call_rec_t recs[8];
    ASSERT_EQ(pm_calllog_get(recs, 8), 2u);
    EXPECT_EQ(std::make_tuple(std::string(recs[0].call), recs[0].args[0], recs[0].args[1]),
              std::make_tuple(std::string("_shm_open"), uint64_t(O_CREAT | O_RDWR), uint64_t(0640)));
    EXPECT_EQ(std::make_tuple(std::string(recs[1].call), recs[1].args[0]),
              std::make_tuple(std::string("vorn_close"), uint64_t(fd)));
    EXPECT_LE(recs[0].mono_ns, recs[1].mono_ns);

    /* A full log keeps its first records and counts the rest. */
    pm_calllog_clear();
    pm_calllog_enable(1);
    for (uint64_t i = 0; i < PM_CALLLOG_CAPACITY + 10; i++) pm_calllog_note("x", i, 0, 0, 0);
    std::vector<pm_call_rec_t> all(PM_CALLLOG_CAPACITY + 10);
    EXPECT_EQ(pm_calllog_get(all.data(), all.size()), PM_CALLLOG_CAPACITY + 10u);
    EXPECT_EQ(all[PM_CALLLOG_CAPACITY - 1].args[0], PM_CALLLOG_CAPACITY - 1u);
    pm_calllog_clear();
    EXPECT_EQ(pm_calllog_get(all.data(), all.size()), 0u);
}

/* ---- thread-debug service and fault arming ------------------------------- */

/* Waits like the library does: try-lock, register the wait, lock, unset. */
void RegisteredLock(pthread_mutex_t *m, const char *where, int line) {
    if (pthread_mutex_trylock(m) == 0) return;
    kemt_set_mutex_block(m, where, line);
    pthread_mutex_lock(m);
    kemt_unset_mutex_block();
}

/* Threads waiting at once are all listed, each with its mutex, place and
 * thread, until they get the mutex; their waits are counted, and each thread
 * has a last wait of its own. */
TEST_F(OsTest, BlockedThreadsAreVisibleUntilTheyGetTheMutex) {
    constexpr int kThreads = 4;
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&m);
    std::atomic<uint32_t> tids[kThreads] = {};
    std::vector<std::thread> ts;
    for (int i = 0; i < kThreads; i++) {
        ts.emplace_back([&, i] {
            tids[i] = (uint32_t)gettid();
            RegisteredLock(&m, "dpa_pmdb_mprotect_tabra", 600 + i);
            kemt_wait_t last;
            EXPECT_EQ(kemt_host_last_wait(&last), 0);
            EXPECT_EQ(last.line, 600 + i);
            EXPECT_GE(last.until_ns, last.since_ns);
            pthread_mutex_unlock(&m);
        });
    }
    kemt_wait_t w[kThreads + 1];
    size_t n = 0;
    for (int i = 0; i < 5000 && n < kThreads; i++) {  // a bound against a hang only
        n = kemt_host_waiters(w, kThreads + 1);
        if (n < kThreads) std::this_thread::sleep_for(1ms);
    }
    ASSERT_EQ(n, (size_t)kThreads);
    for (const kemt_wait_t &x : std::span(w, n)) {
        const int i = x.line - 600;
        ASSERT_TRUE(i >= 0 && i < kThreads) << x.line;
        EXPECT_EQ(std::make_tuple(x.mutex, std::string(x.location), x.tid, x.until_ns),
                  std::make_tuple((const void *)&m, std::string("dpa_pmdb_mprotect_tabra"), tids[i].load(), uint64_t{0}));
    }
    pthread_mutex_unlock(&m);
    for (auto &t : ts) t.join();
    EXPECT_EQ(kemt_host_waiters(w, kThreads), 0u);
    EXPECT_EQ(kemt_host_total_waits(), (uint64_t)kThreads);
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_mprotect_tabra", -1), (uint64_t)kThreads);
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_mprotect_tabra", 601), 1u);
    EXPECT_EQ(kemt_host_location_waits("elsewhere", -1), 0u);
    kemt_wait_t last;
    EXPECT_EQ(kemt_host_last_wait(&last), -1) << "this thread never waited";
    kemt_host_reset();
    EXPECT_EQ(kemt_host_total_waits(), 0u);
    EXPECT_EQ(kemt_host_location_waits("dpa_pmdb_mprotect_tabra", -1), 0u);
}

/* "1" for each of n calls of `name` that the armed faults fail, else "0". */
std::string Hits(const char *name, int n, int64_t *result) {
    std::string s;
    for (int i = 0; i < n; i++) s += pm_fault_hit(name, result) ? '1' : '0';
    return s;
}

TEST_F(OsTest, ArmedFaultsAreCountedNegativeZeroAndRearmed) {
    int64_t r = 0;
    EXPECT_EQ(Hits("tabra_open", 1, &r), "0");
    pm_fault_set("tabra_open", 17, 2);
    EXPECT_EQ(Hits("tabra_init", 1, &r), "0");
    EXPECT_EQ(Hits("tabra_open", 1, &r), "1");
    EXPECT_EQ(r, 17);
    EXPECT_EQ(Hits("tabra_open", 2, &r), "10");

    pm_fault_set("tabra_add_entry", 0xA6F01400, -1);
    EXPECT_EQ(Hits("tabra_add_entry", 100, &r), std::string(100, '1'));
    pm_fault_set("tabra_add_entry", 0, 0);
    EXPECT_EQ(Hits("tabra_add_entry", 1, &r), "0");

    pm_fault_set("a", 1, -1);
    pm_fault_set("b", 2, 5);
    pm_fault_clear();
    EXPECT_EQ(Hits("a", 1, &r) + Hits("b", 1, &r), "00");

    /* Re-arming replaces the result and the count. */
    pm_fault_set("vorn_close", 1, 5);
    pm_fault_set("vorn_close", 2, 1);
    EXPECT_EQ(Hits("vorn_close", 1, &r), "1");
    EXPECT_EQ(r, 2);
    EXPECT_EQ(Hits("vorn_close", 1, &r), "0");

    /* Threads share the count: exactly that many hits. */
    pm_fault_set("contended", 1, 1000);
    std::atomic<int> hits{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; t++) {
        ts.emplace_back([&] {
            int64_t mine = 0;
            for (int i = 0; i < 1000; i++) hits += pm_fault_hit("contended", &mine);
        });
    }
    for (auto &t : ts) t.join();
    EXPECT_EQ(hits.load(), 1000);
}

}  // namespace
