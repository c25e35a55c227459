// The egress path's unicast decisions: a frame for a learned client goes to
// that client's access point, tagged and keyed as the client's own frames
// arrived, and counts as the client's outgoing traffic; an unknown
// destination is dropped with one Notice line; tagged frames on a trunk tap
// are filtered by the configured VLANs and stripped of their tag.
#include <gtest/gtest.h>

#include "egress_support.h"

namespace lumora {
namespace {

using test::Bytes;
using test::datagram;
using test::hexBytes;
using test::join;

// An IPv4/UDP payload after the Ethernet addresses (ethertype included).
const char* const kUdp =
    "08 00  45 00 00 20 00 07 00 00 40 11 f6 a7 c0 00 02 0a c0 00 02 14"
    "04 00 00 35 00 0c 00 00  61 62 63 64";

Bytes frameTo(const char* destination, const char* rest = kUdp) {
    return join({hexBytes(destination), hexBytes(test::kHost), hexBytes(rest)});
}

class EgressUnicast : public testing::Test {
  protected:
    test::EgressRig rig;
};

TEST_F(EgressUnicast, AnUntaggedClientGetsPlainGreToItsAccessPoint) {
    rig.learnClient(test::kClientA, test::kPeerA, 20);
    const Bytes frame = frameTo(test::kClientA);
    rig.run(frame);
    EXPECT_EQ(rig.sent(),
              (std::vector<std::string>{"198.51.100.7: " + datagram("00 00 65 58", frame)}));
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>{});
}

TEST_F(EgressUnicast, AKeyedTaggedClientGetsItsKeyAndTagBack) {
    const uint32_t key = 30;
    rig.learnClient(test::kClientA, test::kPeerA, 20, 20, &key);
    rig.run(frameTo(test::kClientA));
    const Bytes tagged = join(
        {hexBytes(test::kClientA), hexBytes(test::kHost), hexBytes("81 00 00 14"), hexBytes(kUdp)});
    EXPECT_EQ(rig.sent(), (std::vector<std::string>{"198.51.100.7: " +
                                                    datagram("20 00 65 58 00 00 00 1e", tagged)}));
}

TEST_F(EgressUnicast, EachSentFrameCountsAsTheClientsOutgoingTraffic) {
    rig.learnClient(test::kClientA, test::kPeerA, 20);
    const Traffic before = rig.trafficOf(test::kClientA, 20);
    rig.run(frameTo(test::kClientA));
    rig.run(frameTo(test::kClientA));
    const Traffic after = rig.trafficOf(test::kClientA, 20);
    EXPECT_EQ(after.bytesOut - before.bytesOut, 2u * 46u);
    EXPECT_EQ(after.packetsOut - before.packetsOut, 2u);
    EXPECT_EQ(after.bytesIn, before.bytesIn);
    EXPECT_EQ(after.packetsIn, before.packetsIn);
}

TEST_F(EgressUnicast, AnUnknownDestinationIsDroppedWithOneNotice) {
    rig.learnClient(test::kClientA, test::kPeerA, 20);
    rig.run(frameTo(test::kClientB));
    EXPECT_EQ(rig.socket.count(), 0u);
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>{"tap20: can't find peer for host 02:00:5e:00:00:0b"});
}

TEST_F(EgressUnicast, AClientOfAnotherVlanIsNotFound) {
    rig.learnClient(test::kClientA, test::kPeerA, 30);
    rig.run(frameTo(test::kClientA));
    EXPECT_EQ(rig.socket.count(), 0u);
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>{"tap20: can't find peer for host 02:00:5e:00:00:0a"});
}

TEST_F(EgressUnicast, ATrunkFrameOfAConfiguredVlanLosesItsTagOnTheWayOut) {
    rig.learnClient(test::kClientA, test::kPeerA, 20);
    rig.run(join({hexBytes(test::kClientA), hexBytes(test::kHost), hexBytes("81 00 00 14"),
                  hexBytes(kUdp)}),
            0);
    EXPECT_EQ(rig.sent(),
              (std::vector<std::string>{"198.51.100.7: " +
                                        datagram("00 00 65 58", frameTo(test::kClientA))}));
}

TEST_F(EgressUnicast, ATrunkFrameOfAnUnconfiguredVlanIsDroppedSilently) {
    rig.learnClient(test::kClientA, test::kPeerA, 20);
    rig.run(join({hexBytes(test::kClientA), hexBytes(test::kHost), hexBytes("81 00 00 15"),
                  hexBytes(kUdp)}),
            0);
    EXPECT_EQ(rig.socket.count(), 0u);
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>{});
}

TEST_F(EgressUnicast, ATagOnATapOfOneVlanIsLeftInPlace) {
    rig.learnClient(test::kClientA, test::kPeerA, 20);
    const Bytes frame = join(
        {hexBytes(test::kClientA), hexBytes(test::kHost), hexBytes("81 00 00 15"), hexBytes(kUdp)});
    rig.run(frame);
    EXPECT_EQ(rig.sent(),
              (std::vector<std::string>{"198.51.100.7: " + datagram("00 00 65 58", frame)}));
}

TEST_F(EgressUnicast, FramesTheHostShouldNeverProduceThrow) {
    // Shorter than an Ethernet header.
    EXPECT_EQ(rig.thrown(hexBytes("02 00 5e 00 00 0a 02 00 5e 00 00 01 08")), 22);
    // A trunk tag with nothing behind it.
    EXPECT_EQ(rig.thrown(hexBytes("02 00 5e 00 00 0a 02 00 5e 00 00 01 81 00 00 14"), 0), 22);
    EXPECT_EQ(rig.socket.count(), 0u);
}

TEST_F(EgressUnicast, AFrameTheDumpCannotDecodeEndsTheTapThreadAtInfo) {
    rig.learnClient(test::kClientA, test::kPeerA, 20);
    rig.log.logger.level = Info;
    // IHL 6 over a 20-byte IPv4 header: the dump throws after the Ethernet line.
    const char* const ihl6 = "08 00  46 00 00 14 00 00 00 00 40 11 00 00 c0 00 02 0a c0 00 02 14";
    EXPECT_EQ(rig.thrown(frameTo(test::kClientA, ihl6)), 22);
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>{"<no timestamp: Ethernet: 02:00:5e:00:00:01 > "
                                       "02:00:5e:00:00:0a, ethertype: 0x0800, length: 34>"});
    EXPECT_EQ(rig.socket.count(), 0u);
}

TEST_F(EgressUnicast, TheLastDatagramOfAFrameWaitsForTheBatchsFlush) {
    rig.learnClient(test::kClientA, test::kPeerA, 20);
    rig.slots.emplace_back(frameTo(test::kClientA));
    handleTapFrame(rig.context, rig.tap, 20, rig.slots.back().pdu, *rig.batch);
    EXPECT_EQ(rig.socket.count(), 0u);
    rig.batch->sends.flush();
    EXPECT_EQ(rig.socket.count(), 1u);
}

}  // namespace
}  // namespace lumora
