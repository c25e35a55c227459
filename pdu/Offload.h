// What a tap with offloads tells about a frame beside its bytes: whether the
// host left the transport checksum for us to complete, and whether the frame
// is one TCP super-frame that stands for several segments of a given size.
// The tap backends translate it to and from their device header
// (vif/VnetHeader.h); the packet model splits (pdu/Segmentation.h) and
// merges (pdu/Coalescing.h) by it.
#pragma once

#include <cstdint>

namespace lumora::pdu {

struct Offload {
    enum Segmentation : uint8_t {
        kWhole = 0,    // an ordinary frame
        kTcpIPv4 = 1,  // TCP over IPv4, cut at segment_size payload bytes
        kTcpIPv6 = 2,  // TCP over IPv6, likewise
        // A super-frame of a kind the daemon never asked for, or a device
        // header it could not read: it cannot be split.
        kUnsupported = 3,
    };

    uint8_t segmentation = kWhole;
    // The checksum field at checksum_start + checksum_offset holds only the
    // pseudo-header sum; the sum over checksum_start..end is still to be
    // added.
    bool partial_checksum = false;
    uint16_t segment_size = 0;     // payload bytes per segment
    uint16_t header_length = 0;    // Ethernet, IP and TCP headers together
    uint16_t checksum_start = 0;   // from the frame's first byte
    uint16_t checksum_offset = 0;  // from checksum_start

    bool segmented() const { return segmentation != kWhole; }
};

}  // namespace lumora::pdu
