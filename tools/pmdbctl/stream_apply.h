// stream_apply.h - one event-stream line handed to the library entry point
// it names, as a port mapper process calls it.  Shared by pmdbctl replay and
// the programs that replay generated cards without it (the crash campaign,
// the end-to-end benchmark), so that all of them call the library alike.
#ifndef PMDBCTL_STREAM_APPLY_H
#define PMDBCTL_STREAM_APPLY_H

#include "event_stream.h"

namespace pmdbctl {

// Calls the entry point of `l` in this process; false when it answered with
// a failure.  dpa_pmdb_oper and dpa_pmdb_oam_oper return nothing: their
// lines always count as answered.  The inventory list and the callbacks are
// this process's own.
bool ApplyStreamLine(StreamLine &l);

}  // namespace pmdbctl

#endif
