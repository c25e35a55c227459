#ifndef __FreeBSD__
#error "ip_freebsd.cpp is the FreeBSD backend of the GRE socket endpoint"
#endif

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "vif/ip_platform.h"

namespace lumora::vif::platform {

void setDontFragment(Logger* logger, int fd, const char* name) {
    const int on = 1;
    if (setsockopt(fd, IPPROTO_IP, IP_DONTFRAG, &on, sizeof on) < 0) {
        const int error = errno;
        logger->log(Warning, "%s IP_DONTFRAG: %s", name, std::strerror(error));
    }
}

socklen_t makeIPv4Address(sockaddr_in& out, in_addr address) {
    out = sockaddr_in{};
    out.sin_len = sizeof out;
    out.sin_family = AF_INET;
    out.sin_port = 0;
    out.sin_addr = address;
    return sizeof out;
}

socklen_t makeIPv6Address(sockaddr_in6& out, const in6_addr& address, uint32_t scope_id) {
    out = sockaddr_in6{};
    out.sin6_len = sizeof out;
    out.sin6_family = AF_INET6;
    out.sin6_port = 0;
    out.sin6_flowinfo = 0;
    out.sin6_addr = address;
    out.sin6_scope_id = scope_id;
    return sizeof out;
}

}  // namespace lumora::vif::platform
