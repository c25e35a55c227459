// Held sends of the GRE socket endpoint: while a tap thread still finds
// frames queued on its tap, the datagrams it makes of them are handed to the
// kernel together, so a burst costs one system call per batch instead of one
// per datagram. A held datagram is not copied: it is remembered where it lies
// (the tap's read slot, headers prepended in its headroom), and the tap
// leaves those bytes alone until the hold is flushed. Nothing is held on any
// other thread.
#include <netinet/in.h>

#include <cerrno>
#include <cstring>

#include "vif/IP"
#include "vif/ip_platform.h"

namespace lumora::vif {

namespace {

constexpr unsigned kHeldMax = 32;

struct Held {
    IP* endpoint;
    int fd;
    const uint8_t* data;
    uint16_t length;
    socklen_t size;
    union {
        sockaddr_in ipv4;
        sockaddr_in6 ipv6;
    } to;
};

struct HeldSends {
    bool holding = false;
    unsigned count = 0;
    unsigned limit = 0;
    // The frame the thread read last: only a datagram made of it in place
    // (it ends where the frame ends) may be held.
    const uint8_t* frame_begin = nullptr;
    const uint8_t* frame_end = nullptr;
    Held held[kHeldMax];
};

thread_local HeldSends held_sends;

}  // namespace

void IP::holdSends(const uint8_t* frame_begin, const uint8_t* frame_end) {
    HeldSends& state = held_sends;
    if (state.limit == 0) state.limit = maxHeldSends();
    if (state.limit <= 1) return;
    state.holding = true;
    state.frame_begin = frame_begin;
    state.frame_end = frame_end;
}

void IP::stopHoldingSends() {
    HeldSends& state = held_sends;
    if (state.count != 0) flushHeldSends();
    state.holding = false;
    state.frame_begin = state.frame_end = nullptr;
}

unsigned IP::heldSends() { return held_sends.count; }

unsigned IP::maxHeldSends() {
    const unsigned limit = platform::sendBatchLimit();
    return limit < kHeldMax ? limit : kHeldMax;
}

// Remembers the datagram when this thread holds its sends and the datagram
// is the frame just read with its headers in front. Anything else (a flood
// copy, a fragment cut from the frame and overwritten by the next one) is
// sent at once, behind what is already held, so the thread's datagrams keep
// their order.
bool IP::holdSend(int fd, pdu::PDU p, const sockaddr* destination, socklen_t size) {
    HeldSends& state = held_sends;
    if (!state.holding) return false;
    const uint8_t* data = p.data();
    const uint8_t* end = data + p.length();
    if (fd < 0 || data < state.frame_begin || end != state.frame_end || size > sizeof(Held::to)) {
        flushHeldSends();
        return false;
    }
    Held& slot = state.held[state.count++];
    slot.endpoint = this;
    slot.fd = fd;
    slot.data = data;
    slot.length = p.length();
    slot.size = size;
    std::memcpy(&slot.to, destination, size);
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
        const Held& failed = state.held[next];
        auto* bytes = const_cast<uint8_t*>(failed.data);
        const pdu::PDU p{bytes, failed.length, 0, failed.length, {0, 0}};
        failed.endpoint->finishSend(fd, p, reinterpret_cast<const sockaddr*>(&failed.to),
                                    failed.size, error);
        ++next;
    }
}

}  // namespace lumora::vif
