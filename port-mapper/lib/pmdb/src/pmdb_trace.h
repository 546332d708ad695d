/*
 * pmdb_trace.h - how the library writes its trace records.
 *
 * Every call site names its trace point number and its arguments, and the
 * buffer by the macro's letter:
 *
 *     PMDB_TRACE_E(64, type, rc);      error buffer, 2 arguments
 *     PMDB_TRACE_D(55, type);          database buffer, 1 argument
 *     PMDB_TRACE_V(277, ev_type, 0);   event buffer
 *     PMDB_STRACE_E(58, name, size);   string record (a string and one number)
 *
 * The trace point id handed to the trace service carries the argument count
 * in its upper 32 bits and the point number in its lower 32 bits; string
 * records use the upper part 0x102.  The argument count is taken from the
 * call, so a point can never be written with a count that disagrees with
 * its arguments.  The buffer is fetched from its getter at every use: the
 * service may create it lazily, and a record must never be lost because a
 * getter was called too early.
 *
 * Arguments are converted to 64 bits: unsigned values are zero-extended,
 * signed values sign-extended, enumerations by their underlying type.
 */
#ifndef PMDB_SRC_TRACE_H
#define PMDB_SRC_TRACE_H

#include <stdint.h>

#include <type_traits>

#include "vesk.h"

namespace pmdb_trace {

template <typename T>
constexpr uint64_t arg(T value) {
    static_assert(std::is_integral_v<T> || std::is_enum_v<T> || std::is_pointer_v<T>,
                  "trace arguments are integers");
    if constexpr (std::is_pointer_v<T>) {
        return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(value));
    } else if constexpr (std::is_enum_v<T>) {
        return static_cast<uint64_t>(static_cast<std::underlying_type_t<T>>(value));
    } else {
        return static_cast<uint64_t>(value);
    }
}

template <typename... A>
inline void write(vesk_buf_t *buf, uint32_t point, A... a) {
    constexpr uint64_t n = sizeof...(A);
    static_assert(n <= 7, "a trace record carries at most 7 arguments");
    const uint64_t id = VESK_ID(n, point);
    if constexpr (n == 0) {
        _vesk(buf, id);
    } else if constexpr (n == 1) {
        _vesk_1(buf, id, arg(a)...);
    } else if constexpr (n == 2) {
        _vesk_2(buf, id, arg(a)...);
    } else if constexpr (n == 3) {
        _vesk_3(buf, id, arg(a)...);
    } else if constexpr (n == 4) {
        _vesk_4(buf, id, arg(a)...);
    } else if constexpr (n == 5) {
        _vesk_5(buf, id, arg(a)...);
    } else if constexpr (n == 6) {
        _vesk_6(buf, id, arg(a)...);
    } else {
        _vesk_7(buf, id, arg(a)...);
    }
}

template <typename T>
inline void write_string(vesk_buf_t *buf, uint32_t point, const char *str, T number) {
    _svesk(buf, VESK_SID(point), str, arg(number));
}

}  // namespace pmdb_trace

#define PMDB_TRACE_E(point, ...) \
    pmdb_trace::write(dpa_port_mapper_get_error_vesk(), (point)__VA_OPT__(, ) __VA_ARGS__)
#define PMDB_TRACE_D(point, ...) \
    pmdb_trace::write(dpa_port_mapper_get_db_vesk(), (point)__VA_OPT__(, ) __VA_ARGS__)
#define PMDB_TRACE_V(point, ...) \
    pmdb_trace::write(dpa_port_mapper_get_eve_vesk(), (point)__VA_OPT__(, ) __VA_ARGS__)
#define PMDB_STRACE_E(point, str, number) \
    pmdb_trace::write_string(dpa_port_mapper_get_error_vesk(), (point), (str), (number))
#define PMDB_STRACE_D(point, str, number) \
    pmdb_trace::write_string(dpa_port_mapper_get_db_vesk(), (point), (str), (number))

#endif
