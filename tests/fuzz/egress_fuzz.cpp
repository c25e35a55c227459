// Arbitrary reads from a tap through every egress decision (handleTapRead:
// super-frames split into segments, partial checksums completed, then
// handleTapFrame for each frame), against tables that know peers and clients: keyed and
// tagged clients, a client on a mapped VLAN behind an IPv6 peer, a gateway
// peer, a client without a peer, peers with several (VLAN, key) pairs to
// flood. A frame may only be sent, flooded, dropped, or refused with int 22
// (or 55); anything else thrown, and any read or write outside the read
// slot, is a finding.
//
// Input: three control bytes, with byte 1 bit 7 nine bytes of what the tap
// said of the read, then the frame: an ordinary one (up to the 4032 bytes a
// tap read takes) in a 4096-byte slot behind 64 bytes of headroom, a
// super-frame (up to 65471 bytes) in a 65535-byte slot, as the tap endpoint
// reads them.
//   byte 0  bits 0-2: the device's VLAN (0, 1, 2, 20, 30, 4095, 20, 0);
//           bits 4-5: which of four senders learns the frame's source
//   byte 1  bit 0: "ipchksum"; bit 1: "mss 536" instead of 1380; bit 2:
//           "mtu 1280"; bits 3-4: server none, IPv4, IPv6, IPv6 without an
//           IPv6 socket; bit 5: tap MAC and parent known (ARP repair);
//           bit 6: learn the frame's source first (a new or moving client);
//           bit 7: the offload bytes follow
//   byte 2  bits 0-3: a known client whose MAC becomes the destination
//           (10 and above: the frame's own); bit 4: a tag takes the
//           client's VLAN; bits 5-6: the key the learned source carries
//   offload byte 0 bits 0-1: the segmentation (whole, TCP over IPv4, TCP
//           over IPv6, unsupported), bit 2: partial checksum; then, two
//           bytes each in network order, segment size, header length,
//           checksum start and checksum offset
//
// Frames large enough for the tunnel to fragment (inner IPv4 above its size
// limit) reach nextFragment on the unicast, flood and server paths; the seeds
// include such frames (tests/fuzz/make_seeds.py writes them).
//
// The tables persist across inputs, so that later frames meet clients the
// earlier ones moved; they are rebuilt every kTableLife inputs.
//
// Skipped: SYN segments the MSS clamp would spin on (see clamp_spin.h), and
// super-frames cut finer than the host ever cuts them (kMaxSegments).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "pdu/Checksum.h"
#include "pdu/Offload.h"
#include "pdu/PDU.h"
#include "pdu/Segmentation.h"
#include "tests/fuzz/clamp_spin.h"
#include "tests/unit/tunnel/recording_support.h"
#include "tunnel/Context.h"
#include "tunnel/Egress.h"
#include "tunnel/Learning.h"

namespace {

using lumora::pdu::load16;
using namespace lumora;

constexpr size_t kControlBytes = 3;
constexpr size_t kOffloadBytes = 9;
constexpr uint16_t kSlot = 4096;
constexpr uint16_t kHeadroom = 64;
constexpr size_t kMaxFrame = kSlot - kHeadroom;
constexpr uint16_t kSuperSlot = 65535;
constexpr size_t kMaxSuperFrame = kSuperSlot - kHeadroom;
// The most segments a super-frame may be cut into here. The host's TCP never
// cuts below 88-byte segments, so a read of at most 65471 bytes is never
// more than 745; finer cuts only make an input run for seconds under the
// sanitizers, each segment flooded to every pair.
constexpr size_t kMaxSegments = 1024;
constexpr int kTableLife = 256;
constexpr uint16_t kDeviceVlans[] = {0, 1, 2, 20, 30, 4095, 20, 0};
constexpr const char* kSenders[] = {"192.0.2.10", "192.0.2.11", "203.0.113.1", "198.51.100.7"};
constexpr uint16_t kSenderVlans[] = {20, 0, 30, 2};

struct Client {
    uint8_t mac[6];
    uint16_t vlan;  // the VLAN the client is known on
};

constexpr Client kClients[] = {
    {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 20}, {{0x00, 0x11, 0x22, 0x33, 0x44, 0x56}, 20},
    {{0x02, 0x00, 0x5e, 0x00, 0x00, 0x0a}, 30}, {{0x02, 0x00, 0x5e, 0x00, 0x00, 0x0b}, 0},
    {{0x02, 0x00, 0x5e, 0x00, 0x00, 0x0c}, 0},  {{0x02, 0x00, 0x5e, 0x00, 0x00, 0x0d}, 2},
    {{0x02, 0x00, 0x5e, 0x00, 0x00, 0xff}, 0},  // no peer
};

// A GRE socket that reads every byte it is given, so that a send beyond its
// buffer is an AddressSanitizer report, and keeps none: a super-frame cut
// into one-byte segments, each flooded to every pair, sends more than any
// recorder holds.
class SinkGreSocket : public test::RecordingGreSocket {
  public:
    explicit SinkGreSocket(test::RecordingGreSocket identity)
        : RecordingGreSocket(std::move(identity)) {}
    void sendTo(pdu::PDU p, uint32_t, in_addr, const in6_addr&) override {
        sum = pdu::sumBytes(p.data(), p.length(), sum);
        ++sent;
    }

