// What a crowd of clients behind one peer costs the per-packet paths: a new
// client learned behind the peer, a client moving between it and another
// peer, a known client's packet and a flooded frame, each measured behind a
// peer with 10 clients and behind one with 100,000 (as a flood of spoofed
// source addresses from one access point leaves it).
//
// None of these may grow with the crowd. After the runs the program prints
// each operation's CPU time at both sizes and their ratio, and exits 1 when
// the larger crowd costs more than twice the smaller one's time.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/Logger.h"
#include "tunnel/Egress.h"
#include "tunnel/Learning.h"
#include "tunnel/Tables.h"
#include "vif/TAP"

namespace {

using namespace lumora;

constexpr int kSmallCrowd = 10;
constexpr int kLargeCrowd = 100000;

// A GRE socket that drops what it is given: the flood's copies end here.
class DiscardSocket : public vif::GreSocket {
  public:
    const char* name() const override { return "discard"; }
    long mtu() const override { return 1480; }
    void sendTo(pdu::PDU, uint32_t, in_addr, const in6_addr&) override {}
    const std::string& interfaceName() const override { return interface; }
    uint32_t family() const override { return AF_INET; }
    in_addr localIPv4() const override { return {}; }
    const in6_addr& localIPv6() const override { return local6; }

  private:
    std::string interface = "eth0";
    in6_addr local6{};
};

// The tap a flooded frame is read from; nothing is ever written to it.
class QuietTap : public Endpoint {
  public:
    const char* name() const override { return "tap20"; }
    void setMtu(long) override {}
    long mtu() const override { return 1500; }
    pdu::PDU read() override { throw ReadError{}; }
    IReadWriter& write(pdu::PDU) override { return *this; }
};

Logger& quietLogger() {
    static Logger logger;  // syslog mode, but below the threshold: never emits
    logger.level = Error;
    return logger;
}

// Client n's source MAC (locally administered).
void clientMac(uint32_t n, uint8_t (&mac)[6]) {
    mac[0] = 0x02;
    mac[1] = 0x00;
    mac[2] = static_cast<uint8_t>(n >> 24);
    mac[3] = static_cast<uint8_t>(n >> 16);
    mac[4] = static_cast<uint8_t>(n >> 8);
    mac[5] = static_cast<uint8_t>(n);
}

// The tables of one crowd size: the crowded access point with its untagged,
// unkeyed clients, and a quiet one with a single tagged, keyed client, both
// on VLAN 20; and what the egress path needs to flood a broadcast there.
struct Scene {
    explicit Scene(int crowd) {
        context.logger = &quietLogger();
        context.config = &config;
        context.tables = &tables;
        context.interfaces = &interfaces;
        context.parents = &parents;
        uint8_t mac[6];
        for (next = 0; next < static_cast<uint32_t>(crowd); ++next) {
            clientMac(next, mac);
            learn(tables, &quietLogger(), sighting(mac, false));
        }
        clientMac(next++, mac);
        learn(tables, &quietLogger(), sighting(mac, true));

        const uint8_t frame[] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0x00, 0x5e, 0x00, 0x00,
                                 0x01, 0x08, 0x06, 0x00, 0x01, 0x08, 0x00, 0x06, 0x04, 0x00, 0x01,
                                 0x02, 0x00, 0x5e, 0x00, 0x00, 0x01, 0xc0, 0x00, 0x02, 0x01, 0x00,
                                 0x00, 0x00, 0x00, 0x00, 0x00, 0xc0, 0x00, 0x02, 0x0a};
        std::copy(std::begin(frame), std::end(frame), slot.begin() + vif::TAP::kHeadroom);
        broadcast = pdu::PDU{slot.data(),
                             vif::TAP::kBufferSize,
                             vif::TAP::kHeadroom,
                             static_cast<uint16_t>(vif::TAP::kHeadroom + sizeof frame),
                             {0, 0}};
    }

    // A packet of mac from the crowded access point, or from the quiet one.
    Sighting sighting(const uint8_t* mac, bool quiet) {
        Sighting s;
        s.family = AF_INET;
        s.ipv4.s_addr = htonl(quiet ? 0xc6336408u : 0xc6336407u);  // 198.51.100.8 / .7
        s.endpoint = &socket;
        s.policyVlan = 20;
        s.tagVlan = quiet ? 20 : 0;
        s.hasKey = quiet;
        s.key = quiet ? 30 : 0;
        s.mac = mac;
        s.frameLength = 590;
        return s;
    }

    PeerRecord* crowdedPeer() {
        return tables.findPeer(peerIdOf(AF_INET, sighting(nullptr, false).ipv4, in6_addr{}, 20));
    }

