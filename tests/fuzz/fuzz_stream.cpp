/*
 * fuzz_stream.cpp - the event stream reader of pmdbctl replay on arbitrary
 * lines.  Each line of the input is parsed; a refused line's reason is one
 * printable line (replay prints it as its error); an accepted line, written
 * back by the stream writer, reads back as the same record.
 */
#include <algorithm>
#include <string>

#include "event_stream.h"
#include "fuzz_input.h"

namespace {

void CheckLine(const std::string &text) {
    pmdbctl::StreamLine line, again;
    const std::string reason = pmdbctl::ParseStreamLine(text, &line);
    for (char c : reason) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u >= 0x7f) fuzz::Broken("reason not one printable line", u);
    }
    if (!reason.empty()) return;
    const std::string written = pmdbctl::StreamLineJson(line).dump();
    const std::string why = pmdbctl::ParseStreamLine(written, &again);
    const std::string back =
        why.empty() ? pmdbctl::StreamLineJson(again).dump() : "refused: " + why;
    if (back != written) fuzz::Broken("written line " + written + " reads back as " + back);
}

[[maybe_unused]] void Setup() {}

}  // namespace

int FuzzStream(const uint8_t *data, size_t size) {
    const std::string all(reinterpret_cast<const char *>(data), size);
    for (size_t at = 0, end; at <= all.size(); at = end + 1) {
        end = std::min(all.find('\n', at), all.size());
        CheckLine(all.substr(at, end - at));
    }
    return 0;
}

PMDB_FUZZ_TARGET(FuzzStream, Setup)
