// campaign.h - the crash campaign: writer processes replay disjoint parts of
// a generated card while a supervisor kills them with SIGKILL and restarts
// them; after every kill the tables must pass `pmdbctl check` (or pass it
// after `pmdbctl repair`) and equal a shadow copy that applied every
// completed event once, in one process, without kills.
//
// Parts:
//   campaign_plan.cpp    the card's stream cut into phases and shared out
//                        among the writers by the interface each line is
//                        about
//   campaign_proc.cpp    the writer and shadow processes, the messages they
//                        exchange with the supervisor, running a program
//                        with a bounded wait
//   crash_campaign.cpp   the supervisor: kills, rounds, checks, figures
#ifndef PMDB_CAMPAIGN_H
#define PMDB_CAMPAIGN_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "event_stream.h"

namespace campaign {

// How the card is generated and shared out.
struct CardShape {
    unsigned seed = 1;
    unsigned writers = 3;
    unsigned nodes = 2;
    unsigned ports = 4;    // per node
    unsigned bundles = 2;
    unsigned members = 4;  // per bundle; more than writers, see MakePlan
    unsigned churn = 30;
};

// A line every process applies for itself (the inventory list is process
// local), not handed to one writer.
constexpr int kEveryWriter = -1;

struct Line {
    std::string text;
    pmdbctl::StreamLine parsed;
    int writer = kEveryWriter;
    std::string kind;  // "member_leave", "oor", ... and the interface's role
};

// One pass over the card: bring-up, churn, teardown.
struct Plan {
    std::vector<Line> lines;
    // Phases are runs of lines that writers may apply in any interleaving
    // and still reach the tables of the stream's order; the supervisor waits
    // for every writer at each phase's end.  phase_end[i] is the index
    // after phase i.
    std::vector<size_t> phase_end;
    size_t card_end = 0;   // bring-up ends here, churn begins
    size_t churn_end = 0;  // churn ends here, teardown begins
    std::vector<std::vector<uint32_t>> items;  // per writer: its line indexes
    std::string card_text;   // the bring-up and churn as pmdbctl gen wrote them
    std::string whole_text;  // and with the teardown
};

// Runs `pmdbctl gen` and builds the plan; "" or why it could not.
std::string MakePlan(const std::string &pmdbctl, const CardShape &shape, Plan *plan);

// ---- processes ------------------------------------------------------------

// Supervisor to process.
enum CmdKind : uint32_t {
    kRunTo = 1,  // writer: apply your items up to this position (exclusive)
    kArm,        // writer: SIGKILL yourself after this many us of CPU time
    kPause,      // writer: stop after the current item, answer kPaused
    kApply,      // shadow: apply this line index
    kSync,       // shadow: answer kSynced once everything before is applied
};
// Process to supervisor.
enum MsgKind : uint32_t {
    kReady = 1,  // tables opened, inventory applied; value: first position
    kDone,       // value: the position just completed (the call returned)
    kPaused,     // value: the next position
    kSynced,
};
struct Word {
    uint32_t kind;
    uint32_t value;
};

// Per writer, in memory shared with the supervisor: the line index + 1 of
// the call in progress, 0 between calls.
struct InCall {
    volatile uint32_t line[64];
};

struct Child {
    pid_t pid = -1;
    int cmd = -1;  // supervisor writes
    int rep = -1;  // supervisor reads
};

// A writer: applies plan.items[w] (position p is item p % size, pass
// p / size) from position `start` as told.  Runs in namespace `ns`.
Child StartWriter(const Plan &plan, unsigned w, uint32_t start, const std::string &ns,
                  InCall *in_call);
// The shadow: applies the line indexes it is sent, in namespace `ns`.
Child StartShadow(const Plan &plan, const std::string &ns);
void CloseChild(Child *c);

// Writes one word; false when the process is gone.
bool Send(int fd, CmdKind kind, uint32_t value = 0);

// A program run to its end, stdout and stderr read, killed after
// timeout_ms.  status: exit status, -signal when a signal ended it.
struct ToolResult {
    int status = -1;
    bool timed_out = false;
    std::string out, err;
};
ToolResult RunTool(const std::vector<std::string> &argv, unsigned timeout_ms);

}  // namespace campaign

#endif
