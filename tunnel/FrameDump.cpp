#include "tunnel/FrameDump.h"

#include <mutex>

#include "pdu/Dump.h"
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
        // The dump stops at the first layer that does not fit; whether the
        // packet goes on is for its path to decide, not for the dump.
    }
    if (log.level >= static_cast<int32_t>(Debug)) pdu::dumpHex(read, log.stream);
}

}  // namespace lumora
