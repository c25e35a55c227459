#include "tunnel/Encapsulation.h"

#include <algorithm>
#include <cstring>

#include "pdu/Ethernet.h"
#include "pdu/GRE.h"
#include "pdu/Text.h"
#include "tunnel/ClientRecord.h"

namespace lumora {

using pdu::kInvalid;
using pdu::kNoBuffers;
using pdu::PDU;

namespace {

constexpr uint16_t kMacPairLength = 12;
constexpr uint16_t kTagLength = 4;
constexpr uint16_t kGreLength = 4;
constexpr uint16_t kGreKeyedLength = 8;
constexpr uint16_t kIPv4HeaderLength = 20;

// The upstream line prints the destination as IPv4 whatever its family: the
// first four bytes of an IPv6 address come out as a dotted quad, as the line
// always has.
const char* upstreamText(const Destination& d) {
    if (d.family == AF_INET6) return pdu::addressToText(AF_INET, d.ipv6.s6_addr);
    return pdu::addressToText(AF_INET, &d.ipv4);
}

// One checksum fold only: a carry out of the fold itself is dropped, which is
// what the access points have always received.
uint16_t fragmentChecksum(const uint8_t* header) {
    uint32_t sum = 0;
    for (int word = 0; word < 10; ++word) {
        if (word == 5) continue;  // the checksum field itself
        sum += pdu::load16(header + 2 * word);
    }
    sum = sum + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

void transmit(const Destination& d, PDU datagram) {
    d.endpoint->sendTo(datagram, d.family, d.ipv4, d.ipv6);
}

}  // namespace

Destination destinationOf(const PeerRecord& peer, uint16_t vlan) {
    Destination d;
    d.vlan = vlan;
    d.family = peer.family;
    d.ipv4 = peer.ipv4;
    d.ipv6 = peer.ipv6;
    d.upstream = peer.relayMark;
    d.endpoint = peer.endpoint;
    return d;
}

Destination destinationOf(const ClientRoute& route) {
    Destination d;
    d.vlan = route.hasVlan ? static_cast<uint16_t>(route.vlan) : 0;
    d.family = route.address.family;
    d.ipv4 = route.address.ipv4;
    d.ipv6 = route.address.ipv6;
    d.upstream = route.relayMark;
    d.endpoint = route.endpoint;
    return d;
}

long sizeLimit(long endpoint_mtu, bool keyed, uint16_t mtu_setting) {
    long limit = endpoint_mtu - 46 + (keyed ? 0 : 4);
    if (mtu_setting != 0) limit = std::min<long>(mtu_setting, limit);
    return limit;
}

PDU encapsulate(PDU frame, uint16_t vlan, const uint32_t* key) {
    if (vlan >= 2) {
        if (frame.length() < pdu::EthernetPDU::kHeaderLength + kTagLength) throw kInvalid;
        if (frame._begin < kTagLength) throw kNoBuffers;
        uint8_t* start = frame.data();
        std::memmove(start - kTagLength, start, kMacPairLength);
        frame._begin = static_cast<uint16_t>(frame._begin - kTagLength);
        pdu::store16(frame.data() + 12, pdu::kEthertypeVlan);
        pdu::store16(frame.data() + 14, vlan & 0x0fff);
        frame._flags[0] = frame._flags[1] = 0;
    }
    // Read as a GRE header, the frame's own first bytes must fit: any frame
    // of 16 bytes or more does.
    if (frame.length() < 4 || frame.length() < pdu::greHeaderLength(frame.data()[0]))
        throw kInvalid;
    const uint16_t header = key != nullptr ? kGreKeyedLength : kGreLength;
    frame.prepend(header);
    uint8_t* gre = frame.data();
    gre[0] = key != nullptr ? pdu::kGreKeyBit : 0;
    gre[1] = 0;
    pdu::store16(gre + 2, pdu::kProtocolTransparentEthernet);
    if (key != nullptr) pdu::store32(gre + 4, *key);
    return frame;
}

pdu::IPv4PDU nextFragment(const FragmentState& state) {
    const pdu::IPv4PDU& packet = state.packet;
    pdu::IPv4PDU fragment = packet;
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
    const uint16_t word = static_cast<uint16_t>(
        ((state.own_offset & 0x1fff) + offset / 8) | (more ? pdu::IPv4PDU::kMoreFragments : 0));
    fragment.setFlagsOffset(word);
    fragment.setTotalLength(fragment.length());
    fragment.setChecksum(fragmentChecksum(fragment.data()));
    return fragment;
}

void send(Logger& log, const Destination& destination, PDU frame, const uint32_t* key,
          uint16_t mtu_setting) {
    const long limit = sizeLimit(destination.endpoint->mtu(), key != nullptr, mtu_setting);

    if (frame.length() <= limit || destination.upstream == 1) {
        PDU datagram = encapsulate(frame, destination.vlan, key);
        if (destination.upstream == 1) {
            log.log(Info, "Sending to upstream VYM %s", upstreamText(destination));
            pdu::GrePDU::at(datagram, datagram._begin).setRecursionControl(pdu::kGreRelayReply);
        }
        transmit(destination, datagram);
        return;
    }

    // Only inner IPv4 can be cut; a tagged frame is not looked into.
    if (frame.length() < pdu::EthernetPDU::kHeaderLength ||
        pdu::load16(frame.data() + 12) != pdu::kEthertypeIPv4) {
        log.log(Warning, "%s: can't fragment non-IPv4 PDU", destination.endpoint->name());
        return;
    }
    const auto packet = pdu::IPv4PDU::at(frame, frame._begin + pdu::EthernetPDU::kHeaderLength);
    if (limit < 68) throw kInvalid;

    uint8_t macs[kMacPairLength];
    std::memcpy(macs, frame.data(), kMacPairLength);
    FragmentState state{packet, limit, 0, packet.fragmentOffset(), packet.moreFragments()};
    const long stride = limit & ~7L;
    for (;;) {
        PDU piece = nextFragment(state);
        if (piece._begin < pdu::EthernetPDU::kHeaderLength) throw kNoBuffers;
        piece._begin = static_cast<uint16_t>(piece._begin - pdu::EthernetPDU::kHeaderLength);
        if (piece.length() < pdu::EthernetPDU::kHeaderLength) throw kInvalid;
        piece._flags[0] = piece._flags[1] = 0;
        std::memcpy(piece.data(), macs, kMacPairLength);
        pdu::store16(piece.data() + 12, pdu::kEthertypeIPv4);
        transmit(destination, encapsulate(piece, destination.vlan, key));
        // The stop rule strides by the whole limit while fragments advance by
        // the limit less a header: kept as the access points have always seen it.
        if (stride * (state.index + 1) >= packet.length()) break;
        ++state.index;
    }
}

}  // namespace lumora
