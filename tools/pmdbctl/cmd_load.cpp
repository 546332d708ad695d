// pmdbctl load FILE --ns NAME: rebuilds a saved database (pmdbctl save) in
// namespace NAME, which must not exist yet, so that every pmdbctl view,
// check and the reader library work on it as on the card it came from.
//
// The whole file is read and checked first (format version, record sizes,
// every section's checksum); a file refused there creates nothing.  Then
// the library itself opens each saved table and region in NAME, exactly
// as a port mapper process would make them, and each entry is put back in
// its saved slot; the table store's add hook gives every restored slot a
// fresh entry lock, as for any new entry.  Lock states of the saved card
// are not carried over.  The globals blocks are copied into the regions.
// A failure on the way removes NAME again, so it is all or nothing.
#if defined(PMDBCTL_HAVE_TABRA) && defined(PMDBCTL_HAVE_PMDB_READER) && defined(PMDBCTL_HAVE_PMDB)

#include <string.h>

#include <iostream>
#include <memory>
#include <string>

#include "command.h"
#include "format.h"
#include "host/os_host.h"
#include "host/vesk_reader.h"
#include "pmdb.h"
#include "snapshot.h"
#include "tables.h"
#include "tabra_restore.h"

namespace pmdbctl {
namespace {

struct Options {
    std::string file;
    std::string ns;
};

bool NamespaceInUse(const std::string &ns) {
    auto ignore = [](void *, const char *) {};
    return vorn_host_list_objects(ns.c_str(), ignore, nullptr) > 0 ||
           vorn_host_list_semaphores(ns.c_str(), ignore, nullptr) > 0;
}

bool RestoreTable(int type, const Snapshot &s, std::string *why) {
    const SnapTable &t = s.tables[type];
    const SnapRegion &r = s.regions[type];
    const pmdb_type_t pt = static_cast<pmdb_type_t>(type);
    dnx_db_hdl_t *hdl = nullptr;
    cerrno rc = t.present ? dpa_chk_pmdb_open(nullptr, &hdl, pt, 1)
                          : dpa_chk_shrd_ctx_open(nullptr, &hdl, pt);
    if (rc != 0) {
        *why = std::string("opening the ") + kTypeNames[type] + " database failed with status " +
               Hex(rc);
        return false;
    }
    if (r.present) memcpy(&hdl->shrd_ctx->glbls, &r.glbls, sizeof r.glbls);
    if (!t.present) return true;
    for (const SnapEntry &e : t.entries) {
        rc = tabra_restore_entry(hdl->tabra, e.key, static_cast<i32>(e.slot), e.bytes.data(),
                                 static_cast<u32>(e.bytes.size()));
        if (rc != 0) break;
    }
    if (rc != 0)
        *why = std::string("restoring the ") + kTypeNames[type] + " table: " + TabraStatusText(rc);
    const cerrno prc = dpa_pmdb_mprotect_tabra(hdl->tabra, hdl, pt);
    if (rc == 0 && prc != 0) *why = "protecting the restored table failed with status " + Hex(prc);
    return rc == 0 && prc == 0;
}

// The trace rings first: the library's opens below add their own records
// after the saved ones.
bool RestoreTraces(const Snapshot &s, std::string *why) {
    for (int k = 0; k < VESK_KINDS; k++) {
        const SnapTrace &t = s.traces[k];
        const uint32_t rc = vesk_host_restore(static_cast<vesk_kind_t>(k), t.capacity,
                                              t.records.data(), t.records.size(), t.next);
        if (rc == 0) continue;
        *why = std::string("restoring trace buffer ") +
               vesk_kind_name(static_cast<vesk_kind_t>(k)) + " failed with status " + Hex(rc);
        return false;
    }
    return true;
}

int Load(const Options &o) {
    Snapshot s;
    std::string why;
    if (!ReadSnapshotFile(o.file, &s, &why)) return Fail("load: " + why);
    if (!vorn_host_namespace_valid(o.ns.c_str()))
        return Fail("load: invalid namespace '" + Printable(o.ns) +
                    "' (1 to 40 of A-Z a-z 0-9 _ -, not sem)");
    if (NamespaceInUse(o.ns))
        return Fail("load: namespace '" + o.ns + "' exists already; load only into a new one");
    vorn_host_set_namespace(o.ns.c_str());
    bool ok = RestoreTraces(s, &why);
    for (int t = 0; ok && t < PMDB_NUM_TYPES; t++)
        if (s.tables[t].present || s.regions[t].present) ok = RestoreTable(t, s, &why);
    if (!ok) {
        vorn_host_remove_namespace(o.ns.c_str());
        return Fail("load: " + why + "; namespace '" + o.ns + "' removed again");
    }
    size_t entries = 0;
    for (const SnapTable &t : s.tables) entries += t.entries.size();
    std::cout << "loaded " << entries << " entries of namespace "
              << Printable(s.header.value("namespace", "?")) << " on host "
              << Printable(s.header.value("host", "?")) << " into namespace " << o.ns
              << (s.header.value("writers_active", false)
                      ? " (writers were active when it was saved)"
                      : "")
              << std::endl;
    return 0;
}

RunFn Install(CLI::App &app) {
    auto opts = std::make_shared<Options>();
    CLI::App *cmd = app.add_subcommand("load", "Rebuild a saved database in a new namespace");
    cmd->add_option("file", opts->file, "a file written by pmdbctl save")->required();
    cmd->add_option("--ns", opts->ns, "the namespace to make (must not exist)")->required();
    return [opts] { return Load(*opts); };
}

const Registrar kLoad("load", Install);

}  // namespace
}  // namespace pmdbctl

#endif
