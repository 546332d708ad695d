// event_stream.h - the event stream that pmdbctl replay reads and pmdbctl gen
// writes: JSON Lines, one call of a port mapper entry point per line
// (docs/event-stream.md describes the format).
//
// Parsing a line never touches the database: a line is either turned whole
// into a StreamLine or refused with a reason, so that a bad line applies
// nothing of itself.
#ifndef PMDBCTL_EVENT_STREAM_H
#define PMDBCTL_EVENT_STREAM_H

#include <nlohmann/json.hpp>
#include <string>

#include "pmdb.h"

namespace pmdbctl {

// The entry point a line calls.
enum class StreamOp {
    kEvent,            // dpa_pmdb_oper(event, node)
    kOamEvent,         // dpa_pmdb_oam_oper(event)
    kOor,              // dpa_pmdb_update_bundle_oor_state(ifh, state, reason)
    kBundleOor,        // dpa_pmdb_set_bundle_oor_state(ifh, state, reason)
    kInventoryAdd,     // pm_port_inv_entry_add(node_id, node_index, npu, hs)
    kInventoryRemove,  // pm_port_inv_entry_remove(node_id)
};

struct StreamLine {
    StreamOp op = StreamOp::kEvent;
    pmdb_event_t event{};  // kEvent, kOamEvent
    u32 node = 0;          // kEvent: the reporting node
    u32 ifh = 0;           // kOor, kBundleOor
    u32 state = 0;
    u32 reason = 0;
    u32 node_id = 0;  // kInventoryAdd, kInventoryRemove
    i32 node_index = 0;
    u8 npu_index = 0;
    u8 high_scale = 0;
};

// Parses one line.  Returns "" and fills *out, or the reason the line is
// refused (*out then undefined).
std::string ParseStreamLine(const std::string &text, StreamLine *out);

// The line that ParseStreamLine reads back as `line` (fields left at zero
// are left out).
nlohmann::ordered_json StreamLineJson(const StreamLine &line);

// The documented name of event type `type`, or "" for a type without one.
const char *EventTypeName(unsigned type);

// The documented name of an operation ("event", "oor", ...).
const char *StreamOpName(StreamOp op);

}  // namespace pmdbctl

#endif
