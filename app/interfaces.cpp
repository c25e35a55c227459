#include "app/interfaces.h"

#include <sys/socket.h>

#include <cerrno>

namespace lumora {

void collectInterfaces(const struct ifaddrs* list, std::map<std::string, MacAddress>& links,
                       IPv4AddressMap& ipv4, IPv6AddressMap& ipv6) {
    for (const struct ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_name == nullptr || entry->ifa_addr == nullptr) continue;
        if (isLoopbackName(entry->ifa_name)) continue;
        // sockaddr is the C library's tagged union: the family says which
        // of the address structures this one really is.
        switch (entry->ifa_addr->sa_family) {
            case AF_INET:
                ipv4[entry->ifa_name].push_back(
                    reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr);
                break;
            case AF_INET6:
                ipv6[entry->ifa_name].push_back(
                    reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr);
                break;
            default: {
                MacAddress mac{};
                if (ethernetLinkAddress(*entry, mac)) links[entry->ifa_name] = mac;
                break;
            }
        }
    }
}

void discoverInterfaces(std::map<std::string, MacAddress>& links, IPv4AddressMap& ipv4,
                        IPv6AddressMap& ipv6) {
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) throw errno;
    collectInterfaces(list, links, ipv4, ipv6);
    freeifaddrs(list);
}

}  // namespace lumora
