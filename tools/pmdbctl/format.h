// format.h - how pmdbctl writes values for people: numbers in hex and MAC
// addresses, the same in every command's text and JSON output.
#ifndef PMDBCTL_FORMAT_H
#define PMDBCTL_FORMAT_H

#include <stdint.h>

#include <string>

namespace pmdbctl {

// "0x" and `v` in lower-case hex, zero-padded to `width` digits (0: as many
// digits as it takes).
std::string Hex(unsigned long long v, int width = 8);

// The six bytes at `mac` as aa:bb:cc:dd:ee:ff.
std::string Mac(const uint8_t *mac);

}  // namespace pmdbctl

#endif
