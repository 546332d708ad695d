// pmdbctl graph: the card's topology as the tables hold it, as a Graphviz
// graph.
//
//   pmdbctl graph [--svg FILE] [--timeout-ms N]
//
// One graph node per IFH entry, named by its handle ("0x00011000") and
// labelled with its kind, handle and the number of PUNT and OAM entries that
// belong to it (card_view.h); ports, port sub-interfaces and BVIs sit in a
// cluster per card node ("cluster_node_<id>"), bundles and their
// sub-interfaces outside, since they span nodes.  Edges: parent -> sub-
// interface, active member -> bundle (labelled with its member port).  An
// interface that entries still name but that has no IFH entry is drawn
// dashed as "gone".  A member at out-of-resource level 1 or 2 is filled
// orange or red.
//
// Without --svg the DOT text goes to stdout.  With --svg the graph is
// rendered by the `dot` program found in PATH into FILE, and stdout stays
// empty: dot gets the DOT in a file of its own (so that no pipe can stall
// either side) and is waited for at most --timeout-ms (default 20000), then
// killed.  A namespace without the card's tables, a missing dot, its failure
// or its timeout is one line on stderr and exit status 1.
#ifdef PMDBCTL_HAVE_PMDB_READER

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "card_view.h"
#include "command.h"
#include "format.h"

extern char **environ;

namespace pmdbctl {
namespace {

struct GraphOptions {
    std::string svg;
    unsigned timeout_ms = 20000;
};

std::string Id(u32 handle) { return "\"" + Hex(handle) + "\""; }

class DotWriter {
public:
    explicit DotWriter(const CardView &card)
        : card_(card), punt_(card.PuntCounts()), oam_(card.OamCounts()) {}

    std::string Text() {
        out_ << "digraph card {\n"
             << "  graph [rankdir=LR, fontname=\"Helvetica\", labelloc=t, label=\"line card: "
             << card_.ifh.size() << " IFH, " << card_.punt.size() << " PUNT, " << card_.oam.size()
             << " OAM entries\"];\n"
             << "  node [fontname=\"Helvetica\", fontsize=10, style=filled, fillcolor=white];\n"
             << "  edge [fontname=\"Helvetica\", fontsize=9];\n";
        Clusters();
        for (const auto &[key, e] : card_.ifh)
            if (NodeOf(e) == 0) Node(key, e);
        for (const auto &[key, e] : card_.ifh) Edges(key, e);
        for (const auto &[owner, n] : punt_) Named(owner);
        for (const auto &[owner, n] : oam_) Named(owner);
        for (u32 h : gone_)
            out_ << "  " << Id(h) << " [shape=box, style=\"dashed,filled\", fillcolor=\"#ffe0e0\", "
                 << "label=\"gone " << Hex(h) << "\\n" << Counts(h) << "\"];\n";
        out_ << "}\n";
        return out_.str();
    }

private:
    const CardView &card_;
    const std::map<u32, unsigned> punt_, oam_;
    std::set<u32> gone_;
    std::ostringstream out_;

    // The card node an interface is drawn in; 0: outside every node.
    static u32 NodeOf(const pmdb_ifh_entry_t &e) {
        const IntfKind k = KindOf(e);
        return k == IntfKind::kBundle || k == IntfKind::kBundleSub ? 0 : e.intf_info.node_id;
    }

    static unsigned Get(const std::map<u32, unsigned> &m, u32 h) {
        const auto i = m.find(h);
        return i == m.end() ? 0 : i->second;
    }

    std::string Counts(u32 h) const {
        return "punt " + std::to_string(Get(punt_, h)) + "  oam " + std::to_string(Get(oam_, h));
    }

    void Clusters() {
        std::map<u32, std::vector<u32>> nodes;
        for (const auto &[key, e] : card_.ifh)
            if (NodeOf(e) != 0) nodes[NodeOf(e)].push_back(key);
        for (const auto &[node, keys] : nodes) {
            out_ << "  subgraph \"cluster_node_" << node << "\" {\n"
                 << "    label=\"node " << node << "\"; style=rounded; color=gray60;\n";
            for (u32 key : keys) {
                out_ << "  ";
                Node(key, card_.ifh.at(key));
            }
            out_ << "  }\n";
        }
    }

