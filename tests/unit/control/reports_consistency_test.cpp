// Reports taken while the ingress side keeps learning and counting: every
// client's two counter lines agree with each other, and the tables are only
// read (the reports leave them as they were).
#include <gtest/gtest.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <thread>

#include "control/Reports.h"
#include "reports_support.h"

namespace lumora {
namespace {

using test::learnPacket;

// Each "  bytes in" line and the "  packets in" line after it.
void expectConsistent(const std::string& report, uint64_t in_size, uint64_t out_size) {
    size_t at = 0;
    while ((at = report.find("  bytes in: ", at)) != std::string::npos) {
        uint64_t bytes_in = 0, bytes_out = 0, packets_in = 0, packets_out = 0;
        ASSERT_EQ(std::sscanf(report.c_str() + at,
                              "  bytes in: %" SCNu64 ", bytes out: %" SCNu64
                              "\n  packets in: %" SCNu64 ", packets out: %" SCNu64,
                              &bytes_in, &bytes_out, &packets_in, &packets_out),
                  4)
            << report.substr(at, 80);
        ASSERT_EQ(bytes_in, in_size * packets_in);
        ASSERT_EQ(bytes_out, out_size * packets_out);
        ++at;
    }
}

TEST(ReportsWhileLearning, CountersOfOneClientAgree) {
    Tables tables;
    const test::Mac busy = {0x02, 0, 0, 0, 0, 1};
    ClientRecord* client = learnPacket(tables, {"192.0.2.10", busy, 0, 0, false, 0, 60});
    client->addTraffic(0, 1500, 0, 1);

    std::atomic<bool> finished{false};
    std::thread ingress([&] {
        uint8_t n = 0;
        for (int i = 0; i < 100000; ++i) {
            learnPacket(tables, {"192.0.2.10", busy, 0, 0, false, 0, 60});
            client->addTraffic(0, 1500, 0, 1);
            if (i % 1000 == 0) {
                // New clients and peers while reports are being taken.
                ++n;
                learnPacket(tables, {"198.51.100.1", {0x02, 0, 0, 1, 0, n}, n, n, false, 0, 60});
            }
        }
        finished = true;
    });
    // Reports for as long as the ingress side runs (and at least a few).
    int reports = 0;
    while (!HasFatalFailure() && (!finished.load() || reports < 20)) {
        expectConsistent(clientsReport(tables), 60, 1500);
        EXPECT_NE(peersReport(tables).find("peer: 192.0.2.10, vlan: 0\n"), std::string::npos);
        ++reports;
    }
    ingress.join();
    ASSERT_FALSE(HasFatalFailure());
    const Traffic total = client->readTraffic();
    EXPECT_EQ(total.packetsIn, 100001u);
    EXPECT_EQ(total.packetsOut, 100001u);

    // The reports themselves change nothing.
    const Traffic before = client->readTraffic();
    const size_t clients = tables.clientCount();
    const size_t peers = tables.peerCount();
    clientsReport(tables);
    peersReport(tables);
    const Traffic after = client->readTraffic();
    EXPECT_EQ(after.bytesIn, before.bytesIn);
    EXPECT_EQ(after.packetsOut, before.packetsOut);
    EXPECT_EQ(tables.clientCount(), clients);
    EXPECT_EQ(tables.peerCount(), peers);
}

}  // namespace
}  // namespace lumora
