// pmdbctl trace: decoded records of the trace buffers of the namespace.
//
//   pmdbctl trace [--buffer error|database|event] [--since SEQ] [--follow] [--json]
//
// Without --buffer the three buffers are merged by time.  --since applies to
// each buffer read (sequence numbers are per buffer).  Text output is one
// line per record; --json prints one object {namespace, records, next, lost}
// or, with --follow, one record object per line.  Records lost to a full
// ring are reported on stderr in text mode and under "lost" in JSON.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>
#include <vector>

#include "command.h"
#include "format.h"
#include "host/os_host.h"
#include "host/vesk_reader.h"
#include "trace_points.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;

struct Options {
    std::string buffer;
    uint64_t since = 0;
    bool follow = false;
    bool json = false;
};

struct Entry {
    vesk_kind_t kind;
    vesk_rec_t rec;
};

struct Cursor {
    vesk_kind_t kind;
    const vesk_buf_t *buf;
    uint64_t next;
    uint64_t lost;
};

std::string IsoTime(int64_t sec, uint32_t nsec) {
    const time_t t = (time_t)sec;
    tm utc{};
    gmtime_r(&t, &utc);
    char buf[48];
    const size_t n = strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &utc);
    snprintf(buf + n, sizeof buf - n, ".%06uZ", nsec / 1000);
    return buf;
}

/* Names and values of a record's arguments, in order. */
json Arguments(const vesk_rec_t &r, const TracePoint *tp) {
    json args = json::object();
    const size_t shift = r.is_string ? 1 : 0;
    if (r.is_string) args[TraceArgName(tp, 0)] = Printable(r.str);
    for (size_t i = 0; i < r.nargs; i++) args[TraceArgName(tp, i + shift)] = r.args[i];
    return args;
}

json RecordJson(const Entry &e) {
    const TracePoint *tp = FindTracePoint(e.rec.point);
    json j;
    j["buffer"] = vesk_kind_name(e.kind);
    j["seq"] = e.rec.seq;
    j["point"] = e.rec.point;
    j["name"] = tp != nullptr ? tp->name : "unknown";
    j["id"] = Hex(e.rec.id, 0);
    j["time"] = IsoTime(e.rec.tv_sec, e.rec.tv_nsec);
    j["time_ns"] = (uint64_t)e.rec.tv_sec * 1000000000ull + e.rec.tv_nsec;
    j["pid"] = e.rec.pid;
    j["tid"] = e.rec.tid;
    j["args"] = Arguments(e.rec, tp);
    return j;
}

std::string RecordText(const Entry &e) {
    const TracePoint *tp = FindTracePoint(e.rec.point);
    std::ostringstream os;
    os << IsoTime(e.rec.tv_sec, e.rec.tv_nsec) << ' ' << vesk_kind_name(e.kind) << ' '
       << e.rec.point << ' ' << (tp != nullptr ? tp->name : "unknown") << " pid=" << e.rec.pid
       << " tid=" << e.rec.tid << " seq=" << e.rec.seq;
    const json args = Arguments(e.rec, tp);
    for (const auto &[name, value] : args.items()) {
        os << ' ' << name << '=' << (value.is_string() ? '"' + value.get<std::string>() + '"'
                                                       : value.dump());
    }
    return os.str();
}

/* Reads what is new in every cursor, merged by time. */
std::vector<Entry> ReadNew(std::vector<Cursor> &cursors) {
    std::vector<Entry> all;
    for (Cursor &c : cursors) {
        std::vector<vesk_rec_t> recs(vesk_capacity(c.buf));
        uint64_t lost = 0;
        const size_t n = vesk_read(c.buf, c.next, recs.data(), recs.size(), &c.next, &lost);
        c.lost += lost;
        for (size_t i = 0; i < n; i++) all.push_back({c.kind, recs[i]});
    }
    std::stable_sort(all.begin(), all.end(), [](const Entry &a, const Entry &b) {
        if (a.rec.tv_sec != b.rec.tv_sec) return a.rec.tv_sec < b.rec.tv_sec;
        return a.rec.tv_nsec < b.rec.tv_nsec;
    });
    return all;
}

void ReportLost(std::vector<Cursor> &cursors) {
    for (Cursor &c : cursors) {
        if (c.lost != 0) {
            std::cerr << "# " << c.lost << " records of " << vesk_kind_name(c.kind)
                      << " lost (overwritten)" << std::endl;
        }
        c.lost = 0;
    }
}

int Follow(std::vector<Cursor> &cursors, bool as_json) {
    DeferInterrupts();
    while (!Interrupted()) {
        for (const Entry &e : ReadNew(cursors)) {
            std::cout << (as_json ? JsonText(RecordJson(e), -1) : RecordText(e)) << '\n';
        }
        std::cout.flush();
        if (!as_json) ReportLost(cursors);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return 0;
}

int Run(const Options &o) {
    std::vector<Cursor> cursors;
    for (int k = 0; k < VESK_KINDS; k++) {
        if (!o.buffer.empty() && vesk_kind_from_name(o.buffer.c_str()) != k) continue;
        const vesk_buf_t *buf = vesk_open((vesk_kind_t)k);
        if (buf == nullptr) return Fail(std::string("cannot open trace buffer ") +
                                        vesk_kind_name((vesk_kind_t)k));
        cursors.push_back({(vesk_kind_t)k, buf, o.since, 0});
    }
    if (o.follow) return Follow(cursors, o.json);
    const std::vector<Entry> entries = ReadNew(cursors);
    if (!o.json) {
        for (const Entry &e : entries) std::cout << RecordText(e) << '\n';
        ReportLost(cursors);
        return 0;
    }
    json out;
    out["namespace"] = vorn_host_namespace();
    out["records"] = json::array();
    for (const Entry &e : entries) out["records"].push_back(RecordJson(e));
    for (const Cursor &c : cursors) out["next"][vesk_kind_name(c.kind)] = c.next;
    for (const Cursor &c : cursors) out["lost"][vesk_kind_name(c.kind)] = c.lost;
    std::cout << JsonText(out) << std::endl;
    return 0;
}

RunFn Install(CLI::App &app) {
    auto opts = std::make_shared<Options>();
    CLI::App *cmd = app.add_subcommand("trace", "Print decoded trace records");
    cmd->add_option("--buffer", opts->buffer, "one buffer only")
        ->check(CLI::IsMember({"error", "database", "event"}));
    cmd->add_option("--since", opts->since, "first sequence number to print (per buffer)");
    cmd->add_flag("--follow", opts->follow, "keep printing new records until interrupted");
    cmd->add_flag("--json", opts->json, "JSON output");
    return [opts] { return Run(*opts); };
}

const Registrar kTrace("trace", Install);

}  // namespace
}  // namespace pmdbctl
