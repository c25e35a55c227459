// Held tap writes: the frames an ingress thread writes for one batch of
// received datagrams reach the interface together, in order, from where
// they lie, and a frame the device refuses is the usual short-write warning.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cerrno>
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

// Every batched write is recorded (its frame count and where the frames
// lie), then done for real.
std::vector<unsigned> batches;
std::vector<const uint8_t*> batched_data;
bool (*real_batch)(const TAP::Outgoing*, unsigned, ssize_t*) = nullptr;

bool recordedBatch(const TAP::Outgoing* frames, unsigned count, ssize_t* results) {
    batches.push_back(count);
    for (unsigned i = 0; i < count; ++i) batched_data.push_back(frames[i].data);
    return real_batch(frames, count, results);
}

struct BatchSeam {
    BatchSeam() {
        batches.clear();
        batched_data.clear();
        real_batch = TAP::write_batch_call;
        TAP::write_batch_call = recordedBatch;
    }
    ~BatchSeam() {
        TAP::stopHoldingWrites();
        TAP::write_batch_call = real_batch;
    }
};

class TapHoldTest : public VifNetTest {
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
    static lumora::pdu::PDU pduOf(Bytes& storage) {
        return lumora::pdu::PDU{storage.data(),
                                static_cast<uint16_t>(storage.size()),
                                0,
                                static_cast<uint16_t>(storage.size()),
                                {0, 0}};
    }
    // A receive batch: the frames laid one after the other in one buffer,
    // which is what a hold names.
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
        void hold() { TAP::holdWrites(storage.data(), storage.data() + storage.size()); }
        Bytes storage;
        std::vector<lumora::pdu::PDU> views;
    };
};

TEST_F(TapHoldTest, HeldFramesReachTheInterfaceTogetherInOrder) {
    auto tap = open();
    auto sock = receiver();
    BatchSeam seam;
    const std::vector<Bytes> frames = {frameOf(60, 0x11), frameOf(1514, 0x22), frameOf(98, 0x33)};
    Batch batch(frames);
    batch.hold();
    for (const auto& view : batch.views) tap->write(view);
    EXPECT_EQ(TAP::heldWrites(), 3u);
    EXPECT_EQ(next(sock.get(), false), Bytes{});
    TAP::flushHeldWrites();
    EXPECT_EQ(batches, std::vector<unsigned>{3});
    // Written from where they lie in the batch: nothing was copied aside.
    EXPECT_EQ(batched_data,
              (std::vector<const uint8_t*>{batch.views[0].data(), batch.views[1].data(),
                                           batch.views[2].data()}));
    for (const Bytes& frame : frames) EXPECT_EQ(next(sock.get()), frame);
    EXPECT_EQ(capture.lines(), Lines{});
}

TEST_F(TapHoldTest, AFrameOutsideTheBatchIsWrittenAtOnceBehindTheHeldOnes) {
    auto tap = open();
    auto sock = receiver();
    BatchSeam seam;
    Batch batch({frameOf(60, 0x11), frameOf(70, 0x22)});
    batch.hold();
    tap->write(batch.views[0]);
    EXPECT_EQ(TAP::heldWrites(), 1u);
    Bytes elsewhere = frameOf(80, 0x33);
    tap->write(pduOf(elsewhere));
    EXPECT_EQ(TAP::heldWrites(), 0u);
    tap->write(batch.views[1]);
    EXPECT_EQ(TAP::heldWrites(), 1u);
    TAP::stopHoldingWrites();
    EXPECT_EQ(batches, (std::vector<unsigned>{1, 1}));
    EXPECT_EQ(next(sock.get()), frameOf(60, 0x11));
    EXPECT_EQ(next(sock.get()), elsewhere);
    EXPECT_EQ(next(sock.get()), frameOf(70, 0x22));
}

TEST_F(TapHoldTest, ARefusedHeldFrameIsOneWarningAndTheOthersArrive) {
    auto tap = open();
    auto sock = receiver();
    BatchSeam seam;
    // The middle one is shorter than an Ethernet header: refused.
    Batch batch({frameOf(60, 0x11), Bytes{1, 2, 3, 4}, frameOf(70, 0x33)});
    batch.hold();
    for (const auto& view : batch.views) tap->write(view);
    TAP::stopHoldingWrites();  // hands over what is held
    EXPECT_EQ(batches, std::vector<unsigned>{3});
    EXPECT_EQ(next(sock.get()), frameOf(60, 0x11));
    EXPECT_EQ(next(sock.get()), frameOf(70, 0x33));
    EXPECT_EQ(capture.lines(), Lines{"vxtap0 short write: 4 (req) > -1 (sent)"});
}

TEST_F(TapHoldTest, WithoutAHoldEveryFrameIsWrittenAtOnce) {
    auto tap = open();
    auto sock = receiver();
    BatchSeam seam;
    Bytes frame = frameOf(60, 0x44);
    tap->write(pduOf(frame));
    EXPECT_EQ(TAP::heldWrites(), 0u);
    EXPECT_EQ(next(sock.get()), frame);
    EXPECT_EQ(batches, std::vector<unsigned>{});
}

}  // namespace
}  // namespace vxbrd_test
