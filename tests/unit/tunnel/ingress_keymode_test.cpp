// The GRE key mode on the ingress path: every mode with and without a key,
// on untagged and tagged frames. An accepted datagram's frame reaches the tap
// of its policy VLAN, untagged, and its peer and client are learned on that
// VLAN; a refused one is logged and leaves no trace.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ingress_support.h"

namespace lumora {
namespace {

using test::Bytes;
using test::IngressRig;
using test::WrittenFrames;

constexpr int kDropped = -1;

struct KeyCase {
    const char* name;
    uint8_t mode;
    uint64_t required_key;
    uint16_t tag;  // the tag's TCI; 0: untagged
    bool has_key;
    uint32_t key;
    int policy_vlan;   // kDropped: refused
    const char* drop;  // the refusal's text after "<endpoint>: "
};

void PrintTo(const KeyCase& c, std::ostream* os) { *os << c.name; }

class IngressKeyMode : public testing::TestWithParam<KeyCase> {};

Bytes datagramOf(const KeyCase& c) {
    const Bytes gre = c.has_key ? test::keyedGre(c.key) : test::plainGre();
    const Bytes frame = c.tag != 0 ? test::taggedFrame(c.tag) : test::untaggedFrame();
    return test::join({gre, frame});
}

TEST_P(IngressKeyMode, ChoosesThePolicyVlanOrRefuses) {
    const KeyCase& c = GetParam();
    IngressRig rig;
    rig.config.gre_key_mode = c.mode;
    rig.config.gre_key = c.required_key;
    for (uint16_t vid : {0, 5, 20, 30}) rig.addTap(vid);

    rig.run(datagramOf(c));

    if (c.policy_vlan == kDropped) {
        EXPECT_EQ(rig.log.lines(),
                  std::vector<std::string>{std::string(test::kReceiverName) + ": " + c.drop});
        EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
        EXPECT_EQ(rig.tables.peerCount(), 0u);
        EXPECT_EQ(rig.tables.clientCount(), 0u);
        return;
    }

    const auto policy = static_cast<uint16_t>(c.policy_vlan);
    const int tag_vlan = c.tag & 0x0fff;
    EXPECT_EQ(
        rig.tapWrites(),
        (WrittenFrames{{"tap" + std::to_string(policy), {test::hexText(test::untaggedFrame())}}}));
    std::string tail;
    if (c.has_key) tail += ", grekey: " + std::to_string(c.key);
    if (tag_vlan != 0) tail += ", vlan: " + std::to_string(tag_vlan);
    if (policy != 0 && policy != tag_vlan) tail += ", mapped to vlan: " + std::to_string(policy);
    EXPECT_EQ(rig.log.lines(), test::learnedLines(policy, tail));

    const auto peers = rig.tables.peers();
    ASSERT_EQ(peers.size(), 1u);
    EXPECT_EQ(peers[0].vlan, policy);
    EXPECT_EQ(peers[0].endpoint, &rig.receiver);
    EXPECT_EQ(peers[0].relayMark, 0);
    const Bytes mac = test::hexBytes(test::kClientMac);
    ClientRecord* client = rig.tables.findClient(mac.data(), policy);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->hasKey, c.has_key ? 1 : 0);
    EXPECT_EQ(client->greKey, c.has_key ? c.key : 0u);
    EXPECT_EQ(client->hasVlan, tag_vlan != 0 ? 1 : 0);
    EXPECT_EQ(client->vlan, tag_vlan);
    EXPECT_EQ(client->mappedVlan, policy != tag_vlan ? policy : 0);
    // The inner frame as written, after the tag came off.
    EXPECT_EQ(client->readTraffic().bytesIn, test::untaggedFrame().size());
    EXPECT_EQ(client->readTraffic().packetsIn, 1u);
}

constexpr const char* kWithKey30 = "ignoring PDU with GRE key 30";
constexpr const char* kWithoutKey = "ignoring PDU without GRE key";

INSTANTIATE_TEST_SUITE_P(
    EveryMode, IngressKeyMode,
    testing::Values(KeyCase{"IgnoreUntaggedNoKey", Ignore, 0, 0, false, 0, 0, nullptr},
                    KeyCase{"IgnoreUntaggedKey", Ignore, 0, 0, true, 30, 0, nullptr},
                    KeyCase{"IgnoreTaggedNoKey", Ignore, 0, 20, false, 0, 20, nullptr},
                    KeyCase{"IgnoreTaggedKey", Ignore, 0, 20, true, 30, 20, nullptr},
                    KeyCase{"UnlistedMode3Key", 3, 0, 0, true, 30, 0, nullptr},
                    KeyCase{"UnlistedMode32TaggedKey", 32, 0, 20, true, 30, 20, nullptr},
                    KeyCase{"UnlistedMode255NoKey", 255, 0, 20, false, 0, 20, nullptr},
                    KeyCase{"RejectUntaggedNoKey", Reject, 0, 0, false, 0, 0, nullptr},
                    KeyCase{"RejectTaggedNoKey", Reject, 0, 20, false, 0, 20, nullptr},
                    // Refused although VLAN 0 and VLAN 30 both have taps.
                    KeyCase{"RejectUntaggedKey", Reject, 0, 0, true, 30, kDropped, kWithKey30},
                    KeyCase{"RejectTaggedKey", Reject, 0, 20, true, 30, kDropped, kWithKey30},
                    KeyCase{"RequireRightKey", Require, 5, 0, true, 5, 0, nullptr},
                    KeyCase{"RequireRightKeyTagged", Require, 5, 20, true, 5, 20, nullptr},
                    KeyCase{"RequireWrongKey", Require, 5, 0, true, 6, kDropped,
                            "ignoring PDU with invalid GRE key 6. Expecting 5"},
                    KeyCase{"RequireWrongKeyTagged", Require, 5, 20, true, 30, kDropped,
                            "ignoring PDU with invalid GRE key 30. Expecting 5"},
                    KeyCase{"RequireNoKey", Require, 5, 0, false, 0, kDropped, kWithoutKey},
                    KeyCase{"RequireNoKeyTagged", Require, 5, 20, false, 0, kDropped, kWithoutKey},
                    KeyCase{"VlanMapUntaggedKey", VlanMap, 0, 0, true, 30, 30, nullptr},
                    KeyCase{"VlanMapKeyOverTag", VlanMap, 0, 20, true, 30, 30, nullptr},
                    KeyCase{"VlanMapKeyEqualToTag", VlanMap, 0, 20, true, 20, 20, nullptr},
                    // Only the key's low 16 bits are a VLAN: 0x00010014 is VLAN 20.
                    KeyCase{"VlanMapKeepsLow16Bits", VlanMap, 0, 0, true, 0x00010014, 20, nullptr},
                    KeyCase{"VlanMapNoKey", VlanMap, 0, 0, false, 0, kDropped, kWithoutKey},
                    KeyCase{"VlanMapNoKeyTagged", VlanMap, 0, 20, false, 0, kDropped, kWithoutKey},
                    KeyCase{"PreferKeyUntaggedKey", PreferKey, 0, 0, true, 30, 30, nullptr},
                    KeyCase{"PreferKeyTaggedKey", PreferKey, 0, 20, true, 30, 30, nullptr},
                    KeyCase{"PreferKeyUntaggedNoKey", PreferKey, 0, 0, false, 0, 0, nullptr},
                    KeyCase{"PreferKeyTaggedNoKey", PreferKey, 0, 20, false, 0, 20, nullptr},
                    KeyCase{"PreferVlanUntaggedKey", PreferVlan, 0, 0, true, 30, 30, nullptr},
                    KeyCase{"PreferVlanTaggedKey", PreferVlan, 0, 20, true, 30, 20, nullptr},
                    KeyCase{"PreferVlanUntaggedNoKey", PreferVlan, 0, 0, false, 0, 0, nullptr},
                    KeyCase{"PreferVlanTaggedNoKey", PreferVlan, 0, 20, false, 0, 20, nullptr},
                    // A priority tag (VLAN 0) counts as no VLAN: the key decides.
                    KeyCase{"PreferVlanPriorityTagKey", PreferVlan, 0, 0x6000, true, 30, 30,
                            nullptr}),
    [](const testing::TestParamInfo<KeyCase>& info) { return std::string(info.param.name); });

// The access points put the key in the word at offset 4 even when the
// checksum bit says a checksum sits there; the word behind it is not read.
TEST(IngressKeyWord, WithChecksumAndKeyTheKeyIsTheWordAtOffset4) {
    IngressRig rig;
    rig.config.gre_key_mode = VlanMap;
    rig.addTap(30);
    rig.addTap(99);
    rig.run(test::join(
        {test::greHeader(0xa0, "65 58", "00 00 00 1e  00 00 00 63"), test::untaggedFrame()}));
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap30", {test::hexText(test::untaggedFrame())}}}));
    const Bytes mac = test::hexBytes(test::kClientMac);
    ClientRecord* client = rig.tables.findClient(mac.data(), 30);
    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->greKey, 30u);
}

