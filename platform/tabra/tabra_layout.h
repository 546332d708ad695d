/*
 * tabra_layout.h - the shared-memory format of one table of the table store.
 *
 * One POSIX shared-memory object per table, named "tabra.<table name>" in the
 * OS layer's namespace.  Every process maps it three times: the index part
 * (header to bitmaps) read-write; the entries part once as the caller-facing
 * mapping whose protection each process switches, and once more as a private
 * always-writable alias through which the store itself writes entries.
 *
 *   byte offset   size                 content
 *   0             4096                 tabra_shm_hdr (below)
 *   4096          65536 x 8            bucket words, one per hash value:
 *                                        bits 0..31  head slot + 1 (0 = empty)
 *                                        bits 32..63 change sequence (+2 per
 *                                                    change of the chain)
 *   528384        65536 x 32           slot records tabra_slot_meta
 *   2625536       1024 x 8             occupied-slot bitmap (bit s = slot s
 *                                      linked in the index)
 *   2633728       16 x 8               full-word summary (bit w = bitmap word
 *                                      w has all 64 bits set)
 *   2633856       3968                 zero
 *   2637824       65536 x stride       entries, slot s at 2637824 + s*stride
 *                                      (stride = entry size rounded up to 8)
 *   object size   rounded up to 4096
 *
 * All integers are little-endian.  The header's magic is written last when
 * the table is created.  The fields fixed at creation (format, entry size,
 * stride, capacity, buckets, object size, name) are covered by `hdr_check`,
 * so that a damaged one is told from a table of another geometry.  Every
 * open checks the header against the object before mapping any more of it
 * (tabra.h lists what is checked and what an object without the magic
 * means).
 *
 * Concurrency contract
 *   - Creation and attaching are serialised by flock(LOCK_EX) on the object.
 *   - `writer` (robust, process-shared) guards every store to the bucket
 *     words, slot records, bitmaps, count, statistics and the intent record.
 *     It is held only for one index update (an add or a remove), a repair or
 *     a consistency check.
 *   - Readers take no lock.  A reader loads a bucket word (acquire), walks the
 *     chain with acquire loads (key, state, next), and loads the bucket word
 *     again: the walk stands only when the sequence is unchanged.  Writers
 *     publish a slot fully (key, bucket, next, gen) before the release store
 *     that links it, mark it linked after that store, and unlink it with one
 *     release store, so every chain a reader can see is well formed; the
 *     sequence is what detects a slot that was removed and reused elsewhere
 *     under the reader's feet.
 *   - `occ` of a slot is one 64-bit word, changed only by compare-and-swap
 *     (acquire-release) because it has two kinds of writer:
 *       bits  0..31  gen: odd while the slot has an occupant, even while it
 *                    is free; changed under `writer` before any store that
 *                    gives the slot or its entry to another occupant (the
 *                    store's own entry stores are release stores);
 *       bits 32..43  open write brackets: how many processes may be writing
 *                    the entry right now (see below); reset to 0 when the
 *                    slot is freed;
 *       bits 44..63  write version: moves at every change of gen and at
 *                    every end of a write bracket.
 *     Copies of an entry load occ and the key with acquire, copy the entry
 *     and fence (acquire), and load occ again.  A copy is of one occupant
 *     when both gens agree and are odd; it is of an entry at rest (no
 *     process changed it during the copy, by any path) when the whole word
 *     is unchanged and has no open bracket.
 *   - Write brackets.  A process writes an entry only through a pointer from
 *     tabra_add_entry or tabra_get_entry_by_key while its entries mapping may
 *     be writable (from tabra_open, or in a write window, until the next
 *     tabra_make_shm_readonly_protected).  Handing out such a pointer opens
 *     the process's bracket on the slot (brackets +1, once per slot and
 *     window, tied to the gen it saw); the protection call that ends the
 *     window closes every bracket the process opened (brackets -1 and
 *     version +1, unless gen has moved since: the slot was freed, which
 *     already dropped the bracket).  The increment is ordered before the
 *     caller's entry stores and the decrement after them, so an entry whose
 *     word shows no bracket before and after a copy was not written during
 *     it.  A process that dies inside a window leaves its brackets open
 *     until their slots are freed: copies of those entries are then refused
 *     as "being written", and readers fall back to the owner's entry lock.
 *   - `pins` of a slot: readers that must keep the slot from passing to
 *     another key while they work on its occupant (the entry lock beside
 *     the table lives as long as the occupant) add 1 (seq_cst) and then
 *     check occ (seq_cst) for the same occupant; the add path takes only
 *     free slots whose pins read 0 (seq_cst) under `writer`.  The removal's
 *     gen change is a seq_cst CAS, so either the reader sees the occupant
 *     leave and lets go, or every later add sees the pin.  A pin keeps the
 *     slot, not its entry: the entry may still be removed.  A reader that
 *     dies holding a pin keeps that one slot out of use for good.
 *   - `hash_is_mod` starts at 1 and is cleared (release) before the first
 *     key whose hash is not key % buckets is linked; it is never set again.
 *     Handles that know no hash function (attached by name only) look keys
 *     up in bucket key % buckets while it reads 1 (acquire), and by a scan
 *     of the occupied slots once it is 0; at-rest copies take bucket
 *     key % buckets while it reads 1 whatever the handle knows.
 *   - Bitmap words are stored with release and read with acquire by walks;
 *     `count` is read relaxed (a hint to readers, exact under `writer`).
 *   - The intent record names the one add or remove in flight: written before
 *     the first index store of the operation (fields, then `op` with
 *     release), cleared after the last.  The next owner of `writer` after a
 *     death completes a committed add or any remove and rolls back an add
 *     that was not yet linked; every step of the repair can be done again.
 */
