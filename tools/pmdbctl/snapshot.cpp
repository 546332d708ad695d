// snapshot.cpp - capture of a namespace and the snapshot file's encoding
// (see snapshot.h and docs/snapshot-format.md).
#if defined(PMDBCTL_HAVE_TABRA) && defined(PMDBCTL_HAVE_PMDB_READER)

#include "snapshot.h"

#include <string.h>
#include <time.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <sstream>

#include "card_view.h"
#include "check.h"
#include "format.h"
#include "host/os_host.h"
#include "host/settings.h"
#include "platform_id.h"
#include "pmdb_fields.h"
#include "pmdb_reader.h"
#include "region_view.h"
#include "tables.h"
#include "tabra.h"

namespace pmdbctl {

using json = nlohmann::ordered_json;

const char *const kTypeNames[PMDB_NUM_TYPES] = {"ifh", "punt", "oam"};

uint32_t EntrySize(int type) {
    constexpr uint32_t sizes[PMDB_NUM_TYPES] = {PMDB_IFH_ENTRY_SIZE, PMDB_PUNT_ENTRY_SIZE,
                                                PMDB_OAM_ENTRY_SIZE};
    return sizes[type];
}

namespace {

constexpr char kMagic[8] = {'P', 'M', 'D', 'B', 'S', 'N', 'A', 'P'};
constexpr char kZstdMagic[8] = {'P', 'M', 'D', 'B', 'Z', 'S', 'T', 'D'};
// Largest file a compressed one may claim to hold: three full tables and
// three rings of the largest size come to well under this.
constexpr uint64_t kMaxInflated = 1ull << 31;
constexpr size_t kPrefixSize = 16;  // magic, format, section count

enum Section : uint32_t { kHeader = 1, kTable = 2, kRegion = 3, kTrace = 4, kSettings = 5 };

/* ---- capture --------------------------------------------------------------- */

// What moves while writers work: table adds and removes, the database
// trace ring, and the reader's fallbacks to slot locks and retries.
struct Activity {
    uint64_t table_changes = 0;
    uint64_t db_trace_mark = 0;
    uint64_t locked_copies = 0;

