// Fragments of inner IPv4 packets: the exact datagrams, byte for byte, with
// and without key and tag; packets that are fragments themselves; IP options;
// the single-fold header checksum; and the lengths whose tail the stop rule
// leaves unsent.
#include <gtest/gtest.h>

#include "encapsulation_support.h"
#include "tunnel/Send.h"

namespace lumora {
namespace {

using namespace test::encap;

const uint32_t kKey = 0x0a0b0c0d;
const char* const kKeyedGre = "20 00 65 58 0a 0b 0c 0d";
const char* const kPlainGre = "00 00 65 58";
// 20-byte fragment header of the test packet with total length, flags/offset
// word and checksum filled in by the caller.
const char* const kHeader = "45 00 %s 1c 46 %s 40 11 %s c0 00 02 01 c6 33 64 02";

Bytes header(const char* total, const char* flags_offset, const char* checksum) {
    char text[128];
    std::snprintf(text, sizeof text, kHeader, total, flags_offset, checksum);
    Bytes h = hex(text);
    // The expected checksum is the textbook one for every header used here.
    EXPECT_EQ(referenceChecksum(h.data(), 20, 5), pdu::load16(h.data() + 10)) << text;
    return h;
}

// Compares a recorded datagram with the expected one: headers as hex text,
// payload as bytes.
void expectDatagram(const Bytes& sent, const Bytes& headers, const Bytes& payload) {
    ASSERT_EQ(sent.size(), headers.size() + payload.size());
    EXPECT_EQ(hexOf(slice(sent, 0, headers.size())), hexOf(headers));
    EXPECT_TRUE(slice(sent, headers.size(), payload.size()) == payload) << "payload differs";
}

TEST(Fragments, A2000BytePacketWithKeyIsCutAt1408PayloadBytes) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(2000);
    const Bytes payload = slice(frame, 34, 1980);
    FrameBuffer buffer(frame);
    send(log.logger, peerV4(socket, 0, "203.0.113.9"), buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 2u);
    expectDatagram(socket.bytes(0),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("05 94", "20 00", "4c dc")}),
                   slice(payload, 0, 1408));
    expectDatagram(socket.bytes(1),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("02 50", "00 b0", "6f 70")}),
                   slice(payload, 1408, 572));
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(socket.at(i).family, static_cast<uint32_t>(AF_INET));
        EXPECT_EQ(socket.at(i).ipv4.s_addr, v4("203.0.113.9").s_addr);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(Fragments, A2000BytePacketWithoutKeyIsCutAt1416PayloadBytes) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(2000);
    const Bytes payload = slice(frame, 34, 1980);
    FrameBuffer buffer(frame);
    send(log.logger, peerV4(socket, 1), buffer.pdu, nullptr, 0);
    ASSERT_EQ(socket.count(), 2u);
    expectDatagram(socket.bytes(0),
                   concat({hex(kPlainGre), hex(kEthernetIPv4), header("05 9c", "20 00", "4c d4")}),
                   slice(payload, 0, 1416));
    expectDatagram(socket.bytes(1),
                   concat({hex(kPlainGre), hex(kEthernetIPv4), header("02 48", "00 b1", "6f 77")}),
                   slice(payload, 1416, 564));
}

TEST(Fragments, EveryFragmentIsTaggedForVlan20) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(2000);
    const Bytes payload = slice(frame, 34, 1980);
    FrameBuffer buffer(frame);
    Destination d = peerV4(socket, 20);
    d.family = AF_INET6;
    d.ipv6 = v6("2001:db8::20");
    send(log.logger, d, buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 2u);
    const Bytes tagged = hex("02 00 5e 00 00 02  02 00 5e 00 00 01  81 00 00 14  08 00");
    expectDatagram(socket.bytes(0),
                   concat({hex(kKeyedGre), tagged, header("05 94", "20 00", "4c dc")}),
                   slice(payload, 0, 1408));
    expectDatagram(socket.bytes(1),
                   concat({hex(kKeyedGre), tagged, header("02 50", "00 b0", "6f 70")}),
                   slice(payload, 1408, 572));
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(socket.at(i).family, static_cast<uint32_t>(AF_INET6));
        EXPECT_EQ(0, std::memcmp(&socket.at(i).ipv6, &d.ipv6, 16));
    }
}

