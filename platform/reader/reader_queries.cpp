/*
 * reader_queries.cpp - the exported lookups, list queries and walks, and the
 * "belongs to" rules that decide which entries an interface owns.
 *
 * Every rule below reads only what the writers store (see pmdb_reader.h for
 * the rules in words).  A rule runs twice per candidate: once on the live
 * table memory without a lock, where each field is loaded once and whole
 * (load()), to skip non-matching entries cheaply; and once on the consistent
 * copy, which alone decides.  So a torn pre-filter view can only cost a copy,
 * never produce a wrong answer.
 *
 * Concurrency contract of this file: no state of its own; every call is
 * reentrant.  Callbacks (the iterate filter, the walk function) run with no
 * lock of this library held.
 */
#include <string.h>

#include "pmdb_fields.h"
#include "reader_internal.h"

namespace {

using pmdb_reader::load;

/* A visitor's private "the caller's array is full" answer; the scans stop on
 * any nonzero visitor result and hand it back. */
constexpr int kStopFilled = 0x7E5D0001;

/* The interface a stored interface block was made for: the first nonzero of
 * sub_ifh, ifh and bundle_ifh. */
u32 owner_of(const pmdb_intf_info_t &info) {
    const u32 sub = load(info.sub_ifh);
    if (sub != 0) return sub;
    const u32 ifh = load(info.ifh);
    return ifh != 0 ? ifh : load(info.bundle_ifh);
}

using pmdb_fields::is_member_punt_key;

bool node_matches(const pmdb_intf_info_t &info, u32 node) {
    return node == PMDB_READER_ALL_NODES || load(info.node_id) == node;
}

const pmdb_intf_info_t &punt_info_block(const void *entry) {
    return static_cast<const pmdb_punt_entry_t *>(entry)->intf_info;
}

const pmdb_intf_info_t &ifh_info_block(const void *entry) {
    return static_cast<const pmdb_ifh_entry_t *>(entry)->intf_info;
}

/* What a query looks for. */
struct wanted {
    u32 handle;
    u32 node; /* node or selector; PMDB_READER_ALL_NODES for every node */
};

const wanted &want_of(const void *want) { return *static_cast<const wanted *>(want); }

/* PUNT entry made for the interface itself. */
bool punt_of_interface(u32 key, const void *entry, const void *want) {
    return !is_member_punt_key(key) && owner_of(punt_info_block(entry)) == want_of(want).handle;
}

/* PUNT entry of a bundle's member: a bundle-member key of the bundle, or a
 * member port's own key marked with the bundle. */
bool punt_of_bundle_members(u32 key, const void *entry, const void *want) {
    const pmdb_intf_info_t &info = punt_info_block(entry);
    const u32 bundle = want_of(want).handle;
    if (load(info.bundle_ifh) != bundle) return false;
    if (is_member_punt_key(key)) return true;
    const u32 ifh = load(info.ifh);
    return load(info.sub_ifh) == 0 && ifh != 0 && ifh != bundle;
}

/* PUNT entry made for a bundle sub-interface, on the selected node. */
bool punt_of_bundle_sub(u32 key, const void *entry, const void *want) {
    const pmdb_intf_info_t &info = punt_info_block(entry);
    const wanted &w = want_of(want);
    return !is_member_punt_key(key) && load(info.sub_ifh) == w.handle &&
           load(info.bundle_ifh) != 0 && node_matches(info, w.node);
}

/* IFH entry of an active member of the bundle, on the selected node. */
bool ifh_of_active_member(u32, const void *entry, const void *want) {
    const auto *e = static_cast<const pmdb_ifh_entry_t *>(entry);
    const wanted &w = want_of(want);
    return (load(e->ifh_flags) & PMDB_IFH_MEMBER_ACTIVE) != 0 &&
           load(e->intf_info.bundle_ifh) == w.handle && node_matches(e->intf_info, w.node);
}

/* IFH entry of a sub-interface of the bundle. */
bool ifh_of_bundle_sub(u32, const void *entry, const void *want) {
    const pmdb_intf_info_t &info = ifh_info_block(entry);
    return load(info.sub_ifh) != 0 && load(info.bundle_ifh) == want_of(want).handle;
}

/* OAM entry written for the interface. */
bool oam_of_interface(u32, const void *entry, const void *want) {
    const auto *e = static_cast<const pmdb_oam_entry_t *>(entry);
    return load(e->oam_info.oam_ifh) == want_of(want).handle;
}

struct fill_state {
    u32 *out;
    u32 capacity;
    u32 used;
};

int fill_one(void *ctx, u32 key, const void *) {
    auto *f = static_cast<fill_state *>(ctx);
    f->out[f->used++] = key;
    return f->used == f->capacity ? kStopFilled : 0;
}

/* The common frame of every list query (see the header's contract). */
cerrno list_query(pmdb_type_t type, pmdb_reader::match_fn match, u32 handle, u32 node, u32 *out,
                  u32 capacity) {
    if (out == nullptr || handle == 0) return PMDB_EINVAL;
    if (capacity == 0) return PMDB_OK;
    memset(out, 0, static_cast<size_t>(capacity) * sizeof *out);
    const wanted want{handle, node};
    fill_state fill{out, capacity, 0};
    const cerrno rc = pmdb_reader::scan(type, match, &want, fill_one, &fill);
    return rc == static_cast<cerrno>(kStopFilled) ? PMDB_OK : rc;
}

/* Copies `len` bytes from offset `from` of the entry of `key`. */
cerrno copy_part(pmdb_type_t type, u32 key, void *buf, size_t from, size_t len) {
    if (buf == nullptr || key == 0) return PMDB_EINVAL;
    return pmdb_reader::copy(type, key, buf, static_cast<u32>(from), static_cast<u32>(len));
}

/* Copies part P of the entry of `key`. */
template <pmdb_reader::part P>
cerrno copy_fixed_part(u32 key, void *buf) {
    if (buf == nullptr || key == 0) return PMDB_EINVAL;
    return pmdb_reader::copy_fixed<P>(key, buf);
}

/* The interface and punt blocks are adjacent in both entry records. */
static_assert(offsetof(pmdb_ifh_entry_t, punt_info) ==
                  offsetof(pmdb_ifh_entry_t, intf_info) + sizeof(pmdb_intf_info_t),
              "IFH blocks adjacent");
static_assert(offsetof(pmdb_punt_entry_t, punt_info) ==
                  offsetof(pmdb_punt_entry_t, intf_info) + sizeof(pmdb_intf_info_t),
              "PUNT blocks adjacent");
static_assert(PMDB_READER_INFO_COPY_SIZE == sizeof(pmdb_intf_info_t) + sizeof(pmdb_punt_info_t),
              "info copy size");

struct iterate_state {
    dpa_pmdb_iter_fn_t filter;
    void *arg;
    void *ctx;
    bool full;
};

int iterate_one(void *p, u32 key, const void *copy) {
    auto *s = static_cast<iterate_state *>(p);
    u32 table_key = key;
    const int rc = s->filter(s->arg, static_cast<const pmdb_ifh_entry_t *>(copy), &table_key, s->ctx);
    if (rc == 0 || rc == static_cast<int>(PMDB_EINVAL)) return 0;
    if (rc == static_cast<int>(PMDB_EFULL)) s->full = true;
    return rc;
}

}  // namespace

