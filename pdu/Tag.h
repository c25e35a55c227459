// 802.1Q tags on frames crossing between tunnel and tap, edited in place.
#pragma once

#include <cstdint>
#include <cstring>

#include "pdu/Ethernet.h"
#include "pdu/PDU.h"

namespace lumora::pdu {

inline constexpr uint16_t kTagLength = 4;

// The tag's VLAN (TCI & 0x0fff) of a frame that carries an 802.1Q tag, or 0
// when it does not. A tagged frame must hold the tag and 4 bytes behind it
// (22 bytes), else 22 is thrown.
inline uint16_t tagVlanOf(PDU frame) {
    if (load16(frame.data() + 12) != kEthertypeVlan) return 0;
    if (frame.length() < 22) throw kInvalid;
    return load16(frame.data() + 14) & 0x0fff;
}

// Removes the tag in place: the MAC addresses stay, the tag's inner ethertype
// takes the outer one's place, the rest moves 4 bytes towards the front, and
// the frame ends 4 bytes earlier. The caller has checked the frame is tagged
// and at least 18 bytes long.
inline void removeTag(PDU& frame) {
    uint8_t* start = frame.data();
    std::memmove(start + 12, start + 16, frame.length() - 16u);
    frame._end = static_cast<uint16_t>(frame._end - kTagLength);
}

// Inserts a tag for vlan in front of the frame's ethertype, moving the two
// MAC addresses 4 bytes into the headroom: 0x8100, then the TCI with
// priority and DEI zero. Throws 22 for a frame shorter than an Ethernet
// header and 4 bytes, 55 when the headroom runs out.
inline void insertTag(PDU& frame, uint16_t vlan) {
    if (frame.length() < EthernetPDU::kHeaderLength + kTagLength) throw kInvalid;
    if (frame._begin < kTagLength) throw kNoBuffers;
    uint8_t* start = frame.data();
    std::memmove(start - kTagLength, start, 12);
    frame._begin = static_cast<uint16_t>(frame._begin - kTagLength);
    store16(frame.data() + 12, kEthertypeVlan);
    store16(frame.data() + 14, vlan & 0x0fff);
    frame._flags[0] = frame._flags[1] = 0;
}

}  // namespace lumora::pdu
