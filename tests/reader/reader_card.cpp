// The hand-built card of the reader tests, written through the library's
// entry change cycle.
#include "reader_card.h"

#include <string.h>

#include <algorithm>

#include "pmdb_cycle.h"

namespace rcard {

pmdb_intf_info_t Intf(u32 ifh, u32 sub, u32 bundle, u32 node) {
    pmdb_intf_info_t info;
    memset(&info, 0, sizeof info);
    const u32 self = sub != 0 ? sub : (ifh != 0 ? ifh : bundle);
    info.ifh = ifh;
    info.sub_ifh = sub;
    info.bundle_ifh = bundle;
    info.egress_lif = 0x8000u | (self & 0xFFFu);
    info.ingress_lif = static_cast<u16>(self & 0xFFFu);
    info.sys_port = static_cast<u16>(self & 0x3FFFu);
    info.node_id = node;
    info.intf_type = 1;
    info.sub_flags = sub != 0 ? PMDB_SUB_VALID : 0;
    for (int i = 0; i < 6; i++) info.mac_addr[i] = static_cast<u8>(self >> (i % 4 * 8));
    memset(info.opaque_20, static_cast<int>(self & 0xFF), sizeof info.opaque_20);
    info.oam_slots[31] = self;
    return info;
}

cerrno PutIfh(u32 key, const pmdb_intf_info_t &info, u8 ifh_flags, u8 member_count) {
    return WriteEntry(PMDB_TYPE_IFH, key, [&](void *p) {
        auto *e = static_cast<pmdb_ifh_entry_t *>(p);
        e->key = key;
        e->ifh_flags = ifh_flags;
        e->member_count = member_count;
        e->intf_info = info;
        e->punt_info.ifh = key;
        e->punt_info.punt_data[0] = key ^ 0xA5A5u;
        pmdb_stamp(&e->event_id, &e->last_update, key);
    });
}

cerrno PutPunt(u32 key, const pmdb_intf_info_t &info) {
    return WriteEntry(PMDB_TYPE_PUNT, key, [&](void *p) {
        auto *e = static_cast<pmdb_punt_entry_t *>(p);
        e->key = key;
        e->intf_info = info;
        e->punt_info.punt_data[4] = key;
        pmdb_stamp(&e->event_id, &e->last_update, key);
    });
}

cerrno PutOam(u32 key, u32 oam_ifh) {
    return WriteEntry(PMDB_TYPE_OAM, key, [&](void *p) {
        auto *e = static_cast<pmdb_oam_entry_t *>(p);
        e->key = key;
        e->oam_info.oam_ifh = oam_ifh;
        e->oam_info.oam_word = key >> 16;
        pmdb_stamp(&e->event_id, &e->last_update, key);
    });
}

void BuildCard() {
    const pmdb_intf_info_t p1 = Intf(P1, 0, 0, kNode1), p2 = Intf(P2, 0, B, kNode1),
                           p3 = Intf(P3, 0, B, kNode2), p4 = Intf(P4, 0, B, kNode2),
                           p5 = Intf(P5, 0, B, kNode2), p6 = Intf(P6, 0, B2, kNode1),
                           s1 = Intf(P1, S1, 0, kNode1), b = Intf(0, 0, B, kBundleNode),
                           b2 = Intf(0, 0, B2, kBundleNode), bs1 = Intf(0, BS1, B, kBundleNode),
                           bs2 = Intf(0, BS2, B, kBundleNode), bs2n1 = Intf(0, BS2, B, kNode1),
                           bs3 = Intf(0, BS3, B2, kBundleNode);
    PutIfh(P1, p1);
    PutIfh(P2, p2, PMDB_IFH_MEMBER_ACTIVE);
    PutIfh(P3, p3, PMDB_IFH_MEMBER_ACTIVE);
    PutIfh(P4, p4, PMDB_IFH_MEMBER_ACTIVE);
    PutIfh(P5, p5);
    PutIfh(P6, p6, PMDB_IFH_MEMBER_ACTIVE);
    PutIfh(S1, s1);
    PutIfh(B, b, 0, 3);
    PutIfh(B2, b2, 0, 1);
    PutIfh(BS1, bs1);
    PutIfh(BS2, Intf(0, BS2, B, kNode1));
    PutIfh(BS3, bs3);
    for (u32 key : {0x101u, 0x110000u, 0x40008101u}) PutPunt(key, p1);
    for (u32 key : {0x102u, 0x120000u, 0x40008102u, 0x80050000u}) PutPunt(key, p2);
    for (u32 key : {0x103u, 0x40008103u, 0x80060000u}) PutPunt(key, p3);
    for (u32 key : {0x104u, 0x80070000u}) PutPunt(key, p4);
    PutPunt(0x105, p5);
    for (u32 key : {0x106u, 0x80080000u}) PutPunt(key, p6);
    PutPunt(0x201, s1);
    PutPunt(0x500, b);
    PutPunt(0x510, b2);
    PutPunt(0x601, bs1);
    PutPunt(0x602, bs2);
    PutPunt(0x40000602, bs2n1);
    PutPunt(0x611, bs3);
    PutOam(0x81010008, P1);
    PutOam(0x0042001C, P1);
    PutOam(0x0043001C, S1);
    PutOam(0x0050001C, B);
}

std::vector<u32> InSlotOrder(pmdb_type_t type, std::vector<u32> keys) {
    std::sort(keys.begin(), keys.end(),
              [type](u32 a, u32 b) { return SlotOf(type, a) < SlotOf(type, b); });
    return keys;
}

}  // namespace rcard
