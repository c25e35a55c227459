// Decoded dumps: byte-exact lines for every layer, the walk between them and
// where it stops or throws.
#include "pdu/Dump.h"

#include <gtest/gtest.h>

#include <string>

#include "frames_support.h"

namespace lumora::pdu {
namespace {

using test::capture;
using test::Captured;
using test::Frame;

// Dumps the frame from its Ethernet layer at depth 0, read as a tap read
// leaves it: 64 bytes of headroom and spare room behind it.
Captured dumpFrame(const char* hex, int depth = 0) {
    Frame frame(hex, 64, 200);
    return capture([&](FILE* out) { dump(EthernetPDU::at(frame.pdu(), 64), out, depth); });
}

TEST(Dump, BroadcastArpRequest) {
    const Captured c = dumpFrame(
        "ff ff ff ff ff ff 02 00 00 00 00 01 08 06"
        "00 01 08 00 06 04 00 01 02 00 00 00 00 01 c0 00 02 01 00 00 00 00 00 00 c0 00 02 02"
        "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > ff:ff:ff:ff:ff:ff, ethertype: 0x0806, length: 60\n"
              " ARP: hardware type: 1, protocol type: 0x0800, halen: 6, palen: 4, op: 1, "
              "length: 46\n"
              "source ha: 02:00:00:00:00:01\n"
              "source pa: 192.0.2.1\n");
}

TEST(Dump, TaggedTcpSynOverIPv4) {
    const Captured c = dumpFrame(
        "02 00 00 00 00 02 02 00 00 00 00 01 81 00"
        "a0 64 08 00"
        "45 00 00 2c 12 34 40 00 40 06 3c 61 c0 00 02 01 c6 33 64 02"
        "c0 00 00 50 00 00 00 01 00 00 00 00 60 02 ff ff ab cd 00 00 02 04 05 b4");
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > 02:00:00:00:00:02, ethertype: 0x8100, length: 62\n"
              " VLAN: tag: 100, proto: 0x0800, length: 48\n"
              "  IPv4: 192.0.2.1 > 198.51.100.2, len: 44, id: 4660, flags: 0, off: 0, ttl: 64, "
              "proto: 6, cksum: 0x3c61, len/cap: 44/44\n"
              "   TCP: src port: 49152, dst port: 80, flags: 0x02, cksum: 0xabcd\n");
}

TEST(Dump, IPv6Udp) {
    const Captured c = dumpFrame(
        "02 00 00 00 00 02 02 00 00 00 00 01 86 dd"
        "60 00 00 00 00 10 11 40"
        "20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01"
        "20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 02"
        "14 e9 00 35 00 10 1a 2b 61 62 63 64 65 66 67 68");
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > 02:00:00:00:00:02, ethertype: 0x86dd, length: 70\n"
              " IPv6: 2001:db8::1 > 2001:db8::2, hop limit: 64, proto: 17, payload length: 16, "
              "length: 56\n"
              "  UDP: src port: 5353, dst port: 53, cksum: 0x1a2b, len/cap: 16/16\n");
}

TEST(Dump, Icmpv4EchoInAPaddedFrame) {
    // len is the total-length field (28); len/cap is the layer, padding included.
    const Captured c = dumpFrame(
        "02 00 00 00 00 02 02 00 00 00 00 01 08 00"
        "45 00 00 1c 00 01 00 00 40 01 f6 dc c0 00 02 01 c0 00 02 02"
        "08 00 f7 fe 00 01 00 00"
        "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > 02:00:00:00:00:02, ethertype: 0x0800, length: 60\n"
              " IPv4: 192.0.2.1 > 192.0.2.2, len: 28, id: 1, flags: 0, off: 0, ttl: 64, "
              "proto: 1, cksum: 0xf6dc, len/cap: 46/46\n"
              "  ICMPv4: len: 26, type: 8, code: 0, cksum: 0xf7fe\n");
}

TEST(Dump, Icmpv6EchoRequest) {
    const Captured c = dumpFrame(
        "33 33 00 00 00 01 02 00 00 00 00 01 86 dd"
        "60 00 00 00 00 08 3a ff"
        "fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01"
        "ff 02 00 00 00 00 00 00 00 00 00 00 00 00 00 01"
        "80 00 12 34 00 07 00 01");
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > 33:33:00:00:00:01, ethertype: 0x86dd, length: 62\n"
              " IPv6: fe80::1 > ff02::1, hop limit: 255, proto: 58, payload length: 8, "
              "length: 48\n"
              "  ICMPv6: type: 128, code: 0, cksum: 0x1234\n");
}

