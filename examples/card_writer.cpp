// card_writer: puts a small line card into the port mapper database the way
// a port mapper does, handing one event record at a time to the library's
// event entry point (dpa_pmdb_oper; out-of-resource levels and node
// departures through their own entry points), and prints one line per step.  Other
// processes (pmdbctl) then read the card from shared memory.
//
//   card_writer build              builds the whole card (below)
//   card_writer hold IFH           takes the entry lock of IFH's entry,
//                                  says so on stdout, and waits to be killed
//   card_writer oor IFH LEVEL      records out-of-resource LEVEL (0..2) for
//                                  IFH, as the chip's resource handler does
//
// The card (handles in hex):
//
//   node 1, high-scale    ports 1001 and 1002
//   node 2                ports 2001 and 2002, BVI 4001
//   bundle 3001           members 1001 (node 1) and 2001 (node 2)
//
// The steps of `build`, in order: the four ports and their punt entries;
// the bundle with its punt entry and its interface OAM entry; the two
// members joining; member 1001 running out of resource and then leaving and
// rejoining the bundle (the out-of-resource callback prints what it is told);
// the BVI on node 2; node 2 leaving the inventory, so that the BVI moves to
// node 1 (the AIB update callback prints the handles); the removal of one
// punt entry.  The inventory list and both callbacks belong to the process,
// so the whole card is built by one process.
//
// Exit status: 0 when every step gave the status and the result it should,
// 1 otherwise (the step is named on stderr), 2 for bad arguments.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform_id.h"
#include "pmdb.h"
#include "pmdb_fields.h"
#include "pmdb_ops.h"
#include "pmdb_reader.h"
#include "tabra.h"

