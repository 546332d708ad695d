// card_view.h - the whole card as the tables hold it, read once through the
// reader library (consistent copies of each entry), and what an entry is
// and whom it belongs to.  The commands that look at the card as a whole
// (graph, check) share it.
//
// An IFH entry's kind and parent come from its stored interface block:
//   sub-interface  sub_ifh nonzero; its parent is the block's ifh when
//                  nonzero (a port sub-interface), else its bundle_ifh (a
//                  bundle sub-interface)
//   bundle         sub_ifh and ifh 0, bundle_ifh nonzero
//   BVI            interface type PMDB_INTF_TYPE_BVI
//   port           anything else (also while it is a bundle member)
// A PUNT entry belongs to the first nonzero of its block's sub_ifh, ifh and
// bundle_ifh, except a bundle-member key (bit 31), which serves the bundle;
// an OAM entry belongs to its stored oam_ifh.  These are the reader
// library's "belongs to" rules (pmdb_reader.h).
#ifndef PMDBCTL_CARD_VIEW_H
#define PMDBCTL_CARD_VIEW_H

#include <map>
#include <vector>

#include "pmdb.h"

namespace pmdbctl {

enum class IntfKind { kPort, kSub, kBundleSub, kBundle, kBvi };
const char *KindName(IntfKind kind);

IntfKind KindOf(const pmdb_ifh_entry_t &e);
// The parent of a sub-interface, 0 for anything else.
u32 ParentOf(const pmdb_intf_info_t &in);
// The interface a PUNT (OAM) entry belongs to; 0 when it names none.
u32 PuntOwner(const pmdb_punt_entry_t &e);
u32 OamOwner(const pmdb_oam_entry_t &e);

struct CardView {
    std::map<u32, pmdb_ifh_entry_t> ifh;  // by key
    std::vector<pmdb_punt_entry_t> punt;
    std::vector<pmdb_oam_entry_t> oam;
    bool busy = false;  // some entries stayed locked by a writer and are missing
    unsigned tables = 0;  // of the three, those that exist
    // Entries of each table that belong to each interface.
    std::map<u32, unsigned> PuntCounts() const;
    std::map<u32, unsigned> OamCounts() const;
};

// Reads the three tables; a table that does not exist yet reads empty.
// 0, or the reader library's status of the first walk that failed
// otherwise (PMDB_EBUSY only sets busy).
cerrno ReadCard(CardView *card);

}  // namespace pmdbctl

#endif
