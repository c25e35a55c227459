#include "tunnel/Send.h"

#include <cstring>

#include "pdu/Encapsulation.h"
#include "pdu/Ethernet.h"
#include "pdu/Fragment.h"
#include "pdu/GRE.h"
#include "pdu/Text.h"
#include "tunnel/ClientRecord.h"

namespace lumora {

using pdu::kInvalid;
using pdu::kNoBuffers;
using pdu::PDU;

namespace {

constexpr uint16_t kMacPairLength = 12;

// The upstream line prints the destination as IPv4 whatever its family: the
// first four bytes of an IPv6 address come out as a dotted quad, as the line
// always has.
const char* upstreamText(const Destination& d) {
    if (d.family == AF_INET6) return pdu::addressToText(AF_INET, d.ipv6.s6_addr);
    return pdu::addressToText(AF_INET, &d.ipv4);
}

// Queued when its bytes stay put until the loop flushes, else sent at once.
void transmit(const Destination& d, PDU datagram, SendQueue& out, bool stays) {
    const vif::Datagram made{datagram, d.family, d.ipv4, d.ipv6};
    if (stays) {
        out.queue(d.endpoint, made);
    } else {
        out.sendNow(d.endpoint, made);
    }
}

}  // namespace

Destination destinationOf(const PeerFields& peer, uint16_t vlan) {
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

void send(Logger& log, const Destination& destination, PDU frame, const uint32_t* key,
          uint16_t mtu_setting, SendQueue& out, bool frame_stays) {
    const long limit = pdu::sizeLimit(destination.endpoint->mtu(), key != nullptr, mtu_setting);

    if (frame.length() <= limit || destination.upstream == 1) {
        PDU datagram = pdu::encapsulate(frame, destination.vlan, key);
        if (destination.upstream == 1) {
            VXBRD_LOG(log, Info, "Sending to upstream VYM %s", upstreamText(destination));
            pdu::GrePDU::at(datagram, datagram._begin).setRecursionControl(pdu::kGreRelayReply);
        }
        transmit(destination, datagram, out, frame_stays);
        return;
    }

    // Only inner IPv4 can be cut; a tagged frame is not looked into.
    if (frame.length() < pdu::EthernetPDU::kHeaderLength ||
        pdu::load16(frame.data() + 12) != pdu::kEthertypeIPv4) {
        VXBRD_LOG(log, Warning, "%s: can't fragment non-IPv4 PDU", destination.endpoint->name());
        return;
    }
    const auto packet = pdu::IPv4PDU::at(frame, frame._begin + pdu::EthernetPDU::kHeaderLength);
    if (limit < 68) throw kInvalid;

    uint8_t macs[kMacPairLength];
    std::memcpy(macs, frame.data(), kMacPairLength);
    pdu::FragmentState state{packet, limit, 0, packet.fragmentOffset(), packet.moreFragments()};
    const long stride = limit & ~7L;
    for (;;) {
        PDU piece = pdu::nextFragment(state);
        if (piece._begin < pdu::EthernetPDU::kHeaderLength) throw kNoBuffers;
        piece._begin = static_cast<uint16_t>(piece._begin - pdu::EthernetPDU::kHeaderLength);
        if (piece.length() < pdu::EthernetPDU::kHeaderLength) throw kInvalid;
        piece._flags[0] = piece._flags[1] = 0;
        std::memcpy(piece.data(), macs, kMacPairLength);
        pdu::store16(piece.data() + 12, pdu::kEthertypeIPv4);
        // The stop rule strides by the whole limit while fragments advance by
        // the limit less a header: kept as the access points have always seen it.
        const bool last = stride * (state.index + 1) >= packet.length();
        // The next fragment is built over this one's bytes: only the last
        // one may wait in the queue.
        transmit(destination, pdu::encapsulate(piece, destination.vlan, key), out,
                 last && frame_stays);
        if (last) break;
        ++state.index;
    }
}

}  // namespace lumora
