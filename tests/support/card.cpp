// The operation tests' line card (see card.h).
#include "card.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

#include "host/settings.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "tabra.h"

namespace card {

namespace {

std::vector<AibCall> g_aib_calls;

template <typename E>
E ReadOrFail(pmdb_type_t type, u32 key) {
    E e{};
    EXPECT_TRUE(CopyEntry(type, key, &e, sizeof e)) << "no entry " << std::hex << key;
    return e;
}

void ClearInventory() {
    while (pm_port_inv_entry_get() != nullptr)
        pm_port_inv_entry_remove(pm_port_inv_entry_get()->node_id);
}

void ClearCallbacks() {
    dpa_pmdb_set_aib_update_cb(nullptr);
    dpa_pmdb_set_oor_cb(nullptr);
    g_aib_calls.clear();
    OorCalls().clear();
}

}  // namespace

pmdb_event_t BlankEvent(u8 type, u8 flags, u32 event_id) {
    pmdb_event_t ev;
    memset(&ev, 0, sizeof ev);
    ev.event_type = type;
    ev.valid_flags = flags;
    ev.event_id = event_id;
    return ev;
}

pmdb_event_t PortEvent(u8 type, u32 ifh, u32 node_id) {
    pmdb_event_t ev = BlankEvent(type, PMDB_VF_INTF, 1000 + type);
    pmdb_intf_info_t &in = ev.intf_info;
    in.ifh = ifh;
    in.node_id = node_id;
    in.egress_lif = 0x10000 + (ifh & 0xFFFF);
    in.ingress_lif = static_cast<u16>(0x200 + (ifh & 0xFF));
    in.sys_port = 0x123;
    in.intf_data_44 = 44;
    in.slot_id = 3;
    in.lc_slot = 2;
    in.npu_index = 1;
    in.member_port = static_cast<u16>((5u << 10) | 0x2AB);
    in.member_port_shift = 0xFE; /* only bits 0..1 reach a summary */
    in.intf_type = 1;
    return ev;
}

pmdb_event_t MemberEvent(u8 type, u32 event_id, u32 ifh, u32 bundle_ifh, u16 member_port,
                         u8 member_port_shift) {
    pmdb_event_t ev = BlankEvent(type, PMDB_VF_INTF, event_id);
    ev.intf_info.ifh = ifh;
    ev.intf_info.bundle_ifh = bundle_ifh;
    ev.intf_info.member_port = member_port;
    ev.intf_info.member_port_shift = member_port_shift;
    return ev;
}

pmdb_event_t PuntEvent(u8 type, u32 punt_ifh, std::array<u32, 5> words) {
    pmdb_event_t ev = BlankEvent(type, PMDB_VF_PUNT, 2000 + type);
    ev.punt_info.ifh = punt_ifh;
    ev.punt_info.intf_type = 1;
    for (size_t i = 0; i < words.size(); i++) ev.punt_info.punt_data[i] = words[i];
    return ev;
}

pmdb_event_t OamEvent(u8 type, u32 event_id, u32 key, u8 fill) {
    pmdb_event_t ev = BlankEvent(type, PMDB_VF_OAM, event_id);
    ev.oam.oam_key = key;
    memset(&ev.oam.oam_info, fill, sizeof ev.oam.oam_info);
    return ev;
}

pmdb_event_t BviEvent(u32 ifh, u32 node_id) {
    pmdb_event_t ev = PortEvent(PMDB_EV_BUNDLE_ADD, ifh, node_id);
    ev.intf_info.intf_type = PMDB_INTF_TYPE_BVI;
    const uint8_t stale[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, static_cast<uint8_t>(node_id)};
    memcpy(ev.intf_info.node_mac, stale, sizeof stale);
    return ev;
}

void PutIfh(u32 key, const std::function<void(pmdb_ifh_entry_t &)> &fill) {
    const cerrno rc = WriteEntry(PMDB_TYPE_IFH, key, [&](void *p) {
        auto *e = static_cast<pmdb_ifh_entry_t *>(p);
        e->key = key;
        fill(*e);
    });
    EXPECT_EQ(rc, 0u) << "writing IFH entry " << key;
}

void PutRecord(pmdb_type_t type, u32 key, const void *record) {
    const cerrno rc =
        WriteEntry(type, key, [&](void *p) { memcpy(p, record, pmdb_fields::kEntrySize[type]); });
    EXPECT_EQ(rc, 0u) << "writing entry " << key << " of type " << type;
}

void PutPort(u32 key, u32 oor_state) {
    PutIfh(key, [&](pmdb_ifh_entry_t &e) {
        e.intf_info.ifh = key;
        e.intf_info.egress_lif = 0x10000u | (key & 0xFFFFu);
        e.intf_info.ingress_lif = static_cast<u16>(key + 1);
        e.intf_info.sys_port = static_cast<u16>(key & 0x3FFFu);
        e.intf_info.oor_state = oor_state;
    });
}

void PutBundle(u32 key, u16 members_1, u16 members_2) {
    PutIfh(key, [&](pmdb_ifh_entry_t &e) {
        e.intf_info.bundle_ifh = key;
        e.intf_info.egress_lif = 0xB0000u | (key & 0xFFFFu);
        e.intf_info.ingress_lif = static_cast<u16>(key + 2);
        e.intf_info.oor_members_1 = members_1;
        e.intf_info.oor_members_2 = members_2;
    });
}

void PutMember(u32 key, u32 bundle, u32 oor_state) {
    PutPort(key, oor_state);
    PutIfh(key, [&](pmdb_ifh_entry_t &e) {
        e.ifh_flags = bundle != 0 ? PMDB_IFH_MEMBER_ACTIVE : 0;
        e.intf_info.bundle_ifh = bundle;
        e.intf_info.member_port_shift = 0xFC;
        e.punt_info.punt_data[0] = 0xAA;
        e.punt_info.punt_data[4] = 0xEE;
    });
}

pmdb_ifh_entry_t Ifh(u32 key) { return ReadOrFail<pmdb_ifh_entry_t>(PMDB_TYPE_IFH, key); }
pmdb_punt_entry_t Punt(u32 key) { return ReadOrFail<pmdb_punt_entry_t>(PMDB_TYPE_PUNT, key); }
pmdb_oam_entry_t Oam(u32 key) { return ReadOrFail<pmdb_oam_entry_t>(PMDB_TYPE_OAM, key); }

Oor OorOf(u32 key) {
    const pmdb_intf_info_t in = Ifh(key).intf_info;
    return {in.oor_members_1, in.oor_members_2, in.oor_state, in.oor_reason, in.oor_changes};
}

Bytes EntryBytes(pmdb_type_t type, u32 key) {
    Bytes b(pmdb_fields::kEntrySize[type]);
    if (!CopyEntry(type, key, b.data(), static_cast<u32>(b.size()))) b.clear();
    return b;
}

Bytes BytesOf(const void *p, size_t n) {
    const auto *b = static_cast<const unsigned char *>(p);
    return Bytes(b, b + n);
}

timespec Now() {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return t;
}

bool Within(const timespec &t, const timespec &a, const timespec &b) {
    auto ns = [](const timespec &x) { return x.tv_sec * 1000000000LL + x.tv_nsec; };
    return ns(a) <= ns(t) && ns(t) <= ns(b);
}

pellin_mutex_type *SlotLock(pmdb_type_t type, u32 key) {
    dnx_db_hdl_t *h = nullptr;
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &h, type), 0u);
    const i32 slot = SlotOf(type, key);
    EXPECT_GE(slot, 0) << "no entry " << key;
    return h == nullptr || slot < 0 ? nullptr : &h->shrd_ctx->entry_lock[slot];
}

