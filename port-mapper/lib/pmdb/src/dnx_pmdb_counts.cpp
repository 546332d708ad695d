/*
 * dnx_pmdb_counts.cpp - a bundle's counters as its members give them: the
 * membership rule, the recount of one bundle under its slot lock, and the
 * check and repair of every bundle of the IFH table (pmdbctl check and
 * repair); likewise the repair of every parent's sub_intf_count.
 *
 * Concurrency contract:
 *   - A recount holds only the bundle's slot lock (and write access to the
 *     IFH table); it reads the members through the table store's walk,
 *     which copies each entry without its lock.  A member whose writer is
 *     between its member change and its bundle change is covered by the
 *     member operation log: the recount gives up (PMDB_EBUSY) while a live
 *     thread other than the caller names the bundle there, and the log is
 *     read after the walk (see pmdb_member_ops_busy), so a member change
 *     the walk saw is never counted twice.  A dead writer's half-made
 *     member change is what the recount is for: the members as they are
 *     decide.
 *   - Lock order: no member slot lock is ever taken here; the bundle's lock
 *     is taken with no other slot lock held by the recount itself (the
 *     member operation scope calls it before its member is locked).
 *   - The survey of every entry (check, repair) runs without any lock and
 *     only proposes bundles; each is decided by a recount under its lock.
 *   - The out-of-resource callback is called as the member accounting calls
 *     it: after the bundle's lock is released, with write access held.
 */
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "kemt.h"
#include "pmdb.h"
#include "pmdb_counts.h"
#include "pmdb_cycle.h"
#include "pmdb_fields.h"
#include "pmdb_internal.h"
#include "pmdb_member_ops.h"
#include "pmdb_ops.h"
#include "pmdb_trace.h"
#include "tabra.h"
#include "vorn_os.h"

namespace {

constexpr pmdb_cycle_traces_t kNoTraces = {};
constexpr useconds_t kBusyPauseUs = 1000;
constexpr int kLockWaitLine = 1;

/* ---- the rule ----------------------------------------------------------------- */

/* The one statement of which entries a bundle's counters count: an IFH
 * entry is a member of bundle B while its member_active flag is set and its
 * intf_info.bundle_ifh is B; it counts in oor_members_1 or oor_members_2
 * when its own oor_state is 1 or 2. */
bool counted_member(const pmdb_ifh_entry_t *e, u32 *bundle_ifh, u32 *level) {
    if ((e->ifh_flags & PMDB_IFH_MEMBER_ACTIVE) == 0 || e->intf_info.bundle_ifh == 0) return false;
    *bundle_ifh = e->intf_info.bundle_ifh;
    *level = e->intf_info.oor_state;
    return true;
}

/* member_count is the 8-bit count the bundle update keeps (it wraps). */
void count_member_in(dpa_pmdb_bundle_counts_t *c, u32 level) {
    c->members = static_cast<u8>(c->members + 1);
    if (level == PMDB_OOR_LEVEL1) c->level_1++;
    if (level == PMDB_OOR_LEVEL2) c->level_2++;
}

void stored_counts(const pmdb_ifh_entry_t *e, dpa_pmdb_bundle_counts_t *c) {
    c->member_count = e->member_count;
    c->oor_members_1 = e->intf_info.oor_members_1;
    c->oor_members_2 = e->intf_info.oor_members_2;
}

bool counts_disagree(const dpa_pmdb_bundle_counts_t *c) {
    return c->member_count != c->members || c->oor_members_1 != c->level_1 ||
           c->oor_members_2 != c->level_2;
}

/* ---- one bundle, under its lock ------------------------------------------------- */

bool past(const struct timespec &deadline) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > deadline.tv_sec ||
           (now.tv_sec == deadline.tv_sec && now.tv_nsec >= deadline.tv_nsec);
}

struct bundle_tally {
    u32 bundle_ifh;
    dpa_pmdb_bundle_counts_t *counts;
};

