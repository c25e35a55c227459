// Held sends of the GRE socket endpoint: while a tap thread still finds
// frames queued on its tap, the datagrams it sends are copied aside and
// handed to the kernel together, so a burst costs one system call per batch
// instead of one per datagram. Nothing is held on any other thread.
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "vif/IP"
#include "vif/ip_platform.h"

namespace lumora::vif {

namespace {

constexpr unsigned kHeldMax = 32;
// A whole tap read (4032 bytes) with its tag and keyed GRE header fits.
constexpr size_t kHeldRoom = 4160;

struct Held {
    IP* endpoint;
    int fd;
    union {
        sockaddr_in ipv4;
        sockaddr_in6 ipv6;
    } to;
    socklen_t size;
    uint16_t length;
    uint8_t data[kHeldRoom];
};

struct HeldSends {
    bool holding = false;
    unsigned count = 0;
    unsigned limit = 0;
    std::unique_ptr<Held[]> held;  // allocated the first time a thread holds
};

thread_local HeldSends held_sends;

}  // namespace

void IP::holdSends(bool hold) {
    HeldSends& state = held_sends;
    if (!hold) {
        if (state.count != 0) flushHeldSends();
        state.holding = false;
        return;
    }
    if (state.limit == 0) {
        state.limit = platform::sendBatchLimit();
        if (state.limit > kHeldMax) state.limit = kHeldMax;
    }
    if (state.limit <= 1) return;
    if (!state.held) state.held = std::make_unique<Held[]>(kHeldMax);
    state.holding = true;
}

unsigned IP::heldSends() { return held_sends.count; }

// Copies the datagram aside when this thread holds its sends. A datagram
// that cannot be held (no socket, too large) is sent at once, behind what is
// already held, so the thread's datagrams keep their order.
bool IP::holdSend(int fd, pdu::PDU p, const sockaddr* destination, socklen_t size) {
    HeldSends& state = held_sends;
    if (!state.holding) return false;
    const size_t length = p.length();
    if (fd < 0 || length > kHeldRoom || size > sizeof(Held::to)) {
        flushHeldSends();
        return false;
    }
    Held& slot = state.held[state.count++];
    slot.endpoint = this;
    slot.fd = fd;
    std::memcpy(&slot.to, destination, size);
    slot.size = size;
    slot.length = static_cast<uint16_t>(length);
    std::memcpy(slot.data, p.data(), length);
    if (state.count >= state.limit) flushHeldSends();
    return true;
}

// Hands the held datagrams over in order, consecutive ones of the same socket
// in one batched send. A datagram the batch did not take gets the rest of
// the ordinary send (waiting for buffer space, ENOBUFS retries, warnings).
void IP::flushHeldSends() {
    HeldSends& state = held_sends;
    const unsigned count = state.count;
    state.count = 0;
    Outgoing list[kHeldMax];
    for (unsigned next = 0; next < count;) {
        const int fd = state.held[next].fd;
        unsigned run = 0;
        for (; next + run < count && run < state.limit && state.held[next + run].fd == fd; ++run) {
            const Held& slot = state.held[next + run];
            list[run] = Outgoing{slot.data, slot.length,
                                 reinterpret_cast<const sockaddr*>(&slot.to), slot.size};
        }
        errno = 0;
        const int sent = send_calls.send_batch(fd, list, run);
        if (sent > 0) {
            // Whatever came after a refused datagram is offered again: the
            // kernel reports that datagram's error on its own.
            next += static_cast<unsigned>(sent);
            continue;
        }
        const int error = errno != 0 ? errno : EIO;
        Held& failed = state.held[next];
        const pdu::PDU p{failed.data, failed.length, 0, failed.length, {0, 0}};
        failed.endpoint->finishSend(fd, p, reinterpret_cast<const sockaddr*>(&failed.to),
                                    failed.size, error);
        ++next;
    }
}

}  // namespace lumora::vif
