// vxbrdctl's reading of the control socket's peers and clients reports.
#include "vxbrdctl/Report.h"

#include <gtest/gtest.h>

#include <string>

namespace lumora::ctl {
namespace {

// The reader's message for a refused reply, or "" when it was accepted.
template <typename Parse>
std::string refusal(Parse parse, const std::string& reply) {
    try {
        parse(reply);
    } catch (const ReportError& error) {
        return error.what();
    }
    return "";
}

TEST(VxbrdctlPeers, EmptyReplyIsNoPeers) { EXPECT_TRUE(parsePeers("").empty()); }

TEST(VxbrdctlPeers, ReadsIpv4AndIpv6PeersInOrder) {
    const auto peers = parsePeers("peer: 192.0.2.10, vlan: 20\npeer: 2001:db8::5, vlan: 0\n");
    ASSERT_EQ(peers.size(), 2u);
    EXPECT_EQ(peers[0], (Peer{"192.0.2.10", 20}));
    EXPECT_EQ(peers[1], (Peer{"2001:db8::5", 0}));
}

TEST(VxbrdctlPeers, ReadsTheWholeVlanRangeAndEmbeddedIpv4) {
    const auto peers = parsePeers("peer: ::ffff:192.0.2.7, vlan: 65535\n");
    ASSERT_EQ(peers.size(), 1u);
    EXPECT_EQ(peers[0], (Peer{"::ffff:192.0.2.7", 65535}));
}

TEST(VxbrdctlPeers, RefusesWhatTheDaemonNeverPrints) {
    EXPECT_EQ(refusal(parsePeers, "peer: 192.0.2.1, vlan: 1\npeer: 192.0.2.2, vlan: 65536\n"),
              "line 2: invalid VLAN \"65536\"");
    EXPECT_EQ(refusal(parsePeers, "peer: 192.0.2.1, vlan: -1\n"), "line 1: invalid VLAN \"-1\"");
    EXPECT_EQ(refusal(parsePeers, "peer: 192.0.2.1, vlan: +1\n"), "line 1: invalid VLAN \"+1\"");
    EXPECT_EQ(refusal(parsePeers, "peer: 192.0.2.1, vlan: \n"), "line 1: invalid VLAN \"\"");
    EXPECT_EQ(refusal(parsePeers, "peer: 192.0.2, vlan: 1\n"),
              "line 1: invalid peer address \"192.0.2\"");
    EXPECT_EQ(refusal(parsePeers, "peer: unknown, vlan: 1\n"),
              "line 1: invalid peer address \"unknown\"");
    EXPECT_EQ(refusal(parsePeers, "peer: 192.0.2.1 vlan: 1\n"),
              "line 1: expected \", vlan: \" in \"peer: 192.0.2.1 vlan: 1\"");
    EXPECT_EQ(refusal(parsePeers, "Peer: 192.0.2.1, vlan: 1\n"),
              "line 1: expected \"peer: \", got \"Peer: 192.0.2.1, vlan: 1\"");
    EXPECT_EQ(refusal(parsePeers, "peer: 192.0.2.1, vlan: 1\r\n"), "line 1: invalid VLAN \"1\r\"");
    EXPECT_EQ(refusal(parsePeers, "peer: 192.0.2.1, vlan: 1\n\n"),
              "line 2: expected \"peer: \", got \"\"");
}

TEST(VxbrdctlPeers, RefusesAReplyCutShort) {
    EXPECT_EQ(refusal(parsePeers, "peer: 192.0.2.1, vlan: 1\npeer: 192.0.2.2, vl"),
              "line 2: the reply ends inside a line (cut short?)");
}

TEST(VxbrdctlClients, EmptyReplyIsNoClients) { EXPECT_TRUE(parseClients("").empty()); }

TEST(VxbrdctlClients, ReadsAClientWithVlanAndKey) {
    const auto clients = parseClients(
        "client: 00:11:22:33:44:55\n"
        "  peer: 192.0.2.10\n"
        "  associated vlan: 20\n"
        "  gre key: 7\n"
        "  bytes in: 1500, bytes out: 60\n"
        "  packets in: 3, packets out: 1\n");
    ASSERT_EQ(clients.size(), 1u);
    const Client& c = clients[0];
    EXPECT_EQ(c.mac, "00:11:22:33:44:55");
    EXPECT_EQ(c.peer, "192.0.2.10");
    EXPECT_EQ(c.vlan, 20);
    EXPECT_EQ(c.greKey, 7u);
    EXPECT_EQ(c.mappedVlan, std::nullopt);
    EXPECT_EQ(c.bytesIn, 1500u);
    EXPECT_EQ(c.bytesOut, 60u);
    EXPECT_EQ(c.packetsIn, 3u);
    EXPECT_EQ(c.packetsOut, 1u);
    EXPECT_EQ(c.servedVlan(), 20);
}

TEST(VxbrdctlClients, ReadsAClientWithoutVlanKeyOrMappedVlan) {
    const auto clients = parseClients(
        "client: 02:00:00:00:00:01\n"
        "  peer: 2001:db8::2\n"
        "  bytes in: 0, bytes out: 0\n"
        "  packets in: 0, packets out: 0\n");
    ASSERT_EQ(clients.size(), 1u);
    EXPECT_EQ(clients[0], (Client{"02:00:00:00:00:01", "2001:db8::2", std::nullopt, std::nullopt,
                                  std::nullopt, 0, 0, 0, 0}));
    EXPECT_EQ(clients[0].servedVlan(), 0);
}

TEST(VxbrdctlClients, ReadsAKeyMappedToAVlanAndAnUnknownPeer) {
    const auto clients = parseClients(
        "client: 0a:bc:de:f0:12:34\n"
        "  peer: unknown\n"
        "  gre key: 4294967295\n"
        "  mapped vlan: 30\n"
        "  bytes in: 18446744073709551615, bytes out: 1\n"
        "  packets in: 2, packets out: 18446744073709551615\n");
    ASSERT_EQ(clients.size(), 1u);
    EXPECT_EQ(clients[0], (Client{"0a:bc:de:f0:12:34", std::nullopt, std::nullopt, 4294967295u, 30,
                                  18446744073709551615u, 1, 2, 18446744073709551615u}));
    EXPECT_EQ(clients[0].servedVlan(), 30);
}

TEST(VxbrdctlClients, TheMappedVlanIsTheServedOneEvenWithATag) {
    const auto clients = parseClients(
        "client: 02:00:00:00:00:03\n"
        "  peer: 192.0.2.2\n"
        "  associated vlan: 20\n"
        "  gre key: 30\n"
        "  mapped vlan: 30\n"
        "  bytes in: 64, bytes out: 0\n"
        "  packets in: 1, packets out: 0\n");
    ASSERT_EQ(clients.size(), 1u);
    EXPECT_EQ(clients[0].vlan, 20);
    EXPECT_EQ(clients[0].mappedVlan, 30);
    EXPECT_EQ(clients[0].servedVlan(), 30);
}

TEST(VxbrdctlClients, ReadsSeveralBlocksInOrder) {
    const auto clients = parseClients(
        "client: 02:00:00:00:00:01\n"
        "  peer: 192.0.2.2\n"
        "  bytes in: 60, bytes out: 120\n"
        "  packets in: 1, packets out: 2\n"
        "client: 02:00:00:00:00:02\n"
        "  peer: 2001:db8::2\n"
        "  associated vlan: 4095\n"
        "  bytes in: 64, bytes out: 0\n"
        "  packets in: 1, packets out: 0\n");
    ASSERT_EQ(clients.size(), 2u);
    EXPECT_EQ(clients[0], (Client{"02:00:00:00:00:01", "192.0.2.2", std::nullopt, std::nullopt,
                                  std::nullopt, 60, 120, 1, 2}));
    EXPECT_EQ(clients[1], (Client{"02:00:00:00:00:02", "2001:db8::2", 4095, std::nullopt,
                                  std::nullopt, 64, 0, 1, 0}));
}

TEST(VxbrdctlClients, RefusesMalformedBlocks) {
    const std::string head = "client: 02:00:00:00:00:01\n  peer: 192.0.2.2\n";
    const std::string counters = "  bytes in: 1, bytes out: 2\n  packets in: 3, packets out: 4\n";
    EXPECT_EQ(refusal(parseClients, "client: 02:00:00:00:00:0A\n"),
              "line 1: invalid MAC address \"02:00:00:00:00:0A\"");
    EXPECT_EQ(refusal(parseClients, "client: 02-00-00-00-00-01\n"),
              "line 1: invalid MAC address \"02-00-00-00-00-01\"");
    EXPECT_EQ(refusal(parseClients, "client: 02:00:00:00:00:01\n"),
              "line 1: the client block ends after its first line");
    EXPECT_EQ(refusal(parseClients, head),
              "line 2: the client block ends before its byte counters");
    EXPECT_EQ(refusal(parseClients, head + "  bytes in: 1, bytes out: 2\n"),
              "line 3: the client block ends before its packet counters");
    EXPECT_EQ(refusal(parseClients, "client: 02:00:00:00:00:01\n  peer: nowhere\n" + counters),
              "line 2: invalid peer address \"nowhere\"");
    // The optional lines come in the daemon's order only.
    EXPECT_EQ(refusal(parseClients, head + "  gre key: 7\n  associated vlan: 20\n" + counters),
              "line 4: expected \"  bytes in: \", got \"  associated vlan: 20\"");
    EXPECT_EQ(refusal(parseClients, head + "  gre key: 4294967296\n" + counters),
              "line 3: invalid GRE key \"4294967296\"");
    EXPECT_EQ(refusal(parseClients, head + "  associated vlan: 70000\n" + counters),
              "line 3: invalid VLAN \"70000\"");
    EXPECT_EQ(refusal(parseClients, head + "  mapped vlan: x\n" + counters),
              "line 3: invalid mapped VLAN \"x\"");
    EXPECT_EQ(refusal(parseClients, head + "  bytes in: 18446744073709551616, bytes out: 0\n"),
              "line 3: invalid byte count \"18446744073709551616\"");
    EXPECT_EQ(refusal(parseClients, head + "  bytes in: 1, bytes out: 2\n  packets in: 3\n"),
              "line 4: expected \", packets out: \" in \"  packets in: 3\"");
    EXPECT_EQ(refusal(parseClients, head + counters + "peer: 192.0.2.2, vlan: 0\n"),
              "line 5: expected \"client: \", got \"peer: 192.0.2.2, vlan: 0\"");
    EXPECT_EQ(refusal(parseClients, head + "  bytes in: 1, bytes out: 2\n  packets in: 3, pa"),
              "line 4: the reply ends inside a line (cut short?)");
}

TEST(VxbrdctlReplies, RecognisesTheUnknownRequestReply) {
    EXPECT_TRUE(isUnknownRequestReply(
        "Unknown Request: 'peers\r'\nValid Requests: peers\n                clients\n"));
    EXPECT_FALSE(isUnknownRequestReply("peer: 192.0.2.1, vlan: 0\n"));
    EXPECT_FALSE(isUnknownRequestReply(""));
}

}  // namespace
}  // namespace lumora::ctl
