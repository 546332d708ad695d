/*
 * pmdb_trace.h - how the library writes its trace records.
 *
 * Every point is a row of the trace point table (pmdb_trace_points.h), and a
 * call site names the point's constant, so that the number and the name are
 * read together:
 *
 *     PMDB_TRACE(tp::punt_add_zero_key);                      no arguments
 *     PMDB_TRACE(tp::punt_remove_done, key);                  (key)
 *     PMDB_TRACE(tp::shm_open_failed, cfg->shm_name, size);   a string record
 *
 * The constant's type carries the buffer and the argument count of its row:
 * a point written with another count, a bare number or a name the table
 * does not have is a compile error.  The entry change cycle takes its
 * points the same way (pmdb_cycle_traces_t), typed by the shape it writes.
 *
 * The trace point id handed to the trace service carries the argument count
 * in its upper 32 bits and the point number in its lower 32 bits; string
 * records use the upper part 0x102.  The buffer is fetched from its getter
 * at every use: the service may create it lazily, and a record must never
 * be lost because a getter was called too early.
 *
 * Arguments are converted to 64 bits: unsigned values are zero-extended,
 * signed values sign-extended, enumerations by their underlying type.
 */
#ifndef PMDB_SRC_TRACE_H
#define PMDB_SRC_TRACE_H

#include <stdint.h>

#include <type_traits>

#include "pmdb_trace_points.h"
#include "vesk.h"

/* The library's short name for the table's constants. */
namespace tp = pmdb_tp;

namespace pmdb_trace {
namespace detail {

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

template <pmdb_tpt::buffer B>
vesk_buf_t *buffer() {
    if constexpr (B == pmdb_tpt::E) {
        return dpa_port_mapper_get_error_vesk();
    } else if constexpr (B == pmdb_tpt::D) {
        return dpa_port_mapper_get_db_vesk();
    } else {
        return dpa_port_mapper_get_eve_vesk();
    }
}

template <typename... A>
inline void numbers(vesk_buf_t *buf, uint32_t point, A... a) {
    constexpr uint64_t n = sizeof...(A);
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

}  // namespace detail

/* A record of numbers. */
template <pmdb_tpt::buffer B, unsigned NArgs, typename... A>
inline void write(pmdb_tpt::point<B, NArgs, pmdb_tpt::N> point, A... a) {
    static_assert(sizeof...(A) == NArgs,
                  "a trace point is written with its table row's argument count");
    detail::numbers(detail::buffer<B>(), point.number(), a...);
}

/* A string record: the string and one number. */
template <pmdb_tpt::buffer B, typename... A>
inline void write(pmdb_tpt::point<B, 2, pmdb_tpt::S> point, const char *str, A... number) {
    static_assert(sizeof...(A) == 1, "a string record is written with a string and one number");
    _svesk(detail::buffer<B>(), VESK_SID(point.number()), str, detail::arg(number)...);
}

}  // namespace pmdb_trace

#define PMDB_TRACE(point, ...) ::pmdb_trace::write((point)__VA_OPT__(, ) __VA_ARGS__)

#endif
