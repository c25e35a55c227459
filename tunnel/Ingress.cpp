#include "tunnel/Ingress.h"

#include <cstring>

#include "pdu/ClampMSS.h"
#include "pdu/Tag.h"
#include "pdu/Text.h"
#include "pdu/Views.h"
#include "tunnel/FrameDump.h"
#include "tunnel/KeyPolicy.h"
#include "tunnel/Learning.h"
#include "tunnel/Pacing.h"
#include "tunnel/Relay.h"
#include "tunnel/Send.h"
#include "vif/IP"

namespace lumora {

using pdu::PDU;

namespace {

constexpr uint16_t kEthernetHeader = 14;

bool isTcpSynWithoutAck(PDU frame, pdu::TcpPDU& tcp, bool& malformed) {
    malformed = false;
    if (pdu::load16(frame.data() + 12) != pdu::kEthertypeIPv4) return false;
    pdu::IPv4PDU ip;
    try {
        ip = pdu::IPv4PDU::at(frame, frame._begin + kEthernetHeader);
    } catch (int) {
        return false;
    }
    if (ip.protocol() != pdu::kProtocolTcp || ip.fragmentOffset() != 0 || ip.moreFragments())
        return false;
    try {
        tcp = pdu::TcpPDU::at(ip, ip.innerBegin());
    } catch (int) {
        malformed = true;
        return false;
    }
    return tcp.syn() && !tcp.ack();
}

void clampIncomingMss(TunnelContext& context, const GreSource& source, PDU frame,
                      uint16_t policy_vlan) {
    pdu::TcpPDU tcp;
    bool malformed = false;
    if (isTcpSynWithoutAck(frame, tcp, malformed)) {
        if (pdu::clampMSS(tcp, context.config->mss))
            VXBRD_LOG(*context.logger, Debug, "clamping MSS");
    } else if (malformed) {
        const void* address = source.family == AF_INET6 ? static_cast<const void*>(&source.ipv6)
                                                        : static_cast<const void*>(&source.ipv4);
        VXBRD_LOG(*context.logger, Warning,
                  "Invalid TCP packet from peer %s vlan %d from client %s",
                  pdu::addressToText(static_cast<int>(source.family), address), policy_vlan,
                  pdu::macToText(frame.data() + 6));
    }
}

// IPv6 multicast frames reach the host only when addressed to the tap's own
// MAC; the 33:33 destination is swapped for it while the frame is written,
// and put back once the batch's writes are done.
bool writeIPv6Multicast(TunnelContext& context, Endpoint& tap, PDU frame, TapWrites& writes) {
    uint8_t* destination = frame.data();
    if (destination[0] != 0x33 || destination[1] != 0x33 ||
        pdu::load16(frame.data() + 12) != pdu::kEthertypeIPv6)
        return false;
    MacAddress tap_mac{};
    if (const auto found = context.interfaces->find(tap.name()); found != context.interfaces->end())
        tap_mac = found->second;
    uint8_t saved[6];
    std::memcpy(saved, destination, sizeof saved);
    char old_text[18];
    std::memcpy(old_text, pdu::macToText(saved), sizeof old_text);
    VXBRD_LOG(*context.logger, Info, "IPv6oEthernet Multicast Packet. Rewriting DMAC from %s to %s",
              old_text, pdu::macToText(tap_mac.data()));
    std::memcpy(destination, tap_mac.data(), tap_mac.size());
    writes.queueRewritten(&tap, frame, saved);
    return true;
}

}  // namespace

void handleGreDatagram(TunnelContext& context, const GreSource& source, PDU datagram,
                       IngressBatch& batch) {
    Logger& log = *context.logger;
    const Config& settings = *context.config;
    const char* endpoint_name = source.endpoint->name();

    const auto gre = pdu::GrePDU::at(datagram, datagram._begin);
    const bool has_key = gre.hasKey();
    // Our access points put the key in the word at offset 4 whatever the
    // checksum bit says; it is read there.
    const uint32_t key = has_key ? gre.wordAt4() : 0;
    if (gre.protocol() != pdu::kProtocolTransparentEthernet) {
        VXBRD_LOG(log, Warning, "%s: ignoring unsupported PDU type, protocol 0x%04X", endpoint_name,
                  gre.protocol());
        return;
    }
    PDU frame = pdu::EthernetPDU::at(gre, gre.innerBegin());
    const uint8_t recursion = gre.recursionControl();

    if (recursion == pdu::kGreRelayReply) {
        gre.setRecursionControl(0);
        if (source.family != AF_INET) return;
        VXBRD_LOG(log, Info, "Response VYM-VYM packet from %s on %s",
                  pdu::addressToText(AF_INET, &source.ipv4), endpoint_name);
        relayToAccessPoint(context, source, frame, batch);
        return;
    }

    const uint16_t tag_vlan = pdu::tagVlanOf(frame);
    const bool upstream = settings.forward_vlans.test(tag_vlan);
    if (upstream) {
        // The upstream gateway gets the packet as received, tag included.
        std::memcpy(batch.copy.get(), datagram.data(), datagram.length());
    }
    if (pdu::load16(frame.data() + 12) == pdu::kEthertypeVlan) pdu::removeTag(frame);

    in_addr upstream_address{};
    vif::GreSocket* forward_socket = nullptr;
    if (upstream) {
        upstream_address = settings.forward_servers.at(tag_vlan).address;
        VXBRD_LOG(log, Info, "Forwarding VLAN %d to remote VYM %s", tag_vlan,
                  pdu::addressToText(AF_INET, &upstream_address));
        forward_socket = context.forward_socket.load(std::memory_order_acquire);
        if (forward_socket == nullptr) {
            VXBRD_LOG(log, Error, "ip4_socket_forward_to_vym is nullptr");
            return;
        }
    }

    uint16_t policy_vlan = 0;
    if (!choosePolicyVlan(log, endpoint_name, settings.gre_key_mode, settings.gre_key,
                          KeyedPacket{has_key, key, tag_vlan}, policy_vlan))
        return;

    Sighting sighting;
    sighting.family = source.family;
    sighting.ipv4 = source.ipv4;
    sighting.ipv6 = source.ipv6;
    sighting.endpoint = source.endpoint;
    sighting.policyVlan = policy_vlan;
    sighting.tagVlan = tag_vlan;
    sighting.hasKey = has_key;
    sighting.key = key;
    sighting.mac = frame.data() + 6;
    sighting.frameLength = frame.length();
    sighting.relayMark = recursion == pdu::kGreToUpstream ? 1 : 0;
    sighting.upstream = upstream ? &upstream_address : nullptr;
    learn(*context.tables, context.logger, sighting);

    if (upstream) {
        PDU copy{batch.copy.get(),
                 static_cast<uint16_t>(datagram.length()),
                 0,
                 datagram.length(),
                 {0, 0}};
        copy._buf[0] |= pdu::kGreToUpstream;
        // The copy buffer serves the next datagram too: this one goes at once.
        batch.sends.sendNow(forward_socket, vif::Datagram{copy, AF_INET, upstream_address, {}});
        return;
    }

    Endpoint* tap = context.tapFor(policy_vlan);
    if (tap == nullptr) {
        VXBRD_LOG(log, Notice, "unexpected traffic on vlan %d", policy_vlan);
        return;
    }
    clampIncomingMss(context, source, frame, policy_vlan);
    if (writeIPv6Multicast(context, *tap, frame, batch.writes)) return;
    batch.writes.queue(tap, frame);
}

void ingestGreDatagram(TunnelContext& context, const GreSource& source, PDU datagram,
                       IngressBatch& batch) {
    // What arrived, before the tag strip or anything else touches it.
    dumpRead(*context.logger, datagram, DumpFrom::Gre);
    try {
        handleGreDatagram(context, source, datagram, batch);
    } catch (int) {
        // Malformed or unsendable: this datagram ends here, the next is read.
    } catch (const char*) {
    }
}

void runGreIngress(Logger* logger, vif::IP* endpoint) {
    VXBRD_LOG(*logger, Debug, "IPv4 thread running on %s", endpoint->name());
    TunnelContext& context = tunnelContext();
    IngressBatch batch;
    vif::IP::Received received[vif::IP::kMaxBatch];
    LoadPacing pacing;
    for (;;) {
        unsigned count = 0;
        pacing.beforeReceive();
        try {
            count = endpoint->receiveBatch(received);
        } catch (const ReadTimeout&) {
            continue;
        } catch (const ReadError&) {
            continue;
        } catch (int) {
            // The receive itself failed (the endpoint has logged why): traffic
            // from the network never ends this thread.
            continue;
        }
        size_t bytes = 0;
        for (unsigned i = 0; i < count; ++i) {
            const vif::IP::Received& r = received[i];
            // A datagram too short for its own outer header is dropped unseen.
            if (!r.valid) continue;
            bytes += r.datagram.length();
            const GreSource source{endpoint, r.family, r.ipv4, r.ipv6};
            ingestGreDatagram(context, source, r.datagram, batch);
        }
        // The writes and sends go out before the slots are received into again.
        batch.flush();
        pacing.handled(count, endpoint->batchSize(), bytes);
    }
}

}  // namespace lumora
