// pmdbctl dump / show: the database entries as other processes see them,
// read through the reader library (consistent copies under the slot locks).
//
//   pmdbctl dump ifh|punt|oam [--key K] [--json]   every entry, or one
//   pmdbctl show IFH [--json]                      one interface and the
//                                                  entries that belong to it
//
// Handles and keys print in hex, MACs as aa:bb:cc:dd:ee:ff, flags by name.
// A bad key, a missing entry or a missing table is one line on stderr and
// exit status 1.
#ifdef PMDBCTL_HAVE_PMDB_READER

#include <stdio.h>

#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "command.h"
#include "entry_fields.h"
#include "format.h"
#include "pmdb_fields.h"
#include "pmdb_reader.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;

constexpr u32 kListCapacity = PMDB_MAX_ENTRIES;

struct Table {
    const char *name;
    pmdb_type_t type;
};
constexpr Table kTables[] = {{"ifh", PMDB_TYPE_IFH}, {"punt", PMDB_TYPE_PUNT}, {"oam", PMDB_TYPE_OAM}};

std::string Time(const struct timespec &t) {
    char s[40];
    snprintf(s, sizeof s, "%lld.%09ld", static_cast<long long>(t.tv_sec), t.tv_nsec);
    return s;
}

/* Names of the set bits of `bits`; unnamed bits as "bitN". */
json Flags(u32 bits, std::initializer_list<const char *> names) {
    json out = json::array();
    int bit = 0;
    for (const char *name : names) {
        if ((bits >> bit) & 1u) out.push_back(name);
        bit++;
    }
    for (; bit < 32; bit++)
        if ((bits >> bit) & 1u) out.push_back("bit" + std::to_string(bit));
    return out;
}

json IntfJson(const pmdb_intf_info_t &i) {
    json slots = json::object();
    for (int s = 0; s < 32; s++)
        if (i.oam_slots[s] != 0) slots[std::to_string(s)] = Hex(i.oam_slots[s]);
    return json{{"ifh", Hex(i.ifh)},
                {"sub_ifh", Hex(i.sub_ifh)},
                {"bundle_ifh", Hex(i.bundle_ifh)},
                {"egress_lif", Hex(i.egress_lif)},
                {"ingress_lif", Hex(i.ingress_lif, 4)},
                {"oam_id", Hex(i.oam_id)},
                {"oam_data_36", Hex(i.oam_data_36)},
                {"sys_port", Hex(i.sys_port, 4)},
                {"intf_data_44", Hex(i.intf_data_44, 4)},
                {"member_port", Hex(i.member_port, 4)},
                {"port_lo", pmdb_fields::port_lo_of(i.member_port)},
                {"port_hi", pmdb_fields::port_hi_of(i.member_port)},
                {"member_port_shift", i.member_port_shift & pmdb_fields::kMemberShiftMask},
                {"node_id", i.node_id},
                {"intf_data_64", Hex(i.intf_data_64)},
                {"mac_addr", Mac(i.mac_addr)},
                {"node_mac", Mac(i.node_mac)},
                {"npu_index", i.npu_index},
                {"lc_slot", i.lc_slot},
                {"slot_id", i.slot_id},
                {"high_scale", i.high_scale},
                {"node_index", i.node_index},
                {"intf_type", i.intf_type},
                {"intf_flags", Flags(i.intf_flags, {"egress_key"})},
                {"sub_flags", Flags(i.sub_flags, {"sub_valid"})},
                {"oor_members_1", i.oor_members_1},
                {"oor_members_2", i.oor_members_2},
                {"oor_state", i.oor_state},
                {"oor_reason", i.oor_reason},
                {"oor_changes", i.oor_changes},
                {"oor_time", Time(i.oor_time)},
                {"oam_slots", slots}};
}

json PuntInfoJson(const pmdb_punt_info_t &p) {
    json data = json::array();
    for (u32 w : p.punt_data) data.push_back(Hex(w));
    return json{{"ifh", Hex(p.ifh)}, {"intf_type", p.intf_type}, {"punt_data", data}};
}

