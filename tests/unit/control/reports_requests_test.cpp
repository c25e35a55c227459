// Which reply a request gets: newlines removed anywhere, "peers" and
// "clients" matched whole and without regard to case, everything else the
// unknown-request reply quoting the request.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "control/Reports.h"
#include "reports_support.h"

namespace lumora {
namespace {

using test::learnPacket;

enum class Reply { Peers, Clients, Unknown };

struct RequestCase {
    const char* name;
    std::string request;
    Reply reply;
    std::string quoted;  // the text between the quotes, for Unknown
};

// Test names, not object bytes, in the listing of the cases.
void PrintTo(const RequestCase& c, std::ostream* os) { *os << c.name; }

std::string unknown(const std::string& text) {
    return "Unknown Request: '" + text + "'\nValid Requests: peers\n                clients\n";
}

const std::vector<RequestCase>& requestCases() {
    using namespace std::string_literals;
    static const std::vector<RequestCase> cases = {
        {"PeersAlone", "peers", Reply::Peers, ""},
        {"PeersNewline", "peers\n", Reply::Peers, ""},
        {"PeersMixedCase", "PeErS", Reply::Peers, ""},
        {"PeersUpperCaseNewline", "PEERS\n", Reply::Peers, ""},
        {"NewlinesAnywhereAreRemoved", "\npe\ne\nrs\n\n", Reply::Peers, ""},
        {"ClientsAlone", "clients", Reply::Clients, ""},
        {"ClientsUpperCaseNewline", "CLIENTS\n", Reply::Clients, ""},
        {"ClientsMixedCase", "cLiEnTs", Reply::Clients, ""},
        {"CarriageReturnIsKept", "peers\r\n", Reply::Unknown, "peers\r"},
        {"LoneCarriageReturn", "\r", Reply::Unknown, "\r"},
        {"Singular", "peer", Reply::Unknown, "peer"},
        {"SingleNewline", "\n", Reply::Unknown, ""},
        {"Empty", "", Reply::Unknown, ""},
        {"LeadingBlank", " peers", Reply::Unknown, " peers"},
        {"TrailingBlank", "peers ", Reply::Unknown, "peers "},
        {"LineStartAfterCarriageReturnIsNoMatch", "x\rpeers", Reply::Unknown, "x\rpeers"},
        {"LineEndBeforeCarriageReturnIsNoMatch", "clients\rx", Reply::Unknown, "clients\rx"},
        {"BothWords", "peersclients", Reply::Unknown, "peersclients"},
        {"BothWordsOnTwoLines", "peers\nclients", Reply::Unknown, "peersclients"},
        {"TabIsKept", "peers\t", Reply::Unknown, "peers\t"},
        {"NulIsKept", "peers\0"s, Reply::Unknown, "peers\0"s},
        {"FullEightyBytes", std::string(80, 'x'), Reply::Unknown, std::string(80, 'x')},
        {"NonAscii",
         "p\xc3\xa9"
         "ers",
         Reply::Unknown,
         "p\xc3\xa9"
         "ers"},
    };
    return cases;
}

class RequestReply : public ::testing::TestWithParam<RequestCase> {};

TEST_P(RequestReply, IsTheExpectedReply) {
    Tables tables;
    learnPacket(tables, {"192.0.2.10", {0x02, 0, 0, 0, 0, 1}, 20, 20, true, 7});
    const RequestCase& c = GetParam();
    std::string expected;
    switch (c.reply) {
        case Reply::Peers:
            expected = "peer: 192.0.2.10, vlan: 20\n";
            break;
        case Reply::Clients:
            expected =
                "client: 02:00:00:00:00:01\n  peer: 192.0.2.10\n  associated vlan: 20\n"
                "  gre key: 7\n  bytes in: 60, bytes out: 0\n  packets in: 1, packets out: 0\n";
            break;
        case Reply::Unknown:
            expected = unknown(c.quoted);
            break;
    }
    EXPECT_EQ(replyTo(tables, c.request), expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, RequestReply, ::testing::ValuesIn(requestCases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(RequestReplyEmptyTables, ReportsAreEmpty) {
    Tables tables;
    EXPECT_EQ(replyTo(tables, "peers"), "");
    EXPECT_EQ(replyTo(tables, "clients\n"), "");
    EXPECT_EQ(replyTo(tables, "\n"),
              "Unknown Request: ''\nValid Requests: peers\n                clients\n");
}

}  // namespace
}  // namespace lumora
