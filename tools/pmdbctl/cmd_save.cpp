// pmdbctl save FILE: the whole database of the namespace in one file - the
// three tables (every occupied slot), the three regions' magic and globals
// with a summary of their entry locks, the three trace rings, the settings
// in force - for opening elsewhere with pmdbctl load or comparing with
// pmdbctl diff (docs/snapshot-format.md).
//
// The file is written beside FILE under a temporary name and renamed over
// FILE only once it is complete and synced, so a failed or interrupted
// save leaves FILE as it was and no partial file.
#if defined(PMDBCTL_HAVE_TABRA) && defined(PMDBCTL_HAVE_PMDB_READER)

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include "command.h"
#include "format.h"
#include "host/os_host.h"
#include "snapshot.h"

namespace pmdbctl {
namespace {

struct Options {
    std::string file;
    unsigned wait_ms = kDefaultWaitMs;
    bool compress = false;
};

bool WriteAll(int fd, const std::string &bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Writes bytes to path through a temporary file in the same directory.
bool Publish(const std::string &path, const std::string &bytes, std::string *why) {
    const std::string tmp = path + ".tmp." + std::to_string(getpid());
    const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        *why = "cannot create " + Printable(tmp) + ": " + strerror(errno);
        return false;
    }
    const bool ok = WriteAll(fd, bytes) && fsync(fd) == 0;
    const int err = errno;
    close(fd);
    if (ok && rename(tmp.c_str(), path.c_str()) == 0) return true;
    *why = "cannot write " + Printable(path) + ": " + strerror(ok ? errno : err);
    unlink(tmp.c_str());
    return false;
}

int Save(const Options &o) {
    Snapshot s;
    std::string why;
    // Reading the trace rings would make them in a namespace with nothing.
    if (vorn_host_list_objects(
            nullptr, [](void *, const char *) {}, nullptr) == 0)
        return Fail(std::string("save: namespace '") + vorn_host_namespace() +
                    "' has no shared objects");
    if (!Capture(&s, o.wait_ms, &why)) return Fail("save: " + why);
    const std::string bytes = o.compress ? Compress(Encode(s)) : Encode(s);
    if (!Publish(o.file, bytes, &why)) return Fail("save: " + why);
    size_t entries = 0;
    for (const SnapTable &t : s.tables) entries += t.entries.size();
    std::cout << "saved " << entries << " entries of namespace "
              << s.header["namespace"].get<std::string>() << " to " << Printable(o.file) << " in "
              << static_cast<long>(s.header["capture_ms"].get<double>()) << " ms"
              << (s.header["writers_active"].get<bool>() ? " (writers were active)" : "")
              << std::endl;
    if (!s.header["invariants_hold"].get<bool>())
        std::cerr << "pmdbctl: save: the copy still broke the card's invariants at the bound "
                     "(pmdbctl check on the loaded card names them)"
                  << std::endl;
    return 0;
}

RunFn Install(CLI::App &app) {
    auto opts = std::make_shared<Options>();
    CLI::App *cmd = app.add_subcommand("save", "Write the namespace's whole database to one file");
    cmd->add_option("file", opts->file, "the snapshot file")->required();
    AddWaitOption(cmd, &opts->wait_ms,
                  "at most this long, read the tables again while writers are between two "
                  "steps of one change (a bundle behind its members, an interface's entries "
                  "behind its removal)");
    cmd->add_flag("--compress", opts->compress, "compress the file (zstd)");
    return [opts] { return Save(*opts); };
}

const Registrar kSave("save", Install);

}  // namespace
}  // namespace pmdbctl

#endif
