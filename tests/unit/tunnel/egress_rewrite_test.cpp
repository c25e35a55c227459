// What the egress path changes in a frame before it leaves: an ARP reply
// carrying the tap's own MAC gets the parent interface's, a zero IPv4 header
// checksum is filled in when "ipchksum" is on, a SYN's MSS is clamped, and an
// IPv4 frame beyond the tunnel's size limit goes out in fragments.
#include <gtest/gtest.h>

#include "egress_support.h"

namespace lumora {
namespace {

using test::Bytes;
using test::datagram;
using test::hexBytes;
using test::join;

class EgressRewrite : public testing::Test {
  protected:
    EgressRewrite() { rig.learnClient(test::kClientA, test::kPeerA, 20); }

    Bytes toClient(const char* source, const char* rest) {
        return join({hexBytes(test::kClientA), hexBytes(source), hexBytes(rest)});
    }

    test::EgressRig rig;
};

const char* const kTapMac = "02 00 5e 00 00 77";
const char* const kParentMac = "02 00 5e 00 00 99";

// An ARP reply (operation 2) whose sender is mac, to the client.
std::string arpReply(const char* mac) {
    return std::string("08 06  00 01 08 00 06 04 00 02 ") + mac +
           " c0 00 02 01  02 00 5e 00 00 0a c0 00 02 0a";
}

TEST_F(EgressRewrite, AnArpReplyWithTheTapsMacGetsTheParentsMac) {
    rig.interfaces["tap20"] = {0x02, 0x00, 0x5e, 0x00, 0x00, 0x77};
    rig.interfaces["eth0"] = {0x02, 0x00, 0x5e, 0x00, 0x00, 0x99};
    rig.parents["tap20"] = "eth0";
    rig.run(toClient(kTapMac, arpReply(kTapMac).c_str()));
    EXPECT_EQ(rig.sent(),
              (std::vector<std::string>{
                  "198.51.100.7: " +
                  datagram("00 00 65 58", toClient(kParentMac, arpReply(kParentMac).c_str()))}));
    EXPECT_EQ(rig.log.lines(),
              std::vector<std::string>{"Incorrect ARP Reply MAC address (tap20). Re-writing "
                                       "with eth0 mac 02:00:5e:00:00:99"});
}

TEST_F(EgressRewrite, AnArpReplyWithAnotherSenderIsLeftAlone) {
    rig.interfaces["tap20"] = {0x02, 0x00, 0x5e, 0x00, 0x00, 0x77};
    rig.interfaces["eth0"] = {0x02, 0x00, 0x5e, 0x00, 0x00, 0x99};
    rig.parents["tap20"] = "eth0";
    const Bytes frame = toClient(test::kHost, arpReply(test::kHost).c_str());
    rig.run(frame);
    EXPECT_EQ(rig.sent(),
              (std::vector<std::string>{"198.51.100.7: " + datagram("00 00 65 58", frame)}));
    EXPECT_EQ(rig.log.lines(), std::vector<std::string>{});
}

// A UDP datagram whose IPv4 header checksum field is zero; f6 a7 is its sum.
const char* const kUdpNoSum =
    "08 00  45 00 00 20 00 07 00 00 40 11 00 00 c0 00 02 0a c0 00 02 14"
    "04 00 00 35 00 0c 00 00  61 62 63 64";
const char* const kUdpSum =
    "08 00  45 00 00 20 00 07 00 00 40 11 f6 a7 c0 00 02 0a c0 00 02 14"
    "04 00 00 35 00 0c 00 00  61 62 63 64";

TEST_F(EgressRewrite, IpchksumFillsAZeroHeaderChecksum) {
    rig.config.ipchksum = true;
    rig.run(toClient(test::kHost, kUdpNoSum));
    EXPECT_EQ(rig.sent(),
              (std::vector<std::string>{"198.51.100.7: " +
                                        datagram("00 00 65 58", toClient(test::kHost, kUdpSum))}));
}

TEST_F(EgressRewrite, WithoutIpchksumAZeroChecksumStays) {
    const Bytes frame = toClient(test::kHost, kUdpNoSum);
    rig.run(frame);
    EXPECT_EQ(rig.sent(),
              (std::vector<std::string>{"198.51.100.7: " + datagram("00 00 65 58", frame)}));
}

// A SYN from 192.0.2.1:1024 to 192.0.2.10:80 with MSS 1460 (05 b4).
const char* const kSyn1460 =
    "08 00  45 00 00 2c 00 01 00 00 40 06 f6 b8 c0 00 02 01 c0 00 02 0a"
    "04 00 00 50 00 00 00 01 00 00 00 00 60 02 ff ff 0c 58 00 00  02 04 05 b4";
// The same SYN clamped to the default 1380 (05 64): the TCP sum moves by 0x50.
const char* const kSyn1380 =
    "08 00  45 00 00 2c 00 01 00 00 40 06 f6 b8 c0 00 02 01 c0 00 02 0a"
    "04 00 00 50 00 00 00 01 00 00 00 00 60 02 ff ff 0c a8 00 00  02 04 05 64";

TEST_F(EgressRewrite, ASynsMssIsClampedWithADebugLine) {
    rig.log.logger.level = Debug;
    rig.run(toClient(test::kHost, kSyn1460));
    ASSERT_EQ(rig.socket.count(), 1u);
    EXPECT_EQ(test::hexText(rig.socket.bytes(0)),
              datagram("00 00 65 58", toClient(test::kHost, kSyn1380)));
    const std::vector<std::string> lines = rig.log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "clamping MSS to GRE");
}

TEST_F(EgressRewrite, AnIPv4FrameBeyondTheLimitLeavesInFragments) {
    // The socket's MTU 1480 leaves 1438 bytes for an unkeyed frame; the
    // fragments' sizes are the fragmentation's own (see the encapsulation
    // tests), what matters here is that the egress path cuts the frame.
    Bytes frame = toClient(test::kHost, kUdpSum);
    const size_t payload = 1500 - 20 - 8;
    frame.resize(14 + 20 + 8 + payload, 0x5a);
    pdu::store16(frame.data() + 16, static_cast<uint16_t>(20 + 8 + payload));
    pdu::store16(frame.data() + 24, 0);  // header checksum: not looked at here
    rig.run(frame);
    ASSERT_EQ(rig.socket.count(), 2u);
    EXPECT_EQ(rig.socket.bytes(0).size(), 1454u);
    EXPECT_EQ(rig.socket.bytes(1).size(), 102u);
    // The first carries the MF flag, the last does not.
    EXPECT_EQ(rig.socket.bytes(0)[4 + 14 + 6] & 0x20, 0x20);
    EXPECT_EQ(rig.socket.bytes(1)[4 + 14 + 6] & 0x20, 0x00);
    // Everything after the first fragment's IPv4 header arrives, in order.
    const Bytes first = rig.socket.bytes(0);
    const Bytes second = rig.socket.bytes(1);
    EXPECT_EQ(first.size() - 4 - 14 - 20 + second.size() - 4 - 14 - 20, 8u + payload);
}

}  // namespace
}  // namespace lumora
