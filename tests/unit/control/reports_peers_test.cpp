// The peers report: one line per peer of the whole table, address and VLAN.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "control/Reports.h"
#include "reports_support.h"

namespace lumora {
namespace {

using test::learnPacket;
using test::Mac;

constexpr Mac kMac1 = {0x02, 0, 0, 0, 0, 1};
constexpr Mac kMac2 = {0x02, 0, 0, 0, 0, 2};
constexpr Mac kMac3 = {0x02, 0, 0, 0, 0, 3};

// The report's lines, sorted: the table's iteration order is its own.
std::vector<std::string> sortedLines(const std::string& report) {
    std::vector<std::string> lines;
    std::istringstream in(report);
    for (std::string line; std::getline(in, line);) lines.push_back(line + "\n");
    std::sort(lines.begin(), lines.end());
    return lines;
}

struct PeerCase {
    const char* name;
    std::function<void(Tables&)> fill;
    std::vector<std::string> expected;  // sorted lines
};

// Test names, not object bytes, in the listing of the cases.
void PrintTo(const PeerCase& c, std::ostream* os) { *os << c.name; }

PeerFields peerOfFamily(uint32_t family, uint16_t vlan) {
    PeerFields p;
    p.family = family;
    p.ipv4 = test::v4("192.0.2.99");
    p.ipv6 = test::v6("2001:db8::99");
    p.vlan = vlan;
    p.peerId = 0x7700 | vlan;
    return p;
}

const std::vector<PeerCase>& peerCases() {
    static const std::vector<PeerCase> cases = {
        {"EmptyTableGivesNothing", [](Tables&) {}, {}},
        {"OneIPv4Peer",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMac1, 20, 20});
         },
         {"peer: 192.0.2.10, vlan: 20\n"}},
        {"OneIPv6Peer",
         [](Tables& t) {
             learnPacket(t, {"2001:db8::5", kMac1});
         },
         {"peer: 2001:db8::5, vlan: 0\n"}},
        {"OnePeerForManyClients",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMac1});
             learnPacket(t, {"192.0.2.10", kMac2});
             learnPacket(t, {"192.0.2.10", kMac3});
         },
         {"peer: 192.0.2.10, vlan: 0\n"}},
        {"SameAddressOnTwoVlansIsTwoPeers",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMac1, 0, 0});
             learnPacket(t, {"192.0.2.10", kMac2, 30, 20, true, 30});
         },
         {"peer: 192.0.2.10, vlan: 0\n", "peer: 192.0.2.10, vlan: 30\n"}},
        {"MixedFamilies",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMac1, 20, 20});
             learnPacket(t, {"2001:db8::5", kMac2});
             learnPacket(t, {"198.51.100.7", kMac3, 4095, 4095});
         },
         {"peer: 192.0.2.10, vlan: 20\n", "peer: 198.51.100.7, vlan: 4095\n",
          "peer: 2001:db8::5, vlan: 0\n"}},
        {"VlanOfAllOnesIsListedWithTheOthers",
         // A key used as VLAN keeps 16 bits, so 65535 is a policy VLAN a
         // peer can have; it is not taken as a filter.
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMac1, 65535, 0, true, 65535});
             learnPacket(t, {"192.0.2.11", kMac2, 10, 10});
         },
         {"peer: 192.0.2.10, vlan: 65535\n", "peer: 192.0.2.11, vlan: 10\n"}},
        {"PeerLeftWithoutClientsStaysListed",
         [](Tables& t) {
             learnPacket(t, {"192.0.2.10", kMac1});
             learnPacket(t, {"192.0.2.11", kMac1});  // the client moves on
         },
         {"peer: 192.0.2.10, vlan: 0\n", "peer: 192.0.2.11, vlan: 0\n"}},
        {"IPv6PeersSharingTheirKeyAreOneLine",
         // Only the first eight address bytes make the peer key.
         [](Tables& t) {
             learnPacket(t, {"2001:db8:0:1::5", kMac1});
             learnPacket(t, {"2001:db8:0:1::6", kMac2});
         },
         {"peer: 2001:db8:0:1::5, vlan: 0\n"}},
        {"OtherFamilyPrintsItsIPv6Field",
         [](Tables& t) {
             bool inserted = false;
             size_t total = 0;
             t.insertPeer(peerOfFamily(0, 5), inserted, total);
         },
         {"peer: 2001:db8::99, vlan: 5\n"}},
    };
    return cases;
}

class PeersReport : public ::testing::TestWithParam<PeerCase> {};

TEST_P(PeersReport, ListsEveryPeerOnce) {
    Tables tables;
    GetParam().fill(tables);
    const std::string report = peersReport(tables);
    EXPECT_EQ(sortedLines(report), GetParam().expected);
    size_t size = 0;
    for (const auto& line : GetParam().expected) size += line.size();
    EXPECT_EQ(report.size(), size) << "nothing but the lines: " << report;
}

INSTANTIATE_TEST_SUITE_P(Cases, PeersReport, ::testing::ValuesIn(peerCases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(PeersReportOrder, FollowsTheTableSnapshot) {
    Tables tables;
    for (uint8_t i = 1; i <= 40; ++i) {
        const std::string address = "198.51.100." + std::to_string(i);
        learnPacket(tables, {address.c_str(), {0x02, 0, 0, 0, 2, i}, static_cast<uint16_t>(i)});
    }
    std::string expected;
    for (const PeerFields& peer : tables.peers(kAllVlans))
        expected += std::string("peer: ") + peer.address().text() +
                    ", vlan: " + std::to_string(peer.vlan) + "\n";
    EXPECT_EQ(peersReport(tables), expected);
}

}  // namespace
}  // namespace lumora
