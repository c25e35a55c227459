// ARP view: the 8 fixed bytes, then sender hardware address, sender protocol
// address, target hardware address, target protocol address, each as long as
// the header's length bytes say.
#pragma once

#include <cstdint>
#include <type_traits>

#include "pdu/PDU.h"
#include "pdu/View.h"

namespace lumora::pdu {

struct ArpPDU : PDU {
    static constexpr uint16_t kMinimumLength = 8;
    static constexpr uint16_t kRequest = 1;
    static constexpr uint16_t kReply = 2;

    // Throws 22 below 8 bytes. Only the fixed part is checked: callers that
    // touch the addresses check holdsAddresses() or their own bound first.
    static ArpPDU at(PDU p, uint16_t begin) { return makeView<ArpPDU>(p, begin, kMinimumLength); }

    uint16_t hardwareType() const { return load16(data()); }
    uint16_t protocolType() const { return load16(data() + 2); }
    uint8_t hardwareLength() const { return data()[4]; }
    uint8_t protocolLength() const { return data()[5]; }
    uint16_t operation() const { return load16(data() + 6); }

    // True when all four addresses lie within the layer.
    bool holdsAddresses() const {
        return kMinimumLength + 2u * (hardwareLength() + protocolLength()) <= length();
    }
    uint8_t* senderHardware() const { return data() + kMinimumLength; }
    uint8_t* senderProtocol() const { return senderHardware() + hardwareLength(); }
    uint8_t* targetHardware() const { return senderProtocol() + protocolLength(); }
    uint8_t* targetProtocol() const { return targetHardware() + hardwareLength(); }
};

static_assert(std::is_trivially_copyable_v<ArpPDU> && sizeof(ArpPDU) <= 16);

}  // namespace lumora::pdu
