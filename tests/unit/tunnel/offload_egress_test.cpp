// Super-frames read from a tap with offloads leave as the segments the
// kernel's own segmentation makes of them (pdu/kernel_reference.h), one GRE
// datagram each, counted per segment; split in place, so each queued
// datagram gives up the bytes the next segment's headers take.
#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <vector>

#include "ingress_support.h"
#include "pdu/kernel_reference.h"
#include "tunnel/Egress.h"

namespace lumora::test {
namespace {

// The client every reference segment is addressed to.
constexpr const char* kSegmentClient = "00 00 5e 00 53 02";

struct EgressRig : IngressRig {
    // A tunnel MTU that lets 1514-byte segments go whole, unless told.
    explicit EgressRig(long tunnel_mtu = 9000) {
        receiver.setMtuValue(tunnel_mtu);
        tap = &addTap(0);
        // The access point's client is learned from a frame it sent.
        run(join({plainGre(), ethernet(kHostMac, kSegmentClient)}));
        receiver.clear();
    }
    // super behind 64 bytes of headroom, as a tap read leaves it.
    void read(const char* super, const pdu::Offload& offload) { read(hexBytes(super), offload); }
    void read(const Bytes& bytes, const pdu::Offload& offload) {
        slot.assign(64 + bytes.size(), 0xee);
        std::copy(bytes.begin(), bytes.end(), slot.begin() + 64);
        const pdu::PDU frame{slot.data(),
                             static_cast<uint16_t>(slot.size()),
                             64,
                             static_cast<uint16_t>(slot.size()),
                             {0, 0}};
        handleTapRead(context, *tap, 0, frame, offload, *egress);
        egress->sends.flush();
    }
    Traffic traffic() {
        return tables.findClient(hexBytes(kSegmentClient).data(), 0)->readTraffic();
    }

    RecordingTap* tap = nullptr;
    Bytes slot;
    std::unique_ptr<EgressBatch> egress = std::make_unique<EgressBatch>();
};

pdu::Offload superFrame(uint8_t segmentation, unsigned size, uint16_t transport) {
    pdu::Offload o;
    o.segmentation = segmentation;
    o.partial_checksum = true;
    o.segment_size = static_cast<uint16_t>(size);
    o.header_length = static_cast<uint16_t>(transport + 32);
    o.checksum_start = transport;
    o.checksum_offset = 16;
    return o;
}

std::vector<Bytes> expectedDatagrams(const char* const* segments, size_t count) {
    std::vector<Bytes> out;
    for (size_t i = 0; i < count; ++i) out.push_back(join({plainGre(), hexBytes(segments[i])}));
    return out;
}

std::vector<Bytes> sent(const RecordingGreSocket& socket) {
    std::vector<Bytes> out;
    for (size_t i = 0; i < socket.count(); ++i) out.push_back(socket.bytes(i));
    return out;
}

TEST(OffloadEgress, IPv4SuperFrameLeavesAsTheKernelsSegments) {
    EgressRig rig;
    rig.read(kernel::kSplitIPv4Super,
             superFrame(pdu::Offload::kTcpIPv4, kernel::kSplitIPv4SegmentSize, 34));
    EXPECT_EQ(sent(rig.receiver),
              expectedDatagrams(kernel::kSplitIPv4Segments, std::size(kernel::kSplitIPv4Segments)));
    const Traffic t = rig.traffic();
    EXPECT_EQ(t.packetsOut, 4u);
    EXPECT_EQ(t.bytesOut, 3u * 1514 + 166);
}

TEST(OffloadEgress, IPv6SuperFrameLeavesAsTheKernelsSegments) {
    EgressRig rig;
    rig.read(kernel::kSplitIPv6Super,
             superFrame(pdu::Offload::kTcpIPv6, kernel::kSplitIPv6SegmentSize, 54));
    EXPECT_EQ(sent(rig.receiver),
              expectedDatagrams(kernel::kSplitIPv6Segments, std::size(kernel::kSplitIPv6Segments)));
    EXPECT_EQ(rig.traffic().packetsOut, 3u);
}

TEST(OffloadEgress, SegmentsTooLongForTheTunnelAreFragmentedAsOrdinaryFramesAre) {
    // Tunnel MTU 1480: 1514-byte segments are cut at the inner IPv4 layer,
    // exactly as the same segments read one by one would be.
    EgressRig offloaded(1480);
    offloaded.read(kernel::kSplitIPv4Super,
                   superFrame(pdu::Offload::kTcpIPv4, kernel::kSplitIPv4SegmentSize, 34));
    EgressRig plain(1480);
    for (const char* segment : kernel::kSplitIPv4Segments) plain.read(segment, pdu::Offload{});
    EXPECT_EQ(offloaded.receiver.count(), 7u);
    EXPECT_EQ(sent(offloaded.receiver), sent(plain.receiver));
    EXPECT_EQ(offloaded.traffic().packetsOut, 4u);
    EXPECT_EQ(offloaded.traffic().bytesOut, plain.traffic().bytesOut);
}

TEST(OffloadEgress, APartialChecksumIsCompletedOnAnOrdinaryFrame) {
    EgressRig rig;
    Bytes frame = hexBytes(kernel::kSplitIPv4OneSegments[0]);
    frame[50] = 0x88;  // the pseudo-header sum the host leaves
    frame[51] = 0x12;
    pdu::Offload offload;
    offload.partial_checksum = true;
    offload.checksum_start = 34;
    offload.checksum_offset = 16;
    rig.read(frame, offload);
    EXPECT_EQ(sent(rig.receiver), expectedDatagrams(kernel::kSplitIPv4OneSegments, 1));
}

TEST(OffloadEgress, ASuperFrameThatCannotBeSplitIsOneWarningAndNothingSent) {
    EgressRig rig;
    rig.log.clear();
    pdu::Offload unknown;
    unknown.segmentation = pdu::Offload::kUnsupported;
    rig.read(kernel::kSplitIPv4Super, unknown);
    EXPECT_EQ(rig.receiver.count(), 0u);
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>{"tap0: dropping an offloaded frame that cannot be split"});
    EXPECT_EQ(rig.traffic().packetsOut, 0u);
}

TEST(OffloadEgress, SegmentsTooLargeForAnOrdinaryReadAreNotSplit) {
    EgressRig rig;
    rig.read(kernel::kSplitIPv4Super, superFrame(pdu::Offload::kTcpIPv4, 4100, 34));
    EXPECT_EQ(rig.receiver.count(), 0u);
}

}  // namespace
}  // namespace lumora::test
