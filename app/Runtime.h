// What main fills in at start-up and the tunnel threads then share. Written
// only on the main thread; once a slot is filled it is never written again,
// so the threads read it without locks.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace lumora {

namespace vif {
class IP;
class TAP;
}  // namespace vif

// Server mode (-s or "server"): every frame goes to this one address.
struct SendAll {
    in_addr ipv4{};
    uint8_t family = 0;  // 0 none, 1 IPv4, 2 IPv6
    in6_addr ipv6{};
    uint16_t mtu = 0;  // the configured "mtu"; 0 when not set
};

struct Runtime {
    SendAll send_all;
    // The tap endpoint serving each VLAN id, or null.
    std::array<vif::TAP*, 4096> taps_by_vid{};
    // The vlan-isolate-enable flag of each VLAN's tap line.
    std::array<bool, 4096> isolation_by_vid{};
    // The IPv4 endpoint on the wildcard address that reaches the upstream
    // gateways; null unless some VLAN is forwarded.
    vif::IP* forward_socket = nullptr;
    // The host's unicast addresses by interface name, in discovery order.
    std::map<std::string, std::vector<in_addr>> ipv4_addresses;
    std::map<std::string, std::vector<in6_addr>> ipv6_addresses;
};

extern Runtime runtime;

}  // namespace lumora
