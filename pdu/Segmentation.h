// Splitting a TCP super-frame read from a tap into the segments the host's
// own stack would have put on the wire: the payload cut every segment_size
// bytes; IPv4 total length, ID (one up per segment) and header checksum;
// IPv6 payload length; the sequence number advanced; CWR kept on the first
// segment only, FIN and PSH on the last only; every TCP checksum complete.
//
// The split works in place and copies only headers: segment i keeps its
// payload where the read put it and gets a copy of the super-frame's headers
// written just in front of that payload, over the last bytes of segment
// i - 1. So segments are built in increasing order, and whatever still
// refers to segment i - 1's bytes must let go of the overwritten ones first
// (overwrittenBy says which).
#pragma once

#include <cstdint>

#include "pdu/Offload.h"
#include "pdu/PDU.h"

namespace lumora::pdu {

class Segmenter {
  public:
    // Ethernet with one tag, IPv4 with the longest options, TCP with the
    // longest options.
    static constexpr uint16_t kMaxHeaders = 18 + 60 + 60;

    // frame: the super-frame from its Ethernet header, offload: what the tap
    // said of it. Throws 22 for a frame this cannot split: not a super-frame,
    // not TCP straight behind IPv4 (unfragmented) or the fixed IPv6 header,
    // headers beyond kMaxHeaders or the frame, a segment size of 0, no
    // payload.
    Segmenter(PDU frame, const Offload& offload);
    // Splits nothing (count() 0) until assigned.
    Segmenter() = default;

    unsigned count() const { return segments; }
    uint16_t headerLength() const { return header_length; }
    // The length of the longest segment, headers included.
    uint32_t largestSegment() const {
        return header_length + (payload_length < segment_size ? payload_length : segment_size);
    }

    // The first byte that building segment i (i >= 1) writes: its headers
    // end where its payload begins. Nothing is written for segment 0.
    uint16_t overwrittenBy(unsigned i) const;

    // Builds segment i (in increasing order, each once) and returns it: a
    // view over the super-frame's buffer from its Ethernet header to the
    // last byte of its payload.
    PDU build(unsigned i);

  private:
    PDU frame;
    uint8_t headers[kMaxHeaders] = {};
    uint16_t header_length = 0;
    uint16_t network = 0;    // IP header, from the frame's first byte
    uint16_t transport = 0;  // TCP header, likewise
    bool ipv6 = false;
    uint16_t segment_size = 0;
    uint32_t payload_length = 0;
    uint32_t sequence = 0;
    uint16_t id = 0;
    uint8_t flags = 0;
    unsigned segments = 0;
};

// Completes the checksum of an ordinary frame the host left partial (TCP or
// UDP, IPv4 or IPv6). Throws 22 when the offload's checksum field lies
// beyond the frame.
void completePartialChecksum(PDU frame, const Offload& offload);

}  // namespace lumora::pdu
