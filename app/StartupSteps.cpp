#include "app/StartupSteps.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdio>

namespace lumora {

const char* greKeyModeKeyword(unsigned mode) {
    static constexpr const char* kKeywords[] = {"ignore",  "reject",    "require",
                                                "vlanmap", "preferkey", "prefervlan"};
    if (mode < sizeof kKeywords / sizeof kKeywords[0]) return kKeywords[mode];
    if (mode == PreferKey) return "preferkey";
    if (mode == PreferVlan) return "prefervlan";
    return "unknown";
}

bool skipsVlanInterface(const std::string& name, std::size_t ipv4_count) {
    return name.compare(0, 4, "vlan") == 0 && ipv4_count > 2;
}

std::string addressText(in_addr address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

std::string addressText(const in6_addr& address) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, &address, text, sizeof text);
    return text;
}

std::string macText(const MacAddress& mac) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                  mac[3], mac[4], mac[5]);
    return text;
}

}  // namespace lumora
