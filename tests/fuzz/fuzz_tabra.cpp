/*
 * fuzz_tabra.cpp - the table store's open of a damaged object.
 *
 * A sound table (24-byte entries, 7 buckets, a few entries added and some
 * removed) is made once; each input writes a copy of its object under a new
 * namespace, damages the copy and opens it, writable or attached.  The
 * input: one byte of mode (bit 0 attach instead of open, bit 1 truncate the
 * object to a length from the next 4 bytes), a patch count, then patches of
 * (region, offset, length, bytes) into the header, bucket words, slot
 * records, bitmap, summary or entries.  The writer lock's bytes are never
 * patched: a lock word naming a live stranger thread is a wait, not damage
 * the store can see.
 *
 * What must hold: any object is refused or opened, never a crash; an
 * opened table can be looked up, walked, counted and checked; and one that
 * its check finds consistent stays consistent through adds and removes.
 */
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fuzz_input.h"
#include "host_tabra.h"

namespace {

using host_test::Mod7;

constexpr u32 kEntrySize = 24;
constexpr u32 kBuckets = 7;
constexpr char kTable[] = "FZ";
constexpr size_t kPage = 4096;
constexpr u32 kWriterOff = 128, kWriterEnd = 168;

tabra_params_t Params() { return pmdb::test::Params(kTable, kEntrySize, Mod7, kBuckets, 64); }

/* The sound object: its length and its pages that are not all zero. */
struct Page {
    size_t at;
    std::vector<u8> bytes;
};
size_t g_size;
std::vector<Page> g_pages;
const char *g_base;
unsigned g_round;

void KeepPages(const u8 *m) {
    for (size_t at = 0; at < g_size; at += kPage) {
        const size_t n = g_size - at < kPage ? g_size - at : kPage;
        for (size_t i = 0; i < n; i++)
            if (m[at + i] != 0) {
                g_pages.push_back({at, std::vector<u8>(m + at, m + at + n)});
                break;
            }
    }
}

void MakeSoundObject() {
    const tabra_params_t p = Params(); /* creates */
    tabra_hdl_t h = nullptr;
    if (tabra_open(&p, &h) != 0) fuzz::Broken("sound table not made");
    void *e = nullptr;
    i32 slot = 0;
    for (u32 key = 1; key <= 12; key++) {
        if (tabra_add_entry(h, key, &e, &slot) != 0) fuzz::Broken("sound add", key);
        memset(e, static_cast<int>(key), kEntrySize);
        memcpy(e, &key, sizeof key);
    }
    for (u32 key : {3u, 8u, 10u}) tabra_remove_entry(h, TABRA_REMOVE_BY_KEY, key);
    const int fd = host_test::TableFd(kTable, O_RDONLY);
    struct stat sb {};
    fstat(fd, &sb);
    g_size = static_cast<size_t>(sb.st_size);
    void *m = mmap(nullptr, g_size, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (m == MAP_FAILED) fuzz::Broken("sound object not mapped");
    KeepPages(static_cast<const u8 *>(m));
    munmap(m, g_size);
}

struct Region {
    size_t at, span;
};
constexpr Region kRegions[] = {
    {0, 256},                                            /* header */
    {TABRA_OFF_BUCKETS, kBuckets * 8},                   /* bucket words */
    {TABRA_OFF_SLOTS, 16 * sizeof(tabra_slot_meta_t)},   /* slot records */
    {TABRA_OFF_BITMAP, 16},                              /* bitmap */
    {TABRA_OFF_SUMMARY, 16},                             /* summary */
    {TABRA_OFF_ENTRIES, 16 * kEntrySize},                /* entries */
};

void Patch(u8 *m, fuzz::Input &in) {
    const Region r = in.Pick(kRegions);
    size_t at = r.at + in.U16() % r.span;
    if (at >= kWriterOff && at < kWriterEnd) at += kWriterEnd - kWriterOff;
    for (size_t n = in.Byte() % 8 + 1; n > 0 && at < g_size; n--, at++) {
        if (at >= kWriterOff && at < kWriterEnd) break;
        m[at] = in.Byte();
    }
}

/* The damaged copy, as the object of kTable in the current namespace. */
void WriteDamagedCopy(fuzz::Input &in, uint8_t mode) {
    const int fd = host_test::TableFd(kTable, O_RDWR | O_CREAT | O_EXCL);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(g_size)) != 0) fuzz::Broken("copy not made");
    void *v = mmap(nullptr, g_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (v == MAP_FAILED) fuzz::Broken("copy not mapped");
    u8 *m = static_cast<u8 *>(v);
    for (const Page &p : g_pages) memcpy(m + p.at, p.bytes.data(), p.bytes.size());
    for (uint8_t n = in.Byte() % 16; n > 0; n--) Patch(m, in);
    munmap(v, g_size);
    if ((mode & 2) != 0 && ftruncate(fd, static_cast<off_t>(in.U32() % (g_size + 1))) != 0)
        fuzz::Broken("copy not truncated");
    close(fd);
}

/* Reading calls on any table the store accepted; true when its check finds
 * it consistent. */
bool ReadAll(tabra_hdl_t h) {
    u8 buf[kEntrySize];
    for (u32 key = 0; key < 16; key++) tabra_copy_entry_by_key(h, key, buf, sizeof buf, nullptr);
    tabra_walk(h, [](void *, u32, i32, const void *) { return 0; }, nullptr);
    tabra_info_t info;
    tabra_get_info(h, &info);
    (void)tabra_count(h);
    return host_test::CheckReport(h).empty();
}

/* A consistent table stays so through adds and removes driven by input. */
void ChangeSound(tabra_hdl_t h, fuzz::Input &in) {
    for (uint8_t n = in.Byte() % 16; n > 0; n--) {
        const u32 key = in.Byte() % 24;
        void *e = nullptr;
        i32 slot = 0;
        if (in.Byte() & 1)
            tabra_remove_entry(h, TABRA_REMOVE_BY_KEY, key);
        else if (tabra_add_entry(h, key, &e, &slot) == 0)
            memcpy(e, &key, sizeof key);
        const std::string bad = host_test::CheckReport(h);
        if (!bad.empty()) fuzz::Broken("consistent table damaged by a change: " + bad, key);
    }
}

void Setup() {
    g_base = fuzz::OwnNamespace("fzt");
    MakeSoundObject();
}

}  // namespace

int FuzzTabra(const uint8_t *data, size_t size) {
    if (g_pages.empty()) Setup();
    fuzz::Input in(data, size);
    const uint8_t mode = in.Byte();
    char ns[40];
    snprintf(ns, sizeof ns, "%s_%u", g_base, g_round++);
    vorn_host_set_namespace(ns);
    WriteDamagedCopy(in, mode);
    tabra_hdl_t h = nullptr;
    const tabra_params_t p = Params();
    const cerrno st = (mode & 1) != 0 ? tabra_attach_hashed(kTable, Mod7, &h) : tabra_open(&p, &h);
    if (st == 0 && ReadAll(h) && (mode & 1) == 0) ChangeSound(h, in);
    vorn_host_remove_namespace(ns);
    vorn_host_set_namespace(g_base);
    return 0;
}

PMDB_FUZZ_TARGET(FuzzTabra, Setup)
