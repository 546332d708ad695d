/*
 * tabra_rest.h - the lock-free lookup and the copy of an entry at rest,
 * written once here and compiled into both the table store and the reader
 * library.
 *
 * Why inline across a library boundary.  A lookup whose entry is not in the
 * caches costs the memory misses of the lookups the processor keeps in flight
 * at once, divided by their number, and that number falls with every
 * instruction, above all every store (return addresses and saved registers
 * count), between two lookups: on a table of 60,000 entries ten more stores
 * per lookup cost about half as much time again.  So the reader runs this
 * code inside its own exported call, on a view of the table's mappings,
 * rather than through a call into the store.
 *
 * A view (tabra_rest_view_t) says where one table's index and entries are
 * mapped in this process.  tabra_rest_view() fills it for a handle, and only
 * for a caller built against the same shared format (TABRA_SHM_FORMAT).
 * Handles and their mappings are never released, so a view stays valid for
 * the life of the process.  The memory behind it is only read here, under
 * the readers' rules of tabra_layout.h; nothing here writes shared memory.
 */
#ifndef PMDB_PLATFORM_TABRA_REST_H
#define PMDB_PLATFORM_TABRA_REST_H

#include <string.h>

#include "tabra.h"
#include "tabra_layout.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where one table is mapped in this process (read-only use). */
typedef struct tabra_rest_view {
    const u64 *buckets;              /* the bucket words */
    const tabra_slot_meta_t *slots;  /* the slot records */
    const u8 *entries;               /* slot s's entry at entries + s * stride */
    const u32 *hash_is_mod;          /* the header's flag */
    u32 buckets_n;                   /* hash values are 0 .. buckets_n - 1 */
    u32 stride;
    u32 entry_size;
    u32 reserved;
} tabra_rest_view_t;

/* Fills *out for `table` when the caller was built for shared format
 * `format`: 0; TABRA_E_MISMATCH for another format (the caller then uses the
 * exported calls only), TABRA_E_INVAL for a null argument.  Not traced. */
cerrno tabra_rest_view(tabra_hdl_t table, u32 format, tabra_rest_view_t *out);

#ifdef __cplusplus
}

