// Relay replies (recursion control 6) from an upstream gateway: a unicast
// frame goes on to the access point its destination client sits behind, a
// group frame to every access point of its VLAN but the sender, and frames
// for unknown clients are logged and dropped. Only IPv4 gateways relay.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "ingress_support.h"

namespace lumora {
namespace {

using test::Bytes;
using test::ethernet;
using test::hexText;
using test::IngressRig;
using test::RecordingGreSocket;
using test::WrittenFrames;

constexpr const char* kGateway = "203.0.113.1";
constexpr const char* kResponse =
    "Response VYM-VYM packet from 203.0.113.1 on eth0 (ip://192.0.2.1)";
// The gateway side's host, the sender of relayed frames.
constexpr const char* kFarHost = "02 00 5e 00 00 99";
constexpr const char* kTag20 = "81 00 00 14  88 b5  de ad be ef 00 01 02 03 04 05";

class IngressRelay : public testing::Test {
  protected:
    IngressRelay()
        : ap_socket("eth1", "198.51.100.1"),
          ap6_socket(RecordingGreSocket::ipv6("eth2", "2001:db8::1")) {
        rig.addTap(0);
        rig.addTap(20);
        rig.addTap(30);
    }

    // A packet from a client (its MAC in hex) behind an access point,
    // received on the given socket: this is how the tables learn them.
    void learnFrom(RecordingGreSocket& socket, GreSource source, const Bytes& datagram) {
        source.endpoint = &socket;
        rig.run(datagram, source);
    }

    // A relay reply from the gateway, marked 6 unless the header says otherwise.
    void relay(const Bytes& frame, const Bytes& gre = test::greHeader(0x06)) {
        rig.log.taken();
        for (auto& tap : rig.taps) tap->clear();
        rig.run(test::join({gre, frame}), rig.fromV4(kGateway));
    }

