// Reader lookups, list queries and the IFH walk on a hand-built card: exactly
// the expected keys and handles, in slot order, within capacity, with zeros
// after the last match, and untouched buffers on failure.
#include <string.h>

#include <array>
#include <functional>
#include <vector>

#include "pmdb_reader.h"
#include "pmdb_test.h"
#include "reader_card.h"

namespace {

using namespace rcard;
using pmdb::test::PmdbTest;

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

/* `keys` in slot order, cut or padded with zeros to `capacity`. */
std::vector<u32> Expected(pmdb_type_t type, std::vector<u32> keys, u32 capacity) {
    keys = InSlotOrder(type, keys);
    keys.resize(capacity, 0);
    return keys;
}

/* A list query of `handle` (and the trailing arguments) as Ask takes it. */
template <typename... Rest>
auto List(cerrno (*fn)(u32, u32 *, u32, Rest...), u32 handle, Rest... rest) {
    return [=](u32 *out, u32 cap) { return fn(handle, out, cap, rest...); };
}
auto PortPunt(u32 ifh) {
    return List(dpa_pmdb_get_port_punt_entries, ifh);
}
auto Members(u32 bundle, u32 node) {
    return List(dpa_pmdb_get_bundle_member_ifh_entries, bundle, node);
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

/* Nothing is found before the database exists, and a reader that asked too
 * early finds the tables once a writer has made them, without a restart. */
TEST_F(ReaderQueryTest, MissingEntriesAndBadArgumentsLeaveBuffersAlone) {
    std::array<u8, 312> buf;
    buf.fill(kFill);
    const std::array<u8, 312> untouched = buf;
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, buf.data(), 0, 0), PMDB_ENOTFOUND);
    EXPECT_EQ(dpa_pmdb_get_punt_entry_by_key(0x101, buf.data()), PMDB_ENOTFOUND);
    EXPECT_EQ(Ask(List(dpa_pmdb_get_bundle_punt_entries, B), 3, PMDB_ENOTFOUND),
              std::vector<u32>(3, 0));
    Visits none;
    EXPECT_EQ(dpa_pmdb_iterate(Visit, &none, &none, 0), PMDB_ENOTFOUND);
    EXPECT_TRUE(none.keys.empty());
    u32 n = 5;
    EXPECT_EQ(dpa_pmdb_count_entries(PMDB_TYPE_OAM, &n), PMDB_ENOTFOUND);
    EXPECT_EQ(n, 5u);
    BuildCard();
    EXPECT_EQ(dpa_pmdb_count_entries(PMDB_TYPE_IFH, &n), PMDB_OK);
    EXPECT_EQ(n, 12u);

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
    EXPECT_EQ(dpa_pmdb_get_ifh_entry_by_key(P1, buf.data(), 0, 0), PMDB_OK);
}

/* Each list query finds exactly the entries that belong to its handle, in
 * slot order, zeros after the last; a full array has no zero place. */
TEST_F(ReaderQueryTest, ListsHoldWhatBelongsToTheirHandle) {
    BuildCard();
    const u32 all = PMDB_READER_ALL_NODES;
    const auto punt = PMDB_TYPE_PUNT, ifh = PMDB_TYPE_IFH, oam = PMDB_TYPE_OAM;
    const auto sub_punt = dpa_pmdb_get_bundle_sub_punt_entries;
    const struct {
        std::function<cerrno(u32 *, u32)> query;
        u32 capacity;
        pmdb_type_t type;
        std::vector<u32> keys; /* all that belong; the first `capacity` expected */
    } cases[] = {
        {PortPunt(P1), 5, punt, {0x101, 0x110000, 0x40008101}},
        {PortPunt(P1), 2, punt, {0x101, 0x110000, 0x40008101}},
        /* A member port keeps its own keys; its bundle-member key is the bundle's. */
        {PortPunt(P2), 5, punt, {0x102, 0x120000, 0x40008102}},
        {PortPunt(S1), 2, punt, {0x201}},
        {PortPunt(B), 2, punt, {0x500}},
        {PortPunt(0x7777), 3, punt, {}},
        {List(dpa_pmdb_get_bundle_punt_entries, B),
         21,
         punt,
         {0x102, 0x120000, 0x40008102, 0x80050000, 0x103, 0x40008103, 0x80060000, 0x104, 0x80070000,
          0x105}},
        {List(dpa_pmdb_get_bundle_punt_entries, B2), 7, punt, {0x106, 0x80080000}},
        {List(sub_punt, BS1, all), 1, punt, {0x601}},
        {List(sub_punt, BS2, all), 3, punt, {0x602, 0x40000602}},
        {List(sub_punt, BS2, kBundleNode), 3, punt, {0x602}},
        {List(sub_punt, BS2, kNode1), 3, punt, {0x40000602}},
        /* A port sub-interface is no bundle sub-interface. */
        {List(sub_punt, S1, all), 2, punt, {}},
        {Members(B, all), 4, ifh, {P2, P3, P4}},
        {Members(B, all), 2, ifh, {P2, P3, P4}},
        {Members(B, kNode1), 3, ifh, {P2}},
        {Members(B, kNode2), 3, ifh, {P3, P4}},
        {Members(B, 7), 2, ifh, {}},
        {Members(B2, all), 2, ifh, {P6}},
        {List(dpa_pmdb_get_bundle_sub_ifh_entries, B), 3, ifh, {BS1, BS2}},
        {List(dpa_pmdb_get_bundle_sub_ifh_entries, B2), 1, ifh, {BS3}},
        {List(dpa_pmdb_get_bundle_sub_ifh_entries, P1), 2, ifh, {}},
        {List(dpa_pmdb_get_intf_oam_entries, P1), 3, oam, {0x81010008, 0x0042001C}},
        {List(dpa_pmdb_get_intf_oam_entries, S1), 1, oam, {0x0043001C}},
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        EXPECT_EQ(Ask(cases[i].query, cases[i].capacity),
                  Expected(cases[i].type, cases[i].keys, cases[i].capacity))
            << "case " << i;
    }
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

/* Every IFH entry once, in slot order, until the callback answers 17
 * (full: a success unless asked to be an error) or another failure. */
TEST_F(ReaderQueryTest, IterateVisitsEveryIfhEntryOnceAndStopsWhenFull) {
    BuildCard();
    const std::vector<u32> all =
        InSlotOrder(PMDB_TYPE_IFH, {P1, P2, P3, P4, P5, P6, S1, B, B2, BS1, BS2, BS3});
    const struct {
        int stop_after, result;
        u32 flags;
        cerrno want;
        size_t visited;
    } cases[] = {
        {-1, 22, 0, PMDB_OK, all.size()},
        {4, 22, 0, PMDB_OK, 4},
        {4, 22, PMDB_ITER_FULL_IS_ERROR, PMDB_EFULL, 4},
        {-1, 5, 0, 5, 1},
        {-1, 0, 0, PMDB_OK, all.size()},
    };
    for (const auto &c : cases) {
        Visits v;
        v.stop_after = c.stop_after;
        v.result = c.result;
        EXPECT_EQ(dpa_pmdb_iterate(Visit, &v, &v, c.flags), c.want) << c.stop_after << c.result;
        EXPECT_EQ(v.keys, std::vector<u32>(all.begin(), all.begin() + c.visited));
    }
    EXPECT_EQ(dpa_pmdb_iterate(nullptr, nullptr, nullptr, 0), PMDB_EINVAL);
    Visits v;
    EXPECT_EQ(dpa_pmdb_iterate(Visit, &v, &v, 2), PMDB_EINVAL);
}

}  // namespace
