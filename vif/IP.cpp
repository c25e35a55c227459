// The GRE socket endpoint: opening its raw protocol-47 socket and receiving.
#include "vif/IP"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/select.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vif/ip_platform.h"

namespace lumora::vif {

namespace {

// Receive buffer and socket buffers alike: bursts are absorbed by the kernel
// rather than dropped.
constexpr size_t kBufferSize = 0xFFFFF;
constexpr int kSocketBuffer = 0xFFFFF;
constexpr long kMinMtu = 576;
constexpr long kMaxMtu = 1480;
constexpr uint16_t kIPv4HeaderMin = 20;
constexpr uint16_t kIPv6HeaderSize = 40;
constexpr time_t kReadTimeoutSeconds = 5;

void setSocketBuffers(Logger* logger, int fd, const char* name) {
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer) < 0) {
        const int error = errno;
        VXBRD_LOG(*logger, Warning, "%s SO_RCVBUF: %s", name, std::strerror(error));
    }
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer) < 0) {
        const int error = errno;
        VXBRD_LOG(*logger, Warning, "%s SO_SNDBUF: %s", name, std::strerror(error));
    }
}

}  // namespace

IP::ReceiveCalls IP::receive_calls = {platform::receiveDatagrams};

IP::IP(Logger* logger, in_addr address, const std::string& interface)
    : logger(logger),
      ipv4_address(address),
      interface_name(interface),
      buffer(std::make_unique_for_overwrite<uint8_t[]>(kBufferSize)),
      sender_family(AF_INET) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &ipv4_address, text, sizeof text);
    std::snprintf(name_text, sizeof name_text, "%s (ip://%s)", interface_name.c_str(), text);
    openIPv4();
}

IP::IP(Logger* logger, const in6_addr& address, const std::string& interface)
    : logger(logger),
      ipv6_address(address),
      interface_name(interface),
      buffer(std::make_unique_for_overwrite<uint8_t[]>(kBufferSize)),
      sender_family(AF_INET6) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, &ipv6_address, text, sizeof text);
    std::snprintf(name_text, sizeof name_text, "%s (ip://%s)", interface_name.c_str(), text);
    openIPv6();
}

// The wildcard endpoint ("any") has no interface of its own, so the index is
// only looked up for a concrete address; IPv4 does not use it further.
void IP::openIPv4() {
    if (ipv4_address.s_addr != htonl(INADDR_ANY)) {
        interface_index = if_nametoindex(interface_name.c_str());
        if (interface_index == 0) failCall(logger, name_text, "if_nametoindex()");
    }
    Descriptor sock =
        Descriptor::socket(logger, name_text, "socket()", AF_INET, SOCK_RAW, protocol);
    setSocketBuffers(logger, sock.get(), name_text);
    platform::setDontFragment(logger, sock.get(), name_text);
    prepareReceive(sock.get());

    // A failed bind leaves a socket that still sends and receives on every
    // address; deployments rely on the endpoint coming up regardless.
    sockaddr_in local;
    const socklen_t size = platform::makeIPv4Address(local, ipv4_address);
    if (::bind(sock.get(), reinterpret_cast<const sockaddr*>(&local), size) < 0) {
        const int error = errno;
        VXBRD_LOG(*logger, Warning, "%s BINDv4: %s", name_text, std::strerror(error));
    }
    ipv4_socket = std::move(sock);
    VXBRD_LOG(*logger, Notice, "%s mtu: %ld", name_text, mtu_value);
    VXBRD_LOG(*logger, Notice, "%s ready", name_text);
}

void IP::openIPv6() {
    interface_index = if_nametoindex(interface_name.c_str());
    if (interface_index == 0) failCall(logger, name_text, "if_nametoindex()");
    Descriptor sock =
        Descriptor::socket(logger, name_text, "socket(v6)", AF_INET6, SOCK_RAW, protocol);
    setSocketBuffers(logger, sock.get(), name_text);
    prepareReceive(sock.get());
    // No don't-fragment option: IPv6 routers never fragment anyway.

    // Link-local addresses need the interface's scope to be bound; the check
    // looks at the first two bytes only (fe80::), which is what link-local
    // addresses carry in practice.
    const bool link_local = ipv6_address.s6_addr[0] == 0xfe && ipv6_address.s6_addr[1] == 0x80;
    sockaddr_in6 local;
    const socklen_t size =
        platform::makeIPv6Address(local, ipv6_address, link_local ? interface_index : 0);
    if (::bind(sock.get(), reinterpret_cast<const sockaddr*>(&local), size) < 0) {
        const int error = errno;
        VXBRD_LOG(*logger, Warning, "%s BINDv6: %s", name_text, std::strerror(error));
    }
    ipv6_socket = std::move(sock);
    VXBRD_LOG(*logger, Notice, "%s mtu: %ld", name_text, mtu_value);
    VXBRD_LOG(*logger, Notice, "%s ready", name_text);
}

