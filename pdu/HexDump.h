// Hex dump of frame bytes for the Debug level, written straight to a stdio
// stream (the logger's); no lock is taken.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "pdu/PDU.h"

namespace lumora::pdu {

// Bytes _begin.._end of p, 16 to a line: offset, hex columns, printable text.
// An empty PDU prints nothing.
void dumpHex(PDU p, FILE* out);
void dumpHex(const uint8_t* bytes, size_t length, FILE* out);

}  // namespace lumora::pdu
