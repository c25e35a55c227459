// The few places where the GRE socket endpoint differs between FreeBSD and
// Linux: the don't-fragment option, the socket address layouts and how
// datagrams are received. One
// implementation per OS (ip_freebsd.cpp, ip_linux.cpp).
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

#include "core/Logger.h"
#include "vif/IP"

namespace lumora::vif::platform {

// Makes the kernel refuse to fragment what the IPv4 socket sends: the egress
// path fragments the inner packet itself. A failure is only a Warning line
// that names the option used.
void setDontFragment(Logger* logger, int fd, const char* name);

// Socket addresses for bind and sendto, port 0; returns the size to pass.
socklen_t makeIPv4Address(sockaddr_in& out, in_addr address);
socklen_t makeIPv6Address(sockaddr_in6& out, const in6_addr& address, uint32_t scope_id);

// How many datagrams one receive should take: IP::kMaxBatch where the kernel
// hands over a batch in one call, 1 where a batch would only be a library
// loop around single receives.
unsigned receiveBatchLimit();

// The default receive behind IP::read (see IP::ReceiveCalls).
int receiveDatagrams(int fd, IP::Slot* batch, unsigned count, bool wait);

// How many datagrams one batched send should take; 1 where there is no
// batched send in the kernel (IP::sendBatch then sends one at a time).
unsigned sendBatchLimit();

// The default batched send (see IP::SendCalls::send_batch).
int sendDatagrams(int fd, const IP::Outgoing* list, unsigned count);

}  // namespace lumora::vif::platform
