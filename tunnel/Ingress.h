// The receive half of the tunnel: GRE from the access points to the taps.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <memory>

#include "pdu/PDU.h"
#include "tunnel/Context.h"
#include "tunnel/SendQueue.h"
#include "tunnel/TapWrites.h"
#include "vif/VIF"

namespace lumora {

namespace vif {
class IP;
}

// Who sent a datagram and where it arrived.
struct GreSource {
    vif::GreSocket* endpoint = nullptr;  // the receiving endpoint
    uint32_t family = AF_INET;           // the datagram's outer source
    in_addr ipv4{};
    in6_addr ipv6{};
};

// What an ingress loop owns for its whole life, so that no datagram
// allocates: the copy buffer for upstream forwarding and for the per-peer
// copies of a relayed broadcast (each sent at once), and the batch's tap
// writes and GRE sends, which wait for the loop's flush.
struct IngressBatch {
    static constexpr size_t kCopySize = 65536 + 64;
    std::unique_ptr<uint8_t[]> copy{new uint8_t[kCopySize]};
    TapWrites writes;
    SendQueue sends;

    // Hands over what the batch's datagrams made: GRE sends, then tap writes.
    void flush() {
        sends.flush();
        writes.flush();
    }
};

// Runs one received GRE datagram (datagram starts at its GRE header, in the
// endpoint's receive slot, which it may change and which must stay put until
// batch is flushed) through every ingress decision: header checks, relay
// replies, tag strip, upstream forwarding, the GRE key mode, learning, MSS
// clamping and the write to the VLAN's tap, queued in batch. Malformed
// datagrams throw int (22 or 55); the caller drops them.
void handleGreDatagram(TunnelContext& context, const GreSource& source, pdu::PDU datagram,
                       IngressBatch& batch);

// One datagram as the ingress thread takes it from its endpoint: dumped as
// it arrived (from the GRE header, see tunnel/FrameDump.h), then run through
// handleGreDatagram. Whatever the datagram throws is dropped here: nothing
// it holds reaches the caller.
void ingestGreDatagram(TunnelContext& context, const GreSource& source, pdu::PDU datagram,
                       IngressBatch& batch);

// The GRE ingress thread's body: receives batches from the endpoint for
// ever, runs each datagram through handleGreDatagram in arrival order and
// flushes the batch's writes and sends before receiving again. Nothing a
// datagram holds ends it.
void runGreIngress(Logger* logger, vif::IP* endpoint);

}  // namespace lumora