namespace tabra_rest {

constexpr u32 kNoSlot = 0xFFFFFFFFu;

template <class T>
inline T ld_acq(const T *p) {
    return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}
template <class T>
inline T ld_rlx(const T *p) {
    return __atomic_load_n(p, __ATOMIC_RELAXED);
}

/* Fields of a bucket word and of a slot's occupancy word (tabra_layout.h). */
inline u32 word_head(u64 w) { return static_cast<u32>(w); }
inline u32 word_seq(u64 w) { return static_cast<u32>(w >> 32); }
inline u32 occ_gen(u64 w) { return static_cast<u32>(w & TABRA_OCC_GEN_MASK); }
inline u64 occ_brackets(u64 w) {
    return (w & TABRA_OCC_BRACKET_MASK) >> TABRA_OCC_BRACKET_SHIFT;
}

inline const u8 *entry_of(const tabra_rest_view_t &v, u32 slot) {
    return v.entries + static_cast<size_t>(slot) * v.stride;
}

/* key % buckets, without a division when buckets is a power of two. */
inline u32 mod_bucket(const tabra_rest_view_t &v, u32 key) {
    const u32 n = v.buckets_n;
    return (n & (n - 1)) == 0 ? key & (n - 1) : key % n;
}

/* Whether this processor has 32-byte moves; a library that builds its copies
 * twice reads it once when it loads and picks the variant by it. */
inline bool has_avx2() {
    __builtin_cpu_init(); /* may run before the runtime's own constructor */
    return __builtin_cpu_supports("avx2");
}

/* Starts loading the entry of slot x while its slot record is still on its
 * way: a caller that hands the entry out (to be written or read in place)
 * then waits for memory about twice (bucket, then record and entry
 * together) instead of three times. */
inline void prefetch_entry(const tabra_rest_view_t &v, u32 x) {
    const u8 *p = entry_of(v, x);
    const u8 *const end = p + v.entry_size;
    for (; p < end; p += 64) __builtin_prefetch(p);
}

/* Lock-free lookup: the slot holding key in bucket b, or kNoSlot.  Retries
 * while the bucket's sequence moves under the walk; never waits.  With
 * kPrefetch the entry starts loading as soon as the chain's head is known
 * (callers that go on to write it); a copy right behind the lookup has its
 * loads issued early by the processor anyway. */
template <bool kPrefetch>
inline __attribute__((always_inline)) u32 find(const tabra_rest_view_t &v, u32 b, u32 key) {
    for (;;) {
        const u64 w1 = ld_acq(&v.buckets[b]);
        u32 cur = word_head(w1);
        if (kPrefetch && cur != 0 && cur <= TABRA_SLOTS) prefetch_entry(v, cur - 1);
        u32 found = kNoSlot;
        for (u32 steps = 0; cur != 0 && cur <= TABRA_SLOTS && steps < TABRA_SLOTS; steps++) {
            const tabra_slot_meta_t *s = &v.slots[cur - 1];
            if (ld_acq(&s->key) == key && ld_acq(&s->state) == TABRA_SLOT_LINKED) {
                found = cur - 1;
                break;
            }
            cur = ld_acq(&s->next);
        }
        /* Every load above is acquire, so this one cannot be done earlier. */
        if (word_seq(ld_rlx(&v.buckets[b])) == word_seq(w1)) return found;
    }
}

/* ---------------------------------------------------------------------- */
/* Entry bytes.  A copy that races with a writer may be torn; the occupancy */
/* check around it throws such a copy away (a sequence-lock read).  The     */
/* copy is a run of 16- to 64-byte moves written out here rather than a     */
/* call to memcpy, followed by an acquire fence: the library's size         */
/* dispatch costs more than the copy at these sizes.  A 64-byte move is one */
/* or two instructions where the caller was compiled for 32-byte moves,     */
/* four otherwise.  Thread-sanitizer builds, which refuse fences and would  */
/* report the benign race, copy word by word with acquire loads instead.    */
/* The store's own entry stores are release stores, so a copy that saw one  */
/* of them also sees the gen change made before it.                         */
/* ---------------------------------------------------------------------- */

#if defined(__SANITIZE_THREAD__)
#define TABRA_WORDWISE_COPY 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TABRA_WORDWISE_COPY 1
#endif
#endif

#ifndef TABRA_WORDWISE_COPY
typedef unsigned char chunk16 __attribute__((vector_size(16), aligned(1), may_alias));
typedef unsigned char chunk32 __attribute__((vector_size(32), aligned(1), may_alias));

inline __attribute__((always_inline)) void move16(u8 *dst, const u8 *src) {
    *reinterpret_cast<chunk16 *>(dst) = *reinterpret_cast<const chunk16 *>(src);
}

/* 64 bytes: all loads, then all stores. */
inline __attribute__((always_inline)) void move64(u8 *dst, const u8 *src) {
    const chunk32 a = *reinterpret_cast<const chunk32 *>(src);
    const chunk32 b = *reinterpret_cast<const chunk32 *>(src + 32);
    *reinterpret_cast<chunk32 *>(dst) = a;
    *reinterpret_cast<chunk32 *>(dst + 32) = b;
}
#endif

inline __attribute__((always_inline)) void copy_out(u8 *dst, const u8 *src, u32 len) {
#ifdef TABRA_WORDWISE_COPY
    u32 i = 0;
    for (; i + 8 <= len; i += 8) {
        const u64 w = ld_acq(reinterpret_cast<const u64 *>(src + i));
        memcpy(dst + i, &w, 8);
    }
    for (; i < len; i++) dst[i] = ld_acq(src + i);
#else
    if (len >= 16) {
        /* Whole blocks and chunks, then one last chunk that ends at len (it
         * may cover bytes already moved, with the same values). */
        u32 i = 0;
#pragma GCC unroll 8
        for (; i + 64 <= len; i += 64) move64(dst + i, src + i);
#pragma GCC unroll 4
        for (; i + 16 <= len; i += 16) move16(dst + i, src + i);
        if (i < len) move16(dst + len - 16, src + len - 16);
    } else {
        for (u32 i = 0; i < len; i++) dst[i] = src[i];
    }
    __atomic_thread_fence(__ATOMIC_ACQUIRE); /* the occupancy load that follows stays after */
#endif
}

/* How an attempt to copy an entry at rest ended.  `general` means it could
 * not be made on a view: some key of the table lies outside bucket
 * key % buckets, so only a handle that knows the hash finds keys. */
enum class copied { ok, moved, writing, unkeyed, absent, general };

/* Copies bytes [off, off + len) of slot x's entry when it is key's and at
 * rest (tabra_layout.h) all along: ok; moved when the word moved during the
 * copy; writing when a bracket is open; unkeyed when `keyed` and the entry
 * does not begin with key.  buf is not written unless the word showed the
 * entry at rest, keyed as asked, before the copy.
 * REQUIRES: off + len <= entry size; entry size >= 4 when keyed. */
inline __attribute__((always_inline)) copied copy_at_rest(const tabra_rest_view_t &v, u32 x,
                                                          u32 key, bool keyed, u8 *buf,
                                                          u32 off, u32 len) {
    const tabra_slot_meta_t *s = &v.slots[x];
    const u8 *entry = entry_of(v, x);
    const u64 w1 = ld_acq(&s->occ);
    if (occ_gen(w1) % 2 == 0 || ld_acq(&s->key) != key) return copied::moved;
    if (occ_brackets(w1) != 0) return copied::writing;
    /* Entries are 8-byte aligned, so the first word loads whole. */
    if (keyed && ld_acq(reinterpret_cast<const u32 *>(entry)) != key)
        return ld_rlx(&s->occ) == w1 ? copied::unkeyed : copied::moved;
    copy_out(buf, entry + off, len);
    return ld_rlx(&s->occ) == w1 ? copied::ok : copied::moved;
}

/* One at-rest attempt for key, in bucket key % buckets: what the lookup of
 * an entry nobody is writing runs, and nothing more.  hash_is_mod is read
 * with acquire: it pairs with its clearing (release) before the first key
 * outside bucket key % buckets is linked.
 * REQUIRES: as copy_at_rest. */
inline __attribute__((always_inline)) copied attempt(const tabra_rest_view_t &v, u32 key,
                                                     bool keyed, u8 *buf, u32 off, u32 len) {
    if (__builtin_expect(!ld_acq(v.hash_is_mod), 0)) return copied::general;
    const u32 x = find<false>(v, mod_bucket(v, key), key);
    if (x == kNoSlot) return copied::absent;
    return copy_at_rest(v, x, key, keyed, buf, off, len);
}

}  // namespace tabra_rest

#endif /* __cplusplus */

#endif
