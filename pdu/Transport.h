// Views of the layers the frame walk ends in: TCP, UDP, ICMP and ICMPv6.
#pragma once

#include <cstdint>
#include <type_traits>

#include "pdu/PDU.h"
#include "pdu/View.h"

namespace lumora::pdu {

struct TcpPDU : PDU {
    static constexpr uint16_t kMinimumLength = 20;
    static constexpr uint8_t kSyn = 0x02;
    static constexpr uint8_t kAck = 0x10;

    // Throws 22 below 20 bytes, when the data-offset byte is below 0x50 (fewer
    // than 5 words), or when the header it gives is longer than the layer.
    static TcpPDU at(PDU p, uint16_t begin) {
        TcpPDU view = makeView<TcpPDU>(p, begin, kMinimumLength);
        if (view.data()[12] < 0x50 || view.headerLength() > view.length()) throw kInvalid;
        return view;
    }

    uint16_t headerLength() const { return static_cast<uint16_t>((data()[12] >> 4) * 4); }
    uint16_t innerBegin() const { return static_cast<uint16_t>(_begin + headerLength()); }

    uint16_t sourcePort() const { return load16(data()); }
    uint16_t destinationPort() const { return load16(data() + 2); }
    uint32_t sequence() const { return load32(data() + 4); }
    uint32_t acknowledgement() const { return load32(data() + 8); }
    uint8_t flags() const { return data()[13]; }
    bool syn() const { return (flags() & kSyn) != 0; }
    bool ack() const { return (flags() & kAck) != 0; }
    uint16_t window() const { return load16(data() + 14); }
    uint16_t checksum() const { return load16(data() + 16); }
    void setChecksum(uint16_t checksum) const { store16(data() + 16, checksum); }
};

struct UdpPDU : PDU {
    static constexpr uint16_t kHeaderLength = 8;

    // Throws 22 below 8 bytes.
    static UdpPDU at(PDU p, uint16_t begin) { return makeView<UdpPDU>(p, begin, kHeaderLength); }

    uint16_t headerLength() const { return kHeaderLength; }
    uint16_t innerBegin() const { return static_cast<uint16_t>(_begin + kHeaderLength); }

    uint16_t sourcePort() const { return load16(data()); }
    uint16_t destinationPort() const { return load16(data() + 2); }
    uint16_t udpLength() const { return load16(data() + 4); }
    uint16_t checksum() const { return load16(data() + 6); }
    void setChecksum(uint16_t checksum) const { store16(data() + 6, checksum); }
};

struct Icmpv4PDU : PDU {
    static constexpr uint16_t kMinimumLength = 4;

    // Throws 22 below 4 bytes.
    static Icmpv4PDU at(PDU p, uint16_t begin) {
        return makeView<Icmpv4PDU>(p, begin, kMinimumLength);
    }

    uint8_t type() const { return data()[0]; }
    uint8_t code() const { return data()[1]; }
    uint16_t checksum() const { return load16(data() + 2); }
};

struct Icmpv6PDU : PDU {
    // The type, code and checksum fields take 4 bytes, but an ICMPv6 message
    // is never shorter than 8.
    static constexpr uint16_t kMinimumLength = 8;

    // Throws 22 below 8 bytes.
    static Icmpv6PDU at(PDU p, uint16_t begin) {
        return makeView<Icmpv6PDU>(p, begin, kMinimumLength);
    }

    uint8_t type() const { return data()[0]; }
    uint8_t code() const { return data()[1]; }
    uint16_t checksum() const { return load16(data() + 2); }
};

static_assert(std::is_trivially_copyable_v<TcpPDU> && sizeof(TcpPDU) <= 16);
static_assert(std::is_trivially_copyable_v<UdpPDU> && sizeof(UdpPDU) <= 16);
static_assert(std::is_trivially_copyable_v<Icmpv4PDU> && sizeof(Icmpv4PDU) <= 16);
static_assert(std::is_trivially_copyable_v<Icmpv6PDU> && sizeof(Icmpv6PDU) <= 16);

}  // namespace lumora::pdu
