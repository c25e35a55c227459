// Frames into GRE: the 802.1Q tag and the GRE header, written into the
// headroom in front of the frame, and the size a frame may have to go out
// whole. Pure packet editing: nothing here knows peers or sockets.
#pragma once

#include <cstdint>

#include "pdu/PDU.h"

namespace lumora::pdu {

// The largest Ethernet frame (as read, before tag and GRE header) that goes
// out whole: the endpoint's MTU less outer IPv4, keyed GRE, Ethernet and tag
// (46 bytes; 42 without a key), capped by a non-zero "mtu" setting.
long sizeLimit(long endpoint_mtu, bool keyed, uint16_t mtu_setting);

// Tags the frame for vlan >= 2 and prepends the GRE header (with the key when
// key is not null). Returns the view that starts at the GRE header. Throws 22
// for a frame too short to tag, 55 when the headroom runs out.
PDU encapsulate(PDU frame, uint16_t vlan, const uint32_t* key);

}  // namespace lumora::pdu
