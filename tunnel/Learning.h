// Learning of peers and clients from accepted GRE packets, called by the GRE
// ingress threads once per packet that passed the key/VLAN policy.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "core/Logger.h"
#include "tunnel/Tables.h"

namespace lumora {

namespace vif {
class GreSocket;
}

// What one accepted packet tells about its sender.
struct Sighting {
    uint32_t family = 0;  // outer source: AF_INET or AF_INET6
    in_addr ipv4{};
    in6_addr ipv6{};
    vif::GreSocket* endpoint = nullptr;  // the receiving GRE socket (may be null in tests)
    uint16_t policyVlan = 0;             // VLAN chosen by the key/VLAN policy
    uint16_t tagVlan = 0;                // VLAN of the inner 802.1Q tag, 0 when untagged
    bool hasKey = false;
    uint32_t key = 0;
    const uint8_t* mac = nullptr;       // inner source MAC, 6 bytes
    size_t frameLength = 0;             // inner frame length, added to bytesIn
    uint8_t relayMark = 0;              // 1 when the recursion-control bits were 7
    const in_addr* upstream = nullptr;  // gateway address when the VLAN goes upstream
};

// Enters the sender's peer when new, then finds or makes the client, counts
// the frame, and moves a new or re-associated client onto that peer, logging
// at Notice what changed. Returns the client record in use.
//
// A known client on its known peer costs two table lookups and one lock of
// the client and allocates nothing; only new and moving clients (and new
// peers) allocate, for their records and their log lines. None of it grows
// with the number of clients behind a peer.
ClientRecord* learn(Tables& tables, Logger* logger, const Sighting& sighting);

}  // namespace lumora
