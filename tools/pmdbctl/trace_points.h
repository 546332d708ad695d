// trace_points.h - every trace point of the port mapper database: number,
// buffer, a short name and the names of its arguments, for decoding records.
#ifndef PMDBCTL_TRACE_POINTS_H
#define PMDBCTL_TRACE_POINTS_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "host/vesk_reader.h"

namespace pmdbctl {

struct TracePoint {
    uint32_t point;
    vesk_kind_t buffer;
    const char *name;
    bool is_string;                  // written by _svesk: args[0] names the string
    const char *args[VESK_MAX_ARGS]; // argument names, unused ones null
    size_t nargs() const;
};

// All points, ordered by number.
std::span<const TracePoint> AllTracePoints();
// The point with that number, or null.
const TracePoint *FindTracePoint(uint32_t point);
// Name of argument i of a record of `point` ("arg<i>" when unknown); for a
// string record argument 0 is the string and 1 the number.
std::string TraceArgName(const TracePoint *tp, size_t i);

}  // namespace pmdbctl

#endif