// The receive buffer is cut into equal slots, one per datagram of a batch;
// a slot of 65535 bytes still holds the largest IP datagram. The read
// time-out goes on the socket itself so that a receive waits inside the
// kernel; where the option is refused, receives wait in select as before
// (silently: the endpoint behaves the same either way).
void IP::prepareReceive(int fd) {
    batch_limit = platform::receiveBatchLimit();
    if (batch_limit == 0 || batch_limit > kMaxBatch) batch_limit = 1;
    const size_t slot = kBufferSize / batch_limit;
    for (unsigned i = 0; i < batch_limit; ++i) {
        slots[i].data = buffer.get() + i * slot;
        slots[i].capacity = slot;
    }
    const timeval timeout{kReadTimeoutSeconds, 0};
    timed_receive = setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0;
}

const char* IP::name() const { return name_text; }

long IP::mtu() const { return mtu_value; }

void IP::setMtu(long mtu) {
    if (mtu < kMinMtu || mtu > kMaxMtu) {
        VXBRD_LOG(*logger, Error, "%s invalid MTU requested: %d", name_text, static_cast<int>(mtu));
        throw pdu::kInvalid;
    }
    mtu_value = mtu;
}

uint32_t IP::family() const { return ipv6_socket.valid() ? AF_INET6 : AF_INET; }

// A single socket with its own time-out is read with one receive that waits
// at most 5 s and takes everything queued behind the first datagram; a
// socket without it is waited for in select first.
unsigned IP::receiveBatch(std::span<Received> out) {
    unsigned count = std::min<unsigned>(batch_limit, static_cast<unsigned>(out.size()));
    if (count == 0) return 0;
    bool ipv4 = ipv4_socket.valid();
    int got;
    if (timed_receive) {
        got =
            receive_calls.receive(ipv4 ? ipv4_socket.get() : ipv6_socket.get(), slots, count, true);
        if (got == 0 || (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))) throw ReadTimeout{};
        if (got < 0 && errno == EINTR) throw ReadError{};  // the wait itself was cut short
    } else {
        got = receiveWaiting(count, ipv4);
    }
    if (got < 0) failCall(logger, name_text, "recvfrom()");
    for (int i = 0; i < got; ++i) out[i] = take(slots[i], ipv4);
    return static_cast<unsigned>(got);
}

int IP::receiveWaiting(unsigned count, bool& ipv4) {
    fd_set readable;
    FD_ZERO(&readable);
    int highest = -1;
    for (const Descriptor* sock : {&ipv4_socket, &ipv6_socket}) {
        if (!sock->valid()) continue;
        FD_SET(sock->get(), &readable);
        highest = std::max(highest, sock->get());
    }
    timeval timeout{kReadTimeoutSeconds, 0};
    const int ready = ::select(highest + 1, &readable, nullptr, nullptr, &timeout);
    if (ready == 0) throw ReadTimeout{};
    if (ready < 0) throw ReadError{};
    int fd = -1;
    if (ipv4_socket.valid() && FD_ISSET(ipv4_socket.get(), &readable)) {
        fd = ipv4_socket.get();
        ipv4 = true;
    } else if (ipv6_socket.valid() && FD_ISSET(ipv6_socket.get(), &readable)) {
        fd = ipv6_socket.get();
        ipv4 = false;
    } else {
        throw ReadError{};
    }
    const int got = receive_calls.receive(fd, slots, count, true);
    if (got == 0) throw ReadError{};
    return got;
}

// One datagram of the batch. The sender is known whatever the datagram
// holds; the PDU offsets are 16-bit, so the count is taken modulo 65536.
IP::Received IP::take(const Slot& slot, bool ipv4) const {
    Received r;
    r.datagram._buf = slot.data;
    const auto n = static_cast<uint16_t>(slot.length);
    r.datagram._cap = n;
    r.datagram._end = n;
    if (ipv4) {
        r.family = AF_INET;
        r.ipv4 = slot.source.ipv4.sin_addr;
        // A raw IPv4 socket hands over the whole datagram: skip its header,
        // options included, so the view starts at the GRE header.
        const auto header_length = static_cast<uint16_t>((slot.data[0] & 0x0F) * 4);
        r.valid = n >= kIPv4HeaderMin && header_length >= kIPv4HeaderMin && n >= header_length;
        r.datagram._begin = r.valid ? header_length : n;
        return r;
    }
    r.family = AF_INET6;
    r.ipv6 = slot.source.ipv6.sin6_addr;
    // A raw IPv6 socket delivers only the payload. Payloads shorter than an
    // IPv6 header are still refused: deployed access points never send them,
    // and the minimum has always been enforced.
    r.valid = n >= kIPv6HeaderSize;
    r.datagram._begin = r.valid ? 0 : n;
    return r;
}

pdu::PDU IP::read() {
    Received one;
    receiveBatch(std::span(&one, 1));
    sender_family = one.family;
    if (one.family == AF_INET) {
        sender_ipv4 = one.ipv4;
    } else {
        sender_ipv6 = one.ipv6;
    }
    if (!one.valid) throw pdu::kInvalid;
    return one.datagram;
}

}  // namespace lumora::vif