extern "C" {

PMDB_EXPORT cerrno dpa_pmdb_get_ifh_entry_by_key(u32 ifh, void *buf, u32 arg3, u32 arg4) {
    if (arg3 != 0 || arg4 != 0) return PMDB_EINVAL;
    return copy_fixed_part<pmdb_reader::kIfhInfo>(ifh, buf);
}

PMDB_EXPORT cerrno dpa_pmdb_get_punt_entry_by_key(u32 key, void *buf) {
    return copy_fixed_part<pmdb_reader::kPuntInfo>(key, buf);
}

PMDB_EXPORT cerrno dpa_pmdb_get_oam_entry_by_key(u32 key, pmdb_oam_entry_t *buf) {
    return copy_fixed_part<pmdb_reader::kOamEntry>(key, buf);
}

PMDB_EXPORT cerrno dpa_pmdb_get_num_members(u8 *count, u32 bundle_ifh) {
    /* Through a local byte: callers read *count whatever the result, so it
     * changes only on success, even when the bundle is removed meanwhile. */
    u8 n = 0;
    const cerrno rc =
        copy_fixed_part<pmdb_reader::kMemberCount>(bundle_ifh, count == nullptr ? nullptr : &n);
    if (rc == PMDB_OK) *count = n;
    return rc;
}

PMDB_EXPORT cerrno dpa_pmdb_copy_entry(pmdb_type_t type, u32 key, void *buf, u32 len) {
    const u32 size = pmdb_reader::entry_size(type);
    if (size == 0 || len == 0 || len > size) return PMDB_EINVAL;
    return copy_part(type, key, buf, 0, len);
}

PMDB_EXPORT cerrno dpa_pmdb_get_port_punt_entries(u32 ifh, u32 *keys, u32 capacity) {
    return list_query(PMDB_TYPE_PUNT, punt_of_interface, ifh, PMDB_READER_ALL_NODES, keys,
                      capacity);
}

PMDB_EXPORT cerrno dpa_pmdb_get_bundle_punt_entries(u32 bundle_ifh, u32 *keys, u32 capacity) {
    return list_query(PMDB_TYPE_PUNT, punt_of_bundle_members, bundle_ifh, PMDB_READER_ALL_NODES,
                      keys, capacity);
}

PMDB_EXPORT cerrno dpa_pmdb_get_bundle_sub_punt_entries(u32 ifh, u32 *keys, u32 capacity,
                                                        u32 selector) {
    return list_query(PMDB_TYPE_PUNT, punt_of_bundle_sub, ifh, selector, keys, capacity);
}

PMDB_EXPORT cerrno dpa_pmdb_get_bundle_member_ifh_entries(u32 bundle_ifh, u32 *handles,
                                                          u32 capacity, u32 node_id) {
    return list_query(PMDB_TYPE_IFH, ifh_of_active_member, bundle_ifh, node_id, handles, capacity);
}

PMDB_EXPORT cerrno dpa_pmdb_get_bundle_sub_ifh_entries(u32 bundle_ifh, u32 *handles,
                                                       u32 capacity) {
    return list_query(PMDB_TYPE_IFH, ifh_of_bundle_sub, bundle_ifh, PMDB_READER_ALL_NODES, handles,
                      capacity);
}

PMDB_EXPORT cerrno dpa_pmdb_get_intf_oam_entries(u32 ifh, u32 *keys, u32 capacity) {
    return list_query(PMDB_TYPE_OAM, oam_of_interface, ifh, PMDB_READER_ALL_NODES, keys, capacity);
}

PMDB_EXPORT cerrno dpa_pmdb_iterate(dpa_pmdb_iter_fn_t filter, void *arg, void *ctx, u32 flags) {
    if (filter == nullptr || (flags & ~PMDB_ITER_FULL_IS_ERROR) != 0) return PMDB_EINVAL;
    iterate_state state{filter, arg, ctx, false};
    const cerrno rc = pmdb_reader::scan(PMDB_TYPE_IFH, nullptr, nullptr, iterate_one, &state);
    if (state.full) return (flags & PMDB_ITER_FULL_IS_ERROR) != 0 ? PMDB_EFULL : PMDB_OK;
    return rc;
}

PMDB_EXPORT cerrno dpa_pmdb_walk(pmdb_type_t type, dpa_pmdb_walk_fn_t fn, void *ctx) {
    if (fn == nullptr || pmdb_reader::entry_size(type) == 0) return PMDB_EINVAL;
    return pmdb_reader::scan(type, nullptr, nullptr, fn, ctx);
}

}  // extern "C"
