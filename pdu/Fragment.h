// Inner-IPv4 fragmentation for the tunnel: fragment i of a packet is built in
// place over the packet itself, its 20-byte header written over payload bytes
// that the earlier fragments already carried. So the fragments must leave in
// increasing order, each before the next is built.
#pragma once

#include <cstdint>

#include "pdu/IPv4.h"

namespace lumora::pdu {

struct FragmentState {
    IPv4PDU packet;           // the whole packet as read
    long limit = 0;           // the size limit L
    unsigned index = 0;       // fragment number i
    uint16_t own_offset = 0;  // the packet's own fragment offset, 8-byte units
    bool own_more = false;    // the packet's own MF flag
};

// Fragment state.index: (L - 20) & ~7 payload bytes each, offsets counted from
// the packet's own, MF kept on the last one only if the packet had it, DF
// dropped, the checksum folded once. Throws 22 when the view cannot hold it.
IPv4PDU nextFragment(const FragmentState& state);

}  // namespace lumora::pdu