int tally_member(void *ctx, u32, i32, const void *entry) {
    const auto *t = static_cast<const bundle_tally *>(ctx);
    u32 bundle_ifh = 0, level = 0;
    if (counted_member(static_cast<const pmdb_ifh_entry_t *>(entry), &bundle_ifh, &level) &&
        bundle_ifh == t->bundle_ifh)
        count_member_in(t->counts, level);
    return 0;
}

/* A slot lock taken the library's way, but waited for at most wait_ms: the
 * tools never wait without bound.  A dead holder's lock is repaired as
 * pmdb_entry_lock repairs it (trace 69); a broken lock is left to the next
 * writer. */
cerrno lock_within(pellin_mutex_type *lock, u32 wait_ms) {
    int rc = pthread_mutex_trylock(lock);
    if (rc == EBUSY) {
        /* CLOCK_REALTIME: the one clock every mutex implementation and
         * thread checker knows; a clock step only moves the bound. */
        const struct timespec deadline = pmdb_deadline(CLOCK_REALTIME, wait_ms);
        kemt_set_mutex_block(lock, "pmdb_bundle_recount", kLockWaitLine);
        rc = pthread_mutex_timedlock(lock, &deadline);
        kemt_unset_mutex_block();
    }
    if (rc == EOWNERDEAD) {
        PMDB_TRACE(tp::lock_owner_dead);
        rc = pthread_mutex_consistent_np(lock);
        if (rc != 0) pthread_mutex_unlock(lock);
    }
    return rc == ETIMEDOUT ? PMDB_EBUSY : static_cast<cerrno>(rc);
}

cerrno slot_lock(pellin_mutex_type *lock, u32 wait_ms) {
    return wait_ms == 0 ? pmdb_entry_lock(lock) : lock_within(lock, wait_ms);
}

/* Caller holds the bundle's slot lock.  Derives its counts and, with
 * `store`, replaces counters that disagree; *before and *after receive the
 * derived out-of-resource state of the stored counters before and after. */
cerrno recount_locked(const pmdb_cycle_t *cyc, bool store, dpa_pmdb_bundle_counts_t *c,
                      u32 *before, u32 *after) {
    bundle_tally tally = {cyc->key, c};
    const cerrno rc = tabra_walk(cyc->hdl->tabra, tally_member, &tally);
    if (rc != PMDB_OK) return rc;
    if (pmdb_member_ops_busy(cyc->key)) return PMDB_EBUSY;
    auto *b = static_cast<pmdb_ifh_entry_t *>(cyc->entry);
    stored_counts(b, c);
    if (!store || !counts_disagree(c)) return PMDB_OK;
    b->member_count = c->members;
    dpa_pmdb_oor_set_counters(&b->intf_info, c->level_1, c->level_2, before, after);
    clock_gettime(CLOCK_REALTIME, &b->last_update);
    PMDB_TRACE(tp::bundle_counts_repaired, cyc->key, c->member_count, c->members, c->oor_members_1,
               c->level_1, c->oor_members_2, c->level_2);
    return PMDB_OK;
}

/* ---- every bundle ------------------------------------------------------------------ */

/* A growing array of plain rows (malloc'd, freed with the array). */
template <class T>
struct rows {
    T *at = nullptr;
    u32 n = 0;
    u32 cap = 0;
    rows() = default;
    rows(const rows &) = delete;
    rows &operator=(const rows &) = delete;
    ~rows() { free(at); }
    bool push(const T &v) {
        if (n == cap) {
            const u32 grown = cap == 0 ? 64 : cap * 2;
            void *p = realloc(at, static_cast<size_t>(grown) * sizeof(T));
            if (p == nullptr) return false;
            at = static_cast<T *>(p);
            cap = grown;
        }
        at[n++] = v;
        return true;
    }
    T *begin() { return at; }
    T *end() { return at + n; }
};

