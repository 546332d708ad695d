// Helper of the frame tests that link pmdb_static.
#ifndef PMDB_TESTS_FRAME_SUPPORT_H
#define PMDB_TESTS_FRAME_SUPPORT_H

#include <vector>

#include "host/pm_fault.h"
#include "pmdb_test.h"

namespace frame_test {

// The recorded opens of region objects (the table store opens objects of
// its own through the same call; regions are opened with mode 0777).
inline std::vector<pm_call_rec_t> RegionObjectOpens() {
    std::vector<pm_call_rec_t> out;
    for (const pm_call_rec_t &r : pmdb::test::CallLog("_shm_open"))
        if (r.args[1] == 0777) out.push_back(r);
    return out;
}

}  // namespace frame_test

#endif
