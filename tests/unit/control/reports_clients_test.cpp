// The clients report: one block per client, lines present or absent by the
// client's flags, counters read together. Each case fills a Tables instance of
// its own, through learning where traffic can produce the state and directly
// where it cannot (a client without a peer, out-of-range stored values).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "control/Reports.h"
#include "pdu/Text.h"
#include "reports_support.h"

namespace lumora {
namespace {

using test::insertOrphan;
using test::learnPacket;
using test::Mac;
using test::Packet;

constexpr Mac kMacA = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr Mac kMacB = {0x0a, 0xbc, 0xde, 0xf0, 0x12, 0xff};

struct ClientCase {
    const char* name;
    std::function<void(Tables&)> fill;
    std::string expected;
};

// Test names, not object bytes, in the listing of the cases.
void PrintTo(const ClientCase& c, std::ostream* os) { *os << c.name; }

std::string block(const char* mac, const char* peer, const std::string& middle, const char* bytes,
                  const char* packets) {
    return std::string("client: ") + mac + "\n  peer: " + peer + "\n" + middle +
           "  bytes in: " + bytes + "\n  packets in: " + packets + "\n";
}

const std::vector<ClientCase>& clientCases() {
    static const std::vector<ClientCase> cases = {
        {"UntaggedWithoutKeyHasFourLines",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMacA});
         },
         block("00:11:22:33:44:55", "192.0.2.10", "", "60, bytes out: 0", "1, packets out: 0")},
        {"TaggedWithKeyOnItsOwnVlan",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMacA, 20, 20, true, 7, 64});
         },
         block("00:11:22:33:44:55", "192.0.2.10", "  associated vlan: 20\n  gre key: 7\n",
               "64, bytes out: 0", "1, packets out: 0")},
        {"TaggedAndKeyedAndMapped",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMacA, 30, 20, true, 30, 100});
         },
         block("00:11:22:33:44:55", "192.0.2.10",
               "  associated vlan: 20\n  gre key: 30\n  mapped vlan: 30\n", "100, bytes out: 0",
               "1, packets out: 0")},
        {"UntaggedKeyMappedToAVlan",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMacA, 40, 0, true, 40});
         },
         block("00:11:22:33:44:55", "192.0.2.10", "  gre key: 40\n  mapped vlan: 40\n",
               "60, bytes out: 0", "1, packets out: 0")},
        {"TaggedWithoutKey",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMacA, 20, 20});
         },
         block("00:11:22:33:44:55", "192.0.2.10", "  associated vlan: 20\n", "60, bytes out: 0",
               "1, packets out: 0")},
        {"KeyZeroIsStillListed",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMacA, 0, 0, true, 0});
         },
         block("00:11:22:33:44:55", "192.0.2.10", "  gre key: 0\n", "60, bytes out: 0",
               "1, packets out: 0")},
        {"LargestKeyAndTag",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMacA, 4095, 4095, true, 4294967295u});
         },
         block("00:11:22:33:44:55", "192.0.2.10",
               "  associated vlan: 4095\n  gre key: 4294967295\n", "60, bytes out: 0",
               "1, packets out: 0")},
        {"IPv6PeerAndLowerCaseMac",
         [](Tables& t) {
             learnPacket(t, {"2001:db8::5", kMacB});
         },
         block("0a:bc:de:f0:12:ff", "2001:db8::5", "", "60, bytes out: 0", "1, packets out: 0")},
        {"ClientWithoutPeerIsUnknown", [](Tables& t) { insertOrphan(t, kMacA, 0); },
         block("00:11:22:33:44:55", "unknown", "", "0, bytes out: 0", "0, packets out: 0")},
        {"OrphanKeepsItsFlagLines",
         [](Tables& t) {
             ClientRecord* c = insertOrphan(t, kMacA, 30);
             c->setVlan(20);
             c->setKey(9);
             c->setMappedVlan(30);
         },
         block("00:11:22:33:44:55", "unknown",
               "  associated vlan: 20\n  gre key: 9\n  mapped vlan: 30\n", "0, bytes out: 0",
               "0, packets out: 0")},
        {"StoredVlansAreReadAsSixteenBits",
         [](Tables& t) {
             ClientRecord* c = insertOrphan(t, kMacA, 0);
             c->setVlan(70000);     // 70000 mod 65536
             c->setMappedVlan(-1);  // 65535
         },
         block("00:11:22:33:44:55", "unknown", "  associated vlan: 4464\n  mapped vlan: 65535\n",
               "0, bytes out: 0", "0, packets out: 0")},
        {"MappedVlanWhoseLowBitsAreZeroIsNotListed",
         [](Tables& t) {
             ClientRecord* c = insertOrphan(t, kMacA, 0);
             c->setMappedVlan(65536);
         },
         block("00:11:22:33:44:55", "unknown", "", "0, bytes out: 0", "0, packets out: 0")},
        {"ClearedFlagsHideStaleValues",
         [](Tables& t) {
             ClientRecord* c = insertOrphan(t, kMacA, 0);
             c->setVlan(20);
             c->setKey(7);
             c->resetFlags();
         },
         block("00:11:22:33:44:55", "unknown", "", "0, bytes out: 0", "0, packets out: 0")},
        {"CountersOfBothDirections",
         [](Tables& t) {
             ClientRecord* c = learnPacket(t, {"192.0.2.10", kMacA, 0, 0, false, 0, 1514});
             learnPacket(t, {"192.0.2.10", kMacA, 0, 0, false, 0, 60});
             c->addTraffic(0, 1000, 0, 1);
             c->addTraffic(0, 42, 0, 1);
             c->addTraffic(0, 100, 0, 1);
         },
         block("00:11:22:33:44:55", "192.0.2.10", "", "1574, bytes out: 1142",
               "2, packets out: 3")},
        {"CountersAreSixtyFourBitDecimals",
         [](Tables& t) {
             ClientRecord* c = insertOrphan(t, kMacA, 0);
             c->addTraffic(UINT64_MAX, UINT64_MAX - 1, 4294967296u, 1);
         },
         block("00:11:22:33:44:55", "unknown", "",
               "18446744073709551615, bytes out: 18446744073709551614",
               "4294967296, packets out: 1")},
        {"MovedClientShowsItsNewPeerAndNewFlags",
         [](Tables& t) {
             // First seen tagged 20 with key 30 (mapped to 30), then from a
             // second access point untagged with the same key.
             learnPacket(t, {"192.0.2.10", kMacA, 30, 20, true, 30});
             learnPacket(t, {"2001:db8::7", kMacA, 30, 0, true, 30});
         },
         block("00:11:22:33:44:55", "2001:db8::7", "  gre key: 30\n  mapped vlan: 30\n",
               "120, bytes out: 0", "2, packets out: 0")},
    };
    return cases;
}

