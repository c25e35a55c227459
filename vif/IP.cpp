// The GRE socket endpoint: raw protocol-47 sockets towards the access points.
#include "vif/IP"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/Descriptor.h"
#include "vif/TAP"
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

IP::SendCalls IP::send_calls = {::sendto, ::usleep, platform::sendDatagrams};
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

IP::~IP() {
    // The reading thread's held frame writes go out; it holds none from now on.
    TAP::stopHoldingWrites();
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
    prepareReceive(sock.get());

    // A failed bind leaves a socket that still sends and receives on every
    // address; deployments rely on the endpoint coming up regardless.
    sockaddr_in local;
    const socklen_t size = platform::makeIPv4Address(local, ipv4_address);
    if (::bind(sock.get(), reinterpret_cast<const sockaddr*>(&local), size) < 0) {
        const int error = errno;
        VXBRD_LOG(*logger, Warning, "%s BINDv4: %s", name_text, std::strerror(error));
    }
    ipv4_socket = sock.release();
    VXBRD_LOG(*logger, Notice, "%s mtu: %ld", name_text, mtu_value);
    VXBRD_LOG(*logger, Notice, "%s ready", name_text);
}

void IP::openIPv6() {
    interface_index = if_nametoindex(interface_name.c_str());
    if (interface_index == 0) failCall(logger, name_text, "if_nametoindex()");
    Descriptor sock(::socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!sock.valid()) failCall(logger, name_text, "socket(v6)");
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
    ipv6_socket = sock.release();
    VXBRD_LOG(*logger, Notice, "%s mtu: %ld", name_text, mtu_value);
    VXBRD_LOG(*logger, Notice, "%s ready", name_text);
}

