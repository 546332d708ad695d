// A table-store lookup that fails for one chosen key (card.h): the library's
// calls of tabra_get_entry_by_key are wrapped at link time
// (-Wl,--wrap=tabra_get_entry_by_key) in the executables that use it.
#include <atomic>

#include "card.h"
#include "tabra.h"

extern "C" cerrno __real_tabra_get_entry_by_key(tabra_hdl_t table, u32 key, void **entry,
                                                i32 *slot);

namespace {
std::atomic<u32> g_key{0};
std::atomic<cerrno> g_status{0};
}  // namespace

extern "C" cerrno __wrap_tabra_get_entry_by_key(tabra_hdl_t table, u32 key, void **entry,
                                                i32 *slot) {
    if (key != 0 && key == g_key.load()) return g_status.load();
    return __real_tabra_get_entry_by_key(table, key, entry, slot);
}

namespace card {

void FailLookupOf(u32 key, cerrno status) {
    g_status = status;
    g_key = key;
}

}  // namespace card
