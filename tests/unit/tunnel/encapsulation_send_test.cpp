// send(): the size limit, frames that go whole, the upstream gateway, frames
// that cannot be fragmented, and what reaches the GRE socket (bytes, family,
// both addresses).
#include <gtest/gtest.h>

#include "encapsulation_support.h"
#include "tunnel/Send.h"

namespace lumora {
namespace {

using namespace test::encap;

const uint32_t kKey = 0x0a0b0c0d;
const char* const kKeyedGre = "20 00 65 58 0a 0b 0c 0d";
const char* const kPlainGre = "00 00 65 58";

// The header of the single piece that send() makes of an IPv4 frame just over
// the limit: IHL 5, DF gone, MF clear, checksum recomputed.
Bytes singlePieceHeader(uint16_t total, const char* checksum) {
    Bytes header = hex("45 00 00 00 1c 46 00 00 40 11 00 00 c0 00 02 01 c6 33 64 02");
    put16(header, 2, total);
    const Bytes sum = hex(checksum);
    header[10] = sum[0];
    header[11] = sum[1];
    EXPECT_EQ(referenceChecksum(header.data(), 20, 5), pdu::load16(sum.data()));
    return header;
}

// A non-IPv4 frame of n bytes with the given ethertype.
Bytes otherFrame(const char* ethertype, size_t n) {
    return concat({hex(kMacs), hex(ethertype), pattern(n - 14)});
}

TEST(EncapsulationLimit, EndpointMtuLessHeadersCappedByTheMtuSetting) {
    EXPECT_EQ(sizeLimit(1480, true, 0), 1434);
    EXPECT_EQ(sizeLimit(1480, false, 0), 1438);
    EXPECT_EQ(sizeLimit(1480, true, 1300), 1300);
    EXPECT_EQ(sizeLimit(1480, false, 1300), 1300);
    EXPECT_EQ(sizeLimit(1480, true, 1500), 1434);
    EXPECT_EQ(sizeLimit(1480, true, 1434), 1434);
    EXPECT_EQ(sizeLimit(576, true, 0), 530);
    EXPECT_EQ(sizeLimit(1000, false, 900), 900);
    EXPECT_EQ(sizeLimit(1000, false, 960), 958);
}

TEST(EncapsulationLimit, KeyedAt1434TheFrameGoesWholeAt1435ItIsCut) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes whole = ipv4Frame(1420);
    FrameBuffer at_limit(whole);
    send(log.logger, peerV4(socket, 0), at_limit.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(socket.bytes(0), concat({hex(kKeyedGre), whole}));

    socket.clear();
    const Bytes over = ipv4Frame(1421);
    FrameBuffer beyond(over);
    send(log.logger, peerV4(socket, 0), beyond.pdu, &kKey, 0);
    // 1401 payload bytes fit one piece of at most 1408; the piece still gets
    // the fragment header.
    ASSERT_EQ(socket.count(), 1u);
    const Bytes sent = socket.bytes(0);
    EXPECT_EQ(
        hexOf(slice(sent, 0, 42)),
        hexOf(concat({hex(kKeyedGre), hex(kEthernetIPv4), singlePieceHeader(1421, "6c e3")})));
    EXPECT_EQ(slice(sent, 42, sent.size() - 42), slice(over, 34, 1401));
    EXPECT_TRUE(log.lines().empty());
}

TEST(EncapsulationLimit, WithoutKeyTheLimitIs1438) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes whole = ipv4Frame(1424);
    FrameBuffer at_limit(whole);
    send(log.logger, peerV4(socket, 0), at_limit.pdu, nullptr, 0);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(socket.bytes(0), concat({hex(kPlainGre), whole}));

    socket.clear();
    FrameBuffer beyond(ipv4Frame(1425));
    send(log.logger, peerV4(socket, 0), beyond.pdu, nullptr, 0);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(
        hexOf(slice(socket.bytes(0), 0, 38)),
        hexOf(concat({hex(kPlainGre), hex(kEthernetIPv4), singlePieceHeader(1425, "6c df")})));
}

TEST(EncapsulationLimit, TheMtuSettingLowersTheLimit) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes whole = ipv4Frame(1286);  // 1300-byte frame
    FrameBuffer at_limit(whole);
    send(log.logger, peerV4(socket, 0), at_limit.pdu, &kKey, 1300);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(socket.bytes(0), concat({hex(kKeyedGre), whole}));

    socket.clear();
    FrameBuffer beyond(ipv4Frame(1287));
    send(log.logger, peerV4(socket, 0), beyond.pdu, &kKey, 1300);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(
        hexOf(slice(socket.bytes(0), 0, 42)),
        hexOf(concat({hex(kKeyedGre), hex(kEthernetIPv4), singlePieceHeader(1287, "6d 69")})));