    uint64_t sum = 0;
    size_t sent = 0;
};

struct Harness {
    Harness()
        : v4(test::RecordingGreSocket("eth0", "192.0.2.1", 1, 1)),
          v6(test::RecordingGreSocket::ipv6("eth0", "2001:db8::1", 1, 1)),
          tap("tap0", 4, 1 << 16),
          slot(new uint8_t[kSlot]),
          super_slot(new uint8_t[kSuperSlot]),
          batch(std::make_unique<EgressBatch>()) {
        logger.stream = std::fopen("/dev/null", "w");
        if (logger.stream == nullptr) std::abort();
        logger.level = Debug;
        for (uint16_t vlan : {0, 2, 20, 30, 100}) config.vlans.set(vlan);
        context.logger = &logger;
        context.config = &config;
        context.interfaces = &interfaces;
        context.parents = &parents;
        fresh();
    }

    void see(const char* sender, bool ipv6, uint16_t policy, uint16_t tag, int key,
             const uint8_t* mac, uint8_t relay = 0) {
        Sighting s;
        s.family = ipv6 ? AF_INET6 : AF_INET;
        if (ipv6) {
            s.ipv6 = test::ipv6Of(sender);
            s.endpoint = &v6;
        } else {
            s.ipv4 = test::ipv4Of(sender);
            s.endpoint = &v4;
        }
        s.policyVlan = policy;
        s.tagVlan = tag;
        s.hasKey = key >= 0;
        s.key = key >= 0 ? static_cast<uint32_t>(key) : 0;
        s.mac = mac;
        s.frameLength = 60;
        s.relayMark = relay;
        learn(*tables, &logger, s);
    }

    void fresh() {
        tables = std::make_unique<Tables>();
        context.tables = tables.get();
        inputs = 0;
        // One peer with three pairs on VLAN 20, another plain one.
        see("192.0.2.10", false, 20, 20, 7, kClients[0].mac);
        see("192.0.2.10", false, 20, 20, 8, kClients[1].mac);
        see("192.0.2.10", false, 20, 0, -1, kClients[1].mac);
        see("192.0.2.11", false, 20, 0, -1, kClients[1].mac);
        // preferkey: tagged 20, key 30, client of VLAN 30 behind an IPv6 peer.
        see("2001:db8::5", true, 30, 20, 30, kClients[2].mac);
        // A gateway peer (recursion control 7) on VLAN 0, a plain one.
        see("203.0.113.1", false, 0, 0, -1, kClients[3].mac, 1);
        see("198.51.100.7", false, 0, 0, 5, kClients[4].mac);
        see("2001:db8:1::1", true, 2, 2, -1, kClients[5].mac);
        bool inserted = false;
        tables->insertClient(clientKeyOf(kClients[6].mac, 0),
                             std::make_unique<ClientRecord>(kClients[6].mac), inserted);
    }

