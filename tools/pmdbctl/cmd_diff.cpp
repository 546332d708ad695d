// pmdbctl diff A B [--json]: what changed from state A to state B, each a
// snapshot file (pmdbctl save) or a namespace, read live.
//
// Entries are matched by key, table by table: added (only in B), removed
// (only in A), changed (bytes differ), the changed ones field by field under
// the names pmdbctl dump uses (a slot that differs is the field "slot").
// Then the counters that differ: table sizes and their add, remove and
// repair counts, region magic, lock states and globals, trace positions.
// An operand is a file when a file of that name exists, else a namespace
// with shared objects; a namespace is read in a child process of its own,
// since the reader library keeps one namespace per process.
#if defined(PMDBCTL_HAVE_TABRA) && defined(PMDBCTL_HAVE_PMDB_READER)

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>
#include <map>
#include <memory>
#include <string>

#include "command.h"
#include "entry_fields.h"
#include "format.h"
#include "host/os_host.h"
#include "snapshot.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;

struct Options {
    std::string a, b;
    bool json = false;
};

std::string ReadAll(int fd) {
    std::string all;
    char buf[65536];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return all;
        all.append(buf, static_cast<size_t>(n));
    }
}

// The child captures namespace ns and writes 'S' and the snapshot's bytes,
// or 'E' and the reason, to the pipe.
[[noreturn]] void CaptureChild(const std::string &ns, int fd) {
    std::string out = "E";
    Snapshot s;
    std::string why;
    if (vorn_host_set_namespace(ns.c_str()) != 0)
        out += "invalid namespace '" + Printable(ns) + "'";
    else if (!Capture(&s, kDefaultWaitMs, &why))
        out += why;
    else
        out = "S" + Encode(s);
    for (size_t done = 0; done < out.size();) {
        const ssize_t n = write(fd, out.data() + done, out.size() - done);
        if (n <= 0) _exit(1);
        done += static_cast<size_t>(n);
    }
    _exit(0);
}

bool CaptureNamespace(const std::string &ns, Snapshot *out, std::string *why) {
    int fds[2];
    if (pipe(fds) != 0) {
        *why = std::string("pipe: ") + strerror(errno);
        return false;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        CaptureChild(ns, fds[1]);
    }
    close(fds[1]);
    const std::string got = pid > 0 ? ReadAll(fds[0]) : "";
    close(fds[0]);
    if (pid > 0) waitpid(pid, nullptr, 0);
    if (got.empty() || got[0] != 'S') {
        *why = "namespace " + ns + ": " + (got.size() > 1 ? got.substr(1) : "capture failed");
        return false;
    }
    return Decode(got.substr(1), out, why);
}

bool Resolve(const std::string &operand, Snapshot *out, std::string *why) {
    struct stat st;
    if (stat(operand.c_str(), &st) == 0) return ReadSnapshotFile(operand, out, why);
    auto ignore = [](void *, const char *) {};
    if (vorn_host_namespace_valid(operand.c_str()) &&
        vorn_host_list_objects(operand.c_str(), ignore, nullptr) > 0)
        return CaptureNamespace(operand, out, why);
    *why = "no snapshot file or namespace named '" + Printable(operand) + "'";
    return false;
}

// Dotted field name -> value of an entry's fields.
void Flatten(const json &j, const std::string &prefix, std::map<std::string, json> *out) {
    for (const auto &[name, value] : j.items()) {
        if (value.is_object())
            Flatten(value, prefix + name + ".", out);
        else
            (*out)[prefix + name] = value;
    }
}

json ChangedFields(int type, const SnapEntry &a, const SnapEntry &b) {
    std::map<std::string, json> fa, fb;
    Flatten(EntryFields(static_cast<pmdb_type_t>(type), a.bytes.data()), "", &fa);
    Flatten(EntryFields(static_cast<pmdb_type_t>(type), b.bytes.data()), "", &fb);
    if (a.slot != b.slot) {
        fa["slot"] = a.slot;
        fb["slot"] = b.slot;
    }
    json changed = json::object();
    for (const auto &[name, va] : fa)
        if (fb[name] != va) changed[name] = {{"a", va}, {"b", fb[name]}};
    return changed;
}

