// The few places where the GRE socket endpoint differs between FreeBSD and
// Linux: the don't-fragment option and the socket address layouts. One
// implementation per OS (ip_freebsd.cpp, ip_linux.cpp).
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "app/Logger.h"

namespace lumora::vif::platform {

// Makes the kernel refuse to fragment what the IPv4 socket sends: the egress
// path fragments the inner packet itself. A failure is only a Warning line
// that names the option used.
void setDontFragment(Logger* logger, int fd, const char* name);

// Socket addresses for bind and sendto, port 0; returns the size to pass.
socklen_t makeIPv4Address(sockaddr_in& out, in_addr address);
socklen_t makeIPv6Address(sockaddr_in6& out, const in6_addr& address, uint32_t scope_id);

}  // namespace lumora::vif::platform