    // A setting above the endpoint's own limit changes nothing.
    socket.clear();
    FrameBuffer big(ipv4Frame(1420));
    send(log.logger, peerV4(socket, 0), big.pdu, &kKey, 1500);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(socket.bytes(0), concat({hex(kKeyedGre), ipv4Frame(1420)}));
}

TEST(EncapsulationLimit, TheLimitFollowsTheEndpointMtu) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket(1000);  // L = 954 with a key
    FrameBuffer whole(ipv4Frame(940));
    send(log.logger, peerV4(socket, 0), whole.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(socket.bytes(0), concat({hex(kKeyedGre), ipv4Frame(940)}));
    socket.clear();
    FrameBuffer cut(ipv4Frame(941));
    send(log.logger, peerV4(socket, 0), cut.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(hexOf(slice(socket.bytes(0), 22, 12)), "45 00 03 ad 1c 46 00 00 40 11 6e c3");
}

TEST(EncapsulationNonIPv4, ArpIPv6AndTaggedFramesOverTheLimitAreDroppedWithOneWarning) {
    for (const char* ethertype : {"08 06", "86 dd", "81 00", "88 a8"}) {
        MemoryLog log;
        RecordingGreSocket socket = sendingSocket();
        FrameBuffer buffer(otherFrame(ethertype, 2000));
        send(log.logger, peerV4(socket, 20), buffer.pdu, &kKey, 0);
        EXPECT_EQ(socket.count(), 0u) << ethertype;
        EXPECT_EQ(log.lines(),
                  std::vector<std::string>{"eth1 (ip://192.0.2.1): can't fragment non-IPv4 PDU"})
            << ethertype;
    }
}

TEST(EncapsulationNonIPv4, TheWarningNamesTheEndpointAndIsAWarning) {
    MemoryLog log;
    log.logger.level = Warning;
    RecordingGreSocket socket = RecordingGreSocket::ipv6("vlan7", "2001:db8::7");
    FrameBuffer buffer(otherFrame("86 dd", 1435));
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 0);
    EXPECT_EQ(socket.count(), 0u);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"vlan7 (ip://2001:db8::7): can't fragment non-IPv4 PDU"});
    log.logger.level = Error;
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 0);
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST(EncapsulationNonIPv4, WithinTheLimitTheyGoWhole) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes arp = otherFrame("08 06", 1434);
    FrameBuffer buffer(arp);
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(socket.bytes(0), concat({hex(kKeyedGre), arp}));
    EXPECT_TRUE(log.lines().empty());
}

TEST(EncapsulationUpstream, AFrameOverTheLimitGoesWholeMarkedSix) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(1986);  // 2000 bytes
    FrameBuffer buffer(frame);
    Destination d = peerV4(socket, 0, "198.51.100.77");
    d.upstream = 1;
    send(log.logger, d, buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(socket.bytes(0), concat({hex("26 00 65 58 0a 0b 0c 0d"), frame}));
    EXPECT_EQ(socket.at(0).family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(socket.at(0).ipv4.s_addr, v4("198.51.100.77").s_addr);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Sending to upstream VYM 198.51.100.77"});
}

TEST(EncapsulationUpstream, WithoutKeyTaggedAndNonIPv4AlikeAndSmallFramesToo) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes arp = otherFrame("08 06", 2000);
    FrameBuffer big(arp);
    Destination d = peerV4(socket, 30, "203.0.113.1");
    d.upstream = 1;
    send(log.logger, d, big.pdu, nullptr, 0);
    ASSERT_EQ(socket.count(), 1u);
    const Bytes sent = socket.bytes(0);
    EXPECT_EQ(hexOf(slice(sent, 0, 22)),
              "06 00 65 58 02 00 5e 00 00 02 02 00 5e 00 00 01 81 00 00 1e 08 06");
    EXPECT_EQ(slice(sent, 22, sent.size() - 22), slice(arp, 14, 1986));

    const Bytes small = otherFrame("08 06", 60);
    FrameBuffer little(small);
    d.vlan = 1;
    send(log.logger, d, little.pdu, nullptr, 0);
    ASSERT_EQ(socket.count(), 2u);
    EXPECT_EQ(socket.bytes(1), concat({hex("06 00 65 58"), small}));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"Sending to upstream VYM 203.0.113.1",
                                                     "Sending to upstream VYM 203.0.113.1"}));
}

