// Entries written, removed and read back for tests (see pmdb_db_test.h).
#include "pmdb_db_test.h"

#include <string.h>

#include <vector>

#include "pmdb_cycle.h"
#include "pmdb_fields.h"
#include "pmdb_reader.h"
#include "tabra.h"

namespace pmdb::test {

cerrno WriteEntry(pmdb_type_t type, u32 key, const std::function<void(void *entry)> &fill,
                  i32 *slot) {
    pmdb_cycle_t cyc;
    cerrno rc = pmdb_cycle_open(&cyc, type);
    if (rc != 0) return rc;
    rc = pmdb_cycle_find_or_create(&cyc, key);
    if (rc == 0) rc = pmdb_cycle_lock(&cyc);
    if (rc == 0) {
        if (cyc.created) memset(cyc.entry, 0, cyc.hdl->cfg->entry_size);
        fill(cyc.entry);
    }
    if (slot != nullptr) *slot = cyc.slot;
    return pmdb_cycle_release(&cyc, rc);
}

cerrno RemoveEntry(pmdb_type_t type, u32 key) {
    pmdb_cycle_t cyc;
    const cerrno rc = pmdb_cycle_open(&cyc, type);
    if (rc != 0) return rc;
    return pmdb_cycle_release(&cyc, pmdb_cycle_remove(&cyc, key));
}

bool RemoveAllEntries() {
    bool ok = true;
    for (int t = 0; t < PMDB_NUM_TYPES; t++) {
        std::vector<u32> keys;
        const auto type = static_cast<pmdb_type_t>(t);
        const auto keep = [](void *ctx, u32 key, const void *) {
            static_cast<std::vector<u32> *>(ctx)->push_back(key);
            return 0;
        };
        if (dpa_pmdb_walk(type, keep, &keys) != PMDB_OK) continue;
        for (u32 key : keys) ok = RemoveEntry(type, key) == 0 && ok;
    }
    while (pm_port_inv_entry_get() != nullptr)
        pm_port_inv_entry_remove(pm_port_inv_entry_get()->node_id);
    return ok;
}

bool CopyEntry(pmdb_type_t type, u32 key, void *out, u32 len, i32 *slot) {
    tabra_hdl_t table = nullptr;
    if (tabra_attach(pmdb_fields::kTableName[type], &table) != 0) return false;
    return tabra_copy_entry_by_key(table, key, out, len, slot) == 0;
}

i32 SlotOf(pmdb_type_t type, u32 key) {
    u32 first_word = 0;
    i32 slot = -1;
    return CopyEntry(type, key, &first_word, sizeof first_word, &slot) ? slot : -1;
}

}  // namespace pmdb::test
