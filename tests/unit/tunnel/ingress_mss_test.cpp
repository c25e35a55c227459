// MSS clamping of TCP connection openings that come out of the tunnel: a SYN
// is clamped, a SYN+ACK is not (the host's own SYN+ACK is clamped on the way
// out instead); fragments and other protocols are left alone, and a TCP
// header that cannot be read is reported.
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

// 192.0.2.10 -> 198.51.100.20, TCP, no options; checksum field left 0.
constexpr const char* kIPv4 = "45 00 00 2c 00 01 40 00 40 06 00 00 c0 00 02 0a c6 33 64 14";
// Port 49153 -> 80, data offset 6 words: one option, MSS 1460; checksum 0x1234.
std::string tcp(const char* flags, const char* mss = "05 b4", const char* checksum = "12 34") {
    return std::string("c0 01 00 50 00 00 00 01 00 00 00 00 60 ") + flags + " ff ff " + checksum +
           " 00 00 02 04 " + mss;
}

Bytes ipv4Frame(const std::string& ip, const std::string& segment) {
    return test::untaggedFrame(("08 00 " + ip + " " + segment).c_str());
}

class IngressMss : public testing::Test {
  protected:
    IngressMss() { rig.addTap(0); }

    // Runs the frame untagged and returns what the tap got.
    std::vector<std::string> through(const Bytes& frame) {
        rig.run(test::join({test::plainGre(), frame}));
        return rig.tapWrites()["tap0"];
    }

    IngressRig rig;
};

TEST_F(IngressMss, ASynIsClampedAndItsChecksumPatched) {
    // 1460 - 1380 = 80 = 0x50 added to the checksum field.
    EXPECT_EQ(through(ipv4Frame(kIPv4, tcp("02"))),
              std::vector<std::string>{hexText(ipv4Frame(kIPv4, tcp("02", "05 64", "12 84")))});
    std::vector<std::string> expected = test::learnedLines(0, "");
    expected.push_back("clamping MSS");
    EXPECT_EQ(rig.log.lines(), expected);
}

TEST_F(IngressMss, TheConfiguredMssIsTheLimit) {
    rig.config.mss = 536;
    // 1460 - 536 = 924 = 0x39c.
    EXPECT_EQ(through(ipv4Frame(kIPv4, tcp("02"))),
              std::vector<std::string>{hexText(ipv4Frame(kIPv4, tcp("02", "02 18", "15 d0")))});
}

TEST_F(IngressMss, AnMssAtOrBelowTheLimitStays) {
    rig.config.mss = 1460;
    const Bytes frame = ipv4Frame(kIPv4, tcp("02"));
    EXPECT_EQ(through(frame), std::vector<std::string>{hexText(frame)});
    EXPECT_EQ(rig.log.lines(), test::learnedLines(0, ""));
}

TEST_F(IngressMss, ASynAckIsNotClamped) {
    const Bytes frame = ipv4Frame(kIPv4, tcp("12"));
    EXPECT_EQ(through(frame), std::vector<std::string>{hexText(frame)});
    EXPECT_EQ(rig.log.lines(), test::learnedLines(0, ""));
}

TEST_F(IngressMss, OtherSegmentsAreNotClamped) {
    for (const char* flags : {"10", "18", "00", "01", "04"}) {
        IngressRig fresh;
        fresh.addTap(0);
        const Bytes frame = ipv4Frame(kIPv4, tcp(flags));
        fresh.run(test::join({test::plainGre(), frame}));
        EXPECT_EQ(fresh.tapWrites(), (WrittenFrames{{"tap0", {hexText(frame)}}})) << flags;
    }
}

// Other flags next to SYN (ECE, CWR, PSH, FIN) do not matter, ACK does.
TEST_F(IngressMss, ASynWithOtherFlagsIsClamped) {
    EXPECT_EQ(through(ipv4Frame(kIPv4, tcp("c2"))),
              std::vector<std::string>{hexText(ipv4Frame(kIPv4, tcp("c2", "05 64", "12 84")))});
}

TEST_F(IngressMss, FragmentsAreNotClamped) {
    // More fragments set; then a non-zero offset.
    const Bytes first =
        ipv4Frame("45 00 00 2c 00 01 20 00 40 06 00 00 c0 00 02 0a c6 33 64 14", tcp("02"));
    const Bytes later =
        ipv4Frame("45 00 00 2c 00 01 00 03 40 06 00 00 c0 00 02 0a c6 33 64 14", tcp("02"));
    through(first);
    EXPECT_EQ(through(later), (std::vector<std::string>{hexText(first), hexText(later)}));
}

