// Test frames written as readable hex ("ff ff ff ff ff ff 02 00 ..."), held
// in buffers of exactly the size asked for so that a read past the end shows
// up under the sanitizers.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "pdu/PDU.h"

namespace lumora::pdu::test {

// Pairs of hex digits; spaces and newlines between pairs are ignored.
inline std::vector<uint8_t> hexBytes(std::string_view text) {
    std::vector<uint8_t> bytes;
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        throw std::invalid_argument("bad hex digit");
    };
    for (size_t i = 0; i < text.size();) {
        if (std::isspace(static_cast<unsigned char>(text[i]))) {
            ++i;
            continue;
        }
        if (i + 1 >= text.size()) throw std::invalid_argument("odd hex digit count");
        bytes.push_back(static_cast<uint8_t>(digit(text[i]) << 4 | digit(text[i + 1])));
        i += 2;
    }
    return bytes;
}

// A frame placed behind `headroom` bytes, followed by `tailroom` spare bytes;
// pdu() spans the frame, with _cap the size of the whole buffer.
class Frame {
  public:
    explicit Frame(std::string_view hex, uint16_t headroom = 0, uint16_t tailroom = 0)
        : Frame(hexBytes(hex), headroom, tailroom) {}
    Frame(const std::vector<uint8_t>& bytes, uint16_t headroom = 0, uint16_t tailroom = 0)
        : buffer(headroom + bytes.size() + tailroom, 0xee), begin(headroom) {
        std::copy(bytes.begin(), bytes.end(), buffer.begin() + headroom);
        end = static_cast<uint16_t>(headroom + bytes.size());
    }
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;

    PDU pdu() {
        PDU p;
        p._buf = buffer.data();
        p._cap = static_cast<uint16_t>(buffer.size());
        p._begin = begin;
        p._end = end;
        return p;
    }
    // Frame bytes only (headroom and tailroom left out).
    std::vector<uint8_t> bytes() const {
        return std::vector<uint8_t>(buffer.begin() + begin, buffer.begin() + end);
    }
    uint8_t* at(size_t offset) { return buffer.data() + begin + offset; }

  private:
    std::vector<uint8_t> buffer;
    uint16_t begin;
    uint16_t end = 0;
};

// Everything a callable writes to its FILE*, and the int it threw (-1: none).
struct Captured {
    std::string text;
    int thrown = -1;
};

template <typename Writer>
Captured capture(Writer write) {
    char* memory = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&memory, &size);
    if (out == nullptr) throw std::runtime_error("open_memstream failed");
    Captured result;
    try {
        write(out);
    } catch (int error) {
        result.thrown = error;
    }
    std::fclose(out);
    result.text.assign(memory, size);
    std::free(memory);
    return result;
}

}  // namespace lumora::pdu::test
