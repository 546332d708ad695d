// The shared object exports exactly the names of its linker version script
// (pmdb.map) that the library defines: nothing beyond the map, and every
// name of the map that is built (defined by the library's objects) is there.
// The map names exactly what the public header declares exported.
// Names of the map not built yet (the event entry and the whole-interface
// paths, for now) are simply absent, and show up here once they are.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "pmdb_test.h"

namespace {

std::string ReadFile(const char *path) {
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << path;
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The names of the map's "global:" part.
std::set<std::string> MapNames() {
    const std::string all =
        std::regex_replace(ReadFile(PMDB_EXPORT_MAP), std::regex(R"(/\*[\s\S]*?\*/)"), " ");
    const size_t begin = all.find("global:");
    const size_t end = all.find("local:");
    EXPECT_TRUE(begin != std::string::npos && end != std::string::npos && begin < end);
    std::set<std::string> names;
    const std::string part = all.substr(begin + 7, end - begin - 7);
    const std::regex entry(R"(([A-Za-z_][A-Za-z0-9_]*)\s*;)");
    for (std::sregex_iterator it(part.begin(), part.end(), entry), last; it != last; ++it)
        names.insert((*it)[1]);
    return names;
}

// The names the public header declares with PMDB_EXPORT.
std::set<std::string> HeaderNames() {
    const std::string text = ReadFile(PMDB_PUBLIC_HEADER);
    const std::regex decl(R"(\nPMDB_EXPORT[^;(]*?\b([A-Za-z_][A-Za-z0-9_]*)\s*[(;])");
    std::set<std::string> names;
    for (std::sregex_iterator it(text.begin(), text.end(), decl), last; it != last; ++it)
        names.insert((*it)[1]);
    return names;
}

// Global names that `file` defines (nm kinds in upper case), from its
// dynamic symbol table when `dynamic`.
std::set<std::string> Definitions(const char *file, bool dynamic) {
    std::vector<std::string> args = {"--defined-only", file};
    if (dynamic) args.insert(args.begin(), "-D");
    const pmdb::test::ToolRun r = pmdb::test::RunTool("nm", args);
    EXPECT_EQ(r.status, 0) << r.err;
    std::set<std::string> names;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream in(line);
        std::string addr, kind, name;
        if (in >> addr >> kind >> name && kind.size() == 1 && isupper(kind[0])) names.insert(name);
    }
    return names;
}

TEST(FrameExportsTest, SharedObjectExportsTheMapsBuiltNamesAndNothingElse) {
    const std::set<std::string> map = MapNames();
    ASSERT_GT(map.size(), 30u) << "the map's global names were not read";
    EXPECT_EQ(map, HeaderNames()) << "pmdb.map and the PMDB_EXPORT declarations of pmdb.h differ";
    const std::set<std::string> exported = Definitions(PMDB_SHARED_OBJECT, true);
    const std::set<std::string> defined = Definitions(PMDB_STATIC_ARCHIVE, false);
    for (const std::string &name : exported)
        EXPECT_TRUE(map.count(name)) << name << " is exported but not in pmdb.map";
    for (const std::string &name : map)
        if (defined.count(name)) {
            EXPECT_TRUE(exported.count(name)) << name << " is not exported";
        }
}

}  // namespace
