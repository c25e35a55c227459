// Held sends: datagrams a tap thread sends during a burst are handed to the
// kernel together, in order, and a failure among them is handled exactly as
// an immediate send's failure.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "vif/IP"
#include "vif_harness.h"

namespace vxbrd_test {
namespace {

using lumora::vif::IP;
using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

struct Frame {
    Frame(size_t length, uint8_t mark) : storage(length + 64, 0xEE) {
        for (size_t i = 0; i < length; ++i) storage[64 + i] = static_cast<uint8_t>(mark + i);
        pdu._buf = storage.data();
        pdu._cap = static_cast<uint16_t>(storage.size());
        pdu._begin = 64;
        pdu._end = static_cast<uint16_t>(64 + length);
    }
    Bytes payload() const { return Bytes(storage.begin() + 64, storage.end()); }
    Bytes storage;
    lumora::pdu::PDU pdu;
};

// Each batched send is recorded; the script gives the errno of the first
// datagram of the next batches (0: the real batched send).
std::vector<unsigned> batches;
std::vector<int> batch_script;
std::vector<useconds_t> sleeps;
int (*real_batch)(int, const IP::Outgoing*, unsigned) = nullptr;

int scriptedBatch(int fd, const IP::Outgoing* list, unsigned count) {
    const size_t call = batches.size();
    batches.push_back(count);
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
        sleeps.clear();
        batch_script = std::move(script);
        real_batch = IP::send_calls.send_batch;
        IP::send_calls.send_batch = scriptedBatch;
        IP::send_calls.usleep = recordedUsleep;
    }
    ~BatchSeam() {
        IP::holdSends(false);
        IP::send_calls.send_batch = real_batch;
        IP::send_calls.usleep = ::usleep;
    }
};

class GreHoldTest : public VifNetTest {
  protected:
    GreHoldTest() { needs_link = true; }
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

TEST_F(GreHoldTest, HeldSendsGoOutTogetherInOrderWhenFlushed) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    BatchSeam seam({});
    IP::holdSends(true);
    const Frame frames[] = {Frame(64, 0x10), Frame(1400, 0x20), Frame(100, 0x30)};
    for (const Frame& frame : frames) endpoint->writeIPv4(frame.pdu, ipv4("192.0.2.2"));
    EXPECT_EQ(IP::heldSends(), 3u);
    EXPECT_TRUE(nothingArrives(peer.get()));
    IP::flushHeldSends();
    EXPECT_EQ(IP::heldSends(), 0u);
    EXPECT_EQ(batches, std::vector<unsigned>{3});
    for (const Frame& frame : frames) EXPECT_EQ(receive(peer.get()), frame.payload());
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(GreHoldTest, AHeldDatagramRefusedWithEnobufsIsRetriedAsAlways) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    // The first batch is refused at its first datagram; that one then goes
    // through the ordinary retries (the real sendto succeeds at once), and the
    // other two follow in a second batch.
    BatchSeam seam({ENOBUFS});
    IP::holdSends(true);
    const Frame frames[] = {Frame(64, 0x10), Frame(80, 0x20), Frame(96, 0x30)};
    for (const Frame& frame : frames) endpoint->writeIPv4(frame.pdu, ipv4("192.0.2.2"));
    IP::flushHeldSends();
    EXPECT_EQ(batches, (std::vector<unsigned>{3, 2}));
    EXPECT_EQ(sleeps, std::vector<useconds_t>{100});
    for (const Frame& frame : frames) EXPECT_EQ(receive(peer.get()), frame.payload());
    EXPECT_EQ(capture.lines(), Lines{"vxh0 (ip://192.0.2.1) sendto(): ENOBUFS; retries = 1"});
}

TEST_F(GreHoldTest, OtherErrorsOfAHeldDatagramAreTheUsualWarning) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    BatchSeam seam({0});
    IP::holdSends(true);
    Frame frame(64, 0x10);
    // No route to 203.0.113.0/24: the batch stops at the first datagram, which
    // is then sent alone and warned about; the next one still goes out.
    endpoint->writeIPv4(frame.pdu, ipv4("203.0.113.9"));
    endpoint->writeIPv4(frame.pdu, ipv4("192.0.2.2"));
    IP::flushHeldSends();
    EXPECT_EQ(receive(peer.get()), frame.payload());
    EXPECT_EQ(capture.lines(),
              Lines{"vxh0 (ip://192.0.2.1) sendto(): 101 (Network is unreachable)"});
}

TEST_F(GreHoldTest, TooBigIsWarnedWhenHeldAndNothingIsHeldWithoutAHold) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    BatchSeam seam({});
    IP::holdSends(true);
    Frame big(1500, 0x40);
    endpoint->writeIPv4(big.pdu, ipv4("192.0.2.2"));
    EXPECT_EQ(capture.lines(),
              Lines{"vxh0 (ip://192.0.2.1) packet too big: 1500 (len) > 1480 (mtu)"});
    IP::holdSends(false);  // hands over what is held
    EXPECT_EQ(receive(peer.get()), big.payload());
    Frame small(64, 0x50);
    endpoint->writeIPv4(small.pdu, ipv4("192.0.2.2"));
    EXPECT_EQ(IP::heldSends(), 0u);
    EXPECT_EQ(receive(peer.get()), small.payload());
    EXPECT_EQ(batches, std::vector<unsigned>{1});
}

}  // namespace
}  // namespace vxbrd_test
