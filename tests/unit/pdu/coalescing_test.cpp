// Merging TCP segments into one frame, compared byte for byte with what the
// kernel's own receive merging made of the same segments (kernel_reference.h,
// written by tests/tools/offload_reference.py); and every segment that must
// stay on its own.
#include "pdu/Coalescing.h"

#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "frames_support.h"
#include "kernel_reference.h"

namespace lumora::pdu {
namespace {

namespace kernel = lumora::test::kernel;
using test::Frame;
using test::hexBytes;
using Bytes = std::vector<uint8_t>;

// The TCP checksum of an edited segment made right again, computed here the
// plain way so that the merge is not checked against itself.
void refreshTcpChecksum(Bytes& frame) {
    const bool ipv6 = frame[12] == 0x86;
    const size_t transport = ipv6 ? 54 : 34;
    frame[transport + 16] = frame[transport + 17] = 0;
    uint32_t sum = 6 + static_cast<uint32_t>(frame.size() - transport);
    const size_t addresses = ipv6 ? 22 : 26;
    const size_t address_length = ipv6 ? 32 : 8;
    for (size_t i = addresses; i < addresses + address_length; i += 2)
        sum += static_cast<uint32_t>(frame[i] << 8 | frame[i + 1]);
    for (size_t i = transport; i < frame.size(); i += 2)
        sum += static_cast<uint32_t>(frame[i] << 8 | (i + 1 < frame.size() ? frame[i + 1] : 0));
    while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
    frame[transport + 16] = static_cast<uint8_t>(~sum >> 8);
    frame[transport + 17] = static_cast<uint8_t>(~sum);
}

// Segments each in a buffer of its own, as received datagrams are.
struct Segments {
    explicit Segments(const std::vector<Bytes>& bytes) {
        for (const Bytes& b : bytes) frames.push_back(std::make_unique<Frame>(b, 32));
    }
    std::vector<std::unique_ptr<Frame>> frames;
};

std::vector<Bytes> kernelSegments(const char* const* hex, size_t count) {
    std::vector<Bytes> out;
    for (size_t i = 0; i < count; ++i) out.push_back(hexBytes(hex[i]));
    return out;
}

#define KERNEL_SEGMENTS(name) \
    kernelSegments(kernel::k##name##Segments, std::size(kernel::k##name##Segments))

// Runs every segment through one run; returns how many joined it, the merged
// frame (the first one's edited bytes, then every later payload) and the
// offload.
struct Merged {
    unsigned joined = 0;
    Bytes frame;
    Offload offload;
};

Merged merge(const std::vector<Bytes>& bytes) {
    Segments segments(bytes);
    Merged out;
    TcpRun run;
    std::vector<TcpSegment> read;
    for (auto& frame : segments.frames) {
        TcpSegment segment;
        if (!readTcpSegment(frame->pdu(), segment)) break;
        if (read.empty()) {
            run.start(segment);
        } else if (!run.append(segment)) {
            break;
        }
        read.push_back(segment);
    }
    out.joined = static_cast<unsigned>(read.size());
    if (out.joined < 2) return out;
    out.offload = run.finish();
    for (size_t i = 0; i < read.size(); ++i) {
        const PDU f = read[i].frame;
        const uint8_t* const from = f.data() + (i == 0 ? 0 : read[i].payload);
        const uint8_t* const to = f.data() + f.length();
        out.frame.insert(out.frame.end(), from, to);
    }
    return out;
}

// The kernel's header, less its header length: it reports the length of the
// merged frame's first buffer there, the daemon the length of the headers.
void expectKernelHeader(const Offload& o, const char* header_hex) {
    const Bytes h = hexBytes(header_hex);
    EXPECT_EQ(o.partial_checksum, (h[0] & 1) != 0);
    EXPECT_EQ(o.segmentation, h[1] == 1 ? Offload::kTcpIPv4 : Offload::kTcpIPv6);
    EXPECT_EQ(o.segment_size, h[4] | h[5] << 8);
    EXPECT_EQ(o.checksum_start, h[6] | h[7] << 8);
    EXPECT_EQ(o.checksum_offset, h[8] | h[9] << 8);
}

TEST(Coalescing, IPv4FullSegmentsWithPshOnTheLastMergeAsTheKernelMerges) {
    const Merged m = merge(KERNEL_SEGMENTS(MergeIPv4));
    EXPECT_EQ(m.joined, 4u);
    EXPECT_EQ(m.frame, hexBytes(kernel::kMergeIPv4Merged));
    expectKernelHeader(m.offload, kernel::kMergeIPv4Header);
    EXPECT_EQ(m.offload.header_length, 66);
}

TEST(Coalescing, IPv4ShorterLastSegmentMergesAndEndsTheRun) {
    const Merged m = merge(KERNEL_SEGMENTS(MergeIPv4ShortLast));
    EXPECT_EQ(m.joined, 4u);
    EXPECT_EQ(m.frame, hexBytes(kernel::kMergeIPv4ShortLastMerged));
    expectKernelHeader(m.offload, kernel::kMergeIPv4ShortLastHeader);
}

TEST(Coalescing, IPv6SegmentsMergeAsTheKernelMerges) {
    const Merged m = merge(KERNEL_SEGMENTS(MergeIPv6));
    EXPECT_EQ(m.joined, 3u);
    EXPECT_EQ(m.frame, hexBytes(kernel::kMergeIPv6Merged));
    expectKernelHeader(m.offload, kernel::kMergeIPv6Header);
    EXPECT_EQ(m.offload.header_length, 86);
}

TEST(Coalescing, LaterSegmentsAreNeverTouched) {
    const std::vector<Bytes> bytes = KERNEL_SEGMENTS(MergeIPv4);
    Segments segments(bytes);
    TcpRun run;
    TcpSegment first, second;
    ASSERT_TRUE(readTcpSegment(segments.frames[0]->pdu(), first));
    ASSERT_TRUE(readTcpSegment(segments.frames[1]->pdu(), second));
    run.start(first);
    ASSERT_TRUE(run.append(second));
    run.finish();
    EXPECT_EQ(segments.frames[1]->bytes(), bytes[1]);
    EXPECT_NE(segments.frames[0]->bytes(), bytes[0]);
}

// The second segment of the IPv4 run, edited by change and given a right
// checksum again; returns how many of the two merged.
unsigned secondJoins(void (*change)(Bytes&), bool refresh = true) {
    std::vector<Bytes> bytes = KERNEL_SEGMENTS(MergeIPv4);
    bytes.resize(2);
    change(bytes[1]);
    if (refresh) refreshTcpChecksum(bytes[1]);
    return merge(bytes).joined;
}

TEST(Coalescing, UnchangedSecondSegmentJoins) {
    EXPECT_EQ(secondJoins([](Bytes&) {}), 2u);
}

TEST(Coalescing, AFlagBesideAckAndPshKeepsASegmentApart) {
    EXPECT_EQ(secondJoins([](Bytes& f) { f[47] |= 0x01; }), 1u);  // FIN
    EXPECT_EQ(secondJoins([](Bytes& f) { f[47] |= 0x20; }), 1u);  // URG
    EXPECT_EQ(secondJoins([](Bytes& f) { f[47] |= 0x80; }), 1u);  // CWR
    EXPECT_EQ(secondJoins([](Bytes& f) { f[47] |= 0x04; }), 1u);  // RST
}

TEST(Coalescing, PshOnTheFirstSegmentEndsTheRunAtOnce) {
    std::vector<Bytes> bytes = KERNEL_SEGMENTS(MergeIPv4);
    bytes[0][47] |= 0x08;
    refreshTcpChecksum(bytes[0]);
    EXPECT_EQ(merge(bytes).joined, 1u);
}

TEST(Coalescing, DifferentOptionsKeepASegmentApart) {
    // Another timestamp value.
    EXPECT_EQ(secondJoins([](Bytes& f) { f[61] ^= 0x01; }), 1u);
    // Another echoed timestamp.
    EXPECT_EQ(secondJoins([](Bytes& f) { f[65] ^= 0x01; }), 1u);
}

TEST(Coalescing, AGapInTheSequenceKeepsASegmentApart) {
    EXPECT_EQ(secondJoins([](Bytes& f) { f[41] ^= 0x01; }), 1u);
}

TEST(Coalescing, AnotherFlowKeepsASegmentApart) {
    EXPECT_EQ(secondJoins([](Bytes& f) { f[37] ^= 0x01; }), 1u);  // destination port
    EXPECT_EQ(secondJoins([](Bytes& f) { f[35] ^= 0x01; }), 1u);  // source port
    EXPECT_EQ(secondJoins([](Bytes& f) {
                  f[33] ^= 0x01;  // destination address, header checksum kept right
                  f[25] ^= 0x01;
              }),
              1u);
    EXPECT_EQ(secondJoins([](Bytes& f) { f[45] ^= 0x01; }), 1u);  // acknowledgement
    EXPECT_EQ(secondJoins([](Bytes& f) { f[5] ^= 0x01; }), 1u);   // Ethernet source
}

TEST(Coalescing, IPv4IdsOutOfSequenceKeepASegmentApart) {
    EXPECT_EQ(secondJoins([](Bytes& f) {
                  f[19] ^= 0x02;
                  f[25] ^= 0x02;
              }),
              1u);
}

TEST(Coalescing, FragmentsAndIPOptionsNeverMerge) {
    // More fragments set.
    EXPECT_EQ(secondJoins([](Bytes& f) { f[20] |= 0x20; }), 1u);
    // An IPv4 header with options (IHL 6) is not merged either.
    std::vector<Bytes> bytes = KERNEL_SEGMENTS(MergeIPv4);
    bytes.resize(2);
    for (Bytes& f : bytes) {
        f.insert(f.begin() + 34, {1, 1, 1, 0});
        f[14] = 0x46;
    }
    EXPECT_EQ(merge(bytes).joined, 0u);
}

TEST(Coalescing, ADamagedSegmentIsLeftToTheHost) {
    EXPECT_EQ(secondJoins([](Bytes& f) { f[100] ^= 0xff; }, false), 1u);
}

TEST(Coalescing, ALongerSegmentThanTheFirstKeepsApart) {
    std::vector<Bytes> bytes = KERNEL_SEGMENTS(MergeIPv4ShortLast);
    // The short segment first, then a full one behind it.
    std::vector<Bytes> reordered = {bytes[3], bytes[0]};
    EXPECT_EQ(merge(reordered).joined, 1u);
}

TEST(Coalescing, PaddedOrPayloadlessSegmentsAreNotRead) {
    const Bytes segment = hexBytes(kernel::kMergeIPv4Segments[0]);
    TcpSegment out;
    // Headers only: a bare acknowledgement.
    Bytes bare(segment.begin(), segment.begin() + 66);
    bare[16] = 0;
    bare[17] = 52;
    refreshTcpChecksum(bare);
    Frame bare_frame(bare);
    EXPECT_FALSE(readTcpSegment(bare_frame.pdu(), out));
    // Padding behind the packet.
    Bytes padded = segment;
    padded.push_back(0);
    Frame padded_frame(padded);
    EXPECT_FALSE(readTcpSegment(padded_frame.pdu(), out));
    Frame whole(segment);
    EXPECT_TRUE(readTcpSegment(whole.pdu(), out));
    EXPECT_EQ(out.payload, 66);
    EXPECT_EQ(out.payload_length, 1448);
}

// A datagram the receiving interface merged reaches the daemon as the
// kernel's own merged frame: its checksum field holds the pseudo-header sum.
struct MergedCase {
    const char* merged;
    const char* header;
};

const MergedCase kMergedCases[] = {
    {kernel::kMergeIPv4Merged, kernel::kMergeIPv4Header},
    {kernel::kMergeIPv4ShortLastMerged, kernel::kMergeIPv4ShortLastHeader},
    {kernel::kMergeIPv6Merged, kernel::kMergeIPv6Header},
};

uint16_t kernelSegmentSize(const char* header_hex) {
    const Bytes h = hexBytes(header_hex);
    return static_cast<uint16_t>(h[4] | h[5] << 8);
}

TEST(HostMerged, TheKernelsMergedFramesAreTakenForWhatTheyAre) {
    for (const MergedCase& c : kMergedCases) {
        Frame frame(hexBytes(c.merged));
        TcpSegment out;
        EXPECT_TRUE(readHostMergedSegment(frame.pdu(), out)) << c.header;
        EXPECT_FALSE(readTcpSegment(frame.pdu(), out)) << c.header;
    }
}

TEST(HostMerged, AtTheKernelsSegmentSizeTheTapIsToldWhatTheKernelSaid) {
    for (const MergedCase& c : kMergedCases) {
        Frame frame(hexBytes(c.merged));
        TcpSegment out;
        ASSERT_TRUE(readHostMergedSegment(frame.pdu(), out));
        const Offload o = hostMergedOffload(out, kernelSegmentSize(c.header));
        expectKernelHeader(o, c.header);
        EXPECT_EQ(o.header_length, out.payload);
    }
}

TEST(HostMerged, APayloadWithinOneSegmentOnlyHasItsChecksumLeftToTheHost) {
    Frame frame(hexBytes(kernel::kMergeIPv4Merged));
    TcpSegment out;
    ASSERT_TRUE(readHostMergedSegment(frame.pdu(), out));
    for (const uint16_t size : {out.payload_length, uint16_t{0}}) {
        const Offload o = hostMergedOffload(out, size);
        EXPECT_EQ(o.segmentation, Offload::kWhole);
        EXPECT_TRUE(o.partial_checksum);
        EXPECT_EQ(o.checksum_start, 34);
        EXPECT_EQ(o.checksum_offset, 16);
    }
    EXPECT_TRUE(hostMergedOffload(out, static_cast<uint16_t>(out.payload_length - 1)).segmented());
}

TEST(HostMerged, SegmentsAsTheWireCarriesThemAreNeverTakenForMerged) {
    for (const Bytes& b : KERNEL_SEGMENTS(MergeIPv4)) {
        Frame frame(b);
        TcpSegment out;
        EXPECT_FALSE(readHostMergedSegment(frame.pdu(), out));
    }
}

TEST(HostMerged, AnyOtherChecksumFieldIsADamagedFrameLeftToTheHost) {
    Bytes bytes = hexBytes(kernel::kMergeIPv4Merged);
    bytes[34 + 17] ^= 0x01;
    Frame frame(bytes);
    TcpSegment out;
    EXPECT_FALSE(readHostMergedSegment(frame.pdu(), out));
}

// The pseudo-header sum does not cover the flags, so the field stays as
// merging left it whatever they are.
TEST(HostMerged, FinAndEceAreFlagsMergingKeepsSynAndRstAreNot) {
    const std::pair<uint8_t, bool> cases[] = {
        {0x10, true},  {0x18, true},  {0x11, true},  {0x50, true},
        {0x12, false}, {0x14, false}, {0x30, false}, {0x08, false},
    };
    for (const auto& [flags, taken] : cases) {
        Bytes bytes = hexBytes(kernel::kMergeIPv4Merged);
        bytes[34 + 13] = flags;
        Frame frame(bytes);
        TcpSegment out;
        EXPECT_EQ(readHostMergedSegment(frame.pdu(), out), taken) << int{flags};
    }
}

}  // namespace
}  // namespace lumora::pdu
