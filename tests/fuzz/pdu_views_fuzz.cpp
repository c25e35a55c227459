// Arbitrary bytes taken as an Ethernet frame: the decoded dump walks every
// view it can make, the hex dump prints it, and the IPv4 checksum is filled
// in. The only acceptable failure is int 22 from a view that does not fit.
// The frame sits in a buffer of exactly its size so that any read past _end
// (or _cap) is an AddressSanitizer report.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "pdu/Checksum.h"
#include "pdu/Dump.h"
#include "pdu/HexDump.h"
#include "pdu/Views.h"

namespace {

FILE* sink() {
    static FILE* null = std::fopen("/dev/null", "w");
    if (null == nullptr) std::abort();
    return null;
}

// Walks like the egress path does on its own, touching the fields it reads.
void walk(lumora::pdu::PDU frame) {
    using namespace lumora::pdu;
    const EthernetPDU eth = EthernetPDU::at(frame, frame._begin);
    uint16_t type = eth.ethertype();
    uint16_t begin = eth.innerBegin();
    while (type == kEthertypeVlan || type == kEthertypeQinQ) {
        const VlanPDU tag = VlanPDU::at(eth, begin);
        if (tag.vlan() > 4095) std::abort();
        type = tag.ethertype();
        begin = tag.innerBegin();
    }
    if (type == kEthertypeArp) {
        const ArpPDU arp = ArpPDU::at(eth, begin);
        if (arp.holdsAddresses() && arp.protocolLength() > 0) {
            volatile uint8_t last = arp.targetProtocol()[arp.protocolLength() - 1];
            (void)last;
        }
    } else if (type == kEthertypeIPv4) {
        const IPv4PDU ip = IPv4PDU::at(eth, begin);
        ipv4HeaderChecksum(ip);
        if (ip.fragmentOffset() == 0 && ip.protocol() == kProtocolGre) {
            const GrePDU gre = GrePDU::at(ip, ip.innerBegin());
            if (gre.hasKey()) {
                volatile uint32_t key = gre.key() ^ gre.wordAt4();
                (void)key;
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 65535) size = 65535;  // PDU indices are 16-bit
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[size == 0 ? 1 : size]);
    if (size > 0) std::memcpy(buffer.get(), data, size);
    lumora::pdu::PDU frame;
    frame._buf = buffer.get();
    frame._cap = static_cast<uint16_t>(size);
    frame._begin = 0;
    frame._end = static_cast<uint16_t>(size);

    try {
        lumora::pdu::dump(lumora::pdu::EthernetPDU::at(frame, 0), sink(), 0);
    } catch (int error) {
        if (error != 22) std::abort();
    }
    lumora::pdu::dumpHex(frame, sink());
    try {
        walk(frame);
    } catch (int error) {
        if (error != 22) std::abort();
    }
    return 0;
}
