#include "pdu/Coalescing.h"

#include <cstring>

#include "pdu/Checksum.h"
#include "pdu/Ethernet.h"
#include "pdu/IPv4.h"
#include "pdu/IPv6.h"

namespace lumora::pdu {

namespace {

constexpr uint8_t kAck = 0x10;
constexpr uint8_t kPsh = 0x08;
constexpr uint8_t kFin = 0x01;
constexpr uint8_t kEce = 0x40;
constexpr uint16_t kTcpChecksumOffset = 16;
constexpr uint16_t kNetwork = EthernetPDU::kHeaderLength;
constexpr uint16_t kIPv4Header = 20;
constexpr uint16_t kDontFragment = 0x4000;

uint16_t tcpHeaderLength(const uint8_t* tcp) { return static_cast<uint16_t>((tcp[12] >> 4) * 4); }

// The pseudo-header sum of a parsed segment, over its TCP length.
uint64_t pseudoSum(const TcpSegment& segment) {
    const uint8_t* const ip = segment.frame.data() + kNetwork;
    const auto tcp_length = static_cast<uint16_t>(segment.frame.length() - segment.transport);
    return segment.ipv6 ? pseudoHeaderSumIPv6(ip + 8, ip + 24, kProtocolTcp, tcp_length)
                        : pseudoHeaderSumIPv4(ip + 12, ip + 16, kProtocolTcp, tcp_length);
}

bool checksumRight(const TcpSegment& segment, uint64_t pseudo) {
    const auto tcp_length = static_cast<uint16_t>(segment.frame.length() - segment.transport);
    return foldSum(sumBytes(segment.frame.data() + segment.transport, tcp_length, pseudo)) ==
           0xffff;
}

// What readTcpSegment and readHostMergedSegment both ask of a frame, with
// out filled; the flags and the checksum are left to them.
bool parseTcpSegment(PDU frame, TcpSegment& out) {
    const uint16_t length = frame.length();
    if (length < kNetwork + IPv6PDU::kHeaderLength) return false;
    const uint8_t* const start = frame.data();
    const uint8_t* const ip = start + kNetwork;
    const uint16_t ethertype = load16(start + 12);
    uint16_t transport = 0;
    uint16_t ip_length = 0;
    if (ethertype == kEthertypeIPv4) {
        // No options, TCP, neither a fragment nor one in waiting.
        if (ip[0] != 0x45 || ip[9] != kProtocolTcp || (load16(ip + 6) & 0x3fff) != 0) return false;
        transport = kNetwork + kIPv4Header;
        ip_length = load16(ip + 2);
        out.ipv6 = false;
    } else if (ethertype == kEthertypeIPv6) {
        if ((ip[0] >> 4) != 6 || ip[6] != kProtocolTcp) return false;
        transport = kNetwork + IPv6PDU::kHeaderLength;
        ip_length = static_cast<uint16_t>(load16(ip + 4) + IPv6PDU::kHeaderLength);
        out.ipv6 = true;
    } else {
        return false;
    }
    // Padding behind the packet would end up inside the merged payload.
    if (kNetwork + uint32_t{ip_length} != length || transport + 20u > length) return false;
    const uint8_t* const tcp = start + transport;
    const uint16_t tcp_header = tcpHeaderLength(tcp);
    if (tcp_header < 20 || transport + tcp_header >= length) return false;
    out.frame = frame;
    out.transport = transport;
    out.payload = static_cast<uint16_t>(transport + tcp_header);
    out.payload_length = static_cast<uint16_t>(length - out.payload);
    out.sequence = load32(tcp + 4);
    out.flags = tcp[13];
    return true;
}

}  // namespace

bool readTcpSegment(PDU frame, TcpSegment& out) {
    return parseTcpSegment(frame, out) && (out.flags & ~kPsh) == kAck &&
           checksumRight(out, pseudoSum(out));
}

bool readHostMergedSegment(PDU frame, TcpSegment& out) {
    if (!parseTcpSegment(frame, out) || (out.flags & ~(kPsh | kFin | kEce)) != kAck) return false;
    const uint64_t pseudo = pseudoSum(out);
    const uint8_t* const field = frame.data() + out.transport + kTcpChecksumOffset;
    return load16(field) == foldSum(pseudo) && !checksumRight(out, pseudo);
}

Offload hostMergedOffload(const TcpSegment& merged, uint16_t segment_size) {
    Offload offload;
    offload.partial_checksum = true;
    offload.header_length = merged.payload;
    offload.checksum_start = merged.transport;
    offload.checksum_offset = kTcpChecksumOffset;
    if (segment_size != 0 && merged.payload_length > segment_size) {
        offload.segmentation = merged.ipv6 ? Offload::kTcpIPv6 : Offload::kTcpIPv4;
        offload.segment_size = segment_size;
    }
    return offload;
}

void TcpRun::start(const TcpSegment& segment) {
    first = segment;
    segments = 1;
    total_payload = segment.payload_length;
    last_flags = segment.flags;
    closed = (segment.flags & kPsh) != 0;
}

bool TcpRun::append(const TcpSegment& next) {
    if (closed || next.ipv6 != first.ipv6 || next.payload != first.payload) return false;
    if (next.payload_length > first.payload_length) return false;
    if (first.payload + uint32_t{total_payload} + next.payload_length - kNetwork > kMaxLength)
        return false;
    const uint8_t* const a = first.frame.data();
    const uint8_t* const b = next.frame.data();
    if (std::memcmp(a, b, kNetwork) != 0) return false;
    const uint8_t* const ip_a = a + kNetwork;
    const uint8_t* const ip_b = b + kNetwork;
    if (first.ipv6) {
        // Version, traffic class and flow label; hop limit; both addresses.
        if (std::memcmp(ip_a, ip_b, 4) != 0 || ip_a[7] != ip_b[7] ||
            std::memcmp(ip_a + 8, ip_b + 8, 32) != 0)
            return false;
    } else {
        if (ip_a[1] != ip_b[1] || ip_a[8] != ip_b[8] ||
            ((load16(ip_a + 6) ^ load16(ip_b + 6)) & kDontFragment) != 0 ||
            std::memcmp(ip_a + 12, ip_b + 12, 8) != 0)
            return false;
        if (load16(ip_b + 4) != static_cast<uint16_t>(load16(ip_a + 4) + segments)) return false;
    }
    const uint8_t* const tcp_a = a + first.transport;
    const uint8_t* const tcp_b = b + next.transport;
    // Ports; acknowledgement; header length and options.
    if (std::memcmp(tcp_a, tcp_b, 4) != 0 || std::memcmp(tcp_a + 8, tcp_b + 8, 4) != 0 ||
        tcp_a[12] != tcp_b[12] ||
        std::memcmp(tcp_a + 20, tcp_b + 20, first.payload - first.transport - 20u) != 0)
        return false;
    if (next.sequence != first.sequence + total_payload) return false;
    ++segments;
    total_payload += next.payload_length;
    last_flags = next.flags;
    closed = next.payload_length < first.payload_length || (next.flags & kPsh) != 0;
    return true;
}

Offload TcpRun::finish() {
    uint8_t* const start = first.frame.data();
    const PDU frame = first.frame;
    const auto tcp_length = static_cast<uint16_t>(first.payload - first.transport + total_payload);
    uint8_t* const tcp = start + first.transport;
    const uint8_t* const ip = start + kNetwork;
    uint64_t pseudo;
    Offload offload;
    if (first.ipv6) {
        IPv6PDU::at(frame, static_cast<uint16_t>(frame._begin + kNetwork))
            .setPayloadLength(tcp_length);
        pseudo = pseudoHeaderSumIPv6(ip + 8, ip + 24, kProtocolTcp, tcp_length);
        offload.segmentation = Offload::kTcpIPv6;
    } else {
        const auto header = IPv4PDU::at(frame, static_cast<uint16_t>(frame._begin + kNetwork));
        header.setTotalLength(static_cast<uint16_t>(kIPv4Header + tcp_length));
        setIPv4HeaderChecksum(header);
        pseudo = pseudoHeaderSumIPv4(ip + 12, ip + 16, kProtocolTcp, tcp_length);
        offload.segmentation = Offload::kTcpIPv4;
    }
    tcp[13] = static_cast<uint8_t>(tcp[13] | (last_flags & kPsh));
    store16(tcp + 16, foldSum(pseudo));
    offload.partial_checksum = true;
    offload.segment_size = first.payload_length;
    offload.header_length = first.payload;
    offload.checksum_start = first.transport;
    offload.checksum_offset = 16;
    return offload;
}

}  // namespace lumora::pdu