json DiffTable(int type, const SnapTable &ta, const SnapTable &tb) {
    std::map<uint32_t, const SnapEntry *> a, b;
    for (const SnapEntry &e : ta.entries) a[e.key] = &e;
    for (const SnapEntry &e : tb.entries) b[e.key] = &e;
    json out{{"added", json::array()}, {"removed", json::array()}, {"changed", json::array()}};
    for (const auto &[key, e] : b)
        if (a.count(key) == 0) out["added"].push_back({{"key", Hex(key)}, {"slot", e->slot}});
    for (const auto &[key, e] : a) {
        const auto other = b.find(key);
        if (other == b.end()) {
            out["removed"].push_back({{"key", Hex(key)}, {"slot", e->slot}});
            continue;
        }
        if (e->bytes == other->second->bytes && e->slot == other->second->slot) continue;
        out["changed"].push_back(
            {{"key", Hex(key)}, {"fields", ChangedFields(type, *e, *other->second)}});
    }
    return out;
}

json DiffCounters(const Snapshot &a, const Snapshot &b) {
    std::map<std::string, uint64_t> ca = Counters(a), cb = Counters(b);
    json out = json::object();
    for (const auto &[name, v] : ca)
        if (cb.count(name) == 0 || cb[name] != v)
            out[name] = {{"a", v}, {"b", cb.count(name) ? json(cb[name]) : json(nullptr)}};
    for (const auto &[name, v] : cb)
        if (ca.count(name) == 0) out[name] = {{"a", nullptr}, {"b", v}};
    return out;
}

std::string Value(const json &v) {
    return v.is_string() ? v.get<std::string>() : v.dump();
}

void PrintText(const json &d) {
    size_t n = 0;
    for (const auto &[table, t] : d["tables"].items()) {
        for (const char *what : {"added", "removed"})
            for (const json &e : t[what]) {
                std::cout << table << ' ' << Value(e["key"]) << ' ' << what << '\n';
                n++;
            }
        for (const json &e : t["changed"]) {
            std::cout << table << ' ' << Value(e["key"]) << " changed\n";
            for (const auto &[name, f] : e["fields"].items())
                std::cout << "  " << name << ": " << Value(f["a"]) << " -> " << Value(f["b"])
                          << '\n';
            n++;
        }
    }
    for (const auto &[name, c] : d["counters"].items())
        std::cout << "counter " << name << ": " << Value(c["a"]) << " -> " << Value(c["b"]) << '\n';
    std::cout << n << " entries differ, " << d["counters"].size() << " counters differ\n";
}

int Diff(const Options &o) {
    Snapshot a, b;
    std::string why;
    if (!Resolve(o.a, &a, &why) || !Resolve(o.b, &b, &why)) return Fail("diff: " + why);
    json d{{"a", o.a}, {"b", o.b}, {"tables", json::object()}};
    for (int t = 0; t < PMDB_NUM_TYPES; t++)
        d["tables"][kTypeNames[t]] = DiffTable(t, a.tables[t], b.tables[t]);
    d["counters"] = DiffCounters(a, b);
    if (o.json)
        std::cout << JsonText(d) << std::endl;
    else
        PrintText(d);
    return 0;
}

RunFn Install(CLI::App &app) {
    auto opts = std::make_shared<Options>();
    CLI::App *cmd =
        app.add_subcommand("diff", "Entries and counters that differ between two states");
    cmd->add_option("a", opts->a, "snapshot file or namespace (before)")->required();
    cmd->add_option("b", opts->b, "snapshot file or namespace (after)")->required();
    cmd->add_flag("--json", opts->json, "JSON output");
    return [opts] { return Diff(*opts); };
}

const Registrar kDiff("diff", Install);

}  // namespace
}  // namespace pmdbctl

#endif
