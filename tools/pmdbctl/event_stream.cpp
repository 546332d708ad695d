// The event stream's lines: parsing into the records the library takes, and
// writing them back.  Every field is described once, in the tables below, by
// its name, its place in the record and its largest value; the parser and the
// writer both walk those tables.
#include "event_stream.h"

#include <stddef.h>
#include <string.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <vector>

#include "format.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;

enum class Kind { kUnsigned, kSigned, kMac, kArray };

struct Field {
    const char *name;
    size_t offset;  // in the block's record
    unsigned size;  // bytes of one value
    unsigned long long max;
    Kind kind;
    unsigned count;  // kArray: number of u32 values
};

constexpr unsigned long long kU8 = 0xff, kU16 = 0xffff, kU32 = 0xffffffffull;

#define PMDB_U(rec, f, max) {#f, offsetof(rec, f), sizeof(rec::f), max, Kind::kUnsigned, 1}
#define PMDB_I(rec, f) {#f, offsetof(rec, f), sizeof(rec::f), 0x7fffffffull, Kind::kSigned, 1}
#define PMDB_MAC(rec, f) {#f, offsetof(rec, f), 6, 0, Kind::kMac, 1}
#define PMDB_A(rec, f, n) {#f, offsetof(rec, f), 4, kU32, Kind::kArray, n}

using In = pmdb_intf_info_t;
// The interface block: every field of the interface information that is not
// opaque, kept by the library or a time.
const Field kIntfFields[] = {
    PMDB_U(In, ifh, kU32),           PMDB_U(In, sub_ifh, kU32),
    PMDB_U(In, bundle_ifh, kU32),    PMDB_U(In, egress_lif, kU32),
    PMDB_U(In, oam_id, kU32),        PMDB_U(In, oam_data_36, kU32),
    PMDB_U(In, sys_port, 0x3fff),    PMDB_U(In, intf_data_44, kU16),
    PMDB_U(In, ingress_lif, kU16),   PMDB_U(In, member_port, kU16),
    PMDB_U(In, member_port_shift, 3), PMDB_U(In, node_id, kU32),
    PMDB_U(In, intf_data_64, kU32),  PMDB_MAC(In, mac_addr),
    PMDB_MAC(In, node_mac),          PMDB_U(In, npu_index, kU8),
    PMDB_U(In, lc_slot, kU8),        PMDB_U(In, slot_id, kU8),
    PMDB_U(In, high_scale, kU8),     PMDB_I(In, node_index),
    PMDB_U(In, intf_type, kU16),     PMDB_U(In, intf_flags, kU16),
    PMDB_U(In, sub_flags, kU8),      PMDB_U(In, oor_members_1, kU16),
    PMDB_U(In, oor_members_2, kU16), PMDB_U(In, oor_state, kU32),
    PMDB_U(In, oor_reason, kU32),    PMDB_U(In, oor_changes, kU32),
    PMDB_A(In, oam_slots, 32),
};

const Field kPuntFields[] = {
    PMDB_U(pmdb_punt_info_t, ifh, kU32),
    PMDB_U(pmdb_punt_info_t, intf_type, kU16),
    PMDB_A(pmdb_punt_info_t, punt_data, 5),
};