    Logger logger;
    Config config;
    std::map<std::string, MacAddress> interfaces;
    std::map<std::string, std::string> parents;
    std::unique_ptr<Tables> tables;
    TunnelContext context;
    SinkGreSocket v4;
    SinkGreSocket v6;
    test::RecordingTap tap;
    std::unique_ptr<uint8_t[]> slot;
    std::unique_ptr<uint8_t[]> super_slot;
    std::unique_ptr<EgressBatch> batch;
    int inputs = 0;
};

Harness& harness() {
    static Harness* h = new Harness;
    return *h;
}

// Whether the clamp could spin on this frame: frames whose tag the device
// removes are clamped behind it; a tagged frame on a tagged device is not
// IPv4 to the clamp. Both SYN and SYN+ACK are clamped on the way out, and a
// first fragment as well.
bool spinsInClamp(const uint8_t* frame, size_t length, uint16_t device_vlan) {
    if (length < 14) return false;
    if (load16(frame + 12) != 0x8100) return fuzz::clampSpins(frame, length, 12, true, true);
    if (device_vlan != 0 || length < 18) return false;
    return fuzz::clampSpins(frame, length, 16, true, true);
}

pdu::Offload offloadOf(const uint8_t* bytes) {
    pdu::Offload said;
    said.segmentation = bytes[0] & 0x03;
    said.partial_checksum = (bytes[0] & 0x04) != 0;
    said.segment_size = load16(bytes + 1);
    said.header_length = load16(bytes + 3);
    said.checksum_start = load16(bytes + 5);
    said.checksum_offset = load16(bytes + 7);
    return said;
}

// Whether the clamp could spin on what the read becomes: the segments of a
// super-frame carry its headers, options unchanged; a completed checksum
// may land anywhere in the frame, so it is completed on a copy first.
bool readSpinsInClamp(const uint8_t* frame, size_t length, uint16_t device_vlan,
                      const pdu::Offload& said) {
    if (said.segmented() || !said.partial_checksum) return spinsInClamp(frame, length, device_vlan);
    static uint8_t copy[kSlot];
    std::memcpy(copy, frame - kHeadroom, kHeadroom + length);
    try {
        pdu::completePartialChecksum(
            pdu::PDU{copy, kSlot, kHeadroom, static_cast<uint16_t>(kHeadroom + length), {0, 0}},
            said);
    } catch (int) {
        return false;  // dropped before the clamp
    }
    return spinsInClamp(copy + kHeadroom, length, device_vlan);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kControlBytes) return 0;
    Harness& h = harness();
    const uint16_t device_vlan = kDeviceVlans[data[0] & 0x07];
    const uint8_t settings = data[1];
    const uint8_t choice = data[2];
    size_t header = kControlBytes;
    pdu::Offload said;
    if ((settings & 0x80) != 0) {
        if (size < kControlBytes + kOffloadBytes) return 0;
        said = offloadOf(data + kControlBytes);
        header += kOffloadBytes;
    }
    const size_t length = size - header;
    if (length > (said.segmented() ? kMaxSuperFrame : kMaxFrame)) return 0;
    if (said.segmented() &&
        length / (said.segment_size == 0 ? 1 : said.segment_size) > kMaxSegments)
        return 0;

    // The frame in its read slot, edited as the control bytes ask.
    const uint16_t slot_size = said.segmented() ? kSuperSlot : kSlot;
    uint8_t* const slot = said.segmented() ? h.super_slot.get() : h.slot.get();
    std::memset(slot, 0x5a, slot_size);
    uint8_t* const frame = slot + kHeadroom;
    if (length > 0) std::memcpy(frame, data + header, length);
    const unsigned client = choice & 0x0f;
    if (client < std::size(kClients) && length >= 6) {
        std::memcpy(frame, kClients[client].mac, 6);
        if ((choice & 0x10) != 0 && length >= 16 && load16(frame + 12) == 0x8100) {
            frame[14] = static_cast<uint8_t>((frame[14] & 0xf0) | (kClients[client].vlan >> 8));
            frame[15] = static_cast<uint8_t>(kClients[client].vlan);
        }
    }
    if (readSpinsInClamp(frame, length, device_vlan, said)) return 0;

    if (++h.inputs > kTableLife) h.fresh();
    if ((settings & 0x40) != 0 && length >= 12) {
        const unsigned sender = (data[0] >> 4) & 0x03;
        const int key = (choice >> 5) & 0x03;
        h.see(kSenders[sender], false, kSenderVlans[sender], kSenderVlans[sender],
              key == 0 ? -1 : key, frame + 6);
    }

    h.config.ipchksum = (settings & 0x01) != 0;
    h.config.mss = (settings & 0x02) != 0 ? 536 : 1380;
    h.config.mtu = (settings & 0x04) != 0 ? 1280 : 0;
    SendAll& server = h.context.send_all;
    server = SendAll{};
    h.context.server_socket_ipv4.store(&h.v4);
    h.context.server_socket_ipv6.store(&h.v6);
    switch ((settings >> 3) & 0x03) {
        case 1:
            server.family = 1;
            server.ipv4 = test::ipv4Of("192.0.2.99");
            break;
        case 3:
            h.context.server_socket_ipv6.store(nullptr);
            [[fallthrough]];
        case 2:
            server.family = 2;
            server.ipv6 = test::ipv6Of("2001:db8::99");
            break;
        default:
            break;
    }
    server.mtu = h.config.mtu;
    if ((settings & 0x20) != 0) {
        h.interfaces["tap0"] = MacAddress{0x02, 0x00, 0x5e, 0x00, 0x01, 0x00};
        h.interfaces["em0"] = MacAddress{0x02, 0x00, 0x5e, 0x00, 0x01, 0x01};
        h.parents["tap0"] = "em0";
    } else {
        h.interfaces.clear();
        h.parents.clear();
    }
    h.v4.clear();
    h.v6.clear();

    const pdu::PDU read{
        slot, slot_size, kHeadroom, static_cast<uint16_t>(kHeadroom + length), {0, 0}};
    try {
        handleTapRead(h.context, h.tap, device_vlan, read, said, *h.batch);
    } catch (int error) {
        if (error != 22 && error != 55) std::abort();
    }
    // As the tap loop does after every batch.
    h.batch->sends.flush();
    return 0;
}
