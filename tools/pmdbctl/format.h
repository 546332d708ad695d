// format.h - how pmdbctl writes values for people: numbers in hex and MAC
// addresses, the same in every command's text and JSON output.
#ifndef PMDBCTL_FORMAT_H
#define PMDBCTL_FORMAT_H

#include <stdint.h>

#include <nlohmann/json.hpp>
#include <string>

namespace pmdbctl {

// "0x" and `v` in lower-case hex, zero-padded to `width` digits (0: as many
// digits as it takes).
std::string Hex(unsigned long long v, int width = 8);

// The six bytes at `mac` as aa:bb:cc:dd:ee:ff.
std::string Mac(const uint8_t *mac);

// `text` with every byte outside printable ASCII, and the backslash, as
// \xNN: text from shared memory or the environment (trace strings, setting
// values, object names) may hold any bytes, and output is one line per item.
std::string Printable(const std::string &text);

// j as JSON text (indent as nlohmann's dump).  A string that is not UTF-8
// gets U+FFFD for its bad bytes instead of an exception.
std::string JsonText(const nlohmann::ordered_json &j, int indent = 2);

}  // namespace pmdbctl

#endif
