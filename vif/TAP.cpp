// The tap endpoint: frames between the tunnel and the local network stack.
#include "vif/TAP"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vif/VnetHeader.h"
#include "vif/tap_platform.h"

namespace lumora::vif {

namespace {

constexpr long kMinMtu = 72;
constexpr long kMaxMtu = 1500;
// The read is bounded by the space behind the headroom.
constexpr uint16_t kReadSize = TAP::kBufferSize - TAP::kHeadroom;
constexpr long kEthernetHeader = 14;
// With offloads a read takes the largest frame a 16-bit view can hold
// behind the headroom; the header lands in the headroom's last bytes.
constexpr size_t kOffloadRead = 65535 - TAP::kHeadroom;
constexpr size_t kOffloadSlot = TAP::kHeadroom + kOffloadRead;

// What precedes an ordinary frame written to a tap with offloads.
constexpr uint8_t kPlainHeader[VnetHeader::kLength] = {};

iovec piece(const void* data, size_t length) { return iovec{const_cast<void*>(data), length}; }

}  // namespace

ssize_t (*TAP::write_call)(int, const void*, size_t) = ::write;

TAP::TAP(Logger* logger, const char* interface, bool offloads)
    : logger(logger),
      batch_limit(kMaxBatch),
      ring(WriteRing::open()),
      interface_argument(interface) {
    // Until the kernel names the interface, errors carry the device path.
    std::snprintf(name_text, sizeof name_text, "/dev/%s", interface);
    platform::OpenedTap opened =
        platform::openTap(logger, interface_argument, name_text, link_address, offloads);
    mtu_value = opened.mtu;
    offload = opened.offloads;
    fd = std::move(opened.fd);
    // Without offloads, one byte more than the slots: see readFrames.
    buffer = std::make_unique_for_overwrite<uint8_t[]>(
        offload ? kOffloadArea : size_t{kBufferSize} * kMaxBatch + 1);
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

unsigned TAP::readBatch(std::span<pdu::PDU> frames) {
    pdu::Offload offloads[kMaxBatch];
    return readFrames(frames, std::span(offloads));
}

// An ordinary frame longer than kReadSize is dropped with a line and its slot
// read again, never handed on cut short. Without offloads each read asks for
// one byte more than the slot holds: a device hands a frame longer than the
// read only in part, and the extra byte is how such a frame shows. It lands
// in the next slot's headroom (or the byte behind the last slot) before that
// slot is read into. With offloads a read takes 64 kB, so the length shows.
unsigned TAP::readFrames(std::span<pdu::PDU> frames, std::span<pdu::Offload> offloads) {
    const unsigned limit = std::min<unsigned>({batch_limit, static_cast<unsigned>(frames.size()),
                                               static_cast<unsigned>(offloads.size())});
    const size_t header = offload ? VnetHeader::kLength : 0;
    const size_t read_size = offload ? kOffloadRead + header : size_t{kReadSize} + 1;
    const size_t area = offload ? kOffloadArea : size_t{kBufferSize} * kMaxBatch;
    size_t at = 0;
    unsigned count = 0;
    while (count < limit && area - at >= (offload ? kOffloadSlot : kBufferSize)) {
        uint8_t* const slot = buffer.get() + at;
        uint8_t* const into = slot + kHeadroom - header;
        ssize_t got;
        if (count == 0) {
            got = ::read(fd.get(), into, read_size);
            if (got < 0) failCall(logger, name_text, "read()");
        } else {
            if (!nowait_reads) break;
            got = platform::readIfQueued(fd.get(), into, read_size);
            if (got < 0) {
                // Nothing more queued (or the device cannot say): the batch
                // ends here; a real failure is met by the next blocking read.
                if (errno == EOPNOTSUPP) nowait_reads = false;
                break;
            }
        }
        pdu::Offload& said = offloads[count];
        said = pdu::Offload{};
        size_t n = static_cast<size_t>(got);
        if (offload) {
            // A read shorter than the header carries no frame at all.
            if (n < header || !VnetHeader::decode(into, said))
                said.segmentation = pdu::Offload::kUnsupported;
            n = n < header ? 0 : n - header;
        }
        if (said.segmented()) {
            const size_t cap = std::min(kOffloadSlot, area - at);
            frames[count] = pdu::PDU{slot,
                                     static_cast<uint16_t>(cap),
                                     kHeadroom,
                                     static_cast<uint16_t>(kHeadroom + n),
                                     {0, 0}};
            at += (kHeadroom + n + kBufferSize - 1) / kBufferSize * kBufferSize;
            ++count;
            continue;
        }
        // An ordinary frame is what a plain read gives: at most kReadSize
        // bytes in a slot of kBufferSize.
        if (n > kReadSize) {
            VXBRD_LOG(*logger, Notice, "%s: frame longer than %u bytes dropped", name_text,
                      static_cast<unsigned>(kReadSize));
            continue;
        }
        frames[count] =
            pdu::PDU{slot, kBufferSize, kHeadroom, static_cast<uint16_t>(kHeadroom + n), {0, 0}};
        at += kBufferSize;
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
// With offloads the header goes into the bytes in front of the frame, which
// are given back afterwards; a frame without room there is copied behind
// one.
pdu::IReadWriter& TAP::write(pdu::PDU p) {
    const int length = p.length();
    if (!offload) {
        warnShortWrite(length, write_call(fd.get(), p.data(), static_cast<size_t>(length)));
        return *this;
    }
    constexpr size_t header = VnetHeader::kLength;
    ssize_t sent;
    if (p._begin >= header) {
        uint8_t* const front = p.data() - header;
        uint8_t saved[header];
        std::memcpy(saved, front, header);
        std::memcpy(front, kPlainHeader, header);
        sent = write_call(fd.get(), front, header + static_cast<size_t>(length));
        std::memcpy(front, saved, header);
    } else {
        uint8_t joined[header + 65535];
        std::memcpy(joined, kPlainHeader, header);
        std::memcpy(joined + header, p.data(), static_cast<size_t>(length));
        sent = write_call(fd.get(), joined, header + static_cast<size_t>(length));
    }
    warnShortWrite(length, sent < 0 ? sent : sent - static_cast<ssize_t>(header));
    return *this;
}

void TAP::submit(std::span<const WriteRing::Write> writes, const int* lengths) {
    const ssize_t header = offload ? VnetHeader::kLength : 0;
    ssize_t results[WriteRing::kEntries];
    bool submitted = false;
    if (ring != nullptr) {
        const std::lock_guard hold(ring_mutex);
        submitted = ring->writeAll(writes, results);
    }
    for (size_t i = 0; i < writes.size(); ++i) {
        if (!submitted)
            results[i] =
                ::writev(fd.get(), writes[i].pieces, static_cast<int>(writes[i].piece_count));
        warnShortWrite(lengths[i], results[i] < 0 ? results[i] : results[i] - header);
    }
}

void TAP::writeBatch(std::span<const pdu::PDU> frames) {
    if (ring == nullptr || frames.size() < 2) {
        for (const pdu::PDU& frame : frames) write(frame);
        return;
    }
    for (size_t next = 0; next < frames.size(); next += WriteRing::kEntries) {
        const size_t count = std::min<size_t>(WriteRing::kEntries, frames.size() - next);
        iovec pieces[WriteRing::kEntries][2];
        WriteRing::Write writes[WriteRing::kEntries];
        int lengths[WriteRing::kEntries];
        for (size_t i = 0; i < count; ++i) {
            const pdu::PDU& frame = frames[next + i];
            unsigned used = 0;
            if (offload) pieces[i][used++] = piece(kPlainHeader, sizeof kPlainHeader);
            pieces[i][used++] = piece(frame.data(), frame.length());
            writes[i] = WriteRing::Write{fd.get(), pieces[i], used};
            lengths[i] = frame.length();
        }
        submit(std::span(writes, count), lengths);
    }
}

void TAP::writeFrames(std::span<const TapFrame> frames) {
    // The pieces of one submission: a header and up to kMaxBatch pieces per
    // frame, no more pieces in all than frames can hold.
    constexpr unsigned kPieces = WriteRing::kEntries + kMaxBatch * 2;
    size_t next = 0;
    while (next < frames.size()) {
        iovec pieces[kPieces];
        uint8_t headers[WriteRing::kEntries][VnetHeader::kLength];
        WriteRing::Write writes[WriteRing::kEntries];
        int lengths[WriteRing::kEntries];
        unsigned used = 0;
        size_t count = 0;
        for (; count < WriteRing::kEntries && next + count < frames.size(); ++count) {
            const TapFrame& frame = frames[next + count];
            if (used + 1 + frame.piece_count > kPieces) break;
            iovec* const first = pieces + used;
            int length = 0;
            if (offload) {
                VnetHeader::encode(frame.offload, headers[count]);
                pieces[used++] = piece(headers[count], VnetHeader::kLength);
            }
            for (unsigned p = 0; p < frame.piece_count; ++p) {
                pieces[used++] = piece(frame.pieces[p].data(), frame.pieces[p].length());
                length += frame.pieces[p].length();
            }
            writes[count] =
                WriteRing::Write{fd.get(), first, static_cast<unsigned>(pieces + used - first)};
            lengths[count] = length;
        }
        submit(std::span(writes, count), lengths);
        next += count;
    }
}

}  // namespace lumora::vif
