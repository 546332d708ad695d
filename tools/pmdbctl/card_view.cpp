// card_view.cpp - the card as the tables hold it (see card_view.h).
#ifdef PMDBCTL_HAVE_PMDB_READER

#include "card_view.h"

#include "pmdb_fields.h"
#include "pmdb_reader.h"

namespace pmdbctl {

const char *KindName(IntfKind kind) {
    switch (kind) {
        case IntfKind::kSub:
            return "sub-interface";
        case IntfKind::kBundleSub:
            return "bundle sub-interface";
        case IntfKind::kBundle:
            return "bundle";
        case IntfKind::kBvi:
            return "BVI";
        case IntfKind::kPort:
            break;
    }
    return "port";
}

IntfKind KindOf(const pmdb_ifh_entry_t &e) {
    const pmdb_intf_info_t &in = e.intf_info;
    if (in.sub_ifh != 0) return in.ifh != 0 ? IntfKind::kSub : IntfKind::kBundleSub;
    if (in.ifh == 0 && in.bundle_ifh != 0) return IntfKind::kBundle;
    return in.intf_type == PMDB_INTF_TYPE_BVI ? IntfKind::kBvi : IntfKind::kPort;
}

u32 ParentOf(const pmdb_intf_info_t &in) { return pmdb_fields::parent_ifh(&in); }

u32 PuntOwner(const pmdb_punt_entry_t &e) {
    const pmdb_intf_info_t &in = e.intf_info;
    if (pmdb_fields::is_member_punt_key(e.key)) return in.bundle_ifh;
    if (in.sub_ifh != 0) return in.sub_ifh;
    return in.ifh != 0 ? in.ifh : in.bundle_ifh;
}

u32 OamOwner(const pmdb_oam_entry_t &e) { return e.oam_info.oam_ifh; }

std::map<u32, unsigned> CardView::PuntCounts() const {
    std::map<u32, unsigned> n;
    for (const pmdb_punt_entry_t &e : punt) n[PuntOwner(e)]++;
    return n;
}

std::map<u32, unsigned> CardView::OamCounts() const {
    std::map<u32, unsigned> n;
    for (const pmdb_oam_entry_t &e : oam) n[OamOwner(e)]++;
    return n;
}

namespace {

template <class Entry>
int Keep(void *ctx, u32 key, const void *entry) {
    Entry e = *static_cast<const Entry *>(entry);
    e.key = key;  // the key the table holds it under
    static_cast<std::vector<Entry> *>(ctx)->push_back(e);
    return 0;
}

template <class Entry>
cerrno Walk(pmdb_type_t type, std::vector<Entry> *out, CardView *card) {
    const cerrno rc = dpa_pmdb_walk(type, Keep<Entry>, out);
    if (rc == PMDB_EBUSY) card->busy = true;
    if (rc != PMDB_ENOTFOUND) card->tables++;
    return rc == PMDB_ENOTFOUND || rc == PMDB_EBUSY ? PMDB_OK : rc;
}

}  // namespace

cerrno ReadCard(CardView *card) {
    std::vector<pmdb_ifh_entry_t> ifh;
    cerrno rc = Walk(PMDB_TYPE_IFH, &ifh, card);
    if (rc == PMDB_OK) rc = Walk(PMDB_TYPE_PUNT, &card->punt, card);
    if (rc == PMDB_OK) rc = Walk(PMDB_TYPE_OAM, &card->oam, card);
    for (const pmdb_ifh_entry_t &e : ifh) card->ifh[e.key] = e;
    return rc;
}

}  // namespace pmdbctl

#endif
