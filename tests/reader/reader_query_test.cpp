// Reader lookups, list queries and the IFH walk on a hand-built card: exactly
// the expected keys and handles, in slot order, within capacity, with zeros
// after the last match, and untouched buffers on failure.
#include <string.h>

#include <array>
#include <vector>

#include "pmdb_reader.h"
#include "pmdb_test.h"
#include "reader_card.h"

namespace {

using namespace rcard;
using pmdb::test::PmdbTest;
using pmdb::test::RunInChild;

constexpr u32 kGuard = 0xDEADBEEFu;
constexpr u8 kFill = 0xEE;

class ReaderQueryTest : public PmdbTest {};

/* Runs a list query into `capacity` places followed by two guard words;
 * fails the test when the guards changed.  Returns the places. */
template <typename Query>
std::vector<u32> Ask(Query query, u32 capacity, cerrno expect = PMDB_OK) {
    std::vector<u32> out(capacity + 2, kGuard);
    EXPECT_EQ(query(out.data(), capacity), expect);
    EXPECT_EQ(out[capacity], kGuard) << "capacity overrun";
    EXPECT_EQ(out[capacity + 1], kGuard) << "capacity overrun";
    out.resize(capacity);
    return out;
}

/* `keys` in slot order, padded with zeros to `capacity`. */
std::vector<u32> Expected(pmdb_type_t type, std::vector<u32> keys, u32 capacity) {
    keys = InSlotOrder(type, keys);
    keys.resize(capacity, 0);
    return keys;
}

auto PortPunt(u32 ifh) {
    return [ifh](u32 *out, u32 cap) { return dpa_pmdb_get_port_punt_entries(ifh, out, cap); };
}
auto BundlePunt(u32 bundle) {
    return [bundle](u32 *out, u32 cap) { return dpa_pmdb_get_bundle_punt_entries(bundle, out, cap); };
}
auto BundleSubPunt(u32 ifh, u32 selector) {
    return [=](u32 *out, u32 cap) {
        return dpa_pmdb_get_bundle_sub_punt_entries(ifh, out, cap, selector);
    };
}
auto Members(u32 bundle, u32 node) {
    return [=](u32 *out, u32 cap) {
        return dpa_pmdb_get_bundle_member_ifh_entries(bundle, out, cap, node);
    };
}
auto BundleSubs(u32 bundle) {
    return [bundle](u32 *out, u32 cap) {
        return dpa_pmdb_get_bundle_sub_ifh_entries(bundle, out, cap);
    };
}
auto IntfOam(u32 ifh) {
    return [ifh](u32 *out, u32 cap) { return dpa_pmdb_get_intf_oam_entries(ifh, out, cap); };
}

TEST_F(ReaderQueryTest, LookupsCopyTheStoredBlocksAndNothingElse) {
    BuildCard();
    std::array<u8, 312> buf;
    buf.fill(kFill);
    ASSERT_EQ(dpa_pmdb_get_ifh_entry_by_key(P2, buf.data(), 0, 0), PMDB_OK);
    const pmdb_intf_info_t p2 = Intf(P2, 0, B, kNode1);
    EXPECT_EQ(memcmp(buf.data(), &p2, sizeof p2), 0);
    pmdb_punt_info_t punt;
    memcpy(&punt, buf.data() + 256, sizeof punt);
    EXPECT_EQ(punt.ifh, P2);
    EXPECT_EQ(punt.punt_data[0], P2 ^ 0xA5A5u);
    for (size_t i = PMDB_READER_INFO_COPY_SIZE; i < buf.size(); i++) EXPECT_EQ(buf[i], kFill) << i;

    buf.fill(kFill);
    ASSERT_EQ(dpa_pmdb_get_punt_entry_by_key(0x40000602, buf.data()), PMDB_OK);
    const pmdb_intf_info_t bs2n1 = Intf(0, BS2, B, kNode1);
    EXPECT_EQ(memcmp(buf.data(), &bs2n1, sizeof bs2n1), 0);
    memcpy(&punt, buf.data() + 256, sizeof punt);
    EXPECT_EQ(punt.punt_data[4], 0x40000602u);
    EXPECT_EQ(buf[PMDB_READER_INFO_COPY_SIZE], kFill);

    pmdb_oam_entry_t oam;
    ASSERT_EQ(dpa_pmdb_get_oam_entry_by_key(0x0043001C, &oam), PMDB_OK);
    EXPECT_EQ(oam.key, 0x0043001Cu);
    EXPECT_EQ(oam.oam_info.oam_ifh, S1);
    EXPECT_EQ(oam.event_id, 0x0043001Cu);

    u8 count = 0;
    EXPECT_EQ(dpa_pmdb_get_num_members(&count, B), PMDB_OK);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(dpa_pmdb_get_num_members(&count, B2), PMDB_OK);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(dpa_pmdb_get_num_members(&count, P1), PMDB_OK);
    EXPECT_EQ(count, 0);
}

TEST_F(ReaderQueryTest, MissingEntriesAndBadArgumentsLeaveBuffersAlone) {
    BuildCard();
    std::array<u8, 312> buf;
    buf.fill(kFill);
    const std::array<u8, 312> untouched = buf;
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(0x7777, buf.data(), 0, 0), PMDB_ENOTFOUND);
    EXPECT_EQ(dpa_pmdb_get_punt_entry_by_key(0x7777, buf.data()), PMDB_ENOTFOUND);
    EXPECT_EQ(dpa_pmdb_get_oam_entry_by_key(0x7777, reinterpret_cast<pmdb_oam_entry_t *>(buf.data())),
              PMDB_ENOTFOUND);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(0, buf.data(), 0, 0), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, buf.data(), 1, 0), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, buf.data(), 0, 1), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_punt_entry_by_key(0, buf.data()), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_copy_entry(PMDB_TYPE_OAM, 0x0043001C, buf.data(), PMDB_OAM_ENTRY_SIZE + 1),
              PMDB_EINVAL);
    /* Present in the table, at rest, but its key field never written (an
     * event that set only other fields): missing, and the buffer is not
     * touched even though the entry could be copied without a lock. */
    const auto fill = [](void *p) { static_cast<pmdb_ifh_entry_t *>(p)->intf_info.ifh = 0x7778; };
    ASSERT_EQ(WriteEntry(PMDB_TYPE_IFH, 0x7778, fill), PMDB_OK);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(0x7778, buf.data(), 0, 0), PMDB_ENOTFOUND);
    EXPECT_EQ(buf, untouched);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, nullptr, 0, 0), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_punt_entry_by_key(0x101, nullptr), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_get_oam_entry_by_key(0x0043001C, nullptr), PMDB_EINVAL);

    u8 count = 7;
    EXPECT_EQ(dpa_pmdb_get_num_members(&count, 0x7777), PMDB_ENOTFOUND);
    EXPECT_EQ(dpa_pmdb_get_num_members(&count, 0), PMDB_EINVAL);
    EXPECT_EQ(count, 7);
    EXPECT_EQ(dpa_pmdb_get_num_members(nullptr, B), PMDB_EINVAL);

    EXPECT_EQ(dpa_pmdb_get_port_punt_entries(P1, nullptr, 4), PMDB_EINVAL);
    EXPECT_EQ(Ask(PortPunt(0), 2, PMDB_EINVAL), std::vector<u32>(2, kGuard));
    EXPECT_EQ(Ask(Members(0, PMDB_READER_ALL_NODES), 2, PMDB_EINVAL), std::vector<u32>(2, kGuard));
    EXPECT_EQ(Ask(PortPunt(P1), 0), std::vector<u32>{});
}

