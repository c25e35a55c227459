// ClientRecord and PeerRecord operations: flags, counters, peer comparison,
// attaching and detaching, snapshots and copies.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <vector>

#include "learning_support.h"
#include "tunnel/ClientRecord.h"
#include "tunnel/PeerRecord.h"

namespace lumora {
namespace {

using test::v4;
using test::v6;

const uint8_t kMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

PeerFields peerV4(const char* address, uint16_t vlan) {
    PeerFields p;
    p.family = AF_INET;
    p.ipv4 = v4(address);
    p.vlan = vlan;
    return p;
}

PeerFields peerV6(const char* address, uint16_t vlan) {
    PeerFields p;
    p.family = AF_INET6;
    p.ipv6 = v6(address);
    p.vlan = vlan;
    return p;
}

std::vector<VlanKey> listed(const PeerRecord& peer) {
    return {peer.vlanKeys.begin(), peer.vlanKeys.end()};
}

TEST(TablesRecords, ANewClientHasItsMacAndNothingElse) {
    const time_t before = time(nullptr);
    ClientRecord c(kMac);
    const time_t after = time(nullptr);
    EXPECT_EQ(std::memcmp(c.mac, kMac, 6), 0);
    EXPECT_EQ(c.hasVlan, 0);
    EXPECT_EQ(c.hasKey, 0);
    EXPECT_EQ(c.vlan, 0);
    EXPECT_EQ(c.greKey, 0u);
    EXPECT_EQ(c.mappedVlan, 0);
    EXPECT_GE(c.lastSeen, before);
    EXPECT_LE(c.lastSeen, after);
    EXPECT_EQ(c.peer, nullptr);
    const Traffic t = c.readTraffic();
    EXPECT_EQ(t.bytesIn + t.bytesOut + t.packetsIn + t.packetsOut, 0u);
}

TEST(TablesRecords, AClientWithoutPeerPrintsUnknown) {
    ClientRecord c(kMac);
    EXPECT_EQ(c.peerAddressText(), "unknown");
    EXPECT_EQ(c.peerAddress().family, 0u);
    PeerFields out = peerV4("192.0.2.99", 99);
    EXPECT_FALSE(c.peerSnapshot(out));
    EXPECT_EQ(out.vlan, 99) << "untouched without a peer";
    EXPECT_FALSE(c.route().hasPeer);
}

TEST(TablesRecords, PeerAddressTextFollowsTheFamily) {
    PeerRecord p4{peerV4("192.0.2.10", 20)};
    PeerRecord p6{peerV6("2001:db8::5", 0)};
    ClientRecord c(kMac);
    c.setPeer(&p4);
    EXPECT_EQ(c.peerAddressText(), "192.0.2.10");
    c.setPeer(&p6);
    EXPECT_EQ(c.peerAddressText(), "2001:db8::5");
    const PeerAddress a = c.peerAddress();
    EXPECT_EQ(a.family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(std::memcmp(&a.ipv6, &p6.ipv6, 16), 0);
    // Any family but IPv4 prints the IPv6 field.
    PeerFields odd_fields = peerV6("2001:db8::7", 0);
    odd_fields.family = AF_UNIX;
    PeerRecord odd{odd_fields};
    c.setPeer(&odd);
    EXPECT_EQ(c.peerAddressText(), "2001:db8::7");
}

TEST(TablesRecords, FlagsAreSetAndResetTogether) {
    ClientRecord c(kMac);
    c.setKey(7);
    c.setVlan(20);
    c.setMappedVlan(30);
    EXPECT_EQ(c.hasKey, 1);
    EXPECT_EQ(c.greKey, 7u);
    EXPECT_EQ(c.hasVlan, 1);
    EXPECT_EQ(c.vlan, 20);
    EXPECT_EQ(c.mappedVlan, 30);
    c.resetFlags();
    EXPECT_EQ(c.hasKey, 0);
    EXPECT_EQ(c.hasVlan, 0);
    // Only the flags: the values and the mapped VLAN stay.
    EXPECT_EQ(c.greKey, 7u);
    EXPECT_EQ(c.vlan, 20);
    EXPECT_EQ(c.mappedVlan, 30);
}

TEST(TablesRecords, TouchRefreshesLastSeen) {
    ClientRecord c(kMac);
    c.lastSeen = 0;
    const time_t before = time(nullptr);
    c.touch();
    EXPECT_GE(c.lastSeen, before);
    EXPECT_LE(c.lastSeen, time(nullptr));
}

TEST(TablesRecords, TrafficCountersAddUpAndReadTogether) {
    ClientRecord c(kMac);
    c.addTraffic(60, 0, 1, 0);
    c.addTraffic(0, 1514, 0, 1);
    c.addTraffic(1500, 100, 2, 3);
    const Traffic t = c.readTraffic();
    EXPECT_EQ(t.bytesIn, 1560u);
    EXPECT_EQ(t.bytesOut, 1614u);
    EXPECT_EQ(t.packetsIn, 3u);
    EXPECT_EQ(t.packetsOut, 4u);
    c.addTraffic(UINT64_MAX - 1560, 0, 0, 0);
    EXPECT_EQ(c.readTraffic().bytesIn, UINT64_MAX);
}

TEST(TablesRecords, SamePeerNeedsFamilyVlanAndWholeAddress) {
    PeerRecord current{peerV4("192.0.2.10", 20)};
    ClientRecord c(kMac);
    EXPECT_FALSE(c.isSamePeer(current)) << "no peer is never the same";
    c.setPeer(&current);
    EXPECT_TRUE(c.isSamePeer(peerV4("192.0.2.10", 20)));
    EXPECT_FALSE(c.isSamePeer(peerV4("192.0.2.10", 21))) << "same address, other VLAN";
    EXPECT_FALSE(c.isSamePeer(peerV4("192.0.2.11", 20)));

    // An IPv6 candidate whose bytes match the IPv4 address is still another peer.
    PeerFields look_alike = peerV6("c000:20a::", 20);
    look_alike.ipv4 = current.ipv4;
    EXPECT_FALSE(c.isSamePeer(look_alike));

    PeerRecord current6{peerV6("2001:db8::5", 20)};
    c.setPeer(&current6);
    EXPECT_TRUE(c.isSamePeer(peerV6("2001:db8::5", 20)));
    EXPECT_FALSE(c.isSamePeer(peerV6("2001:db8::6", 20))) << "last byte differs";
    EXPECT_FALSE(c.isSamePeer(peerV6("2001:db8::5", 0)));
    PeerFields v4_candidate = peerV4("192.0.2.10", 20);
    v4_candidate.ipv6 = current6.ipv6;
    EXPECT_FALSE(c.isSamePeer(v4_candidate));

    // Other families are never the same, even field for field.
    PeerFields odd_fields = peerV4("192.0.2.10", 20);
    odd_fields.family = AF_UNIX;
    PeerRecord odd{odd_fields};
    c.setPeer(&odd);
    EXPECT_FALSE(c.isSamePeer(odd_fields));
}

TEST(TablesRecords, AttachListsTheClientAndRebuildsTheKeys) {
    PeerRecord peer{peerV4("192.0.2.10", 20)};
    ClientRecord a(kMac);
    a.setKey(7);
    a.setVlan(20);
    a.attachClient(&peer);
    EXPECT_EQ(a.peer, &peer);
    EXPECT_EQ(peer.clients, (std::vector<ClientRecord*>{&a}));
    EXPECT_EQ(listed(peer), (std::vector<VlanKey>{{20, 7}}));

    ClientRecord b(kMac);  // untagged, no key
    b.attachClient(&peer);
    EXPECT_EQ(peer.clients, (std::vector<ClientRecord*>{&a, &b}));
    EXPECT_EQ(listed(peer), (std::vector<VlanKey>{{0, 0}, {20, 7}}));
}

TEST(TablesRecords, FlagsOffReadAsZeroInTheKeys) {
    PeerRecord peer{peerV4("192.0.2.10", 20)};
    ClientRecord c(kMac);
    c.setKey(7);
    c.setVlan(20);
    c.resetFlags();
    c.attachClient(&peer);
    EXPECT_EQ(listed(peer), (std::vector<VlanKey>{{0, 0}}));
}

TEST(TablesRecords, CrossedPairsOfTwoClientsListOnlyTheFirst) {
    PeerRecord peer{peerV4("192.0.2.10", 20)};
    ClientRecord a(kMac), b(kMac);
    a.setVlan(10);
    a.setKey(5);
    b.setVlan(5);
    b.setKey(10);
    a.attachClient(&peer);
    b.attachClient(&peer);
    EXPECT_EQ(listed(peer), (std::vector<VlanKey>{{10, 5}}));
    a.detachClient();
    EXPECT_EQ(listed(peer), (std::vector<VlanKey>{{5, 10}}));
}

TEST(TablesRecords, AttachingAgainListsOnceAtTheEnd) {
    PeerRecord peer{peerV4("192.0.2.10", 20)};
    PeerRecord other{peerV4("192.0.2.11", 20)};
    ClientRecord a(kMac), b(kMac);
    a.setKey(9);
    a.attachClient(&peer);
    b.attachClient(&peer);
    EXPECT_EQ(listed(peer), (std::vector<VlanKey>{{0, 9}}));
    a.attachClient(&peer);
    EXPECT_EQ(peer.clients, (std::vector<ClientRecord*>{&b, &a}));
    // (0, 0) now comes first and refuses (0, 9), which shares its VLAN.
    EXPECT_EQ(listed(peer), (std::vector<VlanKey>{{0, 0}}));
    a.attachClient(&other);
    EXPECT_EQ(a.peer, &other);
    EXPECT_EQ(peer.clients, (std::vector<ClientRecord*>{&b}));
    EXPECT_EQ(other.clients, (std::vector<ClientRecord*>{&a}));
    EXPECT_EQ(listed(other), (std::vector<VlanKey>{{0, 9}}));
}

TEST(TablesRecords, DetachUnlistsTheClientAndLeavesThePeerEmpty) {
    PeerRecord peer{peerV4("192.0.2.10", 20)};
    ClientRecord a(kMac), b(kMac);
    a.setKey(9);
    b.attachClient(&peer);
    a.attachClient(&peer);
    EXPECT_EQ(peer.clients, (std::vector<ClientRecord*>{&b, &a}));
    a.detachClient();
    EXPECT_EQ(a.peer, nullptr);
    EXPECT_EQ(peer.clients, (std::vector<ClientRecord*>{&b}));
    EXPECT_EQ(listed(peer), (std::vector<VlanKey>{{0, 0}}));
    b.detachClient();
    EXPECT_TRUE(peer.clients.empty());
    EXPECT_TRUE(peer.vlanKeys.empty());
    b.detachClient();  // no peer: nothing happens
    EXPECT_EQ(b.peer, nullptr);
}

TEST(TablesRecords, AssociateMovesTheClientAndSetsItsFlags) {
    PeerRecord from{peerV4("192.0.2.10", 20)};
    PeerRecord to{peerV4("192.0.2.11", 20)};
    ClientRecord c(kMac);
    c.setKey(3);
    c.setMappedVlan(44);
    c.attachClient(&from);

    c.associate(&to, Association{false, 0, 20, 0});
    EXPECT_EQ(c.peer, &to);
    EXPECT_TRUE(from.clients.empty());
    EXPECT_TRUE(from.vlanKeys.empty());
    EXPECT_EQ(to.clients, (std::vector<ClientRecord*>{&c}));
    EXPECT_EQ(listed(to), (std::vector<VlanKey>{{20, 0}}));
    EXPECT_EQ(c.hasKey, 0);
    EXPECT_EQ(c.hasVlan, 1);
    EXPECT_EQ(c.vlan, 20);
    EXPECT_EQ(c.mappedVlan, 44) << "kept when not mapped again";

    c.associate(&to, Association{true, 30, 0, 30});
    EXPECT_EQ(to.clients, (std::vector<ClientRecord*>{&c})) << "listed once";
    EXPECT_EQ(listed(to), (std::vector<VlanKey>{{0, 30}}));
    EXPECT_EQ(c.hasVlan, 0);
    EXPECT_EQ(c.hasKey, 1);
    EXPECT_EQ(c.greKey, 30u);
    EXPECT_EQ(c.mappedVlan, 30);

    c.associate(nullptr, Association{});
    EXPECT_EQ(c.peer, nullptr);
    EXPECT_TRUE(to.clients.empty());
}

TEST(TablesRecords, PeerSnapshotCopiesTheCurrentPeersFields) {
    PeerFields fields = peerV6("2001:db8::5", 7);
    fields.firstSeen = 1234;
    fields.relayMark = 1;
    fields.peerId = 0xb80d01200007u;
    PeerRecord peer{fields};
    ClientRecord a(kMac), b(kMac);
    a.setVlan(7);
    a.attachClient(&peer);
    b.attachClient(&peer);
    // (0, 0) shares its key with (7, 0): one pair.
    EXPECT_EQ(listed(peer), (std::vector<VlanKey>{{7, 0}}));

    PeerFields copy;
    ASSERT_TRUE(a.peerSnapshot(copy));
    EXPECT_EQ(copy.vlan, 7);
    EXPECT_EQ(copy.family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(std::memcmp(&copy.ipv6, &peer.ipv6, 16), 0);
    EXPECT_EQ(copy.firstSeen, 1234);
    EXPECT_EQ(copy.relayMark, 1);
    EXPECT_EQ(copy.peerId, 0xb80d01200007u);
}

TEST(TablesRecords, RouteReadsPeerAndFlagsAtOnce) {
    PeerRecord peer{peerV4("192.0.2.10", 20)};
    peer.relayMark = 1;
    ClientRecord c(kMac);
    c.associate(&peer, Association{true, 7, 20, 0});
    const ClientRoute r = c.route();
    EXPECT_TRUE(r.hasPeer);
    EXPECT_EQ(r.address.family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(r.address.ipv4.s_addr, v4("192.0.2.10").s_addr);
    EXPECT_EQ(r.endpoint, nullptr);
    EXPECT_EQ(r.relayMark, 1);
    EXPECT_EQ(r.hasKey, 1);
    EXPECT_EQ(r.greKey, 7u);
    EXPECT_EQ(r.hasVlan, 1);
    EXPECT_EQ(r.vlan, 20);
}

TEST(TablesRecords, ACopiedClientHasEveryFieldAndAFreshMutex) {
    PeerRecord peer{peerV4("192.0.2.10", 20)};
    ClientRecord c(kMac);
    c.associate(&peer, Association{true, 7, 20, 30});
    c.addTraffic(1, 2, 3, 4);
    c.lastSeen = 4321;

    ClientRecord copy(c);
    std::lock_guard held(c.mutex);
    EXPECT_TRUE(copy.mutex.try_lock());
    copy.mutex.unlock();
    EXPECT_EQ(std::memcmp(copy.mac, kMac, 6), 0);
    EXPECT_EQ(copy.hasKey, 1);
    EXPECT_EQ(copy.greKey, 7u);
    EXPECT_EQ(copy.hasVlan, 1);
    EXPECT_EQ(copy.vlan, 20);
    EXPECT_EQ(copy.mappedVlan, 30);
    EXPECT_EQ(copy.lastSeen, 4321);
    EXPECT_EQ(copy.bytesIn, 1u);
    EXPECT_EQ(copy.bytesOut, 2u);
    EXPECT_EQ(copy.packetsIn, 3u);
    EXPECT_EQ(copy.packetsOut, 4u);
    EXPECT_EQ(copy.peer, &peer);
    EXPECT_EQ(peer.clients, (std::vector<ClientRecord*>{&c})) << "a copy is not listed";
}

TEST(TablesRecords, APeerMadeFromFieldsHasThemAndNoClients) {
    PeerFields fields = peerV4("192.0.2.10", 20);
    fields.relayMark = 1;
    fields.peerId = 42;
    PeerRecord peer{fields};
    EXPECT_EQ(peer.vlan, 20);
    EXPECT_EQ(peer.ipv4.s_addr, fields.ipv4.s_addr);
    EXPECT_EQ(peer.relayMark, 1);
    EXPECT_EQ(peer.peerId, 42u);
    EXPECT_TRUE(peer.clients.empty());
    EXPECT_TRUE(peer.vlanKeys.empty());
}

}  // namespace
}  // namespace lumora
