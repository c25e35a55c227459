// The tables' insertions, lookups and the copies handed to the other threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "learning_support.h"
#include "tunnel/Tables.h"

namespace lumora {
namespace {

using test::v4;
using test::v6;

PeerRecord candidate(const char* address, uint16_t vlan) {
    PeerRecord p;
    p.family = AF_INET;
    p.ipv4 = v4(address);
    p.vlan = vlan;
    p.peerId = peerIdOf(AF_INET, p.ipv4, p.ipv6, vlan);
    return p;
}

std::vector<uint64_t> ids(const std::vector<PeerRecord>& peers) {
    std::vector<uint64_t> out;
    for (const auto& p : peers) out.push_back(p.peerId);
    std::sort(out.begin(), out.end());
    return out;
}

TEST(TablesSnapshot, APeerIsInsertedOnceAndKeepsItsFirstFields) {
    Tables tables;
    bool inserted = false;
    size_t total = 0;
    PeerRecord first = candidate("192.0.2.10", 20);
    first.firstSeen = 100;
    first.relayMark = 1;
    PeerRecord* a = tables.insertPeer(first, inserted, total);
    EXPECT_TRUE(inserted);
    EXPECT_EQ(total, 1u);
    EXPECT_NE(a, &first) << "the table holds its own copy";

    PeerRecord again = candidate("192.0.2.10", 20);
    again.firstSeen = 200;
    PeerRecord* b = tables.insertPeer(again, inserted, total);
    EXPECT_FALSE(inserted);
    EXPECT_EQ(total, 1u);
    EXPECT_EQ(b, a);
    EXPECT_EQ(b->firstSeen, 100);
    EXPECT_EQ(b->relayMark, 1);
    EXPECT_EQ(tables.findPeer(first.peerId), a);
    EXPECT_EQ(tables.findPeer(0x1234), nullptr);
}

TEST(TablesSnapshot, PeerPointersSurviveTheTableGrowing) {
    Tables tables;
    bool inserted = false;
    size_t total = 0;
    PeerRecord* first = tables.insertPeer(candidate("192.0.2.1", 1), inserted, total);
    for (uint16_t vlan = 2; vlan < 2000; ++vlan)
        tables.insertPeer(candidate("192.0.2.1", vlan), inserted, total);
    EXPECT_EQ(total, 1999u);
    EXPECT_EQ(tables.findPeer(peerIdOf(AF_INET, v4("192.0.2.1"), in6_addr{}, 1)), first);
    EXPECT_EQ(first->vlan, 1);
}

TEST(TablesSnapshot, TheReportSeesEveryPeerAndTheFloodOnlyItsVlan) {
    Tables tables;
    bool inserted = false;
    size_t total = 0;
    const PeerRecord a = candidate("192.0.2.10", 20);
    const PeerRecord b = candidate("192.0.2.11", 20);
    const PeerRecord c = candidate("192.0.2.10", 30);
    const PeerRecord d = candidate("192.0.2.12", 65535);  // a key used as VLAN
    for (const auto* p : {&a, &b, &c, &d}) tables.insertPeer(*p, inserted, total);

    EXPECT_EQ(ids(tables.peers()), ids({a, b, c, d}));
    EXPECT_EQ(ids(tables.peers(kAllVlans)), ids({a, b, c, d}));
    EXPECT_EQ(ids(tables.peers(20)), ids({a, b}));
    EXPECT_EQ(ids(tables.floodPeers(20)), ids({a, b}));
    EXPECT_EQ(ids(tables.floodPeers(30)), ids({c}));
    EXPECT_TRUE(tables.floodPeers(40).empty());
    EXPECT_TRUE(tables.floodPeers(65535).empty()) << "65535 and above flood nowhere";
    EXPECT_TRUE(tables.floodPeers(70000).empty());
    EXPECT_EQ(tables.peerCount(), 4u);
}

TEST(TablesSnapshot, PeerCopiesCarryTheirClientsAndKeys) {
    Tables tables;
    bool inserted = false;
    size_t total = 0;
    PeerRecord* peer = tables.insertPeer(candidate("192.0.2.10", 20), inserted, total);
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    ClientRecord* client =
        tables.insertClient(clientKeyOf(mac, 20), std::make_unique<ClientRecord>(mac), inserted);
    client->associate(peer, Association{true, 7, 20, 0});

    const auto flood = tables.floodPeers(20);
    ASSERT_EQ(flood.size(), 1u);
    EXPECT_EQ(flood[0].clients, (std::vector<ClientRecord*>{client}));
    EXPECT_EQ((std::vector<VlanKey>(flood[0].vlanKeys.begin(), flood[0].vlanKeys.end())),
              (std::vector<VlanKey>{{20, 7}}));
    EXPECT_EQ(flood[0].ipv4.s_addr, v4("192.0.2.10").s_addr);
}

TEST(TablesSnapshot, ClientsAreFoundByMacAndPolicyVlan) {
    Tables tables;
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    bool inserted = false;
    ClientRecord* c20 =
        tables.insertClient(clientKeyOf(mac, 20), std::make_unique<ClientRecord>(mac), inserted);
    EXPECT_TRUE(inserted);
    ClientRecord* c30 =
        tables.insertClient(clientKeyOf(mac, 30), std::make_unique<ClientRecord>(mac), inserted);
    EXPECT_TRUE(inserted);
    EXPECT_NE(c20, c30) << "one MAC on two VLANs is two clients";
    EXPECT_EQ(tables.findClient(mac, 20), c20);
    EXPECT_EQ(tables.findClient(clientKeyOf(mac, 30)), c30);
    EXPECT_EQ(tables.findClient(mac, 40), nullptr);
    const uint8_t other[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x56};
    EXPECT_EQ(tables.findClient(other, 20), nullptr);

    ClientRecord* again =
        tables.insertClient(clientKeyOf(mac, 20), std::make_unique<ClientRecord>(mac), inserted);
    EXPECT_FALSE(inserted);
    EXPECT_EQ(again, c20) << "the record already there stays in use";
    EXPECT_EQ(tables.clientCount(), 2u);
}

TEST(TablesSnapshot, ClientCopiesAreTakenWithTheirCounters) {
    Tables tables;
    bool inserted = false;
    size_t total = 0;
    PeerRecord* peer = tables.insertPeer(candidate("192.0.2.10", 20), inserted, total);
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    ClientRecord* client =
        tables.insertClient(clientKeyOf(mac, 20), std::make_unique<ClientRecord>(mac), inserted);
    client->associate(peer, Association{true, 7, 20, 0});
    client->addTraffic(60, 1514, 1, 1);

    const auto copies = tables.clients();
    ASSERT_EQ(copies.size(), 1u);
    EXPECT_EQ(std::memcmp(copies[0].mac, mac, 6), 0);
    EXPECT_EQ(copies[0].peer, peer);
    EXPECT_EQ(copies[0].peerAddressText(), "192.0.2.10");
    EXPECT_EQ(copies[0].greKey, 7u);
    EXPECT_EQ(copies[0].vlan, 20);
    const Traffic t = copies[0].readTraffic();
    EXPECT_EQ(t.bytesIn, 60u);
    EXPECT_EQ(t.bytesOut, 1514u);
    EXPECT_EQ(t.packetsIn, 1u);
    EXPECT_EQ(t.packetsOut, 1u);
    client->addTraffic(1, 1, 1, 1);
    EXPECT_EQ(copies[0].readTraffic().packetsIn, 1u) << "a copy does not follow the record";
    EXPECT_TRUE(Tables().clients().empty());
}

TEST(TablesSnapshot, TheRelayFindsTheClientsPeer) {
    Tables tables;
    bool inserted = false;
    size_t total = 0;
    PeerRecord c6;
    c6.family = AF_INET6;
    c6.ipv6 = v6("2001:db8::5");
    c6.vlan = 20;
    c6.relayMark = 1;
    c6.peerId = peerIdOf(AF_INET6, c6.ipv4, c6.ipv6, 20);
    PeerRecord* peer = tables.insertPeer(c6, inserted, total);
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const uint8_t lonely[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x66};
    ClientRecord* client =
        tables.insertClient(clientKeyOf(mac, 20), std::make_unique<ClientRecord>(mac), inserted);
    tables.insertClient(clientKeyOf(lonely, 20), std::make_unique<ClientRecord>(lonely), inserted);
    client->attachClient(peer);

    PeerRecord out;
    ASSERT_TRUE(tables.relayPeer(mac, 20, out));
    EXPECT_EQ(out.family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(std::memcmp(&out.ipv6, &c6.ipv6, 16), 0);
    EXPECT_EQ(out.relayMark, 1);
    EXPECT_FALSE(tables.relayPeer(mac, 21, out)) << "unknown on that VLAN";
    EXPECT_FALSE(tables.relayPeer(lonely, 20, out)) << "known, but without a peer";
}

TEST(TablesSnapshot, TheProcessTablesAreOneInstance) {
    EXPECT_EQ(&Tables::process(), &Tables::process());
}

}  // namespace
}  // namespace lumora
