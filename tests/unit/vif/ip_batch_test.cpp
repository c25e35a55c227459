// Datagrams that are already queued when the GRE endpoint receives: the
// kernel hands them over in one receive where it can, each in a slot of its
// own, in order, each with its own sender.
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
int (*real_receive)(int, IP::Slot*, unsigned, bool) = nullptr;

int countingReceive(int fd, IP::Slot* batch, unsigned count, bool wait) {
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

TEST_F(GreBatchTest, QueuedDatagramsComeInOneBatchWithTheirOwnSenders) {
    auto endpoint = openIPv4();
    EXPECT_EQ(endpoint->batchSize(), IP::kMaxBatch);
    const std::vector<Bytes> sent = {datagramFrom("192.0.2.2", 0xA1),
                                     datagramFrom("192.0.2.3", 0xB2),
                                     datagramFrom("192.0.2.2", 0xC3)};
    ASSERT_NO_FATAL_FAILURE(sendQueued(sent));
    CountingSeam seam(false);
    IP::Received batch[IP::kMaxBatch];
    ASSERT_EQ(endpoint->receiveBatch(batch), 3u);
    const char* senders[] = {"192.0.2.2", "192.0.2.3", "192.0.2.2"};
    for (size_t i = 0; i < sent.size(); ++i) {
        const lumora::pdu::PDU p = batch[i].datagram;
        EXPECT_TRUE(batch[i].valid) << "datagram " << i;
        EXPECT_EQ(p._begin, 20);
        EXPECT_EQ(p._end, 52);
        EXPECT_EQ(p._cap, 52);
        EXPECT_EQ(Bytes(p._buf, p._buf + p._end), sent[i]) << "datagram " << i;
        EXPECT_EQ(batch[i].family, static_cast<uint32_t>(AF_INET));
        EXPECT_EQ(text(batch[i].ipv4), senders[i]) << "datagram " << i;
        // Each datagram has its own slot: none overwrote an earlier one.
        if (i > 0) {
            EXPECT_NE(p._buf, batch[i - 1].datagram._buf);
        }
    }
    // Linux takes all three in one receive (recvmmsg).
    EXPECT_EQ(receives, std::vector<int>{3});
    EXPECT_EQ(capture.lines(), std::vector<std::string>{});
}

TEST_F(GreBatchTest, ABatchTakesNoMoreThanItHasRoomFor) {
    auto endpoint = openIPv4();
    const std::vector<Bytes> sent = {datagramFrom("192.0.2.2", 0xA1),
                                     datagramFrom("192.0.2.3", 0xB2),
                                     datagramFrom("192.0.2.2", 0xC3)};
    ASSERT_NO_FATAL_FAILURE(sendQueued(sent));
    CountingSeam seam(false);
    IP::Received two[2];
    ASSERT_EQ(endpoint->receiveBatch(two), 2u);
    EXPECT_EQ(Bytes(two[1].datagram._buf, two[1].datagram._buf + 52), sent[1]);
    // The one left behind comes with the next receive.
    IP::Received rest[IP::kMaxBatch];
    ASSERT_EQ(endpoint->receiveBatch(rest), 1u);
    EXPECT_EQ(Bytes(rest[0].datagram._buf, rest[0].datagram._buf + 52), sent[2]);
    EXPECT_EQ(receives, (std::vector<int>{2, 1}));
}

TEST_F(GreBatchTest, ARefusedDatagramDoesNotLoseTheOnesBehindIt) {
    auto endpoint = openIPv4();
    const std::vector<Bytes> sent = {datagramFrom("192.0.2.2", 0xA1),
                                     datagramFrom("192.0.2.3", 0xB2),
                                     datagramFrom("192.0.2.2", 0xC3)};
    ASSERT_NO_FATAL_FAILURE(sendQueued(sent));
    CountingSeam seam(true);
    IP::Received batch[IP::kMaxBatch];
    ASSERT_EQ(endpoint->receiveBatch(batch), 3u);
    EXPECT_TRUE(batch[0].valid);
    EXPECT_EQ(Bytes(batch[0].datagram._buf, batch[0].datagram._buf + 52), sent[0]);
    // The spoilt one (header length 16) is marked, its sender still known.
    EXPECT_FALSE(batch[1].valid);
    EXPECT_EQ(text(batch[1].ipv4), "192.0.2.3");
    EXPECT_TRUE(batch[2].valid);
    EXPECT_EQ(Bytes(batch[2].datagram._buf, batch[2].datagram._buf + 52), sent[2]);
    EXPECT_EQ(text(batch[2].ipv4), "192.0.2.2");
    EXPECT_EQ(receives, std::vector<int>{3});
}

// read() is the same receive with a batch of one: one datagram per call.
TEST_F(GreBatchTest, ReadTakesOneDatagramPerReceive) {
    auto endpoint = openIPv4();
    const std::vector<Bytes> sent = {datagramFrom("192.0.2.2", 0xA1),
                                     datagramFrom("192.0.2.3", 0xB2)};
    ASSERT_NO_FATAL_FAILURE(sendQueued(sent));
    CountingSeam seam(false);
    for (size_t i = 0; i < sent.size(); ++i) {
        const lumora::pdu::PDU p = endpoint->read();
        EXPECT_EQ(Bytes(p._buf, p._buf + p._end), sent[i]);
    }
    EXPECT_EQ(text(endpoint->senderIPv4()), "192.0.2.3");
    EXPECT_EQ(receives, (std::vector<int>{1, 1}));
}

}  // namespace
}  // namespace vxbrd_test
