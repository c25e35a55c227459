#include "pdu/HexDump.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace lumora::pdu {

void dumpHex(const uint8_t* bytes, size_t length, FILE* out) {
    for (size_t offset = 0; offset < length; offset += 16) {
        std::fprintf(out, "\t0x%04zx: ", offset);
        for (size_t column = 0; column < 16; ++column) {
            if (column == 8) std::fputc(' ', out);
            if (offset + column < length)
                std::fprintf(out, " %02x", bytes[offset + column]);
            else
                std::fputs("   ", out);
        }
        std::fputs("  ", out);
        for (size_t column = 0; column < 16 && offset + column < length; ++column) {
            const uint8_t byte = bytes[offset + column];
            std::putc(std::isprint(byte) ? byte : '.', out);
        }
        std::putc('\n', out);
    }
}

void dumpHex(PDU p, FILE* out) { dumpHex(p.data(), p.length(), out); }

}  // namespace lumora::pdu
