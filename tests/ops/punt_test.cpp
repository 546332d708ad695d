// The punt key rule and one PUNT entry added, refreshed and removed, as the
// table store and the trace buffers show them.
#include <gtest/gtest.h>

#include <cstring>

#include "host/settings.h"
#include "card.h"
#include "pmdb_internal.h"
#include "pmdb_ops.h"
#include "tabra.h"

namespace {

using namespace card;

constexpr u32 kKey = 0x40000123;

class PuntKeyRule : public CardTest {};
class PuntEntry : public CardTest {};

TEST_F(PuntKeyRule, MemberKeysOfThePortAndSlotSubstitution) {
    // A member whose egress LIF's low half and ingress LIF are 0, sys_port 0x1234.
    EXPECT_EQ(dpa_pmdb_punt_key(1, 0x70000, 0, 0x1234, PMDB_NO_SLOT), 0x52340000u);
    EXPECT_EQ(dpa_pmdb_punt_key(0, 0x70000, 0, 0x1234, PMDB_NO_SLOT), 0x12340000u);
    EXPECT_EQ(dpa_pmdb_punt_key(0, 0, 0, 0xFFFF, PMDB_NO_SLOT), 0x3FFF0000u);
    // Either LIF present: no extension; the port field follows egress_key.
    EXPECT_EQ(dpa_pmdb_punt_key(0, 0x7ABCD, 0x42, 0x1234, PMDB_NO_SLOT), 0x42u);
    EXPECT_EQ(dpa_pmdb_punt_key(1, 0x7ABCD, 0x42, 0x1234, PMDB_NO_SLOT), 0x4000ABCDu);
    EXPECT_EQ(dpa_pmdb_punt_key(0, 0x5, 0, 0x1234, PMDB_NO_SLOT), 0u);
    EXPECT_EQ(dpa_pmdb_punt_key(0, 0, 0, 0, PMDB_NO_SLOT), 0u);  // refused by every PUNT call
    // Off a route processor a slot replaces bits 16..21 of egress keys only.
    EXPECT_EQ(dpa_pmdb_punt_key(1, 0x10042, 0, 0, 0x45), 0x40050042u);
    EXPECT_EQ(dpa_pmdb_punt_key(1, 0, 0, 0x3FFF, 5), 0x7FC50000u);
    EXPECT_EQ(dpa_pmdb_punt_key(0, 0, 0x42, 0, 5), 0x42u);
    platform_host_set_rp_plus_datapath(1);
    EXPECT_EQ(dpa_pmdb_punt_key(1, 0x10042, 0, 0, 5), 0x40000042u);
    // The identity is asked for every egress key and no other.
    pm_calllog_enable(1);
    dpa_pmdb_punt_key(0, 0x10042, 0x10, 0, 5);
    EXPECT_TRUE(CallNames().empty());
    dpa_pmdb_punt_key(1, 0x10042, 0, 0, PMDB_NO_SLOT);
    EXPECT_EQ(CallNames(), std::vector<std::string>{"platform_am_i_rp_plus_datapath"});
}

TEST_F(PuntEntry, AddCreatesAStampedEntry) {
    pmdb_event_t ev = MemberEvent(1, 0x77, 0x100, 0x200);
    ev.intf_info.egress_lif = 0x123;
    memset(ev.intf_info.opaque_85, 0xAB, sizeof ev.intf_info.opaque_85);
    const pmdb_punt_info_t given = {0x100, 3, 0, {9, 8, 7, 6, 5}};
    i32 slot = -1;
    const timespec before = Now();
    ASSERT_EQ(dpa_pmdb_add_punt_entry(kKey, &ev, &slot, &given), PMDB_OK);
    const pmdb_punt_entry_t e = Punt(kKey);
    EXPECT_EQ(slot, SlotOf(PMDB_TYPE_PUNT, kKey));
    EXPECT_TRUE(Within(e.last_update, before, Now()));
    pmdb_punt_entry_t want = {};
    want.key = kKey;
    want.event_id = 0x77;
    want.last_update = e.last_update;
    want.intf_info = ev.intf_info;
    want.punt_info = given;
    EXPECT_TRUE(BytesOf(&e, sizeof e) == BytesOf(&want, sizeof want));
    ExpectNoTrace(VESK_DATABASE, 138);
}

TEST_F(PuntEntry, RefreshKeepsOrReplacesThePuntBlockAsTheEventSaysAndRemovalFreesTheKey) {
    pmdb_event_t ev = MemberEvent(1, 1, 0x100, 0x300);
    ev.intf_info.sub_ifh = 0x200;
    const pmdb_punt_info_t first = {0x100, 0, 0, {1, 2, 3, 4, 5}};
    i32 slot = -1, again = -1;
    ASSERT_EQ(dpa_pmdb_add_punt_entry(kKey, &ev, &slot, &first), PMDB_OK);
    MarkTraces();
    ev.event_id = 2;
    ev.intf_info.egress_lif = 0x999;
    const pmdb_punt_info_t no_first_word = {0x55, 0, 0, {0, 7, 7, 7, 7}};
    ASSERT_EQ(dpa_pmdb_add_punt_entry(kKey, &ev, &again, &no_first_word), PMDB_OK);
    EXPECT_EQ(again, slot);
    ExpectTrace(VESK_DATABASE, 138, {kKey});
    pmdb_punt_entry_t want = Punt(kKey);
    EXPECT_EQ(want.event_id, 2u);
    EXPECT_EQ(memcmp(&want.intf_info, &ev.intf_info, sizeof ev.intf_info), 0);
    EXPECT_EQ(memcmp(&want.punt_info, &first, sizeof first), 0);

    // Punt events: their ifh, and only their nonzero words, the last one too.
    const pmdb_punt_info_t merges[][2] = {
        {{0x99, 0, 0, {0, 70, 0, 90, 0}}, {0x99, 0, 0, {1, 70, 3, 90, 5}}},
        {{0x98, 0, 0, {11, 12, 13, 14, 15}}, {0x98, 0, 0, {11, 12, 13, 14, 15}}},
        {{0x97, 0, 0, {0, 0, 0, 0, 25}}, {0x97, 0, 0, {11, 12, 13, 14, 25}}}};
    for (const auto &[words, merged] : merges) {
        pmdb_event_t punt = {};
        punt.valid_flags = PMDB_VF_PUNT;
        punt.event_id = 3;
        punt.punt_info = words;
        ASSERT_EQ(dpa_pmdb_add_punt_entry(kKey, &punt, &again, nullptr), PMDB_OK);
        want.event_id = 3;
        want.punt_info = merged;
        const pmdb_punt_entry_t e = Punt(kKey);
        want.last_update = e.last_update;
        EXPECT_TRUE(BytesOf(&e, sizeof e) == BytesOf(&want, sizeof want)) << words.ifh;
        ExpectTrace(VESK_DATABASE, 140, {words.ifh, kKey, words.punt_data[0]});
    }

    // valid_flags 0 only rewrites key, event_id and last_update ...
    pmdb_event_t bare = {};
    bare.event_id = 4;
    ASSERT_EQ(dpa_pmdb_add_punt_entry(kKey, &bare, &again, &first), PMDB_OK);
    pmdb_punt_entry_t e = Punt(kKey);
    want.event_id = 4;
    want.last_update = e.last_update;
    EXPECT_TRUE(BytesOf(&e, sizeof e) == BytesOf(&want, sizeof want));
    // ... and creates an entry with those three fields alone.
    ASSERT_EQ(dpa_pmdb_add_punt_entry(0x77, &bare, &again, &first), PMDB_OK);
    e = Punt(0x77);
    want = {};
    want.key = 0x77;
    want.event_id = 4;
    want.last_update = e.last_update;
    EXPECT_TRUE(BytesOf(&e, sizeof e) == BytesOf(&want, sizeof want));

    // The removal traces the entry's handles; the key comes back as a new,
    // zero-filled entry under a working lock.
    ASSERT_EQ(dpa_pmdb_remove_punt_entry(kKey), PMDB_OK);
    ExpectTrace(VESK_DATABASE, 175, {kKey, 0x100, 0x200, 0x300});
    ExpectTrace(VESK_DATABASE, 177, {kKey});
    EXPECT_EQ(SlotOf(PMDB_TYPE_PUNT, kKey), -1);
    ASSERT_EQ(dpa_pmdb_add_punt_entry(kKey, &bare, &slot, nullptr), PMDB_OK);
    EXPECT_EQ(Punt(kKey).punt_info.punt_data[0], 0u);
}

}  // namespace