    bool operator!=(const Activity &o) const {
        return table_changes != o.table_changes || db_trace_mark != o.db_trace_mark ||
               locked_copies != o.locked_copies;
    }
};

// Attaching to a table that does not exist is traced as a fault in the
// card's error buffer: only tables the namespace lists are attached.
bool TableExists(int type) {
    const std::vector<std::string> names = TableNames();
    return std::find(names.begin(), names.end(), pmdb_fields::kTableName[type]) != names.end();
}

Activity SampleActivity() {
    Activity a;
    for (int t = 0; t < PMDB_NUM_TYPES; t++) {
        tabra_hdl_t h = nullptr;
        tabra_info_t info{};
        if (TableExists(t) && tabra_attach(pmdb_fields::kTableName[t], &h) == 0 &&
            tabra_get_info(h, &info) == 0)
            a.table_changes += info.adds + info.removes;
    }
    const vesk_buf_t *db = vesk_open(VESK_DATABASE);
    a.db_trace_mark = db != nullptr ? vesk_mark(db) : 0;
    dpa_pmdb_reader_stats_t st{};
    dpa_pmdb_reader_get_stats(&st);
    a.locked_copies = st.locked_copies + st.retries + st.owner_dead;
    return a;
}

struct WalkOut {
    std::vector<SnapEntry> *entries;
    uint32_t size;
};

int KeepEntry(void *ctx, u32 key, const void *entry) {
    auto *w = static_cast<WalkOut *>(ctx);
    w->entries->push_back({0, key, std::string(static_cast<const char *>(entry), w->size)});
    return 0;
}

// Gives each copied entry its slot.  An entry removed after its copy is
// left out (*vanished counts it): the file then holds the table as it was
// at some moment during the capture, less that entry.
void FindSlots(tabra_hdl_t h, std::vector<SnapEntry> *entries, unsigned *vanished) {
    std::vector<SnapEntry> kept;
    for (SnapEntry &e : *entries) {
        const void *where = nullptr;
        i32 slot = -1;
        if (tabra_pin_slot(h, e.key, &where, &slot) != 0) {
            (*vanished)++;
            continue;
        }
        tabra_unpin_slot(h, slot);
        e.slot = static_cast<uint32_t>(slot);
        kept.push_back(std::move(e));
    }
    std::sort(kept.begin(), kept.end(),
              [](const SnapEntry &a, const SnapEntry &b) { return a.slot < b.slot; });
    *entries = std::move(kept);
}

bool CaptureTable(int type, SnapTable *t, unsigned *busy, unsigned *vanished, std::string *why) {
    const char *name = pmdb_fields::kTableName[type];
    tabra_hdl_t h = nullptr;
    if (!TableExists(type)) return true;
    const cerrno rc = AttachTable(name, &h);
    if (rc == TABRA_E_NOTFOUND) return true;
    if (rc != 0) {
        *why = std::string("table ") + name + ": " + TabraStatusText(rc);
        return false;
    }
    tabra_info_t info{};
    tabra_get_info(h, &info);
    t->present = true;
    t->entry_size = EntrySize(type);
    t->max_entries = info.max_entries;
    t->adds = info.adds;
    t->removes = info.removes;
    t->repairs = info.repairs;
    WalkOut out{&t->entries, t->entry_size};
    const cerrno wrc = dpa_pmdb_walk(static_cast<pmdb_type_t>(type), KeepEntry, &out);
    if (wrc == PMDB_EBUSY) (*busy)++;
    if (wrc != PMDB_OK && wrc != PMDB_EBUSY) {
        *why = std::string("reading table ") + name + " failed with status " + Hex(wrc) +
               (wrc == PMDB_ENOTFOUND ? " (its region is not initialised)" : "");
        return false;
    }
    FindSlots(h, &t->entries, vanished);
    return true;
}

void CaptureRegion(int type, SnapRegion *r) {
    const RegionView view(pmdb_fields::kRegionName[type]);
    if (view.ctx() == nullptr) return;
    r->present = true;
    r->magic = view.magic();
    memcpy(&r->glbls, &view.ctx()->glbls, sizeof r->glbls);
    std::vector<HeldLock> held;
    r->locks = SurveyLocks(pmdb_fields::kRegionName[type], view.ctx(), &held);
}

void CaptureTrace(vesk_kind_t kind, SnapTrace *t) {
    const vesk_buf_t *buf = vesk_open(kind);
    if (buf == nullptr) return;
    t->capacity = vesk_capacity(buf);
    t->records.resize(t->capacity);
    const size_t n = vesk_read(buf, 0, t->records.data(), t->records.size(), &t->next, &t->lost);
    t->records.resize(n);
    t->dropped = vesk_dropped(buf);
}

json Settings() {
    json out = json::array();
    pmdb_host_settings_each(
        [](void *ctx, const pmdb_host_setting_t *s) {
            static_cast<json *>(ctx)->push_back({{"name", s->name},
                                                 {"value", s->value},
                                                 {"source", pmdb_setting_source_name(s->source)},
                                                 {"env", s->env}});
        },
        &out);
    return out;
}

json RecordSizes() {
    return json{{"ifh", PMDB_IFH_ENTRY_SIZE},
                {"punt", PMDB_PUNT_ENTRY_SIZE},
                {"oam", PMDB_OAM_ENTRY_SIZE},
                {"globals", sizeof(dnx_pmdb_glbls_t)},
                {"trace_record", kSnapTraceRecordSize}};
}

std::string HostName() {
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    return host;
}

/* ---- encoding ------------------------------------------------------------ */

uint32_t Crc32(const std::string &data) {
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t c = i;
            for (int k = 0; k < 8; k++) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[i] = c;
        }
        return t;
    }();
    uint32_t c = 0xFFFFFFFFu;
    for (const unsigned char b : data) c = table[(c ^ b) & 0xFF] ^ (c >> 8);
    return c ^ 0xFFFFFFFFu;
}