struct member_row {
    u32 bundle_ifh;
    u32 level;
};

/* What one walk of the table says: every counted member, and every entry
 * that stores a nonzero counter. */
struct survey {
    rows<member_row> members;
    rows<dpa_pmdb_bundle_counts_t> stored;
};

int survey_entry(void *ctx, u32 key, i32, const void *entry) {
    auto *s = static_cast<survey *>(ctx);
    const auto *e = static_cast<const pmdb_ifh_entry_t *>(entry);
    member_row m = {0, 0};
    if (counted_member(e, &m.bundle_ifh, &m.level) && !s->members.push(m))
        return static_cast<int>(PMDB_ENOMEM);
    dpa_pmdb_bundle_counts_t c;
    memset(&c, 0, sizeof c);
    c.bundle_ifh = key;
    stored_counts(e, &c);
    const bool any = c.member_count != 0 || c.oor_members_1 != 0 || c.oor_members_2 != 0;
    return any && !s->stored.push(c) ? static_cast<int>(PMDB_ENOMEM) : 0;
}

/* The derived counts of c->bundle_ifh from member rows sorted by bundle. */
void derive_from(rows<member_row> *members, dpa_pmdb_bundle_counts_t *c) {
    const auto by_bundle = [](const member_row &a, const member_row &b) {
        return a.bundle_ifh < b.bundle_ifh;
    };
    const auto range = std::equal_range(members->begin(), members->end(),
                                        member_row{c->bundle_ifh, 0}, by_bundle);
    for (const member_row *m = range.first; m != range.second; m++) count_member_in(c, m->level);
}

/* Bundles whose counters the survey finds apart from their members: those
 * storing counters, and those only named by members (storing none). */
bool candidates(survey *s, rows<u32> *out) {
    std::sort(s->members.begin(), s->members.end(),
              [](const member_row &a, const member_row &b) { return a.bundle_ifh < b.bundle_ifh; });
    std::sort(s->stored.begin(), s->stored.end(),
              [](const dpa_pmdb_bundle_counts_t &a, const dpa_pmdb_bundle_counts_t &b) {
                  return a.bundle_ifh < b.bundle_ifh;
              });
    for (dpa_pmdb_bundle_counts_t &c : s->stored) {
        derive_from(&s->members, &c);
        if (counts_disagree(&c) && !out->push(c.bundle_ifh)) return false;
    }
    for (u32 i = 0; i < s->members.n; i++) {
        const u32 b = s->members.at[i].bundle_ifh;
        if (i > 0 && s->members.at[i - 1].bundle_ifh == b) continue;
        dpa_pmdb_bundle_counts_t c;
        memset(&c, 0, sizeof c);
        c.bundle_ifh = b;
        const bool stores = std::binary_search(
            s->stored.begin(), s->stored.end(), c,
            [](const dpa_pmdb_bundle_counts_t &x, const dpa_pmdb_bundle_counts_t &y) {
                return x.bundle_ifh < y.bundle_ifh;
            });
        derive_from(&s->members, &c);
        if (!stores && counts_disagree(&c) && !out->push(b)) return false;
    }
    return true;
}

/* Decides one proposed bundle under its lock, retrying while a member
 * update of it is in flight, for up to wait_ms (0: once). */
void examine_one(u32 bundle_ifh, u32 wait_ms, bool store, dpa_pmdb_bundle_counts_fn_t fn,
                 void *ctx) {
    const struct timespec deadline = pmdb_deadline(CLOCK_MONOTONIC, wait_ms);
    dpa_pmdb_bundle_counts_t c;
    cerrno rc = PMDB_EBUSY;
    while (rc == PMDB_EBUSY) {
        memset(&c, 0, sizeof c);
        rc = pmdb_bundle_recount(bundle_ifh, wait_ms, store, &c);
        if (rc == PMDB_EBUSY && past(deadline)) break;
        if (rc == PMDB_EBUSY) usleep(kBusyPauseUs);
    }
    c.bundle_ifh = bundle_ifh;
    if (rc == TABRA_E_NOTFOUND) return; /* removed meanwhile: nothing to count */
    if (rc != PMDB_OK || counts_disagree(&c)) fn(ctx, &c, rc);
}

