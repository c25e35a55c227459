// Sending a frame into the tunnel towards one destination: encapsulation
// (pdu/Encapsulation.h) and the inner-IPv4 fragmentation (pdu/Fragment.h)
// that keeps every outer datagram within the tunnel's size limit, since the
// outer packets are sent with fragmentation forbidden, then the GRE socket.
//
// Everything here works in place in the reader's buffer: headers are written
// into headroom, fragments over payload bytes already sent. Nothing allocates.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "core/Logger.h"
#include "pdu/PDU.h"
#include "tunnel/SendQueue.h"
#include "vif/VIF"

namespace lumora {

// Where one frame goes: the fields of the peer record that sending needs.
struct Destination {
    uint16_t vlan = 0;  // 2 and above are tagged; 0 and 1 leave untagged
    uint32_t family = AF_INET;
    in_addr ipv4{};
    in6_addr ipv6{};
    uint8_t upstream = 0;  // 1: the upstream gateway (never fragmented, marked 6)
    vif::GreSocket* endpoint = nullptr;
};

struct PeerFields;
struct ClientRoute;

// A peer's frames on the given VLAN: its outer address, the socket it is
// reached through and the relay mark it was learned with.
Destination destinationOf(const PeerFields& peer, uint16_t vlan);
// A client's frames: through its peer, on the client's VLAN (0, untagged,
// when it has none). The route has a peer.
Destination destinationOf(const ClientRoute& route);

// Encapsulates frame and sends it to destination through its endpoint,
// fragmenting inner IPv4 beyond the size limit. mtu_setting is the configured
// "mtu" (0: not set). frame_stays says the frame's bytes stay untouched until
// out is flushed (a frame in its read slot): then its last datagram waits in
// out for the batch; otherwise (a copy the caller reuses) every datagram goes
// at once. Throws 22 or 55 for frames that cannot be built; the fragments
// sent before such a throw stay sent.
void send(Logger& log, const Destination& destination, pdu::PDU frame, const uint32_t* key,
          uint16_t mtu_setting, SendQueue& out, bool frame_stays);

}  // namespace lumora