// Little-endian writer (the host is x86-64, so plain copies).
struct Out {
    std::string bytes;
    template <class T>
    void Put(T v) {
        bytes.append(reinterpret_cast<const char *>(&v), sizeof v);
    }
    void Raw(const void *p, size_t n) { bytes.append(static_cast<const char *>(p), n); }
};

// Bounds-checked reader: once a read runs past the end, every later read
// gives zeros and ok() is false.
struct In {
    const std::string &bytes;
    size_t at = 0;
    bool bad = false;
    template <class T>
    T Get() {
        T v{};
        Raw(&v, sizeof v);
        return v;
    }
    void Raw(void *p, size_t n) {
        if (bad || bytes.size() - at < n) {
            bad = true;
            memset(p, 0, n);
            return;
        }
        memcpy(p, bytes.data() + at, n);
        at += n;
    }
    bool ok() const { return !bad; }
    bool done() const { return !bad && at == bytes.size(); }
};

void AddSection(Out *file, uint32_t type, const std::string &payload) {
    file->Put<uint32_t>(type);
    file->Put<uint32_t>(0);
    file->Put<uint64_t>(payload.size());
    file->Put<uint32_t>(Crc32(payload));
    file->Put<uint32_t>(0);
    file->bytes += payload;
}

std::string TablePayload(int type, const SnapTable &t) {
    Out o;
    o.Put<uint32_t>(type);
    o.Put<uint32_t>(t.entry_size);
    o.Put<uint32_t>(static_cast<uint32_t>(t.entries.size()));
    o.Put<uint32_t>(t.max_entries);
    o.Put<uint64_t>(t.adds);
    o.Put<uint64_t>(t.removes);
    o.Put<uint64_t>(t.repairs);
    for (const SnapEntry &e : t.entries) {
        o.Put<uint32_t>(e.slot);
        o.Put<uint32_t>(e.key);
        o.bytes += e.bytes;
    }
    return o.bytes;
}

std::string RegionPayload(int type, const SnapRegion &r) {
    Out o;
    o.Put<uint32_t>(type);
    o.Put<uint32_t>(r.magic);
    o.Put<uint32_t>(sizeof r.glbls);
    o.Put<uint32_t>(0);
    o.Raw(&r.glbls, sizeof r.glbls);
    for (unsigned n : {r.locks.initialised, r.locks.held, r.locks.dead_owner,
                       r.locks.not_recoverable, r.locks.destroyed})
        o.Put<uint32_t>(n);
    return o.bytes;
}

void PutRecord(Out *o, const vesk_rec_t &r) {
    o->Put<uint64_t>(r.seq);
    o->Put<uint64_t>(r.id);
    o->Put<int64_t>(r.tv_sec);
    o->Put<uint32_t>(r.tv_nsec);
    o->Put<uint32_t>(r.pid);
    o->Put<uint32_t>(r.tid);
    o->Put<uint32_t>(r.nargs);
    o->Put<uint32_t>(r.is_string != 0 ? 1 : 0);
    o->Put<uint32_t>(0);
    o->Raw(r.args, sizeof r.args);
    o->Raw(r.str, sizeof r.str);
}

vesk_rec_t GetRecord(In *in) {
    vesk_rec_t r{};
    r.seq = in->Get<uint64_t>();
    r.id = in->Get<uint64_t>();
    r.point = static_cast<uint32_t>(r.id);
    r.tv_sec = in->Get<int64_t>();
    r.tv_nsec = in->Get<uint32_t>();
    r.pid = in->Get<uint32_t>();
    r.tid = in->Get<uint32_t>();
    r.nargs = std::min<uint32_t>(in->Get<uint32_t>(), VESK_MAX_ARGS);
    r.is_string = in->Get<uint32_t>() != 0;
    in->Get<uint32_t>();
    in->Raw(r.args, sizeof r.args);
    in->Raw(r.str, sizeof r.str);
    r.str[sizeof r.str - 1] = '\0';
    return r;
}

