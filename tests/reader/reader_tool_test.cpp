// pmdbctl dump and show on the hand-built card: fields printed by name with
// handles in hex, MACs with colons and flags by name; one line and status 1
// for a bad key, a missing entry or a missing table.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "pmdb_test.h"
#include "reader_card.h"

namespace {

using pmdb::test::ToolRun;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class ReaderToolTest : public pmdb::test::PmdbTest {
  protected:
    /* Runs pmdbctl in this test's namespace. */
    ToolRun Pmdbctl(const std::string &args) {
        return pmdb::test::RunTool(PMDBCTL_PATH, pmdb::test::Words("--ns " + ns() + " " + args));
    }
};

TEST_F(ReaderToolTest, DumpAndShowPrintEntriesFieldByField) {
    rcard::BuildCard();
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
        const ToolRun r = Pmdbctl(c.args);
        EXPECT_EQ(r.status, 0) << r.err;
        for (const auto &m : c.out) EXPECT_THAT(r.out, m);
    }
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
    EXPECT_THAT(bad.out + bad.err, StartsWith("pmdbctl: bad interface handle '12zz'"));
    EXPECT_THAT(bad.out + bad.err, testing::MatchesRegex("[^\n]*\n"));
    EXPECT_EQ(Pmdbctl("dump ifh --key 0").status, 1);
}

}  // namespace
