// The send half of the tunnel: frames the host sends out of a tap device go
// to the access point of their destination, to every access point of their
// VLAN, or to the one configured server.
#pragma once

#include <cstdint>

#include "pdu/PDU.h"
#include "tunnel/Context.h"
#include "vif/VIF"

namespace lumora {

namespace vif {
class TAP;
}

// The flood's copy buffer, one per tap thread.
inline constexpr size_t kFloodBufferSize = 8096;

// Runs one frame read from tap (device_vlan: the VLAN the device serves, 0
// when it carries tagged frames of several VLANs) through every egress
// decision and sends it. frame is what tap's read() returned; flood_buffer
// holds kFloodBufferSize bytes. Throws int for frames the host should never
// have produced (the tap thread lets that end the process).
void handleTapFrame(TunnelContext& context, Endpoint& tap, uint16_t device_vlan, pdu::PDU frame,
                    uint8_t* flood_buffer);

// The tap thread's body: reads the device for ever.
void runTapEgress(Logger* logger, vif::TAP* tap, uint16_t vlan);

}  // namespace lumora
