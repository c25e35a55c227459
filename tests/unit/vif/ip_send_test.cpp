// What the GRE socket endpoint puts on the wire, as the access point
// namespace receives it, and how it handles send failures.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "vif/IP"
#include "vif_support.h"

namespace vxbrd_test {
namespace {

using lumora::vif::IP;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

class GreSendTest : public VifNetTest {
  protected:
    GreSendTest() { needs_link = true; }
    std::unique_ptr<IP> open(const char* address) {
        ScopedNetns in(hub);
        std::unique_ptr<IP> endpoint;
        if (std::string(address).find(':') == std::string::npos) {
            endpoint = std::make_unique<IP>(capture.logger(), ipv4(address), "vxh0");
        } else {
            endpoint = std::make_unique<IP>(capture.logger(), ipv6(address), "vxh0");
        }
        capture.clear();
        return endpoint;
    }
    // What a raw GRE socket in the access point namespace receives next.
    static Bytes receive(int fd) {
        Bytes out(4096);
        const ssize_t got = recv(fd, out.data(), out.size(), 0);
        out.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return out;
    }
};

// Scripted failures for sendto: each call takes the next errno of the script;
// once it is used up, the real sendto runs.
std::vector<int> send_script;
size_t send_calls_made = 0;
std::vector<useconds_t> sleeps;

ssize_t scriptedSendto(int fd, const void* data, size_t size, int flags, const sockaddr* to,
                       socklen_t length) {
    const size_t call = send_calls_made++;
    if (call < send_script.size()) {
        errno = send_script[call];
        return -1;
    }
    return ::sendto(fd, data, size, flags, to, length);
}

int recordedUsleep(useconds_t delay) {
    sleeps.push_back(delay);
    return 0;
}

struct SendSeam {
    explicit SendSeam(std::vector<int> script) {
        send_script = std::move(script);
        send_calls_made = 0;
        sleeps.clear();
        IP::send_calls.sendto = scriptedSendto;
        IP::send_calls.usleep = recordedUsleep;
    }
    ~SendSeam() {
        IP::send_calls.sendto = ::sendto;
        IP::send_calls.usleep = ::usleep;
    }
};

TEST_F(GreSendTest, IPv4SendCarriesExactlyBeginToEnd) {
    auto endpoint = open("192.0.2.1");
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    Frame frame(100);
    endpoint->write(frame.pdu, AF_INET, ipv4("192.0.2.2"), ipv6("2001:db8::2"));
    const Bytes got = receive(peer.get());
    ASSERT_EQ(got.size(), 120u);
    EXPECT_EQ(got[0], 0x45);
    EXPECT_EQ(got[6] & 0x40, 0x40) << "DF not set";
    EXPECT_EQ(got[9], 47);
    EXPECT_EQ(Bytes(got.begin() + 12, got.begin() + 20), (Bytes{192, 0, 2, 1, 192, 0, 2, 2}));
    EXPECT_EQ(Bytes(got.begin() + 20, got.end()), frame.payload());
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(GreSendTest, IPv6SendCarriesExactlyBeginToEnd) {
    auto endpoint = open("2001:db8::1");
    auto peer = socketIn(ap, AF_INET6, SOCK_RAW, 47);
    Frame frame(100);
    endpoint->write(frame.pdu, AF_INET6, ipv4("192.0.2.2"), ipv6("2001:db8::2"));
    EXPECT_EQ(receive(peer.get()), frame.payload());
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(GreSendTest, DatagramLongerThanTheMtuIsWarnedAboutAndSent) {
    auto endpoint = open("192.0.2.1");
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    Frame frame(1500);
    endpoint->writeIPv4(frame.pdu, ipv4("192.0.2.2"));
    const Bytes got = receive(peer.get());
    ASSERT_EQ(got.size(), 1520u);
    EXPECT_EQ(Bytes(got.begin() + 20, got.end()), frame.payload());
    EXPECT_EQ(capture.lines(),
              Lines{"vxh0 (ip://192.0.2.1) packet too big: 1500 (len) > 1480 (mtu)"});

    endpoint->setMtu(576);
    capture.clear();
    Frame bigger(577);
    endpoint->writeIPv4(bigger.pdu, ipv4("192.0.2.2"));
    const Bytes second = receive(peer.get());
    ASSERT_EQ(second.size(), 597u);
    EXPECT_EQ(Bytes(second.begin() + 20, second.end()), bigger.payload());
    EXPECT_EQ(capture.lines(),
              Lines{"vxh0 (ip://192.0.2.1) packet too big: 577 (len) > 576 (mtu)"});
}

TEST_F(GreSendTest, EnobufsIsRetriedWithGrowingDelays) {
    auto endpoint = open("192.0.2.1");
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    Frame frame(64);
    {
        SendSeam seam({ENOBUFS, ENOBUFS, ENOBUFS});
        endpoint->writeIPv4(frame.pdu, ipv4("192.0.2.2"));
        EXPECT_EQ(send_calls_made, 4u);
        EXPECT_EQ(sleeps, (std::vector<useconds_t>{100, 200, 300}));
    }
    EXPECT_EQ(capture.lines(), (Lines{"vxh0 (ip://192.0.2.1) sendto(): ENOBUFS; retries = 1",
                                      "vxh0 (ip://192.0.2.1) sendto(): ENOBUFS; retries = 2",
                                      "vxh0 (ip://192.0.2.1) sendto(): ENOBUFS; retries = 3"}));
    const Bytes got = receive(peer.get());
    ASSERT_EQ(got.size(), 84u);
    EXPECT_EQ(Bytes(got.begin() + 20, got.end()), frame.payload());
}

TEST_F(GreSendTest, OtherErrorsEndTheRetriesAndDropTheDatagram) {
    auto endpoint = open("2001:db8::1");
    Frame frame(64);
    {
        SendSeam seam({ENOBUFS, ENOBUFS, EPERM});
        endpoint->writeIPv6(frame.pdu, ipv6("2001:db8::2"));
        EXPECT_EQ(send_calls_made, 3u);
        EXPECT_EQ(sleeps, (std::vector<useconds_t>{100, 200}));
    }
    {
        SendSeam seam({EHOSTUNREACH});
        endpoint->writeIPv6(frame.pdu, ipv6("2001:db8::2"));
        EXPECT_EQ(send_calls_made, 1u);
        EXPECT_EQ(sleeps, std::vector<useconds_t>{});
    }
    EXPECT_EQ(capture.lines(),
              (Lines{"vxh0 (ip://2001:db8::1) sendto(): ENOBUFS; retries = 1",
                     "vxh0 (ip://2001:db8::1) sendto(): ENOBUFS; retries = 2",
                     "vxh0 (ip://2001:db8::1) sendto(): 1 (Operation not permitted)",
                     "vxh0 (ip://2001:db8::1) sendto(): 113 (No route to host)"}));
}

TEST_F(GreSendTest, KernelSendErrorsAreWarningsOnly) {
    auto endpoint = open("192.0.2.1");
    Frame frame(64);
    // No route to 203.0.113.0/24 in the hub namespace.
    endpoint->writeIPv4(frame.pdu, ipv4("203.0.113.9"));
    // An IPv4 endpoint has no IPv6 socket.
    endpoint->writeIPv6(frame.pdu, ipv6("2001:db8::2"));
    EXPECT_EQ(capture.lines(),
              (Lines{"vxh0 (ip://192.0.2.1) sendto(): 101 (Network is unreachable)",
                     "vxh0 (ip://192.0.2.1) sendto(): 9 (Bad file descriptor)"}));
}

}  // namespace
}  // namespace vxbrd_test
