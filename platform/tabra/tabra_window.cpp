/*
 * tabra_window.cpp - write windows: which pages of a table's entries mapping
 * this process may write, and the write brackets it holds on the slots it
 * writes.
 *
 * mprotect on a range costs in proportion to the pages in it that are
 * populated, so protecting the whole entries mapping at every window would
 * make each change dearer as the table fills.  Instead a window makes
 * writable only the pages of the entries it hands out, remembers them, and
 * protects just those at its end; a window that touches more than
 * kProtPageLimit pages makes the whole mapping writable once and protects it
 * whole at the end, which amortises over the many entries it changes.
 *
 * Concurrency.  The window state is process-local, per handle, and guarded
 * by the handle's `prot_lock`: `window_open`, `whole_rw`, the list of pages
 * made writable and their bitmap, and the process's open write brackets
 * (`bracket_gen`, `bracket_slot`).  `window_open` and `whole_rw` are also
 * read without the lock (acquire / relaxed) as a fast "nothing to do" test,
 * and are checked again under the lock before any mprotect.  `prot_lock` is
 * never held together with a table's `writer`.  Brackets are counted in the
 * shared slot word `occ` with compare-and-swap, without `writer`.
 */
#include <errno.h>
#include <stdlib.h>
#include <sys/mman.h>

#include "tabra_internal.h"

using namespace tabra_detail;

namespace tabra_detail {

/* ---------------------------------------------------------------------- */
/* Write windows (process-local)                                          */
/* ---------------------------------------------------------------------- */

namespace {

bool page_marked(const tabra_table *t, u32 p) {
    return (t->page_rw[p / 64] >> (p % 64)) & 1u;
}
void page_mark(tabra_table *t, u32 p, bool on) {
    const u64 bit = u64{1} << (p % 64);
    t->page_rw[p / 64] = on ? (t->page_rw[p / 64] | bit) : (t->page_rw[p / 64] & ~bit);
}

void forget_pages(tabra_table *t) {
    for (u32 i = 0; i < t->ntouched; i++) page_mark(t, t->touched[i], false);
    t->ntouched = 0;
}

cerrno prot_range(tabra_table *t, size_t first_page, size_t npages, int prot, u32 what) {
    if (mprotect(t->entries + first_page * kPage, npages * kPage, prot) == 0) return 0;
    return fail(pmdb_tp::tabra_protection_failed, TABRA_E_PROT, static_cast<u64>(errno), what);
}

/* Caller holds prot_lock, window open, mapping not whole-writable. */
cerrno open_pages(tabra_table *t, u32 first, u32 last) {
    u32 fresh = 0;
    for (u32 p = first; p <= last; p++) fresh += page_marked(t, p) ? 0u : 1u;
    if (fresh == 0) return 0;
    if (t->ntouched + fresh > kProtPageLimit) {
        const cerrno st = prot_range(t, 0, t->entries_len / kPage, PROT_READ | PROT_WRITE, 2);
        if (st != 0) return st;
        forget_pages(t);
        st_rlx(&t->whole_rw, 1);
        return 0;
    }
    const cerrno st = prot_range(t, first, last - first + 1, PROT_READ | PROT_WRITE, 1);
    if (st != 0) return st;
    for (u32 p = first; p <= last; p++) {
        if (page_marked(t, p)) continue;
        page_mark(t, p, true);
        t->touched[t->ntouched++] = p;
    }
    return 0;
}

/* Caller holds prot_lock and may write: opens this process's write bracket
 * on slot x for its occupant `key`, once per slot and window.  *moved when
 * the slot no longer holds key (the caller looks the key up again). */
cerrno open_bracket(tabra_table *t, u32 x, u32 key, bool *moved) {
    tabra_slot_meta_t *s = &slots(t)[x];
    u64 w = ld_acq(&s->occ);
    for (;;) {
        const u32 gen = occ_gen(w);
        /* The key is stored before the flip that made gen odd; the CAS below
         * succeeds only while gen is unchanged, so the key read belongs to
         * the occupant the bracket is tied to. */
        *moved = gen % 2 == 0 || ld_acq(&s->key) != key;
        if (*moved || t->bracket_gen[x] == gen) return 0;
        if (occ_brackets(w) == kMaxBrackets)
            return fail(pmdb_tp::tabra_protection_failed, TABRA_E_PROT, 0, 4);
        if (occ_cas(&s->occ, &w, w + TABRA_OCC_BRACKET_ONE)) {
            if (t->bracket_gen[x] == 0) t->bracket_slot[t->nbracket++] = x;
            st_rlx(&t->bracket_gen[x], gen); /* also read without the lock: a hint */
            return 0;
        }
    }
}

/* Caller holds prot_lock, the window's pages protected again: closes every
 * bracket this process opened (a slot freed since has dropped it already). */
void close_brackets(tabra_table *t) {
    for (u32 i = 0; i < t->nbracket; i++) {
        const u32 x = t->bracket_slot[i];
        u64 *occ = &slots(t)[x].occ;
        u64 w = ld_acq(occ);
        while (occ_gen(w) == t->bracket_gen[x] && occ_brackets(w) != 0 &&
               !occ_cas(occ, &w, w - TABRA_OCC_BRACKET_ONE + TABRA_OCC_VERSION_ONE)) {
        }
        st_rlx(&t->bracket_gen[x], 0u);
    }
    t->nbracket = 0;
}

}  // namespace

cerrno touch_entry(tabra_table *t, u32 slot, u32 key, bool *moved) {
    *moved = false;
    if (!ld_acq(&t->window_open) && !ld_rlx(&t->whole_rw)) return 0;
    const size_t off = static_cast<size_t>(slot) * t->stride;
    const u32 first = static_cast<u32>(off / kPage);
    const u32 last = static_cast<u32>((off + t->entry_size - 1) / kPage);
    pthread_mutex_lock(&t->prot_lock);
    cerrno st = 0;
    if (t->window_open && !t->whole_rw) st = open_pages(t, first, last);
    if (st == 0 && (t->window_open || t->whole_rw)) st = open_bracket(t, slot, key, moved);
    pthread_mutex_unlock(&t->prot_lock);
    return st;
}

int cmp_u32(const void *a, const void *b) {
    const u32 x = *static_cast<const u32 *>(a);
    const u32 y = *static_cast<const u32 *>(b);
    return x < y ? -1 : (x > y ? 1 : 0);
}

namespace {

/* Caller holds prot_lock: protects the window's pages, in runs. */
cerrno close_pages(tabra_table *t) {
    if (t->whole_rw) {
        const cerrno st = prot_range(t, 0, t->entries_len / kPage, PROT_READ, 3);
        if (st == 0) st_rlx(&t->whole_rw, 0);
        return st;
    }
    qsort(t->touched, t->ntouched, sizeof t->touched[0], cmp_u32);
    cerrno st = 0;
    for (u32 i = 0; i < t->ntouched && st == 0;) {
        u32 j = i + 1;
        while (j < t->ntouched && t->touched[j] == t->touched[j - 1] + 1) j++;
        st = prot_range(t, t->touched[i], j - i, PROT_READ, 3);
        i = j;
    }
    if (st == 0) forget_pages(t);
    return st;
}

/* The common start of both protection calls: call log and fault hook,
 * argument check, and taking on the fresh max_entries.  True when the call
 * must return *st at once. */
bool prot_call_refused(const char *call, tabra_table *t, const tabra_params_t *p, cerrno *st) {
    const u64 flags = p ? p->open_flags : 0;
    const u64 max = p ? p->max_entries : 0;
    if (injected(call, flags, max, 0, 0, st)) return true;
    if (t == nullptr || (p != nullptr && p->version != PMDB_TABRA_PARAMS_VERSION)) {
        *st = fail(pmdb_tp::tabra_open_bad_params, TABRA_E_INVAL, 2, 0);
        return true;
    }
    refresh_max_entries(t, p);
    return false;
}

}  // namespace

}  // namespace tabra_detail

