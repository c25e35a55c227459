// The getifaddrs walk over hand-built lists, with the Linux answers to "is
// this an Ethernet link" and "is this a loopback".
#include "app/interfaces.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <cstring>
#include <deque>
#include <string>

namespace lumora {
namespace {

// Owns the nodes and addresses of a fake getifaddrs list.
class FakeList {
  public:
    FakeList& link(const char* name, unsigned short hatype, const MacAddress& mac,
                   unsigned char halen = 6) {
        sockaddr_ll& ll = packets.emplace_back();
        ll.sll_family = AF_PACKET;
        ll.sll_hatype = hatype;
        ll.sll_halen = halen;
        std::memcpy(ll.sll_addr, mac.data(), mac.size());
        return add(name, reinterpret_cast<sockaddr*>(&ll));
    }
    FakeList& ipv4(const char* name, const char* text) {
        sockaddr_in& in = v4.emplace_back();
        in.sin_family = AF_INET;
        inet_pton(AF_INET, text, &in.sin_addr);
        return add(name, reinterpret_cast<sockaddr*>(&in));
    }
    FakeList& ipv6(const char* name, const char* text) {
        sockaddr_in6& in6 = v6.emplace_back();
        in6.sin6_family = AF_INET6;
        inet_pton(AF_INET6, text, &in6.sin6_addr);
        return add(name, reinterpret_cast<sockaddr*>(&in6));
    }
    FakeList& bare(const char* name) { return add(name, nullptr); }

    const ifaddrs* head() const { return nodes.empty() ? nullptr : &nodes.front(); }

  private:
    FakeList& add(const char* name, sockaddr* address) {
        ifaddrs& node = nodes.emplace_back();
        node = ifaddrs{};
        node.ifa_name = const_cast<char*>(name);
        node.ifa_addr = address;
        if (nodes.size() > 1) nodes[nodes.size() - 2].ifa_next = &node;
        return *this;
    }
    // deques keep addresses stable while growing.
    std::deque<ifaddrs> nodes;
    std::deque<sockaddr_ll> packets;
    std::deque<sockaddr_in> v4;
    std::deque<sockaddr_in6> v6;
};

std::string text(in_addr a) {
    char buffer[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &a, buffer, sizeof buffer);
}

std::string text(const in6_addr& a) {
    char buffer[INET6_ADDRSTRLEN];
    return inet_ntop(AF_INET6, &a, buffer, sizeof buffer);
}

TEST(InterfaceDiscovery, LoopbackNames) {
    for (const char* name : {"lo", "lo0", "lo12"}) EXPECT_TRUE(isLoopbackName(name)) << name;
    for (const char* name : {"loop", "lo0a", "em0", "vlo", "", "LO"}) {
        EXPECT_FALSE(isLoopbackName(name)) << name;
    }
}

TEST(InterfaceDiscovery, CollectsEthernetLinksAndAddressesInOrder) {
    const MacAddress mac0{0x02, 0, 0, 0, 0, 0x10};
    const MacAddress mac1{0x02, 0, 0, 0, 0, 0x11};
    FakeList list;
    list.link("lo", ARPHRD_LOOPBACK, MacAddress{})
        .link("veth0", ARPHRD_ETHER, mac0)
        .link("vlan10", ARPHRD_ETHER, mac1)
        .link("tun0", ARPHRD_NONE, MacAddress{})
        .link("odd0", ARPHRD_ETHER, mac0, 8)
        .bare("veth0")
        .ipv4("lo", "127.0.0.1")
        .ipv4("vlan10", "192.0.2.3")
        .ipv4("veth0", "198.51.100.1")
        .ipv4("vlan10", "192.0.2.1")
        .ipv4("tun0", "203.0.113.1")
        .ipv6("lo", "::1")
        .ipv6("veth0", "2001:db8::1")
        .ipv6("veth0", "fe80::1");

    std::map<std::string, MacAddress> links;
    IPv4AddressMap v4;
    IPv6AddressMap v6;
    collectInterfaces(list.head(), links, v4, v6);

    EXPECT_EQ(links, (std::map<std::string, MacAddress>{{"veth0", mac0}, {"vlan10", mac1}}));
    ASSERT_EQ(v4.size(), 3u);
    ASSERT_EQ(v4.at("vlan10").size(), 2u);
    EXPECT_EQ(text(v4.at("vlan10")[0]), "192.0.2.3");
    EXPECT_EQ(text(v4.at("vlan10")[1]), "192.0.2.1");
    ASSERT_EQ(v4.at("veth0").size(), 1u);
    EXPECT_EQ(text(v4.at("veth0")[0]), "198.51.100.1");
    // Addresses of non-Ethernet interfaces still serve as tunnel endpoints.
    ASSERT_EQ(v4.at("tun0").size(), 1u);
    EXPECT_EQ(v4.count("lo"), 0u);
    ASSERT_EQ(v6.size(), 1u);
    ASSERT_EQ(v6.at("veth0").size(), 2u);
    EXPECT_EQ(text(v6.at("veth0")[0]), "2001:db8::1");
    EXPECT_EQ(text(v6.at("veth0")[1]), "fe80::1");
}

TEST(InterfaceDiscovery, EmptyList) {
    std::map<std::string, MacAddress> links;
    IPv4AddressMap v4;
    IPv6AddressMap v6;
    collectInterfaces(nullptr, links, v4, v6);
    EXPECT_TRUE(links.empty());
    EXPECT_TRUE(v4.empty());
    EXPECT_TRUE(v6.empty());
}

TEST(InterfaceDiscovery, HostLoopbackIsLeftOut) {
    std::map<std::string, MacAddress> links;
    IPv4AddressMap v4;
    IPv6AddressMap v6;
    ASSERT_NO_THROW(discoverInterfaces(links, v4, v6));
    EXPECT_EQ(links.count("lo"), 0u);
    EXPECT_EQ(v4.count("lo"), 0u);
    EXPECT_EQ(v6.count("lo"), 0u);
}

}  // namespace
}  // namespace lumora
