// entry_fields.h - one entry of a database table as named fields, the way
// pmdbctl dump prints it (keys and handles in hex, MACs, flags by name).
#ifndef PMDBCTL_ENTRY_FIELDS_H
#define PMDBCTL_ENTRY_FIELDS_H

#include <nlohmann/json.hpp>

#include "pmdb.h"

namespace pmdbctl {

// `entry` is a whole pmdb_ifh_entry_t, pmdb_punt_entry_t or
// pmdb_oam_entry_t, as `type` says.
nlohmann::ordered_json EntryFields(pmdb_type_t type, const void *entry);

}  // namespace pmdbctl

#endif
