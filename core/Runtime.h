// Start-up state: written only on the main thread before the tunnel threads
// start.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace lumora {

// Server mode (-s or "server"): every frame goes to this one address.
struct SendAll {
    in_addr ipv4{};
    uint8_t family = 0;  // 0 none, 1 IPv4, 2 IPv6
    in6_addr ipv6{};
    uint16_t mtu = 0;  // the configured "mtu"; 0 when not set
};

// What start-up learns about the host and keeps for the daemon's life. The
// endpoints and the state the tunnel threads share live in the tunnel
// context (tunnel/Context.h).
struct Runtime {
    // The vlan-isolate-enable flag of each VLAN's tap line.
    std::array<bool, 4096> isolation_by_vid{};
    // The host's unicast addresses by interface name, in discovery order.
    std::map<std::string, std::vector<in_addr>> ipv4_addresses;
    std::map<std::string, std::vector<in6_addr>> ipv6_addresses;
};

extern Runtime runtime;

}  // namespace lumora
