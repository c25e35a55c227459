// Tap batches: frames queued on the device come in one batched read, each in
// a slot of its own; a batch of frames written reaches the interface in
// order, and a frame the device refuses is the usual short-write warning.
#include <arpa/inet.h>
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

constexpr uint16_t kTestEtherType = 0x88B5;

Bytes frameOf(size_t size, uint8_t mark) {
    Bytes out(size, mark);
    const uint8_t header[14] = {0x00, 0x00, 0x5e, 0x00, 0x53, 0x01, 0x00,
                                0x00, 0x5e, 0x00, 0x53, 0x02, 0x88, 0xB5};
    std::copy(header, header + 14, out.begin());
    return out;
}

class TapBatchTest : public VifNetTest {
  protected:
    std::unique_ptr<TAP> open() {
        ScopedNetns in(hub);
        auto tap = std::make_unique<TAP>(capture.logger(), "vxtap0");
        capture.clear();
        return tap;
    }
    lumora::Descriptor receiver() { return packetReceiver("vxtap0", kTestEtherType); }
    // The next frame written into the tap (frames the host sends are skipped),
    // or nothing when none comes (without waiting when `wait` is false).
    static Bytes next(int fd, bool wait = true) {
        for (int i = 0; i < 16; ++i) {
            Bytes buffer(2048);
            sockaddr_ll from{};
            socklen_t size = sizeof from;
            const ssize_t n = recvfrom(fd, buffer.data(), buffer.size(), wait ? 0 : MSG_DONTWAIT,
                                       reinterpret_cast<sockaddr*>(&from), &size);
            if (n < 0) return {};
            if (from.sll_pkttype == PACKET_OUTGOING) continue;
            buffer.resize(static_cast<size_t>(n));
            return buffer;
        }
        return {};
    }
    // Sends frame out of vxtap0 from the host side, so that the tap reads it.
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
    // Frames laid one after the other in one buffer, as a receive batch is.
    struct Batch {
        explicit Batch(const std::vector<Bytes>& frames) {
            for (const Bytes& frame : frames)
                storage.insert(storage.end(), frame.begin(), frame.end());
            size_t at = 0;
            for (const Bytes& frame : frames) {
                views.push_back(lumora::pdu::PDU{storage.data() + at,
                                                 static_cast<uint16_t>(frame.size()),
                                                 0,
                                                 static_cast<uint16_t>(frame.size()),
                                                 {0, 0}});
                at += frame.size();
            }
        }
        Bytes storage;
        std::vector<lumora::pdu::PDU> views;
    };
    lumora::Descriptor sender;
};

bool ours(const lumora::pdu::PDU& p) {
    return p.length() >= 14 && lumora::pdu::load16(p.data() + 12) == kTestEtherType;
}

TEST_F(TapBatchTest, QueuedFramesComeInOneReadEachInASlotOfItsOwn) {
    auto tap = open();
    ASSERT_EQ(tap->batchSize(), TAP::kMaxBatch);
    const std::vector<Bytes> frames = {frameOf(60, 0x11), frameOf(1400, 0x22), frameOf(98, 0x33)};
    for (const Bytes& frame : frames) sendOut(frame);
    lumora::pdu::PDU batch[TAP::kMaxBatch];
    std::vector<Bytes> read;
    const uint8_t* first_slot = nullptr;
    // Anything the host's own stack sent out of the tap first is skipped.
    for (int round = 0; round < 8 && read.size() < frames.size(); ++round) {
        const unsigned count = tap->readBatch(batch);
        ASSERT_GE(count, 1u);
        for (unsigned i = 0; i < count; ++i) {
            EXPECT_EQ(batch[i]._cap, 4096);
            EXPECT_EQ(batch[i]._begin, 64);
            if (i == 0) first_slot = batch[0]._buf;
            // Slot i of the batch, one after the other.
            EXPECT_EQ(batch[i]._buf, first_slot + i * 4096) << i;
            if (ours(batch[i]))
                read.emplace_back(batch[i].data(), batch[i].data() + batch[i].length());
        }
        // All three were queued before the read: one batch holds them.
        if (!read.empty()) {
            EXPECT_EQ(read.size(), frames.size());
        }
    }
    EXPECT_EQ(read, frames);
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(TapBatchTest, ABatchTakesNoMoreThanItHasRoomFor) {
    auto tap = open();
    for (uint8_t mark = 1; mark <= 3; ++mark) sendOut(frameOf(60, mark));
    std::vector<uint8_t> marks;
    lumora::pdu::PDU two[2];
    for (int round = 0; round < 8 && marks.size() < 3; ++round) {
        const unsigned count = tap->readBatch(two);
        ASSERT_LE(count, 2u);
        for (unsigned i = 0; i < count; ++i)
            if (ours(two[i])) marks.push_back(two[i].data()[20]);
    }
    EXPECT_EQ(marks, (std::vector<uint8_t>{1, 2, 3}));
}

// read() is readBatch with a batch of one: the first slot every time.
TEST_F(TapBatchTest, ReadTakesOneFrameIntoTheFirstSlot) {
    auto tap = open();
    sendOut(frameOf(60, 0x44));
    sendOut(frameOf(61, 0x55));
    std::vector<Bytes> read;
    const uint8_t* slot = nullptr;
    for (int round = 0; round < 8 && read.size() < 2; ++round) {
        const lumora::pdu::PDU p = tap->read();
        if (slot == nullptr) slot = p._buf;
        EXPECT_EQ(p._buf, slot);
        if (ours(p)) read.emplace_back(p.data(), p.data() + p.length());
    }
    EXPECT_EQ(read, (std::vector<Bytes>{frameOf(60, 0x44), frameOf(61, 0x55)}));
}

TEST_F(TapBatchTest, AWrittenBatchReachesTheInterfaceInOrder) {
    auto tap = open();
    auto sock = receiver();
    const std::vector<Bytes> frames = {frameOf(60, 0x11), frameOf(1514, 0x22), frameOf(98, 0x33)};
    Batch batch(frames);
    tap->writeBatch(batch.views);
    for (const Bytes& frame : frames) EXPECT_EQ(next(sock.get()), frame);
    EXPECT_EQ(next(sock.get(), false), Bytes{});
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(TapBatchTest, ABatchLongerThanOneSubmissionKeepsItsOrder) {
    auto tap = open();
    auto sock = receiver();
    std::vector<Bytes> frames;
    for (unsigned i = 0; i < lumora::vif::WriteRing::kEntries * 2 + 3; ++i)
        frames.push_back(frameOf(60 + i, static_cast<uint8_t>(i)));
    Batch batch(frames);
    tap->writeBatch(batch.views);
    for (const Bytes& frame : frames) EXPECT_EQ(next(sock.get()), frame);
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(TapBatchTest, ARefusedFrameIsOneWarningAndTheOthersArrive) {
    auto tap = open();
    auto sock = receiver();
    // The middle one is shorter than an Ethernet header: refused.
    Batch batch({frameOf(60, 0x11), Bytes{1, 2, 3, 4}, frameOf(70, 0x33)});
    tap->writeBatch(batch.views);
    EXPECT_EQ(next(sock.get()), frameOf(60, 0x11));
    EXPECT_EQ(next(sock.get()), frameOf(70, 0x33));
    EXPECT_EQ(capture.lines(), Lines{"vxtap0 short write: 4 (req) > -1 (sent)"});
}

}  // namespace
}  // namespace vxbrd_test
