#include "tunnel/FrameDump.h"

#include <mutex>

#include "pdu/Dump.h"
#include "pdu/HexDump.h"
#include "pdu/Views.h"

namespace lumora {

void writeDump(Logger& log, pdu::PDU read, DumpFrom first) {
    // A dump is many writes to the logger's stream; under the logger's own
    // mutex no log line of another thread lands between two of them, where
    // it would start mid-line.
    std::lock_guard<std::mutex> guard(log.mutex);
    try {
        if (first == DumpFrom::Gre)
            pdu::dump(pdu::GrePDU::at(read, read._begin), log.stream, 0);
        else
            pdu::dump(pdu::EthernetPDU::at(read, read._begin), log.stream, 0);
    } catch (int) {
        // A tap frame is the host's own and trusted: a layer that does not
        // fit ends the tap thread like every other throw on its path. A GRE
        // datagram is anyone's: its dump just stops decoding there.
        if (first == DumpFrom::Ethernet) throw;
    }
    if (log.enabled(Debug)) pdu::dumpHex(read, log.stream);
}

}  // namespace lumora
