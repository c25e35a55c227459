// Every packet length from just over the limit to 3900 bytes, for several
// limits, against a model written from the rules alone: pieces advance by
// (L - 20) & ~7 payload bytes, sending stops once (L & ~7) x (pieces sent)
// reaches the packet length, whatever is left.
#include <gtest/gtest.h>

#include "encapsulation_support.h"
#include "tunnel/Send.h"

namespace lumora {
namespace {

using namespace test::encap;

const uint32_t kKey = 0x01020304;

// The header checksum as fragments carry it: one fold, carry dropped.
uint16_t oneFold(const uint8_t* header) {
    uint32_t sum = 0;
    for (size_t word = 0; word < 10; ++word)
        if (word != 5) sum += static_cast<uint32_t>(header[2 * word] << 8 | header[2 * word + 1]);
    return static_cast<uint16_t>(~(sum + (sum >> 16)) & 0xffff);
}

// The datagrams that a packet of `length` bytes (own flags/offset word `own`)
// must become under limit L.
std::vector<Bytes> model(const Bytes& frame, long limit, bool keyed, uint16_t own) {
    const long length = static_cast<long>(frame.size()) - 14;
    const long stride = limit & ~7L;
    const long per_piece = (limit - 20) & ~7L;
    const Bytes gre = keyed ? hex("20 00 65 58 01 02 03 04") : hex("00 00 65 58");
    std::vector<Bytes> out;
    for (long i = 0;; ++i) {
        const long offset = i * per_piece;
        const long rest = length - offset - 20;
        const bool last = rest <= per_piece;
        const long total = last ? length - offset : per_piece + 20;
        const bool more = last ? (own & 0x2000) != 0 : true;
        Bytes header = slice(frame, 14, 20);
        header[0] = 0x45;
        put16(header, 2, static_cast<uint16_t>(total));
        put16(header, 6,
              static_cast<uint16_t>(((own & 0x1fff) + offset / 8) | (more ? 0x2000 : 0)));
        put16(header, 10, 0);
        put16(header, 10, oneFold(header.data()));
        Bytes datagram = concat({gre, slice(frame, 0, 14)});
        if (total < 20) {
            datagram.insert(datagram.end(), header.begin(), header.begin() + total);
        } else {
            datagram.insert(datagram.end(), header.begin(), header.end());
            const Bytes payload = slice(frame, static_cast<size_t>(14 + offset + 20),
                                        static_cast<size_t>(total - 20));
            datagram.insert(datagram.end(), payload.begin(), payload.end());
        }
        out.push_back(datagram);
        if (stride * (i + 1) >= length) break;
    }
    return out;
}

struct Limit {
    long mtu;
    bool keyed;
    uint16_t setting;
    long expected;  // L
};

class StrideTest : public ::testing::TestWithParam<Limit> {};

TEST_P(StrideTest, EveryLengthMatchesTheModel) {
    const Limit c = GetParam();
    ASSERT_EQ(sizeLimit(c.mtu, c.keyed, c.setting), c.expected);
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket(c.mtu);
    size_t lost_tails = 0;
    size_t extra_pieces = 0;
    for (uint16_t own : {uint16_t{0x4000}, uint16_t{0x2000 | 5}}) {
        for (long frame_length = c.expected + 1; frame_length <= 3914; ++frame_length) {
            const Bytes frame = ipv4Frame(static_cast<uint16_t>(frame_length - 14), own);
            FrameBuffer buffer(frame);
            socket.clear();
            send(log.logger, peerV4(socket, 0), buffer.pdu, c.keyed ? &kKey : nullptr, c.setting);
            const std::vector<Bytes> expected = model(frame, c.expected, c.keyed, own);
            ASSERT_EQ(socket.count(), expected.size()) << "frame " << frame_length;
            for (size_t i = 0; i < expected.size(); ++i)
                ASSERT_TRUE(socket.bytes(i) == expected[i])
                    << "frame " << frame_length << " piece " << i << "\n  sent "
                    << hexOf(
                           slice(socket.bytes(i), 0, std::min<size_t>(48, socket.bytes(i).size())))
                    << "\n  want "
                    << hexOf(slice(expected[i], 0, std::min<size_t>(48, expected[i].size())));
            // Bookkeeping of what the stop rule does, to prove both quirks occur.
            const long length = frame_length - 14;
            const long per_piece = (c.expected - 20) & ~7L;
            const long sent_payload =
                std::min<long>(length - 20, static_cast<long>(expected.size()) * per_piece);
            if (sent_payload < length - 20) ++lost_tails;
            if (static_cast<long>(expected.size() - 1) * per_piece >= length - 20) ++extra_pieces;
        }
    }
    EXPECT_GT(lost_tails, 0u);
    if ((c.expected & 7) >= 4) {
        EXPECT_GT(extra_pieces, 0u);
    }
    EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Limits, StrideTest,
                         ::testing::Values(Limit{1480, true, 0, 1434}, Limit{1480, false, 0, 1438},
                                           Limit{1480, true, 1300, 1300},
                                           Limit{1480, false, 1021, 1021}, Limit{576, true, 0, 530},
                                           Limit{1480, true, 68, 68}));

}  // namespace
}  // namespace lumora
