// The new-peer line names the receiving GRE socket by its interface and its
// own address, and the peer keeps that socket for its replies.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "learning_support.h"
#include "tunnel/Learning.h"
#include "vif/VIF"

namespace lumora {
namespace {

using test::fromV4;
using test::fromV6;
using test::LogCapture;
using test::mac;
using test::v4;
using test::v6;

// A GRE socket identity that sends nothing.
class FakeSocket : public vif::GreSocket {
  public:
    FakeSocket(uint32_t family, const char* address, std::string interface)
        : own_family(family), interface_name(std::move(interface)) {
        if (family == AF_INET) ipv4 = v4(address);
        if (family == AF_INET6) ipv6 = v6(address);
    }
    const char* name() const override { return "fake"; }
    long mtu() const override { return 1480; }
    void sendTo(pdu::PDU, uint32_t, in_addr, const in6_addr&) override { ADD_FAILURE() << "sent"; }
    const std::string& interfaceName() const override { return interface_name; }
    uint32_t family() const override { return own_family; }
    in_addr localIPv4() const override { return ipv4; }
    const in6_addr& localIPv6() const override { return ipv6; }

  private:
    uint32_t own_family;
    std::string interface_name;
    in_addr ipv4{};
    in6_addr ipv6{};
};

TEST(LearningEndpoint, TheNewPeerLineNamesTheEndpointAndItsAddress) {
    FakeSocket em0(AF_INET, "198.51.100.1", "em0");
    FakeSocket em1(AF_INET6, "2001:db8:ffff::1", "em1");
    Tables tables;
    LogCapture log;
    const auto m = mac(0x55);
    Sighting s4 = fromV4("192.0.2.10", 20, m);
    s4.endpoint = &em0;
    s4.tagVlan = 20;
    Sighting s6 = fromV6("2001:db8::5", 20, m);
    s6.endpoint = &em1;
    s6.tagVlan = 20;

    ClientRecord* client = learn(tables, &log.logger, s4);
    EXPECT_EQ(client->route().endpoint, &em0);
    learn(tables, &log.logger, s6);
    EXPECT_EQ(client->route().endpoint, &em1);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "[peers] new peer: 192.0.2.10, vlan: 20, interface: em0[198.51.100.1] (total: 1)",
                  "[cache] new device: 00:11:22:33:44:55, peer: 192.0.2.10, vlan: 20",
                  "[peers] new peer: 2001:db8::5, vlan: 20, interface: em1[2001:db8:ffff::1] "
                  "(total: 2)",
                  "Reassociating client to peer cache",
                  "[cache] Update device peer: 00:11:22:33:44:55, peer: 2001:db8::5, vlan: 20"}));
}

TEST(LearningEndpoint, AnEndpointOfAnotherFamilyShowsNoAddress) {
    FakeSocket odd(AF_UNIX, "", "odd0");
    Tables tables;
    LogCapture log;
    const auto m = mac(0x55);
    Sighting s = fromV4("192.0.2.10", 0, m);
    s.endpoint = &odd;
    learn(tables, &log.logger, s);
    EXPECT_EQ(log.lines().at(0),
              "[peers] new peer: 192.0.2.10, vlan: 0, interface: odd0[] (total: 1)");
}

}  // namespace
}  // namespace lumora
