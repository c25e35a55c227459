// Decoded, layer-by-layer dump of a frame for the Info level.
#include "pdu/Dump.h"

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "pdu/Text.h"

namespace lumora::pdu {

namespace {

void indent(FILE* out, int depth) {
    if (depth > 0) std::fprintf(out, "%*c", depth, ' ');
}

size_t lengthOf(PDU p) { return p.length(); }

// What follows an Ethernet header or a tag.
void dumpByEthertype(PDU p, uint16_t ethertype, uint16_t begin, FILE* out, int depth) {
    switch (ethertype) {
        case kEthertypeIPv4:
            return dump(IPv4PDU::at(p, begin), out, depth);
        case kEthertypeArp:
            return dump(ArpPDU::at(p, begin), out, depth);
        case kEthertypeVlan:
            return dump(VlanPDU::at(p, begin), out, depth);
        case kEthertypeIPv6:
            return dump(IPv6PDU::at(p, begin), out, depth);
        case kEthertypeQinQ:
            return dump(QinQPDU::at(p, begin), out, depth);
        default:
            return;
    }
}

// What follows an IPv4 or IPv6 header when it is one of the protocols both
// carry (TCP, UDP, GRE); each version's own protocols are its caller's.
void dumpByProtocol(PDU ip, uint8_t protocol, uint16_t begin, FILE* out, int depth) {
    switch (protocol) {
        case kProtocolTcp:
            return dump(TcpPDU::at(ip, begin), out, depth);
        case kProtocolUdp:
            return dump(UdpPDU::at(ip, begin), out, depth);
        case kProtocolGre:
            return dump(GrePDU::at(ip, begin), out, depth);
        default:
            return;
    }
}

// The tag line shared by 802.1Q ("VLAN:") and 802.1ad ("QinQ:").
void dumpTag(TagPDU tag, const char* title, FILE* out, int depth) {
    indent(out, depth);
    std::fputs(title, out);
    std::fprintf(out, " tag: %d", tag.vlan());
    std::fprintf(out, ", proto: 0x%04x", static_cast<unsigned>(tag.ethertype()));
    std::fprintf(out, ", length: %zu", lengthOf(tag));
    std::fputc('\n', out);
    dumpByEthertype(tag, tag.ethertype(), tag.innerBegin(), out, depth + 1);
}

// The count bytes of an ARP sender address that starts offset bytes into the
// header: as a MAC (hex, ':') the way macToText writes one, or as an IPv4
// address (decimal, '.') the way inet_ntop does. Only the buffer's end bounds
// them: a byte at or past _cap is never read and prints as "--", so a header
// at the very end of a buffer shows e.g. "02:00:00:--:--:--".
void printSenderAddress(ArpPDU arp, size_t offset, size_t count, bool mac, FILE* out) {
    const size_t present = static_cast<size_t>(arp._cap - arp._begin);
    for (size_t i = 0; i < count; ++i) {
        if (i > 0) std::fputc(mac ? ':' : '.', out);
        if (offset + i >= present) {
            std::fputs("--", out);
            continue;
        }
        const unsigned byte = arp.data()[offset + i];
        if (mac)
            std::fprintf(out, "%02x", byte);
        else
            std::fprintf(out, "%u", byte);
    }
}

}  // namespace

void dump(EthernetPDU eth, FILE* out, int depth) {
    // Source before destination, as operators have always read these lines.
    const uint8_t* s = eth.source();
    const uint8_t* d = eth.destination();
    indent(out, depth);
    std::fputs("Ethernet:", out);
    std::fprintf(out, " %02x:%02x:%02x:%02x:%02x:%02x", s[0], s[1], s[2], s[3], s[4], s[5]);
    std::fprintf(out, " > %02x:%02x:%02x:%02x:%02x:%02x", d[0], d[1], d[2], d[3], d[4], d[5]);
    std::fprintf(out, ", ethertype: 0x%04x", static_cast<unsigned>(eth.ethertype()));
    std::fprintf(out, ", length: %zu", lengthOf(eth));
    std::fputc('\n', out);
    dumpByEthertype(eth, eth.ethertype(), eth.innerBegin(), out, depth + 1);
}

void dump(VlanPDU tag, FILE* out, int depth) { dumpTag(tag, "VLAN:", out, depth); }

void dump(QinQPDU tag, FILE* out, int depth) { dumpTag(tag, "QinQ:", out, depth); }

void dump(ArpPDU arp, FILE* out, int depth) {
    indent(out, depth);
    std::fputs("ARP:", out);
    std::fprintf(out, " hardware type: %d", arp.hardwareType());
    std::fprintf(out, ", protocol type: 0x%04x", static_cast<unsigned>(arp.protocolType()));
    std::fprintf(out, ", halen: %d", arp.hardwareLength());
    std::fprintf(out, ", palen: %d", arp.protocolLength());
    std::fprintf(out, ", op: %d", arp.operation());
    std::fprintf(out, ", length: %zu", lengthOf(arp));
    std::fputc('\n', out);
    // The sender's addresses go on lines of their own at the left margin: six
    // bytes as a MAC, and the four bytes behind the hardware address as IPv4,
    // whatever the length bytes claim. The view holds only the fixed part, so
    // they are read where they lie in the buffer, behind the frame's end if
    // need be (a cut header then shows what the read slot held there): the
    // lines are always printed and never end the dump.
    const size_t sender = ArpPDU::kMinimumLength;
    std::fputs("source ha: ", out);
    printSenderAddress(arp, sender, 6, true, out);
    std::fputs("\nsource pa: ", out);
    printSenderAddress(arp, sender + arp.hardwareLength(), 4, false, out);
    std::fputc('\n', out);
}

void dump(IPv4PDU ip, FILE* out, int depth) {
    indent(out, depth);
    std::fputs("IPv4:", out);
    std::fprintf(out, " %s", addressToText(AF_INET, ip.source()));
    std::fprintf(out, " > %s", addressToText(AF_INET, ip.destination()));
    std::fprintf(out, ", len: %zu", static_cast<size_t>(ip.totalLength()));
    std::fprintf(out, ", id: %d", ip.id());
    // The flags column has always shown 0; tools that parse these lines expect it.
    std::fprintf(out, ", flags: %x", 0u);
    std::fprintf(out, ", off: %d", static_cast<uint16_t>(ip.fragmentOffset() * 8));
    std::fprintf(out, ", ttl: %d", ip.ttl());
    std::fprintf(out, ", proto: %d", ip.protocol());
    std::fprintf(out, ", cksum: 0x%04x", static_cast<unsigned>(ip.checksum()));
    std::fprintf(out, ", len/cap: %zu/%zu", lengthOf(ip), lengthOf(ip));
    std::fputc('\n', out);
    // A later fragment's payload starts mid-segment: nothing to decode.
    if (ip.fragmentOffset() != 0) return;
    const uint16_t begin = ip.innerBegin();
    switch (ip.protocol()) {
        case kProtocolIcmpv4:
            return dump(Icmpv4PDU::at(ip, begin), out, depth + 1);
        case kProtocolIPv4:
            return dump(IPv4PDU::at(ip, begin), out, depth + 1);
        default:
            return dumpByProtocol(ip, ip.protocol(), begin, out, depth + 1);
    }
}

void dump(IPv6PDU ip, FILE* out, int depth) {
    indent(out, depth);
    std::fputs("IPv6:", out);
    std::fprintf(out, " %s", addressToText(AF_INET6, ip.source()));
    std::fprintf(out, " > %s", addressToText(AF_INET6, ip.destination()));
    std::fprintf(out, ", hop limit: %d", ip.hopLimit());
    std::fprintf(out, ", proto: %d", ip.nextHeader());
    std::fprintf(out, ", payload length: %d", ip.payloadLength());
    std::fprintf(out, ", length: %zu", lengthOf(ip));
    std::fputc('\n', out);
    const uint16_t begin = ip.innerBegin();
    if (ip.nextHeader() == kProtocolIcmpv6) return dump(Icmpv6PDU::at(ip, begin), out, depth + 1);
    dumpByProtocol(ip, ip.nextHeader(), begin, out, depth + 1);
}

void dump(GrePDU gre, FILE* out, int depth) {
    indent(out, depth);
    std::fputs("GRE:", out);
    std::fprintf(out, " flags: 0x%04x", static_cast<unsigned>(gre.flags()));
    std::fprintf(out, ", hlen: %zu", static_cast<size_t>(gre.headerLength()));
    std::fprintf(out, ", proto: 0x%04x", static_cast<unsigned>(gre.protocol()));
    std::fprintf(out, ", length: %zu", lengthOf(gre));
    std::fputc('\n', out);
    if (gre.protocol() == kProtocolTransparentEthernet)
        dump(EthernetPDU::at(gre, gre.innerBegin()), out, depth + 1);
}

void dump(TcpPDU tcp, FILE* out, int depth) {
    indent(out, depth);
    std::fputs("TCP:", out);
    std::fprintf(out, " src port: %d", tcp.sourcePort());
    std::fprintf(out, ", dst port: %d", tcp.destinationPort());
    std::fprintf(out, ", flags: 0x%02x", static_cast<unsigned>(tcp.flags()));
    std::fprintf(out, ", cksum: 0x%04x", static_cast<unsigned>(tcp.checksum()));
    std::fputc('\n', out);
}

void dump(UdpPDU udp, FILE* out, int depth) {
    indent(out, depth);
    std::fputs("UDP:", out);
    std::fprintf(out, " src port: %d", udp.sourcePort());
    std::fprintf(out, ", dst port: %d", udp.destinationPort());
    std::fprintf(out, ", cksum: 0x%04x", static_cast<unsigned>(udp.checksum()));
    std::fprintf(out, ", len/cap: %zu/%zu", lengthOf(udp), lengthOf(udp));
    std::fputc('\n', out);
}

void dump(Icmpv4PDU icmp, FILE* out, int depth) {
    indent(out, depth);
    std::fputs("ICMPv4:", out);
    std::fprintf(out, " len: %zu", lengthOf(icmp));
    std::fprintf(out, ", type: %d", icmp.type());
    std::fprintf(out, ", code: %d", icmp.code());
    std::fprintf(out, ", cksum: 0x%04x", static_cast<unsigned>(icmp.checksum()));
    std::fputc('\n', out);
}

void dump(Icmpv6PDU icmp, FILE* out, int depth) {
    indent(out, depth);
    std::fputs("ICMPv6:", out);
    std::fprintf(out, " type: %d", icmp.type());
    std::fprintf(out, ", code: %d", icmp.code());
    std::fprintf(out, ", cksum: 0x%04x", static_cast<unsigned>(icmp.checksum()));
    std::fputc('\n', out);
}

}  // namespace lumora::pdu
