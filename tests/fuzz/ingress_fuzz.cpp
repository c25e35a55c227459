// Arbitrary GRE datagrams through the ingress path (handleGreDatagram), with
// recording taps and GRE sockets in place of the devices. A datagram may only
// be dropped, delivered, forwarded, relayed, or refused with int 22 (or 55);
// anything else thrown, and any read or write outside the buffer, is a
// finding.
//
// Input: three control bytes, then the datagram, or with byte 2 bit 2 up to
// eight datagrams, each behind its length (two bytes, network order; the
// last cut at the input's end), handled in order as one batch.
//   byte 0  GRE key mode (one of the six, or an unlisted value)
//   byte 1  bit 0: IPv6 sender; bit 1: taps present; bit 2: forward socket
//           present; bit 3: tap MACs known; bits 4-5: which of four senders;
//           bits 6-7: outer IPv4 header length (20, 24, 40 or 60 bytes)
//   byte 2  bit 0: "mtu 1280" set; bit 1: "mss 536" instead of 1380;
//           bit 2: several datagrams; bit 3: the taps take merged TCP
//           frames (offloads), checked as merging_tap.h says; bit 4: the
//           TCP checksum of each inner IPv4 or IPv6 TCP segment is made
//           right first, so that mutated segments still qualify for merging
// Each datagram sits in a buffer that ends where it ends, behind the outer
// IPv4 header as the IPv4 endpoint delivers it (or at offset 0, as the IPv6
// endpoint does), so any read past it is an AddressSanitizer report.
//
// Each fresh set of tables knows two relay targets, so that a relay reply
// finds peers and clients from the first input on: 192.0.2.50 with client
// 02:00:5e:00:00:0a untagged and client 02:00:5e:00:00:0b on VLAN 20 with
// key 9, and 2001:db8::50 with client 02:00:5e:00:00:0c on VLAN 20. The
// tables persist across inputs, so that later datagrams meet the peers and
// clients earlier ones taught; they are replaced by a fresh instance every
// kTableLife inputs to keep memory bounded.
//
// Datagrams up to the largest an endpoint delivers (run with
// -max_len=65535), so that frames forwarded upstream are copied whole and
// frames relayed above the tunnel's size limit are fragmented
// (nextFragment); the seeds include both.
//
// Skipped: SYN segments whose TCP options hold a zero-length option of
// unknown kind (see clamp_spin.h).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "pdu/Checksum.h"
#include "pdu/PDU.h"
#include "tests/fuzz/clamp_spin.h"
#include "tests/fuzz/merging_tap.h"
#include "tests/unit/tunnel/recording_support.h"
#include "tunnel/Context.h"
#include "tunnel/Ingress.h"
#include "tunnel/Learning.h"