// The OAM block: the key and the OAM information of the body's OAM reading.
constexpr size_t kOamInfo = offsetof(pmdb_event_oam_t, oam_info);
#define PMDB_OAM(f, max) \
    {#f, kOamInfo + offsetof(pmdb_oam_info_t, f), sizeof(pmdb_oam_info_t::f), max, Kind::kUnsigned, 1}
const Field kOamFields[] = {
    PMDB_U(pmdb_event_oam_t, oam_key, kU32),
    PMDB_OAM(oam_intf_data, kU32),
    PMDB_OAM(oam_ifh, kU32),
    PMDB_OAM(oam_byte_a, kU8),
    PMDB_OAM(oam_byte_b, kU8),
    PMDB_OAM(oam_word, kU32),
};

struct Block {
    const char *name;
    u8 flag;  // the valid_flags bit of this reading of the body
    const Field *fields;
    size_t count;
};
const Block kBlocks[] = {
    {"intf", PMDB_VF_INTF, kIntfFields, std::size(kIntfFields)},
    {"punt", PMDB_VF_PUNT, kPuntFields, std::size(kPuntFields)},
    {"oam", PMDB_VF_OAM, kOamFields, std::size(kOamFields)},
};

struct EventName {
    unsigned type;
    const char *name;
};
const EventName kEventNames[] = {
    {PMDB_EV_INTF_ADD, "intf_add"},
    {PMDB_EV_BUNDLE_ADD, "bundle_add"},
    {PMDB_EV_INTF_REFRESH, "intf_refresh"},
    {PMDB_EV_SUB_ADD, "sub_add"},
    {PMDB_EV_MEMBER_JOIN, "member_join"},
    {PMDB_EV_MEMBER_MODIFY, "member_modify"},
    {PMDB_EV_MEMBER_LEAVE, "member_leave"},
    {PMDB_EV_INTF_PUNT, "intf_punt"},
    {PMDB_EV_BUNDLE_PUNT, "bundle_punt"},
    {PMDB_EV_BUNDLE_REKEY, "bundle_rekey"},
    {PMDB_EV_SUB_PUNT, "sub_punt"},
    {PMDB_EV_INTF_REMOVE, "intf_remove"},
    {PMDB_EV_BUNDLE_REMOVE, "bundle_remove"},
    {PMDB_EV_MAIN_REMOVE, "main_remove"},
    {PMDB_EV_SUB_REMOVE, "sub_remove"},
    {PMDB_EV_OAM_REMOVE, "oam_remove"},
    {PMDB_EV_INTF_ADD_NO_IFH, "intf_add_no_ifh"},
    {PMDB_EV_INTF_PUNT_NO_IFH, "intf_punt_no_ifh"},
    {PMDB_EV_INTF_REMOVE_NO_IFH, "intf_remove_no_ifh"},
    {PMDB_EV_BUNDLE_MAC, "bundle_mac"},
};

struct OpForm {
    StreamOp op;
    const char *name;
    std::vector<const char *> fields;  // the top-level fields it takes
};
const OpForm kOps[] = {
    {StreamOp::kEvent, "event",
     {"op", "type", "valid_flags", "event_id", "node", "intf", "punt", "oam"}},
    {StreamOp::kOamEvent, "oam_event", {"op", "type", "valid_flags", "event_id", "oam"}},
    {StreamOp::kOor, "oor", {"op", "ifh", "state", "reason"}},
    {StreamOp::kBundleOor, "bundle_oor", {"op", "ifh", "state", "reason"}},
    {StreamOp::kInventoryAdd, "inventory_add",
     {"op", "node_id", "node_index", "npu_index", "high_scale"}},
    {StreamOp::kInventoryRemove, "inventory_remove", {"op", "node_id"}},
};

// The largest out-of-resource level.
constexpr unsigned long long kMaxOorState = 2;

// Reads the fields of one line; the first problem is kept and ends the work.
class Reader {
public:
    const std::string &error() const { return error_; }

    bool Fail(const std::string &reason) {
        if (error_.empty()) error_ = reason;
        return false;
    }

    // A number: a JSON integer, or a string of decimal digits or 0x and hex
    // digits, within [min, max].
    bool Number(const json &v, const std::string &what, long long min, unsigned long long max,
                long long *out) {
        if (v.is_number_unsigned()) return Range(v.get<unsigned long long>(), what, max, out);
        if (v.is_number_integer()) return Negative(v.get<long long>(), what, min, out);
        if (!v.is_string()) return Fail(what + ": not a number");
        const std::string s = v.get<std::string>();
        const bool hex = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X');
        const std::string digits = hex ? s.substr(2) : s;
        const char *allowed = hex ? "0123456789abcdefABCDEF" : "0123456789";
        if (digits.empty() || digits.size() > 16 ||
            digits.find_first_not_of(allowed) != std::string::npos)
            return Fail(what + ": \"" + Printable(s) + "\" is not a number (decimal or 0x hex)");
        return Range(std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10), what, max, out);
    }

    bool Mac(const json &v, const std::string &what, u8 *out) {
        const std::string s = v.is_string() ? v.get<std::string>() : "";
        for (size_t i = 0; i < 6; i++) {
            const size_t p = i * 3;
            const bool ok = s.size() == 17 && isxdigit(static_cast<unsigned char>(s[p])) &&
                            isxdigit(static_cast<unsigned char>(s[p + 1])) &&
                            (i == 5 || s[p + 2] == ':');
            if (!ok) return Fail(what + ": not a MAC address aa:bb:cc:dd:ee:ff");
            out[i] = static_cast<u8>(std::strtoul(s.substr(p, 2).c_str(), nullptr, 16));
        }
        return true;
    }

    // The fields of `block` from the object `v` into the record at `rec`.
    bool ReadBlock(const Block &block, const json &v, u8 *rec) {
        if (!v.is_object()) return Fail(std::string(block.name) + ": not an object");
        for (const auto &[key, value] : v.items()) {
            const Field *f = FindField(block, key);
            if (f == nullptr) return Fail("unknown field \"" + std::string(block.name) + "." + Printable(key) + "\"");
            if (!ReadField(*f, std::string(block.name) + "." + key, value, rec + f->offset))
                return false;
        }
        return true;
    }

private:
    std::string error_;

    bool Range(unsigned long long v, const std::string &what, unsigned long long max,
               long long *out) {
        if (v > max) return Fail(what + ": " + std::to_string(v) + " is out of range (largest " +
                                 std::to_string(max) + ")");
        *out = static_cast<long long>(v);
        return true;
    }

    bool Negative(long long v, const std::string &what, long long min, long long *out) {
        if (v < min) return Fail(what + ": " + std::to_string(v) + " is out of range");
        *out = v;
        return true;
    }

    static const Field *FindField(const Block &block, const std::string &name) {
        for (size_t i = 0; i < block.count; i++)
            if (name == block.fields[i].name) return &block.fields[i];
        return nullptr;
    }

    bool ReadField(const Field &f, const std::string &what, const json &v, u8 *at) {
        if (f.kind == Kind::kMac) return Mac(v, what, at);
        if (f.kind != Kind::kArray) return Scalar(f, what, v, at);
        if (!v.is_array() || v.size() > f.count)
            return Fail(what + ": not an array of at most " + std::to_string(f.count) + " numbers");
        for (size_t i = 0; i < v.size(); i++)
            if (!Scalar(f, what + "[" + std::to_string(i) + "]", v[i], at + i * f.size))
                return false;
        return true;
    }

    bool Scalar(const Field &f, const std::string &what, const json &v, u8 *at) {
        const long long min = f.kind == Kind::kSigned ? -0x80000000ll : 0;
        long long n = 0;
        if (!Number(v, what, min, f.max, &n)) return false;
        const u32 word = static_cast<u32>(n);
        if (f.size == 1) *at = static_cast<u8>(word);
        if (f.size == 2) {
            const u16 h = static_cast<u16>(word);
            memcpy(at, &h, 2);
        }
        if (f.size == 4) memcpy(at, &word, 4);
        return true;
    }
};