TEST_F(ReaderQueryTest, NothingIsFoundBeforeTheDatabaseExists) {
    std::array<u8, 312> buf;
    buf.fill(kFill);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, buf.data(), 0, 0), PMDB_ENOTFOUND);
    EXPECT_EQ(dpa_pmdb_get_punt_entry_by_key(0x101, buf.data()), PMDB_ENOTFOUND);
    EXPECT_EQ(buf[0], kFill);
    EXPECT_EQ(Ask(BundlePunt(B), 3, PMDB_ENOTFOUND), std::vector<u32>(3, 0));
    int calls = 0;
    auto count_calls = [](void *arg, const pmdb_ifh_entry_t *, void *, void *) {
        ++*static_cast<int *>(arg);
        return 22;
    };
    EXPECT_EQ(dpa_pmdb_iterate(count_calls, &calls, nullptr, 0), PMDB_ENOTFOUND);
    EXPECT_EQ(calls, 0);
    u32 n = 5;
    EXPECT_EQ(dpa_pmdb_count_entries(PMDB_TYPE_OAM, &n), PMDB_ENOTFOUND);
    EXPECT_EQ(n, 5u);

    /* Once a writer has made the tables, a reader that asked too early finds
     * them without being restarted. */
    ASSERT_EQ(PutIfh(P1, Intf(P1, 0, 0, kNode1)), PMDB_OK);
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, buf.data(), 0, 0), PMDB_OK);
    EXPECT_EQ(dpa_pmdb_count_entries(PMDB_TYPE_IFH, &n), PMDB_OK);
    EXPECT_EQ(n, 1u);
}

