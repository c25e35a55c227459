#include "tunnel/Egress.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "pdu/Checksum.h"
#include "pdu/ClampMSS.h"
#include "pdu/Segmentation.h"
#include "pdu/Tag.h"
#include "pdu/Text.h"
#include "pdu/Views.h"
#include "tunnel/FrameDump.h"
#include "tunnel/Pacing.h"
#include "tunnel/Send.h"
#include "vif/TAP"

namespace lumora {

using pdu::kInvalid;
using pdu::PDU;

namespace {

constexpr uint16_t kEthernetHeader = 14;

MacAddress interfaceMac(const TunnelContext& context, const std::string& name) {
    // An interface the host did not report counts as the all-zero MAC.
    const auto found = context.interfaces->find(name);
    return found != context.interfaces->end() ? found->second : MacAddress{};
}

// A host that answers ARP on the tap with the tap's own MAC would hand the
// access points an address they cannot reach; the parent interface's MAC is
// put in its place.
void repairArpReply(TunnelContext& context, Endpoint& tap, PDU frame, pdu::ArpPDU arp) {
    const MacAddress tap_mac = interfaceMac(context, tap.name());
    // A reply cut short before its sender's address has none to repair: the
    // bytes behind the frame are left over from an earlier one.
    if (arp.length() < pdu::ArpPDU::kMinimumLength + tap_mac.size()) return;
    if (std::memcmp(arp.senderHardware(), tap_mac.data(), tap_mac.size()) != 0) return;
    const auto parent = context.parents->find(tap.name());
    if (parent == context.parents->end()) return;
    const MacAddress parent_mac = interfaceMac(context, parent->second);
    VXBRD_LOG(*context.logger, Notice,
              "Incorrect ARP Reply MAC address (%s). Re-writing with %s mac %s", tap.name(),
              parent->second.c_str(), pdu::macToText(parent_mac.data()));
    if (arp.hardwareLength() == 6)
        std::memcpy(arp.senderHardware(), parent_mac.data(), parent_mac.size());
    std::memcpy(frame.data() + 6, parent_mac.data(), parent_mac.size());
}

bool serverDestination(TunnelContext& context, uint16_t vlan, Destination& destination) {
    const SendAll& server = context.send_all;
    if (server.family == 0) return false;
    destination = Destination{};
    destination.vlan = vlan;
    if (server.family == 2) {
        destination.family = AF_INET6;
        destination.ipv6 = server.ipv6;
        destination.endpoint = context.server_socket_ipv6.load(std::memory_order_acquire);
    } else {
        destination.family = AF_INET;
        destination.ipv4 = server.ipv4;
        destination.endpoint = context.server_socket_ipv4.load(std::memory_order_acquire);
    }
    return true;
}

void sendToServer(TunnelContext& context, Endpoint& tap, const Destination& destination, PDU frame,
                  SendQueue& sends) {
    if (destination.endpoint == nullptr) {
        VXBRD_LOG(*context.logger, Warning, "%s: no GRE endpoint of the server's address family",
                  tap.name());
        return;
    }
    send(*context.logger, destination, frame, nullptr, context.config->mtu, sends, true);
}

void flood(TunnelContext& context, PDU read, uint16_t vlan, EgressBatch& batch) {
    uint8_t* const buffer = batch.flood_buffer;
    // One copy per (peer, pair), in table and set order.
    for (const FloodCopy& target : context.tables->floodCopies(vlan)) {
        if (read._cap > kFloodBufferSize) {
            std::printf("buflen: %zu, p1._cap: %d\n", kFloodBufferSize, read._cap);
            std::fflush(stdout);
            throw kInvalid;
        }
        // Each copy is the buffer as read, indices included: a frame whose
        // tag was stripped goes out at its length as read, as the access
        // points have always received it.
        std::memcpy(buffer, read._buf, read._cap);
        PDU copy{buffer, static_cast<uint16_t>(kFloodBufferSize), read._begin, read._end, {0, 0}};
        if (copy.length() < kEthernetHeader) throw kInvalid;
        if (target.peer.endpoint == nullptr) continue;
        // The next copy overwrites this one: it goes at once.
        const VlanKey& pair = target.pair;
        send(*context.logger, destinationOf(target.peer, pair.vlan), copy,
             pair.key != 0 ? &pair.key : nullptr, context.config->mtu, batch.sends, false);
    }
}

void clampOutgoingMss(TunnelContext& context, PDU frame) {
    if (pdu::load16(frame.data() + 12) != pdu::kEthertypeIPv4) return;
    const auto ip = pdu::IPv4PDU::at(frame, frame._begin + kEthernetHeader);
    if (ip.protocol() != pdu::kProtocolTcp || ip.fragmentOffset() != 0) return;
    const auto tcp = pdu::TcpPDU::at(ip, ip.innerBegin());
    if (tcp.syn() && pdu::clampMSS(tcp, context.config->mss))
        VXBRD_LOG(*context.logger, Debug, "clamping MSS to GRE");
}

}  // namespace

void handleTapFrame(TunnelContext& context, Endpoint& tap, uint16_t device_vlan, PDU read,
                    EgressBatch& batch) {
    Logger& log = *context.logger;
    if (read.length() < kEthernetHeader) throw kInvalid;
    PDU frame = read;

    dumpRead(log, frame, DumpFrom::Ethernet);

    uint16_t vlan = device_vlan;
    if (device_vlan == 0 && pdu::load16(frame.data() + 12) == pdu::kEthertypeVlan) {
        const auto tag = pdu::VlanPDU::at(frame, frame._begin + kEthernetHeader);
        vlan = tag.vlan();
        if (!context.config->vlans.test(vlan)) return;
        if (frame.length() < 18) throw kInvalid;
        pdu::removeTag(frame);
    }

    const uint16_t ethertype = pdu::load16(frame.data() + 12);
    if (ethertype == pdu::kEthertypeArp) {
        const auto arp = pdu::ArpPDU::at(frame, frame._begin + kEthernetHeader);
        if (arp.operation() == pdu::ArpPDU::kReply) repairArpReply(context, tap, frame, arp);
    } else if (ethertype == pdu::kEthertypeIPv4 && context.config->ipchksum) {
        pdu::ipv4HeaderChecksum(pdu::IPv4PDU::at(frame, frame._begin + kEthernetHeader));
    }

    Destination destination;
    if ((frame.data()[0] & 0x01) != 0) {
        if (serverDestination(context, vlan, destination)) {
            sendToServer(context, tap, destination, frame, batch.sends);
        } else {
            flood(context, read, vlan, batch);
        }
        return;
    }

    const uint32_t* key = nullptr;
    uint32_t client_key = 0;
    if (!serverDestination(context, vlan, destination)) {
        ClientRecord* client = context.tables->findClient(frame.data(), vlan);
        ClientRoute route;
        if (client != nullptr) route = client->route();
        if (client == nullptr || !route.hasPeer || route.endpoint == nullptr) {
            VXBRD_LOG(log, Notice, "%s: can't find peer for host %s", tap.name(),
                      pdu::packedMacToText(pdu::packMac(frame.data())));
            return;
        }
        client->addTraffic(0, frame.length(), 0, 1);
        destination = destinationOf(route);
        if (route.hasKey) {
            client_key = route.greKey;
            key = &client_key;
        }
    }

    clampOutgoingMss(context, frame);
    if (destination.endpoint == nullptr) {
        sendToServer(context, tap, destination, frame, batch.sends);
        return;
    }
    // The frame stays in its read slot until the batch is flushed.
    send(log, destination, frame, key, context.config->mtu, batch.sends, true);
}

namespace {

// What a segment's GRE header and tag take in front of it, over the previous
// segment's bytes.
constexpr uint16_t kEncapsulationRoom = 12;
// A segment is no larger than a frame an ordinary read gives.
constexpr uint16_t kLargestFrame = vif::TAP::kBufferSize - vif::TAP::kHeadroom;

void dropUnsplittable(TunnelContext& context, Endpoint& tap) {
    VXBRD_LOG(*context.logger, Warning, "%s: dropping an offloaded frame that cannot be split",
              tap.name());
}

// Sends each segment of split as if it had been read on its own: behind 64
// bytes of headroom (bytes of the previous segment, which handleTapFrame
// only ever reads there) and in a slot no larger than an ordinary one.
void sendSegments(TunnelContext& context, Endpoint& tap, uint16_t device_vlan, PDU read,
                  pdu::Segmenter& split, EgressBatch& batch) {
    for (unsigned i = 0; i < split.count(); ++i) {
        if (i != 0) {
            // What segment i - 1 still has queued lets go of the bytes that
            // segment i's headers, tag and GRE header are about to take.
            const uint8_t* const headers = read._buf + split.overwrittenBy(i);
            batch.sends.release(headers - kEncapsulationRoom, headers + split.headerLength());
        }
        const PDU segment = split.build(i);
        const PDU as_read{segment.data() - vif::TAP::kHeadroom,
                          static_cast<uint16_t>(vif::TAP::kHeadroom + segment.length()),
                          vif::TAP::kHeadroom,
                          static_cast<uint16_t>(vif::TAP::kHeadroom + segment.length()),
                          {0, 0}};
        handleTapFrame(context, tap, device_vlan, as_read, batch);
    }
}

}  // namespace

void handleTapRead(TunnelContext& context, Endpoint& tap, uint16_t device_vlan, PDU read,
                   const pdu::Offload& offload, EgressBatch& batch) {
    if (offload.segmented()) {
        // Everything the split checks is checked before the first segment
        // goes: a super-frame goes whole, segment by segment, or not at all.
        pdu::Segmenter split;
        try {
            if (offload.segmentation == pdu::Offload::kUnsupported) throw pdu::kInvalid;
            split = pdu::Segmenter(read, offload);
            if (split.largestSegment() > kLargestFrame) throw pdu::kInvalid;
        } catch (int) {
            dropUnsplittable(context, tap);
            return;
        }
        sendSegments(context, tap, device_vlan, read, split, batch);
        return;
    }
    if (offload.partial_checksum) {
        try {
            pdu::completePartialChecksum(read, offload);
        } catch (int) {
            dropUnsplittable(context, tap);
            return;
        }
    }
    handleTapFrame(context, tap, device_vlan, read, batch);
}

void runTapEgress(Logger* logger, vif::TAP* tap, uint16_t vlan) {
    VXBRD_LOG(*logger, Debug, "TAP thread running on %s", tap->name());
    TunnelContext& context = tunnelContext();
    auto batch = std::make_unique<EgressBatch>();
    PDU frames[vif::TAP::kMaxBatch];
    pdu::Offload offloads[vif::TAP::kMaxBatch];
    // Frames come from the host's own stack and are trusted to be well
    // formed: anything thrown here ends the process.
    LoadPacing pacing;
    for (;;) {
        pacing.beforeReceive();
        const unsigned count = tap->readFrames(frames, offloads);
        size_t bytes = 0;
        for (unsigned i = 0; i < count; ++i) {
            bytes += frames[i].length();  // as read: handleTapRead may cut it
            handleTapRead(context, *tap, vlan, frames[i], offloads[i], *batch);
        }
        // The datagrams go out before the read slots are read into again.
        batch->sends.flush();
        pacing.handled(count, tap->batchSize(), bytes);
    }
}

}  // namespace lumora
