// The shared object exports exactly the names of its linker version script
// (pmdb.map) that the library defines: nothing beyond the map, and every
// name of the map that is built (defined by the library's objects) is there.
// The map names exactly what the public header declares exported.
// Names of the map not built yet are simply absent, and show up here once
// they are.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "pmdb_test.h"

namespace {

using Names = std::set<std::string>;

std::string ReadFile(const char *path) {
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << path;
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The first group of every match of `re` in `text` (^ and $ match at lines).
Names Matches(const std::string &text, const char *re) {
    const std::regex r(re, std::regex::ECMAScript | std::regex::multiline);
    Names names;
    for (std::sregex_iterator m(text.begin(), text.end(), r), end; m != end; ++m)
        names.insert((*m)[1]);
    return names;
}

// Global names that `file` defines (nm kinds in upper case), from its
// dynamic symbol table when `dynamic`.
Names Definitions(const char *file, bool dynamic) {
    std::vector<std::string> args = {"--defined-only", file};
    if (dynamic) args.insert(args.begin(), "-D");
    const pmdb::test::ToolRun r = pmdb::test::RunTool("nm", args);
    EXPECT_EQ(r.status, 0) << r.err;
    return Matches(r.out, R"(^\S+ [A-Z] (\S+)$)");
}

TEST(FrameExportsTest, SharedObjectExportsTheMapsBuiltNamesAndNothingElse) {
    const std::string map_file =
        std::regex_replace(ReadFile(PMDB_EXPORT_MAP), std::regex(R"(/\*[\s\S]*?\*/)"), "");
    const size_t global = map_file.find("global:"), local = map_file.find("local:");
    ASSERT_TRUE(global != std::string::npos && local != std::string::npos && global < local);
    const Names map = Matches(map_file.substr(global, local - global), R"((\w+) *;)");
    ASSERT_GT(map.size(), 30u) << "the map's global names were not read";
    EXPECT_EQ(map, Matches(ReadFile(PMDB_PUBLIC_HEADER), R"(^PMDB_EXPORT [^(;]*?(\w+) *[(;])"))
        << "pmdb.map and the PMDB_EXPORT declarations of pmdb.h differ";
    const Names exported = Definitions(PMDB_SHARED_OBJECT, true);
    const Names defined = Definitions(PMDB_STATIC_ARCHIVE, false);
    for (const std::string &name : exported)
        EXPECT_TRUE(map.count(name)) << name << " is exported but not in pmdb.map";
    for (const std::string &name : map)
        EXPECT_TRUE(!defined.count(name) || exported.count(name)) << name << " is not exported";
}

}  // namespace
