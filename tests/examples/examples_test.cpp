// The demo and its card writer, run as the operator runs them: separate
// processes, the card read back from shared memory by this process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "card.h"
#include "pmdb.h"

namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

using namespace card;

ToolRun CardWriter(const std::vector<std::string> &args) {
    return RunTool(CARD_WRITER_PATH, args);
}

class CardWriterTest : public pmdb::test::PmdbTest {};

// The card as other processes see it: the ports, the bundle with its
// out-of-resource member, and the BVI that followed its node out of the
// inventory.  What card_writer checks itself (entries present, member
// counts, the BVI's new node, the removed punt entry) and the entry counts
// and member list that the demo shows are not checked again.
TEST_F(CardWriterTest, BuildsTheCardItReports) {
    const ToolRun r = CardWriter({"build"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;

    // Each port keeps its node (also 0x2002, whose node left the inventory:
    // only BVIs move) and carries its node's bit; its main punt entry (keyed
    // by ingress LIF) names it.  Node, node bit, member port, out-of-resource
    // state.
    const struct {
        u32 ifh, ingress_lif;
        std::array<u32, 4> placed;
    } ports[] = {{0x1001, 0x0101, {1, 1u << 1, 1, 2}},
                 {0x1002, 0x0102, {1, 1u << 1, 0, 0}},
                 {0x2001, 0x0201, {2, 1u << 2, 2, 0}},
                 {0x2002, 0x0202, {2, 1u << 2, 0, 0}}};
    for (const auto &p : ports) {
        const pmdb_ifh_entry_t e = Ifh(p.ifh);
        const std::array<u32, 4> placed = {e.intf_info.node_id, e.node_mask,
                                           e.intf_info.member_port, e.intf_info.oor_state};
        EXPECT_EQ(placed, p.placed) << std::hex << p.ifh;
        EXPECT_EQ(e.key, p.ifh);
        EXPECT_EQ(Punt(p.ingress_lif).intf_info.ifh, p.ifh);
    }
    // The bundle's own punt entry is stored with node 999, and its interface
    // OAM entry (oam_id << 16 | 28) names the bundle.
    EXPECT_EQ(Punt(0x0301).intf_info.node_id, 999u);
    EXPECT_EQ(Punt(0x0301).intf_info.bundle_ifh, 0x3001u);
    EXPECT_EQ(Oam(0x0031001C).oam_info.oam_ifh, 0x3001u);

    // Member count, out-of-resource members at levels 1 and 2, level.
    const pmdb_ifh_entry_t bundle = Ifh(0x3001);
    EXPECT_EQ((std::array<u32, 4>{bundle.member_count, bundle.intf_info.oor_members_1,
                                  bundle.intf_info.oor_members_2, bundle.intf_info.oor_state}),
              (std::array<u32, 4>{2, 0, 1, 2}));
    // The member's flap is what the out-of-resource callback was told, in
    // the line below each step: the bundle's level drops to 0 on the leave
    // and is back at 2 on the rejoin.
    EXPECT_THAT(r.out, ContainsRegex("member 0x00001001 leaves bundle 0x00003001[^\n]*\n *out-of-"
                                     "resource callback: bundle 0x00003001 slot [0-9]+ state 0 "
                                     "removed 0\n.*member 0x00001001 joins bundle 0x00003001[^\n]*"
                                     "\n *out-of-resource callback: bundle 0x00003001 slot [0-9]+ "
                                     "state 2 removed 0\n"));

    const pmdb_ifh_entry_t bvi = Ifh(0x4001);
    EXPECT_EQ(bvi.intf_info.intf_type, PMDB_INTF_TYPE_BVI);
    // Node 1's MAC as the platform reports it (the host default 02:<node>:<unit>).
    EXPECT_EQ(MacOf(bvi.intf_info.node_mac), (Mac{0x02, 0x00, 0x00, 0x00, 0x01, 0x00}));
    EXPECT_THAT(r.out, HasSubstr("    AIB update callback: 1 handle(s): 0x00004001 (status 0)\n"));
}

TEST_F(CardWriterTest, UnexpectedStatusesAndBadArgumentsExitNonZero) {
    const ToolRun missing = CardWriter({"hold", "0x9999"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("card_writer: lookup of 0x00009999: status"));

    const ToolRun no_entry = CardWriter({"oor", "0x9999", "1"});
    EXPECT_EQ(no_entry.status, 1) << no_entry.out << no_entry.err;

    EXPECT_EQ(CardWriter({"oor", "0x1002", "3"}).status, 2);
    EXPECT_EQ(CardWriter({}).status, 2);
    EXPECT_EQ(CardWriter({"build", "extra"}).status, 2);
}

TEST(DemoTest, RunsUnattendedShowsTheCardAndLeavesNothingBehind) {
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(setenv("PMDB_BUILD_DIR", DEMO_BUILD_DIR, 1), 0);
    const std::string svg = std::string(DEMO_BUILD_DIR) + "/demo-card.svg";
    std::filesystem::remove(svg);  // the demo draws it anew
    const ToolRun r = RunTool("/bin/bash", {DEMO_SCRIPT});
    const auto took = std::chrono::steady_clock::now() - start;
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_LT(took, 30s);

    const std::string &out = r.out;
    // The generated card replayed, looked at, drawn, checked and taken apart.
    for (const std::string &line : std::vector<std::string>
         {"applied 134 line(s), malformed 0, refused by the library 0\n",
          "  table ifh   0 -> 110 entries\n", "  member_count                    4\n",
          "sub_interfaces: 0x00b00101 0x00b00102\n", "   110 interfaces, 72 edges",
          "   rendered with dot to " + svg + "\n", "sub-interface counts, orphans    ok\n",
          "  table ifh   110 -> 0 entries\n", "  table punt  258 -> 0 entries\n",
          "card built: 6 IFH, 15 PUNT, 1 OAM entries\n", "members: 0x00001001 0x00002001\n",
          // A writer killed holding an entry lock, and the next writer recovering it.
          "held 1  dead owner 0", "held 0  dead owner 1", "database 69 lock_owner_dead",
          "IFH 0x00001002 out of resource, level 1: status 0\n"})
        EXPECT_THAT(out, HasSubstr(line));
    std::ifstream drawn(svg);
    const std::string text((std::istreambuf_iterator<char>(drawn)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("bundle 0x00b00100"), std::string::npos) << svg;
    EXPECT_EQ(r.err, "");  // no tool reported an error

    // The demo's namespaces are gone.
    const std::string tag = "(namespace ";
    const size_t at = out.find(tag + "demo");
    ASSERT_NE(at, std::string::npos);
    const std::string ns = out.substr(at + tag.size(), out.find(')', at) - at - tag.size());
    ASSERT_GT(ns.size(), strlen("demo")) << ns;
    for (const auto &f : std::filesystem::directory_iterator("/dev/shm")) {
        const std::string name = f.path().filename();
        EXPECT_NE(name.rfind(ns + ".", 0), 0u) << name;
        EXPECT_NE(name.rfind(ns + "t.", 0), 0u) << name;
        EXPECT_NE(name.rfind("sem." + ns, 0), 0u) << name;
    }
}

}  // namespace
