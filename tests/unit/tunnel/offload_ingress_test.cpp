// Segments received in one batch for a tap with offloads reach it merged,
// as the kernel's own receive merging merges them (pdu/kernel_reference.h);
// segments for different taps, or for a tap without offloads, are written
// as they came. Each datagram is still learned and counted on its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <iterator>
#include <vector>

#include "ingress_support.h"
#include "pdu/kernel_reference.h"
#include "tunnel/TapWrites.h"

namespace lumora::test {
namespace {

// A tap with offloads: each frame recorded whole, with what it was told.
class OffloadTap : public RecordingTap {
  public:
    using RecordingTap::RecordingTap;
    bool offloads() const override { return true; }
    void writeFrames(std::span<const TapFrame> frames) override {
        for (const TapFrame& frame : frames) {
            Bytes whole;
            for (unsigned i = 0; i < frame.piece_count; ++i) {
                const pdu::PDU& p = frame.pieces[i];
                whole.insert(whole.end(), p.data(), p.data() + p.length());
            }
            written_frames.push_back(whole);
            told.push_back(frame.offload);
        }
    }
    std::vector<Bytes> written_frames;
    std::vector<pdu::Offload> told;
};

std::vector<Bytes> segmentsOf(const char* const* hex, size_t count) {
    std::vector<Bytes> out;
    for (size_t i = 0; i < count; ++i) out.push_back(hexBytes(hex[i]));
    return out;
}

// Segments each in a buffer of its own behind a GRE header's worth of
// bytes, as received datagrams lie.
struct Received {
    explicit Received(const std::vector<Bytes>& segments) {
        for (const Bytes& s : segments) {
            buffers.push_back(join({plainGre(), s}));
            Bytes& b = buffers.back();
            frames.push_back(pdu::PDU{b.data(),
                                      static_cast<uint16_t>(b.size()),
                                      4,
                                      static_cast<uint16_t>(b.size()),
                                      {0, 0}});
        }
    }
    std::deque<Bytes> buffers;
    std::vector<pdu::PDU> frames;
};

TEST(OffloadIngress, ARunOfSegmentsIsWrittenAsTheKernelsMergedFrame) {
    OffloadTap tap("tap0");
    Received received(segmentsOf(kernel::kMergeIPv4Segments, 4));
    TapWrites writes;
    for (const pdu::PDU& f : received.frames) writes.queue(&tap, f);
    EXPECT_EQ(writes.size(), 1u);
    writes.flush();
    ASSERT_EQ(tap.written_frames.size(), 1u);
    EXPECT_EQ(tap.written_frames[0], hexBytes(kernel::kMergeIPv4Merged));
    const pdu::Offload& o = tap.told[0];
    EXPECT_EQ(o.segmentation, pdu::Offload::kTcpIPv4);
    EXPECT_TRUE(o.partial_checksum);
    EXPECT_EQ(o.segment_size, kernel::kMergeIPv4SegmentSize);
    EXPECT_EQ(o.header_length, 66);
    EXPECT_EQ(o.checksum_start, 34);
    EXPECT_EQ(o.checksum_offset, 16);
}

TEST(OffloadIngress, IPv6RunIsMergedToo) {
    OffloadTap tap("tap0");
    Received received(segmentsOf(kernel::kMergeIPv6Segments, 3));
    TapWrites writes;
    for (const pdu::PDU& f : received.frames) writes.queue(&tap, f);
    writes.flush();
    ASSERT_EQ(tap.written_frames.size(), 1u);
    EXPECT_EQ(tap.written_frames[0], hexBytes(kernel::kMergeIPv6Merged));
    EXPECT_EQ(tap.told[0].segmentation, pdu::Offload::kTcpIPv6);
}

TEST(OffloadIngress, SegmentsForAnotherTapInBetweenAreWrittenAsTheyCame) {
    OffloadTap first("tap0");
    OffloadTap second("tap1");
    const std::vector<Bytes> segments = segmentsOf(kernel::kMergeIPv4Segments, 4);
    Received received(segments);
    TapWrites writes;
    for (size_t i = 0; i < received.frames.size(); ++i)
        writes.queue(i % 2 == 0 ? &first : &second, received.frames[i]);
    writes.flush();
    EXPECT_EQ(first.written_frames, (std::vector<Bytes>{segments[0], segments[2]}));
    EXPECT_EQ(second.written_frames, (std::vector<Bytes>{segments[1], segments[3]}));
    for (const pdu::Offload& o : first.told) EXPECT_FALSE(o.segmented());
}

TEST(OffloadIngress, ATapWithoutOffloadsGetsEverySegmentAlone) {
    RecordingTap tap("tap0");
    const std::vector<Bytes> segments = segmentsOf(kernel::kMergeIPv4Segments, 4);
    Received received(segments);
    TapWrites writes;
    for (const pdu::PDU& f : received.frames) writes.queue(&tap, f);
    writes.flush();
    EXPECT_EQ(tap.written(), segments);
}

TEST(OffloadIngress, EveryDatagramIsLearnedAndCountedThenTheRunIsMerged) {
    IngressRig rig;
    auto tap = std::make_unique<OffloadTap>("tap0");
    rig.context.taps_by_vid[0].store(tap.get());
    const std::vector<Bytes> segments = segmentsOf(kernel::kMergeIPv4Segments, 4);
    std::deque<Bytes> datagrams;
    for (const Bytes& s : segments) {
        datagrams.push_back(join({plainGre(), s}));
        Bytes& d = datagrams.back();
        handleGreDatagram(rig.context, rig.fromV4(),
                          pdu::PDU{d.data(),
                                   static_cast<uint16_t>(d.size()),
                                   0,
                                   static_cast<uint16_t>(d.size()),
                                   {0, 0}},
                          rig.batch);
    }
    rig.batch.flush();
    ASSERT_EQ(tap->written_frames.size(), 1u);
    EXPECT_EQ(tap->written_frames[0], hexBytes(kernel::kMergeIPv4Merged));
    // The client (the segments' source) counted four frames in.
    const Traffic t = rig.tables.findClient(hexBytes("00 00 5e 00 53 01").data(), 0)->readTraffic();
    EXPECT_EQ(t.packetsIn, 4u);
    EXPECT_EQ(t.bytesIn, 4u * 1514);
}

// A datagram the receiving interface merged from several arrives as the
// kernel's own merged frame, its checksum left partial.
struct MergedCase {
    const char* merged;
    const char* const* segments;
    size_t segment_count;
    pdu::Offload::Segmentation segmentation;
    uint16_t segment_size;
};

const MergedCase kMergedCases[] = {
    {kernel::kMergeIPv4Merged, kernel::kMergeIPv4Segments, std::size(kernel::kMergeIPv4Segments),
     pdu::Offload::kTcpIPv4, kernel::kMergeIPv4SegmentSize},
    {kernel::kMergeIPv4ShortLastMerged, kernel::kMergeIPv4ShortLastSegments,
     std::size(kernel::kMergeIPv4ShortLastSegments), pdu::Offload::kTcpIPv4,
     kernel::kMergeIPv4ShortLastSegmentSize},
    {kernel::kMergeIPv6Merged, kernel::kMergeIPv6Segments, std::size(kernel::kMergeIPv6Segments),
     pdu::Offload::kTcpIPv6, kernel::kMergeIPv6SegmentSize},
};

// The kernel's segments carry 32 bytes of TCP header (timestamps): at an
// MTU of 1500 the largest segment the tap carries is the size they had.
TEST(OffloadIngress, AFrameTheInterfaceMergedIsLeftToTheHostToFinishAndCut) {
    for (const MergedCase& c : kMergedCases) {
        OffloadTap tap("tap0");
        Received received({hexBytes(c.merged)});
        TapWrites writes;
        writes.queue(&tap, received.frames[0]);
        writes.flush();
        ASSERT_EQ(tap.written_frames.size(), 1u);
        EXPECT_EQ(tap.written_frames[0], hexBytes(c.merged));
        const pdu::Offload& o = tap.told[0];
        EXPECT_EQ(o.segmentation, c.segmentation);
        EXPECT_TRUE(o.partial_checksum);
        EXPECT_EQ(o.segment_size, c.segment_size);
        EXPECT_EQ(o.header_length, c.segmentation == pdu::Offload::kTcpIPv6 ? 86 : 66);
        EXPECT_EQ(o.checksum_start, c.segmentation == pdu::Offload::kTcpIPv6 ? 54 : 34);
        EXPECT_EQ(o.checksum_offset, 16);
    }
}

TEST(OffloadIngress, TheSegmentSizeFollowsTheTapsMtu) {
    OffloadTap tap("tap0");
    tap.setMtu(1280);
    Received received({hexBytes(kernel::kMergeIPv4Merged)});
    TapWrites writes;
    writes.queue(&tap, received.frames[0]);
    writes.flush();
    ASSERT_EQ(tap.told.size(), 1u);
    EXPECT_EQ(tap.told[0].segment_size, 1280 - 20 - 32);
}

TEST(OffloadIngress, NoSegmentJoinsAMergedFrame) {
    OffloadTap tap("tap0");
    const std::vector<Bytes> later = segmentsOf(kernel::kMergeIPv6Segments, 2);
    Received received({hexBytes(kernel::kMergeIPv6Merged), later[0], later[1]});
    TapWrites writes;
    for (const pdu::PDU& f : received.frames) writes.queue(&tap, f);
    writes.flush();
    ASSERT_EQ(tap.written_frames.size(), 2u);
    EXPECT_EQ(tap.written_frames[0], hexBytes(kernel::kMergeIPv6Merged));
}

// A tap without offloads gets the segments back as the wire carried them:
// the kernel's merged frames were made from segments of the tap's largest
// size, with IDs one up each and PSH on the last only.
TEST(OffloadIngress, ATapWithoutOffloadsGetsAMergedFrameCutIntoTheSegmentsItWasMadeOf) {
    for (const MergedCase& c : kMergedCases) {
        RecordingTap tap("tap0");
        const Bytes before = hexBytes(kernel::kMergeIPv6Segments[0]);
        Received received({before, hexBytes(c.merged)});
        TapWrites writes;
        for (const pdu::PDU& f : received.frames) writes.queue(&tap, f);
        writes.flush();
        std::vector<Bytes> expected = {before};
        for (const Bytes& s : segmentsOf(c.segments, c.segment_count)) expected.push_back(s);
        EXPECT_EQ(tap.written(), expected);
    }
}

TEST(OffloadIngress, AMergedFrameWithinOneSegmentGetsItsChecksumFinishedForAPlainTap) {
    RecordingTap tap("tap0");
    tap.setMtu(1500 + 4 * 1448);
    Received received({hexBytes(kernel::kMergeIPv4Merged)});
    TapWrites writes;
    writes.queue(&tap, received.frames[0]);
    writes.flush();
    ASSERT_EQ(tap.count(), 1u);
    const Bytes written = tap.frame(0);
    Bytes merged = hexBytes(kernel::kMergeIPv4Merged);
    ASSERT_EQ(written.size(), merged.size());
    // Only the checksum changed, and it is now right.
    EXPECT_TRUE(std::equal(written.begin(), written.begin() + 50, merged.begin()));
    EXPECT_TRUE(std::equal(written.begin() + 52, written.end(), merged.begin() + 52));
    uint32_t sum = 6 + static_cast<uint32_t>(written.size() - 34);
    for (size_t i = 26; i < 34; i += 2)
        sum += static_cast<uint32_t>(written[i] << 8 | written[i + 1]);
    for (size_t i = 34; i < written.size(); i += 2)
        sum +=
            static_cast<uint32_t>(written[i] << 8 | (i + 1 < written.size() ? written[i + 1] : 0));
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    EXPECT_EQ(sum, 0xffffu);
}

}  // namespace
}  // namespace lumora::test
