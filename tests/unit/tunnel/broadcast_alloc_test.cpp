// A frame for a whole VLAN costs what the VLAN's peers make it, not what
// their clients do: the egress flood and a relayed broadcast each allocate
// their list of targets once, and nothing else, whether a peer has ten
// clients or a hundred thousand.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "alloc_counter_support.h"
#include "egress_support.h"
#include "ingress_support.h"

namespace lumora {
namespace {

using test::AllocationCounter;
using test::Bytes;
using test::hexBytes;
using test::RecordingGreSocket;

constexpr int kRounds = 100;
constexpr const char* kCrowdedPeer = "198.51.100.7";
constexpr const char* kQuietPeer = "198.51.100.8";

// Learns clients behind the crowded peer, untagged and unkeyed, each with
// its own source MAC, and one keyed, tagged client behind the quiet peer:
// two peers of VLAN 20, one (VLAN, key) pair each.
void fill(Tables& tables, Logger& logger, RecordingGreSocket& socket, int clients) {
    Sighting s;
    s.family = AF_INET;
    s.ipv4 = test::ipv4Of(kCrowdedPeer);
    s.endpoint = &socket;
    s.policyVlan = 20;
    s.frameLength = 60;
    uint8_t mac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x00};
    s.mac = mac;
    for (int i = 0; i < clients; ++i) {
        mac[3] = static_cast<uint8_t>(i >> 16);
        mac[4] = static_cast<uint8_t>(i >> 8);
        mac[5] = static_cast<uint8_t>(i);
        learn(tables, &logger, s);
    }
    mac[0] = 0x06;
    s.ipv4 = test::ipv4Of(kQuietPeer);
    s.tagVlan = 20;
    s.hasKey = true;
    s.key = 30;
    learn(tables, &logger, s);
}

class BroadcastAllocation : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Clients, BroadcastAllocation, testing::Values(10, 100000),
                         [](const auto& info) { return std::to_string(info.param) + "Clients"; });

// Floods a broadcast ARP request from the host kRounds times from the tap of
// device_vlan, as a tap read leaves it in its slot, and returns this
// thread's allocations meanwhile; sent counts the copies.
size_t allocationsOfFloods(test::EgressRig& rig, uint16_t device_vlan, size_t& sent) {
    rig.slots.emplace_back(
        hexBytes("ff ff ff ff ff ff  02 00 5e 00 00 01  08 06  00 01 08 00 06 04 00 01"
                 "02 00 5e 00 00 01 c0 00 02 01  00 00 00 00 00 00 c0 00 02 0a"));
    const pdu::PDU read = rig.slots.back().pdu;
    sent = 0;
    AllocationCounter::start();
    for (int i = 0; i < kRounds; ++i) {
        handleTapFrame(rig.context, rig.tap, device_vlan, read, *rig.batch);
        rig.batch->sends.flush();
        sent += rig.socket.count();
        rig.socket.clear();
    }
    return AllocationCounter::stop();
}

TEST_P(BroadcastAllocation, TheFloodAllocatesItsCopiesListOnly) {
    test::EgressRig rig;
    rig.log.logger.level = Error;  // a hundred thousand "new device" lines are not read
    fill(rig.tables, rig.log.logger, rig.socket, GetParam());
    size_t sent = 0;
    EXPECT_EQ(allocationsOfFloods(rig, 20, sent), static_cast<size_t>(kRounds))
        << "one list per flood";
    EXPECT_EQ(sent, 2u * kRounds) << "one copy per peer and pair";
    // A VLAN without peers floods nowhere and allocates nothing.
    EXPECT_EQ(allocationsOfFloods(rig, 30, sent), 0u);
    EXPECT_EQ(sent, 0u);
}

TEST_P(BroadcastAllocation, ARelayedBroadcastAllocatesItsPeersListOnly) {
    test::IngressRig rig;
    RecordingGreSocket ap_socket("eth1", "198.51.100.1");
    fill(rig.tables, rig.log.logger, ap_socket, GetParam());
    rig.log.clear();
    // From the upstream gateway, marked as its reply, for all of VLAN 20.
    const Bytes datagram =
        test::join({test::greHeader(0x06),
                    test::ethernet("ff ff ff ff ff ff", "02 00 5e 00 00 99",
                                   "81 00 00 14  88 b5 de ad be ef 00 01 02 03 04 05")});
    test::Received buffer(datagram);
    const size_t offset = buffer.pdu._begin;
    const GreSource gateway = rig.fromV4("203.0.113.1");

    size_t sent = 0;
    AllocationCounter::start();
    for (int i = 0; i < kRounds; ++i) {
        // The path strips the tag in place: each round starts from the bytes
        // as received.
        std::copy(datagram.begin(), datagram.end(), buffer.storage.begin() + offset);
        handleGreDatagram(rig.context, gateway, buffer.pdu, rig.batch);
        rig.batch.flush();
        sent += ap_socket.count();
        ap_socket.clear();
    }
    EXPECT_EQ(AllocationCounter::stop(), static_cast<size_t>(kRounds)) << "one list per frame";
    EXPECT_EQ(sent, 2u * kRounds) << "one copy per peer";
    size_t forwarded = 0;
    for (const std::string& line : rig.log.lines())
        forwarded += line.starts_with("Forwarding VYM-VYM broadcast to remote AP 198.51.100.");
    EXPECT_EQ(forwarded, 2u * kRounds);
}

}  // namespace
}  // namespace lumora
