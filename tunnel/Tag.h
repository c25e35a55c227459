// 802.1Q tags on frames crossing between tunnel and tap.
#pragma once

#include <cstdint>
#include <cstring>

#include "pdu/Ethernet.h"
#include "pdu/PDU.h"

namespace lumora {

// The tag's VLAN (TCI & 0x0fff) of a frame that carries an 802.1Q tag, or 0
// when it does not. A tagged frame must hold the tag and 4 bytes behind it
// (22 bytes), else 22 is thrown.
inline uint16_t tagVlanOf(pdu::PDU frame) {
    if (pdu::load16(frame.data() + 12) != pdu::kEthertypeVlan) return 0;
    if (frame.length() < 22) throw pdu::kInvalid;
    return pdu::load16(frame.data() + 14) & 0x0fff;
}

// Removes the tag in place: the MAC addresses stay, the tag's inner ethertype
// takes the outer one's place, the rest moves 4 bytes towards the front, and
// the frame ends 4 bytes earlier. The caller has checked the frame is tagged
// and at least 18 bytes long.
inline void removeTag(pdu::PDU& frame) {
    uint8_t* start = frame.data();
    std::memmove(start + 12, start + 16, frame.length() - 16u);
    frame._end = static_cast<uint16_t>(frame._end - 4);
}

}  // namespace lumora
