// The send half of the tunnel: frames the host sends out of a tap device go
// to the access point of their destination, to every access point of their
// VLAN, or to the one configured server.
#pragma once

#include <cstdint>

#include "pdu/Offload.h"
#include "pdu/PDU.h"
#include "tunnel/Context.h"
#include "tunnel/SendQueue.h"
#include "vif/VIF"

namespace lumora {

namespace vif {
class TAP;
}

// The flood's copy buffer size.
inline constexpr size_t kFloodBufferSize = 8096;

// What a tap loop owns for its whole life: the flood's copy buffer (reused
// for every copy, each of which goes at once) and the batch's GRE sends,
// which wait for the loop's flush.
struct EgressBatch {
    uint8_t flood_buffer[kFloodBufferSize];
    SendQueue sends;
};

// Runs one frame read from tap (device_vlan: the VLAN the device serves, 0
// when it carries tagged frames of several VLANs) through every egress
// decision and sends it, or queues its datagram in batch. frame is what
// tap's readBatch() returned and stays in its read slot until batch is
// flushed. Throws int for frames the host should never have produced (the
// tap thread lets that end the process).
void handleTapFrame(TunnelContext& context, Endpoint& tap, uint16_t device_vlan, pdu::PDU frame,
                    EgressBatch& batch);

// Runs one read from tap through handleTapFrame as the frames the host would
// have put on the wire: a super-frame split into its TCP segments (in place,
// pdu/Segmentation.h), one by one; an ordinary frame whose checksum the host
// left to us with it completed; anything else as it is. offload is what the
// device said of the read. A super-frame that cannot be split, or a checksum
// that cannot be completed, is one Warning line and dropped.
void handleTapRead(TunnelContext& context, Endpoint& tap, uint16_t device_vlan, pdu::PDU read,
                   const pdu::Offload& offload, EgressBatch& batch);

// The tap thread's body: reads batches from the device for ever, runs each
// frame through handleTapFrame in order and flushes the batch's sends before
// reading again. Each read goes through handleTapRead.
void runTapEgress(Logger* logger, vif::TAP* tap, uint16_t vlan);

}  // namespace lumora
