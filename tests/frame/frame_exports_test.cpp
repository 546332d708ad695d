// The shared object exports exactly the names of its linker version script
// (pmdb.map) that the library defines: nothing beyond the map, and every
// name of the map that is built (defined by the library's objects) is there.
// The map names exactly what the public header declares exported.
// Names of the map not built yet (the event entry and the whole-interface
// paths, for now) are simply absent, and show up here once they are.
#include <ctype.h>
#include <gtest/gtest.h>

#include <fstream>
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

// The last identifier in `text`.
std::string LastName(const std::string &text) {
    size_t end = text.size();
    while (end > 0 && !(isalnum(static_cast<unsigned char>(text[end - 1])) || text[end - 1] == '_'))
        end--;
    size_t begin = end;
    while (begin > 0 && (isalnum(static_cast<unsigned char>(text[begin - 1])) || text[begin - 1] == '_'))
        begin--;
    return text.substr(begin, end - begin);
}

// The names of the map's "global:" part (comments dropped).
std::set<std::string> MapNames() {
    std::string all = ReadFile(PMDB_EXPORT_MAP);
    for (size_t open; (open = all.find("/*")) != std::string::npos;)
        all.erase(open, all.find("*/", open) + 2 - open);
    const size_t begin = all.find("global:");
    const size_t end = all.find("local:");
    EXPECT_TRUE(begin != std::string::npos && end != std::string::npos && begin < end);
    std::set<std::string> names;
    std::istringstream words(all.substr(begin + 7, end - begin - 7));
    for (std::string word; words >> word;)
        if (word.back() == ';') names.insert(LastName(word));
    return names;
}

// The names the public header declares with PMDB_EXPORT (each declaration
// names itself on its first line, before its '(' or ';').
std::set<std::string> HeaderNames() {
    std::istringstream lines(ReadFile(PMDB_PUBLIC_HEADER));
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("PMDB_EXPORT ", 0) == 0) names.insert(LastName(line.substr(0, line.find_first_of("(;"))));
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
