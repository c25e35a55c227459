// The peer table and client cache: resident memory per learned client, and
// the cost of the per-packet operations that use them.
//
// First prints the memory figure (100,000 clients behind 1,000 peers, from
// VmRSS before and after), then runs the timing benchmarks.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "core/Logger.h"
#include "tunnel/Learning.h"
#include "tunnel/Tables.h"

namespace {

using namespace lumora;

constexpr int kPeers = 1000;
constexpr int kClientsPerPeer = 100;
constexpr uint16_t kVlans[] = {10, 20, 30, 40};

// Resident set size in kB, or -1 where /proc is not mounted.
long residentKilobytes() {
    FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr) return -1;
    char line[256];
    long kb = -1;
    while (std::fgets(line, sizeof line, status) != nullptr) {
        if (std::sscanf(line, "VmRSS: %ld kB", &kb) == 1) break;
    }
    std::fclose(status);
    return kb;
}

// Peer p: one of 250 addresses of 198.51.100.0/24 on one of four VLANs.
Sighting peerSighting(int p, const uint8_t* mac) {
    Sighting s;
    s.family = AF_INET;
    const uint32_t host = 0xc6336400u | static_cast<uint32_t>(p / 4 + 1);  // 198.51.100.x
    s.ipv4.s_addr = htonl(host);
    s.policyVlan = kVlans[p % 4];
    s.tagVlan = s.policyVlan;
    s.hasKey = true;
    s.key = static_cast<uint32_t>(p % 7);
    s.mac = mac;
    s.frameLength = 590;
    return s;
}

void clientMac(int n, uint8_t (&mac)[6]) {
    mac[0] = 0x02;  // locally administered
    mac[1] = 0x00;
    mac[2] = static_cast<uint8_t>(n >> 24);
    mac[3] = static_cast<uint8_t>(n >> 16);
    mac[4] = static_cast<uint8_t>(n >> 8);
    mac[5] = static_cast<uint8_t>(n);
}

// Learns kClientsPerPeer clients behind each of kPeers peers.
void fill(Tables& tables, Logger& logger) {
    for (int c = 0; c < kPeers * kClientsPerPeer; ++c) {
        uint8_t mac[6];
        clientMac(c, mac);
        learn(tables, &logger, peerSighting(c % kPeers, mac));
    }
}

Logger& quietLogger() {
    static Logger logger;  // syslog mode, but below the threshold: never emits
    logger.level = Error;
    return logger;
}

void reportMemory() {
    const long before = residentKilobytes();
    auto* tables = new Tables;  // kept for the life of the process, as the daemon's are
    fill(*tables, quietLogger());
    const long after = residentKilobytes();
    const int clients = kPeers * kClientsPerPeer;
    if (before < 0 || after < 0) {
        std::printf("resident memory: /proc/self/status unavailable\n");
        return;
    }
    std::printf(
        "learned %zu clients behind %zu peers: VmRSS %ld kB -> %ld kB, %.1f bytes per client\n",
        tables->clientCount(), tables->peerCount(), before, after,
        (after - before) * 1024.0 / clients);
    std::fflush(stdout);
}

// One filled table shared by the timing benchmarks.
Tables& filledTables() {
    static Tables* tables = [] {
        auto* t = new Tables;
        fill(*t, quietLogger());
        return t;
    }();
    return *tables;
}

// The ingress per-packet case: a known client on its known peer.
void BM_LearnKnownClient(benchmark::State& state) {
    Tables& tables = filledTables();
    uint8_t mac[6];
    clientMac(12345, mac);
    const Sighting s = peerSighting(12345 % kPeers, mac);
    for (auto _ : state) benchmark::DoNotOptimize(learn(tables, &quietLogger(), s));
}
BENCHMARK(BM_LearnKnownClient);

// A client moving between two peers on every packet (re-association).
void BM_LearnMovingClient(benchmark::State& state) {
    Tables& tables = filledTables();
    uint8_t mac[6];
    clientMac(54321, mac);
    const Sighting a = peerSighting(54321 % kPeers, mac);
    const Sighting b = peerSighting((54321 + 4) % kPeers, mac);  // same VLAN, next address
    bool flip = false;
    for (auto _ : state) {
        benchmark::DoNotOptimize(learn(tables, &quietLogger(), flip ? a : b));
        flip = !flip;
    }
}
BENCHMARK(BM_LearnMovingClient);

// The egress unicast case: lookup, route under the client's lock, count.
void BM_EgressLookup(benchmark::State& state) {
    Tables& tables = filledTables();
    uint8_t mac[6];
    clientMac(777, mac);
    const uint16_t vlan = kVlans[(777 % kPeers) % 4];
    for (auto _ : state) {
        ClientRecord* client = tables.findClient(mac, vlan);
        const ClientRoute route = client->route();
        client->addTraffic(0, 590, 0, 1);
        benchmark::DoNotOptimize(route);
    }
}
BENCHMARK(BM_EgressLookup);

// The flood's copies for one VLAN (250 peers of 100 clients each).
void BM_FloodCopies(benchmark::State& state) {
    Tables& tables = filledTables();
    for (auto _ : state) benchmark::DoNotOptimize(tables.floodCopies(20));
}
BENCHMARK(BM_FloodCopies)->Unit(benchmark::kMicrosecond);

// The clients report's copy of the whole cache.
void BM_ClientSnapshot(benchmark::State& state) {
    Tables& tables = filledTables();
    for (auto _ : state) benchmark::DoNotOptimize(tables.clients());
}
BENCHMARK(BM_ClientSnapshot)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    reportMemory();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