// The receive buffer is cut into equal slots, one per datagram of a batch;
// a slot of 65535 bytes still holds the largest IP datagram. The read
// time-out goes on the socket itself so that a read waits inside the receive;
// where the option is refused, reads wait in select as before (silently: the
// endpoint behaves the same either way).
void IP::prepareReceive(int fd) {
    batch_limit = platform::receiveBatchLimit();
    if (batch_limit == 0 || batch_limit > kMaxBatch) batch_limit = 1;
    const size_t slot = kBufferSize / batch_limit;
    for (unsigned i = 0; i < batch_limit; ++i) {
        batch[i].data = buffer.get() + i * slot;
        batch[i].capacity = slot;
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

uint32_t IP::family() const { return ipv6_socket >= 0 ? AF_INET6 : AF_INET; }

// Datagrams already taken from the kernel are handed out first. Otherwise a
// single socket with its own time-out is read with one receive that waits at
// most 5 s and takes everything queued behind the first datagram; a socket
// without it (or an endpoint with both families) is drained without waiting
// and only then waited for in select.
pdu::PDU IP::read() {
    if (batch_next < batch_count) return take(batch[batch_next++]);
    // The frames written for the last batch go out before receiving again.
    TAP::stopHoldingWrites();
    batch_count = batch_next = 0;
    const bool single = ipv4_socket < 0 || ipv6_socket < 0;
    if (single && timed_receive) {
        const bool ipv4 = ipv4_socket >= 0;
        const int got =
            receive_calls.receive(ipv4 ? ipv4_socket : ipv6_socket, batch, batch_limit, true);
        if (got > 0) return startBatch(ipv4, got);
        if (got == 0 || errno == EAGAIN || errno == EWOULDBLOCK) throw ReadTimeout{};
        if (errno == EINTR) throw ReadError{};  // the wait itself was cut short
        failCall(logger, name_text, "recvfrom()");
    }
    for (const int fd : {ipv4_socket, ipv6_socket}) {
        if (fd < 0) continue;
        const int got = receive_calls.receive(fd, batch, batch_limit, false);
        if (got > 0) return startBatch(fd == ipv4_socket, got);
        if (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            failCall(logger, name_text, "recvfrom()");
    }
    return receiveWaiting();
}

pdu::PDU IP::receiveWaiting() {
    fd_set readable;
    FD_ZERO(&readable);
    int highest = -1;
    for (const int fd : {ipv4_socket, ipv6_socket}) {
        if (fd < 0) continue;
        FD_SET(fd, &readable);
        if (fd > highest) highest = fd;
    }
    timeval timeout{kReadTimeoutSeconds, 0};
    const int ready = ::select(highest + 1, &readable, nullptr, nullptr, &timeout);
    if (ready == 0) throw ReadTimeout{};
    if (ready < 0) throw ReadError{};
    bool ipv4 = true;
    int fd = -1;
    if (ipv4_socket >= 0 && FD_ISSET(ipv4_socket, &readable)) {
        fd = ipv4_socket;
    } else if (ipv6_socket >= 0 && FD_ISSET(ipv6_socket, &readable)) {
        fd = ipv6_socket;
        ipv4 = false;
    } else {
        throw ReadError{};
    }
    const int got = receive_calls.receive(fd, batch, batch_limit, true);
    if (got < 0) failCall(logger, name_text, "recvfrom()");
    if (got == 0) throw ReadError{};
    return startBatch(ipv4, got);
}

pdu::PDU IP::startBatch(bool ipv4, int count) {
    // A batch of one is written at once: there is nothing to gather.
    if (count > 1) TAP::holdWrites(buffer.get(), buffer.get() + kBufferSize);
    batch_ipv4 = ipv4;
    batch_count = static_cast<unsigned>(count);
    batch_next = 1;
    return take(batch[0]);
}

// One datagram of the batch. The sender is recorded before the datagram is
// judged; the PDU offsets are 16-bit, so the count is taken modulo 65536.
pdu::PDU IP::take(const Datagram& datagram) {
    pdu::PDU p;
    p._buf = datagram.data;
    const auto n = static_cast<uint16_t>(datagram.length);
    if (batch_ipv4) {
        sender_family = AF_INET;
        sender_ipv4 = datagram.source.ipv4.sin_addr;
        // A raw IPv4 socket hands over the whole datagram: skip its header,
        // options included, so the view starts at the GRE header.
        if (n < kIPv4HeaderMin) throw pdu::kInvalid;
        const auto header_length = static_cast<uint16_t>((datagram.data[0] & 0x0F) * 4);
        if (header_length < kIPv4HeaderMin || n < header_length) throw pdu::kInvalid;
        p._cap = n;
        p._begin = header_length;
        p._end = n;
        return p;
    }
    sender_family = AF_INET6;
    sender_ipv6 = datagram.source.ipv6.sin6_addr;
    // A raw IPv6 socket delivers only the payload. Payloads shorter than an
    // IPv6 header are still refused: deployed access points never send them,
    // and the minimum has always been enforced.
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
        VXBRD_LOG(*logger, Warning, "%s packet too big: %d (len) > %d (mtu)", name_text, length,
                  static_cast<int>(mtu_value));
    }
    if (holdSend(fd, p, destination, size)) return;
    errno = 0;
    const ssize_t sent = send_calls.sendto(fd, p.data(), static_cast<size_t>(length), MSG_DONTWAIT,
                                           destination, size);
    finishSend(fd, p, destination, size, sent == length ? 0 : (errno != 0 ? errno : EIO));
}

// Picks up after a first attempt, immediate or batched, that failed with
// error. A raw socket sends whole datagrams; a short count without an errno
// counts as EIO.
void IP::finishSend(int fd, pdu::PDU p, const sockaddr* destination, socklen_t size, int error) {
    const int length = p.length();
    const auto attempt_send = [&]() -> int {
        errno = 0;
        const ssize_t sent =
            send_calls.sendto(fd, p.data(), static_cast<size_t>(length), 0, destination, size);
        if (sent == length) return 0;
        return errno != 0 ? errno : EIO;
    };
    // Only a socket whose send buffer is full is given a moment to drain
    // (then the datagram is sent regardless). A descriptor that select cannot
    // hold goes straight to the waiting send.
    if (error == EAGAIN || error == EWOULDBLOCK) {
        if (fd >= 0 && fd < FD_SETSIZE) {
            fd_set writable;
            FD_ZERO(&writable);
            FD_SET(fd, &writable);
            timeval timeout{0, 100000};
            if (::select(fd + 1, nullptr, &writable, nullptr, &timeout) < 0) {
                const int select_error = errno;
                VXBRD_LOG(*logger, Warning, "%s select(): %s", name_text,
                          std::strerror(select_error));
                return;
            }
        }
        error = attempt_send();
    }
    for (int attempt = 1, delay = 100; error != 0; ++attempt, delay += 100) {
        if (error != ENOBUFS) {
            VXBRD_LOG(*logger, Warning, "%s sendto(): %d (%s)", name_text, error,
                      std::strerror(error));
            return;
        }
        VXBRD_LOG(*logger, Warning, "%s sendto(): ENOBUFS; retries = %d", name_text, attempt);
        send_calls.usleep(static_cast<useconds_t>(delay));
        error = attempt_send();
    }
}

}  // namespace lumora::vif