namespace {

using lumora::pdu::load16;
using namespace lumora;

constexpr size_t kControlBytes = 3;
// The largest datagram whose buffer, outer header included, a PDU can span.
constexpr size_t kMaxDatagram = 65535 - 60;
constexpr int kTableLife = 256;
constexpr size_t kMaxBatch = 8;
constexpr uint8_t kModes[] = {Ignore, Reject, Require, VlanMap, PreferKey, PreferVlan, 3};
constexpr uint16_t kTapVlans[] = {0, 2, 20, 30, 40, 100, 4095};
constexpr const char* kSendersV4[] = {"198.51.100.7", "198.51.100.8", "203.0.113.1", "192.0.2.77"};
// The first two share their first eight bytes, and so their peer record.
constexpr const char* kSendersV6[] = {"2001:db8::7", "2001:db8::8", "2001:db8:1::1",
                                      "2001:db8:2::1"};
constexpr uint16_t kOffsets[] = {20, 24, 40, 60};

// Whether the MSS clamp would spin on this datagram's frame, were the frame
// to reach it (ingress clamps SYN segments without ACK).
bool spinsInClamp(const uint8_t* gre, size_t size) {
    if (size < 4) return false;
    size_t header = 4;
    for (uint8_t bit : {0x80, 0x20, 0x10})
        if (gre[0] & bit) header += 4;
    if (size < header + 14) return false;
    const uint8_t* frame = gre + header;
    const size_t length = size - header;
    // The tag comes off first: the frame is viewed as MACs + what follows it.
    size_t type_at = 12;
    if (load16(frame + 12) == 0x8100) {
        if (length < 22) return false;
        type_at = 16;
    }
    return fuzz::clampSpins(frame, length, type_at, false, false);
}

// Makes the TCP checksum of the datagram's inner segment right, over every
// byte behind the TCP header's start (as merging sums it).
void rightTcpChecksum(uint8_t* gre, size_t size) {
    if (size < 4) return;
    size_t header = 4;
    for (uint8_t bit : {0x80, 0x20, 0x10})
        if (gre[0] & bit) header += 4;
    if (size < header + 18) return;
    uint8_t* const frame = gre + header;
    const size_t length = size - header;
    const size_t type_at = load16(frame + 12) == 0x8100 ? 16 : 12;
    uint8_t* const ip = frame + type_at + 2;
    size_t transport = 0;
    bool ipv6 = false;
    if (load16(frame + type_at) == 0x0800 && length >= type_at + 2 + 20 && ip[9] == 6) {
        transport = type_at + 2 + (ip[0] & 0x0f) * 4u;
    } else if (load16(frame + type_at) == 0x86dd && length >= type_at + 2 + 40 && ip[6] == 6) {
        transport = type_at + 2 + 40;
        ipv6 = true;
    }
    if (transport == 0 || transport + 20 > length) return;
    uint8_t* const tcp = frame + transport;
    const auto tcp_length = static_cast<uint32_t>(length - transport);
    tcp[16] = tcp[17] = 0;
    const uint64_t pseudo = ipv6 ? pdu::pseudoHeaderSumIPv6(ip + 8, ip + 24, 6, tcp_length)
                                 : pdu::pseudoHeaderSumIPv4(ip + 12, ip + 16, 6, tcp_length);
    pdu::store16(tcp + 16,
                 static_cast<uint16_t>(~pdu::foldSum(pdu::sumBytes(tcp, tcp_length, pseudo))));
}

struct Harness {
    Harness()
        : receiver_v4("eth0", "192.0.2.1", kSlots, kArena),
          receiver_v6(test::RecordingGreSocket::ipv6("eth1", "2001:db8::1", kSlots, kArena)),
          forward("any", "0.0.0.0", kSlots, kArena) {
        logger.stream = std::fopen("/dev/null", "w");
        if (logger.stream == nullptr) std::abort();
        logger.level = Debug;
        for (uint16_t vid : kTapVlans)
            taps.push_back(std::make_unique<fuzz::MergingTap>("tap" + std::to_string(vid),
                                                              2 * kMaxBatch, 1 << 17));
        config.forward_vlans.set(40);
        config.forward_servers[40] = ForwardServer{test::ipv4Of("203.0.113.1")};
        config.forward_vlans.set(0);
        config.forward_servers[0] = ForwardServer{test::ipv4Of("203.0.113.2")};
        config.gre_key = 5;
        context.logger = &logger;
        context.config = &config;
        context.interfaces = &interfaces;
        context.parents = &parents;
        fresh();
    }

    void see(const char* sender, bool ipv6, uint16_t vlan, int key, uint8_t mac_last) {
        const uint8_t mac[6] = {0x02, 0x00, 0x5e, 0x00, 0x00, mac_last};
        Sighting s;
        s.family = ipv6 ? AF_INET6 : AF_INET;
        if (ipv6) {
            s.ipv6 = test::ipv6Of(sender);
            s.endpoint = &receiver_v6;
        } else {
            s.ipv4 = test::ipv4Of(sender);
            s.endpoint = &receiver_v4;
        }
        s.policyVlan = vlan;
        s.tagVlan = vlan;
        s.hasKey = key >= 0;
        s.key = key >= 0 ? static_cast<uint32_t>(key) : 0;
        s.mac = mac;
        s.frameLength = 60;
        learn(*tables, &logger, s);
    }

    void fresh() {
        tables = std::make_unique<Tables>();
        context.tables = tables.get();
        inputs = 0;
        see("192.0.2.50", false, 0, -1, 0x0a);
        see("192.0.2.50", false, 20, 9, 0x0b);
        see("2001:db8::50", true, 20, -1, 0x0c);
    }

    static constexpr size_t kSlots = 1024;
    static constexpr size_t kArena = 1 << 22;

