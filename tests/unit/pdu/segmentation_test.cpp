// Splitting TCP super-frames in place, compared byte for byte with what the
// kernel's own software segmentation made of the same super-frames
// (kernel_reference.h, written by tests/tools/offload_reference.py).
#include "pdu/Segmentation.h"

#include <gtest/gtest.h>

#include <iterator>
#include <vector>

#include "frames_support.h"
#include "kernel_reference.h"

namespace lumora::pdu {
namespace {

namespace kernel = lumora::test::kernel;
using test::Frame;
using test::hexBytes;
using Bytes = std::vector<uint8_t>;

Offload superFrame(uint8_t segmentation, unsigned segment_size, uint16_t transport) {
    Offload o;
    o.segmentation = segmentation;
    o.partial_checksum = true;
    o.segment_size = static_cast<uint16_t>(segment_size);
    o.header_length = static_cast<uint16_t>(transport + 32);
    o.checksum_start = transport;
    o.checksum_offset = 16;
    return o;
}

// Splits super (behind 64 bytes of headroom) and returns each segment's
// bytes as they stood right after it was built: building the next one takes
// over the last bytes of this one.
std::vector<Bytes> split(const char* super, const Offload& offload) {
    Frame frame(super, 64);
    Segmenter segmenter(frame.pdu(), offload);
    std::vector<Bytes> out;
    for (unsigned i = 0; i < segmenter.count(); ++i) {
        const PDU segment = segmenter.build(i);
        out.emplace_back(segment.data(), segment.data() + segment.length());
    }
    return out;
}

std::vector<Bytes> kernelSegments(const char* const* hex, size_t count) {
    std::vector<Bytes> out;
    for (size_t i = 0; i < count; ++i) out.push_back(hexBytes(hex[i]));
    return out;
}

#define KERNEL_SEGMENTS(name) \
    kernelSegments(kernel::k##name##Segments, std::size(kernel::k##name##Segments))

TEST(Segmenter, IPv4LastSegmentShorterCwrFirstFinAndPshLast) {
    // ACK|PSH|FIN|CWR: CWR stays on the first segment, PSH and FIN go to
    // the last; IDs count up from 0x1c46.
    const auto segments = split(kernel::kSplitIPv4Super,
                                superFrame(Offload::kTcpIPv4, kernel::kSplitIPv4SegmentSize, 34));
    EXPECT_EQ(segments, KERNEL_SEGMENTS(SplitIPv4));
    ASSERT_EQ(segments.size(), 4u);
    EXPECT_EQ(segments[0][47], 0x90);
    EXPECT_EQ(segments[1][47], 0x10);
    EXPECT_EQ(segments[3][47], 0x19);
}

TEST(Segmenter, IPv4ExactlyOneSegmentIsTheFrameWithItsChecksumDone) {
    EXPECT_EQ(split(kernel::kSplitIPv4OneSuper,
                    superFrame(Offload::kTcpIPv4, kernel::kSplitIPv4OneSegmentSize, 34)),
              KERNEL_SEGMENTS(SplitIPv4One));
}

TEST(Segmenter, IPv4PayloadOfWholeSegmentsLeavesNoShortOne) {
    EXPECT_EQ(split(kernel::kSplitIPv4ExactSuper,
                    superFrame(Offload::kTcpIPv4, kernel::kSplitIPv4ExactSegmentSize, 34)),
              KERNEL_SEGMENTS(SplitIPv4Exact));
}

TEST(Segmenter, IPv6PayloadLengthPerSegment) {
    EXPECT_EQ(split(kernel::kSplitIPv6Super,
                    superFrame(Offload::kTcpIPv6, kernel::kSplitIPv6SegmentSize, 54)),
              KERNEL_SEGMENTS(SplitIPv6));
}

TEST(Segmenter, SegmentsLieOverTheirOwnPayloadWithHeadersCopiedInFront) {
    Frame frame(kernel::kSplitIPv4Super, 64);
    Segmenter segmenter(frame.pdu(), superFrame(Offload::kTcpIPv4, 1448, 34));
    EXPECT_EQ(segmenter.headerLength(), 66);
    EXPECT_EQ(segmenter.largestSegment(), 66u + 1448u);
    // Segment i's headers end where its payload starts: 64 + 66 + i * 1448.
    EXPECT_EQ(segmenter.overwrittenBy(1), 64 + 1448);
    EXPECT_EQ(segmenter.overwrittenBy(3), 64 + 3 * 1448);
    const PDU second = [&] {
        segmenter.build(0);
        return segmenter.build(1);
    }();
    EXPECT_EQ(second._begin, 64 + 1448);
    EXPECT_EQ(second._end, 64 + 1448 + 66 + 1448);
    EXPECT_EQ(second._buf, frame.pdu()._buf);
}

int errorOf(const char* hex, const Offload& offload) {
    Frame frame(hex, 64);
    try {
        Segmenter segmenter(frame.pdu(), offload);
    } catch (int error) {
        return error;
    }
    return 0;
}

TEST(Segmenter, RefusesWhatItCannotSplit) {
    const char* super = kernel::kSplitIPv4Super;
    // Not a super-frame, no segment size, the wrong family, an unknown kind.
    EXPECT_EQ(errorOf(super, Offload{}), kInvalid);
    EXPECT_EQ(errorOf(super, superFrame(Offload::kTcpIPv4, 0, 34)), kInvalid);
    EXPECT_EQ(errorOf(super, superFrame(Offload::kTcpIPv6, 1448, 54)), kInvalid);
    EXPECT_EQ(errorOf(super, superFrame(Offload::kUnsupported, 1448, 34)), kInvalid);
    // Headers only, no payload.
    EXPECT_EQ(errorOf(kernel::kSplitIPv4Super, superFrame(Offload::kTcpIPv4, 1448, 34)), 0);
    Bytes headers = hexBytes(super);
    headers.resize(66);
    headers[16] = 0;
    headers[17] = 52;
    Frame bare(headers, 64);
    EXPECT_THROW(Segmenter(bare.pdu(), superFrame(Offload::kTcpIPv4, 1448, 34)), int);
    // UDP where TCP was announced.
    Bytes udp = hexBytes(super);
    udp[23] = 17;
    Frame other(udp, 64);
    EXPECT_THROW(Segmenter(other.pdu(), superFrame(Offload::kTcpIPv4, 1448, 34)), int);
    // A fragment.
    Bytes fragment = hexBytes(super);
    fragment[20] = 0x20;
    Frame piece(fragment, 64);
    EXPECT_THROW(Segmenter(piece.pdu(), superFrame(Offload::kTcpIPv4, 1448, 34)), int);
}

TEST(Segmenter, EveryTruncationOfTheHeadersIsRefused) {
    const Bytes whole = hexBytes(kernel::kSplitIPv4Super);
    for (size_t length = 0; length <= 66; ++length) {
        Frame frame(Bytes(whole.begin(), whole.begin() + static_cast<long>(length)), 64);
        EXPECT_THROW(Segmenter(frame.pdu(), superFrame(Offload::kTcpIPv4, 1448, 34)), int)
            << length;
    }
}

Offload partial(uint16_t start, uint16_t offset) {
    Offload o;
    o.partial_checksum = true;
    o.checksum_start = start;
    o.checksum_offset = offset;
    return o;
}

TEST(PartialChecksum, TcpOverIPv4IsCompleted) {
    // The kernel's own one-segment frame, its checksum field turned back into
    // the pseudo-header sum the host hands over.
    Bytes bytes = hexBytes(kernel::kSplitIPv4OneSegments[0]);
    bytes[50] = 0x88;
    bytes[51] = 0x12;
    Frame frame(bytes);
    completePartialChecksum(frame.pdu(), partial(34, 16));
    EXPECT_EQ(frame.bytes(), hexBytes(kernel::kSplitIPv4OneSegments[0]));
}

TEST(PartialChecksum, TcpOverIPv6IsCompleted) {
    Bytes bytes = hexBytes(kernel::kSplitIPv6Segments[0]);
    bytes[70] = 0x61;
    bytes[71] = 0x2f;
    Frame frame(bytes);
    completePartialChecksum(frame.pdu(), partial(54, 16));
    EXPECT_EQ(frame.bytes(), hexBytes(kernel::kSplitIPv6Segments[0]));
}

constexpr const char* kUdpIPv4 =
    "00005e005302 00005e005301 0800 45000039000740004011b6a9c0000201c0000202"
    "9c4000350025 843a 0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d";
constexpr const char* kUdpIPv6 =
    "00005e005302 00005e005301 86dd 600000000025114020010db8000000000000000000000001"
    "20010db8000000000000000000000002 9c4000350025 5bab"
    "0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d";

TEST(PartialChecksum, UdpOverIPv4AndIPv6AreCompleted) {
    Frame v4(kUdpIPv4);
    completePartialChecksum(v4.pdu(), partial(34, 6));
    EXPECT_EQ(v4.bytes()[40], 0xfd);
    EXPECT_EQ(v4.bytes()[41], 0x57);
    Frame v6(kUdpIPv6);
    completePartialChecksum(v6.pdu(), partial(54, 6));
    EXPECT_EQ(v6.bytes()[60], 0x25);
    EXPECT_EQ(v6.bytes()[61], 0xe7);
}

TEST(PartialChecksum, ASumOfZeroGoesOutAsAllOnes) {
    Frame frame(
        "00005e005302 00005e005301 0800 4500003a000740004011b6a8c0000201c0000202"
        "9c4000350026 843b 0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1a56");
    completePartialChecksum(frame.pdu(), partial(34, 6));
    EXPECT_EQ(frame.bytes()[40], 0xff);
    EXPECT_EQ(frame.bytes()[41], 0xff);
}

TEST(PartialChecksum, AFieldBeyondTheFrameIsRefused) {
    Frame frame(kUdpIPv4);
    EXPECT_THROW(completePartialChecksum(frame.pdu(), partial(34, 40)), int);
    EXPECT_THROW(completePartialChecksum(frame.pdu(), partial(200, 6)), int);
}

}  // namespace
}  // namespace lumora::pdu
