// What the GRE socket endpoint's read returns for datagrams that the access
// point namespace sends over the veth, and what it refuses.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
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

// A GRE header for transparent Ethernet bridging, then a recognisable tail.
Bytes grePayload(size_t size) {
    Bytes out(size);
    for (size_t i = 0; i < size; ++i) out[i] = static_cast<uint8_t>(0x30 + i);
    const uint8_t gre[4] = {0x00, 0x00, 0x65, 0x58};
    for (size_t i = 0; i < 4 && i < size; ++i) out[i] = gre[i];
    return out;
}

// 192.0.2.2 -> 192.0.2.1, protocol 47, DF, with the given options, checksum
// and length filled in, so the kernel sends it unchanged.
Bytes ipv4Datagram(const Bytes& options, const Bytes& payload) {
    const size_t header = 20 + options.size();
    // clang-format off
    Bytes out = {static_cast<uint8_t>(0x40 | header / 4), 0x00, 0, 0,  // version, IHL, length
                 0x12, 0x34, 0x40, 0x00,                               // id, DF
                 64, 47, 0, 0,                                         // TTL, GRE, checksum
                 192, 0, 2, 2,                                         // source
                 192, 0, 2, 1};                                        // destination
    // clang-format on
    out.insert(out.end(), options.begin(), options.end());
    const size_t total = header + payload.size();
    out[2] = static_cast<uint8_t>(total >> 8);
    out[3] = static_cast<uint8_t>(total);
    uint32_t sum = 0;
    for (size_t i = 0; i < header; i += 2) sum += static_cast<uint32_t>(out[i] << 8 | out[i + 1]);
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    out[10] = static_cast<uint8_t>(~sum >> 8);
    out[11] = static_cast<uint8_t>(~sum);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

class GreReceiveTest : public VifNetTest {
  protected:
    GreReceiveTest() { needs_link = true; }
    std::unique_ptr<IP> openIPv4() {
        ScopedNetns in(hub);
        auto endpoint = std::make_unique<IP>(capture.logger(), ipv4("192.0.2.1"), "vxh0");
        capture.clear();
        return endpoint;
    }
    std::unique_ptr<IP> openIPv6(const char* address) {
        ScopedNetns in(hub);
        auto endpoint = std::make_unique<IP>(capture.logger(), ipv6(address), "vxh0");
        capture.clear();
        return endpoint;
    }
    // The access point sends a whole IPv4 datagram, header included.
    void sendIPv4(const Bytes& datagram) {
        auto sock = socketIn(ap, AF_INET, SOCK_RAW, IPPROTO_RAW);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr = ipv4("192.0.2.1");
        ASSERT_EQ(sendto(sock.get(), datagram.data(), datagram.size(), 0,
                         reinterpret_cast<sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(datagram.size()))
            << std::strerror(errno);
    }
    // The access point sends a GRE payload over IPv6.
    void sendIPv6(const Bytes& payload, const char* destination, unsigned scope = 0) {
        auto sock = socketIn(ap, AF_INET6, SOCK_RAW, 47);
        sockaddr_in6 to{};
        to.sin6_family = AF_INET6;
        to.sin6_addr = ipv6(destination);
        to.sin6_scope_id = scope;
        ASSERT_EQ(sendto(sock.get(), payload.data(), payload.size(), 0,
                         reinterpret_cast<sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(payload.size()))
            << std::strerror(errno);
    }
};

// Substitutes for the endpoint's receive: the real receive, then a change to
// the first datagram it got.
int forced_header_byte = -1;
ssize_t forced_count = -1;
int forced_errno = 0;
int (*real_receive)(int, IP::Slot*, unsigned, bool) = nullptr;

int alteredReceive(int fd, IP::Slot* batch, unsigned count, bool wait) {
    const int got = real_receive(fd, batch, count, wait);
    if (got <= 0) return got;
    if (forced_header_byte >= 0) batch[0].data[0] = static_cast<uint8_t>(forced_header_byte);
    if (forced_count >= 0) batch[0].length = static_cast<size_t>(forced_count);
    if (forced_errno != 0) {
        errno = forced_errno;
        return -1;
    }
    return got;
}

struct ReceiveSeam {
    ReceiveSeam(int header_byte, ssize_t count, int error) {
        forced_header_byte = header_byte;
        forced_count = count;
        forced_errno = error;
        real_receive = IP::receive_calls.receive;
        IP::receive_calls.receive = alteredReceive;
    }
    ~ReceiveSeam() { IP::receive_calls.receive = real_receive; }
};

TEST_F(GreReceiveTest, IPv4OptionsAreSkippedAndTheSenderRecorded) {
    auto endpoint = openIPv4();
    const Bytes datagram = ipv4Datagram({0x01, 0x01, 0x01, 0x00}, grePayload(32));
    ASSERT_NO_FATAL_FAILURE(sendIPv4(datagram));
    const lumora::pdu::PDU p = endpoint->read();
    EXPECT_EQ(p._begin, 24);
    EXPECT_EQ(p._end, 56);
    EXPECT_EQ(p._cap, 56);
    EXPECT_EQ(Bytes(p._buf, p._buf + p._end), datagram);
    EXPECT_EQ(Bytes(p._buf + p._begin, p._buf + p._end), grePayload(32));
    EXPECT_EQ(endpoint->senderFamily(), static_cast<uint32_t>(AF_INET));
    EXPECT_EQ(text(endpoint->senderIPv4()), "192.0.2.2");
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(GreReceiveTest, IPv4WithoutOptionsStartsAt20) {
    auto endpoint = openIPv4();
    ASSERT_NO_FATAL_FAILURE(sendIPv4(ipv4Datagram({}, grePayload(18))));
    const lumora::pdu::PDU p = endpoint->read();
    EXPECT_EQ(p._begin, 20);
    EXPECT_EQ(p._end, 38);
    EXPECT_EQ(p._cap, 38);
}

// The kernel drops IPv4 headers shorter than 20 bytes before any raw socket
// sees them, so the refusals below alter a real datagram after its receipt.
TEST_F(GreReceiveTest, IPv4HeaderLengthNibbleFourIsRefused) {
    auto endpoint = openIPv4();
    ReceiveSeam seam(0x44, -1, 0);
    ASSERT_NO_FATAL_FAILURE(sendIPv4(ipv4Datagram({}, grePayload(32))));
    try {
        endpoint->read();
        FAIL() << "read returned";
    } catch (int error) {
        EXPECT_EQ(error, 22);
    }
    // The sender is recorded before the header is judged.
    EXPECT_EQ(text(endpoint->senderIPv4()), "192.0.2.2");
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(GreReceiveTest, IPv4HeaderLongerThanTheDatagramIsRefused) {
    auto endpoint = openIPv4();
    ReceiveSeam seam(0x4F, -1, 0);  // 60-byte header in a 52-byte datagram
    ASSERT_NO_FATAL_FAILURE(sendIPv4(ipv4Datagram({}, grePayload(32))));
    EXPECT_THROW(endpoint->read(), int);
}

TEST_F(GreReceiveTest, IPv4DatagramShorterThan20IsRefused) {
    auto endpoint = openIPv4();
    ReceiveSeam seam(-1, 19, 0);
    ASSERT_NO_FATAL_FAILURE(sendIPv4(ipv4Datagram({}, grePayload(32))));
    try {
        endpoint->read();
        FAIL() << "read returned";
    } catch (int error) {
        EXPECT_EQ(error, 22);
    }
}

TEST_F(GreReceiveTest, ReceiveFailureIsLoggedAndThrown) {
    auto endpoint = openIPv4();
    ReceiveSeam seam(-1, -1, EIO);
    ASSERT_NO_FATAL_FAILURE(sendIPv4(ipv4Datagram({}, grePayload(32))));
    try {
        endpoint->read();
        FAIL() << "read returned";
    } catch (int error) {
        EXPECT_EQ(error, EIO);
    }
    EXPECT_EQ(capture.lines(), Lines{"vxh0 (ip://192.0.2.1) recvfrom(): Input/output error"});
}

TEST_F(GreReceiveTest, NothingWithinFiveSecondsIsAReadTimeout) {
    auto endpoint = openIPv4();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(endpoint->read(), lumora::ReadTimeout);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(4900));
    EXPECT_LT(waited, std::chrono::milliseconds(7000));
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(GreReceiveTest, IPv6PayloadOf39IsRefusedAnd40Returned) {
    auto endpoint = openIPv6("2001:db8::1");
    ASSERT_NO_FATAL_FAILURE(sendIPv6(grePayload(39), "2001:db8::1"));
    try {
        endpoint->read();
        FAIL() << "read returned";
    } catch (int error) {
        EXPECT_EQ(error, 22);
    }
    ASSERT_NO_FATAL_FAILURE(sendIPv6(grePayload(40), "2001:db8::1"));
    const lumora::pdu::PDU p = endpoint->read();
    EXPECT_EQ(p._begin, 0);
    EXPECT_EQ(p._end, 40);
    EXPECT_EQ(p._cap, 40);
    EXPECT_EQ(Bytes(p._buf, p._buf + p._end), grePayload(40));
    EXPECT_EQ(endpoint->senderFamily(), static_cast<uint32_t>(AF_INET6));
    EXPECT_EQ(text(endpoint->senderIPv6()), "2001:db8::2");
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(GreReceiveTest, LinkLocalEndpointReceivesFromTheLinkPeer) {
    auto endpoint = openIPv6("fe80::1");
    ASSERT_NO_FATAL_FAILURE(sendIPv6(grePayload(64), "fe80::1", indexIn(ap, "vxa0")));
    const lumora::pdu::PDU p = endpoint->read();
    EXPECT_EQ(p._begin, 0);
    EXPECT_EQ(p._end, 64);
    EXPECT_EQ(Bytes(p._buf, p._buf + p._end), grePayload(64));
    EXPECT_EQ(text(endpoint->senderIPv6()), "fe80::2");
}

TEST_F(GreReceiveTest, NextReadOverwritesTheBuffer) {
    auto endpoint = openIPv6("2001:db8::1");
    ASSERT_NO_FATAL_FAILURE(sendIPv6(grePayload(48), "2001:db8::1"));
    const lumora::pdu::PDU first = endpoint->read();
    Bytes second_payload(48, 0xA5);
    ASSERT_NO_FATAL_FAILURE(sendIPv6(second_payload, "2001:db8::1"));
    const lumora::pdu::PDU second = endpoint->read();
    EXPECT_EQ(first._buf, second._buf);
    EXPECT_EQ(Bytes(first._buf, first._buf + first._end), second_payload);
}

}  // namespace
}  // namespace vxbrd_test
