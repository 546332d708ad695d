// trace_writer: writes a few trace records the way the port mapper database
// does, so that another process (pmdbctl trace) can read them back.
//
//   trace_writer [count]    count: how many event records (default 3)
#include <cstdio>
#include <cstdlib>

#include "vesk.h"

int main(int argc, char **argv) {
    const long count = argc > 1 ? std::strtol(argv[1], nullptr, 0) : 3;
    if (count < 0) {
        std::fprintf(stderr, "trace_writer: count must not be negative\n");
        return 2;
    }
    // A region mapped, as the shared context region step reports it.
    _svesk(dpa_port_mapper_get_db_vesk(), VESK_SID(62), "dnx_pmdb_ifh_shrd", 2621472);
    // Accepted events: type, handle, event id.
    for (long i = 0; i < count; i++) {
        _vesk_3(dpa_port_mapper_get_eve_vesk(), VESK_ID(3, 278), 1, 0x1000 + i, 100 + i);
    }
    // An invalid event type.
    _vesk_2(dpa_port_mapper_get_error_vesk(), VESK_ID(2, 277), 23, 0);
    std::printf("trace_writer: wrote %ld records\n", count + 2);
    return 0;
}
