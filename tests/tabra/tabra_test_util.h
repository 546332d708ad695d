/*
 * tabra_test_util.h - helpers of the table-store tests: parameter records,
 * hash functions, reading a table's whole contents, and a table of memory
 * shared with child processes.
 */
#ifndef PMDB_TESTS_TABRA_UTIL_H
#define PMDB_TESTS_TABRA_UTIL_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>

#include "host/os_host.h"
#include "pmdb_test.h"
#include "tabra.h"
#include "tabra_layout.h"
#include "tabra_params.h"

namespace tabra_test {

using pmdb::test::Low16;
using pmdb::test::Params;

/* Few buckets, so that chains are long (a key % 7 hash, 7 buckets). */
inline u32 Mod7(u32 key) {
    return key % 7u;
}
/* A hash that is not key % buckets (65536 buckets). */
inline u32 High16(u32 key) {
    return key >> 16;
}

inline tabra_hdl_t OpenOrDie(const tabra_params_t &p) {
    tabra_hdl_t h = nullptr;
    const cerrno st = tabra_open(&p, &h);
    if (st != 0 || h == nullptr) {
        ADD_FAILURE() << "tabra_open(" << p.table_name << ") = 0x" << std::hex << st;
        return nullptr;
    }
    return h;
}

/* key -> slot of every entry, by a walk. */
inline std::map<u32, i32> Contents(tabra_hdl_t h) {
    std::map<u32, i32> out;
    tabra_walk(
        h,
        [](void *ctx, u32 key, i32 slot, const void *) {
            auto *m = static_cast<std::map<u32, i32> *>(ctx);
            if (m->count(key) != 0) ADD_FAILURE() << "key " << key << " walked twice";
            (*m)[key] = slot;
            return 0;
        },
        &out);
    return out;
}

/* "" when the table is consistent, else the check's report. */
inline std::string CheckReport(tabra_hdl_t h) {
    char report[256] = "x";
    const cerrno st = tabra_check(h, report, sizeof report);
    if (st == 0) return "";
    return std::string("status ") + std::to_string(st) + ": " + report;
}

inline void *AddOrDie(tabra_hdl_t h, u32 key, i32 *slot = nullptr) {
    void *e = nullptr;
    i32 s = -1;
    const cerrno st = tabra_add_entry(h, key, &e, &s);
    if (st != 0) ADD_FAILURE() << "add " << key << " = 0x" << std::hex << st;
    if (slot != nullptr) *slot = s;
    return e;
}

/* Maps the index part of table `name`'s object directly, to damage it as a
 * faulty writer would (tabra_layout.h gives the format).  Null on failure;
 * unmap with munmap(p, TABRA_OFF_ENTRIES). */
inline u8 *MapTableObject(const char *name) {
    char object[128];
    vorn_host_shm_name((std::string(TABRA_SHM_PREFIX) + name).c_str(), object, sizeof object);
    const int fd = shm_open(object, O_RDWR, 0);
    if (fd < 0) return nullptr;
    void *m = mmap(nullptr, TABRA_OFF_ENTRIES, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return m == MAP_FAILED ? nullptr : static_cast<u8 *>(m);
}

/* Memory shared with forked children (MAP_SHARED | MAP_ANONYMOUS). */
template <class T>
class Shared {
  public:
    Shared() {
        void *m =
            mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (m == MAP_FAILED) throw std::runtime_error("mmap");
        p_ = new (m) T();
    }
    ~Shared() { munmap(p_, sizeof(T)); }
    Shared(const Shared &) = delete;
    Shared &operator=(const Shared &) = delete;
    T *operator->() const { return p_; }
    T &operator*() const { return *p_; }

  private:
    T *p_;
};

}  // namespace tabra_test

#endif
