// VLANs forwarded to the upstream gateway: the datagram as received, tag and
// all, goes to the gateway through the forward socket with recursion control
// 7, after the sender has been learned; nothing reaches a tap. And the mark a
// gateway's own forwarded packets carry.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ingress_support.h"

namespace lumora {
namespace {

using test::Bytes;
using test::hexText;
using test::IngressRig;
using test::WrittenFrames;

constexpr const char* kGateway = "203.0.113.1";
constexpr const char* kForwarding = "Forwarding VLAN 40 to remote VYM 203.0.113.1";

class IngressUpstream : public testing::Test {
  protected:
    IngressUpstream() {
        rig.forwardVlan(40, kGateway);
        rig.useForwardSocket();
        // A tap on the forwarded VLAN stays idle.
        rig.addTap(40);
        rig.addTap(30);
        rig.addTap(20);
    }

    // The one datagram the forward socket sent: to the gateway over IPv4.
    Bytes forwarded() {
        EXPECT_EQ(rig.forward.count(), 1u);
        if (rig.forward.count() != 1) return {};
        const auto sent = rig.forward.sent(0);
        EXPECT_EQ(sent.family, static_cast<uint32_t>(AF_INET));
        EXPECT_EQ(sent.ipv4.s_addr, test::ipv4Of(kGateway).s_addr);
        return sent.bytes;
    }

