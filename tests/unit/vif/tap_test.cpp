// The tap endpoint against real tap interfaces in the hub namespace: frames
// sent out of the interface with a packet socket are what read returns, and
// frames written appear on the interface.
#include "vif/TAP"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "vif/IP"
#include "vif_support.h"

namespace vxbrd_test {
namespace {

using lumora::vif::TAP;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

constexpr uint16_t kTestEtherType = 0x88B5;  // IEEE local experimental

const Bytes kTapMac = {0x00, 0x00, 0x5e, 0x00, 0x53, 0x01};
const Bytes kOtherMac = {0x00, 0x00, 0x5e, 0x00, 0x53, 0x02};

Bytes ethernetFrame(const Bytes& destination, const Bytes& source, size_t size) {
    Bytes out(size);
    for (size_t i = 14; i < size; ++i) out[i] = static_cast<uint8_t>(i * 13 + 5);
    std::copy(destination.begin(), destination.end(), out.begin());
    std::copy(source.begin(), source.end(), out.begin() + 6);
    out[12] = kTestEtherType >> 8;
    out[13] = kTestEtherType & 0xFF;
    return out;
}

// A blocking tap read that never returns must not hang the suite: SIGALRM
// without SA_RESTART makes the read fail with EINTR instead.
void onAlarm(int) {}
struct ReadDeadline {
    explicit ReadDeadline(unsigned seconds) {
        struct sigaction action {};
        action.sa_handler = onAlarm;
        sigemptyset(&action.sa_mask);
        sigaction(SIGALRM, &action, &previous);
        alarm(seconds);
    }
    ~ReadDeadline() {
        alarm(0);
        sigaction(SIGALRM, &previous, nullptr);
    }
    struct sigaction previous {};
};

template <typename F>
int errorOf(F f) {
    try {
        f();
    } catch (int error) {
        return error;
    }
    return -1;
}

class TapTest : public VifNetTest {
  protected:
    std::unique_ptr<TAP> open(const char* interface) {
        ScopedNetns in(hub);
        return std::make_unique<TAP>(capture.logger(), interface);
    }
    // Sends frame out of vxtap0 from the host side, so that the tap reads it.
    void sendOut(const Bytes& frame) {
        if (!sender.valid()) sender = socketIn(hub, AF_PACKET, SOCK_RAW, 0);
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(indexIn(hub, "vxtap0"));
        to.sll_halen = 6;
        std::copy(kOtherMac.begin(), kOtherMac.end(), to.sll_addr);
        ASSERT_EQ(sendto(sender.get(), frame.data(), frame.size(), 0,
                         reinterpret_cast<sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(frame.size()))
            << std::strerror(errno);
    }
    // The next frame of ours the tap reads. Nothing else should leave the
    // interface, but strays are skipped all the same.
    static lumora::pdu::PDU readOurs(TAP& tap) {
        lumora::pdu::PDU p;
        for (int i = 0; i < 8; ++i) {
            p = tap.read();
            if (p.length() >= 14 && p._buf[p._begin + 12] == 0x88 && p._buf[p._begin + 13] == 0xB5)
                break;
        }
        return p;
    }
    lumora::Descriptor sender;
};

TEST_F(TapTest, OpensUnderTheKernelNameWithItsMacAndMtu) {
    const int before = openDescriptors();
    {
        auto tap = open("vxtap0");
        EXPECT_STREQ(tap->name(), "vxtap0");
        EXPECT_EQ(tap->mtu(), 1400);
        const std::array<uint8_t, 6> mac = tap->mac();
        EXPECT_EQ(Bytes(mac.begin(), mac.end()), kTapMac);
        EXPECT_EQ(capture.lines(), (Lines{"vxtap0 mtu: 1400", "vxtap0 ready"}));
        EXPECT_NE(flagsIn(hub, "vxtap0") & IFF_UP, 0) << "interface not brought up";
        // The device, and its write ring where the kernel gave one.
        EXPECT_EQ(openDescriptors(), before + 1 + (tap->batchedWrites() ? 1 : 0));
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(TapTest, MissingDeviceFailsAtOpenUnderTheDevicePath) {
    const int before = openDescriptors();
    EXPECT_EQ(errorOf([&] { open("vxnone0"); }), 19);  // ENODEV
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(capture.lines(), Lines{"/dev/vxnone0 open(): No such device"});
}

TEST_F(TapTest, FailureAfterOpenClosesTheDevice) {
    auto first = open("vxtap0");
    capture.clear();
    const int before = openDescriptors();
    // Attached already: the kernel refuses a second owner.
    EXPECT_EQ(errorOf([&] { open("vxtap0"); }), 16);  // EBUSY
    // A tun interface is not a tap.
    EXPECT_EQ(errorOf([&] { open("vxtun0"); }), 22);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(capture.lines(), (Lines{"/dev/vxtap0 TUNSETIFF: Device or resource busy",
                                      "/dev/vxtun0 TUNSETIFF: Invalid argument"}));
}

TEST_F(TapTest, MtuRangeIs72To1500AndReachesTheKernel) {
    auto tap = open("vxtap0");
    capture.clear();
    {
        // The MTU goes to the interface through a socket of its namespace.
        ScopedNetns in(hub);
        tap->setMtu(72);
        EXPECT_EQ(tap->mtu(), 72);
        EXPECT_EQ(mtuIn(hub, "vxtap0"), 72);
        tap->setMtu(1500);
        EXPECT_EQ(tap->mtu(), 1500);
        EXPECT_EQ(mtuIn(hub, "vxtap0"), 1500);
        EXPECT_EQ(errorOf([&] { tap->setMtu(71); }), 22);
        EXPECT_EQ(errorOf([&] { tap->setMtu(1501); }), 22);
    }
    EXPECT_EQ(tap->mtu(), 1500);
    EXPECT_EQ(mtuIn(hub, "vxtap0"), 1500);
    EXPECT_EQ(capture.lines(),
              (Lines{"vxtap0 invalid MTU requested: 71", "vxtap0 invalid MTU requested: 1501"}));
}

TEST_F(TapTest, FrameSentOutOfTheInterfaceIsReadBehindTheHeadroom) {
    auto tap = open("vxtap0");
    {
        ScopedNetns in(hub);
        tap->setMtu(1500);
    }
    capture.clear();
    const Bytes frame = ethernetFrame(kOtherMac, kTapMac, 1514);
    sendOut(frame);

    ReadDeadline deadline(5);
    const lumora::pdu::PDU p = readOurs(*tap);
    EXPECT_EQ(p._cap, 4096);
    EXPECT_EQ(p._begin, 64);
    EXPECT_EQ(p._end, 1578);
    EXPECT_EQ(Bytes(p._buf + p._begin, p._buf + p._end), frame);
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(TapTest, WrittenFrameAppearsOnTheInterface) {
    auto tap = open("vxtap0");
    capture.clear();
    auto receiver = packetReceiver("vxtap0", kTestEtherType);

    const Bytes frame = ethernetFrame(kTapMac, kOtherMac, 98);
    Bytes storage(4096, 0xEE);
    std::copy(frame.begin(), frame.end(), storage.begin() + 64);
    lumora::pdu::PDU p{storage.data(), 4096, 64, static_cast<uint16_t>(64 + frame.size()), {0, 0}};
    tap->write(p);

    Bytes got;
    for (int i = 0; i < 8; ++i) {
        Bytes buffer(2048);
        sockaddr_ll from{};
        socklen_t size = sizeof from;
        const ssize_t n = recvfrom(receiver.get(), buffer.data(), buffer.size(), 0,
                                   reinterpret_cast<sockaddr*>(&from), &size);
        ASSERT_GE(n, 0) << "nothing arrived: " << std::strerror(errno);
        if (from.sll_pkttype == PACKET_OUTGOING) continue;
        got.assign(buffer.begin(), buffer.begin() + n);
        break;
    }
    EXPECT_EQ(got, frame);
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(TapTest, ShortWriteIsOneWarning) {
    auto tap = open("vxtap0");
    capture.clear();
    // The kernel refuses a frame shorter than an Ethernet header.
    uint8_t tiny[4] = {1, 2, 3, 4};
    tap->write(lumora::pdu::PDU{tiny, 4, 0, 4, {0, 0}});
    EXPECT_EQ(capture.lines(), Lines{"vxtap0 short write: 4 (req) > -1 (sent)"});
}

ssize_t writesFourLess(int, const void*, size_t size) { return static_cast<ssize_t>(size) - 4; }

TEST_F(TapTest, PartialWriteIsReportedThroughTheSeam) {
    auto tap = open("vxtap0");
    capture.clear();
    Bytes storage(128, 0);
    TAP::write_call = writesFourLess;
    tap->write(lumora::pdu::PDU{storage.data(), 128, 64, 124, {0, 0}});
    TAP::write_call = ::write;
    EXPECT_EQ(capture.lines(), Lines{"vxtap0 short write: 60 (req) > 56 (sent)"});
}

}  // namespace
}  // namespace vxbrd_test