void RecordOorCalls() {
    OorCalls().clear();
    dpa_pmdb_set_oor_cb([](u32 ifh, u32 slot, u32 state, u32 removed) {
        OorCalls().push_back({ifh, slot, state, removed});
    });
}

std::vector<OorCall> &OorCalls() {
    static std::vector<OorCall> calls;
    return calls;
}

void AibRecorder(u32 *handles, u32 *status, u16 count) {
    g_aib_calls.push_back(
        {std::vector<u32>(handles, handles + count), std::vector<u32>(status, status + count)});
}

void RecordAibCalls() { dpa_pmdb_set_aib_update_cb(AibRecorder); }

const std::vector<AibCall> &AibCalls() { return g_aib_calls; }

void SetNodeMac(u32 node, const Mac &mac) {
    ASSERT_EQ(platform_host_set_node_mac(node, mac.data()), 0);
}

Mac MacOf(const uint8_t *bytes) {
    Mac m;
    memcpy(m.data(), bytes, m.size());
    return m;
}

dnx_pmdb_glbls_t Globals() {
    dnx_db_hdl_t *h = nullptr;
    dnx_pmdb_glbls_t g;
    memset(&g, 0, sizeof g);
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &h, PMDB_TYPE_IFH), 0u);
    if (h != nullptr) memcpy(&g, &h->shrd_ctx->glbls, sizeof g);
    return g;
}

std::vector<u32> InventoryNodes() {
    std::vector<u32> ids;
    for (const pm_port_inv_entry_t *e = pm_port_inv_entry_get(); e != nullptr; e = e->next)
        ids.push_back(e->node_id);
    return ids;
}

void AddOk(u32 ifh, const pmdb_event_t &ev, u16 node) {
    dpa_pmdb_ifh_summary_t summary{};
    pmdb_punt_info_t punt{};
    i32 slot = -1;
    ASSERT_EQ(dpa_pmdb_add_ifh_entry(ifh, &ev, &slot, &summary, &punt, nullptr, node), 0u)
        << "ifh " << ifh;
}

void CardTest::SetUp() {
    PmdbTest::SetUp();
    ClearInventory();
    ClearCallbacks();
    MarkTraces();
}

void CardTest::TearDown() {
    ClearInventory();
    ClearCallbacks();
    PmdbTest::TearDown();
}

}  // namespace card

bool operator==(const dpa_pmdb_ifh_summary_t &a, const dpa_pmdb_ifh_summary_t &b) {
    auto fields = [](const dpa_pmdb_ifh_summary_t &s) {
        return std::tie(s.egress_lif, s.oam_id, s.bundle_egress_lif, s.sys_port, s.intf_data_44,
                        s.lc_slot, s.slot_id, s.npu_index, s.ingress_lif, s.bundle_ingress_lif,
                        s.port_lo, s.port_hi, s.member_port_shift, s.sum_flags, s.parent_ifh,
                        s.bundle_ifh);
    };
    return fields(a) == fields(b) && memcmp(a.punt_data, b.punt_data, sizeof a.punt_data) == 0 &&
           memcmp(a.oam_slots, b.oam_slots, sizeof a.oam_slots) == 0;
}