#ifndef PMDB_PLATFORM_TABRA_LAYOUT_H
#define PMDB_PLATFORM_TABRA_LAYOUT_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "pmdb.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TABRA_SHM_MAGIC 0x41524254u /* "TBRA" */
#define TABRA_SHM_FORMAT 4u
#define TABRA_SHM_PREFIX "tabra."

#define TABRA_SLOTS 65536u
#define TABRA_BUCKET_WORDS 65536u
#define TABRA_BITMAP_WORDS (TABRA_SLOTS / 64u)
#define TABRA_SUMMARY_WORDS (TABRA_BITMAP_WORDS / 64u)

#define TABRA_OFF_BUCKETS 4096u
#define TABRA_OFF_SLOTS (TABRA_OFF_BUCKETS + TABRA_BUCKET_WORDS * 8u)
#define TABRA_OFF_BITMAP (TABRA_OFF_SLOTS + TABRA_SLOTS * 32u)
#define TABRA_OFF_SUMMARY (TABRA_OFF_BITMAP + TABRA_BITMAP_WORDS * 8u)
#define TABRA_OFF_ENTRIES 2637824u /* TABRA_OFF_SUMMARY + 128, page aligned */

/* Slot states. */
#define TABRA_SLOT_FREE 0u
#define TABRA_SLOT_RESERVED 1u /* taken by the add in flight, not yet linked */
#define TABRA_SLOT_LINKED 2u

/* Intent operations. */
#define TABRA_OP_NONE 0u
#define TABRA_OP_ADD 1u
#define TABRA_OP_REMOVE 2u

/* Fields of a slot's occupancy word `occ`. */
#define TABRA_OCC_GEN_MASK 0xFFFFFFFFull
#define TABRA_OCC_BRACKET_SHIFT 32
#define TABRA_OCC_BRACKET_MASK (0xFFFull << TABRA_OCC_BRACKET_SHIFT)
#define TABRA_OCC_BRACKET_ONE (1ull << TABRA_OCC_BRACKET_SHIFT)
#define TABRA_OCC_VERSION_ONE (1ull << 44)

/* Slot record (32 bytes).
 *
 *    0 u32 key      4 u32 next (slot + 1 of the chain's next, 0 = end)
 *    8 u64 occ      16 u16 state (TABRA_SLOT_*)   18 u16 bucket (hash of key)
 *   20 u32 pins (readers keeping the slot from re-use)
 *   24 zero up to 32
 */
