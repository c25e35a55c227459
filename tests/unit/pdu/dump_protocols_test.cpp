// Which protocols the IPv4 and IPv6 dumps walk into: IPv4 follows ICMPv4,
// IPv4-in-IPv4, TCP, UDP and GRE; IPv6 follows TCP, UDP, GRE and ICMPv6.
// Anything else ends the dump after the IP line.
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "frames_support.h"
#include "pdu/Dump.h"

namespace lumora::pdu {
namespace {

using test::capture;
using test::Captured;
using test::Frame;

// 20 bytes that each followed protocol can read: TCP with a 5-word header,
// UDP, GRE without options carrying protocol 0x0035 (not walked further),
// ICMP. As an IPv4 header its IHL of 0 is refused.
const char* const kPayload = "00 00 00 35 00 14 00 00 00 00 00 00 50 02 ff ff 00 00 00 00";

struct Walk {
    uint8_t protocol;
    int thrown;
    const char* text;
};

// For each walk: the packet (header, then kPayload) with the protocol byte at
// protocol_at set to the walk's protocol, dumped at depth 0.
template <typename View>
void expectWalks(const std::string& header, size_t protocol_at, std::initializer_list<Walk> walks) {
    for (const Walk& walk : walks) {
        SCOPED_TRACE(static_cast<int>(walk.protocol));
        std::vector<uint8_t> bytes = test::hexBytes(header + kPayload);
        bytes.at(protocol_at) = walk.protocol;
        Frame frame(bytes);
        const Captured c = capture([&](FILE* out) { dump(View::at(frame.pdu(), 0), out, 0); });
        EXPECT_EQ(c.thrown, walk.thrown);
        EXPECT_EQ(c.text, walk.text);
    }
}

TEST(DumpProtocols, IPv4FollowsIcmpv4IPv4TcpUdpAndGre) {
    const std::string header = "45 00 00 28 00 01 00 00 40 00 00 00 c0 00 02 01 c0 00 02 02 ";
    expectWalks<IPv4PDU>(
        header, 9,
        {
            {1, -1,
             "IPv4: 192.0.2.1 > 192.0.2.2, len: 40, id: 1, flags: 0, off: 0, ttl: 64, proto: 1, "
             "cksum: 0x0000, len/cap: 40/40\n"
             " ICMPv4: len: 20, type: 0, code: 0, cksum: 0x0035\n"},
            // Followed: the payload, read as an IPv4 header, is refused.
            {4, 22,
             "IPv4: 192.0.2.1 > 192.0.2.2, len: 40, id: 1, flags: 0, off: 0, ttl: 64, proto: 4, "
             "cksum: 0x0000, len/cap: 40/40\n"},
            {6, -1,
             "IPv4: 192.0.2.1 > 192.0.2.2, len: 40, id: 1, flags: 0, off: 0, ttl: 64, proto: 6, "
             "cksum: 0x0000, len/cap: 40/40\n"
             " TCP: src port: 0, dst port: 53, flags: 0x02, cksum: 0x0000\n"},
            {17, -1,
             "IPv4: 192.0.2.1 > 192.0.2.2, len: 40, id: 1, flags: 0, off: 0, ttl: 64, proto: 17, "
             "cksum: 0x0000, len/cap: 40/40\n"
             " UDP: src port: 0, dst port: 53, cksum: 0x0000, len/cap: 20/20\n"},
            {47, -1,
             "IPv4: 192.0.2.1 > 192.0.2.2, len: 40, id: 1, flags: 0, off: 0, ttl: 64, proto: 47, "
             "cksum: 0x0000, len/cap: 40/40\n"
             " GRE: flags: 0x0000, hlen: 4, proto: 0x0035, length: 20\n"},
            {58, -1,
             "IPv4: 192.0.2.1 > 192.0.2.2, len: 40, id: 1, flags: 0, off: 0, ttl: 64, proto: 58, "
             "cksum: 0x0000, len/cap: 40/40\n"},
            {2, -1,
             "IPv4: 192.0.2.1 > 192.0.2.2, len: 40, id: 1, flags: 0, off: 0, ttl: 64, proto: 2, "
             "cksum: 0x0000, len/cap: 40/40\n"},
        });
}

TEST(DumpProtocols, IPv6FollowsTcpUdpGreAndIcmpv6) {
    const std::string header =
        "60 00 00 00 00 14 00 40"
        "20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01"
        "20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 02 ";
    expectWalks<IPv6PDU>(
        header, 6,
        {
            {6, -1,
             "IPv6: 2001:db8::1 > 2001:db8::2, hop limit: 64, proto: 6, payload length: 20, "
             "length: 60\n"
             " TCP: src port: 0, dst port: 53, flags: 0x02, cksum: 0x0000\n"},
            {17, -1,
             "IPv6: 2001:db8::1 > 2001:db8::2, hop limit: 64, proto: 17, payload length: 20, "
             "length: 60\n"
             " UDP: src port: 0, dst port: 53, cksum: 0x0000, len/cap: 20/20\n"},
            {47, -1,
             "IPv6: 2001:db8::1 > 2001:db8::2, hop limit: 64, proto: 47, payload length: 20, "
             "length: 60\n"
             " GRE: flags: 0x0000, hlen: 4, proto: 0x0035, length: 20\n"},
            {58, -1,
             "IPv6: 2001:db8::1 > 2001:db8::2, hop limit: 64, proto: 58, payload length: 20, "
             "length: 60\n"
             " ICMPv6: type: 0, code: 0, cksum: 0x0035\n"},
            {1, -1,
             "IPv6: 2001:db8::1 > 2001:db8::2, hop limit: 64, proto: 1, payload length: 20, "
             "length: 60\n"},
            {4, -1,
             "IPv6: 2001:db8::1 > 2001:db8::2, hop limit: 64, proto: 4, payload length: 20, "
             "length: 60\n"},
            {2, -1,
             "IPv6: 2001:db8::1 > 2001:db8::2, hop limit: 64, proto: 2, payload length: 20, "
             "length: 60\n"},
        });
}

}  // namespace
}  // namespace lumora::pdu