    Logger logger;
    Config config;
    std::map<std::string, MacAddress> interfaces;
    std::map<std::string, std::string> parents;
    std::unique_ptr<Tables> tables;
    TunnelContext context;
    test::RecordingGreSocket receiver_v4;
    test::RecordingGreSocket receiver_v6;
    test::RecordingGreSocket forward;
    std::vector<std::unique_ptr<fuzz::MergingTap>> taps;
    IngressBatch batch;
    int inputs = 0;
};

Harness& harness() {
    static Harness* h = new Harness;
    return *h;
}

struct Piece {
    const uint8_t* bytes;
    size_t length;
};

// The input's datagrams; none when one is too long or would spin the clamp.
std::vector<Piece> datagramsOf(const uint8_t* data, size_t size) {
    std::vector<Piece> out;
    const uint8_t* at = data + kControlBytes;
    const uint8_t* const end = data + size;
    if ((data[2] & 0x04) == 0) {
        out.push_back(Piece{at, static_cast<size_t>(end - at)});
    } else {
        while (end - at >= 2 && out.size() < kMaxBatch) {
            const size_t wanted = load16(at);
            at += 2;
            const size_t length = std::min<size_t>(wanted, static_cast<size_t>(end - at));
            out.push_back(Piece{at, length});
            at += length;
        }
    }
    for (const Piece& p : out)
        if (p.length > kMaxDatagram || spinsInClamp(p.bytes, p.length)) return {};
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kControlBytes) return 0;
    const std::vector<Piece> datagrams = datagramsOf(data, size);
    if (datagrams.empty()) return 0;

    Harness& h = harness();
    if (++h.inputs > kTableLife) h.fresh();
    const uint8_t choice = data[1];
    const bool from_v6 = (choice & 0x01) != 0;
    const bool with_taps = (choice & 0x02) != 0;
    const bool with_forward = (choice & 0x04) != 0;
    const bool tap_macs = (choice & 0x08) != 0;
    const unsigned sender = (choice >> 4) & 0x03;

    h.config.gre_key_mode = kModes[data[0] % sizeof kModes];
    h.config.mtu = (data[2] & 0x01) != 0 ? 1280 : 0;
    h.config.mss = (data[2] & 0x02) != 0 ? 536 : 1380;
    for (size_t i = 0; i < h.taps.size(); ++i) {
        h.taps[i]->clear();
        h.taps[i]->merging = (data[2] & 0x08) != 0;
        h.context.taps_by_vid[kTapVlans[i]].store(with_taps ? h.taps[i].get() : nullptr);
        if (tap_macs)
            h.interfaces[h.taps[i]->name()] =
                MacAddress{0x02, 0, 0x5e, 0, 0, static_cast<uint8_t>(i)};
        else
            h.interfaces.erase(h.taps[i]->name());
    }
    h.context.forward_socket.store(with_forward ? &h.forward : nullptr);
    h.receiver_v4.clear();
    h.receiver_v6.clear();
    h.forward.clear();

    GreSource source;
    if (from_v6) {
        source.endpoint = &h.receiver_v6;
        source.family = AF_INET6;
        source.ipv6 = test::ipv6Of(kSendersV6[sender]);
    } else {
        source.endpoint = &h.receiver_v4;
        source.family = AF_INET;
        source.ipv4 = test::ipv4Of(kSendersV4[sender]);
    }

    // Each in a buffer of its own, kept until the batch is flushed, as the
    // endpoint's receive slots are.
    const uint16_t offset = from_v6 ? 0 : kOffsets[choice >> 6];
    std::vector<std::unique_ptr<uint8_t[]>> buffers;
    for (const Piece& datagram : datagrams) {
        const size_t total = offset + datagram.length;
        buffers.emplace_back(new uint8_t[total == 0 ? 1 : total]);
        uint8_t* const buffer = buffers.back().get();
        std::memset(buffer, 0x45, offset);
        if (datagram.length > 0) std::memcpy(buffer + offset, datagram.bytes, datagram.length);
        if ((data[2] & 0x10) != 0) rightTcpChecksum(buffer + offset, datagram.length);
        pdu::PDU p;
        p._buf = buffer;
        p._cap = static_cast<uint16_t>(total);
        p._begin = offset;
        p._end = static_cast<uint16_t>(total);
        try {
            handleGreDatagram(h.context, source, p, h.batch);
        } catch (int error) {
            if (error != 22 && error != 55) std::abort();
        }
    }
    // As the loop does after every batch.
    h.batch.flush();
    return 0;
}
