// Link-layer views: the Ethernet II header and the 802.1Q / 802.1ad tags
// that may follow it (and each other).
#pragma once

#include <cstdint>
#include <type_traits>

#include "pdu/PDU.h"
#include "pdu/View.h"

namespace lumora::pdu {

// Ethertypes the frame walk follows; any other value ends it quietly.
inline constexpr uint16_t kEthertypeIPv4 = 0x0800;
inline constexpr uint16_t kEthertypeArp = 0x0806;
inline constexpr uint16_t kEthertypeVlan = 0x8100;
inline constexpr uint16_t kEthertypeIPv6 = 0x86dd;
inline constexpr uint16_t kEthertypeQinQ = 0x88a8;

// Six MAC bytes packed into the low 48 bits of an integer, first byte in the
// lowest 8 bits: the form the client cache keys on and the shared MAC text
// takes.
inline uint64_t packMac(const uint8_t* mac) {
    uint64_t packed = 0;
    for (int i = 5; i >= 0; --i) packed = packed << 8 | mac[i];
    return packed;
}
inline void unpackMac(uint64_t packed, uint8_t* mac) {
    for (int i = 0; i < 6; ++i) mac[i] = static_cast<uint8_t>(packed >> (8 * i));
}

// Ethernet II header: destination MAC (6), source MAC (6), ethertype (2).
struct EthernetPDU : PDU {
    static constexpr uint16_t kHeaderLength = 14;

    // The Ethernet layer of p starting at begin; throws 22 below 14 bytes.
    static EthernetPDU at(PDU p, uint16_t begin) {
        return makeView<EthernetPDU>(p, begin, kHeaderLength);
    }

    uint16_t headerLength() const { return kHeaderLength; }
    // Where the layer named by ethertype() starts.
    uint16_t innerBegin() const { return static_cast<uint16_t>(_begin + kHeaderLength); }

    uint8_t* destination() const { return data(); }
    uint8_t* source() const { return data() + 6; }
    // Broadcast and multicast destinations have the low bit of the first byte set.
    bool groupDestination() const { return (data()[0] & 0x01) != 0; }
    uint16_t ethertype() const { return load16(data() + 12); }
    void setEthertype(uint16_t type) const { store16(data() + 12, type); }
};

// The 4 bytes of an 802.1Q or 802.1ad tag that follow the tag's own
// ethertype: TCI (2), then the ethertype of what the tag carries (2). Only the
// two tag views below are ever made.
struct TagPDU : PDU {
    static constexpr uint16_t kHeaderLength = 4;

    uint16_t headerLength() const { return kHeaderLength; }
    uint16_t innerBegin() const { return static_cast<uint16_t>(_begin + kHeaderLength); }

    uint16_t tci() const { return load16(data()); }
    // Priority and DEI are dropped on reading.
    uint16_t vlan() const { return tci() & 0x0fff; }
    // Tags the daemon builds carry priority 0 and DEI 0.
    void setVlan(uint16_t vlan) const { store16(data(), vlan & 0x0fff); }
    uint16_t ethertype() const { return load16(data() + 2); }
    void setEthertype(uint16_t type) const { store16(data() + 2, type); }

  protected:
    TagPDU() = default;
};

// 802.1Q customer tag (ethertype 0x8100).
struct VlanPDU : TagPDU {
    VlanPDU() = default;
    // Throws 22 below 4 bytes.
    static VlanPDU at(PDU p, uint16_t begin) { return makeView<VlanPDU>(p, begin, kHeaderLength); }
};

// 802.1ad service tag (ethertype 0x88a8), laid out like the 802.1Q tag.
struct QinQPDU : TagPDU {
    QinQPDU() = default;
    // Throws 22 below 4 bytes.
    static QinQPDU at(PDU p, uint16_t begin) { return makeView<QinQPDU>(p, begin, kHeaderLength); }
};

static_assert(std::is_trivially_copyable_v<EthernetPDU> && sizeof(EthernetPDU) <= 16);
static_assert(std::is_trivially_copyable_v<VlanPDU> && sizeof(VlanPDU) <= 16);
static_assert(std::is_trivially_copyable_v<QinQPDU> && sizeof(QinQPDU) <= 16);

}  // namespace lumora::pdu
