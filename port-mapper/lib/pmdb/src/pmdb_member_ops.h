/*
 * pmdb_member_ops.h - keeping a bundle's counters equal to what its members
 * give after a writer dies half way through a member change.
 *
 * A join, leave or out-of-resource change of a member changes the member's
 * IFH entry under its slot lock and then the bundle's counters under the
 * bundle's (member_count in a second cycle, the out-of-resource counters
 * while the member is still locked).  A writer killed in between leaves the
 * bundle's counters apart from its members.  So every such operation runs
 * inside a pmdb_member_op_scope:
 *
 *     pmdb_member_op_scope op;           // no slot lock held yet
 *     ... lock the member ...
 *     op.name(bundle, other_bundle, member);   // before the member changes
 *     ... change the member, then the bundle ...
 *     // leaving the scope clears the record
 *
 * The scope first completes what dead writers left in the member operation
 * log (pmdb_member_ops_t in pmdb.h) - it recounts the bundles their records
 * name - and then claims the calling thread's own record, which it keeps
 * for the thread's life.  Only the owning thread writes a record's bundle
 * and member fields; whoever holds a record's owner lock (the owner, or the
 * thread completing a dead owner's record) may clear them.
 *
 * Lock order: the scope is entered with no slot lock held; completing a
 * record takes one bundle slot lock at a time.  Owner locks of the log are
 * only ever tried, never waited for.
 *
 * The recount (pmdb_bundle_recount) derives a bundle's counters from its
 * members under the bundle's slot lock.  It refuses (PMDB_EBUSY) while a
 * live thread other than the caller has a member operation on that bundle
 * in flight: such an operation may have changed its member and not yet the
 * bundle, and its own bundle step will still count the change.
 */
#ifndef PMDB_SRC_MEMBER_OPS_H
#define PMDB_SRC_MEMBER_OPS_H

#include "pmdb.h"
#include "pmdb_counts.h"

/* The calling thread's member operation, from construction to destruction.
 * Without a usable log (traced, error 341) the operation runs unrecorded. */
class pmdb_member_op_scope {
public:
    pmdb_member_op_scope();
    ~pmdb_member_op_scope();
    pmdb_member_op_scope(const pmdb_member_op_scope &) = delete;
    pmdb_member_op_scope &operator=(const pmdb_member_op_scope &) = delete;

    /* Names the bundles whose counters the operation is about to change (0
     * for none) and the member; visible to every process before the member
     * entry changes. */
    void name(u32 bundle_ifh, u32 other_bundle_ifh, u32 member_ifh);

private:
    pmdb_member_op_t *rec_;
};

/* The member operation log: mapped (created and initialised first when
 * `create`), validated.  0 with *out set; 0 with *out null when the log
 * does not exist and !create; PMDB_ESHM when it is damaged, not the user's
 * or cannot be made (error trace 341 with the object's name and the
 * reason). */
cerrno pmdb_member_ops_open(bool create, pmdb_member_ops_t **out);

/* Completes every record of a dead owner: recounts the bundles it names
 * (slot locks waited for as pmdb_bundle_recount does with wait_ms) and
 * clears it.  A record whose bundle is busy stays for a later pass. */
void pmdb_member_ops_sweep(pmdb_member_ops_t *log, u32 wait_ms);

/* True when a live thread other than the caller has a member operation on
 * `bundle_ifh` in flight.  Reads the log only after a sequentially
 * consistent read-modify-write, so a member change that the caller saw
 * before calling is covered. */
bool pmdb_member_ops_busy(u32 bundle_ifh);

/* Recounts the counters of the IFH entry `bundle_ifh` from its members under
 * its slot lock (wait_ms 0: waited for as every writer waits; otherwise at
 * most wait_ms milliseconds, PMDB_EBUSY after).  *out (may be null) receives
 * the stored and derived counts.  With `store`, counters that disagree are
 * replaced (trace 340, the out-of-resource state and callback as the member
 * accounting does).  Returns 0, PMDB_EBUSY while a live thread changes a
 * member of it, or the status of the open, lookup, lock or walk. */
cerrno pmdb_bundle_recount(u32 bundle_ifh, u32 wait_ms, bool store, dpa_pmdb_bundle_counts_t *out);

/* ---- test-only crash points ------------------------------------------------
 *
 * When the environment variable PMDB_CRASH_AT names one of the points below
 * at the first point a process passes (read again in a child after fork),
 * the process kills itself with SIGKILL when it reaches that point; with
 * "stop:" before the name it stops itself (SIGSTOP) there instead, a live
 * writer caught in the middle.  Each point lies between a member's change
 * and its bundle's; unset, a point costs one predictable branch. */
#define PMDB_CRASH_ENV "PMDB_CRASH_AT"

typedef enum pmdb_crash_at {
    PMDB_CRASH_JOIN_MEMBER_SET = 1, /* "join_member_set": joined member set, level not counted */
    PMDB_CRASH_LEAVE_COUNTED_OUT,   /* "leave_counted_out": level counted out, member unchanged */
    PMDB_CRASH_ACCOUNT_LOCKED,      /* "account_locked": accounting holds both slot locks */
    PMDB_CRASH_MEMBER_CHANGED,      /* "member_changed": member done, its lock still held */
    PMDB_CRASH_MEMBER_RELEASED,     /* "member_released": member released, bundle not begun */
    PMDB_CRASH_BUNDLE_LOCKED,       /* "bundle_locked": bundle locked, member_count unchanged */
    PMDB_CRASH_OOR_MEMBER_SET,      /* "oor_member_set": member's level recorded */
    PMDB_CRASH_OOR_BUNDLE_LOCKED,   /* "oor_bundle_locked": both locked, counters unchanged */
    PMDB_CRASH_OOR_COUNTED_OUT,     /* "oor_counted_out": old level out, new not yet in */
    PMDB_CRASH_MEMBER_REMOVED,      /* "member_removed": active member's entry removed */
    PMDB_CRASH_POINTS
} pmdb_crash_at_t;

extern int pmdb_crash_armed; /* 0: no point; -1: not read yet; else the point */
void pmdb_crash_slow(pmdb_crash_at_t at);

inline void pmdb_crash_point(pmdb_crash_at_t at) {
    if (__builtin_expect(__atomic_load_n(&pmdb_crash_armed, __ATOMIC_RELAXED) == 0, 1)) return;
    pmdb_crash_slow(at);
}

#endif
