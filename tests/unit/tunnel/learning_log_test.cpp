// Learning from accepted packets: the records it makes and moves, and the
// exact lines it logs.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "learning_support.h"
#include "tunnel/Learning.h"

namespace lumora {
namespace {

using test::fromV4;
using test::fromV6;
using test::LogCapture;
using test::mac;
using test::v4;
using Lines = std::vector<std::string>;

std::vector<VlanKey> listed(const PeerRecord& peer) {
    return {peer.vlanKeys.begin(), peer.vlanKeys.end()};
}

TEST(LearningLog, ANewPeerAndClientAreEnteredAndLogged) {
    Tables tables;
    LogCapture log;
    const auto m = mac(0x55);
    Sighting s = fromV4("192.0.2.10", 20, m);
    s.tagVlan = 20;
    s.hasKey = true;
    s.key = 7;
    s.relayMark = 1;

    const time_t before = time(nullptr);
    ClientRecord* client = learn(tables, &log.logger, s);
    EXPECT_EQ(
        log.newLines(),
        (Lines{"[peers] new peer: 192.0.2.10, vlan: 20, interface: [] (total: 1)",
               "[cache] new device: 00:11:22:33:44:55, peer: 192.0.2.10, grekey: 7, vlan: 20"}));

    ASSERT_NE(client, nullptr);
    EXPECT_EQ(tables.findClient(m.data(), 20), client);
    PeerRecord* peer = tables.findPeer(peerIdOf(AF_INET, s.ipv4, s.ipv6, 20));
    ASSERT_NE(peer, nullptr);
    EXPECT_EQ(client->peer, peer);
    EXPECT_EQ(peer->clients, (std::vector<ClientRecord*>{client}));
    EXPECT_EQ(listed(*peer), (std::vector<VlanKey>{{20, 7}}));
    EXPECT_EQ(peer->family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(peer->relayMark, 1);
    EXPECT_EQ(peer->endpoint, nullptr);
    EXPECT_GE(peer->firstSeen, before);
    EXPECT_EQ(client->hasKey, 1);
    EXPECT_EQ(client->greKey, 7u);
    EXPECT_EQ(client->hasVlan, 1);
    EXPECT_EQ(client->vlan, 20);
    EXPECT_EQ(client->mappedVlan, 0) << "policy VLAN equal to the tag's";
    const Traffic t = client->readTraffic();
    EXPECT_EQ(t.bytesIn, 60u);
    EXPECT_EQ(t.bytesOut, 0u);
    EXPECT_EQ(t.packetsIn, 1u);
    EXPECT_EQ(t.packetsOut, 0u);
}

TEST(LearningLog, AKnownClientIsOnlyCountedAndTouched) {
    Tables tables;
    LogCapture log;
    const auto m = mac(0x55);
    Sighting s = fromV4("192.0.2.10", 20, m);
    ClientRecord* client = learn(tables, &log.logger, s);
    log.newLines();
    client->lastSeen = 0;

    s.frameLength = 1514;
    s.hasKey = true;  // a changed key does not re-learn a client on its peer
    s.key = 99;
    EXPECT_EQ(learn(tables, &log.logger, s), client);
    EXPECT_EQ(learn(tables, &log.logger, s), client);
    EXPECT_EQ(log.newLines(), Lines{});
    EXPECT_GT(client->lastSeen, 0);
    EXPECT_EQ(client->hasKey, 0);
    const Traffic t = client->readTraffic();
    EXPECT_EQ(t.bytesIn, 60u + 2 * 1514u);
    EXPECT_EQ(t.packetsIn, 3u);
    EXPECT_EQ(tables.peerCount(), 1u);
    EXPECT_EQ(tables.clientCount(), 1u);
}

TEST(LearningLog, AKeyUsedAsVlanIsLoggedAsMapped) {
    Tables tables;
    LogCapture log;
    const auto m = mac(0x01);
    Sighting s = fromV4("192.0.2.10", 30, m);  // untagged, key 30 chose VLAN 30
    s.hasKey = true;
    s.key = 30;
    ClientRecord* client = learn(tables, &log.logger, s);
    EXPECT_EQ(log.newLines(),
              (Lines{"[peers] new peer: 192.0.2.10, vlan: 30, interface: [] (total: 1)",
                     "[cache] new device: 00:11:22:33:44:01, peer: 192.0.2.10, grekey: 30, "
                     "mapped to vlan: 30"}));
    EXPECT_EQ(client->mappedVlan, 30);
    EXPECT_EQ(client->hasVlan, 0);

    // Tagged 20 but keyed to 30: both VLANs are told.
    const auto n = mac(0x02);
    Sighting t = fromV4("192.0.2.10", 30, n);
    t.tagVlan = 20;
    t.hasKey = true;
    t.key = 30;
    learn(tables, &log.logger, t);
    EXPECT_EQ(log.newLines(), (Lines{"[cache] new device: 00:11:22:33:44:02, peer: 192.0.2.10, "
                                     "grekey: 30, vlan: 20, mapped to vlan: 30"}));
}

TEST(LearningLog, AnUntaggedKeylessClientOnVlanZeroGetsTheBareLine) {
    Tables tables;
    LogCapture log;
    const auto m = mac(0xab);
    learn(tables, &log.logger, fromV6("2001:db8::5", 0, m));
    EXPECT_EQ(log.newLines(),
              (Lines{"[peers] new peer: 2001:db8::5, vlan: 0, interface: [] (total: 1)",
                     "[cache] new device: 00:11:22:33:44:ab, peer: 2001:db8::5"}));
}

TEST(LearningLog, AnUpstreamVlanIsNamedOnTheNewDeviceLine) {
    Tables tables;
    LogCapture log;
    const auto m = mac(0x10);
    const in_addr gateway = v4("203.0.113.1");
    Sighting s = fromV4("192.0.2.10", 40, m);
    s.tagVlan = 40;
    s.hasKey = true;
    s.key = 0;
    s.upstream = &gateway;
    learn(tables, &log.logger, s);
    EXPECT_EQ(log.newLines(),
              (Lines{"[peers] new peer: 192.0.2.10, vlan: 40, interface: [] (total: 1)",
                     "[cache] new device: 00:11:22:33:44:10, peer: 192.0.2.10 FWD via VYM "
                     "203.0.113.1, grekey: 0, vlan: 40"}));
}

TEST(LearningLog, AMacFromASecondAddressMovesToTheNewPeer) {
    Tables tables;
    LogCapture log;
    const auto m = mac(0x55);
    const in_addr gateway = v4("203.0.113.1");
    Sighting first = fromV4("192.0.2.10", 20, m);
    first.tagVlan = 20;
    ClientRecord* client = learn(tables, &log.logger, first);
    PeerRecord* old_peer = client->peer;
    log.newLines();

    Sighting second = fromV4("192.0.2.11", 20, m);
    second.tagVlan = 20;
    second.hasKey = true;
    second.key = 5;
    second.upstream = &gateway;  // not named on a moving client's line
    EXPECT_EQ(learn(tables, &log.logger, second), client);
    EXPECT_EQ(log.newLines(),
              (Lines{"[peers] new peer: 192.0.2.11, vlan: 20, interface: [] (total: 2)",
                     "Reassociating client to peer cache",
                     "[cache] Update device peer: 00:11:22:33:44:55, peer: 192.0.2.11, grekey: 5, "
                     "vlan: 20"}));

    PeerRecord* new_peer = client->peer;
    ASSERT_NE(new_peer, old_peer);
    EXPECT_EQ(client->peerAddressText(), "192.0.2.11");
    EXPECT_TRUE(old_peer->clients.empty());
    EXPECT_TRUE(old_peer->vlanKeys.empty());
    EXPECT_EQ(tables.peerCount(), 2u) << "the old peer stays";
    EXPECT_EQ(new_peer->clients, (std::vector<ClientRecord*>{client}));
    EXPECT_EQ(listed(*new_peer), (std::vector<VlanKey>{{20, 5}}));
    EXPECT_EQ(client->readTraffic().packetsIn, 2u);

    // And back: the known peer logs no new-peer line.
    learn(tables, &log.logger, first);
    EXPECT_EQ(log.newLines(),
              (Lines{"Reassociating client to peer cache",
                     "[cache] Update device peer: 00:11:22:33:44:55, peer: 192.0.2.10, vlan: 20"}));
    EXPECT_EQ(client->peer, old_peer);
    EXPECT_EQ(client->hasKey, 0);
    EXPECT_TRUE(new_peer->clients.empty());
    EXPECT_EQ(old_peer->clients, (std::vector<ClientRecord*>{client}));
}

TEST(LearningLog, OneAddressOnTwoVlansIsTwoPeers) {
    Tables tables;
    LogCapture log;
    const auto m = mac(0x55);
    ClientRecord* a = learn(tables, &log.logger, fromV4("192.0.2.10", 20, m));
    ClientRecord* b = learn(tables, &log.logger, fromV4("192.0.2.10", 30, m));
    EXPECT_NE(a, b);
    EXPECT_NE(a->peer, b->peer);
    EXPECT_EQ(
        log.newLines(),
        (Lines{"[peers] new peer: 192.0.2.10, vlan: 20, interface: [] (total: 1)",
               "[cache] new device: 00:11:22:33:44:55, peer: 192.0.2.10, mapped to vlan: 20",
               "[peers] new peer: 192.0.2.10, vlan: 30, interface: [] (total: 2)",
               "[cache] new device: 00:11:22:33:44:55, peer: 192.0.2.10, mapped to vlan: 30"}));
}

TEST(LearningLog, IPv6PeersDifferingInTheirLastTenBytesShareOneRecord) {
    Tables tables;
    LogCapture log;
    const auto m1 = mac(0x01);
    const auto m2 = mac(0x02);
    ClientRecord* a = learn(tables, &log.logger, fromV6("2001:db8::1", 0, m1));
    ClientRecord* b = learn(tables, &log.logger, fromV6("2001:db8:0:ffff::2", 0, m2));
    EXPECT_EQ(tables.peerCount(), 1u);
    EXPECT_EQ(a->peer, b->peer);
    EXPECT_EQ(b->peerAddressText(), "2001:db8::1") << "the record keeps its first address";
    EXPECT_EQ(a->peer->clients, (std::vector<ClientRecord*>{a, b}));
    EXPECT_EQ(log.newLines(),
              (Lines{"[peers] new peer: 2001:db8::1, vlan: 0, interface: [] (total: 1)",
                     "[cache] new device: 00:11:22:33:44:01, peer: 2001:db8::1",
                     "[cache] new device: 00:11:22:33:44:02, peer: 2001:db8:0:ffff::2"}));

    // The client behind the second address never matches the record's whole
    // address, so each of its packets re-associates it with the same record.
    learn(tables, &log.logger, fromV6("2001:db8:0:ffff::2", 0, m2));
    EXPECT_EQ(log.newLines(),
              (Lines{"Reassociating client to peer cache",
                     "[cache] Update device peer: 00:11:22:33:44:02, peer: 2001:db8:0:ffff::2"}));
    EXPECT_EQ(b->peer, a->peer);
    EXPECT_EQ(a->peer->clients, (std::vector<ClientRecord*>{a, b}));
}

TEST(LearningLog, AnIPv4AndAnIPv6PeerAreNeverTheSame) {
    Tables tables;
    LogCapture log;
    const auto m = mac(0x55);
    // 2001:db8::c000:20a ends in the bytes of 192.0.2.10: still another peer.
    ClientRecord* c = learn(tables, &log.logger, fromV4("192.0.2.10", 0, m));
    learn(tables, &log.logger, fromV6("2001:db8::c000:20a", 0, m));
    EXPECT_EQ(tables.peerCount(), 2u);
    EXPECT_EQ(c->peerAddressText(), "2001:db8::c000:20a");
    EXPECT_EQ(log.newLines(),
              (Lines{"[peers] new peer: 192.0.2.10, vlan: 0, interface: [] (total: 1)",
                     "[cache] new device: 00:11:22:33:44:55, peer: 192.0.2.10",
                     "[peers] new peer: 2001:db8::c000:20a, vlan: 0, interface: [] (total: 2)",
                     "Reassociating client to peer cache",
                     "[cache] Update device peer: 00:11:22:33:44:55, peer: 2001:db8::c000:20a"}));
}

TEST(LearningLog, NothingIsWrittenBelowNotice) {
    Tables tables;
    LogCapture log;
    log.logger.level = Warning;
    const auto m = mac(0x55);
    learn(tables, &log.logger, fromV4("192.0.2.10", 20, m));
    learn(tables, &log.logger, fromV4("192.0.2.11", 20, m));
    EXPECT_EQ(log.newLines(), Lines{});
    EXPECT_EQ(tables.peerCount(), 2u);
}

}  // namespace
}  // namespace lumora
