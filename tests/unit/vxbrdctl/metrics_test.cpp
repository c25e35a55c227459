// vxbrdctl's metrics, byte for byte: up and build, totals per peer and per
// VLAN by default, per-client series only when asked for.
#include <gtest/gtest.h>

#include "vxbrdctl/Output.h"

namespace lumora::ctl {
namespace {

const std::vector<Peer> kPeers = {{"192.0.2.2", 0}, {"192.0.2.2", 20}, {"2001:db8::2", 30}};

const std::vector<Client> kClients = {
    {"02:00:00:00:00:01", "192.0.2.2", std::nullopt, std::nullopt, std::nullopt, 60, 120, 1, 2},
    {"02:00:00:00:00:02", "192.0.2.2", 20, 7, std::nullopt, 1500, 0, 3, 0},
    {"02:00:00:00:00:03", "192.0.2.2", 20, std::nullopt, std::nullopt, 40, 0, 1, 0},
    {"02:00:00:00:00:04", "2001:db8::2", std::nullopt, 30, 30, 64, 64, 1, 1},
    {"02:00:00:00:00:05", std::nullopt, 20, std::nullopt, std::nullopt, 10, 0, 1, 0},
};

const MetricsOptions kTotals{false, "1.35"};

const char* const kUp =
    "# HELP vxbrd_up Whether vxbrd answered on its control socket (1) or not (0).\n"
    "# TYPE vxbrd_up gauge\n"
    "vxbrd_up 1\n"
    "# HELP vxbrd_build_info The version of the vxbrd tools that wrote these.\n"
    "# TYPE vxbrd_build_info gauge\n"
    "vxbrd_build_info{version=\"1.35\"} 1\n";

std::string family(const char* name, const char* type, const char* help) {
    return std::string("# HELP ") + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
}

TEST(VxbrdctlMetrics, TotalsPerPeerAndPerVlan) {
    const std::string peer_help =
        "the peer's current clients (falls when a client moves to "
        "another peer).";
    EXPECT_EQ(
        metrics(kPeers, kClients, kTotals),
        std::string(kUp) +
            family("vxbrd_peers", "gauge", "Tunnel peers (access point address and VLAN) known.") +
            "vxbrd_peers 3\n" +
            family("vxbrd_clients", "gauge", "Client devices (MAC address and VLAN) known.") +
            "vxbrd_clients 5\n" +
            family("vxbrd_peer_clients", "gauge",
                   "Clients the peer currently serves on its VLAN.") +
            "vxbrd_peer_clients{peer=\"192.0.2.2\",vlan=\"0\"} 1\n"
            "vxbrd_peer_clients{peer=\"192.0.2.2\",vlan=\"20\"} 2\n"
            "vxbrd_peer_clients{peer=\"2001:db8::2\",vlan=\"30\"} 1\n" +
            family("vxbrd_peer_receive_bytes", "gauge",
                   ("Bytes of frames received from the tunnel for " + peer_help).c_str()) +
            "vxbrd_peer_receive_bytes{peer=\"192.0.2.2\",vlan=\"0\"} 60\n"
            "vxbrd_peer_receive_bytes{peer=\"192.0.2.2\",vlan=\"20\"} 1540\n"
            "vxbrd_peer_receive_bytes{peer=\"2001:db8::2\",vlan=\"30\"} 64\n" +
            family("vxbrd_peer_transmit_bytes", "gauge",
                   ("Bytes of frames sent towards " + peer_help).c_str()) +
            "vxbrd_peer_transmit_bytes{peer=\"192.0.2.2\",vlan=\"0\"} 120\n"
            "vxbrd_peer_transmit_bytes{peer=\"192.0.2.2\",vlan=\"20\"} 0\n"
            "vxbrd_peer_transmit_bytes{peer=\"2001:db8::2\",vlan=\"30\"} 64\n" +
            family("vxbrd_peer_receive_packets", "gauge",
                   ("Frames received from the tunnel for " + peer_help).c_str()) +
            "vxbrd_peer_receive_packets{peer=\"192.0.2.2\",vlan=\"0\"} 1\n"
            "vxbrd_peer_receive_packets{peer=\"192.0.2.2\",vlan=\"20\"} 4\n"
            "vxbrd_peer_receive_packets{peer=\"2001:db8::2\",vlan=\"30\"} 1\n" +
            family("vxbrd_peer_transmit_packets", "gauge",
                   ("Frames sent towards " + peer_help).c_str()) +
            "vxbrd_peer_transmit_packets{peer=\"192.0.2.2\",vlan=\"0\"} 2\n"
            "vxbrd_peer_transmit_packets{peer=\"192.0.2.2\",vlan=\"20\"} 0\n"
            "vxbrd_peer_transmit_packets{peer=\"2001:db8::2\",vlan=\"30\"} 1\n" +
            family("vxbrd_vlan_peers", "gauge", "Peers on the VLAN.") +
            "vxbrd_vlan_peers{vlan=\"0\"} 1\n"
            "vxbrd_vlan_peers{vlan=\"20\"} 1\n"
            "vxbrd_vlan_peers{vlan=\"30\"} 1\n" +
            family("vxbrd_vlan_clients", "gauge", "Clients served on the VLAN.") +
            "vxbrd_vlan_clients{vlan=\"0\"} 1\n"
            "vxbrd_vlan_clients{vlan=\"20\"} 3\n"
            "vxbrd_vlan_clients{vlan=\"30\"} 1\n" +
            family("vxbrd_vlan_receive_bytes_total", "counter",
                   "Bytes of frames received from the tunnel for the VLAN's clients.") +
            "vxbrd_vlan_receive_bytes_total{vlan=\"0\"} 60\n"
            "vxbrd_vlan_receive_bytes_total{vlan=\"20\"} 1550\n"
            "vxbrd_vlan_receive_bytes_total{vlan=\"30\"} 64\n" +
            family("vxbrd_vlan_transmit_bytes_total", "counter",
                   "Bytes of frames sent towards the VLAN's clients.") +
            "vxbrd_vlan_transmit_bytes_total{vlan=\"0\"} 120\n"
            "vxbrd_vlan_transmit_bytes_total{vlan=\"20\"} 0\n"
            "vxbrd_vlan_transmit_bytes_total{vlan=\"30\"} 64\n" +
            family("vxbrd_vlan_receive_packets_total", "counter",
                   "Frames received from the tunnel for the VLAN's clients.") +
            "vxbrd_vlan_receive_packets_total{vlan=\"0\"} 1\n"
            "vxbrd_vlan_receive_packets_total{vlan=\"20\"} 5\n"
            "vxbrd_vlan_receive_packets_total{vlan=\"30\"} 1\n" +
            family("vxbrd_vlan_transmit_packets_total", "counter",
                   "Frames sent towards the VLAN's clients.") +
            "vxbrd_vlan_transmit_packets_total{vlan=\"0\"} 2\n"
            "vxbrd_vlan_transmit_packets_total{vlan=\"20\"} 0\n"
            "vxbrd_vlan_transmit_packets_total{vlan=\"30\"} 1\n");
}

TEST(VxbrdctlMetrics, PerClientSeriesOnlyWhenAskedFor) {
    const std::string totals = metrics(kPeers, kClients, kTotals);
    EXPECT_EQ(totals.find("vxbrd_client_"), std::string::npos);
    const std::string all = metrics(kPeers, kClients, {true, "1.35"});
    ASSERT_EQ(all.compare(0, totals.size(), totals), 0);
    const std::string clients = all.substr(totals.size());
    EXPECT_EQ(clients.substr(0, clients.find("# HELP vxbrd_client_transmit_bytes_total")),
              family("vxbrd_client_receive_bytes_total", "counter",
                     "Bytes of frames received from the tunnel for the client.") +
                  "vxbrd_client_receive_bytes_total{mac=\"02:00:00:00:00:01\",peer=\"192.0.2.2\","
                  "vlan=\"0\"} 60\n"
                  "vxbrd_client_receive_bytes_total{mac=\"02:00:00:00:00:02\",peer=\"192.0.2.2\","
                  "vlan=\"20\"} 1500\n"
                  "vxbrd_client_receive_bytes_total{mac=\"02:00:00:00:00:03\",peer=\"192.0.2.2\","
                  "vlan=\"20\"} 40\n"
                  "vxbrd_client_receive_bytes_total{mac=\"02:00:00:00:00:04\",peer=\"2001:db8::2\","
                  "vlan=\"30\"} 64\n"
                  "vxbrd_client_receive_bytes_total{mac=\"02:00:00:00:00:05\",peer=\"unknown\","
                  "vlan=\"20\"} 10\n");
    EXPECT_NE(clients.find("vxbrd_client_transmit_packets_total{mac=\"02:00:00:00:00:04\","
                           "peer=\"2001:db8::2\",vlan=\"30\"} 1\n"),
              std::string::npos);
}

TEST(VxbrdctlMetrics, NoPeersOrClientsStillDeclaresEveryFamily) {
    const std::string text = metrics({}, {}, kTotals);
    EXPECT_NE(text.find("vxbrd_peers 0\n"), std::string::npos);
    EXPECT_NE(text.find("vxbrd_clients 0\n"), std::string::npos);
    EXPECT_NE(text.find(family("vxbrd_vlan_clients", "gauge", "Clients served on the VLAN.") +
                        family("vxbrd_vlan_receive_bytes_total", "counter",
                               "Bytes of frames received from the tunnel for the VLAN's "
                               "clients.")),
              std::string::npos);
}

TEST(VxbrdctlMetrics, ClientsWithTheSameLabelsAreAddedUp) {
    // The same MAC served on VLAN 20 once through its tag and once through
    // its key: two records for the daemon, one series for the scraper.
    const std::vector<Client> clients = {
        {"02:00:00:00:00:05", "192.0.2.2", 20, std::nullopt, std::nullopt, 100, 10, 2, 1},
        {"02:00:00:00:00:05", "192.0.2.2", std::nullopt, 20, 20, 50, 5, 1, 1},
    };
    const std::string text = metrics({{"192.0.2.2", 20}}, clients, {true, "1.35"});
    EXPECT_NE(text.find("vxbrd_peer_clients{peer=\"192.0.2.2\",vlan=\"20\"} 2\n"),
              std::string::npos);
    EXPECT_NE(text.find("vxbrd_client_receive_bytes_total{mac=\"02:00:00:00:00:05\","
                        "peer=\"192.0.2.2\",vlan=\"20\"} 150\n"
                        "# HELP vxbrd_client_transmit_bytes_total"),
              std::string::npos);
    EXPECT_NE(text.find("vxbrd_client_transmit_packets_total{mac=\"02:00:00:00:00:05\","
                        "peer=\"192.0.2.2\",vlan=\"20\"} 2\n"),
              std::string::npos);
}

TEST(VxbrdctlMetrics, EscapesLabelValues) {
    const std::vector<Client> clients = {
        {"a\"b", "c\\d\ne", std::nullopt, std::nullopt, std::nullopt, 1, 2, 3, 4}};
    const std::string text = metrics({}, clients, {true, "x\"y"});
    EXPECT_NE(text.find("vxbrd_client_receive_bytes_total{mac=\"a\\\"b\",peer=\"c\\\\d\\ne\","
                        "vlan=\"0\"} 1\n"),
              std::string::npos);
    EXPECT_NE(text.find("vxbrd_peer_clients{peer=\"c\\\\d\\ne\",vlan=\"0\"} 1\n"),
              std::string::npos);
    EXPECT_NE(text.find("vxbrd_build_info{version=\"x\\\"y\"} 1\n"), std::string::npos);
}

TEST(VxbrdctlMetrics, ADaemonThatDoesNotAnswerIsDown) {
    EXPECT_EQ(metricsDown("/var/run/vxbrd.sock: no such socket (is vxbrd running?)", kTotals),
              "# vxbrd did not answer: /var/run/vxbrd.sock: no such socket (is vxbrd running?)\n"
              "# HELP vxbrd_up Whether vxbrd answered on its control socket (1) or not (0).\n"
              "# TYPE vxbrd_up gauge\n"
              "vxbrd_up 0\n"
              "# HELP vxbrd_build_info The version of the vxbrd tools that wrote these.\n"
              "# TYPE vxbrd_build_info gauge\n"
              "vxbrd_build_info{version=\"1.35\"} 1\n");
}

}  // namespace
}  // namespace lumora::ctl