    void Node(u32 key, const pmdb_ifh_entry_t &e) {
        const IntfKind kind = KindOf(e);
        static const char *const kShape[] = {"box", "ellipse", "ellipse", "hexagon", "diamond"};
        std::string label = std::string(KindName(kind)) + " " + Hex(key);
        if (kind == IntfKind::kBundle)
            label += "\\nmembers " + std::to_string(e.member_count) + "  subs " +
                     std::to_string(e.sub_intf_count);
        label += "\\n" + Counts(key);
        const char *fill = kind == IntfKind::kBundle ? "#dde8ff" : "white";
        if (e.intf_info.oor_state == 1) fill = "orange";
        if (e.intf_info.oor_state == 2) fill = "#ff8080";
        out_ << "  " << Id(key) << " [shape=" << kShape[static_cast<int>(kind)] << ", fillcolor=\""
             << fill << "\", label=\"" << label << "\"];\n";
    }

    void Named(u32 h) {
        if (h != 0 && card_.ifh.count(h) == 0) gone_.insert(h);
    }

    void Edges(u32 key, const pmdb_ifh_entry_t &e) {
        if (const u32 parent = ParentOf(e.intf_info); parent != 0) {
            Named(parent);
            out_ << "  " << Id(parent) << " -> " << Id(key) << " [arrowhead=none, color=gray40];\n";
        }
        const u32 bundle = e.intf_info.bundle_ifh;
        if ((e.ifh_flags & PMDB_IFH_MEMBER_ACTIVE) == 0 || bundle == 0 || bundle == key) return;
        Named(bundle);
        out_ << "  " << Id(key) << " -> " << Id(bundle) << " [label=\"member "
             << e.intf_info.member_port << "\", penwidth=2];\n";
    }
};

// A file of this process for dot's input, removed with the object.
class TempFile {
public:
    explicit TempFile(const std::string &text) {
        char name[] = "/tmp/pmdbctl-graph-XXXXXX";
        const int fd = mkstemp(name);
        if (fd < 0) return;
        path_ = name;
        const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        if (close(fd) != 0 || !ok) path_.clear();
    }
    ~TempFile() {
        if (!path_.empty()) unlink(path_.c_str());
    }
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

// The first line dot wrote on stderr, or "".
std::string FirstLine(const std::string &path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return Printable(line);
}

// Waits for child `pid` at most timeout_ms; kills it after that.
// Returns its wait status, or -1 when it was killed for the timeout.
int WaitBounded(pid_t pid, unsigned timeout_ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    const WaitingFor waiting("dot to render the graph");
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= end) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return status;
}

int Render(const std::string &dot, const GraphOptions &o) {
    const TempFile in(dot), err("");
    if (in.path().empty() || err.path().empty()) return Fail("cannot write a temporary file for dot");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.path().c_str(), O_WRONLY, 0);
    const std::string out_arg = "-o" + o.svg;
    const char *argv[] = {"dot", "-Tsvg", out_arg.c_str(), in.path().c_str(), nullptr};
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, "dot", &actions, nullptr, const_cast<char **>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        return Fail(std::string("cannot run dot (") + strerror(rc) +
                    "): install graphviz, or use pmdbctl graph without --svg");
    const int status = WaitBounded(pid, o.timeout_ms);
    if (status == -1) return Fail("dot did not finish within " + std::to_string(o.timeout_ms) + " ms");
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return 0;
    const std::string why = FirstLine(err.path());
    const std::string how = WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                                              : "signal " + std::to_string(WTERMSIG(status));
    return Fail("dot failed (" + how + ")" + (why.empty() ? "" : ": " + why));
}

int Graph(const GraphOptions &o) {
    CardView card;
    const cerrno rc = ReadCard(&card);
    if (rc != PMDB_OK) return Fail("reading the tables failed with status " + Hex(rc, 0));
    if (card.tables == 0) return Fail("no table of the card in this namespace");
    if (card.busy) std::cerr << "pmdbctl: some entries stayed locked by a writer and are not drawn\n";
    const std::string dot = DotWriter(card).Text();
    if (o.svg.empty()) {
        std::cout << dot << std::flush;
        return std::cout.good() ? 0 : Fail("writing the graph failed");
    }
    return Render(dot, o);
}

RunFn InstallGraph(CLI::App &app) {
    auto *cmd = app.add_subcommand("graph", "Draw the card's interfaces as a Graphviz graph");
    auto o = std::make_shared<GraphOptions>();
    cmd->add_option("--svg", o->svg, "render to this SVG file with dot instead of printing DOT");
    cmd->add_option("--timeout-ms", o->timeout_ms, "longest wait for dot (ms)")
        ->check(CLI::Range(1u, 3600000u))
        ->capture_default_str();
    return [o] { return Graph(*o); };
}

const Registrar kGraph("graph", InstallGraph);

}  // namespace
}  // namespace pmdbctl

#endif
