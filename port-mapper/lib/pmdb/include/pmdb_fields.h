/*
 * pmdb_fields.h - the rules of the shared records' fields, in one place:
 * event flags, the punt-word merge, IFH summaries, the punt and member key
 * rules, the tables' key hash, the table and region names, the MAC length.
 *
 * Header-only C++ (inline functions, no state), so that the library, the
 * reader library, the tools and the examples all take the same rule without
 * any of them linking another's internals.  It depends on nothing but
 * pmdb.h and the platform identity (the egress punt key asks whether this
 * node is a route processor with a data path).
 *
 * None of these functions takes a lock or touches shared memory by itself:
 * a caller that passes a record living in a table holds that entry's slot
 * lock, or reads a consistent copy.
 */
#ifndef PMDB_FIELDS_H
#define PMDB_FIELDS_H

#include <stddef.h>

#include "platform_id.h"
#include "pmdb.h"

namespace pmdb_fields {

/* ---- sizes and names ------------------------------------------------------ */

/* Bytes of a MAC address in the records (mac_addr, node_mac, inv_node_mac). */
constexpr size_t kMacLen = 6;
/* Punt words of a punt block; OAM slots of an interface block. */
constexpr u32 kPuntWords = 5;
constexpr u32 kOamSlots = 32;

/* The table-store table, the shared context region and the entry size of a
 * database type, indexed by pmdb_type_t. */
constexpr const char *kTableName[PMDB_NUM_TYPES] = {PMDB_IFH_TABLE_NAME, PMDB_PUNT_TABLE_NAME,
                                                    PMDB_OAM_TABLE_NAME};
constexpr const char *kRegionName[PMDB_NUM_TYPES] = {PMDB_IFH_SHM_NAME, PMDB_PUNT_SHM_NAME,
                                                     PMDB_OAM_SHM_NAME};
constexpr u32 kEntrySize[PMDB_NUM_TYPES] = {PMDB_IFH_ENTRY_SIZE, PMDB_PUNT_ENTRY_SIZE,
                                            PMDB_OAM_ENTRY_SIZE};

/* The tables' key hash: the low 16 bits of the key.  Writers register it
 * when they open a table; readers need the same rule to look keys up. */
inline u32 key_hash(u32 key) { return key & 0xFFFFu; }

/* ---- flags ---------------------------------------------------------------- */

/* Whether an event carries the body or marker `flag` (PMDB_VF_*). */
inline bool has_flag(const pmdb_event_t *ev, u32 flag) { return (ev->valid_flags & flag) != 0; }

/* Egress keying of an interface block: 1 when its punt keys are built from
 * the egress LIF, else 0 (the form the punt and extension key rules take). */
inline u32 egress_key(const pmdb_intf_info_t *in) {
    return (in->intf_flags & PMDB_INTF_EGRESS_KEY) != 0 ? 1u : 0u;
}

/* Sets or clears `bit` of an 8-bit flag word. */
inline void set_flag(u8 *flags, u8 bit, bool on) {
    *flags = static_cast<u8>(on ? (*flags | bit) : (*flags & ~bit));
}

/* ---- punt words ----------------------------------------------------------- */

/* Punt words of an event replace the stored ones only where they are
 * nonzero (a punt event never clears a word); the handle is taken as is. */
inline void merge_punt_words(pmdb_punt_info_t *dst, const pmdb_punt_info_t *src) {
    dst->ifh = src->ifh;
    for (u32 i = 0; i < kPuntWords; i++)
        if (src->punt_data[i] != 0) dst->punt_data[i] = src->punt_data[i];
}

/* ---- member port ---------------------------------------------------------- */

/* member_port splits into a low part (bits 0..9) and a high part (10..15);
 * bits 0..1 of member_port_shift belong to the membership, 2..7 are carried. */
constexpr u16 kPortLoMask = 0x3FFu;
constexpr u32 kPortHiShift = 10;
constexpr u8 kMemberShiftMask = 3u;

inline u16 port_lo_of(u16 member_port) { return static_cast<u16>(member_port & kPortLoMask); }
inline u8 port_hi_of(u16 member_port) { return static_cast<u8>(member_port >> kPortHiShift); }

/* The summary's member port fields from an interface block's member_port
 * and member_port_shift. */
inline void summarise_member_port(u16 member_port, u8 member_port_shift,
                                  dpa_pmdb_ifh_summary_t *s) {
    s->port_lo = port_lo_of(member_port);
    s->port_hi = port_hi_of(member_port);
    s->member_port_shift = static_cast<u8>(member_port_shift & kMemberShiftMask);
}

/* ---- summaries ------------------------------------------------------------ */

/* Extra summary fields for summarise_intf. */
constexpr u32 kSummaryOamId = 0x1u;    /* oam_id as stored */
constexpr u32 kSummaryBundle = 0x2u;   /* bundle_ifh */
constexpr u32 kSummaryOamSlots = 0x4u; /* each nonzero oam_slots[i] */

/* Copies each nonzero one of 32 OAM slots; a zero slot leaves dst's. */
inline void copy_oam_slots(u32 *dst, const u32 *src) {
    for (u32 i = 0; i < kOamSlots; i++)
        if (src[i] != 0) dst[i] = src[i];
}

/* The keys of an interface block that the summary carries: the LIFs, the
 * system port and where the interface sits (lc_slot, slot_id, npu_index). */
inline void summarise_keys(const pmdb_intf_info_t *in, dpa_pmdb_ifh_summary_t *s) {
    s->egress_lif = in->egress_lif;
    s->ingress_lif = in->ingress_lif;
    s->sys_port = in->sys_port;
    s->lc_slot = in->lc_slot;
    s->slot_id = in->slot_id;
    s->npu_index = in->npu_index;
}

/* The parent of an interface block's sub-interface: its port (ifh), else its
 * bundle (bundle_ifh); 0 when the block is no sub-interface (sub_ifh 0).
 * A parent's sub_intf_count is the number of IFH entries naming it so. */
inline u32 parent_ifh(const pmdb_intf_info_t *in) {
    if (in->sub_ifh == 0) return 0;
    return in->ifh != 0 ? in->ifh : in->bundle_ifh;
}

/* Fills *s from an interface block.  Always: the keys (summarise_keys),
 * intf_data_44, the member port fields, parent_ifh, and the sum_flags bits
 * egress_key, is_sub_intf and is_bundle_sub_intf (its other bits keep their
 * values).  `fields` adds kSummary* fields; every other field keeps the
 * caller's value. */
inline void summarise_intf(const pmdb_intf_info_t *in, u32 fields, dpa_pmdb_ifh_summary_t *s) {
    summarise_keys(in, s);
    s->intf_data_44 = in->intf_data_44;
    summarise_member_port(in->member_port, in->member_port_shift, s);
    const bool sub = in->sub_ifh != 0;
    set_flag(&s->sum_flags, PMDB_SUM_EGRESS_KEY, (in->intf_flags & PMDB_INTF_EGRESS_KEY) != 0);
    set_flag(&s->sum_flags, PMDB_SUM_IS_SUB_INTF, sub && (in->ifh != 0 || in->bundle_ifh != 0));
    set_flag(&s->sum_flags, PMDB_SUM_IS_BUNDLE_SUB_INTF, sub && in->bundle_ifh != 0);
    s->parent_ifh = parent_ifh(in);
    if ((fields & kSummaryOamId) != 0) s->oam_id = in->oam_id;
    if ((fields & kSummaryBundle) != 0) s->bundle_ifh = in->bundle_ifh;
    if ((fields & kSummaryOamSlots) != 0) copy_oam_slots(s->oam_slots, in->oam_slots);
}

/* ---- punt and member key rules -------------------------------------------- */

constexpr u32 kPortFieldMask = 0xFFFFu;     /* bits 0..15 of a punt key */
constexpr u32 kExtMask = 0x3FFFu;           /* 14-bit extension, bits 16..29 */
constexpr u32 kSlotFieldMask = 0x003F0000u; /* bits 16..21 of a punt key */
constexpr u32 kSlotIdMask = 63u;

/* The punt key of an interface:
 *   bits 0..15  egress_key ? (egress_lif & 0xFFFF) : ingress_lif
 *   bits 16..29 sys_port & 0x3FFF when both LIF halves are 0, else 0
 *   bit 30      egress_key
 * With egress_key set, on a node that is not a route processor with data
 * path, a slot_id other than PMDB_NO_SLOT replaces bits 16..21 with
 * slot_id & 63 (the platform is asked for every egress key, whether or not
 * a slot is given).  Bit 31 is never set here. */
inline u32 punt_key(u32 egress_key, u32 egress_lif, u16 ingress_lif, u16 sys_port, u8 slot_id) {
    const bool egress = egress_key != 0;
    const u32 egress_port = egress_lif & kPortFieldMask;
    const u32 port = egress ? egress_port : ingress_lif;
    const u32 ext = (egress_port == 0 && ingress_lif == 0) ? (sys_port & kExtMask) : 0;
    u32 key = port | (ext << 16) | (egress ? PMDB_PUNT_KEY_EGRESS : 0);
    if (!egress) return key;
    const int rp_plus_datapath = platform_am_i_rp_plus_datapath();
    if (rp_plus_datapath == 0 && slot_id != PMDB_NO_SLOT)
        key = (key & ~kSlotFieldMask) | ((slot_id & kSlotIdMask) << 16);
    return key;
}

/* The plain extension key of an extension key: without its port field and
 * egress bit. */
inline u32 plain_extension_key(u32 key) { return key & ~(kPortFieldMask | PMDB_PUNT_KEY_EGRESS); }

/* Whether a punt key is a bundle member's (bit 31). */
inline bool is_member_punt_key(u32 key) { return (key & PMDB_PUNT_KEY_MEMBER) != 0; }

/* The bundle-member punt key of a member summary: bit 31 set, bit 30 clear,
 * port field 0, extension ((port_hi << (8 + member_port_shift)) | port_lo)
 * & 0x3FFF.  The egress keying of the bundle plays no part. */
inline u32 bundle_member_punt_key(const dpa_pmdb_ifh_summary_t *summary) {
    const u32 shift = 8u + (summary->member_port_shift & kMemberShiftMask);
    const u32 port = (static_cast<u32>(summary->port_hi) << shift) | summary->port_lo;
    return PMDB_PUNT_KEY_MEMBER | ((port & kExtMask) << 16);
}

/* The egress LIF key of an interface: the low half of egress_lif with bit
 * 30 and, on a node that is not a route processor with data path,
 * slot_id & 63 in bits 16..21 - also for slot_id PMDB_NO_SLOT (unlike
 * punt_key), so the add and the removal of this key agree on every slot. */
inline u32 egress_lif_punt_key(u32 egress_lif, u8 slot_id) {
    u32 key = (egress_lif & kPortFieldMask) | PMDB_PUNT_KEY_EGRESS;
    if (platform_am_i_rp_plus_datapath() == 0) key |= (slot_id & kSlotIdMask) << 16;
    return key;
}

/* The extension key of a system port: port field 0, sys_port & 0x3FFF in
 * bits 16..29, bit 30 = egress_key. */
inline u32 extension_key(u32 egress_key, u16 sys_port) {
    return ((sys_port & kExtMask) << 16) | (egress_key != 0 ? PMDB_PUNT_KEY_EGRESS : 0);
}

/* ---- OAM keys ------------------------------------------------------------- */

/* Low bits of the OAM keys of an interface (bits 5..9 carry its slot). */
constexpr u32 kOamKeyPort = 8u;        /* key A: the OAM port's session of a slot */
constexpr u32 kOamKeySession = 24u;    /* key B / redundancy: a slot's own session */
constexpr u32 kOamKeyInterface = 28u;  /* the interface's own entry */
constexpr u32 kOamSlotShift = 5;

/* An OAM key: an identifier in bits 16..31 (a 32-bit shift keeps its low
 * half), the OAM slot index in bits 10..14, and `low`. */
inline u32 oam_key(u32 id, u32 index, u32 low) { return (id << 16) | (index << 10) | low; }

/* The key of an interface's own OAM entry. */
inline u32 interface_oam_key(u32 oam_id) { return oam_key(oam_id, 0, kOamKeyInterface); }

}  // namespace pmdb_fields

#endif
