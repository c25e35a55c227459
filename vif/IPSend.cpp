// The GRE socket endpoint's sends: one datagram, or a batch handed to the
// kernel in one call where it has a batched send.
#include <sys/select.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "vif/IP"
#include "vif/ip_platform.h"

namespace lumora::vif {

namespace {

// A destination as the kernel takes it.
struct Address {
    union {
        sockaddr_in ipv4;
        sockaddr_in6 ipv6;
    } storage;
    socklen_t size;

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

// Flow info and scope stay zero: a link-local destination relies on the
// kernel's default scope.
Address addressOf(uint32_t family, in_addr ipv4, const in6_addr& ipv6) {
    Address a;
    if (family == AF_INET6) {
        a.size = platform::makeIPv6Address(a.storage.ipv6, ipv6, 0);
    } else {
        a.size = platform::makeIPv4Address(a.storage.ipv4, ipv4);
    }
    return a;
}

}  // namespace

IP::SendCalls IP::send_calls = {::sendto, ::usleep, platform::sendDatagrams};

pdu::IReadWriter& IP::write(pdu::PDU) { throw kInvalidMethod; }

IP& IP::write(pdu::PDU p, uint32_t family, in_addr ipv4, const in6_addr& ipv6) {
    if (family == AF_INET6) return writeIPv6(p, ipv6);
    return writeIPv4(p, ipv4);
}

IP& IP::writeIPv4(pdu::PDU p, in_addr destination) {
    const Address to = addressOf(AF_INET, destination, in6addr_any);
    sendOne(ipv4_socket.get(), p, to.get(), to.size);
    return *this;
}

IP& IP::writeIPv6(pdu::PDU p, const in6_addr& destination) {
    const Address to = addressOf(AF_INET6, in_addr{}, destination);
    sendOne(ipv6_socket.get(), p, to.get(), to.size);
    return *this;
}

// Advisory only: the egress path fragments before it gets here.
void IP::warnIfTooBig(size_t length) {
    if (static_cast<long>(length) > mtu_value) {
        VXBRD_LOG(*logger, Warning, "%s packet too big: %d (len) > %d (mtu)", name_text,
                  static_cast<int>(length), static_cast<int>(mtu_value));
    }
}

// Sends _begin.._end to the destination. Nothing is thrown: failures are
// Warning lines and the datagram is dropped.
void IP::sendOne(int fd, pdu::PDU p, const sockaddr* destination, socklen_t size) {
    warnIfTooBig(p.length());
    const int length = p.length();
    errno = 0;
    const ssize_t sent = send_calls.sendto(fd, p.data(), static_cast<size_t>(length), MSG_DONTWAIT,
                                           destination, size);
    finishSend(fd, p, destination, size, sent == length ? 0 : (errno != 0 ? errno : EIO));
}

// Runs of up to batchSize() datagrams of one family go to the kernel in one
// call; the kernel stops at a datagram it refuses, which then gets the rest
// of a single send, and the run goes on behind it.
void IP::sendBatch(std::span<const Datagram> datagrams) {
    const unsigned limit = std::min<unsigned>(platform::sendBatchLimit(), kMaxBatch);
    if (limit <= 1) {
        for (const Datagram& d : datagrams) write(d.bytes, d.family, d.ipv4, d.ipv6);
        return;
    }
    Address addresses[kMaxBatch];
    Outgoing list[kMaxBatch];
    size_t next = 0;
    while (next < datagrams.size()) {
        const bool ipv6 = datagrams[next].family == AF_INET6;
        const int fd = ipv6 ? ipv6_socket.get() : ipv4_socket.get();
        unsigned run = 0;
        for (; run < limit && next + run < datagrams.size() &&
               (datagrams[next + run].family == AF_INET6) == ipv6;
             ++run) {
            const Datagram& d = datagrams[next + run];
            warnIfTooBig(d.length());
            addresses[run] = addressOf(d.family, d.ipv4, d.ipv6);
            list[run] = Outgoing{d.bytes.data(),      d.bytes.length(), addresses[run].get(),
                                 addresses[run].size, d.tail,           d.tail_length};
        }
        for (unsigned done = 0; done < run;) {
            errno = 0;
            const int sent = send_calls.send_batch(fd, list + done, run - done);
            if (sent > 0) {
                done += static_cast<unsigned>(sent);
                continue;
            }
            // The datagram the kernel refused gets the rest of a single send.
            const int error = errno != 0 ? errno : EIO;
            uint8_t joined[kMaxJoinedDatagram];
            finishSend(fd, joinDatagram(datagrams[next + done], joined), list[done].destination,
                       list[done].size, error);
            ++done;
        }
        next += run;
    }
}

// Picks up after a first attempt, immediate or batched, that failed with
// error (0: it did not). A raw socket sends whole datagrams; a short count
// without an errno counts as EIO. ENOBUFS is retried without limit, waiting
// 100, 200, 300 ... microseconds, because a full interface queue drains and
// losing tunnel traffic costs more than the wait.
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
