// GRE header view. Wire format (offsets from the header's first byte):
//   0  C(0x80) R(0x40) K(0x20) S(0x10) s(0x08) recursion control (0x07)
//   1  reserved flags and version, sent as 0
//   2  protocol type, 0x6558 for the bridged Ethernet frames we carry
//   4  checksum and reserved, only with C (never verified, never sent)
//   .  key, only with K
//   .  sequence number, only with S (never interpreted, never sent)
#pragma once

#include <cstdint>
#include <type_traits>

#include "pdu/PDU.h"
#include "pdu/View.h"

namespace lumora::pdu {

inline constexpr uint16_t kProtocolTransparentEthernet = 0x6558;

inline constexpr uint8_t kGreChecksumBit = 0x80;
inline constexpr uint8_t kGreKeyBit = 0x20;
inline constexpr uint8_t kGreSequenceBit = 0x10;
inline constexpr uint8_t kGreRecursionMask = 0x07;
// Recursion-control values used as marks between gateways: 7 on packets we
// forward to the upstream gateway, 6 on frames sent back to a gateway peer.
inline constexpr uint8_t kGreToUpstream = 7;
inline constexpr uint8_t kGreRelayReply = 6;

// Header length from the first header byte: 4, plus 4 for each of C, K, S.
constexpr uint16_t greHeaderLength(uint8_t first_byte) {
    return static_cast<uint16_t>(4 + ((first_byte & kGreChecksumBit) ? 4 : 0) +
                                 ((first_byte & kGreKeyBit) ? 4 : 0) +
                                 ((first_byte & kGreSequenceBit) ? 4 : 0));
}

struct GrePDU : PDU {
    static constexpr uint16_t kMinimumLength = 4;

    // Throws 22 below 4 bytes or when the header its flags describe is longer
    // than the layer.
    static GrePDU at(PDU p, uint16_t begin) {
        GrePDU view = makeView<GrePDU>(p, begin, kMinimumLength);
        if (view.headerLength() > view.length()) throw kInvalid;
        return view;
    }

    uint16_t headerLength() const { return greHeaderLength(data()[0]); }
    uint16_t innerBegin() const { return static_cast<uint16_t>(_begin + headerLength()); }

    // The first two bytes as one word (K alone reads 0x2000).
    uint16_t flags() const { return load16(data()); }
    bool hasChecksum() const { return (data()[0] & kGreChecksumBit) != 0; }
    bool hasKey() const { return (data()[0] & kGreKeyBit) != 0; }
    bool hasSequence() const { return (data()[0] & kGreSequenceBit) != 0; }
    uint8_t recursionControl() const { return data()[0] & kGreRecursionMask; }
    // Leaves the other bits of the first byte as they are.
    void setRecursionControl(uint8_t value) const {
        data()[0] =
            static_cast<uint8_t>((data()[0] & ~kGreRecursionMask) | (value & kGreRecursionMask));
    }
    uint16_t protocol() const { return load16(data() + 2); }

    // The key where the wire format puts it: behind the checksum word when C
    // is set. Meaningful only when hasKey().
    uint32_t key() const { return load32(data() + (hasChecksum() ? 8 : 4)); }
    // The word at offset 4, whatever C says: where our access points' key is
    // read by the ingress path. Inside the view only when C or K is set.
    uint32_t wordAt4() const { return load32(data() + 4); }
};

static_assert(std::is_trivially_copyable_v<GrePDU> && sizeof(GrePDU) <= 16);

}  // namespace lumora::pdu
