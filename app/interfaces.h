// Discovery of the host's interfaces: which names are Ethernet-like (with
// their MAC) and which IPv4 and IPv6 addresses each carries. The walk over
// the getifaddrs list is shared; the two questions that differ between
// systems (is this a link-layer Ethernet entry, is this name a loopback) are
// answered by interfaces_linux.cpp or interfaces_freebsd.cpp.
#pragma once

#include <ifaddrs.h>
#include <netinet/in.h>

#include <map>
#include <string>
#include <vector>

#include "core/Config.h"

namespace lumora {

using IPv4AddressMap = std::map<std::string, std::vector<in_addr>>;
using IPv6AddressMap = std::map<std::string, std::vector<in6_addr>>;

// Platform: true when entry is the link-layer entry of an Ethernet or 802.1Q
// VLAN interface with a 6-byte address, which is then copied into mac.
bool ethernetLinkAddress(const struct ifaddrs& entry, MacAddress& mac);

// Platform: true when name is a loopback interface, whose addresses never
// carry tunnels.
bool isLoopbackName(const char* name);

// Adds the entries of list, in list order: Ethernet link entries to links,
// IPv4 and IPv6 addresses appended to their interface's list. Loopbacks and
// entries without an address are left out.
void collectInterfaces(const struct ifaddrs* list, std::map<std::string, MacAddress>& links,
                       IPv4AddressMap& ipv4, IPv6AddressMap& ipv6);

// getifaddrs + collectInterfaces + freeifaddrs. Throws int errno when the
// list cannot be read.
void discoverInterfaces(std::map<std::string, MacAddress>& links, IPv4AddressMap& ipv4,
                        IPv6AddressMap& ipv6);

}  // namespace lumora