cerrno examine_all(u32 wait_ms, bool store, dpa_pmdb_bundle_counts_fn_t fn, void *ctx) {
    if (fn == nullptr) return PMDB_EINVAL;
    tabra_hdl_t table = nullptr;
    if (tabra_attach(PMDB_IFH_TABLE_NAME, &table) != 0) return PMDB_ENOTFOUND;
    pmdb_member_ops_t *log = nullptr;
    const cerrno log_rc = pmdb_member_ops_open(false, &log);
    survey s;
    cerrno rc = tabra_walk(table, survey_entry, &s);
    rows<u32> bundles;
    if (rc == PMDB_OK && !candidates(&s, &bundles)) rc = PMDB_ENOMEM;
    if (rc != PMDB_OK) return rc;
    for (u32 b : bundles) examine_one(b, wait_ms, store, fn, ctx);
    /* The bundles of dead writers' records were among those just put right
     * (and reported); completing the records now clears them. */
    if (store && log != nullptr) pmdb_member_ops_sweep(log, wait_ms);
    return log_rc;
}

/* Runs locked(cyc) in an entry change cycle of IFH entry `ifh` under its
 * slot lock (waited for as slot_lock waits), then unlocked(cyc) once the
 * lock is released, still in the cycle (write access held).  Returns the
 * cycle's or the lock's status, else locked's. */
template <class Locked, class Unlocked>
cerrno in_entry_cycle(u32 ifh, u32 wait_ms, Locked locked, Unlocked unlocked) {
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_FIND, &kNoTraces);
    if (rc != PMDB_OK) return rc;
    pellin_mutex_type *lock = pmdb_cycle_slot_lock(&cyc, cyc.slot);
    rc = slot_lock(lock, wait_ms);
    if (rc != PMDB_OK) return pmdb_cycle_release(&cyc, rc);
    rc = locked(&cyc);
    pmdb_entry_unlock(lock);
    unlocked(&cyc);
    return pmdb_cycle_release(&cyc, rc);
}

/* ---- sub-interface counts ------------------------------------------------------------ */

struct sub_tally {
    u32 parent_ifh;
    u32 subs;
};

int tally_sub(void *ctx, u32, i32, const void *entry) {
    auto *t = static_cast<sub_tally *>(ctx);
    const auto *e = static_cast<const pmdb_ifh_entry_t *>(entry);
    if (pmdb_fields::parent_ifh(&e->intf_info) == t->parent_ifh) t->subs++;
    return 0;
}

/* Caller holds the parent's slot lock: derives its count and replaces a
 * stored count that disagrees. */
cerrno sub_recount_locked(const pmdb_cycle_t *cyc, dpa_pmdb_sub_counts_t *c) {
    sub_tally tally = {cyc->key, 0};
    const cerrno rc = tabra_walk(cyc->hdl->tabra, tally_sub, &tally);
    if (rc != PMDB_OK) return rc;
    auto *p = static_cast<pmdb_ifh_entry_t *>(cyc->entry);
    c->sub_intf_count = p->sub_intf_count;
    c->subs = static_cast<u16>(tally.subs);
    if (c->sub_intf_count == c->subs) return PMDB_OK;
    p->sub_intf_count = c->subs;
    clock_gettime(CLOCK_REALTIME, &p->last_update);
    PMDB_TRACE(tp::sub_intf_count_repaired, cyc->key, c->sub_intf_count, c->subs);
    return PMDB_OK;
}

cerrno sub_recount(u32 parent_ifh, u32 wait_ms, dpa_pmdb_sub_counts_t *c) {
    return in_entry_cycle(
        parent_ifh, wait_ms, [c](const pmdb_cycle_t *cyc) { return sub_recount_locked(cyc, c); },
        [](const pmdb_cycle_t *) {});
}

