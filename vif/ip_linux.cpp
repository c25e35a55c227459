#ifndef __linux__
#error "ip_linux.cpp is the Linux backend of the GRE socket endpoint"
#endif

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "vif/ip_platform.h"

namespace lumora::vif::platform {

// Linux has no IP_DONTFRAG; path MTU discovery in "do" mode sets DF on every
// datagram and never fragments locally, which is the same contract.
void setDontFragment(Logger* logger, int fd, const char* name) {
    const int mode = IP_PMTUDISC_DO;
    if (setsockopt(fd, IPPROTO_IP, IP_MTU_DISCOVER, &mode, sizeof mode) < 0) {
        const int error = errno;
        logger->log(Warning, "%s IP_MTU_DISCOVER: %s", name, std::strerror(error));
    }
}

socklen_t makeIPv4Address(sockaddr_in& out, in_addr address) {
    out = sockaddr_in{};
    out.sin_family = AF_INET;
    out.sin_port = 0;
    out.sin_addr = address;
    return sizeof out;
}

socklen_t makeIPv6Address(sockaddr_in6& out, const in6_addr& address, uint32_t scope_id) {
    out = sockaddr_in6{};
    out.sin6_family = AF_INET6;
    out.sin6_port = 0;
    out.sin6_flowinfo = 0;
    out.sin6_addr = address;
    out.sin6_scope_id = scope_id;
    return sizeof out;
}

}  // namespace lumora::vif::platform
