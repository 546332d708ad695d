// region_view.h - a read-only look at one shared context region object, as
// the inspection commands take it: mapped without write access, never
// locked, unmapped when the view goes.  What it shows is a snapshot of
// words that the library's writers change meanwhile; readers load the magic
// with acquire (it pairs with the creator's release store after zeroing).
#ifndef PMDBCTL_REGION_VIEW_H
#define PMDBCTL_REGION_VIEW_H

#include <stddef.h>

#include "pmdb.h"

namespace pmdbctl {

// The three regions of a namespace, by database type.
struct RegionName {
    const char *type;
    const char *object;
};
constexpr RegionName kRegions[] = {{"ifh", PMDB_IFH_SHM_NAME},
                                   {"punt", PMDB_PUNT_SHM_NAME},
                                   {"oam", PMDB_OAM_SHM_NAME}};

// The size the library gives a region object: its contents rounded up to
// whole pages.
size_t RegionObjectSize();

class RegionView {
public:
    // Opens the object `name` of the current namespace read-only and maps
    // it when it is large enough to be a region.
    explicit RegionView(const char *name);
    ~RegionView();
    RegionView(const RegionView &) = delete;
    RegionView &operator=(const RegionView &) = delete;

    bool present() const { return present_; }  // the object exists
    size_t size() const { return size_; }      // its size in bytes
    // The mapped region, or null when the object is absent, too small to
    // be a region, or not mappable.
    const dnx_pmdb_shrd_ctx_t *ctx() const { return ctx_; }
    // The region's magic word (0 without a mapping).
    u32 magic() const;

private:
    bool present_ = false;
    size_t size_ = 0;
    const dnx_pmdb_shrd_ctx_t *ctx_ = nullptr;
};

}  // namespace pmdbctl

#endif
