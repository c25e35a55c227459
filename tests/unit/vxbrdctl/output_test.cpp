// vxbrdctl's tables and JSON, byte for byte (metrics in metrics_test.cpp).
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
              "MAC                PEER         VLAN  TAG  KEY  MAPPED  BYTES-IN  BYTES-OUT  "
              "PKTS-IN  PKTS-OUT\n"
              "02:00:00:00:00:01  192.0.2.2       0    -    -       -        60        120  "
              "      1         2\n"
              "02:00:00:00:00:02  2001:db8::2    20   20    7       -      1500          0  "
              "      3         0\n"
              "02:00:00:00:00:03  unknown        30    -   30      30        64         64  "
              "      1         1\n");
}

TEST(VxbrdctlTable, NoClientsLeavesTheTitleLine) {
    EXPECT_EQ(clientsTable({}),
              "MAC  PEER  VLAN  TAG  KEY  MAPPED  BYTES-IN  BYTES-OUT  PKTS-IN  PKTS-OUT\n");
}

TEST(VxbrdctlJson, PeersCarryTheSchemaAndEveryField) {
    EXPECT_EQ(peersJson(kPeers),
              "{\"schema\":\"vxbrdctl/1\",\"peers\":[{\"peer\":\"192.0.2.2\",\"vlan\":20},"
              "{\"peer\":\"2001:db8::2\",\"vlan\":0}]}\n");
    EXPECT_EQ(peersJson({}), "{\"schema\":\"vxbrdctl/1\",\"peers\":[]}\n");
}

TEST(VxbrdctlJson, ClientsUseNullForMissingLinesAndTheUnknownPeer) {
    EXPECT_EQ(
        clientsJson(kClients),
        "{\"schema\":\"vxbrdctl/1\",\"clients\":["
        "{\"client\":\"02:00:00:00:00:01\",\"peer\":\"192.0.2.2\",\"vlan\":0,\"associated_vlan\":"
        "null,"
        "\"gre_key\":null,\"mapped_vlan\":null,\"bytes_in\":60,\"bytes_out\":120,"
        "\"packets_in\":1,\"packets_out\":2},"
        "{\"client\":\"02:00:00:00:00:02\",\"peer\":\"2001:db8::2\",\"vlan\":20,\"associated_"
        "vlan\":20,"
        "\"gre_key\":7,\"mapped_vlan\":null,\"bytes_in\":1500,\"bytes_out\":0,"
        "\"packets_in\":3,\"packets_out\":0},"
        "{\"client\":\"02:00:00:00:00:03\",\"peer\":null,\"vlan\":30,\"associated_vlan\":null,"
        "\"gre_key\":30,\"mapped_vlan\":30,\"bytes_in\":64,\"bytes_out\":64,"
        "\"packets_in\":1,\"packets_out\":1}]}\n");
    EXPECT_EQ(clientsJson({}), "{\"schema\":\"vxbrdctl/1\",\"clients\":[]}\n");
}

TEST(VxbrdctlJson, KeepsFullSixtyFourBitCountersAndEscapesStrings) {
    const std::vector<Client> clients = {{"a\"b\\c\n", "192.0.2.2", std::nullopt, std::nullopt,
                                          std::nullopt, 18446744073709551615u, 0, 0, 0}};
    EXPECT_EQ(clientsJson(clients),
              "{\"schema\":\"vxbrdctl/1\",\"clients\":[{\"client\":\"a\\\"b\\\\c\\u000a\","
              "\"peer\":\"192.0.2.2\",\"vlan\":0,\"associated_vlan\":null,\"gre_key\":null,"
              "\"mapped_vlan\":null,\"bytes_in\":18446744073709551615,\"bytes_out\":0,"
              "\"packets_in\":0,\"packets_out\":0}]}\n");
}

}  // namespace
}  // namespace lumora::ctl
