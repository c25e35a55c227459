// The header a tap with offloads puts in front of every frame, in both
// directions: the virtio network header, the same layout on Linux
// (IFF_VNET_HDR) and FreeBSD (TAPSVNETHDR). Its 16-bit fields are
// little-endian; the daemon runs on little-endian hosts only, where both
// kernels use that order.
#pragma once

#include <cstdint>

#include "pdu/Offload.h"

namespace lumora::vif {

struct VnetHeader {
    static constexpr uint16_t kLength = 10;

    static constexpr uint8_t kNeedsChecksum = 0x01;
    static constexpr uint8_t kTypeNone = 0;
    static constexpr uint8_t kTypeTcpIPv4 = 1;
    static constexpr uint8_t kTypeTcpIPv6 = 4;
    static constexpr uint8_t kTypeEcn = 0x80;

    // Reads the header at bytes into offload. False for a kind of
    // super-frame the daemon did not ask the kernel for (it cannot split it).
    static bool decode(const uint8_t* bytes, pdu::Offload& offload) {
        offload = pdu::Offload{};
        offload.partial_checksum = (bytes[0] & kNeedsChecksum) != 0;
        offload.header_length = load(bytes + 2);
        offload.segment_size = load(bytes + 4);
        offload.checksum_start = load(bytes + 6);
        offload.checksum_offset = load(bytes + 8);
        switch (bytes[1] & ~kTypeEcn) {
            case kTypeNone:
                return true;
            case kTypeTcpIPv4:
                offload.segmentation = pdu::Offload::kTcpIPv4;
                return true;
            case kTypeTcpIPv6:
                offload.segmentation = pdu::Offload::kTcpIPv6;
                return true;
            default:
                return false;
        }
    }

    // Writes the header for offload to bytes (kLength of them).
    static void encode(const pdu::Offload& offload, uint8_t* bytes) {
        bytes[0] = offload.partial_checksum ? kNeedsChecksum : 0;
        bytes[1] = offload.segmentation == pdu::Offload::kTcpIPv4   ? kTypeTcpIPv4
                   : offload.segmentation == pdu::Offload::kTcpIPv6 ? kTypeTcpIPv6
                                                                    : kTypeNone;
        store(bytes + 2, offload.header_length);
        store(bytes + 4, offload.segment_size);
        store(bytes + 6, offload.checksum_start);
        store(bytes + 8, offload.checksum_offset);
    }

  private:
    static uint16_t load(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
    static void store(uint8_t* p, uint16_t v) {
        p[0] = static_cast<uint8_t>(v);
        p[1] = static_cast<uint8_t>(v >> 8);
    }
};

}  // namespace lumora::vif