/* ---------------------------------------------------------------------- */
/* Exported calls                                                         */
/* ---------------------------------------------------------------------- */

extern "C" {

cerrno tabra_make_shm_writable(tabra_hdl_t t, const tabra_params_t *params) {
    cerrno st = 0;
    if (prot_call_refused("tabra_make_shm_writable", t, params, &st)) return st;
    pthread_mutex_lock(&t->prot_lock);
    st_rel(&t->window_open, 1);
    pthread_mutex_unlock(&t->prot_lock);
    return 0;
}

cerrno tabra_make_shm_readonly_protected(tabra_hdl_t t, const tabra_params_t *params) {
    cerrno st = 0;
    if (prot_call_refused("tabra_make_shm_readonly_protected", t, params, &st)) return st;
    pthread_mutex_lock(&t->prot_lock);
    st = close_pages(t);
    if (st == 0) close_brackets(t);
    if (st == 0) st_rel(&t->window_open, 0);
    pthread_mutex_unlock(&t->prot_lock);
    return st;
}

int tabra_entry_open_here(tabra_hdl_t t, u32 key) {
    u32 x = kNoSlot;
    if (t == nullptr || lookup(t, key, &x) != 0 || x == kNoSlot) return 0;
    /* Relaxed: a hint; the threads of this process change it under prot_lock. */
    return ld_rlx(&t->bracket_gen[x]) != 0 ? 1 : 0;
}

}  // extern "C"
