#include "pdu/Segmentation.h"

#include <cstring>

#include "pdu/Checksum.h"
#include "pdu/Ethernet.h"
#include "pdu/IPv4.h"
#include "pdu/IPv6.h"
#include "pdu/Transport.h"

namespace lumora::pdu {

namespace {

constexpr uint8_t kFin = 0x01;
constexpr uint8_t kPsh = 0x08;
constexpr uint8_t kCwr = 0x80;
constexpr uint16_t kTcpChecksumOffset = 16;

// The IP layer's offset behind the Ethernet header and at most one tag.
uint16_t networkOffset(PDU frame, uint16_t& ethertype) {
    if (frame.length() < EthernetPDU::kHeaderLength) throw kInvalid;
    ethertype = load16(frame.data() + 12);
    if (ethertype != kEthertypeVlan) return EthernetPDU::kHeaderLength;
    if (frame.length() < EthernetPDU::kHeaderLength + 4) throw kInvalid;
    ethertype = load16(frame.data() + 16);
    return EthernetPDU::kHeaderLength + 4;
}

}  // namespace

Segmenter::Segmenter(PDU whole, const Offload& offload) : frame(whole) {
    if (!offload.segmented() || offload.segment_size == 0) throw kInvalid;
    uint16_t ethertype = 0;
    network = networkOffset(frame, ethertype);
    const auto begin = static_cast<uint16_t>(frame._begin + network);
    if (offload.segmentation == Offload::kTcpIPv4) {
        if (ethertype != kEthertypeIPv4) throw kInvalid;
        const auto ip = IPv4PDU::at(frame, begin);
        if (ip.protocol() != kProtocolTcp || ip.fragmentOffset() != 0 || ip.moreFragments())
            throw kInvalid;
        transport = static_cast<uint16_t>(network + ip.headerLength());
        id = ip.id();
    } else {
        if (ethertype != kEthertypeIPv6) throw kInvalid;
        const auto ip = IPv6PDU::at(frame, begin);
        if (ip.nextHeader() != kProtocolTcp) throw kInvalid;
        transport = static_cast<uint16_t>(network + ip.headerLength());
        ipv6 = true;
    }
    const auto tcp = TcpPDU::at(frame, static_cast<uint16_t>(frame._begin + transport));
    header_length = static_cast<uint16_t>(transport + tcp.headerLength());
    if (header_length > kMaxHeaders || header_length >= frame.length()) throw kInvalid;
    std::memcpy(headers, frame.data(), header_length);
    segment_size = offload.segment_size;
    payload_length = frame.length() - header_length;
    sequence = tcp.sequence();
    flags = tcp.flags();
    segments = (payload_length + segment_size - 1) / segment_size;
}

uint16_t Segmenter::overwrittenBy(unsigned i) const {
    const uint32_t payload = frame._begin + header_length + i * uint32_t{segment_size};
    return static_cast<uint16_t>(payload - header_length);
}

PDU Segmenter::build(unsigned i) {
    const uint32_t offset = i * uint32_t{segment_size};
    const uint32_t size = i + 1 == segments ? payload_length - offset : segment_size;
    PDU segment = frame;
    segment._begin = overwrittenBy(i);
    segment._end = static_cast<uint16_t>(segment._begin + header_length + size);
    uint8_t* const start = segment.data();
    // Segment 0 keeps the headers where they are; the others get a copy of
    // the super-frame's (the only bytes the split copies).
    if (i != 0) std::memcpy(start, headers, header_length);

    const uint16_t tcp_length = static_cast<uint16_t>(header_length - transport + size);
    if (ipv6) {
        const auto ip = IPv6PDU::at(segment, static_cast<uint16_t>(segment._begin + network));
        ip.setPayloadLength(tcp_length);
    } else {
        const auto ip = IPv4PDU::at(segment, static_cast<uint16_t>(segment._begin + network));
        ip.setTotalLength(static_cast<uint16_t>(transport - network + tcp_length));
        ip.setId(static_cast<uint16_t>(id + i));
        setIPv4HeaderChecksum(ip);
    }

    uint8_t* const tcp = start + transport;
    store32(tcp + 4, sequence + offset);
    uint8_t segment_flags = flags;
    if (i != 0) segment_flags &= static_cast<uint8_t>(~kCwr);
    if (i + 1 != segments) segment_flags &= static_cast<uint8_t>(~(kFin | kPsh));
    tcp[13] = segment_flags;
    store16(tcp + kTcpChecksumOffset, 0);
    const uint8_t* ip = start + network;
    const uint64_t pseudo = ipv6 ? pseudoHeaderSumIPv6(ip + 8, ip + 24, kProtocolTcp, tcp_length)
                                 : pseudoHeaderSumIPv4(ip + 12, ip + 16, kProtocolTcp, tcp_length);
    const auto sum = static_cast<uint16_t>(~foldSum(sumBytes(tcp, tcp_length, pseudo)));
    store16(tcp + kTcpChecksumOffset, sum);
    return segment;
}

void completePartialChecksum(PDU frame, const Offload& offload) {
    completeChecksum(frame, offload.checksum_start, offload.checksum_offset);
}

}  // namespace lumora::pdu