    IngressRig rig;
};

TEST_F(IngressUpstream, TheDatagramAsReceivedGoesUpWithRecursion7) {
    const Bytes frame = test::taggedFrame(40);
    rig.run(test::join({test::keyedGre(7), frame}));

    EXPECT_EQ(hexText(forwarded()), hexText(test::join({test::keyedGre(7, 0x07), frame})));
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    EXPECT_EQ(rig.receiver.count(), 0u);
    EXPECT_EQ(rig.log.lines(),
              (std::vector<std::string>{
                  kForwarding,
                  "[peers] new peer: 198.51.100.7, vlan: 40, interface: eth0[192.0.2.1] (total: 1)",
                  "[cache] new device: 02:00:5e:00:00:0a, peer: 198.51.100.7 FWD via VYM "
                  "203.0.113.1, grekey: 7, vlan: 40"}));
    const Bytes mac = test::hexBytes(test::kClientMac);
    EXPECT_EQ(rig.tables.findClient(mac.data(), 40)->readTraffic().bytesIn,
              test::untaggedFrame().size());
}

TEST_F(IngressUpstream, EveryHeaderWordAndTheOldMarkBitsAreKept) {
    const Bytes words = test::hexBytes("12 34 56 78  00 00 00 09  00 00 00 2a");
    const Bytes frame = test::taggedFrame(0x3028);
    // C, K and S set, recursion control 2 on arrival.
    rig.run(test::join({test::greHeader(0xb2, "65 58"), words, frame}));
    EXPECT_EQ(hexText(forwarded()),
              hexText(test::join({test::greHeader(0xb7, "65 58"), words, frame})));
}

TEST_F(IngressUpstream, ALaterPacketOfTheClientGoesUpWithoutNewLines) {
    const Bytes datagram = test::join({test::plainGre(), test::taggedFrame(40)});
    rig.run(datagram);
    rig.log.taken();
    rig.forward.clear();
    rig.run(datagram);
    EXPECT_EQ(hexText(forwarded()),
              hexText(test::join({test::plainGre(0x07), test::taggedFrame(40)})));
    EXPECT_EQ(rig.log.taken(), std::vector<std::string>{kForwarding});
    const Bytes mac = test::hexBytes(test::kClientMac);
    EXPECT_EQ(rig.tables.findClient(mac.data(), 40)->readTraffic().packetsIn, 2u);
}

TEST_F(IngressUpstream, WithoutAForwardSocketNothingIsLearnedOrSent) {
    rig.context.forward_socket.store(nullptr);
    rig.run(test::join({test::plainGre(), test::taggedFrame(40)}));
    EXPECT_EQ(rig.log.lines(),
              (std::vector<std::string>{kForwarding, "ip4_socket_forward_to_vym is nullptr"}));
    EXPECT_EQ(rig.forward.count(), 0u);
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    EXPECT_EQ(rig.tables.peerCount(), 0u);
    EXPECT_EQ(rig.tables.clientCount(), 0u);
}

TEST_F(IngressUpstream, TheMissingSocketLineIsAnError) {
    rig.context.forward_socket.store(nullptr);
    rig.log.logger.level = Error;
    rig.run(test::join({test::plainGre(), test::taggedFrame(40)}));
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>{"ip4_socket_forward_to_vym is nullptr"});
}

TEST_F(IngressUpstream, TheKeyModeStillRefusesBeforeAnythingGoesUp) {
    rig.config.gre_key_mode = Reject;
    rig.run(test::join({test::keyedGre(7), test::taggedFrame(40)}));
    EXPECT_EQ(rig.log.lines(),
              (std::vector<std::string>{kForwarding,
                                        "eth0 (ip://192.0.2.1): ignoring PDU with GRE key 7"}));
    EXPECT_EQ(rig.forward.count(), 0u);
    EXPECT_EQ(rig.tables.peerCount(), 0u);
}

// The tag decides what goes up; the key only decides the VLAN it is learned on.
TEST_F(IngressUpstream, TheTagVlanChoosesForwardingTheKeyTheLearnedVlan) {
    rig.config.gre_key_mode = VlanMap;
    const Bytes frame = test::taggedFrame(40);
    rig.run(test::join({test::keyedGre(30), frame}));
    EXPECT_EQ(hexText(forwarded()), hexText(test::join({test::keyedGre(30, 0x07), frame})));
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    EXPECT_EQ(rig.log.lines().at(1),
              "[peers] new peer: 198.51.100.7, vlan: 30, interface: eth0[192.0.2.1] (total: 1)");
    EXPECT_EQ(rig.log.lines().at(2),
              "[cache] new device: 02:00:5e:00:00:0a, peer: 198.51.100.7 FWD via VYM "
              "203.0.113.1, grekey: 30, vlan: 40, mapped to vlan: 30");
}

TEST_F(IngressUpstream, AKeyNamingTheForwardedVlanDoesNotForward) {
    rig.config.gre_key_mode = VlanMap;
    rig.run(test::join({test::keyedGre(40), test::taggedFrame(20)}));
    EXPECT_EQ(rig.forward.count(), 0u);
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap40", {hexText(test::untaggedFrame())}}}));
}

TEST_F(IngressUpstream, OtherVlansGoToTheirTaps) {
    rig.run(test::join({test::plainGre(), test::taggedFrame(20)}));
    EXPECT_EQ(rig.forward.count(), 0u);
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap20", {hexText(test::untaggedFrame())}}}));
}

TEST(IngressUpstreamUntagged, AForwardedVlan0TakesUntaggedFrames) {
    IngressRig rig;
    rig.forwardVlan(0, kGateway);
    rig.useForwardSocket();
    rig.addTap(0);
    rig.run(test::join({test::plainGre(), test::untaggedFrame()}));
    ASSERT_EQ(rig.forward.count(), 1u);
    EXPECT_EQ(hexText(rig.forward.sent(0).bytes),
              hexText(test::join({test::plainGre(0x07), test::untaggedFrame()})));
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    EXPECT_EQ(rig.log.lines().front(), "Forwarding VLAN 0 to remote VYM 203.0.113.1");
}

// A gateway forwarding to us marks its packets 7: its peer record says so,
// and its frames are delivered like any other.
TEST(IngressRelayMark, RecursionControl7MarksTheNewPeer) {
    IngressRig rig;
    rig.addTap(20);
    rig.run(test::join({test::plainGre(0x07), test::taggedFrame(20)}), rig.fromV4(kGateway));
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap20", {hexText(test::untaggedFrame())}}}));
    ASSERT_EQ(rig.tables.peers().size(), 1u);
    EXPECT_EQ(rig.tables.peers()[0].relayMark, 1);
}

TEST(IngressRelayMark, OtherRecursionValuesDoNotMark) {
    for (uint8_t recursion : {1, 3, 5}) {
        IngressRig rig;
        rig.addTap(20);
        rig.run(test::join({test::plainGre(recursion), test::taggedFrame(20)}));
        EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap20", {hexText(test::untaggedFrame())}}}));
        ASSERT_EQ(rig.tables.peers().size(), 1u);
        EXPECT_EQ(rig.tables.peers()[0].relayMark, 0) << "recursion " << int{recursion};
    }
}

// The mark is the creating packet's: a known peer keeps it.
TEST(IngressRelayMark, AKnownPeerKeepsItsMark) {
    IngressRig rig;
    rig.addTap(20);
    rig.run(test::join({test::plainGre(0x07), test::taggedFrame(20)}), rig.fromV4(kGateway));
    rig.run(test::join({test::plainGre(), test::taggedFrame(20)}), rig.fromV4(kGateway));
    ASSERT_EQ(rig.tables.peers().size(), 1u);
    EXPECT_EQ(rig.tables.peers()[0].relayMark, 1);
}

}  // namespace
}  // namespace lumora
