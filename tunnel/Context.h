// What the tunnel threads share: filled by start-up on the main thread, read
// by the GRE ingress threads and the tap threads. The per-VLAN tap slots and
// the upstream socket are filled while earlier threads already run, so they
// are atomics (published with release, read with acquire); everything else is
// complete before the first tunnel thread starts.
#pragma once

#include <netinet/in.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "core/Config.h"
#include "core/Logger.h"
#include "core/Runtime.h"
#include "tunnel/Tables.h"
#include "vif/VIF"

namespace lumora {

inline constexpr size_t kVlanCount = 4096;

struct TunnelContext {
    Logger* logger = nullptr;
    const Config* config = nullptr;
    Tables* tables = nullptr;
    // host interface name -> MAC, and tap name -> parent interface name.
    std::map<std::string, MacAddress>* interfaces = nullptr;
    const std::map<std::string, std::string>* parents = nullptr;
    SendAll send_all;

    // The tap endpoint serving each VLAN id, or null.
    std::array<std::atomic<Endpoint*>, kVlanCount> taps_by_vid{};
    // The IPv4 endpoint on the wildcard address that reaches the upstream
    // gateways; null unless some VLAN is forwarded.
    std::atomic<vif::GreSocket*> forward_socket{nullptr};
    // The GRE endpoints that carry server-mode traffic: the first endpoint
    // of each family; null when the host has none of that family.
    std::atomic<vif::GreSocket*> server_socket_ipv4{nullptr};
    std::atomic<vif::GreSocket*> server_socket_ipv6{nullptr};

    Endpoint* tapFor(uint32_t vlan) const {
        return vlan < kVlanCount ? taps_by_vid[vlan].load(std::memory_order_acquire) : nullptr;
    }
};

// The daemon's context, wired to the process-wide configuration, tables and
// interface maps.
TunnelContext& tunnelContext();

}  // namespace lumora