const OpForm *FindOp(const std::string &name) {
    for (const OpForm &o : kOps)
        if (name == o.name) return &o;
    return nullptr;
}

const OpForm &FormOf(StreamOp op) {
    for (const OpForm &o : kOps)
        if (o.op == op) return o;
    return kOps[0];
}

bool Takes(const OpForm &form, const std::string &field) {
    return std::any_of(form.fields.begin(), form.fields.end(),
                       [&](const char *f) { return field == f; });
}

// Reads the optional top-level number `name` of `j` into *out.
template <typename T>
bool Get(Reader &r, const json &j, const char *name, long long min, unsigned long long max,
         T *out) {
    if (!j.contains(name)) return true;
    long long v = 0;
    if (!r.Number(j[name], name, min, max, &v)) return false;
    *out = static_cast<T>(v);
    return true;
}

bool EventType(Reader &r, const json &j, u8 *out) {
    if (!j.contains("type")) return r.Fail("no event type (\"type\")");
    const json &v = j["type"];
    if (v.is_string()) {
        const std::string s = v.get<std::string>();
        for (const EventName &n : kEventNames)
            if (s == n.name) return *out = static_cast<u8>(n.type), true;
        if (s.empty() || !isdigit(static_cast<unsigned char>(s[0])))
            return r.Fail("type: unknown event name \"" + Printable(s) + "\"");
    }
    return Get(r, j, "type", 0, kU8, out);
}

