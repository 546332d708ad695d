// format.cpp - value formatting of pmdbctl (see format.h).
#include "format.h"

#include <stdio.h>

namespace pmdbctl {

std::string Hex(unsigned long long v, int width) {
    char s[24];
    snprintf(s, sizeof s, "0x%0*llx", width, v);
    return s;
}

std::string Mac(const uint8_t *m) {
    char s[18];
    snprintf(s, sizeof s, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return s;
}

std::string Printable(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    for (const unsigned char c : text) {
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += static_cast<char>(c);
            continue;
        }
        char esc[8];
        snprintf(esc, sizeof esc, "\\x%02x", c);
        out += esc;
    }
    return out;
}

std::string JsonText(const nlohmann::ordered_json &j, int indent) {
    return j.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace pmdbctl