TEST_F(IngressMss, IPv4OptionsAreSkippedToFindTheSegment) {
    const char* with_option =
        "46 00 00 30 00 01 40 00 40 06 00 00 c0 00 02 0a c6 33 64 14 01 01 01 00";
    EXPECT_EQ(
        through(ipv4Frame(with_option, tcp("02"))),
        std::vector<std::string>{hexText(ipv4Frame(with_option, tcp("02", "05 64", "12 84")))});
}

TEST_F(IngressMss, ATaggedSynIsClampedOnceTheTagIsOff) {
    rig.addTap(20);
    const std::string rest = "08 00 " + std::string(kIPv4) + " " + tcp("02");
    rig.run(test::join({test::plainGre(), test::taggedFrame(20, rest.c_str())}));
    EXPECT_EQ(rig.tapWrites(),
              (WrittenFrames{{"tap20", {hexText(ipv4Frame(kIPv4, tcp("02", "05 64", "12 84")))}}}));
}

TEST_F(IngressMss, UdpAndOtherEthertypesAreLeftAlone) {
    const Bytes udp =
        ipv4Frame("45 00 00 2c 00 01 40 00 40 11 00 00 c0 00 02 0a c6 33 64 14", tcp("02"));
    const Bytes arp = test::untaggedFrame(("08 06 " + tcp("02")).c_str());
    through(udp);
    EXPECT_EQ(through(arp), (std::vector<std::string>{hexText(udp), hexText(arp)}));
}

// An IHL below 5 is no IPv4 header to look behind: written, not reported.
TEST_F(IngressMss, AShortIhlIsNotLookedInto) {
    const Bytes frame =
        ipv4Frame("44 00 00 2c 00 01 40 00 40 06 00 00 c0 00 02 0a c6 33 64 14", tcp("02"));
    EXPECT_EQ(through(frame), std::vector<std::string>{hexText(frame)});
    EXPECT_EQ(rig.log.lines(), test::learnedLines(0, ""));
}

constexpr const char* kInvalidTcp =
    "Invalid TCP packet from peer 198.51.100.7 vlan 0 from client 02:00:5e:00:00:0a";

TEST_F(IngressMss, ADataOffsetBelow5IsReported) {
    // Data offset 4 words.
    const Bytes frame = ipv4Frame(kIPv4,
                                  "c0 01 00 50 00 00 00 01 00 00 00 00 40 02 ff ff 12 34 00 00 "
                                  "02 04 05 b4");
    // Reported, and the frame still goes to the host.
    EXPECT_EQ(through(frame), std::vector<std::string>{hexText(frame)});
    std::vector<std::string> expected = test::learnedLines(0, "");
    expected.push_back(kInvalidTcp);
    EXPECT_EQ(rig.log.lines(), expected);
}

TEST_F(IngressMss, ATruncatedTcpHeaderIsReported) {
    const Bytes frame = ipv4Frame(kIPv4, "c0 01 00 50 00 00 00 01 00 00 00 00 60 02 ff ff 12 34");
    EXPECT_EQ(through(frame), std::vector<std::string>{hexText(frame)});
    EXPECT_EQ(rig.log.lines().back(), kInvalidTcp);
}

TEST_F(IngressMss, AnOptionListBeyondTheSegmentIsReported) {
    // Data offset 8 words (32 bytes) but only 24 bytes of segment.
    const Bytes frame = ipv4Frame(kIPv4,
                                  "c0 01 00 50 00 00 00 01 00 00 00 00 80 02 ff ff 12 34 00 00 "
                                  "02 04 05 b4");
    EXPECT_EQ(through(frame), std::vector<std::string>{hexText(frame)});
    EXPECT_EQ(rig.log.lines().back(), kInvalidTcp);
}

TEST_F(IngressMss, TheReportNamesAnIPv6PeerAndThePolicyVlan) {
    rig.config.gre_key_mode = VlanMap;
    rig.addTap(30);
    const std::string rest =
        "08 00 " + std::string(kIPv4) + " c0 01 00 50 00 00 00 01 00 00 00 00 10 02 ff ff 12 34";
    rig.run(test::join({test::keyedGre(30), test::taggedFrame(20, rest.c_str())}),
            rig.fromV6("2001:db8::7"));
    EXPECT_EQ(rig.log.lines().back(),
              "Invalid TCP packet from peer 2001:db8::7 vlan 30 from client 02:00:5e:00:00:0a");
}

TEST_F(IngressMss, TheClampLineIsDebugOnly) {
    rig.log.logger.level = Info;
    EXPECT_EQ(through(ipv4Frame(kIPv4, tcp("02"))),
              std::vector<std::string>{hexText(ipv4Frame(kIPv4, tcp("02", "05 64", "12 84")))});
    EXPECT_EQ(rig.log.lines(), test::learnedLines(0, ""));
}

}  // namespace
}  // namespace lumora
