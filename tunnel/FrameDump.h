// The packet dump of what each direction reads, before anything changes it:
// a tap thread dumps each frame from its Ethernet header, a GRE ingress
// thread each datagram from its GRE header. The decoded layers are written
// at Info and the hex bytes as well at Debug, only while the logger writes to
// a stream (the foreground -f); in syslog mode nothing is dumped.
#pragma once

#include <cstdint>

#include "core/Logger.h"
#include "pdu/PDU.h"

namespace lumora {

// The outermost layer of what was read.
enum class DumpFrom { Ethernet, Gre };

// Writes the dump of read; the caller has checked dumping(). A layer that
// does not fit its view ends the decoded lines. From a GRE header nothing is
// thrown: the hex bytes still follow at Debug and the datagram meets the
// ingress checks exactly as it does undumped. From an Ethernet header (a tap
// frame) int 22 is thrown after the lines written so far, without the hex,
// and ends the tap thread like every other throw on its path.
void writeDump(Logger& log, pdu::PDU read, DumpFrom first);

// The per-packet test: two loads, no lock, before any dump work.
inline bool dumping(const Logger& log) { return log.dumpStream(Info) != nullptr; }

inline void dumpRead(Logger& log, pdu::PDU read, DumpFrom first) {
    if (dumping(log)) writeDump(log, read, first);
}

}  // namespace lumora
