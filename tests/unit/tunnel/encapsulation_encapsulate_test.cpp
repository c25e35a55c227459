// encapsulate(): the 802.1Q tag for VLAN 2 and above, the GRE header with and
// without key, the headroom each needs, and the length checks on the frame.
#include <gtest/gtest.h>

#include "encapsulation_support.h"
#include "tunnel/Send.h"

namespace lumora {
namespace {

using namespace test::encap;

// A short ARP request: 14 bytes of Ethernet, 28 of ARP.
const char* const kArp =
    "ff ff ff ff ff ff  02 00 5e 00 00 01  08 06"
    "00 01 08 00 06 04 00 01  02 00 5e 00 00 01 c0 00 02 01"
    "00 00 00 00 00 00 c0 00 02 09";

const uint32_t kKey = 0x0a0b0c0d;

TEST(Encapsulate, KeyAndVlan20GiveTagThenKeyedGreHeader) {
    FrameBuffer buffer(hex(kArp));
    const pdu::PDU out = encapsulate(buffer.pdu, 20, &kKey);
    EXPECT_EQ(out._begin, 64 - 4 - 8);
    EXPECT_EQ(out._end, 64 + 42);
    EXPECT_EQ(out._cap, 4096);
    EXPECT_EQ(hexOf(bytesOf(out)),
              hexOf(hex("20 00 65 58 0a 0b 0c 0d"
                        "ff ff ff ff ff ff  02 00 5e 00 00 01  81 00 00 14  08 06"
                        "00 01 08 00 06 04 00 01  02 00 5e 00 00 01 c0 00 02 01"
                        "00 00 00 00 00 00 c0 00 02 09")));
}

TEST(Encapsulate, WithoutKeyTheGreHeaderIsFourBytes) {
    FrameBuffer buffer(hex(kArp));
    const pdu::PDU out = encapsulate(buffer.pdu, 0, nullptr);
    EXPECT_EQ(out._begin, 60);
    EXPECT_EQ(hexOf(bytesOf(out)), hexOf(concat({hex("00 00 65 58"), hex(kArp)})));
}

TEST(Encapsulate, Vlans0And1LeaveUntaggedAnd2IsTagged) {
    for (uint16_t vlan : {0, 1}) {
        FrameBuffer buffer(hex(kArp));
        EXPECT_EQ(hexOf(bytesOf(encapsulate(buffer.pdu, vlan, &kKey))),
                  hexOf(concat({hex("20 00 65 58 0a 0b 0c 0d"), hex(kArp)})))
            << "vlan " << vlan;
    }
    FrameBuffer buffer(hex(kArp));
    const Bytes out = bytesOf(encapsulate(buffer.pdu, 2, nullptr));
    EXPECT_EQ(hexOf(slice(out, 0, 22)),
              "00 00 65 58 ff ff ff ff ff ff 02 00 5e 00 00 01 81 00 00 02 08 06");
    EXPECT_EQ(slice(out, 22, 28), slice(hex(kArp), 14, 28));
}

TEST(Encapsulate, TheTagCarriesOnlyTwelveBitsWithPriorityAndDeiZero) {
    FrameBuffer high(hex(kArp));
    EXPECT_EQ(hexOf(slice(bytesOf(encapsulate(high.pdu, 4095, nullptr)), 16, 4)), "81 00 0f ff");
    FrameBuffer wrapped(hex(kArp));
    EXPECT_EQ(hexOf(slice(bytesOf(encapsulate(wrapped.pdu, 0xf014, nullptr)), 16, 4)),
              "81 00 00 14");
}

TEST(Encapsulate, TaggingNeedsEighteenBytes) {
    Bytes frame = slice(hex(kArp), 0, 17);
    FrameBuffer short_frame(frame);
    EXPECT_EQ(thrownInt([&] { encapsulate(short_frame.pdu, 2, nullptr); }), 22);
    frame.push_back(0x00);
    FrameBuffer just_enough(frame);
    EXPECT_EQ(hexOf(bytesOf(encapsulate(just_enough.pdu, 2, nullptr))),
              "00 00 65 58 ff ff ff ff ff ff 02 00 5e 00 00 01 81 00 00 02 08 06 00 01 08 00");
}

TEST(Encapsulate, HeadroomForTheTagAndTheHeader) {
    struct Case {
        uint16_t begin;
        uint16_t vlan;
        bool keyed;
        int thrown;  // 0: succeeds
    };
    const Case cases[] = {
        {7, 0, true, 55},  {8, 0, true, 0},   {3, 0, false, 55}, {4, 0, false, 0},
        {3, 2, false, 55}, {7, 2, false, 55}, {8, 2, false, 0},  {11, 2, true, 55},
        {12, 2, true, 0},  {0, 1, false, 55}, {0, 0, true, 55},
    };
    for (const Case& c : cases) {
        FrameBuffer buffer(hex(kArp), c.begin);
        const uint32_t* key = c.keyed ? &kKey : nullptr;
        if (c.thrown != 0) {
            EXPECT_EQ(thrownInt([&] { encapsulate(buffer.pdu, c.vlan, key); }), c.thrown)
                << "begin " << c.begin << " vlan " << c.vlan << " keyed " << c.keyed;
        } else {
            const pdu::PDU out = encapsulate(buffer.pdu, c.vlan, key);
            EXPECT_EQ(out._begin, 0) << "begin " << c.begin << " vlan " << c.vlan;
        }
    }
}

TEST(Encapsulate, FramesShorterThanFourBytesAreRefused) {
    for (size_t n = 0; n < 4; ++n) {
        FrameBuffer buffer(slice(hex("00 00 00 00"), 0, n));
        EXPECT_EQ(thrownInt([&] { encapsulate(buffer.pdu, 0, nullptr); }), 22) << n << " bytes";
    }
    FrameBuffer four(hex("00 00 00 00"));
    EXPECT_EQ(hexOf(bytesOf(encapsulate(four.pdu, 0, nullptr))), "00 00 65 58 00 00 00 00");
}

TEST(Encapsulate, FramesShorterThanTheirOwnGreHeaderLengthAreRefused) {
    // First byte 0xb0 reads as C, K and S: a 16-byte header. 0x20 (K): 8 bytes.
    const Bytes sixteen = hex("b0 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
    FrameBuffer fifteen(slice(sixteen, 0, 15));
    EXPECT_EQ(thrownInt([&] { encapsulate(fifteen.pdu, 0, &kKey); }), 22);
    FrameBuffer enough(sixteen);
    EXPECT_EQ(encapsulate(enough.pdu, 0, &kKey).length(), 24);

    const Bytes eight = hex("20 00 00 00 00 00 00 00");
    FrameBuffer seven(slice(eight, 0, 7));
    EXPECT_EQ(thrownInt([&] { encapsulate(seven.pdu, 0, nullptr); }), 22);
    FrameBuffer exactly(eight);
    EXPECT_EQ(encapsulate(exactly.pdu, 0, nullptr).length(), 12);

    // 0x80 (C alone) and 0x10 (S alone) each ask for 8 bytes as well.
    for (const char* text : {"80 00 00 00 00 00 00", "10 00 00 00 00 00 00"}) {
        FrameBuffer buffer(hex(text));
        EXPECT_EQ(thrownInt([&] { encapsulate(buffer.pdu, 0, nullptr); }), 22) << text;
    }
    // Tagged, the check reads the frame's new first byte: the destination MAC.
    FrameBuffer tagged(hex("b0 00 00 00 00 00  02 00 5e 00 00 01  08 00 00 00 00 00"));
    EXPECT_EQ(encapsulate(tagged.pdu, 5, nullptr).length(), 4 + 22);
}

TEST(Encapsulate, TheFrameAfterTheMacsIsNotMoved) {
    // Only the 12 MAC bytes move; the ethertype and payload stay in place.
    FrameBuffer buffer(hex(kArp));
    encapsulate(buffer.pdu, 7, nullptr);
    EXPECT_EQ(hexOf(buffer.storage.data() + 64 + 8, 10), "81 00 00 07 08 06 00 01 08 00");
}

}  // namespace
}  // namespace lumora