typedef struct tabra_slot_meta {
    u32 key;
    u32 next;
    u64 occ;
    u16 state;
    u16 bucket;
    u32 pins;
    u8 reserved[8];
} tabra_slot_meta_t;

/* The add or remove in flight (32 bytes). */
typedef struct tabra_intent {
    u32 op; /* TABRA_OP_*; written last, cleared last */
    u32 key;
    u32 slot;
    u32 bucket;
    u32 reserved[4];
} tabra_intent_t;

/* Table header (4096 bytes).
 *
 *    0 u32 magic            4 u32 format        8 u32 entry_size   12 u32 stride
 *   16 u32 capacity        20 u32 buckets      24 u32 max_entries 28 u32 count
 *   32 u64 object_size     40 u64 repairs      48 u64 max_lock_wait_ns
 *   56 u64 adds            64 char name[64]
 *  128 pthread_mutex_t writer (40)            168 u64 removes
 *  176 u32 hash_is_mod    180 u32 hdr_check   184 8 bytes zero
 *  192 tabra_intent_t intent (32)             224 zero up to 4096
 *
 * hdr_check is the 32-bit FNV-1a hash of bytes 4..23 (format .. buckets),
 * 32..39 (object_size) and 64..127 (name), written before the magic.
 */
typedef struct tabra_shm_hdr {
    u32 magic;
    u32 format;
    u32 entry_size;
    u32 stride;
    u32 capacity;
    u32 buckets;     /* hash values are 0 .. buckets - 1 */
    u32 max_entries; /* in force; written by opens and protection calls */
    u32 count;
    u64 object_size;
    u64 repairs;
    u64 max_lock_wait_ns;
    u64 adds;
    char name[64];
    pthread_mutex_t writer;
    u64 removes;
    u32 hash_is_mod; /* 1 while every key ever linked sits in bucket key % buckets */
    u32 hdr_check;   /* over the fields fixed at creation (above) */
    u8 reserved_184[8];
    tabra_intent_t intent;
    u8 reserved_224[4096 - 224];
} tabra_shm_hdr_t;

PMDB_CHECK_SIZE(tabra_slot_meta_t, 32);
PMDB_CHECK_OFF(tabra_slot_meta_t, next, 4);
PMDB_CHECK_OFF(tabra_slot_meta_t, occ, 8);
PMDB_CHECK_OFF(tabra_slot_meta_t, state, 16);
PMDB_CHECK_OFF(tabra_slot_meta_t, bucket, 18);
PMDB_CHECK_OFF(tabra_slot_meta_t, pins, 20);
PMDB_CHECK_SIZE(tabra_intent_t, 32);
PMDB_CHECK_SIZE(tabra_shm_hdr_t, 4096);
PMDB_CHECK_OFF(tabra_shm_hdr_t, count, 28);
PMDB_CHECK_OFF(tabra_shm_hdr_t, object_size, 32);
PMDB_CHECK_OFF(tabra_shm_hdr_t, adds, 56);
PMDB_CHECK_OFF(tabra_shm_hdr_t, name, 64);
PMDB_CHECK_OFF(tabra_shm_hdr_t, writer, 128);
PMDB_CHECK_OFF(tabra_shm_hdr_t, removes, 168);
PMDB_CHECK_OFF(tabra_shm_hdr_t, hash_is_mod, 176);
PMDB_CHECK_OFF(tabra_shm_hdr_t, hdr_check, 180);
PMDB_CHECK_OFF(tabra_shm_hdr_t, intent, 192);
static_assert(TABRA_OFF_SLOTS == 528384u, "slot records offset");
static_assert(TABRA_OFF_BITMAP == 2625536u, "bitmap offset");
static_assert(TABRA_OFF_SUMMARY == 2633728u, "summary offset");
static_assert(TABRA_OFF_ENTRIES % 4096u == 0 && TABRA_OFF_ENTRIES >= TABRA_OFF_SUMMARY + 128u,
              "entries offset");

#ifdef __cplusplus
}
#endif

#endif
