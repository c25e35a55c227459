// 802.1Q tags on frames from the tunnel: the tag picks the VLAN and comes off
// in the endpoint's buffer before the frame reaches the tap; frames of a VLAN
// that has no tap are learned and then dropped.
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

TEST(IngressTag, TheTagComesOffInTheEndpointsBuffer) {
    IngressRig rig;
    rig.addTap(20);
    // Priority 5 and DEI 0 around VLAN 20.
    const Bytes tagged = test::taggedFrame(0xa014);
    rig.run(test::join({test::plainGre(), tagged}));

    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap20", {hexText(test::untaggedFrame())}}}));
    // Moved down by four bytes; the last four bytes of the buffer are what the
    // move left behind.
    const Bytes stale(tagged.end() - 4, tagged.end());
    EXPECT_EQ(hexText(rig.last().now()),
              hexText(test::join({test::plainGre(), test::untaggedFrame(), stale})));
    EXPECT_EQ(rig.log.lines(), test::learnedLines(20, ", vlan: 20"));
}

TEST(IngressTag, AnUntaggedFrameIsWrittenAsItCame) {
    IngressRig rig;
    rig.addTap(0);
    const Bytes datagram = test::join({test::plainGre(), test::untaggedFrame()});
    rig.run(datagram);
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap0", {hexText(test::untaggedFrame())}}}));
    EXPECT_EQ(hexText(rig.last().now()), hexText(datagram));
    EXPECT_EQ(rig.log.lines(), test::learnedLines(0, ""));
}

TEST(IngressTag, APriorityTagComesOffAndMeansVlan0) {
    IngressRig rig;
    rig.addTap(0);
    rig.run(test::join({test::plainGre(), test::taggedFrame(0xe000)}));
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap0", {hexText(test::untaggedFrame())}}}));
    EXPECT_EQ(rig.log.lines(), test::learnedLines(0, ""));
    const Bytes mac = test::hexBytes(test::kClientMac);
    ASSERT_NE(rig.tables.findClient(mac.data(), 0), nullptr);
    EXPECT_EQ(rig.tables.findClient(mac.data(), 0)->hasVlan, 0);
}

TEST(IngressTag, OnlyTheOuterOf2TagsComesOff) {
    IngressRig rig;
    rig.addTap(20);
    rig.addTap(30);
    rig.run(test::join({test::plainGre(), test::taggedFrame(20, "81 00 00 1e  08 06 00 01")}));
    EXPECT_EQ(
        rig.tapWrites(),
        (WrittenFrames{{"tap20", {hexText(test::untaggedFrame("81 00 00 1e  08 06 00 01"))}}}));
}

TEST(IngressTag, AServiceTagIsNotA8021QTag) {
    IngressRig rig;
    rig.addTap(0);
    rig.addTap(20);
    const Bytes frame = test::untaggedFrame("88 a8 00 14  08 06 00 01");
    rig.run(test::join({test::plainGre(), frame}));
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap0", {hexText(frame)}}}));
}

TEST(IngressTag, TheShortestTaggedFrameHoldsFourBytesBehindTheTag) {
    IngressRig rig;
    rig.addTap(20);
    // 22 bytes: MACs, tag, the inner ethertype and 4 bytes behind it.
    rig.run(test::join({test::plainGre(), test::taggedFrame(20, "08 06 00 01 02 03")}));
    EXPECT_EQ(rig.tapWrites(),
              (WrittenFrames{{"tap20", {hexText(test::untaggedFrame("08 06 00 01 02 03"))}}}));
    const Bytes mac = test::hexBytes(test::kClientMac);
    EXPECT_EQ(rig.tables.findClient(mac.data(), 20)->readTraffic().bytesIn, 18u);
}

TEST(IngressTag, AVlanWithoutTapIsLearnedThenDropped) {
    IngressRig rig;
    rig.addTap(0);
    rig.addTap(20);
    rig.run(test::join({test::keyedGre(7), test::taggedFrame(40)}));

    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    std::vector<std::string> expected = test::learnedLines(40, ", grekey: 7, vlan: 40");
    expected.push_back("unexpected traffic on vlan 40");
    EXPECT_EQ(rig.log.lines(), expected);
    EXPECT_EQ(rig.tables.peerCount(), 1u);
    EXPECT_EQ(rig.tables.clientCount(), 1u);
}

TEST(IngressTag, AnUntaggedFrameWithoutVlan0TapIsDropped) {
    IngressRig rig;
    rig.addTap(20);
    rig.run(test::join({test::plainGre(), test::untaggedFrame()}));
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    EXPECT_EQ(rig.log.lines().back(), "unexpected traffic on vlan 0");
}

// A key used as the VLAN can name VLANs no tag can carry. 5000 is refused
// whole: not wrapped onto VLAN 904 (5000 & 0xfff), whose tap stays idle.
TEST(IngressTag, APolicyVlanFromTheKeyAbove4095HasNoTap) {
    IngressRig rig;
    rig.config.gre_key_mode = VlanMap;
    rig.addTap(0);
    rig.addTap(904);
    rig.run(test::join({test::keyedGre(5000), test::untaggedFrame()}));

    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    std::vector<std::string> expected =
        test::learnedLines(5000, ", grekey: 5000, mapped to vlan: 5000");
    expected.push_back("unexpected traffic on vlan 5000");
    EXPECT_EQ(rig.log.lines(), expected);
    const Bytes mac = test::hexBytes(test::kClientMac);
    ClientRecord* client = rig.tables.findClient(mac.data(), 5000);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->mappedVlan, 5000);
    EXPECT_EQ(rig.tables.peers().at(0).vlan, 5000);
}

TEST(IngressTag, AKeyOfAllOnesIsPolicyVlan65535) {
    IngressRig rig;
    rig.config.gre_key_mode = PreferKey;
    rig.addTap(20);
    rig.run(test::join({test::keyedGre(0xffffffff), test::taggedFrame(20)}));
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
    EXPECT_EQ(rig.log.lines().back(), "unexpected traffic on vlan 65535");
    EXPECT_EQ(rig.log.lines().at(1),
              "[cache] new device: 02:00:5e:00:00:0a, peer: 198.51.100.7, grekey: 4294967295, "
              "vlan: 20, mapped to vlan: 65535");
}

// The same client on a second VLAN is a second client; its packets go to
// their own taps.
TEST(IngressTag, OneMacOnTwoVlansIsTwoClients) {
    IngressRig rig;
    rig.addTap(20);
    rig.addTap(30);
    rig.run(test::join({test::plainGre(), test::taggedFrame(20)}));
    rig.run(test::join({test::plainGre(), test::taggedFrame(30)}));
    rig.run(test::join({test::plainGre(), test::taggedFrame(20)}));
    const std::string frame = hexText(test::untaggedFrame());
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap20", {frame, frame}}, {"tap30", {frame}}}));
    EXPECT_EQ(rig.tables.clientCount(), 2u);
    EXPECT_EQ(rig.tables.peerCount(), 2u);
    const Bytes mac = test::hexBytes(test::kClientMac);
    EXPECT_EQ(rig.tables.findClient(mac.data(), 20)->readTraffic().packetsIn, 2u);
    EXPECT_EQ(rig.tables.findClient(mac.data(), 30)->readTraffic().packetsIn, 1u);
}

}  // namespace
}  // namespace lumora
