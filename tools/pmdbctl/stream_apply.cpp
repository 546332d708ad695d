// stream_apply.cpp - see stream_apply.h.
#if defined(PMDBCTL_HAVE_PMDB)

#include "stream_apply.h"

namespace pmdbctl {

bool ApplyStreamLine(StreamLine &l) {
    u32 bundle = 0, state = 0, changed = 0, slot = 0;
    switch (l.op) {
        case StreamOp::kEvent:
            dpa_pmdb_oper(&l.event, l.node);
            return true;
        case StreamOp::kOamEvent:
            dpa_pmdb_oam_oper(&l.event);
            return true;
        case StreamOp::kOor:
            return dpa_pmdb_update_bundle_oor_state(l.ifh, l.state, l.reason, &bundle, &state,
                                                    &changed, &slot) == 0;
        case StreamOp::kBundleOor:
            return dpa_pmdb_set_bundle_oor_state(l.ifh, static_cast<i32>(l.state), l.reason,
                                                 &slot) == 0;
        case StreamOp::kInventoryAdd:
            return pm_port_inv_entry_add(l.node_id, l.node_index, l.npu_index, l.high_scale) !=
                   nullptr;
        case StreamOp::kInventoryRemove:
            return pm_port_inv_entry_remove(l.node_id) == 0;
    }
    return false;
}

}  // namespace pmdbctl

#endif
