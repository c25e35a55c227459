// IPv6 view: the 40-byte fixed header and what follows it. Extension headers
// are not walked; the next-header byte of the fixed header decides.
#pragma once

#include <cstdint>
#include <type_traits>

#include "pdu/PDU.h"
#include "pdu/View.h"

namespace lumora::pdu {

struct IPv6PDU : PDU {
    static constexpr uint16_t kHeaderLength = 40;

    // Throws 22 below 40 bytes.
    static IPv6PDU at(PDU p, uint16_t begin) { return makeView<IPv6PDU>(p, begin, kHeaderLength); }

    uint16_t headerLength() const { return kHeaderLength; }
    uint16_t innerBegin() const { return static_cast<uint16_t>(_begin + kHeaderLength); }

    uint8_t version() const { return data()[0] >> 4; }
    // Version, traffic class and flow label as one word.
    uint32_t firstWord() const { return load32(data()); }
    uint16_t payloadLength() const { return load16(data() + 4); }
    uint8_t nextHeader() const { return data()[6]; }
    uint8_t hopLimit() const { return data()[7]; }
    uint8_t* source() const { return data() + 8; }
    uint8_t* destination() const { return data() + 24; }

    void setPayloadLength(uint16_t length) const { store16(data() + 4, length); }
    void setHopLimit(uint8_t limit) const { data()[7] = limit; }
};

static_assert(std::is_trivially_copyable_v<IPv6PDU> && sizeof(IPv6PDU) <= 16);

}  // namespace lumora::pdu
