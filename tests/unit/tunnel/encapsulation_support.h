// Helpers for the encapsulation tests: frames from readable hex, a frame
// buffer with headroom like a tap read's, the recording GRE socket send()
// hands its datagrams to, a logger whose lines can be read back, and an
// independent one's-complement checksum to compare the fragment headers with.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "pdu/Encapsulation.h"
#include "pdu/Fragment.h"
#include "pdu/PDU.h"
#include "recording_support.h"
#include "tunnel/Send.h"

namespace lumora::test::encap {

using test::Bytes;
using test::MemoryLog;
using test::RecordingGreSocket;
using test::v4;
using test::v6;
// Packet editing lives in pdu/; these tests check it with the send.
using pdu::encapsulate;
using pdu::FragmentState;
using pdu::nextFragment;
using pdu::sizeLimit;

// send() as a loop calls it for a frame in its read slot, then the loop's
// flush: every datagram reaches the socket before this returns.
inline void send(Logger& log, const Destination& destination, pdu::PDU frame, const uint32_t* key,
                 uint16_t mtu_setting) {
    SendQueue sends;
    lumora::send(log, destination, frame, key, mtu_setting, sends, true);
    sends.flush();
}

// The names these tests spell frames with.
inline constexpr auto& hex = hexBytes;
inline constexpr auto& concat = join;
inline std::string hexOf(const uint8_t* p, size_t n) { return hexText(p, n); }
inline std::string hexOf(const Bytes& b) { return hexText(b); }

inline Bytes slice(const Bytes& b, size_t from, size_t count) {
    if (from + count > b.size()) throw std::out_of_range("slice");
    return Bytes(b.begin() + static_cast<long>(from), b.begin() + static_cast<long>(from + count));
}

// A payload whose bytes differ from their neighbours at every 8-byte step,
// so a fragment cut or placed at the wrong offset cannot go unnoticed.
inline Bytes pattern(size_t n) {
    Bytes out(n);
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>((i * 7 + i / 251) & 0xff);
    return out;
}

inline void put16(Bytes& b, size_t at, uint16_t v) { pdu::store16(b.data() + at, v); }

// Documentation addresses and locally administered MACs used throughout.
inline const char* const kEthernetIPv4 = "02 00 5e 00 00 02  02 00 5e 00 00 01  08 00";
inline const char* const kMacs = "02 00 5e 00 00 02  02 00 5e 00 00 01";

// Ethernet + IPv4 (UDP, 192.0.2.1 -> 198.51.100.2) of the given total length.
// The header checksum is a deliberate 0xbeef, so a recomputed one shows; DF
// is set, so a fragment that kept it would show too. flags_offset replaces the
// flags/offset word.
inline Bytes ipv4Frame(uint16_t packet_length, uint16_t flags_offset = 0x4000) {
    Bytes header = hex("45 00 00 00 1c 46 00 00 40 11 be ef c0 00 02 01 c6 33 64 02");
    put16(header, 2, packet_length);
    put16(header, 6, flags_offset);
    return concat({hex(kEthernetIPv4), header, pattern(packet_length - 20u)});
}

// One's-complement sum folded until it fits (the textbook header checksum).
inline uint16_t referenceChecksum(const uint8_t* header, size_t length, size_t skip_word) {
    uint64_t sum = 0;
    for (size_t word = 0; word < length / 2; ++word) {
        if (word == skip_word) continue;
        sum += static_cast<uint16_t>(header[2 * word] << 8 | header[2 * word + 1]);
    }
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum & 0xffff);
}

// A 4096-byte buffer like a tap endpoint's, the frame copied in at `headroom`.
// cap_after_frame shrinks _cap to end that many bytes past the frame.
struct FrameBuffer {
    explicit FrameBuffer(const Bytes& frame, uint16_t headroom = 64, long cap_after_frame = -1)
        : storage(4096, 0xee) {
        if (!frame.empty()) std::memcpy(storage.data() + headroom, frame.data(), frame.size());
        pdu._buf = storage.data();
        pdu._begin = headroom;
        pdu._end = static_cast<uint16_t>(headroom + frame.size());
        pdu._cap = cap_after_frame < 0 ? static_cast<uint16_t>(storage.size())
                                       : static_cast<uint16_t>(pdu._end + cap_after_frame);
    }
    Bytes storage;
    pdu::PDU pdu;
};

inline Bytes bytesOf(pdu::PDU p) { return Bytes(p.data(), p.data() + p.length()); }

// The socket send() hands its datagrams to: "eth1 (ip://192.0.2.1)" with the
// given MTU. Its storage is reserved here, before any window that counts
// allocations opens.
inline RecordingGreSocket sendingSocket(long mtu = 1480) {
    RecordingGreSocket socket("eth1", "192.0.2.1");
    socket.setMtuValue(mtu);
    return socket;
}

// An IPv4 peer on the given VLAN behind the recording socket.
inline Destination peerV4(RecordingGreSocket& socket, uint16_t vlan,
                          const char* address = "203.0.113.9") {
    Destination d;
    d.vlan = vlan;
    d.family = AF_INET;
    d.ipv4 = v4(address);
    d.endpoint = &socket;
    return d;
}

// Runs f and returns the int it throws; fails the test when nothing or
// something else is thrown.
template <typename F>
int thrownInt(F&& f) {
    try {
        f();
    } catch (int e) {
        return e;
    } catch (...) {
        ADD_FAILURE() << "threw something other than int";
        return -1;
    }
    ADD_FAILURE() << "threw nothing";
    return -1;
}

}  // namespace lumora::test::encap
