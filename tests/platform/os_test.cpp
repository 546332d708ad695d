// OS layer: namespaced objects seen across processes, namespace isolation and
// removal, modes and owners of the card's objects, the sysctl store, and
// robust-mutex repair.
#include <errno.h>
#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "host/os_host.h"
#include "host/pm_fault.h"
#include "host/settings.h"
#include "host/vesk_reader.h"
#include "pmdb_test.h"
#include "tabra.h"
#include "tabra_params.h"
#include "vorn_os.h"

namespace {

using pmdb::test::ChildLink;
using pmdb::test::ChildProcess;
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

TEST_F(OsTest, ObjectNameCarriesNamespace) {
    char full[64];
    ASSERT_EQ(vorn_host_shm_name("dnx_pmdb_ifh_shrd", full, sizeof full), 0);
    EXPECT_EQ(std::string(full), "/" + ns() + ".dnx_pmdb_ifh_shrd");
    EXPECT_EQ(vorn_host_shm_name("a_rather_long_object_name_here", full, 16), -1);
    EXPECT_STREQ(vorn_host_namespace(), ns().c_str());
}

TEST_F(OsTest, ProcessesOfDifferentNamespacesDoNotSeeEachOther) {
    const std::string other = pmdb::test::UniqueNamespace();
    // Each process creates "obj" in its own namespace: both exclusive creates
    // succeed and each reads back only its own value.
    auto a = StartHeldChild([] {
        if (CreateObject("obj", 1) != 0) _exit(10);
    });
    ASSERT_TRUE(a->WaitReady());
    const auto b = RunInChild([&other] {
        setenv(VORN_NS_ENV, other.c_str(), 1);
        vorn_host_set_namespace(nullptr);
        if (ReadObject("obj") != -1) return 11;
        if (CreateObject("obj", 2) != 0) return 12;
        return ReadObject("obj") == 2 ? 0 : 13;
    });
    EXPECT_TRUE(b.ExitedWith(0)) << b.Describe();
    EXPECT_EQ(ReadObject("obj"), 1);
    a->Release();
    EXPECT_TRUE(a->Wait().ExitedWith(0));

    EXPECT_EQ(Objects(other), std::vector<std::string>{"obj"});
    EXPECT_EQ(vorn_host_remove_namespace(other.c_str()), 1);
    EXPECT_TRUE(Objects(other).empty());
    EXPECT_EQ(ReadObject("obj"), 1);
}

TEST_F(OsTest, RemoveNamespaceTakesObjectsAndSemaphoresOnly) {
    const std::string prefix_alike = ns() + "0";  // "t1_2" vs "t1_20": no overlap
    ASSERT_EQ(CreateObject("a", 1), 0);
    sem_t *s = vorn_sem_open("pmdb_shm_semaphore", O_CREAT | O_EXCL, 0600, 1);
    ASSERT_NE(s, SEM_FAILED);
    sem_close(s);
    ASSERT_EQ(vorn_host_set_namespace(prefix_alike.c_str()), 0);
    ASSERT_EQ(CreateObject("a", 2), 0);
    ASSERT_EQ(vorn_host_set_namespace(ns().c_str()), 0);

    EXPECT_EQ(vorn_host_list_semaphores(ns().c_str(), nullptr, nullptr), 1);
    // The trace buffers of the fixture's mark are objects too.
    EXPECT_EQ(Objects(ns()), (std::vector<std::string>{"a", "vesk.database", "vesk.error", "vesk.event"}));
    EXPECT_EQ(vorn_host_remove_namespace(nullptr), 1 + 1 + 3);
    EXPECT_EQ(vorn_host_list_semaphores(ns().c_str(), nullptr, nullptr), 0);
    EXPECT_EQ(ReadObject("a"), -1);
    EXPECT_EQ(Objects(prefix_alike), std::vector<std::string>{"a"});
    vorn_host_remove_namespace(prefix_alike.c_str());
}

TEST_F(OsTest, NamedSemaphoreIsSharedWithinNamespace) {
    sem_t *s = vorn_sem_open("pmdb_shm_semaphore", O_CREAT | O_EXCL, 0600, 0);
    ASSERT_NE(s, SEM_FAILED);
    const auto r = RunInChild([] {
        sem_t *c = vorn_sem_open("pmdb_shm_semaphore", O_CREAT, 0600, 1);
        if (c == SEM_FAILED) return 1;
        return sem_post(c) == 0 ? 0 : 2;
    });
    ASSERT_TRUE(r.ExitedWith(0)) << r.Describe();
    EXPECT_EQ(sem_trywait(s), 0);  // the child posted ours: same semaphore
    sem_close(s);
    EXPECT_EQ(vorn_sem_unlink("pmdb_shm_semaphore"), 0);
    EXPECT_EQ(vorn_sem_unlink("pmdb_shm_semaphore"), -1);
    EXPECT_EQ(errno, ENOENT);
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

/* Each injected fault fails its call with its errno and does nothing, as
 * many times as armed; the call log holds only the calls made while on. */
TEST_F(OsTest, InjectedFaultsFailWithErrnoAndDoNothingAndCallsAreLogged) {
    pm_fault_set("_shm_open", EACCES, 1);
    EXPECT_EQ(_shm_open("x", O_CREAT | O_RDWR, 0600), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(ReadObject("x"), -1);  // nothing was created
    pm_fault_set("vornos_mmap", ENOMEM, 1);
    EXPECT_EQ(vornos_mmap(nullptr, 4096, PROT_READ, MAP_SHARED, -1, 0), MAP_FAILED);
    EXPECT_EQ(errno, ENOMEM);
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
}

constexpr const char *kVlanKey = "tarvo.qen.vorn.platform.max_bundle_l3_vlan";

TEST_F(OsTest, SysctlDefaultsEnvironmentAndSetter) {
    EXPECT_EQ(vorn_sysctl_get_int64(kVlanKey, 0), 0);
    EXPECT_EQ(vorn_sysctl_get_int64("no.such.key", 0), 0);
    setenv("PMDB_SYSCTL", "a.b=3,tarvo.qen.vorn.platform.max_bundle_l3_vlan=0x40,c=bad", 1);
    EXPECT_EQ(vorn_sysctl_get_int64(kVlanKey, 0), 64);
    EXPECT_EQ(vorn_sysctl_get_int64("a.b", 0), 3);
    EXPECT_EQ(vorn_sysctl_get_int64("c", 0), 0);
    EXPECT_EQ(vorn_sysctl_get_int64("a", 0), 0);
    vorn_host_sysctl_set(kVlanKey, 9);
    EXPECT_EQ(vorn_sysctl_get_int64(kVlanKey, 0), 9);
    vorn_host_sysctl_reset();
    EXPECT_EQ(vorn_sysctl_get_int64(kVlanKey, 0), 64);
}

/* A robust process-shared mutex in an object of the namespace. */
pthread_mutex_t *SharedMutex(bool create) {
    const int fd = _shm_open("robust", create ? O_CREAT | O_RDWR : O_RDWR, 0600);
    if (fd < 0) return nullptr;
    if (create && ftruncate(fd, 4096) != 0) return nullptr;
    void *p = vornos_mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    vorn_close(fd);
    if (p == MAP_FAILED) return nullptr;
    auto *m = static_cast<pthread_mutex_t *>(p);
    if (create) {
        pthread_mutexattr_t a;
        pthread_mutexattr_init(&a);
        pthread_mutexattr_setpshared(&a, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&a, PTHREAD_MUTEX_ROBUST);
        pthread_mutex_init(m, &a);
        pthread_mutexattr_destroy(&a);
    }
    return m;
}

TEST_F(OsTest, ConsistentRepairsMutexOfKilledOwner) {
    pthread_mutex_t *m = SharedMutex(true);
    ASSERT_NE(m, nullptr);
    auto owner = StartHeldChild([] { pthread_mutex_lock(SharedMutex(false)); });
    ASSERT_TRUE(owner->WaitReady());
    owner->Kill(SIGKILL);
    EXPECT_TRUE(owner->Wait().KilledBy(SIGKILL));

    ASSERT_EQ(pthread_mutex_lock(m), EOWNERDEAD);
    pm_fault_set("vorn_pthread_mutex_consistent_np", EINVAL, 1);
    EXPECT_EQ(pthread_mutex_consistent_np(m), EINVAL);  // the macro maps to the layer
    EXPECT_EQ(pthread_mutex_consistent_np(m), 0);
    EXPECT_EQ(pthread_mutex_unlock(m), 0);
    EXPECT_EQ(pthread_mutex_lock(m), 0);
    EXPECT_EQ(pthread_mutex_unlock(m), 0);
}

}  // namespace
