// Making views: index order, minimum lengths at every truncation, the header
// length checks of IPv4, TCP and GRE, and the field accessors.
#include "pdu/Views.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "frames_support.h"

namespace lumora::pdu {
namespace {

using test::Frame;

// The int a factory throws, or 0 when it makes the view.
template <typename View>
int makeError(PDU p, uint16_t begin) {
    try {
        View view = View::at(p, begin);
        EXPECT_EQ(view._begin, begin);
        return 0;
    } catch (int error) {
        return error;
    }
}

// A view over `length` bytes of `content` (zero-filled behind it), placed
// behind 5 bytes of headroom so that begin is never 0.
template <typename View>
int makeOver(std::vector<uint8_t> content, size_t length) {
    content.resize(length, 0);
    Frame frame(content, 5, 0);
    return makeError<View>(frame.pdu(), 5);
}

struct MinimumCase {
    const char* view;
    uint16_t minimum;
    std::vector<uint8_t> header;  // valid content for the header fields
    std::function<int(const std::vector<uint8_t>&, size_t)> make;
};

template <typename View>
MinimumCase minimumCase(const char* name, uint16_t minimum, std::vector<uint8_t> header = {}) {
    return {name, minimum, std::move(header),
            [](const std::vector<uint8_t>& h, size_t n) { return makeOver<View>(h, n); }};
}

TEST(Views, EveryViewThrows22BelowItsMinimumAndIsMadeAtIt) {
    const std::vector<MinimumCase> cases = {
        minimumCase<EthernetPDU>("Ethernet", 14),
        minimumCase<VlanPDU>("802.1Q", 4),
        minimumCase<QinQPDU>("802.1ad", 4),
        minimumCase<ArpPDU>("ARP", 8),
        minimumCase<IPv4PDU>("IPv4", 20, {0x45}),
        minimumCase<IPv6PDU>("IPv6", 40, {0x60}),
        minimumCase<GrePDU>("GRE", 4),
        minimumCase<TcpPDU>("TCP", 20, test::hexBytes("00 00 00 00 00 00 00 00 00 00 00 00 50")),
        minimumCase<UdpPDU>("UDP", 8),
        minimumCase<Icmpv4PDU>("ICMPv4", 4),
        minimumCase<Icmpv6PDU>("ICMPv6", 8),
    };
    for (const MinimumCase& c : cases) {
        for (size_t length = 0; length < c.minimum; ++length)
            EXPECT_EQ(c.make(c.header, length), 22) << c.view << " over " << length << " bytes";
        EXPECT_EQ(c.make(c.header, c.minimum), 0) << c.view;
        EXPECT_EQ(c.make(c.header, c.minimum + 1u), 0) << c.view;
    }
}

TEST(Views, ThirteenByteFrameHasNoEthernetView) {
    Frame frame("ff ff ff ff ff ff 02 00 00 00 00 01 08", 64, 100);
    EXPECT_EQ(makeError<EthernetPDU>(frame.pdu(), 64), 22);
}

TEST(Views, IndicesOutOfOrderThrow22) {
    Frame frame(std::vector<uint8_t>(40, 0), 0, 0);
    PDU p = frame.pdu();
    EXPECT_EQ(makeError<VlanPDU>(p, 41), 22);  // begin beyond _end
    PDU past = p;
    past._end = 41;  // _end beyond _cap
    EXPECT_EQ(makeError<VlanPDU>(past, 0), 22);
    past._cap = 41;
    EXPECT_EQ(makeError<VlanPDU>(past, 0), 0);
    EXPECT_EQ(makeError<VlanPDU>(p, 36), 0);
    EXPECT_EQ(makeError<VlanPDU>(p, 37), 22);
}

TEST(Views, ViewKeepsBufferCapacityAndEndAndClearsFlags) {
    Frame frame(std::vector<uint8_t>(30, 0), 10, 6);
    PDU p = frame.pdu();
    p._flags[0] = 0x5a;
    p._flags[1] = 0xa5;
    UdpPDU udp = UdpPDU::at(p, 12);
    EXPECT_EQ(udp._buf, p._buf);
    EXPECT_EQ(udp._cap, 46);
    EXPECT_EQ(udp._begin, 12);
    EXPECT_EQ(udp._end, 40);
    EXPECT_EQ(udp.length(), 28);
    EXPECT_EQ(udp._flags[0], 0);
    EXPECT_EQ(udp._flags[1], 0);
}

TEST(Views, IPv4HeaderLengthMustBeAtLeast20AndWithinTheLayer) {
    std::vector<uint8_t> header(60, 0);
    auto withIhl = [&](uint8_t ihl, size_t length) {
        header[0] = static_cast<uint8_t>(0x40 | ihl);
        return makeOver<IPv4PDU>(header, length);
    };
    for (uint8_t ihl = 0; ihl < 5; ++ihl) EXPECT_EQ(withIhl(ihl, 60), 22) << int(ihl);
    EXPECT_EQ(withIhl(5, 20), 0);
    EXPECT_EQ(withIhl(6, 23), 22);
    EXPECT_EQ(withIhl(6, 24), 0);
    EXPECT_EQ(withIhl(15, 40), 22);
    EXPECT_EQ(withIhl(15, 59), 22);
    EXPECT_EQ(withIhl(15, 60), 0);
    // The version nibble is not looked at.
    header[0] = 0x05;
    EXPECT_EQ(makeOver<IPv4PDU>(header, 20), 0);
}

TEST(Views, TcpDataOffsetMustBeAtLeastFiveWordsAndWithinTheLayer) {
    std::vector<uint8_t> header(60, 0);
    auto withOffsetByte = [&](uint8_t byte, size_t length) {
        header[12] = byte;
        return makeOver<TcpPDU>(header, length);
    };
    EXPECT_EQ(withOffsetByte(0x00, 60), 22);
    EXPECT_EQ(withOffsetByte(0x40, 60), 22);
    EXPECT_EQ(withOffsetByte(0x4f, 60), 22);  // reserved bits do not make it 5 words
    EXPECT_EQ(withOffsetByte(0x50, 20), 0);
    EXPECT_EQ(withOffsetByte(0x5f, 20), 0);
    EXPECT_EQ(withOffsetByte(0x60, 23), 22);
    EXPECT_EQ(withOffsetByte(0x60, 24), 0);
    EXPECT_EQ(withOffsetByte(0xf0, 59), 22);
    EXPECT_EQ(withOffsetByte(0xf0, 60), 0);
}

TEST(Views, GreHeaderLengthForAllEightFlagCombinations) {
    for (int c = 0; c <= 1; ++c) {
        for (int k = 0; k <= 1; ++k) {
            for (int s = 0; s <= 1; ++s) {
                const uint16_t expected = static_cast<uint16_t>(4 + 4 * c + 4 * k + 4 * s);
                const uint8_t flags = static_cast<uint8_t>(c * 0x80 | k * 0x20 | s * 0x10);
                // Routing, strict-route and recursion bits add nothing.
                const uint8_t noisy = static_cast<uint8_t>(flags | 0x40 | 0x08 | 0x07);
                for (uint8_t first : {flags, noisy}) {
                    SCOPED_TRACE(testing::Message() << "first byte 0x" << std::hex << int(first));
                    EXPECT_EQ(greHeaderLength(first), expected);
                    const std::vector<uint8_t> header = {first, 0x00, 0x65, 0x58};
                    EXPECT_EQ(makeOver<GrePDU>(header, expected), 0);
                    EXPECT_EQ(makeOver<GrePDU>(header, expected - 1u), 22);
                    std::vector<uint8_t> bytes = header;
                    bytes.resize(expected, 0);
                    Frame frame(bytes);
                    EXPECT_EQ(GrePDU::at(frame.pdu(), 0).headerLength(), expected);
                }
            }
        }
    }
    EXPECT_EQ(greHeaderLength(0x20), 8);
    EXPECT_EQ(greHeaderLength(0xb0), 16);
    EXPECT_EQ(greHeaderLength(0x00), 4);
}

TEST(Views, PrependNeedsHeadroom) {
    Frame frame(std::vector<uint8_t>(20, 0), 4, 0);
    PDU p = frame.pdu();
    try {
        p.prepend(8);
        FAIL() << "prepend of 8 with 4 bytes of headroom returned";
    } catch (int error) {
        EXPECT_EQ(error, 55);
    }
    EXPECT_EQ(p._begin, 4);
    p.prepend(4);
    EXPECT_EQ(p._begin, 0);
    EXPECT_EQ(p.length(), 24);
}

TEST(Views, EthernetAndTagFields) {
    Frame frame(
        "02 00 00 00 00 02 02 00 00 00 00 01 81 00"
        "a0 64 08 00",
        64, 0);
    EthernetPDU eth = EthernetPDU::at(frame.pdu(), 64);
    EXPECT_EQ(eth.headerLength(), 14);
    EXPECT_EQ(eth.innerBegin(), 78);
    EXPECT_EQ(eth.destination()[5], 0x02);
    EXPECT_EQ(eth.source()[5], 0x01);
    EXPECT_FALSE(eth.groupDestination());
    EXPECT_EQ(eth.ethertype(), 0x8100);
    VlanPDU tag = VlanPDU::at(eth, eth.innerBegin());
    EXPECT_EQ(tag.tci(), 0xa064);
    EXPECT_EQ(tag.vlan(), 100);  // priority 5 dropped
    EXPECT_EQ(tag.ethertype(), 0x0800);
    tag.setVlan(0xf123);
    tag.setEthertype(0x86dd);
    eth.setEthertype(0x88a8);
    EXPECT_EQ(frame.bytes(), test::hexBytes("02 00 00 00 00 02 02 00 00 00 00 01 88 a8"
                                            "01 23 86 dd"));
    QinQPDU service = QinQPDU::at(eth, eth.innerBegin());
    EXPECT_EQ(service.vlan(), 0x123);
}

TEST(Views, MacPacking) {
    const auto mac = test::hexBytes("02 11 22 33 44 55");
    EXPECT_EQ(packMac(mac.data()), 0x554433221102ull);
    uint8_t back[6] = {};
    unpackMac(0x554433221102ull, back);
    EXPECT_EQ(std::vector<uint8_t>(back, back + 6), mac);
}

TEST(Views, ArpFields) {
    Frame frame(
        "00 01 08 00 06 04 00 02 02 00 00 00 00 01 c6 33 64 01"
        "02 00 00 00 00 02 c6 33 64 02");
    ArpPDU arp = ArpPDU::at(frame.pdu(), 0);
    EXPECT_EQ(arp.hardwareType(), 1);
    EXPECT_EQ(arp.protocolType(), 0x0800);
    EXPECT_EQ(arp.hardwareLength(), 6);
    EXPECT_EQ(arp.protocolLength(), 4);
    EXPECT_EQ(arp.operation(), ArpPDU::kReply);
    EXPECT_TRUE(arp.holdsAddresses());
    EXPECT_EQ(arp.senderHardware(), frame.at(8));
    EXPECT_EQ(arp.senderProtocol(), frame.at(14));
    EXPECT_EQ(arp.targetHardware(), frame.at(18));
    EXPECT_EQ(arp.targetProtocol(), frame.at(24));
    PDU shorter = frame.pdu();
    shorter._end = 27;
    EXPECT_FALSE(ArpPDU::at(shorter, 0).holdsAddresses());
}

TEST(Views, IPv4Fields) {
    Frame frame("46 00 00 2c 12 34 20 b9 40 06 3c 61 c0 00 02 01 c6 33 64 02 01 01 01 01");
    IPv4PDU ip = IPv4PDU::at(frame.pdu(), 0);
    EXPECT_EQ(ip.version(), 4);
    EXPECT_EQ(ip.ihl(), 6);
    EXPECT_EQ(ip.headerLength(), 24);
    EXPECT_EQ(ip.innerBegin(), 24);
    EXPECT_EQ(ip.totalLength(), 44);
    EXPECT_EQ(ip.id(), 0x1234);
    EXPECT_EQ(ip.flagsOffset(), 0x20b9);
    EXPECT_EQ(ip.fragmentOffset(), 0xb9);
    EXPECT_TRUE(ip.moreFragments());
    EXPECT_EQ(ip.ttl(), 64);
    EXPECT_EQ(ip.protocol(), 6);
    EXPECT_EQ(ip.checksum(), 0x3c61);
    EXPECT_EQ(ip.source(), frame.at(12));
    EXPECT_EQ(ip.destination(), frame.at(16));
    ip.setIhl(5);
    ip.setTotalLength(0x0102);
    ip.setId(0x0304);
    ip.setFlagsOffset(0x4000);
    ip.setTtl(1);
    ip.setProtocol(17);
    ip.setChecksum(0xbeef);
    EXPECT_EQ(frame.bytes(),
              test::hexBytes("45 00 01 02 03 04 40 00 01 11 be ef c0 00 02 01 c6 33 64 02 "
                             "01 01 01 01"));
    EXPECT_FALSE(ip.moreFragments());
}

TEST(Views, IPv6Fields) {
    Frame frame(
        "60 12 34 56 00 10 11 40"
        "20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01"
        "20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 02");
    IPv6PDU ip = IPv6PDU::at(frame.pdu(), 0);
    EXPECT_EQ(ip.version(), 6);
    EXPECT_EQ(ip.firstWord(), 0x60123456u);
    EXPECT_EQ(ip.payloadLength(), 16);
    EXPECT_EQ(ip.nextHeader(), 17);
    EXPECT_EQ(ip.hopLimit(), 64);
    EXPECT_EQ(ip.source(), frame.at(8));
    EXPECT_EQ(ip.destination(), frame.at(24));
    EXPECT_EQ(ip.innerBegin(), 40);
}

TEST(Views, GreFields) {
    Frame keyed("20 00 65 58 00 00 01 2c");
    GrePDU gre = GrePDU::at(keyed.pdu(), 0);
    EXPECT_EQ(gre.flags(), 0x2000);
    EXPECT_TRUE(gre.hasKey());
    EXPECT_FALSE(gre.hasChecksum());
    EXPECT_FALSE(gre.hasSequence());
    EXPECT_EQ(gre.protocol(), 0x6558);
    EXPECT_EQ(gre.key(), 300u);
    EXPECT_EQ(gre.wordAt4(), 300u);
    EXPECT_EQ(gre.innerBegin(), 8);
    gre.setRecursionControl(7);
    EXPECT_EQ(keyed.bytes()[0], 0x27);
    EXPECT_EQ(gre.recursionControl(), 7);
    gre.setRecursionControl(6);
    EXPECT_EQ(keyed.bytes()[0], 0x26);

    Frame checksummed("b5 00 65 58 ab cd 00 00 00 00 00 2a 00 00 00 09");
    GrePDU all = GrePDU::at(checksummed.pdu(), 0);
    EXPECT_EQ(all.flags(), 0xb500);
    EXPECT_EQ(all.recursionControl(), 5);
    EXPECT_EQ(all.key(), 42u);
    EXPECT_EQ(all.wordAt4(), 0xabcd0000u);
    EXPECT_EQ(all.headerLength(), 16);
}

TEST(Views, TcpUdpIcmpFields) {
    Frame tcpFrame("c0 00 00 50 00 00 00 01 00 00 00 02 60 12 ff ff ab cd 00 00 02 04 05 b4");
    TcpPDU tcp = TcpPDU::at(tcpFrame.pdu(), 0);
    EXPECT_EQ(tcp.sourcePort(), 49152);
    EXPECT_EQ(tcp.destinationPort(), 80);
    EXPECT_EQ(tcp.sequence(), 1u);
    EXPECT_EQ(tcp.acknowledgement(), 2u);
    EXPECT_EQ(tcp.headerLength(), 24);
    EXPECT_EQ(tcp.flags(), 0x12);
    EXPECT_TRUE(tcp.syn());
    EXPECT_TRUE(tcp.ack());
    EXPECT_EQ(tcp.window(), 0xffff);
    EXPECT_EQ(tcp.checksum(), 0xabcd);
    tcp.setChecksum(0x0102);
    EXPECT_EQ(tcpFrame.bytes()[16], 0x01);
    EXPECT_EQ(tcpFrame.bytes()[17], 0x02);

    Frame udpFrame("14 e9 00 35 00 10 1a 2b");
    UdpPDU udp = UdpPDU::at(udpFrame.pdu(), 0);
    EXPECT_EQ(udp.sourcePort(), 5353);
    EXPECT_EQ(udp.destinationPort(), 53);
    EXPECT_EQ(udp.udpLength(), 16);
    EXPECT_EQ(udp.checksum(), 0x1a2b);

    Frame icmpFrame("80 01 12 34 00 07 00 01");
    Icmpv6PDU icmp6 = Icmpv6PDU::at(icmpFrame.pdu(), 0);
    EXPECT_EQ(icmp6.type(), 128);
    EXPECT_EQ(icmp6.code(), 1);
    EXPECT_EQ(icmp6.checksum(), 0x1234);
    Icmpv4PDU icmp4 = Icmpv4PDU::at(icmpFrame.pdu(), 4);
    EXPECT_EQ(icmp4.type(), 0);
    EXPECT_EQ(icmp4.code(), 7);
    EXPECT_EQ(icmp4.checksum(), 1);
}

TEST(Views, WalkOfATaggedTcpFrame) {
    Frame frame(
        "02 00 00 00 00 02 02 00 00 00 00 01 81 00"
        "a0 64 08 00"
        "45 00 00 2c 12 34 40 00 40 06 3c 61 c0 00 02 01 c6 33 64 02"
        "c0 00 00 50 00 00 00 01 00 00 00 00 60 02 ff ff ab cd 00 00 02 04 05 b4",
        64, 4032 - 62);
    EthernetPDU eth = EthernetPDU::at(frame.pdu(), 64);
    VlanPDU tag = VlanPDU::at(eth, eth.innerBegin());
    IPv4PDU ip = IPv4PDU::at(tag, tag.innerBegin());
    TcpPDU tcp = TcpPDU::at(ip, ip.innerBegin());
    EXPECT_EQ(tag._begin, 78);
    EXPECT_EQ(ip._begin, 82);
    EXPECT_EQ(tcp._begin, 102);
    EXPECT_EQ(tcp._end, 126);
    EXPECT_EQ(tcp._cap, 4096);
    EXPECT_EQ(tcp.innerBegin(), 126);
}

}  // namespace
}  // namespace lumora::pdu