TEST(Dump, QinQTaggedArpReply) {
    const Captured c = dumpFrame(
        "02 00 00 00 00 02 02 00 00 00 00 01 88 a8"
        "01 90 81 00"
        "20 64 08 06"
        "00 01 08 00 06 04 00 02 02 00 00 00 00 01 c6 33 64 01 02 00 00 00 00 02 c6 33 64 02"
        "00 00 00 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > 02:00:00:00:00:02, ethertype: 0x88a8, length: 64\n"
              " QinQ: tag: 400, proto: 0x8100, length: 50\n"
              "  VLAN: tag: 100, proto: 0x0806, length: 46\n"
              "   ARP: hardware type: 1, protocol type: 0x0800, halen: 6, palen: 4, op: 2, "
              "length: 42\n"
              "source ha: 02:00:00:00:00:01\n"
              "source pa: 198.51.100.1\n");
}

TEST(Dump, GreInIPv4WithInnerEthernet) {
    const Captured c = dumpFrame(
        "02 00 00 00 00 aa 02 00 00 00 00 bb 08 00"
        "45 00 00 46 00 07 40 00 40 2f 3c 7f cb 00 71 01 c0 00 02 01"
        "20 00 65 58 00 00 01 2c"
        "02 00 00 00 00 02 02 00 00 00 00 01 08 00"
        "45 00 00 1c 00 09 00 00 40 11 f6 c4 c0 00 02 01 c0 00 02 02"
        "04 00 00 35 00 08 00 00");
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:bb > 02:00:00:00:00:aa, ethertype: 0x0800, length: 84\n"
              " IPv4: 203.0.113.1 > 192.0.2.1, len: 70, id: 7, flags: 0, off: 0, ttl: 64, "
              "proto: 47, cksum: 0x3c7f, len/cap: 70/70\n"
              "  GRE: flags: 0x2000, hlen: 8, proto: 0x6558, length: 50\n"
              "   Ethernet: 02:00:00:00:00:01 > 02:00:00:00:00:02, ethertype: 0x0800, "
              "length: 42\n"
              "    IPv4: 192.0.2.1 > 192.0.2.2, len: 28, id: 9, flags: 0, off: 0, ttl: 64, "
              "proto: 17, cksum: 0xf6c4, len/cap: 28/28\n"
              "     UDP: src port: 1024, dst port: 53, cksum: 0x0000, len/cap: 8/8\n");
}

TEST(Dump, LaterFragmentShowsOnlyItsIPv4Line) {
    // Offset 185 (1480 bytes) with MF set: flags still print 0, and the
    // payload, which would not even pass as a TCP header, is not walked.
    const Captured c = dumpFrame(
        "02 00 00 00 00 02 02 00 00 00 00 01 08 00"
        "45 00 00 28 ab cd 20 b9 40 06 2a 46 c0 00 02 01 c0 00 02 02"
        "c0 00 00 50 00 00 00 01 00 00 00 00 40 02 ff ff 00 00 00 00");
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > 02:00:00:00:00:02, ethertype: 0x0800, length: 54\n"
              " IPv4: 192.0.2.1 > 192.0.2.2, len: 40, id: 43981, flags: 0, off: 1480, ttl: 64, "
              "proto: 6, cksum: 0x2a46, len/cap: 40/40\n");
}

TEST(Dump, UnknownEthertypeEndsQuietly) {
    const Captured c = dumpFrame(
        "01 80 c2 00 00 0e 02 00 00 00 00 01 88 cc"
        "02 07 04 02 00 00 00 00 01 04 04 03 65 74 68 30");
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > 01:80:c2:00:00:0e, ethertype: 0x88cc, length: 30\n");
}

TEST(Dump, Ihl6WithTwentyBytesThrowsAfterTheEthernetLine) {
    const Captured c = dumpFrame(
        "02 00 00 00 00 02 02 00 00 00 00 01 08 00"
        "46 00 00 14 00 00 00 00 40 06 00 00 c0 00 02 01 c0 00 02 02");
    EXPECT_EQ(c.thrown, 22);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > 02:00:00:00:00:02, ethertype: 0x0800, length: 34\n");
}

TEST(Dump, ShortTcpHeaderThrowsAfterTheIPv4Line) {
    const Captured c = dumpFrame(
        "02 00 00 00 00 02 02 00 00 00 00 01 08 00"
        "45 00 00 28 00 01 00 00 40 06 00 00 c0 00 02 01 c0 00 02 02"
        "c0 00 00 50 00 00 00 01 00 00 00 00 40 02 ff ff 00 00 00 00");
    EXPECT_EQ(c.thrown, 22);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > 02:00:00:00:00:02, ethertype: 0x0800, length: 54\n"
              " IPv4: 192.0.2.1 > 192.0.2.2, len: 40, id: 1, flags: 0, off: 0, ttl: 64, "
              "proto: 6, cksum: 0x0000, len/cap: 40/40\n");
}

