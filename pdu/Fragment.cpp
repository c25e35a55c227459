#include "pdu/Fragment.h"

#include <cstring>

namespace lumora::pdu {

namespace {

constexpr uint16_t kIPv4HeaderLength = 20;

// One checksum fold only: a carry out of the fold itself is dropped, which is
// what the access points have always received.
uint16_t fragmentChecksum(const uint8_t* header) {
    uint32_t sum = 0;
    for (int word = 0; word < 10; ++word) {
        if (word == 5) continue;  // the checksum field itself
        sum += load16(header + 2 * word);
    }
    sum = sum + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

}  // namespace

IPv4PDU nextFragment(const FragmentState& state) {
    const IPv4PDU& packet = state.packet;
    IPv4PDU fragment = packet;
    const long payload_per_fragment = (state.limit - kIPv4HeaderLength) & ~7L;
    const long offset = static_cast<long>(state.index) * payload_per_fragment;
    if (offset > 0) {
        if (fragment.length() < offset) throw kInvalid;
        fragment._begin = static_cast<uint16_t>(fragment._begin + offset);
        // The header is rebuilt over payload already sent; it must stay
        // inside the buffer.
        if (fragment._begin + kIPv4HeaderLength > fragment._cap) throw kInvalid;
        // Only the fixed 20 bytes: IP options are not repeated.
        std::memmove(fragment.data(), packet.data(), kIPv4HeaderLength);
    }
    const long remaining = static_cast<long>(packet.length()) - offset - kIPv4HeaderLength;
    bool more = state.own_more;
    if (remaining > payload_per_fragment) {
        const long cut = remaining - payload_per_fragment;
        if (cut > fragment.length()) throw kInvalid;
        fragment._end = static_cast<uint16_t>(fragment._end - cut);
        more = true;
    }
    fragment.setIhl(5);
    const uint16_t word = static_cast<uint16_t>(((state.own_offset & 0x1fff) + offset / 8) |
                                                (more ? IPv4PDU::kMoreFragments : 0));
    fragment.setFlagsOffset(word);
    fragment.setTotalLength(fragment.length());
    fragment.setChecksum(fragmentChecksum(fragment.data()));
    return fragment;
}

}  // namespace lumora::pdu