/* One walk: every entry's stored count (rows of key and count) and the
 * parent each sub-interface names. */
struct sub_survey {
    rows<dpa_pmdb_sub_counts_t> stored;
    rows<u32> parents;
};

int survey_sub(void *ctx, u32 key, i32, const void *entry) {
    auto *s = static_cast<sub_survey *>(ctx);
    const auto *e = static_cast<const pmdb_ifh_entry_t *>(entry);
    const u32 parent = pmdb_fields::parent_ifh(&e->intf_info);
    if (parent != 0 && !s->parents.push(parent)) return static_cast<int>(PMDB_ENOMEM);
    const dpa_pmdb_sub_counts_t c = {key, e->sub_intf_count, 0};
    return s->stored.push(c) ? 0 : static_cast<int>(PMDB_ENOMEM);
}

void repair_subs_of(sub_survey *s, u32 wait_ms, dpa_pmdb_sub_counts_fn_t fn, void *ctx) {
    std::sort(s->parents.begin(), s->parents.end());
    for (const dpa_pmdb_sub_counts_t &stored : s->stored) {
        const auto range = std::equal_range(s->parents.begin(), s->parents.end(), stored.parent_ifh);
        if (stored.sub_intf_count == range.second - range.first) continue;
        dpa_pmdb_sub_counts_t c = {stored.parent_ifh, 0, 0};
        const cerrno rc = sub_recount(stored.parent_ifh, wait_ms, &c);
        if (rc == TABRA_E_NOTFOUND) continue; /* removed meanwhile */
        if (rc != PMDB_OK || c.sub_intf_count != c.subs) fn(ctx, &c, rc);
    }
}

}  // namespace

cerrno pmdb_bundle_recount(u32 bundle_ifh, u32 wait_ms, bool store, dpa_pmdb_bundle_counts_t *out) {
    dpa_pmdb_bundle_counts_t c;
    memset(&c, 0, sizeof c);
    c.bundle_ifh = bundle_ifh;
    u32 before = PMDB_OOR_NONE, after = PMDB_OOR_NONE;
    const auto locked = [&](const pmdb_cycle_t *cyc) {
        return recount_locked(cyc, store, &c, &before, &after);
    };
    const auto unlocked = [&](const pmdb_cycle_t *cyc) {
        const dpa_pmdb_oor_cb_t cb = dpa_pmdb_oor_cb_get();
        if (after != before && cb != nullptr) cb(bundle_ifh, static_cast<u32>(cyc->slot), after, 0);
        if (out != nullptr) *out = c;
    };
    return in_entry_cycle(bundle_ifh, wait_ms, locked, unlocked);
}

extern "C" {

cerrno dpa_pmdb_check_bundle_counts(u32 wait_ms, dpa_pmdb_bundle_counts_fn_t fn,
                                                void *ctx) {
    return examine_all(wait_ms, false, fn, ctx);
}

cerrno dpa_pmdb_repair_bundle_counts(u32 wait_ms, dpa_pmdb_bundle_counts_fn_t fn,
                                                 void *ctx) {
    return examine_all(wait_ms, true, fn, ctx);
}

cerrno dpa_pmdb_repair_sub_intf_counts(u32 wait_ms, dpa_pmdb_sub_counts_fn_t fn, void *ctx) {
    if (fn == nullptr) return PMDB_EINVAL;
    tabra_hdl_t table = nullptr;
    if (tabra_attach(PMDB_IFH_TABLE_NAME, &table) != 0) return PMDB_ENOTFOUND;
    sub_survey s;
    const cerrno rc = tabra_walk(table, survey_sub, &s);
    if (rc == PMDB_OK) repair_subs_of(&s, wait_ms, fn, ctx);
    return rc;
}

}  // extern "C"