class ClientsReport : public ::testing::TestWithParam<ClientCase> {};

TEST_P(ClientsReport, IsExact) {
    Tables tables;
    GetParam().fill(tables);
    EXPECT_EQ(clientsReport(tables), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, ClientsReport, ::testing::ValuesIn(clientCases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ClientsReportEmpty, IsEmpty) {
    Tables tables;
    EXPECT_EQ(clientsReport(tables), "");
}

TEST(ClientsReportMany, EveryClientOnceInCacheOrderBlocks) {
    Tables tables;
    std::vector<std::string> expected;
    for (uint8_t i = 0; i < 50; ++i) {
        const Mac mac = {0x02, 0x00, 0x00, 0x00, 0x01, i};
        const uint16_t vlan = i % 2 == 0 ? 0 : 20;
        learnPacket(tables, {i % 3 == 0 ? "2001:db8::9" : "192.0.2.20", mac, vlan, vlan});
        char text[18];
        std::snprintf(text, sizeof text, "02:00:00:00:01:%02x", i);
        expected.push_back(block(text, i % 3 == 0 ? "2001:db8::9" : "192.0.2.20",
                                 vlan != 0 ? "  associated vlan: 20\n" : "", "60, bytes out: 0",
                                 "1, packets out: 0"));
    }
    // The same MAC on a second VLAN is a second client.
    learnPacket(tables, {"192.0.2.20", {0x02, 0, 0, 0, 1, 0}, 20, 20});
    expected.push_back(block("02:00:00:00:01:00", "192.0.2.20", "  associated vlan: 20\n",
                             "60, bytes out: 0", "1, packets out: 0"));

    const std::string report = clientsReport(tables);
    std::vector<std::string> blocks = test::clientBlocks(report);
    std::string joined;
    for (const auto& b : blocks) joined += b;
    EXPECT_EQ(joined, report);
    std::sort(blocks.begin(), blocks.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(blocks, expected);
}

TEST(ClientsReportMacText, GoesThroughTheProcessWideBuffer) {
    // The MAC text is formatted through the shared buffer that the other
    // threads' messages use too; after a report it holds the last client's.
    Tables tables;
    learnPacket(tables, {"192.0.2.10", kMacB});
    ASSERT_EQ(clientsReport(tables).substr(0, 26), "client: 0a:bc:de:f0:12:ff\n");
    char shared[24];
    pdu::sharedMacText(shared);
    EXPECT_STREQ(shared, "0a:bc:de:f0:12:ff");
}

}  // namespace
}  // namespace lumora
