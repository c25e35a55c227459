// The peer table's and the client cache's key formulas, with exact numbers.
#include <gtest/gtest.h>

#include "learning_support.h"
#include "tunnel/Tables.h"

namespace lumora {
namespace {

using test::v4;
using test::v6;

const in_addr kNoV4{};
const in6_addr kNoV6{};

TEST(TablesKeys, IPv4PeerIdIsTheAddressInMemoryOrderAboveTheVlan) {
    // 192.0.2.10 is c0 00 02 0a in memory, 0x0a0200c0 read little-endian.
    EXPECT_EQ(peerIdOf(AF_INET, v4("192.0.2.10"), kNoV6, 20), 0x0a0200c00014u);
    EXPECT_EQ(peerIdOf(AF_INET, v4("203.0.113.255"), kNoV6, 0), 0xff7100cb0000u);
    EXPECT_EQ(peerIdOf(AF_INET, v4("198.51.100.1"), kNoV6, 65535), 0x016433c6ffffu);
}

TEST(TablesKeys, IPv4PeerIdIgnoresTheIPv6Field) {
    EXPECT_EQ(peerIdOf(AF_INET, v4("192.0.2.10"), v6("2001:db8::1"), 20), 0x0a0200c00014u);
}

TEST(TablesKeys, IPv6PeerIdKeepsTheFirstSixAddressBytes) {
    // 20 01 0d b8 00 00 | 00 00 ...: little-endian 0xb80d0120, shifted by 16.
    EXPECT_EQ(peerIdOf(AF_INET6, kNoV4, v6("2001:db8::5"), 0), 0xb80d01200000u);
    EXPECT_EQ(peerIdOf(AF_INET6, kNoV4, v6("2001:db8:1234::"), 7), 0x3412b80d01200007u);
    // Bytes 6 and 7 are shifted out, bytes 8 to 15 never read.
    EXPECT_EQ(peerIdOf(AF_INET6, kNoV4, v6("2001:db8:0:ffff:1:2:3:4"), 7), 0xb80d01200007u);
    EXPECT_EQ(peerIdOf(AF_INET6, kNoV4, v6("fe80::1"), 1), 0x80fe0001u);
}

TEST(TablesKeys, OtherFamiliesKeyOnTheVlanAlone) {
    EXPECT_EQ(peerIdOf(AF_UNIX, v4("192.0.2.10"), v6("2001:db8::5"), 9), 9u);
    EXPECT_EQ(peerIdOf(0, v4("192.0.2.10"), v6("2001:db8::5"), 0), 0u);
}

TEST(TablesKeys, ClientKeyIsTheMacLittleEndianAboveThePolicyVlan) {
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(clientKeyOf(mac, 20), 0x5544332211000014u);
    EXPECT_EQ(clientKeyOf(mac, 0), 0x5544332211000000u);
    const uint8_t broadcast[6] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(clientKeyOf(broadcast, 4095), 0xffffffffffff0fffu);
    const uint8_t first[6] = {0x02, 0, 0, 0, 0, 0};
    EXPECT_EQ(clientKeyOf(first, 1), 0x20001u);
}

}  // namespace
}  // namespace lumora
