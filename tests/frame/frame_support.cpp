#include "frame_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/os_host.h"
#include "pmdb_test.h"
#include "vorn_os.h"

namespace frame_test {

std::vector<pm_call_rec_t> RegionObjectOpens() {
    std::vector<pm_call_rec_t> out;
    for (const pm_call_rec_t &r : pmdb::test::CallLog("_shm_open")) {
        if (r.args[1] == 0777) out.push_back(r);
    }
    return out;
}

dnx_pmdb_shrd_ctx_t *MapRegionObject(const char *name) {
    const int fd = _shm_open(name, O_CREAT | O_RDWR, 0777);
    if (fd < 0) ADD_FAILURE() << "cannot open region object " << name;
    if (fd < 0) return nullptr;
    const size_t len = (PMDB_SHM_SIZE + 4095) / 4096 * 4096;
    EXPECT_EQ(ftruncate(fd, (off_t)len), 0);
    void *map = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED) ADD_FAILURE() << "cannot map region object " << name;
    return map == MAP_FAILED ? nullptr : static_cast<dnx_pmdb_shrd_ctx_t *>(map);
}

long long RegionObjectSize(const char *name) {
    char path[256];
    snprintf(path, sizeof path, "/dev/shm/%s.%s", vorn_host_namespace(), name);
    struct stat st;
    return stat(path, &st) == 0 ? (long long)st.st_size : -1;
}

void MakeGarbageRegion(dnx_pmdb_shrd_ctx_t *ctx) {
    memset(ctx, 0xAB, PMDB_SHM_SIZE);
    ctx->magic = 0;
}

bool RegionContentsZero(const dnx_pmdb_shrd_ctx_t *ctx) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(ctx);
    return std::all_of(bytes + sizeof ctx->magic, bytes + PMDB_SHM_SIZE,
                       [](unsigned char b) { return b == 0; });
}

bool WaitUntilBlockedOnFutex(int pid) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/wchan", pid);
    for (int i = 0; i < 10000; i++) {
        char wchan[128] = {};
        FILE *f = fopen(path, "r");
        if (f != nullptr) {
            const size_t n = fread(wchan, 1, sizeof wchan - 1, f);
            fclose(f);
            wchan[n] = 0;
            if (strstr(wchan, "futex") != nullptr) return true;
        }
        usleep(1000);
    }
    return false;
}

sem_t *OpenRegionSemaphore() {
    sem_t *sem = vorn_sem_open(PMDB_SHM_SEMAPHORE_NAME, O_CREAT, 0777, 1);
    if (sem == SEM_FAILED) ADD_FAILURE() << "cannot open the region semaphore";
    return sem == SEM_FAILED ? nullptr : sem;
}

}  // namespace frame_test
