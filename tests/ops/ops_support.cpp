// Helpers of the single-entry operation tests (see ops_support.h).
#include "ops_support.h"

#include <gtest/gtest.h>

#include <cstring>

#include "host/pm_fault.h"
#include "pmdb_ops.h"
#include "tabra.h"

namespace ops_test {

void PutIfh(u32 key, const std::function<void(pmdb_ifh_entry_t &)> &fill) {
    const cerrno rc = pmdb::test::WriteEntry(PMDB_TYPE_IFH, key, [&](void *p) {
        auto *e = static_cast<pmdb_ifh_entry_t *>(p);
        e->key = key;
        fill(*e);
    });
    EXPECT_EQ(rc, 0u) << "writing IFH entry " << key;
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

namespace {

template <typename E>
E ReadOrFail(pmdb_type_t type, u32 key) {
    E e;
    memset(&e, 0, sizeof e);
    EXPECT_TRUE(pmdb::test::CopyEntry(type, key, &e, sizeof e)) << "no entry " << std::hex << key;
    return e;
}

void Recorder(u32 ifh, u32 slot, u32 state, u32 removed) {
    OorCalls().push_back({ifh, slot, state, removed});
}

}  // namespace

pmdb_ifh_entry_t Ifh(u32 key) { return ReadOrFail<pmdb_ifh_entry_t>(PMDB_TYPE_IFH, key); }
pmdb_punt_entry_t Punt(u32 key) { return ReadOrFail<pmdb_punt_entry_t>(PMDB_TYPE_PUNT, key); }
pmdb_oam_entry_t Oam(u32 key) { return ReadOrFail<pmdb_oam_entry_t>(PMDB_TYPE_OAM, key); }

bool TableExists(const char *table_name) {
    tabra_hdl_t table = nullptr;
    return tabra_attach(table_name, &table) == 0;
}

pmdb_event_t IntfEvent(u8 type, u32 event_id, u32 ifh, u32 bundle_ifh, u16 member_port,
                       u8 member_port_shift) {
    pmdb_event_t ev;
    memset(&ev, 0, sizeof ev);
    ev.event_type = type;
    ev.valid_flags = PMDB_VF_INTF;
    ev.event_id = event_id;
    ev.intf_info.ifh = ifh;
    ev.intf_info.bundle_ifh = bundle_ifh;
    ev.intf_info.member_port = member_port;
    ev.intf_info.member_port_shift = member_port_shift;
    return ev;
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

void RecordOorCalls() {
    OorCalls().clear();
    dpa_pmdb_set_oor_cb(Recorder);
}

std::vector<OorCall> &OorCalls() {
    static std::vector<OorCall> calls;
    return calls;
}

void OpsTest::TearDown() {
    dpa_pmdb_set_oor_cb(nullptr);
    PmdbTest::TearDown();
}

}  // namespace ops_test
