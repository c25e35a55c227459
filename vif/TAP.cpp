// The tap endpoint: frames between the tunnel and the local network stack.
#include "vif/TAP"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "core/Descriptor.h"
#include "vif/IP"
#include "vif/tap_platform.h"

namespace lumora::vif {

namespace {

constexpr long kMinMtu = 72;
constexpr long kMaxMtu = 1500;
// The read is bounded by the space behind the headroom.
constexpr uint16_t kReadSize = TAP::kBufferSize - TAP::kHeadroom;
// A waiting read that returns sooner than this found its frame already
// queued (a read that sleeps takes longer than a wake-up): a burst is on.
constexpr auto kBurstGap = std::chrono::microseconds(5);

}  // namespace

ssize_t (*TAP::write_call)(int, const void*, size_t) = ::write;

TAP::TAP(Logger* logger, const char* interface)
    : logger(logger),
      // One read slot per datagram that may be held, one alone where none is.
      buffer(std::make_unique_for_overwrite<uint8_t[]>(kBufferSize * IP::maxHeldSends())),
      slots(IP::maxHeldSends()),
      interface_argument(interface) {
    // Until the kernel names the interface, errors carry the device path.
    std::snprintf(name_text, sizeof name_text, "/dev/%s", interface);
    platform::OpenedTap opened =
        platform::openTap(logger, interface_argument, name_text, link_address);
    mtu_value = opened.mtu;
    fd = opened.fd.release();
    VXBRD_LOG(*logger, Notice, "%s mtu: %ld", name_text, mtu_value);
    VXBRD_LOG(*logger, Notice, "%s ready", name_text);
}

TAP::~TAP() {
    // Whatever this thread still holds goes out; it holds nothing from now on.
    IP::stopHoldingSends();
    stopHoldingWrites();
    if (fd >= 0) ::close(fd);
}

const char* TAP::name() const { return name_text; }

long TAP::mtu() const { return mtu_value; }

void TAP::setMtu(long mtu) {
    if (mtu < kMinMtu || mtu > kMaxMtu) {
        VXBRD_LOG(*logger, Error, "%s invalid MTU requested: %d", name_text, static_cast<int>(mtu));
        throw pdu::kInvalid;
    }
    platform::setTapMtu(logger, fd, name_text, mtu);
    mtu_value = mtu;
}

std::array<uint8_t, 6> TAP::mac() const {
    std::array<uint8_t, 6> out;
    std::memcpy(out.data(), link_address + 2, out.size());
    return out;
}

pdu::PDU TAP::read() {
    // A held datagram may lie in any slot used since the ring last came round.
    if (next_slot == slots) {
        next_slot = 0;
        if (IP::heldSends() != 0) IP::flushHeldSends();
    }
    uint8_t* const slot = buffer.get() + static_cast<size_t>(next_slot++) * kBufferSize;
    uint8_t* frame = slot + kHeadroom;
    ssize_t got = -1;
    bool queued = false;
    if (IP::heldSends() != 0) {
        // During a burst: take the next frame if one is queued, else hand the
        // held sends over before waiting.
        got = platform::readIfQueued(fd, frame, kReadSize);
        if (got >= 0) {
            queued = true;
        } else {
            const int error = errno;
            IP::flushHeldSends();
            if (error == EOPNOTSUPP) nowait_reads = false;
            if (error != EAGAIN && error != EWOULDBLOCK && error != EOPNOTSUPP && error != EINTR) {
                errno = error;
                failCall(logger, name_text, "read()");
            }
        }
    }
    if (!queued) {
        const auto start = std::chrono::steady_clock::now();
        got = ::read(fd, frame, kReadSize);
        if (got < 0) failCall(logger, name_text, "read()");
        queued = std::chrono::steady_clock::now() - start < kBurstGap;
    }
    // Two frames in a row that were already waiting make a burst; one alone
    // is too often chance, and probing for a next frame that is not there
    // costs more than holding saves.
    const bool hold = queued && previous_queued && nowait_reads;
    previous_queued = queued;
    // Cannot trigger with a bounded read; kept as a guard on the 16-bit offsets.
    const auto n = static_cast<uint16_t>(got);
    if (n > kReadSize) throw pdu::kInvalid;
    if (hold) {
        IP::holdSends(slot, frame + n);
    } else {
        IP::stopHoldingSends();
    }
    pdu::PDU p;
    p._buf = slot;
    p._cap = kBufferSize;
    p._begin = kHeadroom;
    p._end = static_cast<uint16_t>(kHeadroom + n);
    return p;
}

// One write, no retry: a frame the device does not take whole is dropped.
pdu::IReadWriter& TAP::write(pdu::PDU p) {
    if (holdWrite(p)) return *this;
    const int length = p.length();
    const ssize_t sent = write_call(fd, p.data(), static_cast<size_t>(length));
    if (sent != length) {
        VXBRD_LOG(*logger, Warning, "%s short write: %d (req) > %d (sent)", name_text, length,
                  static_cast<int>(sent));
    }
    return *this;
}

}  // namespace lumora::vif