TEST(IngressKeyWord, RequireReadsTheKeyAtOffset4WithTheChecksumBitSet) {
    IngressRig rig;
    rig.config.gre_key_mode = Require;
    rig.config.gre_key = 99;
    rig.addTap(0);
    // Checksum word 5, key word 99: the check sees 5.
    rig.run(test::join(
        {test::greHeader(0xa0, "65 58", "00 00 00 05  00 00 00 63"), test::untaggedFrame()}));
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>{
                  "eth0 (ip://192.0.2.1): ignoring PDU with invalid GRE key 5. Expecting 99"});
    EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
}

// Sequence and checksum words are skipped: the frame starts behind them all.
TEST(IngressKeyWord, EveryOptionalWordIsSkippedBeforeTheFrame) {
    IngressRig rig;
    rig.config.gre_key_mode = PreferKey;
    rig.addTap(30);
    rig.run(test::join({test::greHeader(0xb0, "65 58", "00 00 00 1e  ff ff ff ff  00 00 00 01"),
                        test::untaggedFrame()}));
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap30", {test::hexText(test::untaggedFrame())}}}));
    EXPECT_EQ(rig.log.lines(), test::learnedLines(30, ", grekey: 30, mapped to vlan: 30"));
}

}  // namespace

// A configured key wider than 32 bits is the key its low 32 bits name: the
// wire carries no more.
TEST(IngressKeyWord, RequireComparesTheLow32BitsOfTheConfiguredKey) {
    IngressRig rig;
    rig.config.gre_key_mode = Require;
    rig.config.gre_key = 0x100000005ull;
    rig.addTap(0);
    rig.run(test::join({test::greHeader(0x20, "65 58", "00 00 00 05"), test::untaggedFrame()}));
    EXPECT_EQ(rig.tapWrites(), (WrittenFrames{{"tap0", {test::hexText(test::untaggedFrame())}}}));

    IngressRig refusing;
    refusing.config.gre_key_mode = Require;
    refusing.config.gre_key = 0x100000005ull;
    refusing.addTap(0);
    refusing.run(
        test::join({test::greHeader(0x20, "65 58", "00 00 00 06"), test::untaggedFrame()}));
    EXPECT_EQ(refusing.log.lines(),
              std::vector<std::string>{
                  "eth0 (ip://192.0.2.1): ignoring PDU with invalid GRE key 6. Expecting 5"});
}

}  // namespace lumora
