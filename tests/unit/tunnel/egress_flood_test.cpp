// The egress path's multi-destination decisions: a broadcast or multicast
// frame is flooded as one copy per (VLAN, key) pair of every peer of its
// VLAN, each tagged and keyed for its pair; with a server configured every
// frame goes to the server alone, untouched by the client cache.
#include <gtest/gtest.h>

#include <algorithm>

#include "egress_support.h"

namespace lumora {
namespace {

using test::Bytes;
using test::datagram;
using test::hexBytes;
using test::join;

const char* const kArpRequest =
    "08 06  00 01 08 00 06 04 00 01  02 00 5e 00 00 01 c0 00 02 01"
    "00 00 00 00 00 00 c0 00 02 0a";

Bytes broadcast() {
    return join({hexBytes(test::kBroadcast), hexBytes(test::kHost), hexBytes(kArpRequest)});
}

Bytes tagged(const Bytes& frame, const char* tag) {
    return join({Bytes(frame.begin(), frame.begin() + 12), hexBytes(tag),
                 Bytes(frame.begin() + 12, frame.end())});
}

// The flood's order follows the peer table; these tests look at the set.
std::vector<std::string> sorted(std::vector<std::string> lines) {
    std::sort(lines.begin(), lines.end());
    return lines;
}

class EgressFlood : public testing::Test {
  protected:
    test::EgressRig rig;
};

TEST_F(EgressFlood, ABroadcastGoesToEveryPeerOfItsVlanAsItsClientsArrived) {
    const uint32_t key = 30;
    rig.learnClient(test::kClientA, test::kPeerA, 20);
    rig.learnClient(test::kClientB, test::kPeerB, 20, 20, &key);
    rig.run(broadcast());
    EXPECT_EQ(sorted(rig.sent()),
              (std::vector<std::string>{
                  "198.51.100.7: " + datagram("00 00 65 58", broadcast()),
                  "198.51.100.8: " +
                      datagram("20 00 65 58 00 00 00 1e", tagged(broadcast(), "81 00 00 14")),
              }));
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>{});
}

TEST_F(EgressFlood, OnePeerGetsOneCopyPerVlanKeyPairOfItsClients) {
    const uint32_t key30 = 30;
    const uint32_t key31 = 31;
    rig.learnClient(test::kClientA, test::kPeerA, 20, 20, &key30);
    rig.learnClient(test::kClientB, test::kPeerA, 20, 21, &key31);
    // The same pair again, and a pair sharing its VLAN with a listed one:
    // neither adds a copy.
    rig.learnClient("02 00 5e 00 00 0c", test::kPeerA, 20, 21, &key31);
    rig.learnClient("02 00 5e 00 00 0d", test::kPeerA, 20, 20, &key31);
    rig.run(broadcast());
    EXPECT_EQ(sorted(rig.sent()),
              (std::vector<std::string>{
                  "198.51.100.7: " +
                      datagram("20 00 65 58 00 00 00 1e", tagged(broadcast(), "81 00 00 14")),
                  "198.51.100.7: " +
                      datagram("20 00 65 58 00 00 00 1f", tagged(broadcast(), "81 00 00 15")),
              }));
}

TEST_F(EgressFlood, PeersOfOtherVlansGetNothing) {
    rig.learnClient(test::kClientA, test::kPeerA, 30);
    rig.run(broadcast());
    EXPECT_EQ(rig.socket.count(), 0u);
}

TEST_F(EgressFlood, EveryCopyLeavesAtOnceBeforeTheNextIsMade) {
    rig.learnClient(test::kClientA, test::kPeerA, 20);
    rig.learnClient(test::kClientB, test::kPeerB, 20);
    rig.slots.emplace_back(broadcast());
    handleTapFrame(rig.context, rig.tap, 20, rig.slots.back().pdu, *rig.batch);
    // The copies share one buffer, so none waits for the batch's flush.
    EXPECT_EQ(rig.socket.count(), 2u);
}

TEST_F(EgressFlood, AServerTakesEveryFrameAndTheCacheIsNotAsked) {
    rig.context.send_all.family = 1;
    rig.context.send_all.ipv4 = test::ipv4Of("203.0.113.5");
    rig.context.server_socket_ipv4.store(&rig.socket);
    const Bytes flooded = broadcast();
    const Bytes unicast = join({hexBytes(test::kClientB), hexBytes(test::kHost),
                                Bytes(flooded.begin() + 12, flooded.end())});
    rig.run(broadcast());
    rig.run(unicast);
    EXPECT_EQ(rig.sent(),
              (std::vector<std::string>{
                  "203.0.113.5: " + datagram("00 00 65 58", tagged(flooded, "81 00 00 14")),
                  "203.0.113.5: " + datagram("00 00 65 58", tagged(unicast, "81 00 00 14")),
              }));
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>{});
}

TEST_F(EgressFlood, AServerOfAFamilyWithoutEndpointIsWarnedAbout) {
    rig.context.send_all.family = 2;
    rig.context.send_all.ipv6 = test::ipv6Of("2001:db8::5");
    rig.run(broadcast());
    EXPECT_EQ(rig.socket.count(), 0u);
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>{"tap20: no GRE endpoint of the server's address family"});
}

}  // namespace
}  // namespace lumora