    Config config;
    Tables tables;
    std::map<std::string, MacAddress> interfaces;
    std::map<std::string, std::string> parents;
    TunnelContext context;
    DiscardSocket socket;
    QuietTap tap;
    std::unique_ptr<EgressBatch> batch = std::make_unique<EgressBatch>();
    std::vector<uint8_t> slot = std::vector<uint8_t>(vif::TAP::kBufferSize, 0);
    pdu::PDU broadcast;
    uint32_t next = 0;  // the next unused client number
};

Scene& sceneOf(int crowd) {
    static std::map<int, std::unique_ptr<Scene>> scenes;
    auto& scene = scenes[crowd];
    if (!scene) scene = std::make_unique<Scene>(crowd);
    return *scene;
}

// A new client learned behind the crowded peer, then taken off it again so
// that the crowd keeps its size: the figure is one join and one leave.
void BM_LearnNewClient(benchmark::State& state) {
    Scene& scene = sceneOf(static_cast<int>(state.range(0)));
    uint8_t mac[6];
    for (auto _ : state) {
        clientMac(scene.next++, mac);
        ClientRecord* client = learn(scene.tables, &quietLogger(), scene.sighting(mac, false));
        client->detachClient();
    }
}

// A known client's packet from its own peer, the ingress per-packet case.
void BM_LearnKnownClient(benchmark::State& state) {
    Scene& scene = sceneOf(static_cast<int>(state.range(0)));
    uint8_t mac[6];
    clientMac(static_cast<uint32_t>(state.range(0) / 2), mac);
    const Sighting s = scene.sighting(mac, false);
    for (auto _ : state) benchmark::DoNotOptimize(learn(scene.tables, &quietLogger(), s));
}

// A client roaming: each packet comes from the other access point.
void BM_MoveClient(benchmark::State& state) {
    Scene& scene = sceneOf(static_cast<int>(state.range(0)));
    uint8_t mac[6];
    clientMac(static_cast<uint32_t>(state.range(0) / 2), mac);
    const Sighting there = scene.sighting(mac, true);
    const Sighting back = scene.sighting(mac, false);
    bool away = false;
    for (auto _ : state) {
        benchmark::DoNotOptimize(learn(scene.tables, &quietLogger(), away ? back : there));
        away = !away;
    }
}

// The worst move: the crowded peer's first client leaves, so the peer makes
// its pairs again; it comes back at the end of the list.
void BM_MoveFirstListedClient(benchmark::State& state) {
    Scene& scene = sceneOf(static_cast<int>(state.range(0)));
    PeerRecord* crowded = scene.crowdedPeer();
    for (auto _ : state) {
        const ClientRecord* first = nullptr;
        {
            std::lock_guard guard(crowded->mutex);
            first = *crowded->clients.begin();
        }
        learn(scene.tables, &quietLogger(), scene.sighting(first->mac, true));
        learn(scene.tables, &quietLogger(), scene.sighting(first->mac, false));
    }
}

// A broadcast from the host flooded to every peer of its VLAN: one copy to
// each of the two peers' pairs.
void BM_Flood(benchmark::State& state) {
    Scene& scene = sceneOf(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        handleTapFrame(scene.context, scene.tap, 20, scene.broadcast, *scene.batch);
        scene.batch->sends.flush();
    }
}

#define CROWD_BENCHMARK(name) \
    BENCHMARK(name)->Arg(kSmallCrowd)->Arg(kLargeCrowd)->Repetitions(3)->MinTime(0.2)
CROWD_BENCHMARK(BM_LearnNewClient);
CROWD_BENCHMARK(BM_LearnKnownClient);
CROWD_BENCHMARK(BM_MoveClient);
CROWD_BENCHMARK(BM_MoveFirstListedClient);
CROWD_BENCHMARK(BM_Flood);

// Shows each run, and keeps each operation's best CPU time per crowd size.
class CrowdReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        std::vector<Run> shown;
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
            shown.push_back(run);
            auto& [small, large] = best[run.run_name.function_name];
            double& time = run.run_name.args == std::to_string(kSmallCrowd) ? small : large;
            const double ns = run.GetAdjustedCPUTime();
            if (time == 0 || ns < time) time = ns;
        }
        if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
    }

    // Prints the table of ratios; false when one exceeds 2.
    bool summarise() const {
        bool within = true;
        std::printf("\n%-28s %14s %14s %8s\n", "operation (best CPU time)", "10 clients",
                    "100000 clients", "ratio");
        for (const auto& [name, times] : best) {
            const double ratio = times.first > 0 ? times.second / times.first : 0;
            std::printf("%-28s %11.1f ns %11.1f ns %8.2f\n", name.c_str(), times.first,
                        times.second, ratio);
            if (!(ratio > 0 && ratio <= 2.0)) within = false;
        }
        std::printf("%s\n", within ? "every operation within 2x" : "SOME OPERATION BEYOND 2x");
        return within;
    }

  private:
    std::map<std::string, std::pair<double, double>> best;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    CrowdReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return reporter.summarise() ? 0 : 1;
}
