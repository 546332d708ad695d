/*
 * dnx_pmdb_bvi.cpp - BVI adjacency refresh and the AIB update callback.
 *
 * IFH entries of BVI interfaces (intf_type 78) name the node that hosts them
 * (intf_info.node_id) and its MAC (intf_info.node_mac).  When a node leaves
 * the port inventory, every BVI entry that named it is rehomed to the node
 * now at the head of the inventory list, and the process's AIB update
 * callback receives the refreshed handles.
 *
 * The collection context dpa_pm_bvi_adj_ctx_t crosses into the reader
 * library's walk and back into the filter, so its 56-byte layout is fixed
 * (checked in pmdb.h):
 *
 *    0 u32 first word (17)     4 reserved
 *    8 u32 count              12 u32 capacity (100)
 *   16 u32 *handles           24 reserved
 *   28 u32 node_id            32 24 reserved bytes
 *
 * Concurrency contract:
 *  - The callback pointer is a plain process-wide variable, set before
 *    events flow; it has no lock.
 *  - The refresh runs on the caller's thread.  The reader library walks the
 *    table without entry locks and hands each entry to the filter; the
 *    filter only reads it.  Each rewrite then runs one entry change cycle of
 *    its own and holds only that entry's slot lock; no lock is held from one
 *    handle to the next, so an entry may change between the walk and its
 *    rewrite (the rewrite sets the node regardless).
 *  - The handle and status arrays live for the duration of the refresh; the
 *    callback must copy what it keeps.
 */
#include <cstdlib>
#include <cstring>

#include "pmdb.h"
#include "pmdb_cycle.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "pmdb_reader.h"
#include "pmdb_trace.h"

namespace {

/* The process's AIB update callback; null until registered. */
dpa_pmdb_aib_update_cb_t pmdb_aib_update_cb = nullptr;

/* Filter results: 22 for every examined entry (collected or not), so that the
 * walk goes on; 17 once the handle array is full. */
constexpr int kFilterNext = static_cast<int>(PMDB_EINVAL);
constexpr int kFilterFull = static_cast<int>(PMDB_EFULL);

/* Rehomes one locked BVI entry to the head of the inventory list.  With an
 * empty list nothing changes and *status keeps its value. */
void bvi_rehome(pmdb_ifh_entry_t *e, u32 ifh, u32 *status) {
    if (pm_port_inv_take_head_node(&e->intf_info) == 0) return;
    PMDB_TRACE(tp::bvi_entry_rehomed, ifh, e->intf_info.egress_lif, e->intf_info.ingress_lif);
    *status = PMDB_OK;
}

/* Rewrites every collected handle in order; returns the last rewrite's code. */
cerrno bvi_rewrite_all(const dpa_pm_bvi_adj_ctx_t *ctx, u32 *status) {
    cerrno last = PMDB_OK;
    for (u32 i = 0; i < ctx->count; i++) last = dpa_bvi_upd_all_entries(ctx->handles[i], &status[i]);
    return last;
}

/* Rewrites the collected handles and tells the callback, or explains with
 * trace 106 why it was not told. */
void bvi_rewrite_and_notify(const dpa_pm_bvi_adj_ctx_t *ctx) {
    dpa_pmdb_aib_update_cb_t cb = pmdb_aib_update_cb;
    if (ctx->count == 0) {
        PMDB_TRACE(tp::bvi_callback_not_called, 0, cb, 0);
        return;
    }
    u32 *status = static_cast<u32 *>(calloc(ctx->count, sizeof(u32)));
    if (status == nullptr) return;
    cerrno last = bvi_rewrite_all(ctx, status);
    if (last == PMDB_OK && cb != nullptr)
        cb(ctx->handles, status, static_cast<u16>(ctx->count));
    else
        PMDB_TRACE(tp::bvi_callback_not_called, ctx->count, cb, last);
    free(status);
}

}  // namespace

extern "C" {

PMDB_EXPORT void dpa_pmdb_set_aib_update_cb(dpa_pmdb_aib_update_cb_t cb) { pmdb_aib_update_cb = cb; }

dpa_pmdb_aib_update_cb_t dpa_pmdb_aib_update_cb_get(void) { return pmdb_aib_update_cb; }

PMDB_EXPORT int dpa_pm_get_bvi_adj_cb(void * /*arg1*/, const pmdb_ifh_entry_t *entry,
                                      void * /*arg3*/, void *ctx_arg) {
    auto *ctx = static_cast<dpa_pm_bvi_adj_ctx_t *>(ctx_arg);
    /* Nothing to examine or nowhere to collect: refused like an entry that
     * is not collected, so that a walk goes on. */
    if (entry == nullptr || ctx == nullptr || ctx->handles == nullptr) return kFilterNext;
    /* Never write past the array: once full, entries are not examined. */
    if (ctx->count >= ctx->capacity) return kFilterFull;
    const pmdb_intf_info_t *info = &entry->intf_info;
    if (info->node_id != ctx->node_id || info->ifh == 0 || info->intf_type != PMDB_INTF_TYPE_BVI)
        return kFilterNext;
    ctx->handles[ctx->count++] = entry->key;
    return kFilterNext;
}

PMDB_EXPORT cerrno dpa_bvi_upd_all_entries(u32 ifh, u32 *status) {
    static const pmdb_cycle_traces_t kTraces = {.zero_key = tp::bvi_rewrite_zero_ifh,
                                                .open_failed = tp::bvi_rewrite_open_failed,
                                                .lookup_failed = tp::bvi_rewrite_lookup_failed,
                                                .lock_failed = tp::bvi_rewrite_lock_failed};
    if (status == nullptr) return PMDB_EINVAL;
    pmdb_cycle_t cyc;
    const cerrno rc = pmdb_cycle_begin(&cyc, PMDB_TYPE_IFH, ifh, PMDB_CYCLE_LOCK, &kTraces);
    if (rc != PMDB_OK) return rc;
    /* The rehome is a node move, not an event: event_id and last_update stay. */
    bvi_rehome(static_cast<pmdb_ifh_entry_t *>(cyc.entry), ifh, status);
    return pmdb_cycle_release(&cyc, PMDB_OK);
}

void dpa_bvi_upd_node_entries(const pm_port_inv_entry_t *leaving) {
    dpa_pm_bvi_adj_ctx_t ctx;
    memset(&ctx, 0, sizeof(ctx));
    ctx.first_word = PMDB_BVI_CTX_FIRST_WORD;
    ctx.capacity = PMDB_BVI_CTX_CAPACITY;
    ctx.node_id = leaving->node_id;
    ctx.handles = static_cast<u32 *>(calloc(PMDB_BVI_CTX_CAPACITY, sizeof(u32)));
    if (ctx.handles == nullptr) {
        PMDB_TRACE(tp::bvi_handles_not_allocated, PMDB_BVI_CTX_CAPACITY, 0);
        return;
    }
    cerrno rc = dpa_pmdb_iterate(dpa_pm_get_bvi_adj_cb, &ctx, &ctx, 0);
    if (rc != PMDB_OK)
        PMDB_TRACE(tp::bvi_iterate_failed, rc);
    else
        bvi_rewrite_and_notify(&ctx);
    free(ctx.handles);
}

}  // extern "C"
