// Internet checksums the daemon computes itself.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pdu/IPv4.h"
#include "pdu/PDU.h"

namespace lumora::pdu {

// Fills in the header checksum of a header whose checksum field is zero (the
// host left it to us); a non-zero field is left as it is, right or wrong.
void ipv4HeaderChecksum(IPv4PDU ip);

// Recomputes the header checksum of ip, whatever the field held.
void setIPv4HeaderChecksum(IPv4PDU ip);

// The ones'-complement sum of length bytes as big-endian 16-bit words (an
// odd last byte padded with zero), added to sum. Not folded.
uint64_t sumBytes(const uint8_t* data, size_t length, uint64_t sum = 0);

// sum folded to 16 bits (without the complement).
uint16_t foldSum(uint64_t sum);

// The pseudo-header sums of TCP and UDP over IPv4 and IPv6: source and
// destination address, protocol and the transport length.
uint64_t pseudoHeaderSumIPv4(const uint8_t* source, const uint8_t* destination, uint8_t protocol,
                             uint32_t length);
uint64_t pseudoHeaderSumIPv6(const uint8_t* source, const uint8_t* destination, uint8_t protocol,
                             uint32_t length);

// Completes a checksum the host left partial: the field at start + offset
// holds the pseudo-header sum; the sum of start.._end is folded in and its
// complement stored, 0 sent as 0xffff as the host's own stack sends it.
// Throws 22 when start + offset + 2 lies beyond the frame.
void completeChecksum(PDU frame, uint16_t start, uint16_t offset);

}  // namespace lumora::pdu
