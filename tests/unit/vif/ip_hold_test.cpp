// Held sends: datagrams a tap thread sends during a burst are handed to the
// kernel together, in order, where they lie, and a failure among them is
// handled exactly as an immediate send's failure.
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

// What a tap read names when it holds: the slot from its start (headroom
// included) to the frame's end.
void hold(const Frame& frame) {
    IP::holdSends(frame.storage.data(), frame.pdu.data() + frame.pdu.length());
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
        IP::stopHoldingSends();
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
    const Frame frames[] = {Frame(64, 0x10, 1), Frame(1400, 0x20, 1), Frame(100, 0x30, 1)};
    for (const Frame& frame : frames) {
        hold(frame);
        endpoint->writeIPv4(frame.pdu, ipv4("192.0.2.2"));
    }
    EXPECT_EQ(IP::heldSends(), 3u);
    EXPECT_TRUE(nothingArrives(peer.get()));
    IP::flushHeldSends();
    EXPECT_EQ(IP::heldSends(), 0u);
    EXPECT_EQ(batches, std::vector<unsigned>{3});
    // Handed over from where they lie: nothing was copied aside.
    EXPECT_EQ(batched_data, (std::vector<const uint8_t*>{frames[0].pdu.data(), frames[1].pdu.data(),
                                                         frames[2].pdu.data()}));
    for (const Frame& frame : frames) EXPECT_EQ(receive(peer.get()), frame.payload());
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(GreHoldTest, ADatagramNotEndingWithTheFrameGoesAtOnceBehindTheHeldOnes) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    BatchSeam seam({});
    const Frame held(64, 0x10, 1);
    hold(held);
    endpoint->writeIPv4(held.pdu, ipv4("192.0.2.2"));
    EXPECT_EQ(IP::heldSends(), 1u);
    // A piece cut from the frame (a fragment), and a copy elsewhere (a flood):
    // neither may wait, since their bytes are about to be reused.
    lumora::pdu::PDU piece = held.pdu;
    piece._end = static_cast<uint16_t>(piece._end - 8);
    endpoint->writeIPv4(piece, ipv4("192.0.2.2"));
    EXPECT_EQ(IP::heldSends(), 0u);
    const Frame elsewhere(80, 0x40, 1);
    endpoint->writeIPv4(elsewhere.pdu, ipv4("192.0.2.2"));
    EXPECT_EQ(IP::heldSends(), 0u);
    EXPECT_EQ(batches, std::vector<unsigned>{1});
    EXPECT_EQ(receive(peer.get()), held.payload());
    const Bytes whole = held.payload();
    EXPECT_EQ(receive(peer.get()), Bytes(whole.begin(), whole.end() - 8));
    EXPECT_EQ(receive(peer.get()), elsewhere.payload());
}

TEST_F(GreHoldTest, TheHoldFlushesItselfWhenFull) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    BatchSeam seam({});
    const unsigned limit = IP::maxHeldSends();
    ASSERT_GT(limit, 1u);
    const Frame frame(64, 0x10, 1);
    for (unsigned i = 0; i < limit + 1; ++i) {
        hold(frame);
        endpoint->writeIPv4(frame.pdu, ipv4("192.0.2.2"));
    }
    EXPECT_EQ(batches, std::vector<unsigned>{limit});
    EXPECT_EQ(IP::heldSends(), 1u);
    IP::stopHoldingSends();
    EXPECT_EQ(batches, (std::vector<unsigned>{limit, 1}));
    for (unsigned i = 0; i < limit + 1; ++i) EXPECT_EQ(receive(peer.get()), frame.payload());
}

TEST_F(GreHoldTest, AHeldDatagramRefusedWithEnobufsIsRetriedAsAlways) {
    auto endpoint = open();
    auto peer = socketIn(ap, AF_INET, SOCK_RAW, 47);
    // The first batch is refused at its first datagram; that one then goes
    // through the ordinary retries (the real sendto succeeds at once), and the
    // other two follow in a second batch.
    BatchSeam seam({ENOBUFS});
    const Frame frames[] = {Frame(64, 0x10, 1), Frame(80, 0x20, 1), Frame(96, 0x30, 1)};
    for (const Frame& frame : frames) {
        hold(frame);
        endpoint->writeIPv4(frame.pdu, ipv4("192.0.2.2"));
    }
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
    Frame frame(64, 0x10, 1);
    // No route to 203.0.113.0/24: the batch stops at the first datagram, which
    // is then sent alone and warned about; the next one still goes out.
    hold(frame);
    endpoint->writeIPv4(frame.pdu, ipv4("203.0.113.9"));
    hold(frame);
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
    Frame big(1500, 0x40, 1);
    hold(big);
    endpoint->writeIPv4(big.pdu, ipv4("192.0.2.2"));
    EXPECT_EQ(capture.lines(),
              Lines{"vxh0 (ip://192.0.2.1) packet too big: 1500 (len) > 1480 (mtu)"});
    IP::stopHoldingSends();  // hands over what is held
    EXPECT_EQ(receive(peer.get()), big.payload());
    Frame small(64, 0x50, 1);
    endpoint->writeIPv4(small.pdu, ipv4("192.0.2.2"));
    EXPECT_EQ(IP::heldSends(), 0u);
    EXPECT_EQ(receive(peer.get()), small.payload());
    EXPECT_EQ(batches, std::vector<unsigned>{1});
}

}  // namespace
}  // namespace vxbrd_test
