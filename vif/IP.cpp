// The GRE socket endpoint: raw protocol-47 sockets towards the access points.
#include "vif/IP"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vif/Descriptor.h"
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

void setSocketBuffers(Logger* logger, int fd, const char* name) {
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer) < 0) {
        const int error = errno;
        logger->log(Warning, "%s SO_RCVBUF: %s", name, std::strerror(error));
    }
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer) < 0) {
        const int error = errno;
        logger->log(Warning, "%s SO_SNDBUF: %s", name, std::strerror(error));
    }
}

}  // namespace

IP::SendCalls IP::send_calls = {::sendto, ::usleep};
IP::ReceiveCalls IP::receive_calls = {::recvfrom};

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

IP::~IP() {
    if (ipv4_socket >= 0) ::close(ipv4_socket);
    if (ipv6_socket >= 0) ::close(ipv6_socket);
}

// The wildcard endpoint ("any") has no interface of its own, so the index is
// only looked up for a concrete address; IPv4 does not use it further.
void IP::openIPv4() {
    if (ipv4_address.s_addr != htonl(INADDR_ANY)) {
        interface_index = if_nametoindex(interface_name.c_str());
        if (interface_index == 0) failCall(logger, name_text, "if_nametoindex()");
    }
    Descriptor sock(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!sock.valid()) failCall(logger, name_text, "socket()");
    setSocketBuffers(logger, sock.get(), name_text);
    platform::setDontFragment(logger, sock.get(), name_text);

    // A failed bind leaves a socket that still sends and receives on every
    // address; deployments rely on the endpoint coming up regardless.
    sockaddr_in local;
    const socklen_t size = platform::makeIPv4Address(local, ipv4_address);
    if (::bind(sock.get(), reinterpret_cast<const sockaddr*>(&local), size) < 0) {
        const int error = errno;
        logger->log(Warning, "%s BINDv4: %s", name_text, std::strerror(error));
    }
    ipv4_socket = sock.release();
    logger->log(Notice, "%s mtu: %ld", name_text, mtu_value);
    logger->log(Notice, "%s ready", name_text);
}

void IP::openIPv6() {
    interface_index = if_nametoindex(interface_name.c_str());
    if (interface_index == 0) failCall(logger, name_text, "if_nametoindex()");
    Descriptor sock(::socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!sock.valid()) failCall(logger, name_text, "socket(v6)");
    setSocketBuffers(logger, sock.get(), name_text);
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
        logger->log(Warning, "%s BINDv6: %s", name_text, std::strerror(error));
    }
    ipv6_socket = sock.release();
    logger->log(Notice, "%s mtu: %ld", name_text, mtu_value);
    logger->log(Notice, "%s ready", name_text);
}

const char* IP::name() const { return name_text; }

long IP::mtu() const { return mtu_value; }

void IP::setMtu(long mtu) {
    if (mtu < kMinMtu || mtu > kMaxMtu) {
        logger->log(Error, "%s invalid MTU requested: %d", name_text, static_cast<int>(mtu));
        throw pdu::kInvalid;
    }
    mtu_value = mtu;
}

uint32_t IP::family() const { return ipv6_socket >= 0 ? AF_INET6 : AF_INET; }

pdu::PDU IP::read() {
    fd_set readable;
    FD_ZERO(&readable);
    int highest = -1;
    for (const int fd : {ipv4_socket, ipv6_socket}) {
        if (fd < 0) continue;
        FD_SET(fd, &readable);
        if (fd > highest) highest = fd;
    }
    timeval timeout{5, 0};
    const int ready = ::select(highest + 1, &readable, nullptr, nullptr, &timeout);
    if (ready == 0) throw ReadTimeout{};
    if (ready < 0) throw ReadError{};
    if (ipv4_socket >= 0 && FD_ISSET(ipv4_socket, &readable)) return receive(ipv4_socket, true);
    if (ipv6_socket >= 0 && FD_ISSET(ipv6_socket, &readable)) return receive(ipv6_socket, false);
    throw ReadError{};
}

