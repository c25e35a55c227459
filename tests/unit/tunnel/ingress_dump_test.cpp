// The ingress thread's dump of each datagram it takes: from the GRE header,
// as the datagram arrived (tag still in place), decoded at Info, hex as well
// at Debug, nothing below Info or in syslog mode; and a datagram the dump
// cannot decode is handled exactly as it is without the dump.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

#include "ingress_support.h"

namespace lumora {
namespace {

using test::Bytes;
using test::hexText;
using test::WrittenFrames;

// A UDP datagram from 192.0.2.10 to 192.0.2.20, IPv4 header included.
const char* const kIPv4Udp =
    "08 00  45 00 00 20 00 07 00 00 40 11 f6 a7 c0 00 02 0a c0 00 02 14"
    "04 00 00 35 00 0c 00 00  61 62 63 64";

// The datagram the tests send: plain GRE around the rig's client frame,
// tagged for VLAN 20 and carrying kIPv4Udp (54 bytes).
Bytes taggedUdp() { return test::join({test::plainGre(), test::taggedFrame(20, kIPv4Udp)}); }

// A dump line as MemoryLog shows it: it carries no timestamp.
std::string raw(const std::string& line) { return "<no timestamp: " + line + ">"; }

const std::vector<std::string> kDecoded = {
    raw("GRE: flags: 0x0000, hlen: 4, proto: 0x6558, length: 54"),
    raw(" Ethernet: 02:00:5e:00:00:0a > 02:00:5e:00:00:01, ethertype: 0x8100, length: 50"),
    raw("  VLAN: tag: 20, proto: 0x0800, length: 36"),
    raw("   IPv4: 192.0.2.10 > 192.0.2.20, len: 32, id: 7, flags: 0, off: 0, ttl: 64, "
        "proto: 17, cksum: 0xf6a7, len/cap: 32/32"),
    raw("    UDP: src port: 1024, dst port: 53, cksum: 0x0000, len/cap: 12/12"),
};

const std::vector<std::string> kHex = {
    raw("\t0x0000:  00 00 65 58 02 00 5e 00  00 01 02 00 5e 00 00 0a  ..eX..^.....^..."),
    raw("\t0x0010:  81 00 00 14 08 00 45 00  00 20 00 07 00 00 40 11  ......E.. ....@."),
    raw("\t0x0020:  f6 a7 c0 00 02 0a c0 00  02 14 04 00 00 35 00 0c  .............5.."),
    raw("\t0x0030:  00 00 61 62 63 64                                 ..abcd"),
};

std::vector<std::string> concat(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> out;
    for (const auto& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// The one write to tap20: the rig's client frame, untagged, carrying rest.
WrittenFrames onTap20(const char* rest) {
    return WrittenFrames{{"tap20", {hexText(test::untaggedFrame(rest))}}};
}

class IngressDump : public testing::Test {
  protected:
    IngressDump() { rig.addTap(20); }

    // The datagram as the ingress loop takes it from an IPv4 endpoint.
    void ingest(const Bytes& datagram) {
        rig.received.emplace_back(datagram);
        ingestGreDatagram(rig.context, rig.fromV4(), rig.received.back().pdu, rig.batch);
        rig.batch.flush();
    }

    test::IngressRig rig;
};

TEST_F(IngressDump, InfoDecodesTheDatagramAsItArrivedBeforeItIsHandled) {
    rig.log.logger.level = Info;
    ingest(taggedUdp());
    EXPECT_EQ(rig.log.lines(), concat({kDecoded, test::learnedLines(20, ", vlan: 20")}));
    // The tag the dump showed came off on the way to the tap.
    EXPECT_EQ(rig.tapWrites(), onTap20(kIPv4Udp));
}

TEST_F(IngressDump, DebugAddsTheHexBytesFromTheGreHeaderToTheEnd) {
    rig.log.logger.level = Debug;
    ingest(taggedUdp());
    EXPECT_EQ(rig.log.lines(), concat({kDecoded, kHex, test::learnedLines(20, ", vlan: 20")}));
    EXPECT_EQ(rig.tapWrites(), onTap20(kIPv4Udp));
}

TEST_F(IngressDump, NoticeDumpsNothing) {
    rig.log.logger.level = Notice;
    ingest(taggedUdp());
    EXPECT_EQ(rig.log.lines(), test::learnedLines(20, ", vlan: 20"));
    EXPECT_EQ(rig.tapWrites(), onTap20(kIPv4Udp));
}

// What the logger hands syslog, formatted.
std::vector<std::string> syslogLines;
__attribute__((format(printf, 2, 0))) void recordSyslog(int, const char* format,
                                                        va_list arguments) {
    char text[256];
    std::vsnprintf(text, sizeof text, format, arguments);
    syslogLines.push_back(text);
}

TEST_F(IngressDump, SyslogModeDumpsNothingAtDebug) {
    rig.log.logger.level = Debug;
    FILE* const stream = rig.log.logger.stream;
    rig.log.logger.stream = nullptr;
    rig.log.logger.syslog_fn = recordSyslog;
    syslogLines.clear();
    ingest(taggedUdp());
    rig.log.logger.stream = stream;
    // Only the two learning lines went anywhere.
    EXPECT_EQ(syslogLines, test::learnedLines(20, ", vlan: 20"));
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>{});
    EXPECT_EQ(rig.tapWrites(), onTap20(kIPv4Udp));
}

TEST_F(IngressDump, AnInnerLayerTheDumpRefusesStillReachesTheTap) {
    // IHL 6 over a 20-byte IPv4 header: the dump stops after the VLAN line,
    // the ingress path does not look into IPv4 for UDP and writes the frame.
    const char* const ihl6 = "08 00  46 00 00 14 00 00 00 00 40 11 00 00 c0 00 02 0a c0 00 02 14";
    rig.log.logger.level = Debug;
    ingest(test::join({test::plainGre(), test::taggedFrame(20, ihl6)}));
    EXPECT_EQ(rig.log.lines(),
              concat({{raw("GRE: flags: 0x0000, hlen: 4, proto: 0x6558, length: 42"),
                       raw(" Ethernet: 02:00:5e:00:00:0a > 02:00:5e:00:00:01, ethertype: 0x8100, "
                           "length: 38"),
                       raw("  VLAN: tag: 20, proto: 0x0800, length: 24"),
                       raw("\t0x0000:  00 00 65 58 02 00 5e 00  00 01 02 00 5e 00 00 0a  "
                           "..eX..^.....^..."),
                       raw("\t0x0010:  81 00 00 14 08 00 46 00  00 14 00 00 00 00 40 11  "
                           "......F.......@."),
                       raw("\t0x0020:  00 00 c0 00 02 0a c0 00  02 14                    "
                           "..........")},
                      test::learnedLines(20, ", vlan: 20")}));
    EXPECT_EQ(rig.tapWrites(), onTap20(ihl6));
}

TEST_F(IngressDump, ATruncatedGreHeaderShowsOnlyItsBytesAndIsDropped) {
    rig.log.logger.level = Debug;
    // K set: an 8-byte header of which 6 bytes arrived. Nothing is thrown out.
    ingest(test::hexBytes("20 00 65 58 00 00"));
    EXPECT_EQ(rig.log.lines(),
              (std::vector<std::string>{
                  raw("\t0x0000:  20 00 65 58 00 00                                  .eX..")}));
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    EXPECT_EQ(rig.tables.clientCount(), 0u);
}

TEST_F(IngressDump, AnUnsupportedProtocolShowsItsGreLineThenTheWarning) {
    rig.log.logger.level = Info;
    ingest(test::join({test::greHeader(0x20, "08 00", "00 00 00 1e"), test::hexBytes(kIPv4Udp)}));
    EXPECT_EQ(rig.log.lines(),
              (std::vector<std::string>{
                  raw("GRE: flags: 0x2000, hlen: 8, proto: 0x0800, length: 42"),
                  "eth0 (ip://192.0.2.1): ignoring unsupported PDU type, protocol 0x0800"}));
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
}

}  // namespace
}  // namespace lumora
