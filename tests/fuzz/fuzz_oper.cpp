/*
 * fuzz_oper.cpp - event records of every type and flag combination handed to
 * dpa_pmdb_oper against a small card.
 *
 * Input: one byte of settings (OAM, LCVM redundancy, egress punt entries,
 * route processor with a data path), then per event: type, valid_flags,
 * node, picks of the interface, sub-interface and bundle handles from a
 * small set (so that events meet the entries earlier events made), the
 * interface type, the punt handle, and (offset, byte) patches of the body.
 *
 * What must hold: no crash or sanitizer report; after every event the
 * repair puts right every bundle whose counters disagree with its members
 * (an event's interface block is copied whole into its IFH entry, counters
 * included, so an event may leave them apart); after the input the three
 * tables pass the table store's check.  Then every entry is removed.
 */
#include "fuzz_input.h"
#include "host/settings.h"
#include "host_tabra.h"
#include "pmdb.h"
#include "pmdb_counts.h"
#include "pmdb_db_test.h"
#include "pmdb_reader.h"

namespace {

constexpr size_t kMaxEvents = 24;
constexpr u32 kHandles[] = {0,      0x1001, 0x1002, 0x1003, 0x3001,
                            0x3002, 0x3101, 0x3102, 0x1101, 0x9999};
constexpr u16 kIntfTypes[] = {0, 1, PMDB_INTF_TYPE_NODE_LOCAL, PMDB_INTF_TYPE_BVI};
const char *const kTables[] = {PMDB_IFH_TABLE_NAME, PMDB_PUNT_TABLE_NAME, PMDB_OAM_TABLE_NAME};

void Configure(fuzz::Input &in) {
    const uint8_t b = in.Byte();
    halvo_host_set("oam_enable", b & 1);
    halvo_host_set("lcvm_redundancy", (b >> 1) & 1);
    halvo_host_set("need_egress_punt", (b >> 2) & 1);
    platform_host_set_rp_plus_datapath((b >> 3) & 1);
}

pmdb_event_t NextEvent(fuzz::Input &in, u32 *node, u32 id) {
    pmdb_event_t ev;
    memset(&ev, 0, sizeof ev);
    const uint8_t t = in.Byte();
    ev.event_type = t < 240 ? t % 24 : t;
    ev.valid_flags = in.Byte();
    ev.event_id = id;
    *node = in.Byte() % 4;
    ev.intf_info.ifh = in.Pick(kHandles);
    ev.intf_info.sub_ifh = in.Pick(kHandles);
    ev.intf_info.bundle_ifh = in.Pick(kHandles);
    ev.intf_info.intf_type = in.Pick(kIntfTypes);
    const u32 punt_ifh = in.Pick(kHandles);
    if ((ev.valid_flags & PMDB_VF_PUNT) != 0) ev.punt_info.ifh = punt_ifh;
    for (uint8_t n = in.Byte() % 32; n > 0; n--) {
        const uint8_t off = in.Byte();
        ev.body[off] = in.Byte();
    }
    return ev;
}

void CheckTables() {
    for (const char *name : kTables) {
        tabra_hdl_t h = nullptr;
        if (tabra_attach(name, &h) != 0) continue;
        const std::string bad = host_test::CheckReport(h);
        if (!bad.empty()) fuzz::Broken(std::string("table check: ") + name + ": " + bad);
    }
}

void CountsDisagree(void *repaired, const dpa_pmdb_bundle_counts_t *c, cerrno status) {
    if (repaired == nullptr && status == 0) return;
    fprintf(stderr,
            "fuzz: bundle 0x%x stores %u members (%u, %u out of resource), has %u (%u, %u)\n",
            c->bundle_ifh, c->member_count, c->oor_members_1, c->oor_members_2, c->members,
            c->level_1, c->level_2);
    fuzz::Broken(repaired != nullptr ? "bundle counters wrong after repair" : "repair failed",
                 c->bundle_ifh, status);
}

/* Repairs what the event left apart; then nothing may disagree. */
void CheckCounts() {
    cerrno st = dpa_pmdb_repair_bundle_counts(0, CountsDisagree, nullptr);
    if (st == 0) st = dpa_pmdb_check_bundle_counts(0, CountsDisagree, &st);
    if (st != 0 && st != PMDB_ENOTFOUND) fuzz::Broken("bundle counter check", st);
}

[[maybe_unused]] void Setup() {
    fuzz::OwnNamespace("fzo");
    vesk_host_set_records(64);
}

}  // namespace

int FuzzOper(const uint8_t *data, size_t size) {
    fuzz::Input in(data, size);
    Configure(in);
    for (size_t i = 0; i < kMaxEvents && !in.empty(); i++) {
        u32 node = 0;
        pmdb_event_t ev = NextEvent(in, &node, static_cast<u32>(i + 1));
        dpa_pmdb_oper(&ev, node);
        CheckCounts();
    }
    CheckTables();
    if (!pmdb::test::RemoveAllEntries()) fuzz::Broken("card not cleared");
    return 0;
}

PMDB_FUZZ_TARGET(FuzzOper, Setup)
