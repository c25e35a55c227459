#include "tunnel/Relay.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "pdu/Ethernet.h"
#include "pdu/Tag.h"
#include "pdu/Text.h"
#include "tunnel/Send.h"

namespace lumora {

using pdu::PDU;

namespace {

constexpr uint16_t kHeadroom = 64;

bool isSource(const PeerFields& peer, const GreSource& source) {
    return peer.family == AF_INET && source.family == AF_INET &&
           peer.ipv4.s_addr == source.ipv4.s_addr;
}

// Strips an 802.1Q tag in place and returns its VLAN (0 when untagged).
uint16_t stripTag(PDU& frame) {
    const uint16_t vlan = pdu::tagVlanOf(frame);
    if (pdu::load16(frame.data() + 12) == pdu::kEthertypeVlan) pdu::removeTag(frame);
    return vlan;
}

void relayUnicast(TunnelContext& context, PDU frame, uint16_t vlan, SendQueue& sends) {
    Logger& log = *context.logger;
    const uint8_t* destination = frame.data();
    ClientRecord* client = context.tables->findClient(destination, vlan);
    if (client == nullptr) {
        VXBRD_LOG(log, Notice, "cant find client for VYM-VYM to %s, vid %d",
                  pdu::packedMacToText(pdu::packMac(destination)), vlan);
        return;
    }
    const ClientRoute route = client->route();
    if (!route.hasPeer || route.endpoint == nullptr) {
        VXBRD_LOG(log, Notice, "SHOUD NOT GET HEE cant find client for VYM-VYM to %s, vid %d",
                  pdu::packedMacToText(pdu::packMac(destination)), vlan);
        return;
    }
    VXBRD_LOG(log, Info, "Forwarding VYM-VYM to remote AP %s via %s", route.address.text(),
              route.endpoint->interfaceName().c_str());
    // The frame stays in its receive slot until the batch is flushed.
    send(log, destinationOf(route), frame, route.hasKey ? &route.greKey : nullptr,
         context.config->mtu, sends, true);
}

void relayBroadcast(TunnelContext& context, const GreSource& source, PDU frame, uint16_t vlan,
                    IngressBatch& batch) {
    Logger& log = *context.logger;
    for (const PeerFields& peer : context.tables->floodPeers(vlan)) {
        if (isSource(peer, source) || peer.endpoint == nullptr) continue;
        VXBRD_LOG(log, Info, "Forwarding VYM-VYM broadcast to remote AP %s via %s",
                  peer.address().text(), peer.endpoint->interfaceName().c_str());
        // Encapsulation edits the frame in place, so every peer gets a copy.
        // The copy's indexes are 16-bit: the largest frames an IPv4 datagram
        // carries get less headroom, still more than tag and GRE header need.
        const auto room =
            static_cast<uint16_t>(std::min<uint32_t>(kHeadroom, UINT16_MAX - frame.length()));
        const auto end = static_cast<uint16_t>(room + frame.length());
        std::memcpy(batch.copy.get() + room, frame.data(), frame.length());
        PDU copy{batch.copy.get(), end, room, end, {0, 0}};
        // The next peer's copy overwrites this one: it goes at once.
        send(log, destinationOf(peer, vlan), copy, nullptr, context.config->mtu, batch.sends,
             false);
    }
}

}  // namespace

void relayToAccessPoint(TunnelContext& context, const GreSource& source, PDU frame,
                        IngressBatch& batch) {
    const uint16_t vlan = stripTag(frame);
    if ((frame.data()[0] & 0x01) == 0) {
        relayUnicast(context, frame, vlan, batch.sends);
    } else {
        relayBroadcast(context, source, frame, vlan, batch);
    }
}

}  // namespace lumora