TEST(Fragments, ANonFinalFragmentKeepsMoreFragmentsOnItsLastPiece) {
    // MF set, own offset 100 (800 bytes): offsets count on from 100.
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(2000, 0x2064);
    const Bytes payload = slice(frame, 34, 1980);
    FrameBuffer buffer(frame);
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 2u);
    expectDatagram(socket.bytes(0),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("05 94", "20 64", "4c 78")}),
                   slice(payload, 0, 1408));
    expectDatagram(socket.bytes(1),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("02 50", "21 14", "4f 0c")}),
                   slice(payload, 1408, 572));
}

TEST(Fragments, AFinalFragmentWithAnOffsetEndsWithoutMoreFragments) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(2000, 0x0064);
    FrameBuffer buffer(frame);
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 2u);
    EXPECT_EQ(hexOf(slice(socket.bytes(0), 22, 12)), "45 00 05 94 1c 46 20 64 40 11 4c 78");
    EXPECT_EQ(hexOf(slice(socket.bytes(1), 22, 12)), "45 00 02 50 1c 46 01 14 40 11 6f 0c");
}

TEST(Fragments, OptionsAreNotRepeatedAndTravelAsPayloadOfTheFirstPiece) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame =
        concat({hex(kEthernetIPv4),
                hex("46 00 07 d0 1c 46 40 00 40 11 be ef c0 00 02 01 c6 33 64 02  01 01 01 00"),
                pattern(1976)});
    FrameBuffer buffer(frame);
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 2u);
    // Everything behind the fixed 20 bytes, options included, is payload.
    const Bytes payload = slice(frame, 34, 1980);
    EXPECT_EQ(hexOf(slice(payload, 0, 6)), "01 01 01 00 00 07");
    expectDatagram(socket.bytes(0),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("05 94", "20 00", "4c dc")}),
                   slice(payload, 0, 1408));
    expectDatagram(socket.bytes(1),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("02 50", "00 b0", "6f 70")}),
                   slice(payload, 1408, 572));
}

TEST(Fragments, TheSmallestLimitOf68CutsAt48PayloadBytes) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(100);
    const Bytes payload = slice(frame, 34, 80);
    FrameBuffer buffer(frame);
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 68);
    ASSERT_EQ(socket.count(), 2u);
    expectDatagram(socket.bytes(0),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("00 44", "20 00", "52 2c")}),
                   slice(payload, 0, 48));
    expectDatagram(socket.bytes(1),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("00 34", "00 06", "72 36")}),
                   slice(payload, 48, 32));
}

TEST(FragmentChecksum, OneFoldOnlyACarryOutOfTheFoldIsDropped) {
    // The nine words sum to 0x3fffd: one fold gives 0x10000, whose low half
    // 0x0000 complements to 0xffff; folding to the end would give 0xfffe.
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame =
        concat({hex(kEthernetIPv4),
                hex("45 ff 05 8d 4c 44 40 00 ff fe 12 34 cb 00 71 fe c6 33 64 fe"), pattern(1401)});
    FrameBuffer buffer(frame);
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 1u);
    const Bytes sent = socket.bytes(0);
    EXPECT_EQ(hexOf(slice(sent, 22, 20)),
              "45 ff 05 8d 4c 44 00 00 ff fe ff ff cb 00 71 fe c6 33 64 fe");
    EXPECT_EQ(referenceChecksum(sent.data() + 22, 20, 5), 0xfffe);
}

TEST(FragmentStopRule, ATailInTheGapBetweenTheStridesIsNeverSent) {
    // Key, L 1434: pieces advance by 1408 payload bytes, the stop rule by 1432.
    // A 1432-byte packet stops after one piece of 1408 payload bytes: the last
    // four bytes are not sent and the piece still says more fragments follow.
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(1432);
    FrameBuffer buffer(frame);
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 1u);
    expectDatagram(socket.bytes(0),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("05 94", "20 00", "4c dc")}),
                   slice(frame, 34, 1408));
}

