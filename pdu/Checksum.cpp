// Internet checksums: the IPv4 header checksum for frames whose sender left
// the field at zero, and the transport sums that splitting and merging TCP
// super-frames need.
#include "pdu/Checksum.h"

#include <cstring>

namespace lumora::pdu {

namespace {

// The sum is taken over native 64-bit words and put into wire order at the
// end: a ones'-complement sum does not care where it is byte-swapped.
uint64_t addCarry(uint64_t sum, uint64_t word) {
    sum += word;
    return sum + (sum < word ? 1 : 0);
}

uint16_t fromNative(uint64_t sum) {
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    const auto folded = static_cast<uint16_t>(sum);
    if constexpr (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__)
        return static_cast<uint16_t>(folded << 8 | folded >> 8);
    return folded;
}

}  // namespace

void ipv4HeaderChecksum(IPv4PDU ip) {
    if (ip.checksum() != 0) return;
    // The checksum word is zero, so summing the whole header leaves it out.
    const uint8_t* header = ip.data();
    uint64_t sum = 0;
    for (unsigned word = 0; word < ip.ihl() * 2u; ++word) sum += load16(header + 2 * word);
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    ip.setChecksum(static_cast<uint16_t>(~sum));
}

void setIPv4HeaderChecksum(IPv4PDU ip) {
    ip.setChecksum(0);
    ipv4HeaderChecksum(ip);
}

uint64_t sumBytes(const uint8_t* data, size_t length, uint64_t sum) {
    uint64_t native = 0;
    size_t i = 0;
    for (; i + 32 <= length; i += 32) {
        uint64_t words[4];
        std::memcpy(words, data + i, sizeof words);
        native = addCarry(native, words[0]);
        native = addCarry(native, words[1]);
        native = addCarry(native, words[2]);
        native = addCarry(native, words[3]);
    }
    for (; i + 8 <= length; i += 8) {
        uint64_t word;
        std::memcpy(&word, data + i, sizeof word);
        native = addCarry(native, word);
    }
    uint8_t rest[8] = {};
    std::memcpy(rest, data + i, length - i);
    uint64_t word;
    std::memcpy(&word, rest, sizeof word);
    native = addCarry(native, word);
    return sum + fromNative(native);
}

uint16_t foldSum(uint64_t sum) {
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

uint64_t pseudoHeaderSumIPv4(const uint8_t* source, const uint8_t* destination, uint8_t protocol,
                             uint32_t length) {
    uint64_t sum = 0;
    for (int i = 0; i < 4; i += 2) sum += load16(source + i) + load16(destination + i);
    return sum + protocol + (length >> 16) + (length & 0xffff);
}

uint64_t pseudoHeaderSumIPv6(const uint8_t* source, const uint8_t* destination, uint8_t protocol,
                             uint32_t length) {
    uint64_t sum = 0;
    for (int i = 0; i < 16; i += 2) sum += load16(source + i) + load16(destination + i);
    return sum + protocol + (length >> 16) + (length & 0xffff);
}

void completeChecksum(PDU frame, uint16_t start, uint16_t offset) {
    const uint32_t field = uint32_t{start} + offset;
    if (start > frame.length() || field + 2 > frame.length()) throw kInvalid;
    uint8_t* at = frame.data() + start;
    const uint16_t folded = foldSum(sumBytes(at, frame.length() - start));
    const auto complement = static_cast<uint16_t>(~folded);
    store16(at + offset, complement == 0 ? 0xffff : complement);
}

}  // namespace lumora::pdu
