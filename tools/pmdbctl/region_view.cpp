// region_view.cpp - read-only mapping of a shared context region (see
// region_view.h).
#include "region_view.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vorn_os.h"

namespace pmdbctl {

size_t RegionObjectSize() {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (PMDB_SHM_SIZE + page - 1) / page * page;
}

RegionView::RegionView(const char *name) {
    const int fd = _shm_open(name, O_RDONLY, 0);
    if (fd < 0) return;
    present_ = true;
    struct stat st;
    if (fstat(fd, &st) == 0) size_ = static_cast<size_t>(st.st_size);
    if (size_ >= sizeof(dnx_pmdb_shrd_ctx_t)) {
        void *m = mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd, 0);
        if (m != MAP_FAILED) ctx_ = static_cast<const dnx_pmdb_shrd_ctx_t *>(m);
    }
    vorn_close(fd);
}

RegionView::~RegionView() {
    if (ctx_ != nullptr) munmap(const_cast<dnx_pmdb_shrd_ctx_t *>(ctx_), size_);
}

u32 RegionView::magic() const {
    return ctx_ == nullptr ? 0 : __atomic_load_n(&ctx_->magic, __ATOMIC_ACQUIRE);
}

}  // namespace pmdbctl
