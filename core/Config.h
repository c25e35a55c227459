// The daemon's configuration: filled once from the configuration file on the
// main thread before any other thread exists, read-only afterwards.
#pragma once

#include <netinet/in.h>

#include <array>
#include <bitset>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace lumora {

// Distinct bit values, kept so for compatibility with existing configurations.
enum GreKeyMode : uint8_t {
    Ignore = 0,
    Reject = 1,
    Require = 2,
    VlanMap = 4,
    PreferKey = 8,
    PreferVlan = 16,
};

struct InterfaceConfig {
    std::string name;  // tap device name as written
    uint16_t vid = 0;  // 0 means untagged
    bool isolate = false;
    bool offload = true;  // false: "offload-disable" on its tap line
};

struct ForwardServer {
    in_addr address{};
};

struct Config {
    std::vector<InterfaceConfig> interfaces;
    std::bitset<4096> vlans;
    std::bitset<4096> forward_vlans;
    std::unordered_map<uint16_t, ForwardServer> forward_servers;
    uint16_t mss = 1380;
    in_addr server_ipv4{};
    in6_addr server_ipv6{};
    uint16_t mtu = 0;
    uint8_t server_family = 0;  // 0 none, 1 IPv4, 2 IPv6
    uint8_t gre_key_mode = Ignore;
    uint64_t gre_key = 0;
    bool ipchksum = false;
    bool offload = true;  // false: the "offload-disable" keyword, for every tap
};

using MacAddress = std::array<uint8_t, 6>;

// The process-wide configuration and its companion maps.
extern Config config;
// tap name -> parent interface name ("parent-interface").
extern std::map<std::string, std::string> parent_interfaces;
// host interface name -> MAC address, built by interface discovery before parsing.
extern std::map<std::string, MacAddress> system_interfaces;

}  // namespace lumora
