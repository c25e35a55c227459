#include "pdu/Encapsulation.h"

#include <algorithm>

#include "pdu/Ethernet.h"
#include "pdu/GRE.h"
#include "pdu/Tag.h"

namespace lumora::pdu {

namespace {

constexpr uint16_t kGreLength = 4;
constexpr uint16_t kGreKeyedLength = 8;

}  // namespace

long sizeLimit(long endpoint_mtu, bool keyed, uint16_t mtu_setting) {
    long limit = endpoint_mtu - 46 + (keyed ? 0 : 4);
    if (mtu_setting != 0) limit = std::min<long>(mtu_setting, limit);
    return limit;
}

PDU encapsulate(PDU frame, uint16_t vlan, const uint32_t* key) {
    // VLANs 0 and 1 leave untagged.
    if (vlan >= 2) insertTag(frame, vlan);
    // Read as a GRE header, the frame's own first bytes must fit: any frame
    // of 16 bytes or more does.
    if (frame.length() < 4 || frame.length() < greHeaderLength(frame.data()[0])) throw kInvalid;
    const uint16_t header = key != nullptr ? kGreKeyedLength : kGreLength;
    frame.prepend(header);
    uint8_t* gre = frame.data();
    gre[0] = key != nullptr ? kGreKeyBit : 0;
    gre[1] = 0;
    store16(gre + 2, kProtocolTransparentEthernet);
    if (key != nullptr) store32(gre + 4, *key);
    return frame;
}

}  // namespace lumora::pdu
