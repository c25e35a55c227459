// Frames from a tap device into GRE: the 802.1Q tag, the GRE header, and the
// inner-IPv4 fragmentation that keeps every outer datagram within the
// tunnel's size limit (the outer packets are sent with fragmentation
// forbidden). Lives in tunnel/ rather than pdu/ because it sends: it needs the
// destination peer, the GRE socket and the logger; pdu/ stays a packet model
// that knows nothing of endpoints.
//
// Everything here works in place in the reader's buffer: headers are written
// into headroom, fragments over payload bytes already sent. Nothing allocates.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "app/Logger.h"
#include "pdu/IPv4.h"
#include "pdu/PDU.h"
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

struct PeerRecord;
struct ClientRoute;

// A peer's frames on the given VLAN: its outer address, the socket it is
// reached through and the relay mark it was learned with.
Destination destinationOf(const PeerRecord& peer, uint16_t vlan);
// A client's frames: through its peer, on the client's VLAN (0, untagged,
// when it has none). The route has a peer.
Destination destinationOf(const ClientRoute& route);

// The largest Ethernet frame (as read, before tag and GRE header) that goes
// out whole: the endpoint's MTU less outer IPv4, keyed GRE, Ethernet and tag
// (46 bytes; 42 without a key), capped by a non-zero "mtu" setting.
long sizeLimit(long endpoint_mtu, bool keyed, uint16_t mtu_setting);

// Tags the frame for vlan >= 2 and prepends the GRE header (with the key when
// key is not null). Returns the view that starts at the GRE header. Throws 22
// for a frame too short to tag, 55 when the headroom runs out.
pdu::PDU encapsulate(pdu::PDU frame, uint16_t vlan, const uint32_t* key);

// Fragment `index` of an IPv4 packet, built in place over the packet.
struct FragmentState {
    pdu::IPv4PDU packet;      // the whole packet as read
    long limit = 0;           // the size limit L
    unsigned index = 0;       // fragment number i
    uint16_t own_offset = 0;  // the packet's own fragment offset, 8-byte units
    bool own_more = false;    // the packet's own MF flag
};
pdu::IPv4PDU nextFragment(const FragmentState& state);

// Encapsulates frame and sends it to destination through its endpoint,
// fragmenting inner IPv4 beyond the size limit. mtu_setting is the configured
// "mtu" (0: not set). Throws 22 or 55 for frames that cannot be built; the
// fragments sent before such a throw stay sent.
void send(Logger& log, const Destination& destination, pdu::PDU frame, const uint32_t* key,
          uint16_t mtu_setting);

}  // namespace lumora