TEST(FragmentStopRule, APacketNeedingThreePiecesGetsTwo) {
    // 2850 bytes need three pieces of 1408; 2 x 1432 >= 2850 stops after two.
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(2850);
    FrameBuffer buffer(frame);
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 0);
    ASSERT_EQ(socket.count(), 2u);
    expectDatagram(socket.bytes(0),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("05 94", "20 00", "4c dc")}),
                   slice(frame, 34, 1408));
    expectDatagram(socket.bytes(1),
                   concat({hex(kKeyedGre), hex(kEthernetIPv4), header("05 94", "20 b0", "4c 2c")}),
                   slice(frame, 34 + 1408, 1408));
}

TEST(FragmentStopRule, WhenTheStridesDifferBy16AWholeFirstPieceIsFollowedByAnEmptyOne) {
    // No key, L 1438: pieces of 1416, stop stride 1432. A 1436-byte packet fits
    // the first piece whole, yet 1432 < 1436 asks for a second: a bare header
    // at offset 1416 (177 units), written over the last 20 bytes already sent.
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(1436);
    FrameBuffer buffer(frame);
    send(log.logger, peerV4(socket, 0), buffer.pdu, nullptr, 0);
    ASSERT_EQ(socket.count(), 2u);
    expectDatagram(socket.bytes(0),
                   concat({hex(kPlainGre), hex(kEthernetIPv4), header("05 9c", "00 00", "6c d4")}),
                   slice(frame, 34, 1416));
    expectDatagram(socket.bytes(1),
                   concat({hex(kPlainGre), hex(kEthernetIPv4), header("00 14", "00 b1", "71 ab")}),
                   {});
}

TEST(FragmentStopRule, APieceShorterThanAHeaderIsSentCutAndNeverWrittenPastTheBuffer) {
    // No key, 1433 bytes: the second piece starts 17 bytes before the end. Its
    // 20-byte header is built over the 17 bytes and the 3 beyond _end, and the
    // datagram ends at _end.
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    const Bytes frame = ipv4Frame(1433);
    FrameBuffer roomy(frame, 64, 3);
    send(log.logger, peerV4(socket, 0), roomy.pdu, nullptr, 0);
    ASSERT_EQ(socket.count(), 2u);
    EXPECT_EQ(socket.bytes(0).size(), 4u + 1447u);
    EXPECT_EQ(hexOf(socket.bytes(1)),
              "00 00 65 58 02 00 5e 00 00 02 02 00 5e 00 00 01 08 00 "
              "45 00 00 11 1c 46 00 b1 40 11 71 ae c0 00 02 01 c6");
    // When those 3 bytes lie beyond the buffer itself, the piece is refused
    // with 22 instead; what was sent stays sent.
    socket.clear();
    FrameBuffer tight(frame, 64, 0);
    EXPECT_EQ(thrownInt([&] { send(log.logger, peerV4(socket, 0), tight.pdu, nullptr, 0); }), 22);
    EXPECT_EQ(socket.count(), 1u);
    EXPECT_EQ(tight.pdu._cap, tight.pdu._end);
}

TEST(NextFragment, BuildsOnePieceInPlaceAndRefusesOffsetsBeyondThePacket) {
    const Bytes frame = ipv4Frame(2000);
    FrameBuffer buffer(frame);
    const auto packet = pdu::IPv4PDU::at(buffer.pdu, 64 + 14);
    FragmentState state{packet, 1434, 0, 0, false};
    const pdu::IPv4PDU first = nextFragment(state);
    EXPECT_EQ(first._begin, 78);
    EXPECT_EQ(first._end, 78 + 1428);
    EXPECT_EQ(hexOf(slice(bytesOf(first), 0, 20)),
              "45 00 05 94 1c 46 20 00 40 11 4c dc c0 00 02 01 c6 33 64 02");
    state.index = 1;
    const pdu::IPv4PDU second = nextFragment(state);
    EXPECT_EQ(second._begin, 78 + 1408);
    EXPECT_EQ(second._end, 78 + 2000);
    EXPECT_EQ(hexOf(slice(bytesOf(second), 0, 20)),
              "45 00 02 50 1c 46 00 b0 40 11 6f 70 c0 00 02 01 c6 33 64 02");
    state.index = 2;  // offset 2816 > 2000
    EXPECT_EQ(thrownInt([&] { nextFragment(state); }), 22);
}

}  // namespace
}  // namespace lumora
