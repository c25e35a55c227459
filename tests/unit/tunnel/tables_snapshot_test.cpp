// The tables' insertions, lookups and the copies handed to the other threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "learning_support.h"
#include "tunnel/Tables.h"

namespace lumora {
namespace {

using test::v4;
using test::v6;

PeerFields candidate(const char* address, uint16_t vlan) {
    PeerFields p;
    p.family = AF_INET;
    p.ipv4 = v4(address);
    p.vlan = vlan;
    p.peerId = peerIdOf(AF_INET, p.ipv4, p.ipv6, vlan);
    return p;
}

std::vector<uint64_t> ids(const std::vector<PeerFields>& peers) {
    std::vector<uint64_t> out;
    for (const auto& p : peers) out.push_back(p.peerId);
    std::sort(out.begin(), out.end());
    return out;
}

TEST(TablesSnapshot, APeerIsInsertedOnceAndKeepsItsFirstFields) {
    Tables tables;
    bool inserted = false;
    size_t total = 0;
    PeerFields first = candidate("192.0.2.10", 20);
    first.firstSeen = 100;
    first.relayMark = 1;
    PeerRecord* a = tables.insertPeer(first, inserted, total);
    EXPECT_TRUE(inserted);
    EXPECT_EQ(total, 1u);
    EXPECT_EQ(a->firstSeen, 100);
    EXPECT_TRUE(a->clients.empty());

    PeerFields again = candidate("192.0.2.10", 20);
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
    const PeerFields a = candidate("192.0.2.10", 20);
    const PeerFields b = candidate("192.0.2.11", 20);
    const PeerFields c = candidate("192.0.2.10", 30);
    const PeerFields d = candidate("192.0.2.12", 65535);  // a key used as VLAN
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

// "peer/pair" for each flood copy, in the order given.
std::vector<std::string> copiesOf(const std::vector<FloodCopy>& copies) {
    std::vector<std::string> out;
    for (const FloodCopy& copy : copies) {
        out.push_back(std::string(copy.peer.address().text()) + "/" +
                      std::to_string(copy.pair.vlan) + "," + std::to_string(copy.pair.key));
    }
    return out;
}

TEST(TablesSnapshot, FloodCopiesAreOnePerPeerAndPairOfTheVlan) {
    Tables tables;
    bool inserted = false;
    size_t total = 0;
    PeerFields fields = candidate("192.0.2.10", 20);
    fields.relayMark = 1;
    PeerRecord* a = tables.insertPeer(fields, inserted, total);
    PeerRecord* b = tables.insertPeer(candidate("192.0.2.11", 20), inserted, total);
    PeerRecord* c = tables.insertPeer(candidate("192.0.2.12", 30), inserted, total);
    tables.insertPeer(candidate("192.0.2.13", 20), inserted, total);  // no clients, no copy
    const auto join = [&](uint8_t last, PeerRecord* peer, Association what) {
        const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, last};
        ClientRecord* client = tables.insertClient(clientKeyOf(mac, 20),
                                                   std::make_unique<ClientRecord>(mac), inserted);
        client->associate(peer, what);
    };
    join(1, a, Association{true, 7, 20, 0});
    join(2, a, Association{true, 9, 30, 0});
    join(3, a, Association{true, 8, 25, 0});  // below (30, 9), above (20, 7)
    join(4, a, Association{true, 7, 21, 0});  // shares its key with (20, 7): no copy
    join(5, b, Association{});
    join(6, c, Association{true, 1, 30, 0});

    auto copies = tables.floodCopies(20);
    // Each peer's copies come together, in its set's order; the peers'
    // order is the table's.
    const std::vector<std::string> of_a = {"192.0.2.10/20,7", "192.0.2.10/25,8", "192.0.2.10/30,9"};
    const std::vector<std::string> of_b = {"192.0.2.11/0,0"};
    const auto listed = copiesOf(copies);
    ASSERT_EQ(listed.size(), 4u);
    if (listed[0] == of_b[0]) {
        EXPECT_EQ(std::vector<std::string>(listed.begin() + 1, listed.end()), of_a);
    } else {
        EXPECT_EQ(std::vector<std::string>(listed.begin(), listed.begin() + 3), of_a);
        EXPECT_EQ(listed[3], of_b[0]);
    }
    for (const FloodCopy& copy : copies) {
        EXPECT_EQ(copy.peer.relayMark, copy.peer.peerId == fields.peerId ? 1 : 0);
        EXPECT_EQ(copy.peer.vlan, 20);
    }
    EXPECT_EQ(copiesOf(tables.floodCopies(30)), std::vector<std::string>{"192.0.2.12/30,1"});
    EXPECT_TRUE(tables.floodCopies(40).empty());
    EXPECT_TRUE(tables.floodCopies(65535).empty()) << "65535 and above flood nowhere";
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
    PeerFields c6;
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

    PeerFields out;
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