// The PDU offsets are 16-bit, so the count is taken modulo 65536.
pdu::PDU IP::receive(int fd, bool ipv4) {
    pdu::PDU p;
    p._buf = buffer.get();
    if (ipv4) {
        sockaddr_in source{};
        socklen_t size = sizeof source;
        const ssize_t got = receive_calls.recvfrom(fd, buffer.get(), kBufferSize, 0,
                                                   reinterpret_cast<sockaddr*>(&source), &size);
        if (got < 0) failCall(logger, name_text, "recvfrom()");
        sender_family = AF_INET;
        sender_ipv4 = source.sin_addr;
        // A raw IPv4 socket hands over the whole datagram: skip its header,
        // options included, so the view starts at the GRE header.
        const auto n = static_cast<uint16_t>(got);
        if (n < kIPv4HeaderMin) throw pdu::kInvalid;
        const auto header_length = static_cast<uint16_t>((buffer[0] & 0x0F) * 4);
        if (header_length < kIPv4HeaderMin || n < header_length) throw pdu::kInvalid;
        p._cap = n;
        p._begin = header_length;
        p._end = n;
        return p;
    }
    sockaddr_in6 source{};
    socklen_t size = sizeof source;
    const ssize_t got = receive_calls.recvfrom(fd, buffer.get(), kBufferSize, 0,
                                               reinterpret_cast<sockaddr*>(&source), &size);
    if (got < 0) failCall(logger, name_text, "recvfrom()");
    sender_family = AF_INET6;
    sender_ipv6 = source.sin6_addr;
    // A raw IPv6 socket delivers only the payload. Payloads shorter than an
    // IPv6 header are still refused: deployed access points never send them,
    // and the minimum has always been enforced.
    const auto n = static_cast<uint16_t>(got);
    if (n < kIPv6HeaderSize) throw pdu::kInvalid;
    p._cap = n;
    p._begin = 0;
    p._end = n;
    return p;
}

pdu::IReadWriter& IP::write(pdu::PDU) { throw kInvalidMethod; }

IP& IP::write(pdu::PDU p, uint32_t family, in_addr ipv4, const in6_addr& ipv6) {
    if (family == AF_INET6) return writeIPv6(p, ipv6);
    return writeIPv4(p, ipv4);
}

IP& IP::writeIPv4(pdu::PDU p, in_addr destination) {
    sockaddr_in to;
    const socklen_t size = platform::makeIPv4Address(to, destination);
    sendDatagram(ipv4_socket, p, reinterpret_cast<const sockaddr*>(&to), size);
    return *this;
}

// Flow info and scope stay zero: a link-local destination relies on the
// kernel's default scope.
IP& IP::writeIPv6(pdu::PDU p, const in6_addr& destination) {
    sockaddr_in6 to;
    const socklen_t size = platform::makeIPv6Address(to, destination, 0);
    sendDatagram(ipv6_socket, p, reinterpret_cast<const sockaddr*>(&to), size);
    return *this;
}

// Sends _begin.._end to the destination. Nothing is thrown: failures are
// Warning lines and the datagram is dropped. ENOBUFS is retried without limit,
// waiting 100, 200, 300 ... microseconds, because a full interface queue
// drains and losing tunnel traffic costs more than the wait.
void IP::sendDatagram(int fd, pdu::PDU p, const sockaddr* destination, socklen_t size) {
    const int length = p.length();
    // Advisory only: the egress path fragments before it gets here.
    if (length > mtu_value) {
        logger->log(Warning, "%s packet too big: %d (len) > %d (mtu)", name_text, length,
                    static_cast<int>(mtu_value));
    }
    // Give a congested socket a moment to drain, then send regardless. A
    // descriptor that select cannot hold (none open for this family) goes
    // straight to sendto, which reports it.
    if (fd >= 0 && fd < FD_SETSIZE) {
        fd_set writable;
        FD_ZERO(&writable);
        FD_SET(fd, &writable);
        timeval timeout{0, 100000};
        if (::select(fd + 1, nullptr, &writable, nullptr, &timeout) < 0) {
            const int error = errno;
            logger->log(Warning, "%s select(): %s", name_text, std::strerror(error));
            return;
        }
    }
    // Returns 0 when the whole datagram went out, else the errno. A raw socket
    // sends whole datagrams; a short count without an errno counts as EIO.
    const auto attempt_send = [&]() -> int {
        errno = 0;
        const ssize_t sent =
            send_calls.sendto(fd, p.data(), static_cast<size_t>(length), 0, destination, size);
        if (sent == length) return 0;
        return errno != 0 ? errno : EIO;
    };
    int error = attempt_send();
    for (int attempt = 1, delay = 100; error != 0; ++attempt, delay += 100) {
        if (error != ENOBUFS) {
            logger->log(Warning, "%s sendto(): %d (%s)", name_text, error, std::strerror(error));
            return;
        }
        logger->log(Warning, "%s sendto(): ENOBUFS; retries = %d", name_text, attempt);
        send_calls.usleep(static_cast<useconds_t>(delay));
        error = attempt_send();
    }
}

}  // namespace lumora::vif
