// pmdbctl replay FILE|-: hands an event stream (docs/event-stream.md) to the
// library line by line, in order, as one port mapper process would.
//
//   --keep-going   a malformed line is reported and skipped (and counted);
//                  without it the replay stops at the first one, exit 1
//   --batch        holds write access to the three tables across the whole
//                  stream: one protection change pair instead of one per
//                  change
//   --json         the closing summary as one JSON object
//
// Every line is parsed whole before anything of it is applied, so a
// malformed line changes nothing.  A refused line is one line on stderr,
// "FILE:LINE: reason".  Calls that the library answers with a failure are
// counted in the summary; they do not stop the replay (the stream was
// applied as written).  The inventory list and the callbacks belong to the
// process, so a stream that relies on them is replayed by one pmdbctl.
#if defined(PMDBCTL_HAVE_PMDB) && defined(PMDBCTL_HAVE_PMDB_READER)

#include <stdio.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "event_stream.h"
#include "format.h"
#include "pmdb.h"
#include "pmdb_reader.h"
#include "stream_apply.h"

namespace pmdbctl {
namespace {

using json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

struct ReplayOptions {
    std::string file;
    bool keep_going = false;
    bool batch = false;
    bool json = false;
};

constexpr const char *kTableNames[PMDB_NUM_TYPES] = {"ifh", "punt", "oam"};

struct Counts {
    u32 n[PMDB_NUM_TYPES] = {};
};

Counts CountEntries() {
    Counts c;
    for (int t = 0; t < PMDB_NUM_TYPES; t++)
        if (dpa_pmdb_count_entries(static_cast<pmdb_type_t>(t), &c.n[t]) != 0) c.n[t] = 0;
    return c;
}

struct Summary {
    std::map<std::string, unsigned> applied;  // by event type name or operation
    unsigned lines = 0;                       // lines applied
    unsigned skipped = 0;                     // malformed lines skipped
    unsigned failed = 0;                      // calls the library refused
    Counts before, after;
    double seconds = 0;
};

// The name a line is counted under in the summary.
std::string CountName(const StreamLine &l) {
    if (l.op != StreamOp::kEvent) return StreamOpName(l.op);
    const char *name = EventTypeName(l.event.event_type);
    return name[0] != '\0' ? name : "type " + std::to_string(l.event.event_type);
}

// Write access to the three tables for the whole stream (--batch).
class BatchAccess {
public:
    cerrno Take() {
        for (int t = 0; t < PMDB_NUM_TYPES; t++) {
            const cerrno rc = dpa_chk_pmdb_open(nullptr, &hdl_[t], static_cast<pmdb_type_t>(t), 1);
            if (rc != 0) return rc;
            taken_ = t + 1;
        }
        return 0;
    }
    // Releases what Take took, on every path.
    ~BatchAccess() {
        for (int t = 0; t < taken_; t++)
            (void)dpa_pmdb_mprotect_tabra(hdl_[t]->tabra, hdl_[t], static_cast<pmdb_type_t>(t));
    }

private:
    dnx_db_hdl_t *hdl_[PMDB_NUM_TYPES] = {};
    int taken_ = 0;
};

// A progress bar on stdout, drawn only on a terminal and once the replay has
// lasted a second; redrawn at most ten times a second.
class Progress {
public:
    explicit Progress(size_t total) : total_(total), tty_(isatty(STDOUT_FILENO) == 1) {}
    void Update(size_t done) {
        const auto now = Clock::now();
        if (!tty_ || now - start_ < std::chrono::seconds(1) || now - drawn_ < kRedraw) return;
        drawn_ = now;
        const size_t width = 40, filled = total_ == 0 ? width : done * width / total_;
        printf("\r[%s%s] %zu/%zu lines", std::string(filled, '#').c_str(),
               std::string(width - filled, '.').c_str(), done, total_);
        fflush(stdout);
        shown_ = true;
    }
    void Done() {
        if (shown_) printf("\r%*s\r", 70, "");
    }

private:
    static constexpr auto kRedraw = std::chrono::milliseconds(100);
    const Clock::time_point start_ = Clock::now();
    Clock::time_point drawn_{};
    size_t total_;
    bool tty_;
    bool shown_ = false;
};

// The stream's lines.  A last line cut short is no complete JSON object, and
// is refused as malformed like any other.
bool ReadLines(const std::string &file, std::vector<std::string> *lines) {
    std::stringstream text;
    if (file == "-") {
        text << std::cin.rdbuf();
    } else {
        std::ifstream in(file);
        if (!in) return false;
        text << in.rdbuf();
    }
    std::string line;
    while (std::getline(text, line)) lines->push_back(line);
    return true;
}

double PerSecond(const Summary &s) { return s.seconds > 0 ? s.lines / s.seconds : 0; }

json SummaryJson(const Summary &s) {
    json tables = json::object();
    for (int t = 0; t < PMDB_NUM_TYPES; t++)
        tables[kTableNames[t]] = {{"before", s.before.n[t]}, {"after", s.after.n[t]}};
    return {{"applied", s.lines},      {"skipped", s.skipped},   {"failed", s.failed},
            {"by_type", s.applied},    {"tables", tables},       {"seconds", s.seconds},
            {"per_second", PerSecond(s)}};
}

void PrintSummary(const Summary &s, bool as_json) {
    if (as_json) {
        std::cout << JsonText(SummaryJson(s)) << std::endl;
        return;
    }
    printf("applied %u line(s), malformed %u, refused by the library %u\n", s.lines, s.skipped,
           s.failed);
    for (const auto &[name, n] : s.applied) printf("  %-20s %u\n", name.c_str(), n);
    for (int t = 0; t < PMDB_NUM_TYPES; t++)
        printf("  table %-5s %u -> %u entries\n", kTableNames[t], s.before.n[t], s.after.n[t]);
    printf("%.3f s, %.0f lines per second\n", s.seconds, PerSecond(s));
    fflush(stdout);
}

std::string Where(const ReplayOptions &o, size_t line) {
    return (o.file == "-" ? std::string("<stdin>") : o.file) + ":" + std::to_string(line) + ": ";
}

// Applies the lines in order; false when it stopped at a malformed line.
bool ApplyAll(const ReplayOptions &o, const std::vector<std::string> &lines, Summary &s) {
    Progress progress(lines.size());
    bool ok = true;
    for (size_t i = 0; i < lines.size() && ok; i++) {
        if (lines[i].find_first_not_of(" \t\r") == std::string::npos) continue;
        StreamLine l;
        const std::string reason = ParseStreamLine(lines[i], &l);
        if (!reason.empty()) {
            std::cerr << Where(o, i + 1) << reason << std::endl;
            s.skipped++;
            ok = o.keep_going;
            continue;
        }
        s.failed += ApplyStreamLine(l) ? 0 : 1;
        s.applied[CountName(l)]++;
        s.lines++;
        progress.Update(i + 1);
    }
    progress.Done();
    return ok;
}

int Replay(const ReplayOptions &o) {
    std::vector<std::string> lines;
    if (!ReadLines(o.file, &lines)) return Fail("cannot read " + Printable(o.file));
    Summary s;
    s.before = CountEntries();
    const auto start = Clock::now();
    bool ok = true;
    {
        BatchAccess batch;
        const cerrno rc = o.batch ? batch.Take() : 0;
        if (rc != 0) return Fail("taking write access for --batch failed with status " + Hex(rc, 0));
        ok = ApplyAll(o, lines, s);
    }
    s.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    s.after = CountEntries();
    PrintSummary(s, o.json);
    return ok ? 0 : kExitFailure;
}

RunFn InstallReplay(CLI::App &app) {
    auto *cmd = app.add_subcommand("replay", "Apply an event stream (JSON Lines) to the database");
    auto o = std::make_shared<ReplayOptions>();
    cmd->add_option("file", o->file, "the stream, - for standard input")->required();
    cmd->add_flag("--keep-going", o->keep_going, "skip malformed lines instead of stopping");
    cmd->add_flag("--batch", o->batch, "hold write access across the whole stream");
    cmd->add_flag("--json", o->json, "print the summary as JSON");
    return [o] { return Replay(*o); };
}

const Registrar kReplay("replay", InstallReplay);

}  // namespace
}  // namespace pmdbctl

#endif
