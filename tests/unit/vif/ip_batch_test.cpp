// Datagrams that are already queued when the GRE endpoint reads: the kernel
// hands them over in one receive where it can, and read still returns them
// one at a time, in order, each with its own sender.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "vif/IP"
#include "vif_support.h"

namespace vxbrd_test {
namespace {

using lumora::vif::IP;
using Bytes = std::vector<uint8_t>;

// source -> 192.0.2.1, protocol 47, with a 32-byte GRE payload marked `mark`.
Bytes datagramFrom(const char* source, uint8_t mark) {
    Bytes out = {0x45, 0x00, 0, 52, 0x12, 0x34, 0x40, 0x00, 64, 47, 0, 0};
    const in_addr from = ipv4(source);
    const in_addr to = ipv4("192.0.2.1");
    out.insert(out.end(), reinterpret_cast<const uint8_t*>(&from),
               reinterpret_cast<const uint8_t*>(&from) + 4);
    out.insert(out.end(), reinterpret_cast<const uint8_t*>(&to),
               reinterpret_cast<const uint8_t*>(&to) + 4);
    uint32_t sum = 0;
    for (size_t i = 0; i < 20; i += 2) sum += static_cast<uint32_t>(out[i] << 8 | out[i + 1]);
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    out[10] = static_cast<uint8_t>(~sum >> 8);
    out[11] = static_cast<uint8_t>(~sum);
    const Bytes gre = {0x00, 0x00, 0x65, 0x58};
    out.insert(out.end(), gre.begin(), gre.end());
    out.resize(52, mark);
    return out;
}

// Every receive the endpoint makes, with how many datagrams it took; the
// second datagram of a receive can be spoilt (its header length nibble set to 4).
std::vector<int> receives;
bool spoil_second = false;
int (*real_receive)(int, IP::Datagram*, unsigned, bool) = nullptr;

int countingReceive(int fd, IP::Datagram* batch, unsigned count, bool wait) {
    const int got = real_receive(fd, batch, count, wait);
    receives.push_back(got);
    if (spoil_second && got >= 2) batch[1].data[0] = 0x44;
    return got;
}

struct CountingSeam {
    explicit CountingSeam(bool spoil) {
        receives.clear();
        spoil_second = spoil;
        real_receive = IP::receive_calls.receive;
        IP::receive_calls.receive = countingReceive;
    }
    ~CountingSeam() { IP::receive_calls.receive = real_receive; }
};

class GreBatchTest : public VifNetTest {
  protected:
    GreBatchTest() { needs_link = true; }

    std::unique_ptr<IP> openIPv4() {
        ScopedNetns in(hub);
        auto endpoint = std::make_unique<IP>(capture.logger(), ipv4("192.0.2.1"), "vxh0");
        capture.clear();
        return endpoint;
    }

    // Bytes queued on the hub's raw GRE sockets (/proc/net/raw rx_queue).
    long queuedBytes() {
        ScopedNetns in(hub);
        std::ifstream raw("/proc/thread-self/net/raw");
        std::string line;
        long total = 0;
        std::getline(raw, line);
        while (std::getline(raw, line)) {
            std::istringstream fields(line);
            std::string slot, local, remote, state, queues;
            fields >> slot >> local >> remote >> state >> queues;
            if (local.size() < 5 || local.substr(local.size() - 5) != ":002F") continue;
            total += std::stol(queues.substr(queues.find(':') + 1), nullptr, 16);
        }
        return total;
    }

    // Sends the datagrams one by one and waits (2 s at most) until the hub's
    // socket holds all of them, so that one receive can take them together.
    void sendQueued(const std::vector<Bytes>& datagrams) {
        auto sock = socketIn(ap, AF_INET, SOCK_RAW, IPPROTO_RAW);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr = ipv4("192.0.2.1");
        long each = 0;
        for (size_t i = 0; i < datagrams.size(); ++i) {
            ASSERT_EQ(sendto(sock.get(), datagrams[i].data(), datagrams[i].size(), 0,
                             reinterpret_cast<sockaddr*>(&to), sizeof to),
                      static_cast<ssize_t>(datagrams[i].size()))
                << std::strerror(errno);
            // Equal datagrams take equal room: the first one shows how much.
            const long want = each * static_cast<long>(i + 1);
            long queued = 0;
            for (int wait = 0; wait < 2000; ++wait) {
                queued = queuedBytes();
                if (i == 0 ? queued > 0 : queued >= want) break;
                usleep(1000);
            }
            if (i == 0) each = queued;
            ASSERT_GT(each, 0) << "first datagram never queued";
            ASSERT_GE(queued, each * static_cast<long>(i + 1)) << "datagram " << i << " not queued";
        }
    }
};

TEST_F(GreBatchTest, QueuedDatagramsComeOneReadAtATimeWithTheirOwnSenders) {
    auto endpoint = openIPv4();
    const std::vector<Bytes> sent = {datagramFrom("192.0.2.2", 0xA1),
                                     datagramFrom("192.0.2.3", 0xB2),
                                     datagramFrom("192.0.2.2", 0xC3)};
    ASSERT_NO_FATAL_FAILURE(sendQueued(sent));
    CountingSeam seam(false);
    const char* senders[] = {"192.0.2.2", "192.0.2.3", "192.0.2.2"};
    const uint8_t* previous = nullptr;
    for (size_t i = 0; i < sent.size(); ++i) {
        const lumora::pdu::PDU p = endpoint->read();
        EXPECT_EQ(p._begin, 20);
        EXPECT_EQ(p._end, 52);
        EXPECT_EQ(p._cap, 52);
        EXPECT_EQ(Bytes(p._buf, p._buf + p._end), sent[i]) << "datagram " << i;
        EXPECT_EQ(text(endpoint->senderIPv4()), senders[i]) << "datagram " << i;
        // Each datagram keeps its own slot: the earlier ones stay intact.
        EXPECT_NE(p._buf, previous);
        previous = p._buf;
    }
    // Linux takes all three in one receive (recvmmsg).
    EXPECT_EQ(receives, std::vector<int>{3});
    EXPECT_EQ(capture.lines(), std::vector<std::string>{});
}

TEST_F(GreBatchTest, ARefusedDatagramDoesNotLoseTheOnesBehindIt) {
    auto endpoint = openIPv4();
    const std::vector<Bytes> sent = {datagramFrom("192.0.2.2", 0xA1),
                                     datagramFrom("192.0.2.3", 0xB2),
                                     datagramFrom("192.0.2.2", 0xC3)};
    ASSERT_NO_FATAL_FAILURE(sendQueued(sent));
    CountingSeam seam(true);
    const lumora::pdu::PDU first = endpoint->read();
    EXPECT_EQ(Bytes(first._buf, first._buf + first._end), sent[0]);
    // The second read is the spoilt datagram: 22, with its sender recorded.
    try {
        endpoint->read();
        FAIL() << "read returned";
    } catch (int error) {
        EXPECT_EQ(error, 22);
    }
    EXPECT_EQ(text(endpoint->senderIPv4()), "192.0.2.3");
    const lumora::pdu::PDU third = endpoint->read();
    EXPECT_EQ(Bytes(third._buf, third._buf + third._end), sent[2]);
    EXPECT_EQ(text(endpoint->senderIPv4()), "192.0.2.2");
    EXPECT_EQ(receives, std::vector<int>{3});
}

}  // namespace
}  // namespace vxbrd_test
