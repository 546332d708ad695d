// The shared object exports exactly the names of its linker version script
// (pmdb.map) that the library defines: nothing beyond the map, and every
// name of the map that is built (defined by the library's objects) is there.
// The map names exactly what the public header declares exported.
// Names of the map not built yet are simply absent, and show up here once
// they are.
#include <ctype.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
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

// The identifier that ends `text` (trailing characters that cannot be part
// of one skipped).
std::string LastName(const std::string &text) {
    auto in_name = [](char c) { return isalnum(static_cast<unsigned char>(c)) || c == '_'; };
    size_t end = text.size(), begin;
    while (end > 0 && !in_name(text[end - 1])) end--;
    for (begin = end; begin > 0 && in_name(text[begin - 1]);) begin--;
    return text.substr(begin, end - begin);
}

// Global names that `file` defines, from its dynamic symbol table when
// `dynamic` (an archive's member names come along; no map name ends in ':').
Names Definitions(const char *file, bool dynamic) {
    std::vector<std::string> args = {"-g", "--defined-only", "--format=just-symbols", file};
    if (dynamic) args.insert(args.begin(), "-D");
    const pmdb::test::ToolRun r = pmdb::test::RunTool("nm", args);
    EXPECT_EQ(r.status, 0) << r.err;
    std::istringstream words(r.out);
    return Names(std::istream_iterator<std::string>(words), {});
}

TEST(FrameExportsTest, SharedObjectExportsTheMapsBuiltNamesAndNothingElse) {
    std::string map_file = ReadFile(PMDB_EXPORT_MAP);
    for (size_t open; (open = map_file.find("/*")) != std::string::npos;)
        map_file.erase(open, map_file.find("*/", open) + 2 - open);
    const size_t global = map_file.find("global:"), local = map_file.find("local:");
    ASSERT_TRUE(global != std::string::npos && local != std::string::npos && global < local);
    Names map, header;
    std::istringstream words(map_file.substr(global + 7, local - global - 7));
    for (std::string word; words >> word;)
        if (word.back() == ';') map.insert(LastName(word));
    ASSERT_GT(map.size(), 30u) << "the map's global names were not read";
    std::istringstream lines(ReadFile(PMDB_PUBLIC_HEADER));
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("PMDB_EXPORT ", 0) == 0)
            header.insert(LastName(line.substr(0, line.find_first_of("(;"))));
    EXPECT_EQ(map, header) << "pmdb.map and the PMDB_EXPORT declarations of pmdb.h differ";
    const Names exported = Definitions(PMDB_SHARED_OBJECT, true);
    const Names defined = Definitions(PMDB_STATIC_ARCHIVE, false);
    for (const std::string &name : exported)
        EXPECT_TRUE(map.count(name)) << name << " is exported but not in pmdb.map";
    for (const std::string &name : map)
        EXPECT_TRUE(!defined.count(name) || exported.count(name)) << name << " is not exported";
}

}  // namespace