namespace {

// ---- the card --------------------------------------------------------------

// Interface types: 37 and 78 are special to the library; any other value is
// an ordinary interface.
constexpr u16 kTypePort = 1;
constexpr u16 kTypeBundle = 2;

struct Intf {
    const char *what;
    u32 ifh;
    bool bundle;
    u32 node;
    i32 node_index;
    u8 high_scale;
    u32 egress_lif;
    u16 ingress_lif;
    u16 sys_port;
    u8 slot_id;
    u16 intf_type;
    u32 oam_id;
};

// Ports key their punt entries by ingress LIF (egress_key clear): for such a
// new port the add path removes no previous keys and makes no OAM entries.
// clang-format off
//                        what      ifh     bundle node idx hs  egress   ingress sys_port slot          intf_type           oam_id
constexpr Intf kPort1001 {"port",   0x1001, false, 1,   1,  1,  0x2001, 0x0101, 0x0011,  3,            kTypePort,          0};
constexpr Intf kPort1002 {"port",   0x1002, false, 1,   1,  1,  0x2002, 0x0102, 0x0012,  3,            kTypePort,          0};
constexpr Intf kPort2001 {"port",   0x2001, false, 2,   2,  0,  0x2003, 0x0201, 0x0021,  5,            kTypePort,          0};
constexpr Intf kPort2002 {"port",   0x2002, false, 2,   2,  0,  0x2004, 0x0202, 0x0022,  5,            kTypePort,          0};
constexpr Intf kBundle3001{"bundle", 0x3001, true,  1,   1,  1,  0x2100, 0x0301, 0,       PMDB_NO_SLOT, kTypeBundle,        0x31};
constexpr Intf kBvi4001  {"BVI",    0x4001, false, 2,   2,  0,  0x2200, 0x0401, 0x0040,  5,            PMDB_INTF_TYPE_BVI, 0};
// clang-format on

// Bundle member port numbers (member_port bits 0..9).
constexpr u16 kMemberPort1001 = 1;
constexpr u16 kMemberPort2001 = 2;

// Reason the resource handler gives with an out-of-resource level.
constexpr u32 kOorReason = 0x51;

// ---- checks and printing ----------------------------------------------------

struct StepFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string Hex(u32 v) {
    char s[16];
    snprintf(s, sizeof s, "0x%08x", v);
    return s;
}

// Ends the program (exit 1) when a step did not return `want`.
void Expect(cerrno rc, cerrno want, const std::string &step) {
    if (rc == want) return;
    throw StepFailed(step + ": status " + std::to_string(rc) + ", expected " +
                     std::to_string(want));
}

void ExpectEq(u32 got, u32 want, const std::string &what) {
    if (got == want) return;
    throw StepFailed(what + " is " + std::to_string(got) + ", expected " + std::to_string(want));
}

// What the callbacks were told during the current step; printed below the
// step's own line.
std::vector<std::string> g_told;

std::string Format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char *fmt, ...) {
    char line[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    return line;
}

// Prints a step's line, then what the callbacks were told meanwhile.
void Report(const std::string &line) {
    printf("%s\n", line.c_str());
    for (const std::string &t : g_told) printf("    %s\n", t.c_str());
    g_told.clear();
}

void OorCallback(u32 ifh, u32 slot, u32 state, u32 removed) {
    g_told.push_back(Format("out-of-resource callback: bundle %s slot %u state %u removed %u",
                            Hex(ifh).c_str(), slot, state, removed));
}

void AibCallback(u32 *handles, u32 *status, u16 count) {
    std::string t = Format("AIB update callback: %u handle(s):", count);
    for (u16 i = 0; i < count; i++)
        t += Format(" %s (status %u)", Hex(handles[i]).c_str(), status[i]);
    g_told.push_back(t);
}

// ---- events -------------------------------------------------------------------

u32 g_event_id = 100;

// An event of `type` carrying the interface information of `i`.
pmdb_event_t IntfEvent(u8 type, const Intf &i) {
    pmdb_event_t ev;
    memset(&ev, 0, sizeof ev);
    ev.event_type = type;
    ev.valid_flags = PMDB_VF_INTF;
    ev.event_id = ++g_event_id;
    pmdb_intf_info_t &in = ev.intf_info;
    in.ifh = i.bundle ? 0 : i.ifh;
    in.bundle_ifh = i.bundle ? i.ifh : 0;
    in.egress_lif = i.egress_lif;
    in.oam_id = i.oam_id;
    in.sys_port = i.sys_port;
    in.ingress_lif = i.ingress_lif;
    in.node_id = i.node;
    in.slot_id = i.slot_id;
    in.high_scale = i.high_scale;
    in.node_index = i.node_index;
    in.intf_type = i.intf_type;
    // Locally administered interface MAC from the handle; the node's MAC as
    // the platform reports it for unit 0.
    const u8 mac[pmdb_fields::kMacLen] = {
        0x02, 0x1a, 0, 0, static_cast<u8>(i.ifh >> 8), static_cast<u8>(i.ifh)};
    memcpy(in.mac_addr, mac, sizeof mac);
    platform_get_amba_mac(i.node, 0, in.node_mac, 0);
    return ev;
}

// A bundle membership event (5 join, 7 leave) of port `m` and bundle `b`.
pmdb_event_t MemberEvent(u8 type, const Intf &m, const Intf &b, u16 member_port) {
    pmdb_event_t ev = IntfEvent(type, m);
    ev.intf_info.bundle_ifh = b.ifh;
    ev.intf_info.member_port = member_port;
    return ev;
}

// ---- events handed to the library ---------------------------------------------

// Hands one event to the library as the port mapper does; the node is the
// one that reports it.  The library answers nothing: what it did shows in
// the tables, which the steps below read back.
void Dispatch(pmdb_event_t ev, u32 node) { dpa_pmdb_oper(&ev, node); }

// Ends the program (exit 1) when table `type` has no entry under `key`.
void ExpectEntry(pmdb_type_t type, u32 key, const std::string &what) {
    u8 buf[PMDB_IFH_ENTRY_SIZE];
    Expect(dpa_pmdb_copy_entry(type, key, buf, pmdb_fields::kEntrySize[type]), PMDB_OK, what);
}

struct PortKeys {
    u32 main, extension, egress_lif;
};

// A port (or BVI) added by an event of type 1: the library makes its IFH
// entry and its punt entries (egress_key clear: main key by ingress LIF).
void StepPort(const Intf &p) {
    Dispatch(IntfEvent(PMDB_EV_INTF_ADD, p), p.node);
    PortKeys k{};
    k.main = dpa_pmdb_punt_key(0, p.egress_lif, p.ingress_lif, p.sys_port, p.slot_id);
    k.extension = dpa_pmdb_punt_key(0, 0, 0, p.sys_port, PMDB_NO_SLOT);
    k.egress_lif = pmdb_fields::egress_lif_punt_key(p.egress_lif, p.slot_id);
    ExpectEntry(PMDB_TYPE_IFH, p.ifh, std::string(p.what) + " " + Hex(p.ifh) + " IFH entry");
    for (u32 key : {k.main, k.extension, k.egress_lif})
        ExpectEntry(PMDB_TYPE_PUNT, key, std::string(p.what) + " punt entry " + Hex(key));
    Report(Format("%s %s on node %u: IFH entry, punt keys main %s extension %s egress LIF %s",
                  p.what, Hex(p.ifh).c_str(), p.node, Hex(k.main).c_str(), Hex(k.extension).c_str(),
                  Hex(k.egress_lif).c_str()));
}

// A bundle added by an event of type 2: its IFH entry, its interface OAM
// entry and its own punt entry (stored with node 999).
void StepBundle(const Intf &b) {
    Dispatch(IntfEvent(PMDB_EV_BUNDLE_ADD, b), b.node);
    const u32 oam_key = pmdb_fields::interface_oam_key(b.oam_id);
    const u32 punt_key = dpa_pmdb_punt_key(0, b.egress_lif, b.ingress_lif, 0, PMDB_NO_SLOT);
    ExpectEntry(PMDB_TYPE_IFH, b.ifh, "bundle " + Hex(b.ifh) + " IFH entry");
    ExpectEntry(PMDB_TYPE_OAM, oam_key, "bundle OAM entry " + Hex(oam_key));
    ExpectEntry(PMDB_TYPE_PUNT, punt_key, "bundle punt entry " + Hex(punt_key));
    Report(Format("bundle %s: IFH entry, OAM key %s, punt key %s", Hex(b.ifh).c_str(),
                  Hex(oam_key).c_str(), Hex(punt_key).c_str()));
}

u8 MemberCount(const Intf &b) {
    u8 n = 0;
    Expect(dpa_pmdb_get_num_members(&n, b.ifh), PMDB_OK, "member count of " + Hex(b.ifh));
    return n;
}

// A member event (5 join, 7 leave) of port `m`; the bundle's member count
// must end at `members`.
void StepMember(u8 type, const Intf &m, const Intf &b, u16 member_port, u8 members) {
    Dispatch(MemberEvent(type, m, b, member_port), m.node);
    const char *verb = type == PMDB_EV_MEMBER_JOIN ? "joins" : "leaves";
    const u8 n = MemberCount(b);
    ExpectEq(n, members, "member count of bundle " + Hex(b.ifh) + " after " + Hex(m.ifh) + " " +
                             verb);
    Report(Format("member %s %s bundle %s (member port %u): bundle has %u member(s)",
                  Hex(m.ifh).c_str(), verb, Hex(b.ifh).c_str(), member_port, n));
}

// What the out-of-resource update reports about the interface's bundle.
struct BundleOor {
    u32 bundle = 0, state = 0, changed = 0, slot = 0;
};

// The chip's resource handler records `level` for `ifh`.
BundleOor RecordOor(u32 ifh, u32 level) {
    BundleOor b;
    Expect(dpa_pmdb_update_bundle_oor_state(ifh, level, kOorReason, &b.bundle, &b.state, &b.changed,
                                            &b.slot),
           PMDB_OK, "out-of-resource state of " + Hex(ifh));
    return b;
}

// Member `m` runs out of resource at `level`; its bundle's derived level
// must become `bundle_state`.
void StepMemberOor(const Intf &m, u32 level, u32 bundle_state) {
    const BundleOor b = RecordOor(m.ifh, level);
    ExpectEq(b.changed, 1, "bundle state changed");
    ExpectEq(b.state, bundle_state, "bundle state");
    Report(Format("member %s out of resource, level %u: bundle %s (slot %u) now at level %u",
                  Hex(m.ifh).c_str(), level, Hex(b.bundle).c_str(), b.slot, b.state));
}

// Node `node` leaves the inventory: the BVI entries that named it move to the
// node now at the head of the list, `new_node`.
void StepNodeLeaves(u32 node, const Intf &bvi, u32 new_node) {
    Expect(pm_port_inv_entry_remove(node), PMDB_OK, "node " + std::to_string(node) + " removal");
    pmdb_ifh_entry_t e;
    Expect(dpa_pmdb_copy_entry(PMDB_TYPE_IFH, bvi.ifh, &e, sizeof e), PMDB_OK,
           "BVI " + Hex(bvi.ifh) + " lookup");
    ExpectEq(e.intf_info.node_id, new_node, "node of BVI " + Hex(bvi.ifh));
    const u8 *mac = e.intf_info.node_mac;
    Report(
        Format("node %u leaves the inventory: BVI %s now on node %u (node MAC "
               "%02x:%02x:%02x:%02x:%02x:%02x)",
               node, Hex(bvi.ifh).c_str(), e.intf_info.node_id, mac[0], mac[1], mac[2], mac[3],
               mac[4], mac[5]));
}

void StepRemovePunt(u32 key, const Intf &owner) {
    Expect(dpa_pmdb_remove_punt_entry(key), PMDB_OK, "removal of punt entry " + Hex(key));
    u8 buf[PMDB_PUNT_ENTRY_SIZE];
    Expect(dpa_pmdb_get_punt_entry_by_key(key, buf), PMDB_ENOTFOUND,
           "lookup of removed punt entry " + Hex(key));
    Report(Format("punt entry %s of %s %s removed: a lookup now finds nothing", Hex(key).c_str(),
                  owner.what, Hex(owner.ifh).c_str()));
}

void StepSummary() {
    u32 n[PMDB_NUM_TYPES] = {};
    for (int t = 0; t < PMDB_NUM_TYPES; t++)
        Expect(dpa_pmdb_count_entries(static_cast<pmdb_type_t>(t), &n[t]), PMDB_OK, "entry count");
    Report(Format("card built: %u IFH, %u PUNT, %u OAM entries", n[PMDB_TYPE_IFH],
                  n[PMDB_TYPE_PUNT], n[PMDB_TYPE_OAM]));
}

void Build() {
    // Callbacks are set before the first event.
    dpa_pmdb_set_oor_cb(OorCallback);
    dpa_pmdb_set_aib_update_cb(AibCallback);

    for (const Intf &p : {kPort1001, kPort1002, kPort2001, kPort2002}) StepPort(p);
    StepBundle(kBundle3001);
    StepMember(PMDB_EV_MEMBER_JOIN, kPort1001, kBundle3001, kMemberPort1001, 1);
    StepMember(PMDB_EV_MEMBER_JOIN, kPort2001, kBundle3001, kMemberPort2001, 2);
    StepMemberOor(kPort1001, 2, 2);
    // The member flaps: its level leaves the bundle's counters and comes back.
    StepMember(PMDB_EV_MEMBER_LEAVE, kPort1001, kBundle3001, kMemberPort1001, 1);
    StepMember(PMDB_EV_MEMBER_JOIN, kPort1001, kBundle3001, kMemberPort1001, 2);
    StepPort(kBvi4001);
    StepNodeLeaves(kBvi4001.node, kBvi4001, kPort1001.node);
    StepRemovePunt(dpa_pmdb_punt_key(0, 0, 0, kPort2002.sys_port, PMDB_NO_SLOT), kPort2002);
    StepSummary();
}

// ---- the crash demonstration -------------------------------------------------

// Takes the entry lock of `ifh` as a writer does in the middle of a change
// and never lets go: the process is meant to be killed while holding it.
[[noreturn]] void Hold(u32 ifh) {
    dnx_db_hdl_t *hdl = nullptr;
    Expect(dpa_chk_pmdb_open(nullptr, &hdl, PMDB_TYPE_IFH, 1), PMDB_OK, "IFH open");
    void *entry = nullptr;
    i32 slot = 0;
    Expect(tabra_get_entry_by_key(hdl->tabra, ifh, &entry, &slot), PMDB_OK,
           "lookup of " + Hex(ifh));
    Expect(pmdb_entry_lock(&hdl->shrd_ctx->entry_lock[slot]), PMDB_OK, "entry lock");
    printf("pid %d holds the entry lock of IFH %s (slot %d)\n", static_cast<int>(getpid()),
           Hex(ifh).c_str(), slot);
    fflush(stdout);
    for (;;) pause();
}

void Oor(u32 ifh, u32 level) {
    RecordOor(ifh, level);
    Report(Format("IFH %s out of resource, level %u: status 0", Hex(ifh).c_str(), level));
}

}  // namespace

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    CLI::App app{"Builds a small line card in the port mapper database"};
    app.require_subcommand(1);
    app.add_subcommand("build", "Build the whole card, one line per step");
    u32 ifh = 0, level = 0;
    CLI::App *hold = app.add_subcommand("hold", "Hold an IFH entry's lock until killed");
    hold->add_option("ifh", ifh, "interface handle")->required();
    CLI::App *oor = app.add_subcommand("oor", "Record an out-of-resource level for an IFH entry");
    oor->add_option("ifh", ifh, "interface handle")->required();
    oor->add_option("level", level, "0, 1 or 2")->required()->check(CLI::Range(0, 2));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e) == 0 ? 0 : 2;  // --help is not an error
    }

    try {
        if (app.got_subcommand("build")) Build();
        if (app.got_subcommand("hold")) Hold(ifh);
        if (app.got_subcommand("oor")) Oor(ifh, level);
    } catch (const StepFailed &e) {
        fprintf(stderr, "card_writer: %s\n", e.what());
        return 1;
    }
    return 0;
}