std::string TracePayload(int kind, const SnapTrace &t) {
    Out o;
    o.Put<uint32_t>(kind);
    o.Put<uint32_t>(t.capacity);
    o.Put<uint64_t>(t.next);
    o.Put<uint64_t>(t.lost);
    o.Put<uint64_t>(t.dropped);
    o.Put<uint64_t>(t.records.size());
    for (const vesk_rec_t &r : t.records) PutRecord(&o, r);
    return o.bytes;
}

/* ---- decoding ------------------------------------------------------------ */

bool DecodeHeader(const std::string &payload, Snapshot *s, std::string *why) {
    s->header = json::parse(payload, nullptr, false);
    if (s->header.is_discarded() || !s->header.is_object() || !s->header.contains("record_sizes")) {
        *why = "its header section is not a snapshot header";
        return false;
    }
    const json want = RecordSizes();
    for (const auto &[name, size] : want.items()) {
        const json &got = s->header["record_sizes"][name];
        if (got != size) {
            *why = "its " + name + " record is " + (got.is_number() ? got.dump() : "unknown") +
                   " bytes, this build's is " + size.dump();
            return false;
        }
    }
    return true;
}

bool DecodeTable(In &in, Snapshot *s, std::string *why) {
    const uint32_t type = in.Get<uint32_t>();
    if (type >= PMDB_NUM_TYPES) {
        *why = "a table section names database type " + std::to_string(type);
        return false;
    }
    SnapTable &t = s->tables[type];
    t.present = true;
    t.entry_size = in.Get<uint32_t>();
    const uint32_t count = in.Get<uint32_t>();
    t.max_entries = in.Get<uint32_t>();
    t.adds = in.Get<uint64_t>();
    t.removes = in.Get<uint64_t>();
    t.repairs = in.Get<uint64_t>();
    if (t.entry_size != EntrySize(type)) {
        *why = std::string("its ") + kTypeNames[type] + " entries are " +
               std::to_string(t.entry_size) + " bytes, this build's are " +
               std::to_string(EntrySize(type));
        return false;
    }
    for (uint32_t i = 0; i < count && in.ok(); i++) {
        SnapEntry e;
        e.slot = in.Get<uint32_t>();
        e.key = in.Get<uint32_t>();
        e.bytes.resize(t.entry_size);
        in.Raw(e.bytes.data(), t.entry_size);
        if (e.slot >= PMDB_NUM_ENTRY_LOCKS ||
            (!t.entries.empty() && e.slot <= t.entries.back().slot)) {
            *why = std::string("its ") + kTypeNames[type] + " table lists slot " +
                   std::to_string(e.slot) + " out of order or out of range";
            return false;
        }
        t.entries.push_back(std::move(e));
    }
    return true;
}

bool DecodeRegion(In &in, Snapshot *s, std::string *why) {
    const uint32_t type = in.Get<uint32_t>();
    if (type >= PMDB_NUM_TYPES) {
        *why = "a region section names database type " + std::to_string(type);
        return false;
    }
    SnapRegion &r = s->regions[type];
    r.present = true;
    r.magic = in.Get<uint32_t>();
    if (in.Get<uint32_t>() != sizeof r.glbls) {
        *why = "its globals block is not " + std::to_string(sizeof r.glbls) + " bytes";
        return false;
    }
    in.Get<uint32_t>();
    in.Raw(&r.glbls, sizeof r.glbls);
    for (unsigned *n : {&r.locks.initialised, &r.locks.held, &r.locks.dead_owner,
                        &r.locks.not_recoverable, &r.locks.destroyed})
        *n = in.Get<uint32_t>();
    return true;
}

bool DecodeTrace(In &in, Snapshot *s, std::string *why) {
    const uint32_t kind = in.Get<uint32_t>();
    if (kind >= VESK_KINDS) {
        *why = "a trace section names buffer " + std::to_string(kind);
        return false;
    }
    SnapTrace &t = s->traces[kind];
    t.capacity = in.Get<uint32_t>();
    t.next = in.Get<uint64_t>();
    t.lost = in.Get<uint64_t>();
    t.dropped = in.Get<uint64_t>();
    const uint64_t count = in.Get<uint64_t>();
    if (count > t.capacity) {
        *why = "a trace section holds more records than its ring";
        return false;
    }
    for (uint64_t i = 0; i < count && in.ok(); i++) t.records.push_back(GetRecord(&in));
    return true;
}

