// IPv6 multicast out of the tunnel: the tap is handed the frame addressed to
// the tap's own MAC (the host takes multicast frames only so), and the
// endpoint's buffer gets its 33:33 destination back afterwards.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ingress_support.h"

namespace lumora {
namespace {

using test::Bytes;
using test::ethernet;
using test::hexText;
using test::IngressRig;
using test::WrittenFrames;

// An ICMPv6 router solicitation's first bytes behind the ethertype.
constexpr const char* kIPv6 = "86 dd 60 00 00 00 00 08 3a ff fe 80 00 00";
constexpr const char* kAllNodes = "33 33 00 00 00 01";
constexpr const char* kTapMac = "02 00 5e aa bb cc";

class IngressIPv6Multicast : public testing::Test {
  protected:
    IngressIPv6Multicast() {
        rig.addTap(0);
        rig.addTap(20);
        rig.interfaces["tap0"] = MacAddress{0x02, 0x00, 0x5e, 0xaa, 0xbb, 0xcc};
        rig.interfaces["tap20"] = MacAddress{0x02, 0x00, 0x5e, 0x20, 0x20, 0x20};
        rig.interfaces["eth0"] = MacAddress{0x02, 0x00, 0x5e, 0xee, 0xee, 0xee};
    }

    IngressRig rig;
};

TEST_F(IngressIPv6Multicast, TheTapGetsItsOwnMacAndTheBufferIsRestored) {
    const Bytes datagram =
        test::join({test::plainGre(), ethernet(kAllNodes, test::kClientMac, kIPv6)});
    rig.run(datagram);

    EXPECT_EQ(rig.tapWrites(),
              (WrittenFrames{{"tap0", {hexText(ethernet(kTapMac, test::kClientMac, kIPv6))}}}));
    EXPECT_EQ(hexText(rig.last().now()), hexText(datagram));
    std::vector<std::string> expected = test::learnedLines(0, "");
    expected.push_back(
        "IPv6oEthernet Multicast Packet. Rewriting DMAC from 33:33:00:00:00:01 to "
        "02:00:5e:aa:bb:cc");
    EXPECT_EQ(rig.log.lines(), expected);
}

TEST_F(IngressIPv6Multicast, EachTapUsesItsOwnMac) {
    const char* solicited = "33 33 ff 00 00 0a";
    rig.run(test::join({test::plainGre(), test::untaggedFrame(kIPv6, solicited)}));
    const Bytes tagged = test::taggedFrame(20, kIPv6, solicited);
    rig.run(test::join({test::plainGre(), tagged}));

    EXPECT_EQ(rig.tapWrites(),
              (WrittenFrames{
                  {"tap0", {hexText(ethernet(kTapMac, test::kClientMac, kIPv6))}},
                  {"tap20", {hexText(ethernet("02 00 5e 20 20 20", test::kClientMac, kIPv6))}}}));
    // The tag is gone from the buffer, the destination is back.
    const Bytes stale(tagged.end() - 4, tagged.end());
    EXPECT_EQ(
        hexText(rig.last().now()),
        hexText(test::join({test::plainGre(), test::untaggedFrame(kIPv6, solicited), stale})));
    EXPECT_EQ(rig.log.lines().back(),
              "IPv6oEthernet Multicast Packet. Rewriting DMAC from 33:33:ff:00:00:0a to "
              "02:00:5e:20:20:20");
}

TEST_F(IngressIPv6Multicast, EveryPacketIsRewrittenAgain) {
    const Bytes datagram =
        test::join({test::plainGre(), ethernet(kAllNodes, test::kClientMac, kIPv6)});
    rig.run(datagram);
    rig.run(datagram);
    const std::string written = hexText(ethernet(kTapMac, test::kClientMac, kIPv6));
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap0", {written, written}}}));
}

TEST_F(IngressIPv6Multicast, OnlyIPv6FramesTo3333AreRewritten) {
    const std::vector<Bytes> frames = {
        // IPv4 to an IPv6 multicast MAC.
        ethernet(kAllNodes, test::kClientMac, "08 00 45 00 00 14"),
        // IPv6 to other group and unicast MACs.
        ethernet("33 34 00 00 00 01", test::kClientMac, kIPv6),
        ethernet("13 33 00 00 00 01", test::kClientMac, kIPv6),
        ethernet("ff ff ff ff ff ff", test::kClientMac, kIPv6),
        ethernet("01 00 5e 00 00 01", test::kClientMac, kIPv6),
        ethernet(test::kHostMac, test::kClientMac, kIPv6),
    };
    std::vector<std::string> expected;
    for (const Bytes& frame : frames) {
        rig.run(test::join({test::plainGre(), frame}));
        expected.push_back(hexText(frame));
    }
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap0", expected}}));
    for (const std::string& line : rig.log.lines())
        EXPECT_EQ(line.find("IPv6oEthernet"), std::string::npos) << line;
}

}  // namespace
}  // namespace lumora