// The event record of an event or OAM event line: at most one body block;
// valid_flags defaults to the flag of the block given.
bool ReadEvent(Reader &r, const json &j, StreamLine *out) {
    pmdb_event_t &ev = out->event;
    if (!EventType(r, j, &ev.event_type)) return false;
    const Block *given = nullptr;
    for (const Block &b : kBlocks) {
        if (!j.contains(b.name)) continue;
        if (given != nullptr)
            return r.Fail(std::string("blocks \"") + given->name + "\" and \"" + b.name +
                          "\" share the event body: give one");
        given = &b;
        if (!r.ReadBlock(b, j[b.name], ev.body)) return false;
    }
    ev.valid_flags = given != nullptr ? given->flag : 0;
    return Get(r, j, "valid_flags", 0, kU8, &ev.valid_flags) &&
           Get(r, j, "event_id", 0, kU32, &ev.event_id) && Get(r, j, "node", 0, kU32, &out->node);
}

bool ReadOp(Reader &r, const json &j, StreamLine *out) {
    switch (out->op) {
        case StreamOp::kEvent:
            return ReadEvent(r, j, out);
        case StreamOp::kOamEvent:
            if (!j.contains("oam")) return r.Fail("an OAM event needs its \"oam\" block");
            return ReadEvent(r, j, out);
        case StreamOp::kOor:
        case StreamOp::kBundleOor:
            if (!j.contains("ifh")) return r.Fail("no interface handle (\"ifh\")");
            return Get(r, j, "ifh", 0, kU32, &out->ifh) &&
                   Get(r, j, "state", 0, kMaxOorState, &out->state) &&
                   Get(r, j, "reason", 0, kU32, &out->reason);
        case StreamOp::kInventoryAdd:
            return Get(r, j, "node_id", 0, kU32, &out->node_id) &&
                   Get(r, j, "node_index", -0x80000000ll, 0x7fffffff, &out->node_index) &&
                   Get(r, j, "npu_index", 0, kU8, &out->npu_index) &&
                   Get(r, j, "high_scale", 0, kU8, &out->high_scale);
        case StreamOp::kInventoryRemove:
            return Get(r, j, "node_id", 0, kU32, &out->node_id);
    }
    return r.Fail("unknown operation");
}

// "[json.exception.parse_error.101] parse error at line 1, column 3: ..."
// without the library's bracketed prefix.
std::string JsonError(const char *what) {
    const char *text = strchr(what, ']');
    /* The parser quotes the bytes it last read, which may be any bytes of
     * the line: escaped, so that the error stays one printable line. */
    return "malformed JSON: " + Printable(text != nullptr ? text + 2 : what);
}

// ---- writing ---------------------------------------------------------------

// Small values as numbers, larger ones (handles, keys, LIFs) as hex text.
json Value(unsigned long long v) {
    if (v < 0x100) return v;
    char s[24];
    snprintf(s, sizeof s, "0x%llx", v);
    return s;
}

