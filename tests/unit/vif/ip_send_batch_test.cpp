// Batched sends: a batch of datagrams goes to the kernel in one call, in
// order, from where the datagrams lie, and a failure among them is handled
// exactly as a single send's failure.
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

using lumora::vif::Datagram;

Datagram to(const Frame& frame, const char* destination) {
    return Datagram{frame.pdu, AF_INET, ipv4(destination), {}};
}

// Each batched send is recorded (its size and where its datagrams lie); the
// script gives the errno of the first datagram of the next batches (0: the
// real batched send).
std::vector<unsigned> batches;
std::vector<const uint8_t*> batched_data;
std::vector<int> batch_script;
std::vector<useconds_t> sleeps;
int (*real_batch)(int, const IP::Outgoing*, unsigned) = nullptr;

int scriptedBatch(int fd, const IP::Outgoing* list, unsigned count) {
    const size_t call = batches.size();
    batches.push_back(count);
    for (unsigned i = 0; i < count; ++i) batched_data.push_back(list[i].data);
    if (call < batch_script.size() && batch_script[call] != 0) {
        errno = batch_script[call];
        return -1;
    }
    return real_batch(fd, list, count);
}

int recordedUsleep(useconds_t delay) {
    sleeps.push_back(delay);
    return 0;
}

struct BatchSeam {
    explicit BatchSeam(std::vector<int> script) {
        batches.clear();
        batched_data.clear();
        sleeps.clear();
        batch_script = std::move(script);
        real_batch = IP::send_calls.send_batch;
        IP::send_calls.send_batch = scriptedBatch;
        IP::send_calls.usleep = recordedUsleep;
    }
    ~BatchSeam() {
        IP::send_calls.send_batch = real_batch;
        IP::send_calls.usleep = ::usleep;
    }
};

class GreSendBatchTest : public VifNetTest {
  protected:
    GreSendBatchTest() { needs_link = true; }
    std::unique_ptr<IP> open() {
        ScopedNetns in(hub);
        auto endpoint = std::make_unique<IP>(capture.logger(), ipv4("192.0.2.1"), "vxh0");
        capture.clear();
        return endpoint;
    }
    static Bytes receive(int fd) {
        Bytes out(4096);
        const ssize_t got = recv(fd, out.data(), out.size(), 0);
        out.resize(got < 20 ? 0 : static_cast<size_t>(got));
        if (!out.empty()) out.erase(out.begin(), out.begin() + 20);  // outer IPv4 header
        return out;
    }
    static bool nothingArrives(int fd) {
        Bytes out(64);
        return recv(fd, out.data(), out.size(), MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }
};

TEST_F(GreSendBatchTest, ABatchGoesOutInOneCallInOrderFromWhereItLies) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    BatchSeam seam({});
    const Frame frames[] = {Frame(64, 0x10, 1), Frame(1400, 0x20, 1), Frame(100, 0x30, 1)};
    const Datagram batch[] = {to(frames[0], "192.0.2.2"), to(frames[1], "192.0.2.2"),
                              to(frames[2], "192.0.2.2")};
    endpoint->sendBatch(batch);
    EXPECT_EQ(batches, std::vector<unsigned>{3});
    // Handed over from where they lie: nothing was copied aside.
    EXPECT_EQ(batched_data, (std::vector<const uint8_t*>{frames[0].pdu.data(), frames[1].pdu.data(),
                                                         frames[2].pdu.data()}));
    for (const Frame& frame : frames) EXPECT_EQ(receive(peer.get()), frame.payload());
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(GreSendBatchTest, ALongBatchGoesInCallsOfTheBatchSize) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    BatchSeam seam({});
    const unsigned limit = endpoint->batchSize();
    ASSERT_GT(limit, 1u);
    const Frame frame(64, 0x10, 1);
    const std::vector<Datagram> batch(limit + 1, to(frame, "192.0.2.2"));
    endpoint->sendBatch(batch);
    EXPECT_EQ(batches, (std::vector<unsigned>{limit, 1}));
    for (unsigned i = 0; i < limit + 1; ++i) EXPECT_EQ(receive(peer.get()), frame.payload());
    EXPECT_TRUE(nothingArrives(peer.get()));
}

TEST_F(GreSendBatchTest, ADatagramRefusedWithEnobufsIsRetriedAsAlways) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    // The first batch is refused at its first datagram; that one then goes
    // through the ordinary retries (the real sendto succeeds at once), and the
    // other two follow in a second batch.
    BatchSeam seam({ENOBUFS});
    const Frame frames[] = {Frame(64, 0x10, 1), Frame(80, 0x20, 1), Frame(96, 0x30, 1)};
    const Datagram batch[] = {to(frames[0], "192.0.2.2"), to(frames[1], "192.0.2.2"),
                              to(frames[2], "192.0.2.2")};
    endpoint->sendBatch(batch);
    EXPECT_EQ(batches, (std::vector<unsigned>{3, 2}));
    EXPECT_EQ(sleeps, std::vector<useconds_t>{100});
    for (const Frame& frame : frames) EXPECT_EQ(receive(peer.get()), frame.payload());
    EXPECT_EQ(capture.lines(), Lines{"vxh0 (ip://192.0.2.1) sendto(): ENOBUFS; retries = 1"});
}

TEST_F(GreSendBatchTest, OtherErrorsInABatchAreTheUsualWarning) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    BatchSeam seam({0});
    Frame frame(64, 0x10, 1);
    // No route to 203.0.113.0/24: the batch stops at the first datagram, which
    // is then sent alone and warned about; the next one still goes out.
    const Datagram batch[] = {to(frame, "203.0.113.9"), to(frame, "192.0.2.2")};
    endpoint->sendBatch(batch);
    EXPECT_EQ(receive(peer.get()), frame.payload());
    EXPECT_EQ(capture.lines(),
              Lines{"vxh0 (ip://192.0.2.1) sendto(): 101 (Network is unreachable)"});
}

TEST_F(GreSendBatchTest, TooBigIsWarnedInABatchAsInASingleSend) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    BatchSeam seam({});
    const Frame big(1500, 0x40, 1);
    const Frame small(64, 0x50, 1);
    const Datagram batch[] = {to(big, "192.0.2.2"), to(small, "192.0.2.2")};
    endpoint->sendBatch(batch);
    EXPECT_EQ(capture.lines(),
              Lines{"vxh0 (ip://192.0.2.1) packet too big: 1500 (len) > 1480 (mtu)"});
    EXPECT_EQ(receive(peer.get()), big.payload());
    EXPECT_EQ(receive(peer.get()), small.payload());
    EXPECT_EQ(batches, std::vector<unsigned>{2});
}

// sendTo is a single send: no batched call at all.
TEST_F(GreSendBatchTest, ASingleSendMakesNoBatchedCall) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    BatchSeam seam({});
    const Frame small(64, 0x50, 1);
    endpoint->sendTo(small.pdu, AF_INET, ipv4("192.0.2.2"), in6addr_any);
    EXPECT_EQ(receive(peer.get()), small.payload());
    EXPECT_EQ(batches, std::vector<unsigned>{});
}

}  // namespace
}  // namespace vxbrd_test