bool DecodeSection(uint32_t type, const std::string &payload, Snapshot *s, std::string *why) {
    if (type == kHeader) return DecodeHeader(payload, s, why);
    if (type == kSettings) {
        s->settings = json::parse(payload, nullptr, false);
        if (!s->settings.is_discarded()) return true;
        *why = "its settings section is not JSON";
        return false;
    }
    In in{payload};
    bool ok = false;
    if (type == kTable)
        ok = DecodeTable(in, s, why);
    else if (type == kRegion)
        ok = DecodeRegion(in, s, why);
    else if (type == kTrace)
        ok = DecodeTrace(in, s, why);
    else
        *why = "unknown section type " + std::to_string(type);
    if (ok && !in.done()) {
        *why = "a section of type " + std::to_string(type) + " does not match its length";
        ok = false;
    }
    return ok;
}

}  // namespace

namespace {

struct Attempt {
    unsigned busy = 0, vanished = 0, held = 0;
    bool moved = false;
};

bool CaptureTablesOnce(Snapshot *s, Attempt *a, std::string *why) {
    const Activity before = SampleActivity();
    for (int t = 0; t < PMDB_NUM_TYPES; t++) {
        s->tables[t] = SnapTable{};
        s->regions[t] = SnapRegion{};
        if (!CaptureTable(t, &s->tables[t], &a->busy, &a->vanished, why)) return false;
        CaptureRegion(t, &s->regions[t]);
        a->held += s->regions[t].locks.held;
    }
    a->moved = SampleActivity() != before;
    return true;
}

}  // namespace

namespace {

bool BundlesAgree(const SnapTable &ifh) {
    struct Derived {
        unsigned members = 0, level_1 = 0, level_2 = 0;
    };
    std::map<uint32_t, Derived> derived;
    std::vector<pmdb_ifh_entry_t> all(ifh.entries.size());
    for (size_t i = 0; i < all.size(); i++)
        memcpy(&all[i], ifh.entries[i].bytes.data(), sizeof all[i]);
    for (const pmdb_ifh_entry_t &m : all) {
        if ((m.ifh_flags & PMDB_IFH_MEMBER_ACTIVE) == 0) continue;
        Derived &d = derived[m.intf_info.bundle_ifh];
        d.members++;
        d.level_1 += m.intf_info.oor_state == 1;
        d.level_2 += m.intf_info.oor_state == 2;
    }
    for (size_t i = 0; i < all.size(); i++) {
        const Derived d = derived[ifh.entries[i].key];
        if (all[i].member_count != static_cast<u8>(d.members) ||
            all[i].intf_info.oor_members_1 != d.level_1 ||
            all[i].intf_info.oor_members_2 != d.level_2)
            return false;
    }
    return true;
}

template <typename Entry>
Entry EntryOf(const SnapEntry &e) {
    Entry out;
    memcpy(&out, e.bytes.data(), sizeof out);
    return out;
}

CardView CardOf(const Snapshot &s) {
    CardView card;
    for (int t = 0; t < PMDB_NUM_TYPES; t++) card.tables += s.tables[t].present;
    for (const SnapEntry &e : s.tables[PMDB_TYPE_IFH].entries)
        card.ifh[e.key] = EntryOf<pmdb_ifh_entry_t>(e);
    for (const SnapEntry &e : s.tables[PMDB_TYPE_PUNT].entries)
        card.punt.push_back(EntryOf<pmdb_punt_entry_t>(e));
    for (const SnapEntry &e : s.tables[PMDB_TYPE_OAM].entries)
        card.oam.push_back(EntryOf<pmdb_oam_entry_t>(e));
    return card;
}

}  // namespace

bool InvariantsHold(const Snapshot &s) {
    return BundlesAgree(s.tables[PMDB_TYPE_IFH]) && CardInvariantsHold(CardOf(s));
}