TEST(EncapsulationUpstream, AnIPv6GatewayIsPrintedAsTheDottedQuadOfItsFirstFourBytes) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    Destination d;
    d.family = AF_INET6;
    d.ipv6 = v6("2001:db8:1::9");
    d.ipv4 = v4("192.0.2.200");  // passed through untouched, never printed
    d.upstream = 1;
    d.endpoint = &socket;
    FrameBuffer buffer(ipv4Frame(100));
    send(log.logger, d, buffer.pdu, &kKey, 0);
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Sending to upstream VYM 32.1.13.184"});
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(socket.at(0).family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(0, std::memcmp(&socket.at(0).ipv6, &d.ipv6, 16));
    EXPECT_EQ(socket.at(0).ipv4.s_addr, d.ipv4.s_addr);
    EXPECT_EQ(socket.bytes(0)[0], 0x26);
}

TEST(EncapsulationUpstream, TheInfoLineFollowsTheLevelButTheMarkDoesNot) {
    MemoryLog log;
    log.logger.level = Notice;
    RecordingGreSocket socket = sendingSocket();
    Destination d = peerV4(socket, 0);
    d.upstream = 1;
    FrameBuffer buffer(ipv4Frame(100));
    send(log.logger, d, buffer.pdu, nullptr, 0);
    EXPECT_TRUE(log.lines().empty());
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(socket.bytes(0)[0], 0x06);
}

TEST(EncapsulationPeers, OrdinaryPeersGetRecursionZeroAndNoLogLine) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    Destination d;
    d.family = AF_INET6;
    d.ipv6 = v6("2001:db8::42");
    d.ipv4 = v4("192.0.2.42");
    d.vlan = 20;
    d.endpoint = &socket;
    const Bytes frame = ipv4Frame(46);
    FrameBuffer buffer(frame);
    send(log.logger, d, buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 1u);
    EXPECT_EQ(hexOf(socket.bytes(0)),
              hexOf(concat({hex("20 00 65 58 0a 0b 0c 0d 02 00 5e 00 00 02 02 00 5e 00 00 01"
                                "81 00 00 14 08 00"),
                            slice(frame, 14, 46)})));
    EXPECT_EQ(socket.at(0).family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(0, std::memcmp(&socket.at(0).ipv6, &d.ipv6, 16));
    EXPECT_EQ(socket.at(0).ipv4.s_addr, d.ipv4.s_addr);
    EXPECT_TRUE(log.lines().empty());
}

TEST(EncapsulationErrors, WholeFramesWithoutHeadroomThrow55AndSendNothing) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    FrameBuffer keyed(ipv4Frame(100), 7);
    EXPECT_EQ(thrownInt([&] { send(log.logger, peerV4(socket, 0), keyed.pdu, &kKey, 0); }), 55);
    FrameBuffer tagged(ipv4Frame(100), 11);
    EXPECT_EQ(thrownInt([&] { send(log.logger, peerV4(socket, 2), tagged.pdu, &kKey, 0); }), 55);
    FrameBuffer cut(ipv4Frame(2000), 7);
    EXPECT_EQ(thrownInt([&] { send(log.logger, peerV4(socket, 0), cut.pdu, &kKey, 0); }), 55);
    EXPECT_EQ(socket.count(), 0u);
    EXPECT_TRUE(log.lines().empty());
}

TEST(EncapsulationErrors, AnIPv4HeaderThatCannotBeReadThrows22) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    Bytes ihl4 = ipv4Frame(2000);
    ihl4[14] = 0x44;
    FrameBuffer bad(ihl4);
    EXPECT_EQ(thrownInt([&] { send(log.logger, peerV4(socket, 0), bad.pdu, &kKey, 0); }), 22);
    // Within the limit nobody looks at it.
    Bytes small = ipv4Frame(100);
    small[14] = 0x44;
    FrameBuffer fine(small);
    send(log.logger, peerV4(socket, 0), fine.pdu, &kKey, 0);
    EXPECT_EQ(socket.count(), 1u);
}

TEST(EncapsulationErrors, ALimitOf67Throws22OnTheFirstFrameToCut) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    FrameBuffer fits(ipv4Frame(53));  // a 67-byte frame
    send(log.logger, peerV4(socket, 0), fits.pdu, &kKey, 67);
    EXPECT_EQ(socket.count(), 1u);
    FrameBuffer over(ipv4Frame(54));
    EXPECT_EQ(thrownInt([&] { send(log.logger, peerV4(socket, 0), over.pdu, &kKey, 67); }), 22);
    EXPECT_EQ(socket.count(), 1u);
    // A non-IPv4 frame is dropped with the warning before the limit is looked at.
    FrameBuffer arp(otherFrame("08 06", 68));
    send(log.logger, peerV4(socket, 0), arp.pdu, &kKey, 67);
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"eth1 (ip://192.0.2.1): can't fragment non-IPv4 PDU"});
}

}  // namespace
}  // namespace lumora
