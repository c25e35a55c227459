#ifndef __FreeBSD__
#error "interfaces_freebsd.cpp is the FreeBSD backend; build interfaces_linux.cpp instead"
#endif

#include <net/if.h>
#include <net/if_dl.h>
#include <net/if_types.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstring>
#include <regex>

#include "app/interfaces.h"

namespace lumora {

namespace {
const std::regex loopback_pattern("lo[0-9]+");
}  // namespace

bool ethernetLinkAddress(const struct ifaddrs& entry, MacAddress& mac) {
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family != AF_LINK) return false;
    if (entry.ifa_data == nullptr) return false;
    // For AF_LINK entries getifaddrs hangs the interface's if_data here.
    const auto* data = static_cast<const struct if_data*>(entry.ifa_data);
    if (data->ifi_type != IFT_ETHER && data->ifi_type != IFT_L2VLAN) return false;
    const auto* link = reinterpret_cast<const sockaddr_dl*>(entry.ifa_addr);
    if (link->sdl_alen != mac.size()) return false;
    std::memcpy(mac.data(), LLADDR(link), mac.size());
    return true;
}

bool isLoopbackName(const char* name) { return std::regex_match(name, loopback_pattern); }

}  // namespace lumora