bool Capture(Snapshot *out, unsigned wait_ms, std::string *why) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const auto deadline = start + std::chrono::milliseconds(wait_ms);
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // A writer changes a member and then its bundle, or removes an IFH entry
    // and then the entries that belong to it, each under its own lock, so a
    // capture may fall between two steps: it is taken again until the copy
    // holds the invariants, or the bound passes.
    Attempt a;
    unsigned attempts = 0;
    bool agree = false;
    do {
        a = Attempt{};
        attempts++;
        if (!CaptureTablesOnce(out, &a, why)) return false;
        agree = InvariantsHold(*out);
    } while (!agree && Clock::now() < deadline);
    for (int k = 0; k < VESK_KINDS; k++) CaptureTrace(static_cast<vesk_kind_t>(k), &out->traces[k]);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    out->settings = Settings();
    out->header = json{{"format", kSnapshotFormat},
                       {"record_sizes", RecordSizes()},
                       {"time_ns", static_cast<uint64_t>(now.tv_sec) * 1000000000ull + now.tv_nsec},
                       {"node_id", pmdb_node_id},
                       {"host", HostName()},
                       {"namespace", vorn_host_namespace()},
                       {"capture_ms", ms},
                       {"attempts", attempts},
                       {"invariants_hold", agree},
                       {"writers_active", a.moved || a.held > 0 || a.busy > 0 || a.vanished > 0},
                       {"tables_busy", a.busy},
                       {"entries_vanished", a.vanished},
                       {"locks_held", a.held}};
    return true;
}

std::string Encode(const Snapshot &s) {
    Out body;
    uint32_t sections = 0;
    auto add = [&](uint32_t type, const std::string &payload) {
        AddSection(&body, type, payload);
        sections++;
    };
    add(kHeader, JsonText(s.header, -1));
    for (int t = 0; t < PMDB_NUM_TYPES; t++) {
        if (s.tables[t].present) add(kTable, TablePayload(t, s.tables[t]));
        if (s.regions[t].present) add(kRegion, RegionPayload(t, s.regions[t]));
    }
    for (int k = 0; k < VESK_KINDS; k++) add(kTrace, TracePayload(k, s.traces[k]));
    add(kSettings, JsonText(s.settings, -1));
    Out file;
    file.Raw(kMagic, sizeof kMagic);
    file.Put<uint32_t>(kSnapshotFormat);
    file.Put<uint32_t>(sections);
    return file.bytes + body.bytes;
}

std::string Compress(const std::string &file) {
    std::string out(kZstdMagic, sizeof kZstdMagic);
    const uint64_t len = file.size();
    out.append(reinterpret_cast<const char *>(&len), sizeof len);
    std::string frame(ZSTD_compressBound(file.size()), '\0');
    ZSTD_CCtx *cctx = ZSTD_createCCtx();
    size_t n = cctx == nullptr ? 0 : ZSTD_CCtx_setParameter(cctx, ZSTD_c_checksumFlag, 1);
    if (cctx != nullptr && !ZSTD_isError(n))
        n = ZSTD_compress2(cctx, frame.data(), frame.size(), file.data(), file.size());
    ZSTD_freeCCtx(cctx);
    if (cctx == nullptr || ZSTD_isError(n)) return file;  // kept as it is
    frame.resize(n);
    return out + frame;
}

namespace {

bool Inflate(const std::string &bytes, std::string *file, std::string *why) {
    uint64_t len = 0;
    if (bytes.size() >= sizeof kZstdMagic + sizeof len)
        memcpy(&len, bytes.data() + sizeof kZstdMagic, sizeof len);
    if (len == 0 || len > kMaxInflated) {
        *why = "damaged: the compressed file names no sound length";
        return false;
    }
    file->resize(len);
    const size_t head = sizeof kZstdMagic + sizeof len;
    const size_t n = ZSTD_decompress(file->data(), len, bytes.data() + head, bytes.size() - head);
    if (!ZSTD_isError(n) && n == len) return true;
    *why = std::string("damaged: its compressed data does not decompress (") +
           (ZSTD_isError(n) ? ZSTD_getErrorName(n) : "short") + ")";
    return false;
}

}  // namespace

