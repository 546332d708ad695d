#include "writer_support.h"

#include <gtest/gtest.h>

#include <cstring>

#include "host/settings.h"
#include "pmdb_reader.h"
#include "pmdb_db_test.h"
#include "pmdb_ops.h"

namespace writer_test {

namespace {
std::vector<AibCall> g_aib_calls;
}  // namespace

pmdb_event_t PortEvent(uint8_t type, uint32_t ifh, uint32_t node_id) {
    pmdb_event_t ev;
    memset(&ev, 0, sizeof ev);
    ev.event_type = type;
    ev.valid_flags = PMDB_VF_INTF;
    ev.event_id = 1000 + type;
    ev.intf_info.ifh = ifh;
    ev.intf_info.node_id = node_id;
    ev.intf_info.egress_lif = 0x10000 + (ifh & 0xFFFF);
    ev.intf_info.ingress_lif = static_cast<uint16_t>(0x200 + (ifh & 0xFF));
    ev.intf_info.sys_port = 0x123;
    ev.intf_info.intf_data_44 = 44;
    ev.intf_info.slot_id = 3;
    ev.intf_info.lc_slot = 2;
    ev.intf_info.npu_index = 1;
    ev.intf_info.member_port = static_cast<uint16_t>((5u << 10) | 0x2AB);
    ev.intf_info.member_port_shift = 0xFE; /* only bits 0..1 reach the summary */
    ev.intf_info.intf_type = 1;
    return ev;
}

pmdb_event_t PuntEvent(uint8_t type, uint32_t punt_ifh, std::array<uint32_t, 5> words) {
    pmdb_event_t ev;
    memset(&ev, 0, sizeof ev);
    ev.event_type = type;
    ev.valid_flags = PMDB_VF_PUNT;
    ev.event_id = 2000 + type;
    ev.punt_info.ifh = punt_ifh;
    ev.punt_info.intf_type = 1;
    for (size_t i = 0; i < words.size(); i++) ev.punt_info.punt_data[i] = words[i];
    return ev;
}

pmdb_event_t BviEvent(uint32_t ifh, uint32_t node_id) {
    pmdb_event_t ev = PortEvent(PMDB_EV_BUNDLE_ADD, ifh, node_id);
    ev.intf_info.intf_type = PMDB_INTF_TYPE_BVI;
    const uint8_t stale[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, static_cast<uint8_t>(node_id)};
    memcpy(ev.intf_info.node_mac, stale, sizeof stale);
    return ev;
}

void SetNodeMac(uint32_t node, const Mac &mac) {
    ASSERT_EQ(platform_host_set_node_mac(node, mac.data()), 0);
}

Mac MacOf(const uint8_t *bytes) {
    Mac m;
    memcpy(m.data(), bytes, m.size());
    return m;
}

pmdb_ifh_entry_t ReadEntry(uint32_t key) {
    pmdb_ifh_entry_t e;
    memset(&e, 0, sizeof e);
    EXPECT_EQ(dpa_pmdb_copy_entry(PMDB_TYPE_IFH, key, &e, sizeof e), 0u) << "IFH key " << key;
    return e;
}

bool EntryPresent(uint32_t key) {
    pmdb_ifh_entry_t e;
    return dpa_pmdb_copy_entry(PMDB_TYPE_IFH, key, &e, sizeof e) == 0;
}

bool RawEntry(uint32_t key, pmdb_ifh_entry_t *out) {
    return pmdb::test::CopyEntry(PMDB_TYPE_IFH, key, out, sizeof *out);
}

dnx_pmdb_glbls_t Globals() {
    dnx_db_hdl_t *h = nullptr;
    dnx_pmdb_glbls_t g;
    memset(&g, 0, sizeof g);
    EXPECT_EQ(dpa_chk_shrd_ctx_open(nullptr, &h, PMDB_TYPE_IFH), 0u);
    if (h != nullptr) memcpy(&g, &h->shrd_ctx->glbls, sizeof g);
    return g;
}

std::vector<uint32_t> InventoryNodes() {
    std::vector<uint32_t> ids;
    for (const pm_port_inv_entry_t *e = pm_port_inv_entry_get(); e != nullptr; e = e->next)
        ids.push_back(e->node_id);
    return ids;
}

void ClearInventory() {
    while (pm_port_inv_entry_get() != nullptr) pm_port_inv_entry_remove(pm_port_inv_entry_get()->node_id);
}

void AddOk(uint32_t ifh, const pmdb_event_t &ev, uint16_t node) {
    dpa_pmdb_ifh_summary_t summary{};
    pmdb_punt_info_t punt{};
    i32 slot = -1;
    ASSERT_EQ(dpa_pmdb_add_ifh_entry(ifh, &ev, &slot, &summary, &punt, nullptr, node), 0u)
        << "ifh " << ifh;
}

void WriterTest::SetUp() {
    PmdbTest::SetUp();
    ClearInventory();
    dpa_pmdb_set_aib_update_cb(nullptr);
    g_aib_calls.clear();
    MarkTraces();
}

void WriterTest::TearDown() {
    ClearInventory();
    dpa_pmdb_set_aib_update_cb(nullptr);
    PmdbTest::TearDown();
}

void AibRecorder(uint32_t *handles, uint32_t *status, uint16_t count) {
    g_aib_calls.push_back({std::vector<uint32_t>(handles, handles + count),
                           std::vector<uint32_t>(status, status + count)});
}

void RecordAibCalls() { dpa_pmdb_set_aib_update_cb(AibRecorder); }

const std::vector<AibCall> &AibCalls() { return g_aib_calls; }

}  // namespace writer_test
