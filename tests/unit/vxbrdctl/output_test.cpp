// vxbrdctl's tables, JSON and metrics, byte for byte.
#include "vxbrdctl/Output.h"

#include <gtest/gtest.h>

namespace lumora::ctl {
namespace {

const std::vector<Peer> kPeers = {{"192.0.2.2", 20}, {"2001:db8::2", 0}};

const std::vector<Client> kClients = {
    {"02:00:00:00:00:01", "192.0.2.2", std::nullopt, std::nullopt, std::nullopt, 60, 120, 1, 2},
    {"02:00:00:00:00:02", "2001:db8::2", 20, 7, std::nullopt, 1500, 0, 3, 0},
    {"02:00:00:00:00:03", std::nullopt, std::nullopt, 30, 30, 64, 64, 1, 1},
};

TEST(VxbrdctlTable, PeersAreAlignedUnderTheirTitles) {
    EXPECT_EQ(peersTable(kPeers),
              "PEER         VLAN\n"
              "192.0.2.2      20\n"
              "2001:db8::2     0\n");
}

TEST(VxbrdctlTable, NoPeersLeavesTheTitleLine) { EXPECT_EQ(peersTable({}), "PEER  VLAN\n"); }

TEST(VxbrdctlTable, ClientsShowADashForMissingFields) {
    EXPECT_EQ(clientsTable(kClients),
              "MAC                PEER         VLAN  KEY  MAPPED  BYTES-IN  BYTES-OUT  PKTS-IN  "
              "PKTS-OUT\n"
              "02:00:00:00:00:01  192.0.2.2       -    -       -        60        120        1  "
              "       2\n"
              "02:00:00:00:00:02  2001:db8::2    20    7       -      1500          0        3  "
              "       0\n"
              "02:00:00:00:00:03  unknown         -   30      30        64         64        1  "
              "       1\n");
}

TEST(VxbrdctlTable, NoClientsLeavesTheTitleLine) {
    EXPECT_EQ(clientsTable({}),
              "MAC  PEER  VLAN  KEY  MAPPED  BYTES-IN  BYTES-OUT  PKTS-IN  PKTS-OUT\n");
}

TEST(VxbrdctlJson, PeersCarryTheSchemaAndEveryField) {
    EXPECT_EQ(peersJson(kPeers),
              "{\"schema\":\"vxbrdctl/1\",\"peers\":[{\"peer\":\"192.0.2.2\",\"vlan\":20},"
              "{\"peer\":\"2001:db8::2\",\"vlan\":0}]}\n");
    EXPECT_EQ(peersJson({}), "{\"schema\":\"vxbrdctl/1\",\"peers\":[]}\n");
}

TEST(VxbrdctlJson, ClientsUseNullForMissingLinesAndTheUnknownPeer) {
    EXPECT_EQ(clientsJson(kClients),
              "{\"schema\":\"vxbrdctl/1\",\"clients\":["
              "{\"client\":\"02:00:00:00:00:01\",\"peer\":\"192.0.2.2\",\"associated_vlan\":null,"
              "\"gre_key\":null,\"mapped_vlan\":null,\"bytes_in\":60,\"bytes_out\":120,"
              "\"packets_in\":1,\"packets_out\":2},"
              "{\"client\":\"02:00:00:00:00:02\",\"peer\":\"2001:db8::2\",\"associated_vlan\":20,"
              "\"gre_key\":7,\"mapped_vlan\":null,\"bytes_in\":1500,\"bytes_out\":0,"
              "\"packets_in\":3,\"packets_out\":0},"
              "{\"client\":\"02:00:00:00:00:03\",\"peer\":null,\"associated_vlan\":null,"
              "\"gre_key\":30,\"mapped_vlan\":30,\"bytes_in\":64,\"bytes_out\":64,"
              "\"packets_in\":1,\"packets_out\":1}]}\n");
    EXPECT_EQ(clientsJson({}), "{\"schema\":\"vxbrdctl/1\",\"clients\":[]}\n");
}

TEST(VxbrdctlJson, KeepsFullSixtyFourBitCountersAndEscapesStrings) {
    const std::vector<Client> clients = {{"a\"b\\c\n", "192.0.2.2", std::nullopt, std::nullopt,
                                          std::nullopt, 18446744073709551615u, 0, 0, 0}};
    EXPECT_EQ(clientsJson(clients),
              "{\"schema\":\"vxbrdctl/1\",\"clients\":[{\"client\":\"a\\\"b\\\\c\\u000a\","
              "\"peer\":\"192.0.2.2\",\"associated_vlan\":null,\"gre_key\":null,"
              "\"mapped_vlan\":null,\"bytes_in\":18446744073709551615,\"bytes_out\":0,"
              "\"packets_in\":0,\"packets_out\":0}]}\n");
}

const char* const kHeader =
    "# HELP vxbrd_peers Tunnel peers (access point address and VLAN) known.\n"
    "# TYPE vxbrd_peers gauge\n";

TEST(VxbrdctlMetrics, CountsAndPerClientCounters) {
    EXPECT_EQ(metrics(kPeers, kClients),
              std::string(kHeader) +
                  "vxbrd_peers 2\n"
                  "# HELP vxbrd_clients Client devices (MAC address and VLAN) known.\n"
                  "# TYPE vxbrd_clients gauge\n"
                  "vxbrd_clients 3\n"
                  "# HELP vxbrd_client_receive_bytes_total Bytes of frames received from the "
                  "tunnel for the client (bytes in).\n"
                  "# TYPE vxbrd_client_receive_bytes_total counter\n"
                  "vxbrd_client_receive_bytes_total{mac=\"02:00:00:00:00:01\",peer=\"192.0.2.2\","
                  "vlan=\"0\"} 60\n"
                  "vxbrd_client_receive_bytes_total{mac=\"02:00:00:00:00:02\",peer=\"2001:db8::2\","
                  "vlan=\"20\"} 1500\n"
                  "vxbrd_client_receive_bytes_total{mac=\"02:00:00:00:00:03\",peer=\"unknown\","
                  "vlan=\"30\"} 64\n"
                  "# HELP vxbrd_client_transmit_bytes_total Bytes of frames sent towards the "
                  "client (bytes out).\n"
                  "# TYPE vxbrd_client_transmit_bytes_total counter\n"
                  "vxbrd_client_transmit_bytes_total{mac=\"02:00:00:00:00:01\",peer=\"192.0.2.2\","
                  "vlan=\"0\"} 120\n"
                  "vxbrd_client_transmit_bytes_total{mac=\"02:00:00:00:00:02\","
                  "peer=\"2001:db8::2\",vlan=\"20\"} 0\n"
                  "vxbrd_client_transmit_bytes_total{mac=\"02:00:00:00:00:03\",peer=\"unknown\","
                  "vlan=\"30\"} 64\n"
                  "# HELP vxbrd_client_receive_packets_total Frames received from the tunnel "
                  "for the client (packets in).\n"
                  "# TYPE vxbrd_client_receive_packets_total counter\n"
                  "vxbrd_client_receive_packets_total{mac=\"02:00:00:00:00:01\","
                  "peer=\"192.0.2.2\",vlan=\"0\"} 1\n"
                  "vxbrd_client_receive_packets_total{mac=\"02:00:00:00:00:02\","
                  "peer=\"2001:db8::2\",vlan=\"20\"} 3\n"
                  "vxbrd_client_receive_packets_total{mac=\"02:00:00:00:00:03\","
                  "peer=\"unknown\",vlan=\"30\"} 1\n"
                  "# HELP vxbrd_client_transmit_packets_total Frames sent towards the client "
                  "(packets out).\n"
                  "# TYPE vxbrd_client_transmit_packets_total counter\n"
                  "vxbrd_client_transmit_packets_total{mac=\"02:00:00:00:00:01\","
                  "peer=\"192.0.2.2\",vlan=\"0\"} 2\n"
                  "vxbrd_client_transmit_packets_total{mac=\"02:00:00:00:00:02\","
                  "peer=\"2001:db8::2\",vlan=\"20\"} 0\n"
                  "vxbrd_client_transmit_packets_total{mac=\"02:00:00:00:00:03\","
                  "peer=\"unknown\",vlan=\"30\"} 1\n");
}

TEST(VxbrdctlMetrics, NoClientsStillDeclaresEveryFamily) {
    const std::string text = metrics({}, {});
    EXPECT_EQ(text, std::string(kHeader) +
                        "vxbrd_peers 0\n"
                        "# HELP vxbrd_clients Client devices (MAC address and VLAN) known.\n"
                        "# TYPE vxbrd_clients gauge\n"
                        "vxbrd_clients 0\n"
                        "# HELP vxbrd_client_receive_bytes_total Bytes of frames received from the "
                        "tunnel for the client (bytes in).\n"
                        "# TYPE vxbrd_client_receive_bytes_total counter\n"
                        "# HELP vxbrd_client_transmit_bytes_total Bytes of frames sent towards the "
                        "client (bytes out).\n"
                        "# TYPE vxbrd_client_transmit_bytes_total counter\n"
                        "# HELP vxbrd_client_receive_packets_total Frames received from the tunnel "
                        "for the client (packets in).\n"
                        "# TYPE vxbrd_client_receive_packets_total counter\n"
                        "# HELP vxbrd_client_transmit_packets_total Frames sent towards the client "
                        "(packets out).\n"
                        "# TYPE vxbrd_client_transmit_packets_total counter\n");
}

TEST(VxbrdctlMetrics, ClientsWithTheSameLabelsAreAddedUp) {
    // The same MAC served on VLAN 20 once through its tag and once through
    // its key: two records for the daemon, one series for the scraper.
    const std::vector<Client> clients = {
        {"02:00:00:00:00:05", "192.0.2.2", 20, std::nullopt, std::nullopt, 100, 10, 2, 1},
        {"02:00:00:00:00:05", "192.0.2.2", std::nullopt, 20, 20, 50, 5, 1, 1},
    };
    const std::string text = metrics({{"192.0.2.2", 20}}, clients);
    EXPECT_NE(text.find("vxbrd_clients 2\n"), std::string::npos);
    EXPECT_NE(text.find("vxbrd_client_receive_bytes_total{mac=\"02:00:00:00:00:05\","
                        "peer=\"192.0.2.2\",vlan=\"20\"} 150\n"
                        "# HELP vxbrd_client_transmit_bytes_total"),
              std::string::npos);
    EXPECT_NE(text.find("vxbrd_client_transmit_bytes_total{mac=\"02:00:00:00:00:05\","
                        "peer=\"192.0.2.2\",vlan=\"20\"} 15\n"),
              std::string::npos);
    EXPECT_NE(text.find("vxbrd_client_receive_packets_total{mac=\"02:00:00:00:00:05\","
                        "peer=\"192.0.2.2\",vlan=\"20\"} 3\n"),
              std::string::npos);
    EXPECT_NE(text.find("vxbrd_client_transmit_packets_total{mac=\"02:00:00:00:00:05\","
                        "peer=\"192.0.2.2\",vlan=\"20\"} 2\n"),
              std::string::npos);
}

TEST(VxbrdctlMetrics, EscapesLabelValues) {
    const std::vector<Client> clients = {
        {"a\"b", "c\\d\ne", std::nullopt, std::nullopt, std::nullopt, 1, 2, 3, 4}};
    EXPECT_NE(metrics({}, clients)
                  .find("vxbrd_client_receive_bytes_total{mac=\"a\\\"b\",peer=\"c\\\\d\\ne\","
                        "vlan=\"0\"} 1\n"),
              std::string::npos);
}

}  // namespace
}  // namespace lumora::ctl