TEST_F(ReaderQueryTest, PuntEntriesBelongToTheInterfaceThatOwnsThem) {
    BuildCard();
    EXPECT_EQ(Ask(PortPunt(P1), 5), Expected(PMDB_TYPE_PUNT, {0x101, 0x110000, 0x40008101}, 5));
    /* A member port keeps its own keys; its bundle-member key is the bundle's. */
    EXPECT_EQ(Ask(PortPunt(P2), 5), Expected(PMDB_TYPE_PUNT, {0x102, 0x120000, 0x40008102}, 5));
    EXPECT_EQ(Ask(PortPunt(S1), 2), Expected(PMDB_TYPE_PUNT, {0x201}, 2));
    EXPECT_EQ(Ask(PortPunt(B), 2), Expected(PMDB_TYPE_PUNT, {0x500}, 2));
    EXPECT_EQ(Ask(PortPunt(0x7777), 3), std::vector<u32>(3, 0));
    /* Capacity 2 of 3: the first two in slot order, nothing written beyond. */
    const std::vector<u32> all = InSlotOrder(PMDB_TYPE_PUNT, {0x101, 0x110000, 0x40008101});
    EXPECT_EQ(Ask(PortPunt(P1), 2), std::vector<u32>(all.begin(), all.begin() + 2));

    EXPECT_EQ(Ask(BundlePunt(B), 21),
              Expected(PMDB_TYPE_PUNT,
                       {0x102, 0x120000, 0x40008102, 0x80050000, 0x103, 0x40008103, 0x80060000,
                        0x104, 0x80070000, 0x105},
                       21));
    EXPECT_EQ(Ask(BundlePunt(B2), 7), Expected(PMDB_TYPE_PUNT, {0x106, 0x80080000}, 7));
    EXPECT_EQ(Ask(BundlePunt(B), 4).back() != 0, true) << "a full array has no zero place";

    EXPECT_EQ(Ask(BundleSubPunt(BS1, PMDB_READER_ALL_NODES), 1), std::vector<u32>{0x601});
    EXPECT_EQ(Ask(BundleSubPunt(BS2, PMDB_READER_ALL_NODES), 3),
              Expected(PMDB_TYPE_PUNT, {0x602, 0x40000602}, 3));
    EXPECT_EQ(Ask(BundleSubPunt(BS2, kBundleNode), 3), Expected(PMDB_TYPE_PUNT, {0x602}, 3));
    EXPECT_EQ(Ask(BundleSubPunt(BS2, kNode1), 3), Expected(PMDB_TYPE_PUNT, {0x40000602}, 3));
    /* A port sub-interface is no bundle sub-interface. */
    EXPECT_EQ(Ask(BundleSubPunt(S1, PMDB_READER_ALL_NODES), 2), std::vector<u32>(2, 0));
}

TEST_F(ReaderQueryTest, MembersAndSubInterfacesOfABundle) {
    BuildCard();
    const u32 all = PMDB_READER_ALL_NODES;
    EXPECT_EQ(Ask(Members(B, all), 4), Expected(PMDB_TYPE_IFH, {P2, P3, P4}, 4));
    EXPECT_EQ(Ask(Members(B, kNode1), 3), Expected(PMDB_TYPE_IFH, {P2}, 3));
    EXPECT_EQ(Ask(Members(B, kNode2), 3), Expected(PMDB_TYPE_IFH, {P3, P4}, 3));
    EXPECT_EQ(Ask(Members(B, 7), 2), std::vector<u32>(2, 0));
    EXPECT_EQ(Ask(Members(B2, all), 2), Expected(PMDB_TYPE_IFH, {P6}, 2));
    const std::vector<u32> members = InSlotOrder(PMDB_TYPE_IFH, {P2, P3, P4});
    EXPECT_EQ(Ask(Members(B, all), 2), std::vector<u32>(members.begin(), members.begin() + 2));

    EXPECT_EQ(Ask(BundleSubs(B), 3), Expected(PMDB_TYPE_IFH, {BS1, BS2}, 3));
    EXPECT_EQ(Ask(BundleSubs(B2), 1), std::vector<u32>{BS3});
    EXPECT_EQ(Ask(BundleSubs(P1), 2), std::vector<u32>(2, 0));

    EXPECT_EQ(Ask(IntfOam(P1), 3), Expected(PMDB_TYPE_OAM, {0x81010008, 0x0042001C}, 3));
    EXPECT_EQ(Ask(IntfOam(S1), 1), std::vector<u32>{0x0043001C});

    /* A member that leaves (flag cleared, bundle field cleared) drops out. */
    ASSERT_EQ(PutIfh(P3, Intf(P3, 0, 0, kNode2)), PMDB_OK);
    EXPECT_EQ(Ask(Members(B, all), 3), Expected(PMDB_TYPE_IFH, {P2, P4}, 3));
}

