/*
 * host_tabra.h - helpers of the tests that use the table store directly:
 * opening and filling tables, a table's whole contents, its check report,
 * its object mapped raw (to damage it), and memory shared with children.
 */
#ifndef PMDB_TEST_HOST_TABRA_H
#define PMDB_TEST_HOST_TABRA_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <string>

#include "host/os_host.h"
#include "pmdb_test.h"
#include "tabra.h"
#include "tabra_layout.h"
#include "tabra_params.h"

namespace host_test {

using pmdb::test::Low16;
using pmdb::test::Params;

/* Few buckets, so that chains are long. */
inline u32 Mod7(u32 key) { return key % 7u; }
/* A hash that is not key % buckets (65536 buckets). */
inline u32 High16(u32 key) { return key >> 16; }

inline tabra_hdl_t OpenOrDie(const tabra_params_t &p) {
    tabra_hdl_t h = nullptr;
    const cerrno st = tabra_open(&p, &h);
    if (st != 0) ADD_FAILURE() << "tabra_open(" << p.table_name << ") = 0x" << std::hex << st;
    return st == 0 ? h : nullptr;
}

inline void *AddOrDie(tabra_hdl_t h, u32 key, i32 *slot = nullptr) {
    void *e = nullptr;
    i32 s = -1;
    const cerrno st = tabra_add_entry(h, key, &e, &s);
    if (st != 0) ADD_FAILURE() << "add " << key << " = 0x" << std::hex << st;
    if (slot != nullptr) *slot = s;
    return e;
}

/* key -> slot of every entry, by a walk; a key walked twice fails. */
inline std::map<u32, i32> Contents(tabra_hdl_t h) {
    std::map<u32, i32> out;
    tabra_walk(
        h,
        [](void *ctx, u32 key, i32 slot, const void *) {
            auto *m = static_cast<std::map<u32, i32> *>(ctx);
            if (!m->emplace(key, slot).second) ADD_FAILURE() << "key " << key << " walked twice";
            return 0;
        },
        &out);
    return out;
}

/* "" when the table is consistent, else the check's status and report. */
inline std::string CheckReport(tabra_hdl_t h) {
    char report[256] = "x";
    const cerrno st = tabra_check(h, report, sizeof report);
    return st == 0 ? "" : "status " + std::to_string(st) + ": " + report;
}

/* The object of table `name` (opened with `flags`), by its file. */
inline int TableFd(const std::string &name, int flags = O_RDWR) {
    char object[128];
    vorn_host_shm_name((TABRA_SHM_PREFIX + name).c_str(), object, sizeof object);
    return shm_open(object, flags, 0600);
}

/* The index part of table `name`'s object, mapped to damage it as a faulty
 * writer would (tabra_layout.h); unmap with munmap(p, TABRA_OFF_ENTRIES). */
inline u8 *MapTableObject(const std::string &name) {
    const int fd = TableFd(name);
    if (fd < 0) return nullptr;
    void *m = mmap(nullptr, TABRA_OFF_ENTRIES, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return m == MAP_FAILED ? nullptr : static_cast<u8 *>(m);
}
inline tabra_shm_hdr_t *Header(u8 *obj) { return reinterpret_cast<tabra_shm_hdr_t *>(obj); }

/* Memory shared with forked children. */
template <class T>
class Shared {
public:
    Shared()
        : p_(new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) T()) {}
    ~Shared() { munmap(p_, sizeof(T)); }
    Shared(const Shared &) = delete;
    Shared &operator=(const Shared &) = delete;
    T *operator->() const { return p_; }
    T &operator*() const { return *p_; }
    T *get() const { return p_; }

private:
    T *p_;
};

}  // namespace host_test

#endif
