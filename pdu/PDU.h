// The frame value every path passes around: a span of a byte buffer that
// somebody else owns (the endpoint that read it). Indices are 16-bit; the
// bytes before _begin are headroom into which outer headers are prepended.
#pragma once

#include <cstdint>

namespace lumora::pdu {

// Wire fields are big-endian; these are the only way the code reads or
// writes a multi-byte field.
inline uint16_t load16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
inline uint32_t load32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}
inline void store16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
inline void store32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// errno values thrown as bare ints by the packet model.
inline constexpr int kInvalid = 22;    // EINVAL on every platform we build for
inline constexpr int kNoBuffers = 55;  // the daemon's own code for "headroom exhausted"

struct PDU {
    uint8_t* _buf = nullptr;
    uint16_t _cap = 0;
    uint16_t _begin = 0;
    uint16_t _end = 0;
    uint8_t _flags[2] = {0, 0};  // reserved: zeroed on every make, never read

    uint16_t length() const { return static_cast<uint16_t>(_end - _begin); }
    uint8_t* data() const { return _buf + _begin; }

    // Moves _begin back by n bytes of headroom; throws 55 when there are fewer.
    void prepend(uint16_t n) {
        if (_begin < n) throw kNoBuffers;
        _begin = static_cast<uint16_t>(_begin - n);
    }
};

}  // namespace lumora::pdu