unsigned long long Load(const u8 *at, unsigned size) {
    u32 w = 0;
    memcpy(&w, at, size);
    return w;
}

json FieldJson(const Field &f, const u8 *at) {
    if (f.kind == Kind::kSigned) return static_cast<i32>(Load(at, 4));
    if (f.kind == Kind::kUnsigned) return Value(Load(at, f.size));
    if (f.kind == Kind::kMac) {
        char s[18];
        snprintf(s, sizeof s, "%02x:%02x:%02x:%02x:%02x:%02x", at[0], at[1], at[2], at[3], at[4],
                 at[5]);
        return s;
    }
    json a = json::array();
    for (unsigned i = 0; i < f.count; i++) a.push_back(Value(Load(at + i * 4, 4)));
    while (!a.empty() && a.back() == 0) a.erase(a.size() - 1);
    return a;
}

json BlockJson(const Block &b, const u8 *rec) {
    json o = json::object();
    for (size_t i = 0; i < b.count; i++) {
        const Field &f = b.fields[i];
        const u8 *at = rec + f.offset;
        const bool zero = std::all_of(at, at + f.size * (f.kind == Kind::kArray ? f.count : 1),
                                      [](u8 c) { return c == 0; });
        if (!zero) o[f.name] = FieldJson(f, at);
    }
    return o;
}

void EventJson(const StreamLine &l, json &j) {
    const pmdb_event_t &ev = l.event;
    const char *name = EventTypeName(ev.event_type);
    j["type"] = name[0] != '\0' ? json(name) : json(ev.event_type);
    j["event_id"] = ev.event_id;
    if (l.op == StreamOp::kEvent) j["node"] = l.node;
    for (const Block &b : kBlocks)
        if ((ev.valid_flags & b.flag) != 0) {
            if (ev.valid_flags != b.flag) j["valid_flags"] = ev.valid_flags;
            j[b.name] = BlockJson(b, ev.body);
            return;
        }
    j["valid_flags"] = ev.valid_flags;
}

}  // namespace

const char *EventTypeName(unsigned type) {
    for (const EventName &n : kEventNames)
        if (n.type == type) return n.name;
    return "";
}

const char *StreamOpName(StreamOp op) { return FormOf(op).name; }

std::string ParseStreamLine(const std::string &text, StreamLine *out) {
    json j;
    try {
        j = json::parse(text);
    } catch (const json::exception &e) {
        return JsonError(e.what());
    }
    Reader r;
    *out = StreamLine{};
    if (!j.is_object()) return "not a JSON object";
    const std::string op = j.contains("op") && j["op"].is_string() ? j["op"].get<std::string>()
                           : j.contains("op")                      ? "?"
                                                                   : "event";
    const OpForm *form = FindOp(op);
    if (form == nullptr) return "op: unknown operation \"" + Printable(op) + "\"";
    out->op = form->op;
    for (const auto &item : j.items())
        if (!Takes(*form, item.key()))
            return "unknown field \"" + Printable(item.key()) + "\" for op \"" + op + "\"";
    ReadOp(r, j, out);
    return r.error();
}

json StreamLineJson(const StreamLine &l) {
    json j;
    if (l.op != StreamOp::kEvent) j["op"] = StreamOpName(l.op);
    switch (l.op) {
        case StreamOp::kEvent:
        case StreamOp::kOamEvent:
            EventJson(l, j);
            break;
        case StreamOp::kOor:
        case StreamOp::kBundleOor:
            j["ifh"] = Value(l.ifh);
            j["state"] = l.state;
            j["reason"] = Value(l.reason);
            break;
        case StreamOp::kInventoryAdd:
            j["node_id"] = l.node_id;
            j["node_index"] = l.node_index;
            j["npu_index"] = l.npu_index;
            j["high_scale"] = l.high_scale;
            break;
        case StreamOp::kInventoryRemove:
            j["node_id"] = l.node_id;
            break;
    }
    return j;
}

}  // namespace pmdbctl
