// destinationOf(): what egress and relay send to, taken from a peer record
// (floods) or a client's route (unicast).
#include <gtest/gtest.h>

#include <cstring>

#include "encapsulation_support.h"
#include "tunnel/ClientRecord.h"
#include "tunnel/Send.h"

namespace lumora {
namespace {

using namespace test::encap;

TEST(EncapsulationDestination, APeerOnTheGivenVlanWithItsRelayMark) {
    RecordingGreSocket socket = sendingSocket();
    PeerRecord peer;
    peer.vlan = 20;
    peer.family = AF_INET6;
    peer.ipv4 = v4("192.0.2.7");
    peer.ipv6 = v6("2001:db8::7");
    peer.relayMark = 1;
    peer.endpoint = &socket;
    const Destination d = destinationOf(peer, 30);
    EXPECT_EQ(d.vlan, 30);
    EXPECT_EQ(d.family, static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(d.ipv4.s_addr, v4("192.0.2.7").s_addr);
    EXPECT_EQ(0, std::memcmp(&d.ipv6, &peer.ipv6, 16));
    EXPECT_EQ(d.upstream, 1);
    EXPECT_EQ(d.endpoint, &socket);
}

TEST(EncapsulationDestination, AClientThroughItsPeerOnItsVlan) {
    RecordingGreSocket socket = sendingSocket();
    ClientRoute route;
    route.hasPeer = true;
    route.address = PeerAddress{AF_INET, v4("198.51.100.7"), v6("2001:db8::9")};
    route.endpoint = &socket;
    route.hasVlan = 1;
    route.vlan = 4094;
    const Destination d = destinationOf(route);
    EXPECT_EQ(d.vlan, 4094);
    EXPECT_EQ(d.family, static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(d.ipv4.s_addr, v4("198.51.100.7").s_addr);
    EXPECT_EQ(0, std::memcmp(&d.ipv6, &route.address.ipv6, 16));
    EXPECT_EQ(d.upstream, 0);
    EXPECT_EQ(d.endpoint, &socket);

    // Without a VLAN of its own the client's frames go untagged, whatever the
    // stale vlan field holds.
    route.hasVlan = 0;
    route.relayMark = 1;
    const Destination untagged = destinationOf(route);
    EXPECT_EQ(untagged.vlan, 0);
    EXPECT_EQ(untagged.upstream, 1);
}

}  // namespace
}  // namespace lumora