TEST_F(ReaderQueryTest, ListsFollowSlotOrderNotKeyOrder) {
    const pmdb_intf_info_t p1 = Intf(P1, 0, 0, kNode1);
    for (u32 key : {0x101u, 0x102u, 0x103u}) ASSERT_EQ(PutPunt(key, p1), PMDB_OK);
    ASSERT_EQ(RemoveEntry(PMDB_TYPE_PUNT, 0x101), PMDB_OK);
    ASSERT_EQ(PutPunt(0x40000999, p1), PMDB_OK); /* takes the freed first slot */
    ASSERT_LT(SlotOf(PMDB_TYPE_PUNT, 0x40000999), SlotOf(PMDB_TYPE_PUNT, 0x102));
    EXPECT_EQ(Ask(PortPunt(P1), 3), (std::vector<u32>{0x40000999, 0x102, 0x103}));
}

TEST_F(ReaderQueryTest, AnotherProcessSeesTheSameCard) {
    BuildCard();
    auto r = RunInChild([] {
        EXPECT_EQ(Ask(Members(B, kNode2), 2), Expected(PMDB_TYPE_IFH, {P3, P4}, 2));
        u8 count = 0;
        EXPECT_EQ(dpa_pmdb_get_num_members(&count, B), PMDB_OK);
        EXPECT_EQ(count, 3);
    });
    EXPECT_TRUE(r.ExitedWith(0)) << r.Describe();
}

struct Visits {
    std::vector<u32> keys;
    int stop_after = -1; /* return 17 from this visit on */
    int result = 22;
};

int Visit(void *arg, const pmdb_ifh_entry_t *entry, void *aux, void *ctx) {
    auto *v = static_cast<Visits *>(ctx);
    EXPECT_EQ(arg, ctx);
    EXPECT_EQ(entry->key, *static_cast<u32 *>(aux));
    if (v->stop_after >= 0 && static_cast<int>(v->keys.size()) >= v->stop_after) return 17;
    v->keys.push_back(entry->key);
    return v->result;
}

TEST_F(ReaderQueryTest, IterateVisitsEveryIfhEntryOnceAndStopsWhenFull) {
    BuildCard();
    const std::vector<u32> all =
        InSlotOrder(PMDB_TYPE_IFH, {P1, P2, P3, P4, P5, P6, S1, B, B2, BS1, BS2, BS3});
    Visits v;
    EXPECT_EQ(dpa_pmdb_iterate(Visit, &v, &v, 0), PMDB_OK);
    EXPECT_EQ(v.keys, all);

    Visits full;
    full.stop_after = 4;
    EXPECT_EQ(dpa_pmdb_iterate(Visit, &full, &full, 0), PMDB_OK);
    EXPECT_EQ(full.keys, std::vector<u32>(all.begin(), all.begin() + 4));
    Visits strict;
    strict.stop_after = 4;
    EXPECT_EQ(dpa_pmdb_iterate(Visit, &strict, &strict, PMDB_ITER_FULL_IS_ERROR), PMDB_EFULL);
    EXPECT_EQ(strict.keys.size(), 4u);

    Visits failing;
    failing.result = 5;
    EXPECT_EQ(dpa_pmdb_iterate(Visit, &failing, &failing, 0), 5u);
    EXPECT_EQ(failing.keys.size(), 1u);
    Visits zero;
    zero.result = 0;
    EXPECT_EQ(dpa_pmdb_iterate(Visit, &zero, &zero, 0), PMDB_OK);
    EXPECT_EQ(zero.keys.size(), all.size());
    EXPECT_EQ(dpa_pmdb_iterate(nullptr, nullptr, nullptr, 0), PMDB_EINVAL);
    EXPECT_EQ(dpa_pmdb_iterate(Visit, &v, &v, 2), PMDB_EINVAL);
}

}  // namespace
