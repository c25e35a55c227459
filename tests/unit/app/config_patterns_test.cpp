// The four whole-string patterns shared by the parser and -s.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "app/ConfigParser.h"
#include "core/Config.h"

namespace lumora {
namespace {

bool whole(const std::string& text, const std::regex& pattern) {
    return std::regex_match(text, pattern);
}

TEST(ConfigPatterns, IPv4) {
    for (const char* good : {"0.0.0.0", "192.0.2.1", "255.255.255.255", "198.51.100.99",
                             "203.0.113.250", "10.0.0.199"}) {
        EXPECT_TRUE(whole(good, ipv4Pattern())) << good;
    }
    for (const char* bad : {"", "192.0.2", "192.0.2.1.", "192.0.2.256", "192.0.2.01", "1.2.3.4.5",
                            " 192.0.2.1", "192.0.2.1 ", "a.b.c.d", "192.0.2.-1", "::1"}) {
        EXPECT_FALSE(whole(bad, ipv4Pattern())) << bad;
    }
}

// Forms an operator may write; each is also what inet_pton accepts.
const char* const kIPv6Good[] = {
    "::",
    "::1",
    "1::",
    "2001:db8::1",
    "2001:DB8::A",
    "2001:db8:0:0:0:0:0:1",
    "1:2:3:4:5:6:7:8",
    "1:2:3:4:5:6:7::",
    "::2:3:4:5:6:7:8",
    "1::8",
    "1:2::7:8",
    "1:2:3:4:5::8",
    "1::4:5:6:7:8",
    "fe80::1",
    "::ffff:192.0.2.1",
    "::192.0.2.1",
    "64:ff9b::192.0.2.1",
    "1:2:3:4:5:6:192.0.2.1",
    "1::5:6:192.0.2.1",
    "2001:0db8:0000:0000:0000:ff00:0042:8329",
};

// Not addresses; inet_pton refuses each of them too.
const char* const kIPv6Bad[] = {
    "",
    ":",
    ":::",
    "1:2:3:4:5:6:7:8:9",
    "1::2::3",
    "12345::1",
    "g::1",
    "1:2:3:4:5:6:7",
    "192.0.2.1",
    "::ffff:192.0.2.256",
    "1:2:3:4:5:6:7:192.0.2.1",
    "1:2:3:4:5:6:7:8::",
    ":1:2:3:4:5:6:7",
    "2001:db8::1 ",
    "2001:db8::/32",
    "fe80::1%",
};

TEST(ConfigPatterns, IPv6AgreesWithInetPton) {
    in6_addr address{};
    for (const char* good : kIPv6Good) {
        EXPECT_TRUE(whole(good, ipv6Pattern())) << good;
        EXPECT_EQ(inet_pton(AF_INET6, good, &address), 1) << good;
    }
    for (const char* bad : kIPv6Bad) {
        EXPECT_FALSE(whole(bad, ipv6Pattern())) << bad;
        EXPECT_NE(inet_pton(AF_INET6, bad, &address), 1) << bad;
    }
}

TEST(ConfigPatterns, IPv6ZoneSuffixMatchesButIsNoAddress) {
    in6_addr address{};
    for (const char* zoned : {"fe80::1%eth0", "fe80::1%em0.20", "fe80::a:b%vlan10", "ff02::1%1"}) {
        EXPECT_TRUE(whole(zoned, ipv6Pattern())) << zoned;
        EXPECT_NE(inet_pton(AF_INET6, zoned, &address), 1) << zoned;
    }
    EXPECT_FALSE(whole("fe80::1%eth 0", ipv6Pattern()));
}

TEST(ConfigPatterns, GreKey) {
    for (const char* good : {"0", "1001", "010", "08", "18446744073709551616"}) {
        EXPECT_TRUE(whole(good, greKeyPattern())) << good;
    }
    for (const char* bad : {"", "0x10", "-1", "+1", " 1", "1 ", "1e3"}) {
        EXPECT_FALSE(whole(bad, greKeyPattern())) << bad;
    }
}

TEST(ConfigPatterns, ForwardVid) {
    for (const char* good : {"0", "1", "40", "0040", "4095", "9999"}) {
        EXPECT_TRUE(whole(good, forwardVidPattern())) << good;
    }
    for (const char* bad : {"", "12345", "1a", "-1", " 1"}) {
        EXPECT_FALSE(whole(bad, forwardVidPattern())) << bad;
    }
}

}  // namespace
}  // namespace lumora
