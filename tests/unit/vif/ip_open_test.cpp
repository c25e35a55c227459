// Opening and closing the GRE socket endpoint, its name and its MTU range.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "vif/IP"
#include "vif_support.h"

namespace vxbrd_test {
namespace {

using lumora::vif::IP;
using Lines = std::vector<std::string>;

TEST_F(VifNetTest, IPv4EndpointOpensBoundAndAnnounced) {
    const int before = openDescriptors();
    {
        std::unique_ptr<IP> endpoint;
        {
            ScopedNetns in(hub);
            endpoint = std::make_unique<IP>(capture.logger(), ipv4("192.0.2.1"), "vxh0");
        }
        EXPECT_EQ(capture.lines(),
                  (Lines{"vxh0 (ip://192.0.2.1) mtu: 1480", "vxh0 (ip://192.0.2.1) ready"}));
        EXPECT_STREQ(endpoint->name(), "vxh0 (ip://192.0.2.1)");
        EXPECT_EQ(endpoint->mtu(), 1480);
        EXPECT_EQ(endpoint->family(), static_cast<uint32_t>(AF_INET));
        EXPECT_EQ(endpoint->senderFamily(), static_cast<uint32_t>(AF_INET));
        EXPECT_EQ(text(endpoint->localIPv4()), "192.0.2.1");
        EXPECT_EQ(endpoint->interfaceName(), "vxh0");
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    // Destruction closes the socket.
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(VifNetTest, IPv6EndpointOpensBoundAndAnnounced) {
    const int before = openDescriptors();
    {
        std::unique_ptr<IP> endpoint;
        {
            ScopedNetns in(hub);
            endpoint = std::make_unique<IP>(capture.logger(), ipv6("2001:db8::1"), "vxh0");
        }
        EXPECT_EQ(capture.lines(),
                  (Lines{"vxh0 (ip://2001:db8::1) mtu: 1480", "vxh0 (ip://2001:db8::1) ready"}));
        EXPECT_EQ(endpoint->family(), static_cast<uint32_t>(AF_INET6));
        EXPECT_EQ(endpoint->senderFamily(), static_cast<uint32_t>(AF_INET6));
        EXPECT_EQ(text(endpoint->localIPv6()), "2001:db8::1");
        EXPECT_EQ(openDescriptors(), before + 1);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(VifNetTest, LinkLocalAddressIsBoundWithTheInterfaceScope) {
    ScopedNetns in(hub);
    IP endpoint(capture.logger(), ipv6("fe80::1"), "vxh0");
    // Without the scope the bind would fail with a BINDv6 warning.
    EXPECT_EQ(capture.lines(),
              (Lines{"vxh0 (ip://fe80::1) mtu: 1480", "vxh0 (ip://fe80::1) ready"}));
}

TEST_F(VifNetTest, BindFailureIsOnlyAWarning) {
    ScopedNetns in(hub);
    IP v4(capture.logger(), ipv4("198.51.100.7"), "vxh0");
    IP v6(capture.logger(), ipv6("2001:db8::99"), "vxh0");
    EXPECT_EQ(capture.lines(),
              (Lines{"vxh0 (ip://198.51.100.7) BINDv4: Cannot assign requested address",
                     "vxh0 (ip://198.51.100.7) mtu: 1480", "vxh0 (ip://198.51.100.7) ready",
                     "vxh0 (ip://2001:db8::99) BINDv6: Cannot assign requested address",
                     "vxh0 (ip://2001:db8::99) mtu: 1480", "vxh0 (ip://2001:db8::99) ready"}));
}

TEST_F(VifNetTest, WildcardEndpointSkipsTheInterfaceAndCutsItsName) {
    // The "any" endpoint's interface is never looked up, so any text will do;
    // the name is cut to 63 characters.
    const std::string interface(60, 'x');
    ScopedNetns in(hub);
    IP endpoint(capture.logger(), ipv4("0.0.0.0"), interface);
    const std::string full = interface + " (ip://0.0.0.0)";
    EXPECT_EQ(std::string(endpoint.name()), full.substr(0, 63));
    EXPECT_EQ(capture.lines(),
              (Lines{full.substr(0, 63) + " mtu: 1480", full.substr(0, 63) + " ready"}));
}

TEST_F(VifNetTest, MissingInterfaceThrowsAndLeavesNothingOpen) {
    ScopedNetns in(hub);
    const int before = openDescriptors();
    try {
        IP endpoint(capture.logger(), ipv4("192.0.2.1"), "vxnone0");
        FAIL() << "constructed";
    } catch (int error) {
        EXPECT_EQ(error, 19);  // ENODEV
    }
    try {
        IP endpoint(capture.logger(), ipv6("2001:db8::1"), "vxnone0");
        FAIL() << "constructed";
    } catch (int error) {
        EXPECT_EQ(error, 19);
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(capture.lines(),
              (Lines{"vxnone0 (ip://192.0.2.1) if_nametoindex(): No such device",
                     "vxnone0 (ip://2001:db8::1) if_nametoindex(): No such device"}));
}

TEST_F(VifNetTest, GreMtuRangeIs576To1480) {
    ScopedNetns in(hub);
    IP endpoint(capture.logger(), ipv4("192.0.2.1"), "vxh0");
    capture.clear();
    endpoint.setMtu(576);
    EXPECT_EQ(endpoint.mtu(), 576);
    endpoint.setMtu(1480);
    EXPECT_EQ(endpoint.mtu(), 1480);
    for (const long bad : {575L, 1481L}) {
        try {
            endpoint.setMtu(bad);
            FAIL() << bad << " accepted";
        } catch (int error) {
            EXPECT_EQ(error, 22);
        }
    }
    EXPECT_EQ(endpoint.mtu(), 1480);
    EXPECT_EQ(capture.lines(), (Lines{"vxh0 (ip://192.0.2.1) invalid MTU requested: 575",
                                      "vxh0 (ip://192.0.2.1) invalid MTU requested: 1481"}));
}

TEST_F(VifNetTest, AddresslessWriteIsAnInvalidMethod) {
    ScopedNetns in(hub);
    IP endpoint(capture.logger(), ipv4("192.0.2.1"), "vxh0");
    uint8_t bytes[8] = {};
    lumora::pdu::PDU p{bytes, 8, 0, 8, {0, 0}};
    lumora::pdu::IWriter& writer = endpoint;
    try {
        writer.write(p);
        FAIL() << "write returned";
    } catch (const char* what) {
        EXPECT_STREQ(what, "invalid Method");
    }
}

}  // namespace
}  // namespace vxbrd_test
