// tables.h - what the table commands (tables, check) share: the tables of
// the namespace, attaching to one, and the table store's statuses in words.
#ifndef PMDBCTL_TABLES_H
#define PMDBCTL_TABLES_H

#include <string>
#include <vector>

#include "tabra.h"

namespace pmdbctl {

// The names of the namespace's tables, sorted.
std::vector<std::string> TableNames();

// Attaches to table `name` (0, or the table store's status).  Attaching
// takes the table object's file lock for a moment, which a process that
// is creating the table holds meanwhile: an interrupt ends that wait.
cerrno AttachTable(const std::string &name, tabra_hdl_t *out);

// "<what the status means> (status 0x...)"; unknown statuses as hex only.
std::string TabraStatusText(cerrno status);

}  // namespace pmdbctl

#endif
