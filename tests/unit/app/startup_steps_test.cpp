#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "app/StartupSteps.h"

namespace lumora {
namespace {

TEST(StartupSteps, GreKeyModeKeywordKeepsTheTableQuirk) {
    EXPECT_STREQ(greKeyModeKeyword(Ignore), "ignore");
    EXPECT_STREQ(greKeyModeKeyword(Reject), "reject");
    EXPECT_STREQ(greKeyModeKeyword(Require), "require");
    EXPECT_STREQ(greKeyModeKeyword(VlanMap), "preferkey");
    EXPECT_STREQ(greKeyModeKeyword(PreferKey), "preferkey");
    EXPECT_STREQ(greKeyModeKeyword(PreferVlan), "prefervlan");
    EXPECT_STREQ(greKeyModeKeyword(32), "unknown");
    EXPECT_STREQ(greKeyModeKeyword(255), "unknown");
}

TEST(StartupSteps, VlanInterfacesWithMoreThanTwoAddressesAreSkipped) {
    EXPECT_TRUE(skipsVlanInterface("vlan10", 3));
    EXPECT_TRUE(skipsVlanInterface("vlan", 4));
    EXPECT_FALSE(skipsVlanInterface("vlan10", 2));
    EXPECT_FALSE(skipsVlanInterface("vlan10", 1));
    EXPECT_FALSE(skipsVlanInterface("em0", 3));
    EXPECT_FALSE(skipsVlanInterface("xvlan10", 3));
    EXPECT_FALSE(skipsVlanInterface("vla", 3));
    EXPECT_FALSE(skipsVlanInterface("VLAN10", 3));
}

TEST(StartupSteps, Texts) {
    in_addr v4{};
    inet_pton(AF_INET, "198.51.100.7", &v4);
    EXPECT_EQ(addressText(v4), "198.51.100.7");
    in6_addr v6{};
    inet_pton(AF_INET6, "2001:db8:0:0::7", &v6);
    EXPECT_EQ(addressText(v6), "2001:db8::7");
    EXPECT_EQ(macText(MacAddress{0x02, 0xab, 0x00, 0x10, 0xff, 0x01}), "02:ab:00:10:ff:01");
}

}  // namespace
}  // namespace lumora
