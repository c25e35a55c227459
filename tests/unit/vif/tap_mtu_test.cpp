// Taps whose MTU does not fit the read buffer: one warning when the endpoint
// opens, naming the tap, its MTU and the longest frame a read takes whole;
// a longer frame is dropped with a line, never handed on cut short, and the
// frames around it arrive as they were.
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "vif/TAP"
#include "vif_support.h"

namespace vxbrd_test {
namespace {

using lumora::vif::TAP;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

constexpr unsigned kLongest = TAP::kBufferSize - TAP::kHeadroom;

Bytes frameOf(size_t size, uint8_t seed) {
    Bytes out(size);
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<uint8_t>(seed + i * 7);
    const uint8_t header[14] = {0x00, 0x00, 0x5e, 0x00, 0x53, 0x02, 0x00,
                                0x00, 0x5e, 0x00, 0x53, 0x01, 0x88, 0xb5};
    std::memcpy(out.data(), header, sizeof header);
    return out;
}

class TapMtuTest : public VifNetTest {
  protected:
    std::unique_ptr<TAP> openWithMtu(int mtu) {
        EXPECT_EQ(run("ip -n " + hub + " link set vxtap0 mtu " + std::to_string(mtu)), 0);
        ScopedNetns in(hub);
        return std::make_unique<TAP>(capture.logger(), "vxtap0");
    }
    void sendOut(const Bytes& frame) {
        if (!sender.valid()) sender = socketIn(hub, AF_PACKET, SOCK_RAW, 0);
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(indexIn(hub, "vxtap0"));
        to.sll_halen = 6;
        ASSERT_EQ(sendto(sender.get(), frame.data(), frame.size(), 0,
                         reinterpret_cast<sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(frame.size()))
            << std::strerror(errno);
    }
    lumora::Descriptor sender;
};

TEST_F(TapMtuTest, AnMtuThatFitsGetsNoWarning) {
    auto tap = openWithMtu(static_cast<int>(kLongest) - 14);
    EXPECT_EQ(capture.lines(),
              (Lines{"vxtap0 mtu: " + std::to_string(kLongest - 14), "vxtap0 ready"}));
}

TEST_F(TapMtuTest, AnMtuOf9000IsOneWarningNamingTheLongestFrame) {
    auto tap = openWithMtu(9000);
    EXPECT_EQ(capture.lines(),
              (Lines{"vxtap0 mtu: 9000",
                     "vxtap0 mtu 9000 exceeds the read buffer: frames up to " +
                         std::to_string(kLongest) + " bytes are carried, longer ones are dropped",
                     "vxtap0 ready"}));
}

TEST_F(TapMtuTest, AFrameLongerThanTheReadIsDroppedWithALineAndTheNextArrivesWhole) {
    auto tap = openWithMtu(9000);
    capture.clear();
    const Bytes longest = frameOf(kLongest, 1);
    const Bytes longer = frameOf(kLongest + 1, 2);
    const Bytes jumbo = frameOf(5014, 3);
    const Bytes small = frameOf(60, 4);
    for (const Bytes* frame : {&longer, &longest, &jumbo, &small, &jumbo}) sendOut(*frame);

    std::vector<Bytes> read;
    lumora::pdu::PDU frames[TAP::kMaxBatch];
    while (read.size() < 2) {
        const unsigned count = tap->readBatch(frames);
        for (unsigned i = 0; i < count; ++i) {
            const lumora::pdu::PDU& p = frames[i];
            // Strays of the interface's own (none expected) are skipped.
            if (p.length() < 14 || p._buf[p._begin + 12] != 0x88) continue;
            EXPECT_EQ(p._cap, TAP::kBufferSize);
            EXPECT_EQ(p._begin, TAP::kHeadroom);
            read.emplace_back(p._buf + p._begin, p._buf + p._end);
        }
    }
    EXPECT_EQ(read, (std::vector<Bytes>{longest, small}));
    const std::string dropped =
        "vxtap0: frame longer than " + std::to_string(kLongest) + " bytes dropped";
    // The last jumbo frame may still be queued behind the small one.
    const Lines lines = capture.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(Lines(lines.begin(), lines.begin() + 2), (Lines{dropped, dropped}));
    for (const std::string& line : lines) EXPECT_EQ(line, dropped);
}

}  // namespace
}  // namespace vxbrd_test