json EntryJson(pmdb_type_t type, const void *entry) {
    if (type == PMDB_TYPE_IFH) {
        const auto &e = *static_cast<const pmdb_ifh_entry_t *>(entry);
        return json{{"key", Hex(e.key)},
                    {"member_count", e.member_count},
                    {"sub_intf_count", e.sub_intf_count},
                    {"ifh_flags", Flags(e.ifh_flags, {"member_active"})},
                    {"event_id", Hex(e.event_id)},
                    {"last_update", Time(e.last_update)},
                    {"node_mask", Hex(e.node_mask, 4)},
                    {"intf_info", IntfJson(e.intf_info)},
                    {"punt_info", PuntInfoJson(e.punt_info)}};
    }
    if (type == PMDB_TYPE_PUNT) {
        const auto &e = *static_cast<const pmdb_punt_entry_t *>(entry);
        return json{{"key", Hex(e.key)},
                    {"key_flags", Flags(e.key >> 30, {"egress", "bundle_member"})},
                    {"event_id", Hex(e.event_id)},
                    {"last_update", Time(e.last_update)},
                    {"intf_info", IntfJson(e.intf_info)},
                    {"punt_info", PuntInfoJson(e.punt_info)}};
    }
    const auto &e = *static_cast<const pmdb_oam_entry_t *>(entry);
    return json{{"key", Hex(e.key)},
                {"event_id", Hex(e.event_id)},
                {"last_update", Time(e.last_update)},
                {"oam_intf_data", Hex(e.oam_info.oam_intf_data)},
                {"oam_ifh", Hex(e.oam_info.oam_ifh)},
                {"oam_byte_a", e.oam_info.oam_byte_a},
                {"oam_byte_b", e.oam_info.oam_byte_b},
                {"oam_word", Hex(e.oam_info.oam_word)}};
}

constexpr size_t kLabelWidth = 34;

/* A field's value as printed: strings bare, arrays joined by commas, an empty
 * flag list as "none". */
std::string Text(const json &value) {
    if (!value.is_array()) return value.is_string() ? value.get<std::string>() : value.dump();
    std::string text;
    for (const json &v : value) text += (text.empty() ? "" : ",") + Text(v);
    return text.empty() ? "none" : text;
}

/* "name  value" lines, nested objects as dotted names. */
void PrintFields(const json &obj, const std::string &prefix = "  ") {
    for (const auto &[name, value] : obj.items()) {
        if (value.is_object()) {
            PrintFields(value, prefix + name + ".");
            continue;
        }
        const std::string label = prefix + name;
        std::cout << label << std::string(label.size() < kLabelWidth ? kLabelWidth - label.size() : 1, ' ')
                  << Text(value) << '\n';
    }
}

std::optional<u32> ParseKey(const std::string &text) {
    try {
        size_t used = 0;
        const unsigned long long v = std::stoull(text, &used, 0);
        if (used != text.size() || v == 0 || v > 0xFFFFFFFFull) return std::nullopt;
        return static_cast<u32>(v);
    } catch (const std::exception &) {
        return std::nullopt;
    }
}

/* One line for a failed read of `key` (0: the whole table). */
int ReadFailure(const Table &t, u32 key, cerrno rc) {
    u32 count = 0;
    if (dpa_pmdb_count_entries(t.type, &count) == PMDB_ENOTFOUND)
        return Fail(std::string("the ") + t.name + " table does not exist in this namespace");
    if (rc == PMDB_ENOTFOUND) return Fail(std::string("no ") + t.name + " entry under key " + Hex(key));
    if (rc == PMDB_EBUSY) return Fail(std::string("the ") + t.name + " entry " + Hex(key) + " stayed locked by a writer");
    return Fail(std::string("reading the ") + t.name + " table failed with status " + Hex(rc));
}

std::optional<json> ReadEntry(const Table &t, u32 key, int *status) {
    alignas(8) unsigned char buf[PMDB_IFH_ENTRY_SIZE];
    u32 size = t.type == PMDB_TYPE_IFH ? PMDB_IFH_ENTRY_SIZE
               : t.type == PMDB_TYPE_PUNT ? PMDB_PUNT_ENTRY_SIZE : PMDB_OAM_ENTRY_SIZE;
    const cerrno rc = dpa_pmdb_copy_entry(t.type, key, buf, size);
    if (rc != PMDB_OK) {
        *status = ReadFailure(t, key, rc);
        return std::nullopt;
    }
    return EntryJson(t.type, buf);
}

void Emit(const json &entries, const char *what, bool as_json) {
    if (as_json) {
        std::cout << JsonText(entries) << std::endl;
        return;
    }
    const char *separator = "";
    for (const json &e : entries) {
        std::cout << separator << what << ' ' << e["key"].get<std::string>() << '\n';
        PrintFields(e);
        separator = "\n";
    }
}

struct DumpOptions {
    std::string table;
    std::string key;
    bool json = false;
};

struct WalkOut {
    pmdb_type_t type;
    json entries = json::array();
};

int Dump(const DumpOptions &o) {
    const Table *t = nullptr;
    for (const Table &candidate : kTables)
        if (o.table == candidate.name) t = &candidate;
    if (!o.key.empty()) {
        const std::optional<u32> key = ParseKey(o.key);
        if (!key) return Fail("bad key '" + o.key + "' (a nonzero 32-bit number, hex with 0x)");
        int status = 0;
        const std::optional<json> entry = ReadEntry(*t, *key, &status);
        if (!entry) return status;
        Emit(json::array({*entry}), t->name, o.json);
        return 0;
    }
    WalkOut out{t->type};
    const cerrno rc = dpa_pmdb_walk(
        t->type,
        [](void *ctx, u32, const void *entry) {
            auto *w = static_cast<WalkOut *>(ctx);
            w->entries.push_back(EntryJson(w->type, entry));
            return 0;
        },
        &out);
    if (rc != PMDB_OK && rc != PMDB_EBUSY) return ReadFailure(*t, 0, rc);
    Emit(out.entries, t->name, o.json);
    if (rc == PMDB_EBUSY) return Fail("some entries stayed locked by a writer and are not shown");
    return 0;
}

