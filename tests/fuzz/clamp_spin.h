// The inputs the fuzzers leave out: the MSS clamp walks a SYN's TCP options
// without a guard, and never returns from a zero-length option of a kind
// other than 0, 1 and 2. The daemon accepts that and does not guard against
// it; these helpers find such frames the way the clamp walks them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pdu/PDU.h"

namespace lumora::fuzz {

// Whether the clamp would spin on an Ethernet frame whose ethertype lies at
// type_at (12, or 16 behind a tag the path removes first): an IPv4 TCP
// segment with SYN (and without ACK unless syn_ack_clamped), at fragment
// offset 0 and, unless first_fragment_clamped, without more fragments to
// come, whose option walk meets a zero-length option of an unknown kind.
// The tap side clamps a first fragment too; the GRE side leaves it alone.
inline bool clampSpins(const uint8_t* frame, size_t length, size_t type_at, bool syn_ack_clamped,
                       bool first_fragment_clamped) {
    if (length < type_at + 2 || pdu::load16(frame + type_at) != 0x0800) return false;
    const uint8_t* ip = frame + type_at + 2;
    const size_t ip_length = length - (type_at + 2);
    if (ip_length < 20) return false;
    const size_t ihl = (ip[0] & 0x0f) * 4u;
    const uint16_t fragment_bits = first_fragment_clamped ? 0x1fff : 0x3fff;
    if (ihl < 20 || ihl > ip_length || ip[9] != 6 || (pdu::load16(ip + 6) & fragment_bits) != 0)
        return false;
    const uint8_t* tcp = ip + ihl;
    const size_t tcp_length = ip_length - ihl;
    if (tcp_length < 20 || tcp[12] < 0x50 || (tcp[12] >> 4) * 4u > tcp_length) return false;
    if ((tcp[13] & 0x02) == 0 || (!syn_ack_clamped && (tcp[13] & 0x10) != 0)) return false;
    const unsigned end = (tcp[12] >> 2) & 0x3c;
    unsigned at = 20;
    while (at < end) {
        const uint8_t kind = tcp[at];
        if (kind == 0) return false;
        if (kind == 1) {
            ++at;
            continue;
        }
        if (at + 1 >= end) return false;
        const uint8_t option_length = tcp[at + 1];
        if (at + option_length > end) return false;
        if (kind == 2 && option_length != 4) return false;
        if (option_length == 0) return true;
        at += option_length;
    }
    return false;
}

}  // namespace lumora::fuzz
