#ifndef __linux__
#error "interfaces_linux.cpp is the Linux backend; build interfaces_freebsd.cpp instead"
#endif

#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <cstring>
#include <regex>

#include "app/interfaces.h"

namespace lumora {

namespace {
// Linux names its loopback plain "lo".
const std::regex loopback_pattern("lo[0-9]*");
}  // namespace

bool ethernetLinkAddress(const struct ifaddrs& entry, MacAddress& mac) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_PACKET) return false;
    const auto* link = reinterpret_cast<const sockaddr_ll*>(entry.ifa_addr);
    // 802.1Q interfaces report ARPHRD_ETHER as well.
    if (link->sll_hatype != ARPHRD_ETHER || link->sll_halen != mac.size()) return false;
    std::memcpy(mac.data(), link->sll_addr, mac.size());
    return true;
}

bool isLoopbackName(const char* name) { return std::regex_match(name, loopback_pattern); }

}  // namespace lumora
