#ifndef __FreeBSD__
#error "ip_freebsd.cpp is the FreeBSD backend of the GRE socket endpoint"
#endif

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

#include "vif/ip_platform.h"

namespace lumora::vif::platform {

void setDontFragment(Logger* logger, int fd, const char* name) {
    const int on = 1;
    if (setsockopt(fd, IPPROTO_IP, IP_DONTFRAG, &on, sizeof on) < 0) {
        const int error = errno;
        VXBRD_LOG(*logger, Warning, "%s IP_DONTFRAG: %s", name, std::strerror(error));
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

// FreeBSD's recvmmsg is a library loop around recvmsg: nothing to gain, so
// one datagram per receive, into a slot as large as the whole buffer.
unsigned receiveBatchLimit() { return 1; }

int receiveDatagrams(int fd, IP::Slot* batch, unsigned count, bool wait) {
    if (count == 0) return 0;
    socklen_t size = sizeof batch[0].source;
    const ssize_t got = ::recvfrom(fd, batch[0].data, batch[0].capacity, wait ? 0 : MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr*>(&batch[0].source), &size);
    if (got < 0) return -1;
    batch[0].length = static_cast<size_t>(got);
    return 1;
}

// sendmmsg is a library loop here: a batch is sent one datagram at a time
// by IP::sendBatch, and this stands only for completeness (one sendto each).
unsigned sendBatchLimit() { return 1; }

int sendDatagrams(int fd, const IP::Outgoing* list, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
        iovec pieces[2] = {{const_cast<uint8_t*>(list[i].data), list[i].length},
                           {const_cast<uint8_t*>(list[i].tail), list[i].tail_length}};
        msghdr message{};
        message.msg_name = const_cast<sockaddr*>(list[i].destination);
        message.msg_namelen = list[i].size;
        message.msg_iov = pieces;
        message.msg_iovlen = list[i].tail_length != 0 ? 2 : 1;
        const ssize_t sent = ::sendmsg(fd, &message, MSG_DONTWAIT);
        if (sent != static_cast<ssize_t>(list[i].length + list[i].tail_length)) {
            if (sent >= 0) errno = EIO;
            return i == 0 ? -1 : static_cast<int>(i);
        }
    }
    return static_cast<int>(count);
}

}  // namespace lumora::vif::platform
