// IPv4 header checksum for frames whose sender left the field at zero.
#include "pdu/Checksum.h"

#include <cstdint>

namespace lumora::pdu {

void ipv4HeaderChecksum(IPv4PDU ip) {
    if (ip.checksum() != 0) return;
    // The checksum word is zero, so summing the whole header leaves it out.
    const uint8_t* header = ip.data();
    uint64_t sum = 0;
    for (unsigned word = 0; word < ip.ihl() * 2u; ++word) sum += load16(header + 2 * word);
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    ip.setChecksum(static_cast<uint16_t>(~sum));
}

}  // namespace lumora::pdu
