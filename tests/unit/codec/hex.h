// Hand-typed wire bytes for the codec tests.
#ifndef OMSDK_TEST_CODEC_HEX_H
#define OMSDK_TEST_CODEC_HEX_H

#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <vector>

namespace codec_test {

using Bytes = std::vector<uint8_t>;

// "00 0a FF" -> {0x00, 0x0a, 0xff}; "32x44" stands for 32 bytes of 0x44.
inline Bytes hex(const std::string &text) {
    Bytes out;
    size_t i = 0;
    while (i < text.size()) {
        if (text[i] == ' ' || text[i] == '|') {
            ++i;
            continue;
        }
        size_t x = text.find('x', i);
        size_t sp = text.find(' ', i);
        if (x != std::string::npos && (sp == std::string::npos || x < sp)) {
            size_t n = strtoul(text.substr(i, x - i).c_str(), nullptr, 10);
            uint8_t b = static_cast<uint8_t>(strtoul(text.substr(x + 1, 2).c_str(), nullptr, 16));
            out.insert(out.end(), n, b);
            i = x + 3;
        } else {
            out.push_back(static_cast<uint8_t>(strtoul(text.substr(i, 2).c_str(), nullptr, 16)));
            i += 2;
        }
    }
    return out;
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

}  // namespace codec_test

#endif
