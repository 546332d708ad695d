/*
 * fuzz_stream.cpp - the event stream reader of pmdbctl replay on arbitrary
 * lines.  Each line of the input is parsed; a refused line's reason is one
 * printable line (replay prints it as its error); an accepted line, written
 * back by the stream writer, reads back as the same record.
 */
#include <string>

#include "event_stream.h"
#include "fuzz_input.h"

namespace {

void CheckReason(const std::string &reason) {
    for (char c : reason) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u >= 0x7f) fuzz::Broken("reason not one printable line", u);
    }
}

void CheckLine(const std::string &text) {
    pmdbctl::StreamLine line;
    const std::string reason = pmdbctl::ParseStreamLine(text, &line);
    if (!reason.empty()) {
        CheckReason(reason);
        return;
    }
    const std::string written = pmdbctl::StreamLineJson(line).dump();
    pmdbctl::StreamLine again;
    const std::string why = pmdbctl::ParseStreamLine(written, &again);
    if (!why.empty()) {
        fprintf(stderr, "fuzz: %s\nfuzz: refused as: %s\n", written.c_str(), why.c_str());
        fuzz::Broken("written line refused");
    }
    const std::string rewritten = pmdbctl::StreamLineJson(again).dump();
    if (rewritten != written) {
        fprintf(stderr, "fuzz: %s\nfuzz: reads back as %s\n", written.c_str(), rewritten.c_str());
        fuzz::Broken("written line reads back otherwise");
    }
}

[[maybe_unused]] void Setup() {}

}  // namespace

int FuzzStream(const uint8_t *data, size_t size) {
    const std::string all(reinterpret_cast<const char *>(data), size);
    size_t at = 0;
    while (at <= all.size()) {
        size_t end = all.find('\n', at);
        if (end == std::string::npos) end = all.size();
        CheckLine(all.substr(at, end - at));
        at = end + 1;
    }
    return 0;
}

PMDB_FUZZ_TARGET(FuzzStream, Setup)
