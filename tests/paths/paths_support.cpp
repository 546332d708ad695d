// Helpers of the whole-interface path tests (see paths_support.h).
#include "paths_support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "host/settings.h"
#include "pmdb_fields.h"
#include "pmdb_reader.h"

namespace paths_test {

pmdb_intf_info_t Info(u32 n, bool egress_key) {
    pmdb_intf_info_t in;
    memset(&in, 0, sizeof in);
    in.egress_lif = 0x10000u | (0x1000u + n * 16);
    in.ingress_lif = static_cast<u16>(0x2000u + n * 16);
    in.sys_port = static_cast<u16>(0x100u + n);
    in.oam_id = 0x300u + n;
    in.oam_slots[2] = 0x400u + n;
    in.oam_slots[31] = 0x500u + n;
    in.slot_id = 3;
    in.lc_slot = 5;
    in.npu_index = 1;
    in.node_id = 1;
    in.intf_type = 1;
    in.intf_flags = egress_key ? PMDB_INTF_EGRESS_KEY : 0;
    return in;
}

pmdb_event_t Event(u8 type, const pmdb_intf_info_t &in, u32 event_id) {
    pmdb_event_t ev = card::BlankEvent(type, PMDB_VF_INTF, event_id);
    ev.intf_info = in;
    return ev;
}

pmdb_event_t PuntEvent(u8 type, u32 ifh, u32 event_id) {
    pmdb_event_t ev = card::PuntEvent(type, ifh, {0x51, 0x52, 0x53, 0x54, 0x55});
    ev.event_id = event_id;
    return ev;
}

namespace {

// Where each type keeps its change stamp (event_id and last_update, 20 bytes).
constexpr size_t kStampAt[PMDB_NUM_TYPES] = {12, 4, 4};

struct WalkCtx {
    int type;
    bool stamps;
    std::map<u32, std::vector<u8>> *into;
};

int Keep(void *ctx, u32 key, const void *entry) {
    auto *w = static_cast<WalkCtx *>(ctx);
    const auto *p = static_cast<const u8 *>(entry);
    std::vector<u8> bytes(p, p + pmdb_fields::kEntrySize[w->type]);
    if (!w->stamps) memset(bytes.data() + kStampAt[w->type], 0, 20);
    (*w->into)[key] = bytes;
    return 0;
}

std::vector<u32> g_sub_list;
bool g_sub_list_set = false;

}  // namespace

Tables Snapshot(bool stamps) {
    Tables t;
    for (int type = 0; type < PMDB_NUM_TYPES; type++) {
        WalkCtx ctx{type, stamps, &t.t[type]};
        const cerrno rc = dpa_pmdb_walk(static_cast<pmdb_type_t>(type), Keep, &ctx);
        EXPECT_TRUE(rc == PMDB_OK || rc == PMDB_ENOTFOUND) << "walk of type " << type << ": " << rc;
    }
    return t;
}

std::string Diff(const Tables &before, const Tables &after) {
    static const char *kName[] = {"IFH", "PUNT", "OAM"};
    std::ostringstream out;
    out << std::hex;
    for (int type = 0; type < PMDB_NUM_TYPES; type++) {
        for (const auto &[key, bytes] : after.t[type]) {
            auto it = before.t[type].find(key);
            if (it == before.t[type].end())
                out << kName[type] << " +0x" << key << " ";
            else if (it->second != bytes)
                out << kName[type] << " ~0x" << key << " ";
        }
        for (const auto &[key, bytes] : before.t[type])
            if (after.t[type].count(key) == 0) out << kName[type] << " -0x" << key << " ";
    }
    return out.str();
}

bool Has(pmdb_type_t type, u32 key) {
    return !card::EntryBytes(type, key).empty();
}

std::set<u32> Keys(pmdb_type_t type) {
    std::set<u32> keys;
    for (const auto &[key, bytes] : Snapshot().t[type]) keys.insert(key);
    return keys;
}

pmdb_intf_info_t Worked(bool egress_key) {
    pmdb_intf_info_t in = Info(0, egress_key);
    in.egress_lif = 0x1234;
    in.ingress_lif = 0x567;
    in.sys_port = 0xABC;
    in.npu_index = 0;
    in.oam_id = 0x99;
    memset(in.oam_slots, 0, sizeof in.oam_slots);
    in.oam_slots[2] = 0x42;
    return in;
}

void Set(const char *name, int64_t value) { ASSERT_EQ(halvo_host_set(name, value), 0) << name; }

void OverrideSubList(const std::vector<u32> &handles) {
    g_sub_list = handles;
    g_sub_list_set = true;
}

}  // namespace paths_test

extern "C" cerrno __real_dpa_pmdb_get_bundle_sub_ifh_entries(u32, u32 *, u32);
extern "C" cerrno __wrap_dpa_pmdb_get_bundle_sub_ifh_entries(u32 bundle_ifh, u32 *handles,
                                                              u32 capacity) {
    using namespace paths_test;
    if (!g_sub_list_set) return __real_dpa_pmdb_get_bundle_sub_ifh_entries(bundle_ifh, handles, capacity);
    for (u32 i = 0; i < capacity && i < g_sub_list.size(); i++) handles[i] = g_sub_list[i];
    return PMDB_OK;
}
