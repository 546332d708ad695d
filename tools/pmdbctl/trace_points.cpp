// The decoding view of the port mapper database's trace point table
// (pmdb_trace_points.h): the same rows, with the buffer as the trace
// reader's kind.
#include "trace_points.h"

#include <algorithm>

#include "pmdb_trace_points.h"

namespace pmdbctl {
namespace {

constexpr vesk_kind_t E = VESK_ERROR;
constexpr vesk_kind_t D = VESK_DATABASE;
constexpr vesk_kind_t V = VESK_EVENT;
constexpr bool S = true;  // string record
constexpr bool N = false;

#define PMDBCTL_ROW(number, buf, name, kind, ...) {number, buf, #name, kind, {__VA_ARGS__}},
const TracePoint kPoints[] = {PMDB_TRACE_POINTS(PMDBCTL_ROW)};
#undef PMDBCTL_ROW

}  // namespace

size_t TracePoint::nargs() const {
    size_t n = 0;
    while (n < VESK_MAX_ARGS && args[n] != nullptr) n++;
    return n;
}

std::span<const TracePoint> AllTracePoints() { return kPoints; }

const TracePoint *FindTracePoint(uint32_t point) {
    const auto *end = std::end(kPoints);
    const auto *it = std::lower_bound(
        std::begin(kPoints), end, point,
        [](const TracePoint &tp, uint32_t p) { return tp.point < p; });
    return it != end && it->point == point ? it : nullptr;
}

std::string TraceArgName(const TracePoint *tp, size_t i) {
    if (tp != nullptr && i < VESK_MAX_ARGS && tp->args[i] != nullptr) return tp->args[i];
    return "arg" + std::to_string(i);
}

}  // namespace pmdbctl
