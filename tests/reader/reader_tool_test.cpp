// pmdbctl dump and show on the hand-built card: fields printed by name with
// handles in hex, MACs with colons and flags by name; one line and status 1
// for a bad key, a missing entry or a missing table.
#include <algorithm>
#include <string>

#include <gmock/gmock.h>

#include "pmdb_test.h"
#include "reader_card.h"

namespace {

using pmdb::test::PmdbTest;
using pmdb::test::ToolRun;
using testing::HasSubstr;
using testing::Not;

class ReaderToolTest : public PmdbTest {
protected:
    /* Runs pmdbctl in this test's namespace. */
    ToolRun Pmdbctl(const std::string &args) {
        return pmdb::test::RunTool(PMDBCTL_PATH, pmdb::test::Words("--ns " + ns() + " " + args));
    }
};

TEST_F(ReaderToolTest, DumpPrintsEntriesFieldByField) {
    rcard::BuildCard();
    const ToolRun ifh = Pmdbctl("dump ifh --key 0x1002");
    EXPECT_EQ(ifh.status, 0) << ifh.out;
    EXPECT_THAT(ifh.out, HasSubstr("ifh 0x00001002\n"));
    EXPECT_THAT(ifh.out, testing::ContainsRegex("ifh_flags +member_active\n"));
    EXPECT_THAT(ifh.out, testing::ContainsRegex("intf_info.bundle_ifh +0x00005000\n"));
    EXPECT_THAT(ifh.out, testing::ContainsRegex("intf_info.mac_addr +02:10:00:00:02:10\n"));
    EXPECT_THAT(ifh.out, testing::ContainsRegex("punt_info.punt_data +0x0000b5a7,0x00000000"));

    const ToolRun oam = Pmdbctl("dump oam");
    EXPECT_EQ(oam.status, 0) << oam.out;
    for (const char *key : {"0x81010008", "0x0042001c", "0x0043001c", "0x0050001c"})
        EXPECT_THAT(oam.out, HasSubstr(std::string("oam ") + key + "\n"));

    const ToolRun json = Pmdbctl("dump punt --key 0x80050000 --json");
    EXPECT_EQ(json.status, 0) << json.out;
    EXPECT_THAT(json.out, HasSubstr("\"key_flags\": [\n      \"bundle_member\"\n    ]"));
    EXPECT_THAT(json.out, HasSubstr("\"bundle_ifh\": \"0x00005000\""));
}

TEST_F(ReaderToolTest, ShowPrintsAnInterfaceWithWhatBelongsToIt) {
    rcard::BuildCard();
    const ToolRun bundle = Pmdbctl("show 0x5000");
    EXPECT_EQ(bundle.status, 0) << bundle.out;
    EXPECT_THAT(bundle.out, HasSubstr("punt 0x00000500\n"));
    EXPECT_THAT(bundle.out, HasSubstr("bundle_punt 0x80060000\n"));
    EXPECT_THAT(bundle.out, HasSubstr("oam 0x0050001c\n"));
    EXPECT_THAT(bundle.out, testing::ContainsRegex("members: 0x0000(1002|2001|2002)"));
    EXPECT_THAT(bundle.out, HasSubstr("sub_interfaces: 0x00006001 0x00006002\n"));
    EXPECT_THAT(bundle.out, Not(HasSubstr("0x00000601"))) << "a sub-interface's punt key";

    const ToolRun port = Pmdbctl("show 0x1001");
    EXPECT_EQ(port.status, 0) << port.out;
    EXPECT_THAT(port.out, HasSubstr("punt 0x40008101\n"));
    EXPECT_THAT(port.out, Not(HasSubstr("punt 0x00000201"))) << "its sub-interface's key";
    EXPECT_THAT(port.out, Not(HasSubstr("members:")));
}

TEST_F(ReaderToolTest, BadKeysAndMissingEntriesAreOneLineErrors) {
    const ToolRun no_table = Pmdbctl("dump punt");
    EXPECT_EQ(no_table.status, 1);
    EXPECT_EQ(no_table.out + no_table.err, "pmdbctl: the punt table does not exist in this namespace\n");
    rcard::BuildCard();
    const ToolRun missing = Pmdbctl("dump ifh --key 0x9999");
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.out + missing.err, "pmdbctl: no ifh entry under key 0x00009999\n");
    const ToolRun bad = Pmdbctl("show 12zz");
    EXPECT_EQ(bad.status, 1);
    const std::string text = bad.out + bad.err;
    EXPECT_THAT(text, testing::StartsWith("pmdbctl: bad interface handle '12zz'"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    EXPECT_EQ(Pmdbctl("dump ifh --key 0").status, 1);
}

}  // namespace
