// clampMSS on arbitrary TCP headers, checked against a second, independent
// reading of the same option walk. Input: two bytes of clamp value, then the
// segment (TCP header first), held in a buffer of exactly its size.
//
// A zero-length option of unknown kind makes clampMSS spin for ever, which
// the daemon accepts and does not guard against. The model below walks the
// options first and such inputs are skipped, so the fuzzer never calls
// clampMSS on them.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "pdu/ClampMSS.h"

namespace {

struct Expected {
    bool never_ends = false;
    bool clamped = false;
    std::vector<uint8_t> bytes;
};

// What clampMSS must do to `segment`, computed on a copy.
Expected model(std::vector<uint8_t> segment, uint16_t mss) {
    Expected e;
    const size_t header = static_cast<size_t>(segment[12] >> 4) * 4;
    size_t i = 20;
    while (header > 20 && i < header) {
        const uint8_t kind = segment[i];
        if (kind == 0) break;
        if (kind == 1) {
            i += 1;
            continue;
        }
        if (i + 1 >= header) break;  // no length byte inside the header
        const size_t length = segment[i + 1];
        if (i + length > header) break;
        if (kind == 2 && length != 4) break;
        if (length == 0) {
            e.never_ends = true;
            return e;
        }
        if (kind == 2) {
            const unsigned value = segment[i + 2] * 256u + segment[i + 3];
            if (value > mss) {
                segment[i + 2] = static_cast<uint8_t>(mss >> 8);
                segment[i + 3] = static_cast<uint8_t>(mss);
                const unsigned checksum = segment[16] * 256u + segment[17];
                const unsigned updated = (checksum + value - mss) & 0xffff;
                segment[16] = static_cast<uint8_t>(updated >> 8);
                segment[17] = static_cast<uint8_t>(updated);
                e.clamped = true;
            }
        }
        i += length;
    }
    e.bytes = std::move(segment);
    return e;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size - 2 > 65535) return 0;
    const uint16_t mss = static_cast<uint16_t>(data[0] << 8 | data[1]);
    const size_t length = size - 2;
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[length == 0 ? 1 : length]);
    if (length > 0) std::memcpy(buffer.get(), data + 2, length);

    lumora::pdu::PDU p;
    p._buf = buffer.get();
    p._cap = static_cast<uint16_t>(length);
    p._begin = 0;
    p._end = static_cast<uint16_t>(length);
    lumora::pdu::TcpPDU tcp;
    try {
        tcp = lumora::pdu::TcpPDU::at(p, 0);
    } catch (int error) {
        if (error != 22) std::abort();
        return 0;
    }

    const Expected expected = model(std::vector<uint8_t>(data + 2, data + size), mss);
    if (expected.never_ends) return 0;
    const bool clamped = lumora::pdu::clampMSS(tcp, mss);
    if (clamped != expected.clamped) std::abort();
    if (std::memcmp(buffer.get(), expected.bytes.data(), length) != 0) std::abort();
    return 0;
}