bool Decode(const std::string &bytes, Snapshot *out, std::string *why) {
    if (bytes.size() >= sizeof kZstdMagic &&
        memcmp(bytes.data(), kZstdMagic, sizeof kZstdMagic) == 0) {
        std::string file;
        return Inflate(bytes, &file, why) && Decode(file, out, why);
    }
    if (bytes.size() < kPrefixSize || memcmp(bytes.data(), kMagic, sizeof kMagic) != 0) {
        *why = "not a snapshot file (no PMDBSNAP magic)";
        return false;
    }
    In in{bytes, sizeof kMagic};
    const uint32_t format = in.Get<uint32_t>();
    if (format != kSnapshotFormat) {
        *why = "snapshot format " + std::to_string(format) + ", this build reads format " +
               std::to_string(kSnapshotFormat);
        return false;
    }
    const uint32_t sections = in.Get<uint32_t>();
    bool have_header = false;
    for (uint32_t i = 0; i < sections; i++) {
        const uint32_t type = in.Get<uint32_t>();
        in.Get<uint32_t>();
        const uint64_t len = in.Get<uint64_t>();
        const uint32_t crc = in.Get<uint32_t>();
        in.Get<uint32_t>();
        if (!in.ok() || len > bytes.size() - in.at) {
            *why = "truncated: section " + std::to_string(i + 1) + " of " +
                   std::to_string(sections) + " is cut short";
            return false;
        }
        const std::string payload = bytes.substr(in.at, len);
        in.at += len;
        if (Crc32(payload) != crc) {
            *why = "damaged: section " + std::to_string(i + 1) + " fails its checksum";
            return false;
        }
        if (!DecodeSection(type, payload, out, why)) return false;
        have_header = have_header || type == kHeader;
    }
    if (!have_header || in.at != bytes.size()) {
        *why = have_header ? "damaged: bytes after the last section" : "no header section";
        return false;
    }
    return true;
}

bool ReadSnapshotFile(const std::string &path, Snapshot *out, std::string *why) {
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        *why = "cannot open " + Printable(path) + ": " + strerror(errno);
        return false;
    }
    std::ostringstream all;
    all << f.rdbuf();
    if (Decode(all.str(), out, why)) return true;
    *why = Printable(path) + ": " + *why;
    return false;
}

std::map<std::string, uint64_t> Counters(const Snapshot &s) {
    std::map<std::string, uint64_t> c;
    for (int t = 0; t < PMDB_NUM_TYPES; t++) {
        const std::string tn = std::string("table.") + kTypeNames[t] + ".";
        const SnapTable &tab = s.tables[t];
        if (tab.present) {
            c[tn + "entries"] = tab.entries.size();
            c[tn + "adds"] = tab.adds;
            c[tn + "removes"] = tab.removes;
            c[tn + "repairs"] = tab.repairs;
        }
        const SnapRegion &r = s.regions[t];
        if (!r.present) continue;
        const std::string rn = std::string("region.") + kTypeNames[t] + ".";
        c[rn + "magic"] = r.magic;
        c[rn + "locks_held"] = r.locks.held;
        c[rn + "locks_dead_owner"] = r.locks.dead_owner;
        c[rn + "locks_not_recoverable"] = r.locks.not_recoverable;
        c[rn + "hs_node_mask"] = r.glbls.hs_node_mask;
        c[rn + "hs_node_id"] = r.glbls.hs_node_id;
        c[rn + "inv_node_id"] = r.glbls.inv_node_id;
        uint64_t mac = 0;
        for (const u8 b : r.glbls.inv_node_mac) mac = mac << 8 | b;
        c[rn + "inv_node_mac"] = mac;
    }
    for (int k = 0; k < VESK_KINDS; k++) {
        const std::string kn =
            std::string("trace.") + vesk_kind_name(static_cast<vesk_kind_t>(k)) + ".";
        c[kn + "next"] = s.traces[k].next;
        c[kn + "lost"] = s.traces[k].lost;
    }
    return c;
}

}  // namespace pmdbctl

#endif
