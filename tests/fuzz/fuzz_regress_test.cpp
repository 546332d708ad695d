// The fuzz harnesses' kept inputs, fed through the same bodies without
// libFuzzer: the seed corpus and every input that once broke something
// (regress/), so that what a fuzz run fixed stays fixed in `make test`.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "pmdb_test.h"

int FuzzOper(const uint8_t *data, size_t size);
int FuzzStream(const uint8_t *data, size_t size);
int FuzzTabra(const uint8_t *data, size_t size);

namespace {

namespace fs = std::filesystem;

// Runs `body` on every file of corpus/<name> and regress/<name>; the
// number of files run.
size_t RunKept(const std::string &name, int (*body)(const uint8_t *, size_t)) {
    size_t n = 0;
    for (const char *dir : {"corpus", "regress"}) {
        const fs::path at = fs::path(PMDB_FUZZ_DIR) / dir / name;
        if (!fs::exists(at)) continue;
        for (const fs::directory_entry &f : fs::directory_iterator(at)) {
            std::ifstream in(f.path(), std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
            SCOPED_TRACE(f.path().string());
            body(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
            n++;
        }
    }
    return n;
}

class FuzzKept : public pmdb::test::PmdbTest {};

TEST_F(FuzzKept, EventsThroughTheDispatcher) { EXPECT_GT(RunKept("oper", FuzzOper), 0u); }
TEST_F(FuzzKept, EventStreamLines) { EXPECT_GT(RunKept("stream", FuzzStream), 0u); }
TEST_F(FuzzKept, DamagedTableObjects) { EXPECT_GT(RunKept("tabra", FuzzTabra), 0u); }

}  // namespace