    IngressRig rig;
    RecordingGreSocket ap_socket;
    RecordingGreSocket ap6_socket;
};

TEST_F(IngressRelay, AUnicastFrameGoesToItsClientsAccessPoint) {
    learnFrom(ap_socket, rig.fromV4(), test::join({test::keyedGre(7), test::taggedFrame(20)}));
    relay(ethernet(test::kClientMac, kFarHost, kTag20));

    ASSERT_EQ(ap_socket.count(), 1u);
    const auto sent = ap_socket.sent(0);
    EXPECT_EQ(sent.family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(sent.ipv4.s_addr, test::ipv4Of(test::kAccessPoint).s_addr);
    // Wrapped as the client's own traffic is: its key, its tag.
    EXPECT_EQ(
        hexText(sent.bytes),
        hexText(test::join({test::keyedGre(7), ethernet(test::kClientMac, kFarHost, kTag20)})));
    EXPECT_EQ(rig.log.taken(),
              (std::vector<std::string>{kResponse,
                                        "Forwarding VYM-VYM to remote AP 198.51.100.7 via eth1"}));
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    EXPECT_EQ(rig.receiver.count(), 0u);
    EXPECT_EQ(rig.forward.count(), 0u);
}

TEST_F(IngressRelay, AnUntaggedClientGetsAnUntaggedUnkeyedFrame) {
    learnFrom(ap_socket, rig.fromV4(), test::join({test::plainGre(), test::untaggedFrame()}));
    const Bytes frame = ethernet(test::kClientMac, kFarHost);
    relay(frame);
    ASSERT_EQ(ap_socket.count(), 1u);
    EXPECT_EQ(hexText(ap_socket.sent(0).bytes), hexText(test::join({test::plainGre(), frame})));
}

TEST_F(IngressRelay, AClientBehindAnIPv6AccessPointIsReachedOverIPv6) {
    learnFrom(ap6_socket, rig.fromV6("2001:db8::7"),
              test::join({test::plainGre(), test::taggedFrame(20)}));
    relay(ethernet(test::kClientMac, kFarHost, kTag20));
    ASSERT_EQ(ap6_socket.count(), 1u);
    const auto sent = ap6_socket.sent(0);
    EXPECT_EQ(sent.family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(0, std::memcmp(sent.ipv6.s6_addr, test::ipv6Of("2001:db8::7").s6_addr, 16));
    EXPECT_EQ(rig.log.taken().back(), "Forwarding VYM-VYM to remote AP 2001:db8::7 via eth2");
}

// A client behind another gateway (its packets came marked 7) is reached
// the way upstream gateways are: marked 6 and logged as such.
TEST_F(IngressRelay, AClientBehindAnotherGatewayGetsTheGatewayMark) {
    learnFrom(ap_socket, rig.fromV4("198.51.100.50"),
              test::join({test::plainGre(0x07), test::untaggedFrame()}));
    const Bytes frame = ethernet(test::kClientMac, kFarHost);
    relay(frame);
    ASSERT_EQ(ap_socket.count(), 1u);
    EXPECT_EQ(hexText(ap_socket.sent(0).bytes), hexText(test::join({test::plainGre(0x06), frame})));
    EXPECT_EQ(rig.log.taken(),
              (std::vector<std::string>{kResponse,
                                        "Forwarding VYM-VYM to remote AP 198.51.100.50 via eth1",
                                        "Sending to upstream VYM 198.51.100.50"}));
}

TEST_F(IngressRelay, AnUnknownClientIsLoggedAndDropped) {
    learnFrom(ap_socket, rig.fromV4(), test::join({test::plainGre(), test::taggedFrame(30)}));
    // Known on VLAN 30, not on 20; and 02:00:5e:00:00:bb not at all.
    relay(ethernet(test::kClientMac, kFarHost, kTag20),
          test::greHeader(0x26, "65 58", "00 00 00 07"));
    EXPECT_EQ(rig.log.taken(),
              (std::vector<std::string>{
                  kResponse, "cant find client for VYM-VYM to 02:00:5e:00:00:0a, vid 20"}));
    // The mark is cleared in the endpoint's buffer.
    EXPECT_EQ(rig.last().now().at(0), 0x20);
    relay(ethernet("02 00 5e 00 00 bb", kFarHost));
    EXPECT_EQ(rig.log.taken(),
              (std::vector<std::string>{
                  kResponse, "cant find client for VYM-VYM to 02:00:5e:00:00:bb, vid 0"}));
    EXPECT_EQ(ap_socket.count(), 0u);
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    EXPECT_EQ(rig.tables.clientCount(), 1u);
}

TEST_F(IngressRelay, AClientWithoutPeerIsLoggedAndDropped) {
    const Bytes mac = test::hexBytes(test::kClientMac);
    bool inserted = false;
    rig.tables.insertClient(clientKeyOf(mac.data(), 20), std::make_unique<ClientRecord>(mac.data()),
                            inserted);
    ASSERT_TRUE(inserted);
    relay(ethernet(test::kClientMac, kFarHost, kTag20));
    EXPECT_EQ(rig.log.taken(),
              (std::vector<std::string>{
                  kResponse,
                  "SHOUD NOT GET HEE cant find client for VYM-VYM to 02:00:5e:00:00:0a, vid 20"}));
}

TEST_F(IngressRelay, AnIPv6GatewayIsNotRelayedFor) {
    learnFrom(ap_socket, rig.fromV4(), test::join({test::plainGre(), test::untaggedFrame()}));
    rig.log.taken();
    rig.taps.front()->clear();
    rig.run(test::join({test::greHeader(0x26, "65 58", "00 00 00 07"),
                        ethernet(test::kClientMac, kFarHost)}),
            rig.fromV6("2001:db8::99"));
    EXPECT_EQ(rig.log.taken(), std::vector<std::string>{});
    EXPECT_EQ(rig.last().now().at(0), 0x20);
    EXPECT_EQ(ap_socket.count(), 0u);
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    EXPECT_EQ(rig.tables.peerCount(), 1u);
}

// Sorted copies, so that the peer table's order does not matter.
std::vector<std::string> sorted(std::vector<std::string> lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
}

class IngressRelayBroadcast : public IngressRelay {
  protected:
    IngressRelayBroadcast() {
        // On VLAN 20: an IPv4 and an IPv6 access point, and the gateway
        // itself; on VLAN 30 a third access point.
        learnFrom(ap_socket, rig.fromV4(),
                  test::join({test::plainGre(), ethernet(kHostA, kClientA, kTag20)}));
        learnFrom(ap6_socket, rig.fromV6("2001:db8::7"),
                  test::join({test::plainGre(), ethernet(kHostA, kClientB, kTag20)}));
        rig.run(test::join({test::plainGre(), ethernet(kHostA, kFarHost, kTag20)}),
                rig.fromV4(kGateway));
        learnFrom(ap_socket, rig.fromV4("198.51.100.8"),
                  test::join({test::plainGre(),
                              ethernet(kHostA, kClientC, "81 00 00 1e 88 b5 01 02 03 04")}));
        ap_socket.clear();
        ap6_socket.clear();
        rig.receiver.clear();
    }

    static constexpr const char* kHostA = "02 00 5e 00 00 01";
    static constexpr const char* kClientA = "02 00 5e 00 00 a1";
    static constexpr const char* kClientB = "02 00 5e 00 00 b2";
    static constexpr const char* kClientC = "02 00 5e 00 00 c3";
};

TEST_F(IngressRelayBroadcast, GoesToEveryAccessPointOfTheVlanButTheSender) {
    const Bytes frame = ethernet("ff ff ff ff ff ff", kFarHost, kTag20);
    relay(frame);
    const std::string expected = hexText(test::join({test::plainGre(), frame}));

    ASSERT_EQ(ap_socket.count(), 1u);
    EXPECT_EQ(ap_socket.sent(0).ipv4.s_addr, test::ipv4Of(test::kAccessPoint).s_addr);
    EXPECT_EQ(ap_socket.sent(0).family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(hexText(ap_socket.sent(0).bytes), expected);
    ASSERT_EQ(ap6_socket.count(), 1u);
    EXPECT_EQ(ap6_socket.sent(0).family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(
        0, std::memcmp(ap6_socket.sent(0).ipv6.s6_addr, test::ipv6Of("2001:db8::7").s6_addr, 16));
    EXPECT_EQ(hexText(ap6_socket.sent(0).bytes), expected);
    // Not back to the gateway that sent it.
    EXPECT_EQ(rig.receiver.count(), 0u);

    const auto lines = rig.log.taken();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), kResponse);
    EXPECT_EQ(sorted({lines.begin() + 1, lines.end()}),
              (std::vector<std::string>{
                  "Forwarding VYM-VYM broadcast to remote AP 198.51.100.7 via eth1",
                  "Forwarding VYM-VYM broadcast to remote AP 2001:db8::7 via eth2"}));
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
}

TEST_F(IngressRelayBroadcast, AMulticastFrameIsAGroupFrameToo) {
    const Bytes frame = ethernet("01 00 5e 00 00 fb", kFarHost, "81 00 00 1e  88 b5 01 02 03 04");
    relay(frame);
    EXPECT_EQ(ap6_socket.count(), 0u);
    ASSERT_EQ(ap_socket.count(), 1u);
    EXPECT_EQ(ap_socket.sent(0).ipv4.s_addr, test::ipv4Of("198.51.100.8").s_addr);
    EXPECT_EQ(hexText(ap_socket.sent(0).bytes), hexText(test::join({test::plainGre(), frame})));
    EXPECT_EQ(rig.log.taken(),
              (std::vector<std::string>{
                  kResponse, "Forwarding VYM-VYM broadcast to remote AP 198.51.100.8 via eth1"}));
}

TEST_F(IngressRelayBroadcast, AVlanWithoutOtherPeersGetsNothing) {
    relay(ethernet("ff ff ff ff ff ff", kFarHost, "81 00 00 28  88 b5 01 02 03 04"));
    EXPECT_EQ(rig.log.taken(), std::vector<std::string>{kResponse});
    EXPECT_EQ(ap_socket.count() + ap6_socket.count() + rig.receiver.count(), 0u);
}

// The frame in the endpoint's buffer is sent to every peer alike: one
// peer's encapsulation does not show in the next one's copy.
TEST_F(IngressRelayBroadcast, EveryPeerGetsTheSameBytesWhateverTheOrder) {
    learnFrom(ap_socket, rig.fromV4("198.51.100.9"),
              test::join({test::plainGre(), ethernet(kHostA, "02 00 5e 00 00 d4", kTag20)}));
    ap_socket.clear();
    const Bytes frame = ethernet("ff ff ff ff ff ff", kFarHost, kTag20);
    relay(frame);
    ASSERT_EQ(ap_socket.count(), 2u);
    const std::string expected = hexText(test::join({test::plainGre(), frame}));
    EXPECT_EQ(hexText(ap_socket.sent(0).bytes), expected);
    EXPECT_EQ(hexText(ap_socket.sent(1).bytes), expected);
    EXPECT_EQ(ap6_socket.count(), 1u);
}

}  // namespace
}  // namespace lumora
