// IPv4 header checksum: computed only into a zero field.
#include "pdu/Checksum.h"

#include <gtest/gtest.h>

#include "frames_support.h"
#include "pdu/IPv4.h"

namespace lumora::pdu {
namespace {

using test::Frame;
using test::hexBytes;

TEST(Ipv4HeaderChecksum, ZeroFieldGetsTheComputedChecksum) {
    Frame frame("45 00 00 73 00 00 40 00 40 11 00 00 c0 a8 00 01 c0 a8 00 c7", 14, 0);
    ipv4HeaderChecksum(IPv4PDU::at(frame.pdu(), 14));
    EXPECT_EQ(frame.bytes(),
              hexBytes("45 00 00 73 00 00 40 00 40 11 b8 61 c0 a8 00 01 c0 a8 00 c7"));
}

TEST(Ipv4HeaderChecksum, NonZeroFieldIsKeptEvenWhenWrong) {
    const char* header = "45 00 00 73 00 00 40 00 40 11 12 34 c0 a8 00 01 c0 a8 00 c7";
    Frame frame(header);
    ipv4HeaderChecksum(IPv4PDU::at(frame.pdu(), 0));
    EXPECT_EQ(frame.bytes(), hexBytes(header));
}

TEST(Ipv4HeaderChecksum, OptionsAreSummedButNotThePayload) {
    // IHL 6: the sixth word pair (01 02 03 04) counts; the payload does not.
    Frame frame(
        "46 00 00 1c 00 00 40 00 40 11 00 00 c0 a8 00 01 c0 a8 00 c7 01 02 03 04 ff ff ff ff");
    ipv4HeaderChecksum(IPv4PDU::at(frame.pdu(), 0));
    // 0x4600+0x001c+0x4000+0x4011+0xc0a8+0x0001+0xc0a8+0x00c7+0x0102+0x0304 = 0x24c4b
    // -> 0x4c4d -> complement 0xb3b2.
    EXPECT_EQ(frame.bytes()[10], 0xb3);
    EXPECT_EQ(frame.bytes()[11], 0xb2);
}

TEST(Ipv4HeaderChecksum, FoldsUntilTheSumFitsSixteenBits) {
    // The words add up to 0x4fffc; one fold gives 0x10000, a second gives 1.
    Frame frame("45 ff ff ff ff ff ff ff ff ff 00 00 ba 01 00 00 00 00 00 00");
    ipv4HeaderChecksum(IPv4PDU::at(frame.pdu(), 0));
    EXPECT_EQ(frame.bytes()[10], 0xff);
    EXPECT_EQ(frame.bytes()[11], 0xfe);
}

}  // namespace
}  // namespace lumora::pdu
