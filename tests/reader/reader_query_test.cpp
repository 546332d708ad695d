// Reader lookups, list queries and the IFH walk on a hand-built card, and the
// pmdbctl commands that print its entries: exactly the expected keys and
// handles, in slot order, within capacity, with zeros after the last match,
// and untouched buffers on failure.
//
// The card, written through the library's entry change cycle:
//   node 1: ports P1 (with port sub-interface S1), P2, P6
//   node 2: ports P3, P4, P5
//   bundle B  (node 999 punt key): active members P2, P3, P4; P5 carries B but
//             is not active; sub-interfaces BS1, BS2
//   bundle B2: active member P6; sub-interface BS3
#include <gmock/gmock.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <functional>
#include <string>
#include <vector>

#include "card.h"
#include "pmdb_cycle.h"
#include "pmdb_reader.h"

namespace {

using card::Bytes;
using pmdb::test::RemoveEntry;
using pmdb::test::SlotOf;
using pmdb::test::WriteEntry;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

constexpr u32 kNode1 = 1, kNode2 = 2, kBundleNode = 999;
constexpr u32 P1 = 0x1001, P2 = 0x1002, P6 = 0x1003;
constexpr u32 P3 = 0x2001, P4 = 0x2002, P5 = 0x2003;
constexpr u32 S1 = 0x3001;
constexpr u32 B = 0x5000, B2 = 0x5100;
constexpr u32 BS1 = 0x6001, BS2 = 0x6002, BS3 = 0x6101;
constexpr u32 kGuard = 0xDEADBEEFu;
constexpr u8 kFill = 0xEE;

/* Interface block naming ifh / sub_ifh / bundle_ifh on node, with a few
 * distinctive values derived from the handles. */
pmdb_intf_info_t Intf(u32 ifh, u32 sub, u32 bundle, u32 node) {
    pmdb_intf_info_t info{};
    const u32 self = sub != 0 ? sub : (ifh != 0 ? ifh : bundle);
    info.ifh = ifh;
    info.sub_ifh = sub;
    info.bundle_ifh = bundle;
    info.egress_lif = 0x8000u | (self & 0xFFFu);
    info.ingress_lif = static_cast<u16>(self & 0xFFFu);
    info.sys_port = static_cast<u16>(self & 0x3FFFu);
    info.node_id = node;
    info.intf_type = 1;
    info.sub_flags = sub != 0 ? PMDB_SUB_VALID : 0;
    for (int i = 0; i < 6; i++) info.mac_addr[i] = static_cast<u8>(self >> (i % 4 * 8));
    memset(info.opaque_20, static_cast<int>(self & 0xFF), sizeof info.opaque_20);
    info.oam_slots[31] = self;
    return info;
}

void PutIfh(u32 key, const pmdb_intf_info_t &info, u8 ifh_flags = 0, u8 member_count = 0) {
    card::PutIfh(key, [&](pmdb_ifh_entry_t &e) {
        e.ifh_flags = ifh_flags;
        e.member_count = member_count;
        e.intf_info = info;
        e.punt_info.ifh = key;
        e.punt_info.punt_data[0] = key ^ 0xA5A5u;
        pmdb_stamp(&e.event_id, &e.last_update, key);
    });
}

void PutPunt(u32 key, const pmdb_intf_info_t &info) {
    pmdb_punt_entry_t e{};
    e.key = key;
    e.intf_info = info;
    e.punt_info.punt_data[4] = key;
    pmdb_stamp(&e.event_id, &e.last_update, key);
    card::PutRecord(PMDB_TYPE_PUNT, key, &e);
}

void PutOam(u32 key, u32 oam_ifh) {
    pmdb_oam_entry_t e{};
    e.key = key;
    e.oam_info.oam_ifh = oam_ifh;
    e.oam_info.oam_word = key >> 16;
    pmdb_stamp(&e.event_id, &e.last_update, key);
    card::PutRecord(PMDB_TYPE_OAM, key, &e);
}

/* Writes the whole card above. */
void BuildCard() {
    const pmdb_intf_info_t p1 = Intf(P1, 0, 0, kNode1), p2 = Intf(P2, 0, B, kNode1),
                           p3 = Intf(P3, 0, B, kNode2), p4 = Intf(P4, 0, B, kNode2),
                           p5 = Intf(P5, 0, B, kNode2), p6 = Intf(P6, 0, B2, kNode1),
                           s1 = Intf(P1, S1, 0, kNode1), b = Intf(0, 0, B, kBundleNode),
                           b2 = Intf(0, 0, B2, kBundleNode), bs1 = Intf(0, BS1, B, kBundleNode),
                           bs2 = Intf(0, BS2, B, kBundleNode), bs2n1 = Intf(0, BS2, B, kNode1),
                           bs3 = Intf(0, BS3, B2, kBundleNode);
    PutIfh(P1, p1);
    PutIfh(P2, p2, PMDB_IFH_MEMBER_ACTIVE);
    PutIfh(P3, p3, PMDB_IFH_MEMBER_ACTIVE);
    PutIfh(P4, p4, PMDB_IFH_MEMBER_ACTIVE);
    PutIfh(P5, p5);
    PutIfh(P6, p6, PMDB_IFH_MEMBER_ACTIVE);
    PutIfh(S1, s1);
    PutIfh(B, b, 0, 3);
    PutIfh(B2, b2, 0, 1);
    PutIfh(BS1, bs1);
    PutIfh(BS2, bs2n1);
    PutIfh(BS3, bs3);
    for (u32 key : {0x101u, 0x110000u, 0x40008101u}) PutPunt(key, p1);
    for (u32 key : {0x102u, 0x120000u, 0x40008102u, 0x80050000u}) PutPunt(key, p2);
    for (u32 key : {0x103u, 0x40008103u, 0x80060000u}) PutPunt(key, p3);
    for (u32 key : {0x104u, 0x80070000u}) PutPunt(key, p4);
    PutPunt(0x105, p5);
    for (u32 key : {0x106u, 0x80080000u}) PutPunt(key, p6);
    PutPunt(0x201, s1);
    PutPunt(0x500, b);
    PutPunt(0x510, b2);
    PutPunt(0x601, bs1);
    PutPunt(0x602, bs2);
    PutPunt(0x40000602, bs2n1);
    PutPunt(0x611, bs3);
    PutOam(0x81010008, P1);
    PutOam(0x0042001C, P1);
    PutOam(0x0043001C, S1);
    PutOam(0x0050001C, B);
}

/* `keys` sorted by their table slot (the order the list queries promise). */
std::vector<u32> InSlotOrder(pmdb_type_t type, std::vector<u32> keys) {
    std::sort(keys.begin(), keys.end(),
              [type](u32 a, u32 b) { return SlotOf(type, a) < SlotOf(type, b); });
    return keys;
}

class ReaderQueryTest : public pmdb::test::PmdbTest {
#ifdef PMDBCTL_PATH
  protected:
    /* Runs pmdbctl in this test's namespace. */
    pmdb::test::ToolRun Pmdbctl(const std::string &args) {
        return pmdb::test::RunTool(PMDBCTL_PATH, pmdb::test::Words("--ns " + ns() + " " + args));
    }
#endif
};

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

/* A lookup hands over exactly the stored interface and punt blocks of an IFH
 * or PUNT entry, or a whole OAM entry, and nothing past them. */
TEST_F(ReaderQueryTest, LookupsCopyTheStoredBlocksAndNothingElse) {
    BuildCard();
    const struct {
        pmdb_type_t type;
        u32 key;
        size_t from, len;
    } cases[] = {
        {PMDB_TYPE_IFH, P2, offsetof(pmdb_ifh_entry_t, intf_info), PMDB_READER_INFO_COPY_SIZE},
        {PMDB_TYPE_PUNT, 0x40000602, offsetof(pmdb_punt_entry_t, intf_info),
         PMDB_READER_INFO_COPY_SIZE},
        {PMDB_TYPE_OAM, 0x0043001C, 0, PMDB_OAM_ENTRY_SIZE},
    };
    for (const auto &c : cases) {
        Bytes buf(PMDB_IFH_ENTRY_SIZE, kFill);
        const cerrno rc = c.type == PMDB_TYPE_IFH
                              ? dpa_pmdb_get_ifh_entry_by_key(c.key, buf.data(), 0, 0)
                          : c.type == PMDB_TYPE_PUNT
                              ? dpa_pmdb_get_punt_entry_by_key(c.key, buf.data())
                              : dpa_pmdb_get_oam_entry_by_key(
                                    c.key, reinterpret_cast<pmdb_oam_entry_t *>(buf.data()));
        ASSERT_EQ(rc, PMDB_OK) << c.key;
        Bytes want = card::EntryBytes(c.type, c.key);
        want.erase(want.begin(), want.begin() + c.from);
        want.resize(c.len);
        want.resize(buf.size(), kFill);
        EXPECT_EQ(buf, want) << c.key;
    }
    for (const auto &[handle, members] : {std::pair{B, 3}, {B2, 1}, {P1, 0}}) {
        u8 count = 0xFF;
        EXPECT_EQ(dpa_pmdb_get_num_members(&count, handle), PMDB_OK);
        EXPECT_EQ(count, members) << handle;
    }
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
    PutIfh(P3, Intf(P3, 0, 0, kNode2));
    EXPECT_EQ(Ask(Members(B, all), 3), Expected(PMDB_TYPE_IFH, {P2, P4}, 3));
}

TEST_F(ReaderQueryTest, ListsFollowSlotOrderNotKeyOrder) {
    const pmdb_intf_info_t p1 = Intf(P1, 0, 0, kNode1);
    for (u32 key : {0x101u, 0x102u, 0x103u}) PutPunt(key, p1);
    ASSERT_EQ(RemoveEntry(PMDB_TYPE_PUNT, 0x101), PMDB_OK);
    PutPunt(0x40000999, p1); /* takes the freed first slot */
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

#ifdef PMDBCTL_PATH
/* pmdbctl dump and show: fields printed by name with handles in hex, MACs
 * with colons and flags by name; one line and status 1 for a bad key, a
 * missing entry or a missing table. */
TEST_F(ReaderQueryTest, DumpAndShowPrintEntriesFieldByField) {
    BuildCard();
    const struct {
        const char *args;
        std::vector<testing::Matcher<std::string>> out;
    } cases[] = {
        {"dump ifh --key 0x1002",
         {HasSubstr("ifh 0x00001002\n"), ContainsRegex("ifh_flags +member_active\n"),
          ContainsRegex("intf_info.bundle_ifh +0x00005000\n"),
          ContainsRegex("intf_info.mac_addr +02:10:00:00:02:10\n"),
          ContainsRegex("punt_info.punt_data +0x0000b5a7,0x00000000")}},
        {"dump oam",
         {HasSubstr("oam 0x81010008\n"), HasSubstr("oam 0x0042001c\n"),
          HasSubstr("oam 0x0043001c\n"), HasSubstr("oam 0x0050001c\n")}},
        {"dump punt --key 0x80050000 --json",
         {HasSubstr("\"key_flags\": [\n      \"bundle_member\"\n    ]"),
          HasSubstr("\"bundle_ifh\": \"0x00005000\"")}},
        /* A bundle with its punt keys, OAM entries, members and sub-interfaces,
         * but not a sub-interface's punt key. */
        {"show 0x5000",
         {HasSubstr("punt 0x00000500\n"), HasSubstr("bundle_punt 0x80060000\n"),
          HasSubstr("oam 0x0050001c\n"), ContainsRegex("members: 0x0000(1002|2001|2002)"),
          HasSubstr("sub_interfaces: 0x00006001 0x00006002\n"), Not(HasSubstr("0x00000601"))}},
        {"show 0x1001",
         {HasSubstr("punt 0x40008101\n"), Not(HasSubstr("punt 0x00000201")),
          Not(HasSubstr("members:"))}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args);
        const pmdb::test::ToolRun r = Pmdbctl(c.args);
        EXPECT_EQ(r.status, 0) << r.err;
        for (const auto &m : c.out) EXPECT_THAT(r.out, m);
    }
}

TEST_F(ReaderQueryTest, BadKeysAndMissingEntriesAreOneLineErrors) {
    const pmdb::test::ToolRun no_table = Pmdbctl("dump punt");
    EXPECT_EQ(no_table.status, 1);
    EXPECT_EQ(no_table.out + no_table.err,
              "pmdbctl: the punt table does not exist in this namespace\n");
    BuildCard();
    const pmdb::test::ToolRun missing = Pmdbctl("dump ifh --key 0x9999");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out + missing.err, "pmdbctl: no ifh entry under key 0x00009999\n");
    const pmdb::test::ToolRun bad = Pmdbctl("show 12zz");
    EXPECT_EQ(bad.status, 1);
    EXPECT_THAT(bad.out + bad.err, testing::StartsWith("pmdbctl: bad interface handle '12zz'"));
    EXPECT_THAT(bad.out + bad.err, testing::MatchesRegex("[^\n]*\n"));
    EXPECT_EQ(Pmdbctl("dump ifh --key 0").status, 1);
}
#endif

}  // namespace
