// The tap endpoint: frames between the tunnel and the local network stack.
#include "vif/TAP"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vif/tap_platform.h"

namespace lumora::vif {

namespace {

constexpr long kMinMtu = 72;
constexpr long kMaxMtu = 1500;
// The read is bounded by the space behind the headroom.
constexpr uint16_t kReadSize = TAP::kBufferSize - TAP::kHeadroom;
constexpr long kEthernetHeader = 14;

}  // namespace

ssize_t (*TAP::write_call)(int, const void*, size_t) = ::write;

TAP::TAP(Logger* logger, const char* interface)
    : logger(logger),
      // One byte more than the slots: see readBatch.
      buffer(std::make_unique_for_overwrite<uint8_t[]>(size_t{kBufferSize} * kMaxBatch + 1)),
      batch_limit(kMaxBatch),
      ring(WriteRing::open()),
      interface_argument(interface) {
    // Until the kernel names the interface, errors carry the device path.
    std::snprintf(name_text, sizeof name_text, "/dev/%s", interface);
    platform::OpenedTap opened =
        platform::openTap(logger, interface_argument, name_text, link_address);
    mtu_value = opened.mtu;
    fd = std::move(opened.fd);
    VXBRD_LOG(*logger, Notice, "%s mtu: %ld", name_text, mtu_value);
    if (mtu_value + kEthernetHeader > kReadSize) {
        VXBRD_LOG(*logger, Warning,
                  "%s mtu %ld exceeds the read buffer: frames up to %u bytes are carried, "
                  "longer ones are dropped",
                  name_text, mtu_value, static_cast<unsigned>(kReadSize));
    }
    VXBRD_LOG(*logger, Notice, "%s ready", name_text);
}

const char* TAP::name() const { return name_text; }

long TAP::mtu() const { return mtu_value; }

void TAP::setMtu(long mtu) {
    if (mtu < kMinMtu || mtu > kMaxMtu) {
        VXBRD_LOG(*logger, Error, "%s invalid MTU requested: %d", name_text, static_cast<int>(mtu));
        throw pdu::kInvalid;
    }
    platform::setTapMtu(logger, fd.get(), name_text, mtu);
    mtu_value = mtu;
}

std::array<uint8_t, 6> TAP::mac() const {
    std::array<uint8_t, 6> out;
    std::memcpy(out.data(), link_address + 2, out.size());
    return out;
}

// Each read asks for one byte more than the slot holds: a device hands a
// frame longer than the read only in part, and the extra byte is how such a
// frame shows. It lands in the next slot's headroom (or the byte behind the
// last slot) before that slot is read into; the cut frame is dropped with a
// line and its slot read again.
unsigned TAP::readBatch(std::span<pdu::PDU> frames) {
    const unsigned limit = std::min<unsigned>(batch_limit, static_cast<unsigned>(frames.size()));
    unsigned count = 0;
    while (count < limit) {
        uint8_t* const slot = buffer.get() + size_t{count} * kBufferSize;
        uint8_t* const frame = slot + kHeadroom;
        ssize_t got;
        if (count == 0) {
            got = ::read(fd.get(), frame, size_t{kReadSize} + 1);
            if (got < 0) failCall(logger, name_text, "read()");
        } else {
            if (!nowait_reads) break;
            got = platform::readIfQueued(fd.get(), frame, size_t{kReadSize} + 1);
            if (got < 0) {
                // Nothing more queued (or the device cannot say): the batch
                // ends here; a real failure is met by the next blocking read.
                if (errno == EOPNOTSUPP) nowait_reads = false;
                break;
            }
        }
        if (got > kReadSize) {
            VXBRD_LOG(*logger, Notice, "%s: frame longer than %u bytes dropped", name_text,
                      static_cast<unsigned>(kReadSize));
            continue;
        }
        const auto n = static_cast<uint16_t>(got);
        frames[count] =
            pdu::PDU{slot, kBufferSize, kHeadroom, static_cast<uint16_t>(kHeadroom + n), {0, 0}};
        ++count;
    }
    return count;
}

pdu::PDU TAP::read() {
    pdu::PDU frame;
    readBatch(std::span(&frame, 1));
    return frame;
}

void TAP::warnShortWrite(int length, ssize_t sent) {
    if (sent != length) {
        VXBRD_LOG(*logger, Warning, "%s short write: %d (req) > %d (sent)", name_text, length,
                  static_cast<int>(sent));
    }
}

// One write, no retry: a frame the device does not take whole is dropped.
pdu::IReadWriter& TAP::write(pdu::PDU p) {
    const int length = p.length();
    warnShortWrite(length, write_call(fd.get(), p.data(), static_cast<size_t>(length)));
    return *this;
}

void TAP::writeBatch(std::span<const pdu::PDU> frames) {
    if (ring == nullptr || frames.size() < 2) {
        for (const pdu::PDU& frame : frames) write(frame);
        return;
    }
    for (size_t next = 0; next < frames.size(); next += WriteRing::kEntries) {
        const size_t count = std::min<size_t>(WriteRing::kEntries, frames.size() - next);
        WriteRing::Write writes[WriteRing::kEntries];
        ssize_t results[WriteRing::kEntries];
        for (size_t i = 0; i < count; ++i) {
            const pdu::PDU& frame = frames[next + i];
            writes[i] = WriteRing::Write{fd.get(), frame.data(), frame.length()};
        }
        bool submitted;
        {
            const std::lock_guard hold(ring_mutex);
            submitted = ring->writeAll(std::span(writes, count), results);
        }
        for (size_t i = 0; i < count; ++i) {
            const pdu::PDU& frame = frames[next + i];
            if (!submitted) {
                write(frame);
            } else {
                warnShortWrite(frame.length(), results[i]);
            }
        }
    }
}

}  // namespace lumora::vif
