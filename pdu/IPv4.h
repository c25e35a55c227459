// IPv4 view: the header (IHL words) and the payload behind it.
#pragma once

#include <cstdint>
#include <type_traits>

#include "pdu/PDU.h"
#include "pdu/View.h"

namespace lumora::pdu {

// IP protocol numbers the frame walk follows.
inline constexpr uint8_t kProtocolIcmpv4 = 1;
inline constexpr uint8_t kProtocolIPv4 = 4;
inline constexpr uint8_t kProtocolTcp = 6;
inline constexpr uint8_t kProtocolUdp = 17;
inline constexpr uint8_t kProtocolGre = 47;
inline constexpr uint8_t kProtocolIcmpv6 = 58;

struct IPv4PDU : PDU {
    static constexpr uint16_t kMinimumLength = 20;
    static constexpr uint16_t kMoreFragments = 0x2000;
    static constexpr uint16_t kDontFragment = 0x4000;

    // Throws 22 below 20 bytes, or when IHL*4 is below 20 or beyond the layer.
    static IPv4PDU at(PDU p, uint16_t begin) {
        IPv4PDU view = makeView<IPv4PDU>(p, begin, kMinimumLength);
        if (view.headerLength() < kMinimumLength || view.headerLength() > view.length())
            throw kInvalid;
        return view;
    }

    uint8_t version() const { return data()[0] >> 4; }
    uint8_t ihl() const { return data()[0] & 0x0f; }
    uint16_t headerLength() const { return static_cast<uint16_t>(ihl() * 4); }
    uint16_t innerBegin() const { return static_cast<uint16_t>(_begin + headerLength()); }

    uint8_t tos() const { return data()[1]; }
    uint16_t totalLength() const { return load16(data() + 2); }
    uint16_t id() const { return load16(data() + 4); }
    // Flags (DF 0x4000, MF 0x2000) and the fragment offset in one word.
    uint16_t flagsOffset() const { return load16(data() + 6); }
    // In 8-byte units.
    uint16_t fragmentOffset() const { return flagsOffset() & 0x1fff; }
    bool moreFragments() const { return (flagsOffset() & kMoreFragments) != 0; }
    uint8_t ttl() const { return data()[8]; }
    uint8_t protocol() const { return data()[9]; }
    uint16_t checksum() const { return load16(data() + 10); }
    uint8_t* source() const { return data() + 12; }
    uint8_t* destination() const { return data() + 16; }

    // Keeps the version nibble.
    void setIhl(uint8_t ihl) const {
        data()[0] = static_cast<uint8_t>((data()[0] & 0xf0) | (ihl & 0x0f));
    }
    void setTotalLength(uint16_t length) const { store16(data() + 2, length); }
    void setId(uint16_t id) const { store16(data() + 4, id); }
    void setFlagsOffset(uint16_t word) const { store16(data() + 6, word); }
    void setTtl(uint8_t ttl) const { data()[8] = ttl; }
    void setProtocol(uint8_t protocol) const { data()[9] = protocol; }
    void setChecksum(uint16_t checksum) const { store16(data() + 10, checksum); }
};

static_assert(std::is_trivially_copyable_v<IPv4PDU> && sizeof(IPv4PDU) <= 16);

}  // namespace lumora::pdu