RunFn InstallDump(CLI::App &app) {
    auto opts = std::make_shared<DumpOptions>();
    CLI::App *cmd = app.add_subcommand("dump", "Print the entries of a database table");
    cmd->add_option("table", opts->table, "ifh, punt or oam")
        ->required()
        ->check(CLI::IsMember({"ifh", "punt", "oam"}));
    cmd->add_option("--key", opts->key, "only the entry under this key (hex with 0x)");
    cmd->add_flag("--json", opts->json, "JSON output");
    return [opts] { return Dump(*opts); };
}

const Registrar kDump("dump", InstallDump);

/* ---- show ---------------------------------------------------------------- */

struct ShowOptions {
    std::string ifh;
    bool json = false;
};

using ListFn = cerrno (*)(u32 handle, u32 *out, u32 capacity);

std::vector<u32> List(ListFn fn, u32 handle) {
    std::vector<u32> out(kListCapacity);
    fn(handle, out.data(), kListCapacity);
    while (!out.empty() && out.back() == 0) out.pop_back();
    return out;
}

cerrno AllMembers(u32 bundle, u32 *out, u32 cap) {
    return dpa_pmdb_get_bundle_member_ifh_entries(bundle, out, cap, PMDB_READER_ALL_NODES);
}
cerrno SubPunt(u32 ifh, u32 *out, u32 cap) {
    return dpa_pmdb_get_bundle_sub_punt_entries(ifh, out, cap, PMDB_READER_ALL_NODES);
}

/* The entries of `keys` in table `t`; an entry removed meanwhile is left out. */
json Entries(const Table &t, const std::vector<u32> &keys) {
    json out = json::array();
    for (u32 key : keys) {
        int status = 0;
        std::optional<json> e = ReadEntry(t, key, &status);
        if (e) out.push_back(*e);
    }
    return out;
}

json Handles(const std::vector<u32> &handles) {
    json out = json::array();
    for (u32 h : handles) out.push_back(Hex(h));
    return out;
}

int Show(const ShowOptions &o) {
    const std::optional<u32> ifh = ParseKey(o.ifh);
    if (!ifh) return Fail("bad interface handle '" + o.ifh + "' (a nonzero 32-bit number, hex with 0x)");
    int status = 0;
    const std::optional<json> entry = ReadEntry(kTables[0], *ifh, &status);
    if (!entry) return status;
    json all{{"ifh", *entry},
             {"punt", Entries(kTables[1], List(dpa_pmdb_get_port_punt_entries, *ifh))},
             {"bundle_sub_punt", Entries(kTables[1], List(SubPunt, *ifh))},
             {"bundle_punt", Entries(kTables[1], List(dpa_pmdb_get_bundle_punt_entries, *ifh))},
             {"members", Handles(List(AllMembers, *ifh))},
             {"sub_interfaces", Handles(List(dpa_pmdb_get_bundle_sub_ifh_entries, *ifh))},
             {"oam", Entries(kTables[2], List(dpa_pmdb_get_intf_oam_entries, *ifh))}};
    if (o.json) {
        std::cout << JsonText(all) << std::endl;
        return 0;
    }
    Emit(json::array({*entry}), "ifh", false);
    for (const char *section : {"punt", "bundle_sub_punt", "bundle_punt", "oam"}) {
        if (all[section].empty()) continue;
        std::cout << '\n';
        Emit(all[section], section, false);
    }
    for (const char *section : {"members", "sub_interfaces"}) {
        if (all[section].empty()) continue;
        std::cout << section << ':';
        for (const json &h : all[section]) std::cout << ' ' << h.get<std::string>();
        std::cout << '\n';
    }
    return 0;
}

RunFn InstallShow(CLI::App &app) {
    auto opts = std::make_shared<ShowOptions>();
    CLI::App *cmd = app.add_subcommand("show", "Print one interface and the entries that belong to it");
    cmd->add_option("ifh", opts->ifh, "interface handle (hex with 0x)")->required();
    cmd->add_flag("--json", opts->json, "JSON output");
    return [opts] { return Show(*opts); };
}

const Registrar kShow("show", InstallShow);

}  // namespace

json EntryFields(pmdb_type_t type, const void *entry) { return EntryJson(type, entry); }
}  // namespace pmdbctl

#endif  // PMDBCTL_HAVE_PMDB_READER
