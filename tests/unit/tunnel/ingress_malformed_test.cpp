// Datagrams too short for what their headers announce: every truncation of
// the GRE header, of the inner Ethernet header and of a tagged frame throws
// int 22 and leaves nothing behind (no write, no send, nothing learned, and
// no line but a relay reply's own). Unsupported protocols are dropped with a warning, not thrown.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ingress_support.h"

namespace lumora {
namespace {

using test::Bytes;
using test::hexText;
using test::IngressRig;
using test::WrittenFrames;

class IngressMalformed : public testing::Test {
  protected:
    // Runs the datagram through a fresh rig (IPv4 sender, every kind of
    // endpoint in place) and expects 22 and no trace.
    void expectInvalid(const Bytes& datagram, const std::vector<std::string>& lines = {}) {
        IngressRig rig;
        rig.addTap(0);
        rig.addTap(20);
        rig.forwardVlan(20, "203.0.113.1");
        rig.useForwardSocket();
        SCOPED_TRACE(hexText(datagram));
        EXPECT_EQ(rig.thrown(datagram), 22);
        EXPECT_EQ(rig.log.lines(), lines);
        EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
        EXPECT_EQ(rig.forward.count(), 0u);
        EXPECT_EQ(rig.receiver.count(), 0u);
        EXPECT_EQ(rig.tables.peerCount(), 0u);
        EXPECT_EQ(rig.tables.clientCount(), 0u);
    }

    static Bytes prefix(const Bytes& bytes, size_t n) {
        return Bytes(bytes.begin(), bytes.begin() + static_cast<long>(n));
    }
};

TEST_F(IngressMalformed, FewerThan4Bytes) {
    const Bytes header = test::plainGre();
    for (size_t n = 0; n < 4; ++n) expectInvalid(prefix(header, n));
}

TEST_F(IngressMalformed, EveryTruncationOfTheOptionalWords) {
    // C, K, S alone and together: 8, 12 or 16 bytes of header.
    const std::vector<std::pair<uint8_t, size_t>> headers = {
        {0x80, 8},  {0x20, 8},  {0x10, 8},  {0xa0, 12}, {0x90, 12},
        {0x30, 12}, {0xb0, 16}, {0xb6, 16}, {0xa7, 12}, {0x4f, 4}};
    for (const auto& [flags, length] : headers) {
        const Bytes full = test::greHeader(flags, "65 58", "00 00 00 01 00 00 00 02 00 00 00 03");
        for (size_t n = 0; n < length; ++n) expectInvalid(prefix(full, n));
    }
}

TEST_F(IngressMalformed, AnInnerFrameShorterThanAnEthernetHeader) {
    const Bytes frame = test::untaggedFrame();
    for (const Bytes& gre : {test::plainGre(), test::keyedGre(20), test::plainGre(0x07)})
        for (size_t n = 0; n < 14; ++n) expectInvalid(test::join({gre, prefix(frame, n)}));
}

TEST_F(IngressMalformed, ATaggedFrameShorterThan22Bytes) {
    const Bytes frame = test::taggedFrame(20, "08 06 00 01 02 03");
    ASSERT_EQ(frame.size(), 22u);
    for (const Bytes& gre : {test::plainGre(), test::keyedGre(30)})
        for (size_t n = 14; n < 22; ++n) expectInvalid(test::join({gre, prefix(frame, n)}));
}

TEST_F(IngressMalformed, ShortRelayReplies) {
    const Bytes untagged = test::untaggedFrame();
    for (size_t n = 0; n < 14; ++n)
        expectInvalid(test::join({test::plainGre(0x06), prefix(untagged, n)}));
    // The reply is announced before its tag is read.
    const Bytes tagged = test::taggedFrame(20, "08 06 00 01 02 03");
    for (size_t n = 14; n < 22; ++n)
        expectInvalid(test::join({test::plainGre(0x06), prefix(tagged, n)}),
                      {"Response VYM-VYM packet from 198.51.100.7 on eth0 (ip://192.0.2.1)"});
}

// The boundaries themselves are accepted.
TEST_F(IngressMalformed, The14And22ByteFramesGoThrough) {
    IngressRig rig;
    rig.addTap(0);
    rig.addTap(20);
    const Bytes bare = test::untaggedFrame("88 b5");
    rig.run(
        test::join({test::greHeader(0xb0, "65 58", "00 00 00 00 00 00 00 00 00 00 00 00"), bare}));
    rig.run(test::join({test::plainGre(), test::taggedFrame(20, "08 06 00 01 02 03")}));
    EXPECT_EQ(rig.tapWrites(),
              (WrittenFrames{{"tap0", {hexText(bare)}},
                             {"tap20", {hexText(test::untaggedFrame("08 06 00 01 02 03"))}}}));
}

// An IPv6 sender's relay reply is dropped before its frame is looked into.
TEST_F(IngressMalformed, AShortTaggedRelayReplyFromIPv6IsDroppedNotThrown) {
    IngressRig rig;
    const Bytes tagged = test::taggedFrame(20, "08 06 00 01 02 03");
    EXPECT_NO_THROW(
        rig.run(test::join({test::plainGre(0x06), prefix(tagged, 18)}), rig.fromV6("2001:db8::9")));
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>{});
}

TEST(IngressProtocol, OtherProtocolsAreDroppedWithAWarning) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"08 00", "0x0800"}, {"86 dd", "0x86DD"}, {"88 be", "0x88BE"}, {"00 00", "0x0000"}};
    for (const auto& [protocol, text] : cases) {
        IngressRig rig;
        rig.addTap(0);
        rig.run(test::join({test::greHeader(0x00, protocol), test::untaggedFrame()}));
        EXPECT_EQ(rig.log.lines(), std::vector<std::string>{
                                       std::string("eth0 (ip://192.0.2.1): ignoring unsupported "
                                                   "PDU type, protocol ") +
                                       text});
        EXPECT_EQ(rig.tapWrites(), WrittenFrames{});
        EXPECT_EQ(rig.tables.peerCount(), 0u);
    }
}

// The protocol is checked before the frame's length: a bare 4-byte header of
// another protocol, or a keyed one, is only a warning.
TEST(IngressProtocol, ABareHeaderOfAnotherProtocolIsOnlyAWarning) {
    for (const Bytes& datagram :
         {test::greHeader(0x00, "08 00"), test::greHeader(0x20, "08 00", "00 00 00 07"),
          test::greHeader(0x06, "08 00")}) {
        IngressRig rig;
        EXPECT_NO_THROW(rig.run(datagram));
        EXPECT_EQ(rig.log.lines(),
                  std::vector<std::string>{
                      "eth0 (ip://192.0.2.1): ignoring unsupported PDU type, protocol 0x0800"});
    }
}

}  // namespace
}  // namespace lumora
