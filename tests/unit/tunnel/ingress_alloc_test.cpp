// A known client's datagrams are the per-packet case of the ingress path:
// once its peer and record exist, handing one to handleGreDatagram touches
// the heap not at all, whichever way the frame leaves (tap, rewritten IPv6
// multicast, upstream gateway, relay to an access point) or is refused.
#include <gtest/gtest.h>

#include <cstring>

#include "alloc_counter_support.h"
#include "ingress_support.h"

namespace lumora {
namespace {

using test::AllocationCounter;
using test::Bytes;
using test::IngressRig;

constexpr int kRounds = 1000;

// Runs the datagram once to learn its sender, then kRounds times more, each
// from a fresh copy of its bytes in the same buffer (the path edits them),
// counting this thread's allocations over those rounds.
size_t allocationsOfKnown(IngressRig& rig, const Bytes& datagram, const GreSource& source) {
    test::Received buffer(datagram);
    handleGreDatagram(rig.context, source, buffer.pdu, rig.batch);
    rig.batch.flush();
    const size_t offset = buffer.pdu._begin;

    AllocationCounter::start();
    for (int i = 0; i < kRounds; ++i) {
        std::memcpy(buffer.storage.data() + offset, datagram.data(), datagram.size());
        for (auto& tap : rig.taps) tap->clear();
        rig.forward.clear();
        rig.receiver.clear();
        handleGreDatagram(rig.context, source, buffer.pdu, rig.batch);
        rig.batch.flush();
    }
    return AllocationCounter::stop();
}

uint64_t packetsIn(IngressRig& rig, uint16_t vlan) {
    const Bytes mac = test::hexBytes(test::kClientMac);
    return rig.tables.findClient(mac.data(), vlan)->readTraffic().packetsIn;
}

TEST(IngressAllocation, AKnownClientsFrameToItsTapAllocatesNothing) {
    IngressRig rig;
    rig.addTap(20);
    const Bytes datagram = test::join({test::keyedGre(7), test::taggedFrame(20)});
    EXPECT_EQ(allocationsOfKnown(rig, datagram, rig.fromV4()), 0u);
    EXPECT_EQ(packetsIn(rig, 20), kRounds + 1u);
    EXPECT_EQ(rig.taps[0]->count(), 1u);
}

TEST(IngressAllocation, AClampedSynFromAnIPv6PeerAllocatesNothing) {
    IngressRig rig;
    rig.config.gre_key_mode = PreferKey;
    rig.addTap(30);
    const Bytes datagram = test::join(
        {test::keyedGre(30),
         test::taggedFrame(20,
                           "08 00 45 00 00 2c 00 01 40 00 40 06 00 00 c0 00 02 0a c6 33 64 14 "
                           "c0 01 00 50 00 00 00 01 00 00 00 00 60 02 ff ff 12 34 00 00 "
                           "02 04 05 b4")});
    EXPECT_EQ(allocationsOfKnown(rig, datagram, rig.fromV6("2001:db8::7")), 0u);
    EXPECT_EQ(rig.log.lines().back(), "clamping MSS");
    EXPECT_EQ(packetsIn(rig, 30), kRounds + 1u);
}

TEST(IngressAllocation, ARewrittenIPv6MulticastFrameAllocatesNothing) {
    IngressRig rig;
    rig.addTap(0);
    rig.interfaces["tap0"] = MacAddress{0x02, 0x00, 0x5e, 0xaa, 0xbb, 0xcc};
    const Bytes datagram = test::join(
        {test::plainGre(), test::untaggedFrame("86 dd 60 00 00 00", "33 33 00 00 00 01")});
    EXPECT_EQ(allocationsOfKnown(rig, datagram, rig.fromV4()), 0u);
    EXPECT_EQ(test::hexText(rig.taps[0]->frame(0)).substr(0, 17), "02 00 5e aa bb cc");
}

TEST(IngressAllocation, AFrameForTheUpstreamGatewayAllocatesNothing) {
    IngressRig rig;
    rig.forwardVlan(40, "203.0.113.1");
    rig.useForwardSocket();
    const Bytes datagram = test::join({test::plainGre(), test::taggedFrame(40)});
    EXPECT_EQ(allocationsOfKnown(rig, datagram, rig.fromV4()), 0u);
    EXPECT_EQ(rig.forward.count(), 1u);
}

TEST(IngressAllocation, ARelayReplyToAKnownClientAllocatesNothing) {
    IngressRig rig;
    rig.addTap(20);
    rig.run(test::join({test::keyedGre(7), test::taggedFrame(20)}));
    const Bytes reply =
        test::join({test::plainGre(0x06), test::ethernet(test::kClientMac, "02 00 5e 00 00 99",
                                                         "81 00 00 14 88 b5 01 02 03 04")});
    EXPECT_EQ(allocationsOfKnown(rig, reply, rig.fromV4("203.0.113.1")), 0u);
    ASSERT_EQ(rig.receiver.count(), 1u);
    EXPECT_EQ(test::hexText(rig.receiver.sent(0).bytes).substr(0, 23), "20 00 65 58 00 00 00 07");
}

TEST(IngressAllocation, ARefusedDatagramAllocatesNothing) {
    IngressRig rig;
    rig.config.gre_key_mode = Require;
    rig.config.gre_key = 5;
    rig.addTap(0);
    const Bytes datagram = test::join({test::keyedGre(6), test::untaggedFrame()});
    EXPECT_EQ(allocationsOfKnown(rig, datagram, rig.fromV4()), 0u);
    EXPECT_EQ(rig.tables.peerCount(), 0u);
}

}  // namespace
}  // namespace lumora
