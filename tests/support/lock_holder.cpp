// A slot lock held by another process (card.h); exported lock calls only,
// so that groups linking the shared object use it too.
#include "card.h"

namespace card {

std::unique_ptr<ChildProcess> HoldInChild(pellin_mutex_type *lock) {
    return std::make_unique<ChildProcess>([lock](ChildLink &link) {
        if (pmdb_entry_lock(lock) != 0) return 1;
        link.Ready();
        link.WaitRelease();
        return static_cast<int>(pmdb_entry_unlock(lock));
    });
}

}  // namespace card
