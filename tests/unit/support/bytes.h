// Frames as readable hex, both ways: "45 00 05 94 ..." to bytes for building
// test input, and bytes back to that form so that failure messages show where
// two frames differ.
//
// Header-only and free of GoogleTest: any unit binary and the fuzz targets
// can use it.
#pragma once

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

namespace lumora::test {

using Bytes = std::vector<uint8_t>;

// "45 00 05 94 ..." -> bytes; blanks and line breaks are ignored.
inline Bytes hexBytes(const char* text) {
    Bytes out;
    int high = -1;
    for (const char* p = text; *p != '\0'; ++p) {
        const auto c = static_cast<unsigned char>(*p);
        if (std::isspace(c)) continue;
        if (!std::isxdigit(c)) throw std::invalid_argument(text);
        const int nibble = std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10;
        if (high < 0) {
            high = nibble;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | nibble));
            high = -1;
        }
    }
    if (high >= 0) throw std::invalid_argument(text);
    return out;
}

// Bytes as "45 00 05 94".
inline std::string hexText(const uint8_t* bytes, size_t length) {
    std::string out;
    char byte[4];
    for (size_t i = 0; i < length; ++i) {
        std::snprintf(byte, sizeof byte, i == 0 ? "%02x" : " %02x", bytes[i]);
        out += byte;
    }
    return out;
}
inline std::string hexText(const Bytes& bytes) { return hexText(bytes.data(), bytes.size()); }

// The parts one after the other.
inline Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

}  // namespace lumora::test
