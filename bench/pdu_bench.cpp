// Per-frame cost of the packet model on a typical TCP/IPv4 SYN as a tap read
// leaves it (64 bytes of headroom in a 4096-byte buffer): making the views
// Ethernet -> IPv4 -> TCP, and one MSS clamp.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "pdu/ClampMSS.h"
#include "pdu/Views.h"

namespace {

using namespace lumora::pdu;

constexpr uint16_t kHeadroom = 64;
constexpr uint8_t kSyn[] = {
    0x02, 0x00, 0x00, 0x00, 0x00, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01, 0x08, 0x00,  // Ethernet
    0x45, 0x00, 0x00, 0x2c, 0x12, 0x34, 0x40, 0x00, 0x40, 0x06, 0x3c, 0x61,              // IPv4
    0xc0, 0x00, 0x02, 0x01, 0xc6, 0x33, 0x64, 0x02,                                      //
    0xc0, 0x00, 0x00, 0x50, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,              // TCP
    0x60, 0x02, 0xff, 0xff, 0xab, 0xcd, 0x00, 0x00, 0x02, 0x04, 0x05, 0xb4,              // MSS 1460
};
constexpr size_t kMssValue = kHeadroom + 14 + 20 + 22;  // value bytes of the MSS option

struct TapFrame {
    std::array<uint8_t, 4096> buffer{};
    PDU pdu;
    TapFrame() {
        std::memcpy(buffer.data() + kHeadroom, kSyn, sizeof kSyn);
        pdu._buf = buffer.data();
        pdu._cap = 4096;
        pdu._begin = kHeadroom;
        pdu._end = static_cast<uint16_t>(kHeadroom + sizeof kSyn);
    }
};

void BM_MakeViews(benchmark::State& state) {
    TapFrame frame;
    for (auto _ : state) {
        PDU p = frame.pdu;
        benchmark::DoNotOptimize(p);
        const EthernetPDU eth = EthernetPDU::at(p, p._begin);
        if (eth.ethertype() != kEthertypeIPv4) state.SkipWithError("not IPv4");
        const IPv4PDU ip = IPv4PDU::at(eth, eth.innerBegin());
        if (ip.protocol() != kProtocolTcp || ip.fragmentOffset() != 0)
            state.SkipWithError("not TCP");
        const TcpPDU tcp = TcpPDU::at(ip, ip.innerBegin());
        benchmark::DoNotOptimize(tcp);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MakeViews);

void BM_ClampMSS(benchmark::State& state) {
    TapFrame frame;
    const EthernetPDU eth = EthernetPDU::at(frame.pdu, frame.pdu._begin);
    const IPv4PDU ip = IPv4PDU::at(eth, eth.innerBegin());
    const TcpPDU tcp = TcpPDU::at(ip, ip.innerBegin());
    for (auto _ : state) {
        // The clamp rewrote the option last time round: back to 1460.
        frame.buffer[kMssValue] = 0x05;
        frame.buffer[kMssValue + 1] = 0xb4;
        benchmark::ClobberMemory();
        const bool clamped = clampMSS(tcp, 1380);
        benchmark::DoNotOptimize(clamped);
    }
    if (frame.buffer[kMssValue + 1] != 0x64) state.SkipWithError("MSS not clamped");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ClampMSS);

// Both together, as the egress path does them for a SYN.
void BM_ViewsAndClamp(benchmark::State& state) {
    TapFrame frame;
    for (auto _ : state) {
        frame.buffer[kMssValue] = 0x05;
        frame.buffer[kMssValue + 1] = 0xb4;
        PDU p = frame.pdu;
        benchmark::DoNotOptimize(p);
        const EthernetPDU eth = EthernetPDU::at(p, p._begin);
        const IPv4PDU ip = IPv4PDU::at(eth, eth.innerBegin());
        const TcpPDU tcp = TcpPDU::at(ip, ip.innerBegin());
        const bool clamped = tcp.syn() && clampMSS(tcp, 1380);
        benchmark::DoNotOptimize(clamped);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ViewsAndClamp);

}  // namespace

BENCHMARK_MAIN();
