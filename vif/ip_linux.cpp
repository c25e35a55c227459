#ifndef __linux__
#error "ip_linux.cpp is the Linux backend of the GRE socket endpoint"
#endif

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <iterator>

#include "vif/ip_platform.h"

namespace lumora::vif::platform {

// Linux has no IP_DONTFRAG; path MTU discovery in "do" mode sets DF on every
// datagram and never fragments locally, which is the same contract.
void setDontFragment(Logger* logger, int fd, const char* name) {
    const int mode = IP_PMTUDISC_DO;
    if (setsockopt(fd, IPPROTO_IP, IP_MTU_DISCOVER, &mode, sizeof mode) < 0) {
        const int error = errno;
        VXBRD_LOG(*logger, Warning, "%s IP_MTU_DISCOVER: %s", name, std::strerror(error));
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

// recvmmsg takes every queued datagram (up to count) in one system call.
unsigned receiveBatchLimit() { return IP::kMaxBatch; }

int receiveDatagrams(int fd, IP::Slot* batch, unsigned count, bool wait) {
    mmsghdr messages[IP::kMaxBatch];
    iovec slots[IP::kMaxBatch];
    if (count > std::size(messages)) count = std::size(messages);
    for (unsigned i = 0; i < count; ++i) {
        slots[i].iov_base = batch[i].data;
        slots[i].iov_len = batch[i].capacity;
        msghdr& header = messages[i].msg_hdr;
        header.msg_name = &batch[i].source;
        header.msg_namelen = sizeof batch[i].source;
        header.msg_iov = &slots[i];
        header.msg_iovlen = 1;
        header.msg_control = nullptr;
        header.msg_controllen = 0;
        header.msg_flags = 0;
    }
    // MSG_WAITFORONE: block (within the socket's receive time-out) for the
    // first datagram only, then take what is already queued.
    const int got = ::recvmmsg(fd, messages, count, wait ? MSG_WAITFORONE : MSG_DONTWAIT, nullptr);
    for (int i = 0; i < got; ++i) batch[i].length = messages[i].msg_len;
    return got;
}

unsigned sendBatchLimit() { return 32; }

int sendDatagrams(int fd, const IP::Outgoing* list, unsigned count) {
    mmsghdr messages[32];
    iovec pieces[32][2];
    if (count > std::size(messages)) count = std::size(messages);
    for (unsigned i = 0; i < count; ++i) {
        pieces[i][0].iov_base = const_cast<uint8_t*>(list[i].data);
        pieces[i][0].iov_len = list[i].length;
        pieces[i][1].iov_base = const_cast<uint8_t*>(list[i].tail);
        pieces[i][1].iov_len = list[i].tail_length;
        msghdr& header = messages[i].msg_hdr;
        header.msg_name = const_cast<sockaddr*>(list[i].destination);
        header.msg_namelen = list[i].size;
        header.msg_iov = pieces[i];
        header.msg_iovlen = list[i].tail_length != 0 ? 2 : 1;
        header.msg_control = nullptr;
        header.msg_controllen = 0;
        header.msg_flags = 0;
    }
    return ::sendmmsg(fd, messages, count, MSG_DONTWAIT);
}

}  // namespace lumora::vif::platform