TEST(Dump, ArpAddressesBeyondTheFrameAreReadFromTheBufferBehindIt) {
    // halen 17 puts the last byte of the sender protocol address (8 + 17 + 4)
    // one past the 28 bytes present: it is the first spare byte (0xee) of the
    // buffer, and the dump goes on.
    const Captured c = dumpFrame(
        "ff ff ff ff ff ff 02 00 00 00 00 01 08 06"
        "00 01 08 00 11 04 00 01 02 00 00 00 00 01 c0 00 02 01 00 00 00 00 00 00 c0 00 02 02");
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:01 > ff:ff:ff:ff:ff:ff, ethertype: 0x0806, length: 42\n"
              " ARP: hardware type: 1, protocol type: 0x0800, halen: 17, palen: 4, op: 1, "
              "length: 28\n"
              "source ha: 02:00:00:00:00:01\n"
              "source pa: 0.2.2.238\n");
}

// An Ethernet header and the eight fixed ARP bytes (a request to broadcast),
// as a tap read can deliver them: 22 bytes.
const char* const kCutArp = "ff ff ff ff ff ff 02 00 00 00 00 99 08 06  00 01 08 00 06 04 00 01";

// Dumps kCutArp behind 64 bytes of headroom with `behind` (hex) after it in
// the buffer (_end is the end of the 22 bytes, _cap the end of the buffer)
// and expects the Ethernet and ARP lines, then the two sender lines.
void expectSenderLines(const std::string& behind, const char* hardware, const char* protocol) {
    SCOPED_TRACE(behind);
    Frame buffer(std::string(kCutArp) + behind, 64);
    PDU p = buffer.pdu();
    p._end = static_cast<uint16_t>(64 + 22);
    const Captured c = capture([&](FILE* out) { dump(EthernetPDU::at(p, 64), out, 0); });
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "Ethernet: 02:00:00:00:00:99 > ff:ff:ff:ff:ff:ff, ethertype: 0x0806, length: 22\n"
              " ARP: hardware type: 1, protocol type: 0x0800, halen: 6, palen: 4, op: 1, "
              "length: 8\n"
              "source ha: " +
                  std::string(hardware) + "\nsource pa: " + protocol + "\n");
}

TEST(Dump, CutArpHeaderShowsTheSenderBytesThatLieBehindTheFrame) {
    // What an earlier, longer frame left in the read buffer.
    expectSenderLines("02 00 00 00 0a 0b c0 00 02 37  00 00", "02:00:00:00:0a:0b", "192.0.2.55");
}

TEST(Dump, ArpSenderBytesPastTheBufferPrintAsDashes) {
    // The buffer ends three bytes behind the frame: the rest is never read.
    expectSenderLines("02 00 5e", "02:00:5e:--:--:--", "--.--.--.--");
    // The sender protocol address cut after two bytes.
    expectSenderLines("02 00 00 00 0a 0b c0 00", "02:00:00:00:0a:0b", "192.0.--.--");
}

TEST(Dump, ArpHeaderAtTheVeryEndOfTheBufferPrintsNoSenderBytes) {
    expectSenderLines("", "--:--:--:--:--:--", "--.--.--.--");
    // A hardware length that points the protocol address far past the end.
    const Captured c = capture([](FILE* out) {
        Frame frame("00 01 08 00 ff 04 00 02 02 00 00 00 0a 0b");
        dump(ArpPDU::at(frame.pdu(), 0), out, 0);
    });
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text,
              "ARP: hardware type: 1, protocol type: 0x0800, halen: 255, palen: 4, op: 2, "
              "length: 14\n"
              "source ha: 02:00:00:00:0a:0b\n"
              "source pa: --.--.--.--\n");
}

TEST(Dump, IndentationStartsAtTheGivenDepth) {
    const Captured c = capture([](FILE* out) {
        Frame frame("14 e9 00 35 00 08 00 00");
        dump(UdpPDU::at(frame.pdu(), 0), out, 3);
    });
    EXPECT_EQ(c.text, "   UDP: src port: 5353, dst port: 53, cksum: 0x0000, len/cap: 8/8\n");
}

TEST(Dump, GreWithOtherProtocolStopsAfterItsLine) {
    const Captured c = capture([](FILE* out) {
        Frame frame("b0 00 08 00 00 00 00 00 00 00 00 2a 00 00 00 01 45 00");
        dump(GrePDU::at(frame.pdu(), 0), out, 0);
    });
    EXPECT_EQ(c.thrown, -1);
    EXPECT_EQ(c.text, "GRE: flags: 0xb000, hlen: 16, proto: 0x0800, length: 18\n");
}

TEST(Dump, GreNeedsAFullInnerEthernetHeader) {
    const Captured c = capture([](FILE* out) {
        Frame frame("00 00 65 58 02 00 00 00 00 02 02 00 00 00 00 01 08");
        dump(GrePDU::at(frame.pdu(), 0), out, 1);
    });
    EXPECT_EQ(c.thrown, 22);
    EXPECT_EQ(c.text, " GRE: flags: 0x0000, hlen: 4, proto: 0x6558, length: 17\n");
}

}  // namespace
}  // namespace lumora::pdu
