// The configuration reader, driven by table: a file text, the exact
// diagnostics it must print (with "@" standing for the file's path), the
// error it must throw (0: none) and what it must leave in the configuration.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <string>

#include "app/ConfigParser.h"
#include "app_support.h"
#include "core/Config.h"
#include "support/addresses.h"

namespace lumora {
namespace {

using test::CapturedOutput;
using test::TempFile;
using test::withPath;

constexpr auto& ipv4 = test::ipv4Of;
constexpr auto& ipv6 = test::ipv6Of;

void expectDefaults(const Config& c) {
    EXPECT_TRUE(c.interfaces.empty());
    EXPECT_TRUE(c.vlans.none());
    EXPECT_TRUE(c.forward_vlans.none());
    EXPECT_TRUE(c.forward_servers.empty());
    EXPECT_EQ(c.mss, 1380);
    EXPECT_EQ(c.mtu, 0);
    EXPECT_EQ(c.server_family, 0);
    EXPECT_EQ(c.server_ipv4.s_addr, 0u);
    EXPECT_EQ(c.gre_key_mode, Ignore);
    EXPECT_EQ(c.gre_key, 0u);
    EXPECT_FALSE(c.ipchksum);
    EXPECT_TRUE(c.offload);
    EXPECT_TRUE(parent_interfaces.empty());
}

void expectOneTap(const Config& c, const char* name, uint16_t vid, bool isolate) {
    ASSERT_EQ(c.interfaces.size(), 1u);
    EXPECT_EQ(c.interfaces[0].name, name);
    EXPECT_EQ(c.interfaces[0].vid, vid);
    EXPECT_EQ(c.interfaces[0].isolate, isolate);
    EXPECT_TRUE(c.vlans.test(vid));
    EXPECT_EQ(c.vlans.count(), 1u);
}

void expectForward(const Config& c, uint16_t vid, const char* address) {
    ASSERT_EQ(c.forward_servers.size(), 1u);
    ASSERT_EQ(c.forward_servers.count(vid), 1u);
    EXPECT_EQ(c.forward_servers.at(vid).address.s_addr, ipv4(address).s_addr);
    EXPECT_TRUE(c.forward_vlans.test(vid));
    EXPECT_EQ(c.forward_vlans.count(), 1u);
    EXPECT_TRUE(c.vlans.test(vid));
    EXPECT_EQ(c.vlans.count(), 1u);
}

void expectNothingForwarded(const Config& c) {
    EXPECT_TRUE(c.forward_servers.empty());
    EXPECT_TRUE(c.forward_vlans.none());
    EXPECT_TRUE(c.vlans.none());
}

void noCheck(const Config&) {}

struct Case {
    const char* name;
    std::string text;
    std::string diagnostics;  // exact stderr, '@' = path
    int error;                // thrown int, 0 for none
    void (*check)(const Config&);
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

const Case kCases[] = {
    // Comments, blanks and line counting.
    {"EmptyFile", "", "", 0, expectDefaults},
    {"OnlyComments", "# access point tunnels\n   # indented\n\n\t\n#tap0 1\n", "", 0,
     expectDefaults},
    {"CrLfAndTabs", "mss\t1400\r\nmtu \t 1500\r\n", "", 0,
     [](const Config& c) {
         EXPECT_EQ(c.mss, 1400);
         EXPECT_EQ(c.mtu, 1500);
     }},
    {"LineNumbersCountBlankLines", "\n\n# comment\nmss 100\n", "@:4 invalid MSS: \"100\"\n", 22,
     noCheck},
    {"LongLineIsTwoLines", "# " + std::string(298, 'x') + "\nmss 100\n",
     "@:2 ignoring unknown keyword \"" + std::string(45, 'x') + "\"\n@:3 invalid MSS: \"100\"\n",
     22, noCheck},
    {"LineOf255CharactersLeavesItsNewlineForTheNextPiece",
     "mss 1400" + std::string(247, ' ') + "\nmss 100\n", "@:3 invalid MSS: \"100\"\n", 22,
     [](const Config& c) { EXPECT_EQ(c.mss, 1400); }},
    {"HashGluedToFirstTokenIsPartOfIt", "mtu#1500\n", "@:1 ignoring unknown keyword \"mtu#1500\"\n",
     0, expectDefaults},
    {"UnknownKeywordWarnsAndGoesOn", "bridge br0\nmss 1400\n",
     "@:1 ignoring unknown keyword \"bridge\"\n", 0,
     [](const Config& c) { EXPECT_EQ(c.mss, 1400); }},
    {"KeywordsAreCaseSensitive", "MSS 1400\n", "@:1 ignoring unknown keyword \"MSS\"\n", 0,
     expectDefaults},
    {"EarlierLinesStayAfterAnError", "tap0 5\nmss 100\n", "@:2 invalid MSS: \"100\"\n", 22,
     [](const Config& c) { expectOneTap(c, "tap0", 5, false); }},

    // The example configuration.
    {"ExampleFile",
     "# access point tunnels\ntap0 1\ntap1 20 vlan-isolate-enable\ntap2 30 parent-interface em1\n"
     "vlan40 forward-to-vym 192.0.2.1\ngrekey mode require 1001\nmss 1380\nmtu 1500\n"
     "server 192.0.2.10\n",
     "", 0,
     [](const Config& c) {
         ASSERT_EQ(c.interfaces.size(), 3u);
         EXPECT_EQ(c.interfaces[0].name, "tap0");
         EXPECT_EQ(c.interfaces[0].vid, 0);
         EXPECT_FALSE(c.interfaces[0].isolate);
         EXPECT_EQ(c.interfaces[1].name, "tap1");
         EXPECT_EQ(c.interfaces[1].vid, 20);
         EXPECT_TRUE(c.interfaces[1].isolate);
         EXPECT_EQ(c.interfaces[2].name, "tap2");
         EXPECT_EQ(c.interfaces[2].vid, 30);
         EXPECT_FALSE(c.interfaces[2].isolate);
         EXPECT_EQ(parent_interfaces, (std::map<std::string, std::string>{{"tap2", "em1"}}));
         EXPECT_EQ(c.vlans.count(), 4u);
         EXPECT_TRUE(c.vlans.test(0) && c.vlans.test(20) && c.vlans.test(30) && c.vlans.test(40));
         EXPECT_EQ(c.forward_vlans.count(), 1u);
         EXPECT_TRUE(c.forward_vlans.test(40));
         ASSERT_EQ(c.forward_servers.count(40), 1u);
         EXPECT_EQ(c.forward_servers.at(40).address.s_addr, ipv4("192.0.2.1").s_addr);
         EXPECT_EQ(c.gre_key_mode, Require);
         EXPECT_EQ(c.gre_key, 1001u);
         EXPECT_EQ(c.mss, 1380);
         EXPECT_EQ(c.mtu, 1500);
         EXPECT_EQ(c.server_family, 1);
         EXPECT_EQ(c.server_ipv4.s_addr, ipv4("192.0.2.10").s_addr);
         EXPECT_FALSE(c.ipchksum);
     }},

    // Tap lines.
    {"TapVid1IsUntagged", "tap0 1\n", "", 0,
     [](const Config& c) { expectOneTap(c, "tap0", 0, false); }},
    {"TapVid0", "tap0 0\n", "", 0, [](const Config& c) { expectOneTap(c, "tap0", 0, false); }},
    {"TapVid4095", "tap0 4095\n", "", 0,
     [](const Config& c) { expectOneTap(c, "tap0", 4095, false); }},
    {"TapVid4096", "tap0 4096\n", "@:1 invalid VID: \"4096\"\n", 22, expectDefaults},
    {"TapVidNegative", "tap0 -1\n", "@:1 invalid VID: \"-1\"\n", 22, expectDefaults},
    {"TapVidWordReadsAsZero", "tap0 x\n", "", 0,
     [](const Config& c) { expectOneTap(c, "tap0", 0, false); }},
    {"TapVidMissing", "tap0\n", "@:1 missing argument (VID)\n", 22, expectDefaults},
    {"TapVidCheckedBeforeName", "tap9 5000\n", "@:1 invalid VID: \"5000\"\n", 22, expectDefaults},
    {"TapNotFound", "tap9 5\n", "@:1 tap interface \"tap9\" not found\n", 22, expectDefaults},
    {"TapIsolation", "tap1 20 vlan-isolate-enable\n", "", 0,
     [](const Config& c) { expectOneTap(c, "tap1", 20, true); }},
    {"TapTrailingCommentWordsAreOptions", "tap1 20 vlan-isolate-enable # comment\n",
     "@:1 ignoring unknown interface option \"comment\"\n", 0,
     [](const Config& c) { expectOneTap(c, "tap1", 20, true); }},
    {"TapCommentGluedToOptionIsSplit", "tap1 20 vlan-isolate-enable#on\n",
     "@:1 ignoring unknown interface option \"on\"\n", 0,
     [](const Config& c) { expectOneTap(c, "tap1", 20, true); }},
    {"TapOffloadDisable", "tap1 20 offload-disable\n", "", 0,
     [](const Config& c) {
         expectOneTap(c, "tap1", 20, false);
         EXPECT_FALSE(c.interfaces[0].offload);
         EXPECT_TRUE(c.offload);
     }},
    {"TapOffloadDisableBesideIsolation", "tap1 20 vlan-isolate-enable offload-disable\n", "", 0,
     [](const Config& c) {
         expectOneTap(c, "tap1", 20, true);
         EXPECT_FALSE(c.interfaces[0].offload);
     }},
    {"TapOffloadOnByDefault", "tap1 20\n", "", 0,
     [](const Config& c) {
         EXPECT_TRUE(c.interfaces[0].offload);
         EXPECT_TRUE(c.offload);
     }},
    {"TapParent", "tap2 30 parent-interface em1\n", "", 0,
     [](const Config& c) {
         expectOneTap(c, "tap2", 30, false);
         EXPECT_EQ(parent_interfaces, (std::map<std::string, std::string>{{"tap2", "em1"}}));
     }},
    {"TapParentMayBeATap", "tap2 30 parent-interface tap3 vlan-isolate-enable\n", "", 0,
     [](const Config& c) {
         expectOneTap(c, "tap2", 30, true);
         EXPECT_EQ(parent_interfaces.at("tap2"), "tap3");
     }},
    {"TapParentMissing", "tap2 30 parent-interface\n", "@:1 missing argument (parent-interface)\n",
     22, expectDefaults},
    {"TapParentNotFound", "tap2 30 parent-interface em7\n",
     "@:1 parent interface \"em7\" not found\n", 22, expectDefaults},
    {"TapParentInSeventhSlotTakesTheEighth", "tap0 5 a b c d parent-interface em0\n",
     "@:1 ignoring unknown interface option \"a\"\n@:1 ignoring unknown interface option \"b\"\n"
     "@:1 ignoring unknown interface option \"c\"\n@:1 ignoring unknown interface option \"d\"\n",
     0,
     [](const Config& c) {
         expectOneTap(c, "tap0", 5, false);
         EXPECT_EQ(parent_interfaces.at("tap0"), "em0");
     }},
    {"TapTokensBeyondTheEighthAreIgnored", "tap0 5 a b c d e f vlan-isolate-enable\n",
     "@:1 ignoring unknown interface option \"a\"\n@:1 ignoring unknown interface option \"b\"\n"
     "@:1 ignoring unknown interface option \"c\"\n@:1 ignoring unknown interface option \"d\"\n"
     "@:1 ignoring unknown interface option \"e\"\n@:1 ignoring unknown interface option \"f\"\n",
     0, [](const Config& c) { expectOneTap(c, "tap0", 5, false); }},
    {"TapSameDeviceTwiceAppendsAndLastParentWins",
     "tap0 10 parent-interface em0\ntap0 11 parent-interface em1\n", "", 0,
     [](const Config& c) {
         ASSERT_EQ(c.interfaces.size(), 2u);
         EXPECT_EQ(c.interfaces[0].vid, 10);
         EXPECT_EQ(c.interfaces[1].vid, 11);
         EXPECT_EQ(parent_interfaces, (std::map<std::string, std::string>{{"tap0", "em1"}}));
     }},
    {"TapSameVidTwiceIsKeptForStartUpToReport", "tap0 20\ntap1 20\n", "", 0,
     [](const Config& c) {
         ASSERT_EQ(c.interfaces.size(), 2u);
         EXPECT_EQ(c.interfaces[0].name, "tap0");
         EXPECT_EQ(c.interfaces[1].name, "tap1");
         EXPECT_EQ(c.vlans.count(), 1u);
     }},

    // Forward lines.
    {"ForwardAccepted", "vlan40 forward-to-vym 192.0.2.1\n", "", 0,
     [](const Config& c) { expectForward(c, 40, "192.0.2.1"); }},
    {"ForwardVid4095", "vlan4095 forward-to-vym 192.0.2.1\n", "", 0,
     [](const Config& c) { expectForward(c, 4095, "192.0.2.1"); }},
    {"ForwardVidLeadingZeros", "vlan0040 forward-to-vym 192.0.2.1\n", "", 0,
     [](const Config& c) { expectForward(c, 40, "192.0.2.1"); }},
    {"ForwardVid4096OutsideRange", "vlan4096 forward-to-vym 192.0.2.1\n",
     "@:1 invalid VID outside range: \"4096\"\n", 22, expectDefaults},
    {"ForwardVid9999OutsideRange", "vlan9999 forward-to-vym 192.0.2.1\n",
     "@:1 invalid VID outside range: \"9999\"\n", 22, expectDefaults},
    {"ForwardVidTooLong", "vlan12345 forward-to-vym 192.0.2.1\n", "@:1 invalid VID: \"12345\"\n",
     22, expectDefaults},
    {"ForwardBareVlan", "vlan forward-to-vym 192.0.2.1\n", "@:1 invalid VID: \"\"\n", 22,
     expectDefaults},
    {"ForwardVidNotNumeric", "vlanx1 forward-to-vym 192.0.2.1\n", "@:1 invalid VID: \"x1\"\n", 22,
     expectDefaults},
    {"ForwardOperationMissing", "vlan10\n", "@:1 vlan operation)\n", 22, expectDefaults},
    {"ForwardOperationUnknown", "vlan10 bridge 192.0.2.1\n",
     "@:1 unknown vlan operation: \"bridge\"\n", 22, expectDefaults},
    {"ForwardOperationIgnoresCase", "vlan10 FORWARD-TO-VYM 192.0.2.1\n", "", 0,
     [](const Config& c) { expectForward(c, 10, "192.0.2.1"); }},
    {"ForwardAddressMissing", "vlan10 forward-to-vym\n", "@:1 missing argument (ip address)\n", 22,
     expectDefaults},
    {"ForwardIPv6IsWarnedAndDropped", "vlan10 forward-to-vym 2001:db8::1\n",
     "@:1 IPv6 Not supported for forward-to-vym '2001:db8::1'\n", 0,
     [](const Config& c) {
         expectNothingForwarded(c);
         expectDefaults(c);
     }},
    {"ForwardIPv6WithZoneFailsConversion", "vlan10 forward-to-vym fe80::1%em0\n",
     "@:1 IPv6 Not supported for forward-to-vym 'fe80::1%em0'\n"
     "@:1 invalid IPv6 address 'fe80::1%em0'\n",
     22, expectNothingForwarded},
    {"ForwardAddressInvalid", "vlan10 forward-to-vym 192.0.2.300\n",
     "@:1 invalid IPv4 or IPv6 address '192.0.2.300'\n", 22, expectNothingForwarded},
    {"ForwardLaterLineReplacesServer",
     "vlan10 forward-to-vym 192.0.2.1\nvlan10 forward-to-vym 192.0.2.2\n", "", 0,
     [](const Config& c) { expectForward(c, 10, "192.0.2.2"); }},
    {"ForwardExtraTokensIgnored", "vlan10 forward-to-vym 192.0.2.1 # upstream\n", "", 0,
     [](const Config& c) { expectForward(c, 10, "192.0.2.1"); }},

    // mss
    {"MssMissing", "mss\n", "@:1 missing argument (MSS)\n", 22, expectDefaults},
    {"Mss535", "mss 535\n", "@:1 invalid MSS: \"535\"\n", 22, expectDefaults},
    {"Mss536", "mss 536\n", "", 0, [](const Config& c) { EXPECT_EQ(c.mss, 536); }},
    {"MssNoUpperBound", "mss 65535\n", "", 0, [](const Config& c) { EXPECT_EQ(c.mss, 65535); }},
    {"Mss65536WrapsToZero", "mss 65536\n", "", 0, [](const Config& c) { EXPECT_EQ(c.mss, 0); }},
    {"MssWord", "mss many\n", "@:1 invalid MSS: \"many\"\n", 22, expectDefaults},
    {"MssTrailingComment", "mss 1400 # clamp\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.mss, 1400); }},

    // mtu
    {"MtuMissing", "mtu\n", "@:1 missing argument (mtu)\n", 22, expectDefaults},
    {"Mtu1279", "mtu 1279\n", "@:1 invalid MTU: \"1279\"\n", 22, expectDefaults},
    {"Mtu1280", "mtu 1280\n", "", 0, [](const Config& c) { EXPECT_EQ(c.mtu, 1280); }},
    {"Mtu9000", "mtu 9000\n", "", 0, [](const Config& c) { EXPECT_EQ(c.mtu, 9000); }},
    {"Mtu9001", "mtu 9001\n", "@:1 invalid MTU: \"9001\"\n", 22, expectDefaults},
    {"MtuTrailingCommentWord", "mtu 1500 # jumbo\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.mtu, 1500); }},

    // server
    {"ServerMissing", "server\n", "@:1 missing argument (Server IP)\n", 22, expectDefaults},
    {"ServerIPv4", "server 192.0.2.10\n", "", 0,
     [](const Config& c) {
         EXPECT_EQ(c.server_family, 1);
         EXPECT_EQ(c.server_ipv4.s_addr, ipv4("192.0.2.10").s_addr);
     }},
    {"ServerIPv6", "server 2001:db8::10\n", "", 0,
     [](const Config& c) {
         EXPECT_EQ(c.server_family, 2);
         const in6_addr expected = ipv6("2001:db8::10");
         EXPECT_EQ(std::memcmp(&c.server_ipv6, &expected, sizeof expected), 0);
     }},
    {"ServerIPv6WithZone", "server fe80::1%em0\n", "fe80::1%em0: invalid IPv6 address\n", 22,
     expectDefaults},
    {"ServerNotAnAddress", "server gateway\n", "gateway: invalid IPv4 or IPv6 address\n", 22,
     expectDefaults},
    {"ServerLaterLineWins", "server 192.0.2.10\nserver 2001:db8::10\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.server_family, 2); }},

    // grekey
    {"GreKeyArgumentMissing", "grekey\n", "@:1 missing GRE Key argument (mode)\n", 22,
     expectDefaults},
    {"GreKeyUnknownOption", "grekey kind require\n", "@:1 unknown GRE key option 'kind'\n", 22,
     expectDefaults},
    {"GreKeyModeTypeMissing", "grekey mode\n",
     "@:1 missing GRE key mode type (ignore, reject, require, vlanmap, preferkey, prefervlen)\n",
     22, expectDefaults},
    {"GreKeyModeUnknown", "grekey mode Require 5\n", "@:1 unknown GRE key mode 'Require'\n", 22,
     expectDefaults},
    {"GreKeyIgnore", "grekey mode reject\ngrekey mode ignore\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.gre_key_mode, Ignore); }},
    {"GreKeyReject", "grekey mode reject\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.gre_key_mode, Reject); }},
    {"GreKeyVlanMap", "grekey mode vlanmap\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.gre_key_mode, VlanMap); }},
    {"GreKeyPreferKey", "grekey mode preferkey\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.gre_key_mode, PreferKey); }},
    {"GreKeyPreferVlan", "grekey mode prefervlan\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.gre_key_mode, PreferVlan); }},
    {"GreKeyRequire", "grekey mode require 1001\n", "", 0,
     [](const Config& c) {
         EXPECT_EQ(c.gre_key_mode, Require);
         EXPECT_EQ(c.gre_key, 1001u);
     }},
    {"GreKeyRequireKeyMissingKeepsTheMode", "grekey mode require\n", "@:1 missing GRE key\n", 22,
     [](const Config& c) {
         EXPECT_EQ(c.gre_key_mode, Require);
         EXPECT_EQ(c.gre_key, 0u);
     }},
    {"GreKeyHexRejected", "grekey mode require 0x10\n", "@:1 invalid GRE key '0x10'\n", 22,
     noCheck},
    {"GreKeyNegativeRejected", "grekey mode require -1\n", "@:1 invalid GRE key '-1'\n", 22,
     noCheck},
    {"GreKeyLeadingZeroIsOctal", "grekey mode require 010\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.gre_key, 8u); }},
    {"GreKeyBadOctalReadsAsZero", "grekey mode require 08\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.gre_key, 0u); }},
    {"GreKeyBeyond32Bits", "grekey mode require 4294967296\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.gre_key, 4294967296u); }},
    {"GreKeyRequireExtraTokensIgnored", "grekey mode require 5 x\n", "", 0,
     [](const Config& c) { EXPECT_EQ(c.gre_key, 5u); }},
    {"GreKeyExtraArgument", "grekey mode ignore 5\n", "@:1 Unknown extra GRE Key argument '5'\n",
     22, noCheck},
    {"GreKeyTrailingCommentIsAnExtraArgument", "grekey mode vlanmap # tagged\n",
     "@:1 Unknown extra GRE Key argument 'tagged'\n", 22,
     [](const Config& c) { EXPECT_EQ(c.gre_key_mode, VlanMap); }},
    {"GreKeyLaterLineReplaces", "grekey mode require 7\ngrekey mode require 9\n", "", 0,
     [](const Config& c) {
         EXPECT_EQ(c.gre_key_mode, Require);
         EXPECT_EQ(c.gre_key, 9u);
     }},

    // ipchksum
    {"IpChecksum", "ipchksum\n", "", 0, [](const Config& c) { EXPECT_TRUE(c.ipchksum); }},
    {"IpChecksumExtraTokens", "ipchksum on # always\n", "", 0,
     [](const Config& c) { EXPECT_TRUE(c.ipchksum); }},

    // offload-disable
    {"OffloadDisableForAll", "tap1 20\noffload-disable\n", "", 0,
     [](const Config& c) {
         EXPECT_FALSE(c.offload);
         EXPECT_TRUE(c.interfaces[0].offload);
     }},
    {"OffloadDisableExtraTokens", "offload-disable now # really\n", "", 0,
     [](const Config& c) { EXPECT_FALSE(c.offload); }},
};

class ConfigParserTest : public ::testing::TestWithParam<Case> {
  protected:
    void SetUp() override {
        config = Config{};
        parent_interfaces.clear();
        system_interfaces.clear();
        uint8_t last = 1;
        for (const char* name : {"em0", "em1", "tap0", "tap1", "tap2", "tap3"}) {
            system_interfaces[name] = MacAddress{0x02, 0, 0, 0, 0, last++};
        }
    }
    void TearDown() override {
        config = Config{};
        parent_interfaces.clear();
        system_interfaces.clear();
    }
};

TEST_P(ConfigParserTest, Parses) {
    const Case& c = GetParam();
    TempFile file(c.text);
    int thrown = 0;
    std::string diagnostics;
    {
        CapturedOutput err(2);
        try {
            parse_config(config, file.path().c_str());
        } catch (int error) {
            thrown = error;
        }
        diagnostics = err.text();
    }
    EXPECT_EQ(diagnostics, withPath(c.diagnostics, file.path()));
    EXPECT_EQ(thrown, c.error);
    c.check(config);
}

INSTANTIATE_TEST_SUITE_P(Table, ConfigParserTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(ConfigParserTest, ForwardAddressFromCommentWordIsRefused) {
    TempFile file("vlan10 forward-to-vym # later\n");
    CapturedOutput err(2);
    EXPECT_THROW(parse_config(config, file.path().c_str()), int);
    EXPECT_EQ(err.text(), file.path() + ":1 invalid IPv4 or IPv6 address 'later'\n");
}

TEST_F(ConfigParserTest, MissingFileThrowsItsErrno) {
    const std::string path = "/nonexistent-vxbrd-dir/vxobrd.conf";
    int thrown = 0;
    CapturedOutput err(2);
    try {
        parse_config(config, path.c_str());
    } catch (int error) {
        thrown = error;
    }
    EXPECT_EQ(thrown, ENOENT);
    EXPECT_EQ(err.text(), path + ": No such file or directory\n");
}

using ConfigParserDeathTest = ConfigParserTest;

TEST_F(ConfigParserDeathTest, ParentInterfaceInLastTokenSlotAborts) {
    TempFile file("tap0 5 a b c d e parent-interface\n");
    EXPECT_DEATH(parse_config(config, file.path().c_str()),
                 "ignoring unknown interface option \"e\"\n$");
}

TEST_F(ConfigParserDeathTest, ParentInterfaceInLastSlotAbortsEvenWithMoreText) {
    TempFile file("tap0 5 a b c d e parent-interface em0\n");
    EXPECT_DEATH(parse_config(config, file.path().c_str()), "");
}

}  // namespace
}  // namespace lumora
