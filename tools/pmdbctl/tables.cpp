// tables.cpp - the table access the table commands share (see tables.h).
#ifdef PMDBCTL_HAVE_TABRA

#include "tables.h"

#include <algorithm>

#include "command.h"
#include "format.h"

namespace pmdbctl {

std::vector<std::string> TableNames() {
    std::vector<std::string> names;
    tabra_list([](void *ctx,
                  const char *n) { static_cast<std::vector<std::string> *>(ctx)->push_back(n); },
               &names);
    std::sort(names.begin(), names.end());
    return names;
}

cerrno AttachTable(const std::string &name, tabra_hdl_t *out) {
    const WaitingFor waiting("table " + name + " to be attached");
    return tabra_attach(name.c_str(), out);
}

std::string TabraStatusText(cerrno status) {
    const char *what = nullptr;
    switch (status) {
        case TABRA_E_NOTFOUND:
            what = "no table: the object is missing or its header has no magic";
            break;
        case TABRA_E_MISMATCH:
            what = "its header does not match the object (damaged or truncated)";
            break;
        case TABRA_E_SHM:
            what = "its object cannot be opened or mapped";
            break;
        case TABRA_E_CORRUPT:
            what = "damaged";
            break;
        case TABRA_E_LOCK:
            what = "its writer lock is unusable";
            break;
        case TABRA_E_NOMEM:
            what = "out of memory";
            break;
        case TABRA_E_TIMEDOUT:
            what = "its writer lock stayed held";
            break;
        default:
            break;
    }
    const std::string code = "status " + Hex(status);
    return what == nullptr ? code : std::string(what) + " (" + code + ")";
}

}  // namespace pmdbctl

#endif
