// Sending is on every frame's path: whole or cut into pieces, it must not
// touch the heap. The counting operator new is the one of this binary
// (alloc_counter_support.h); the recording socket reserves its storage
// before the window opens.
#include <gtest/gtest.h>

#include "alloc_counter_support.h"
#include "encapsulation_support.h"
#include "tunnel/Send.h"

namespace lumora {
namespace {

using namespace test::encap;
using test::AllocationCounter;

const uint32_t kKey = 0x0a0b0c0d;

TEST(EncapsulationAllocation, AWholeFrameAllocatesNothing) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    FrameBuffer buffer(ipv4Frame(1000));
    const Destination d = peerV4(socket, 20);
    AllocationCounter::start();
    send(log.logger, d, buffer.pdu, &kKey, 0);
    const size_t allocations = AllocationCounter::stop();
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(socket.count(), 1u);
}

TEST(EncapsulationAllocation, AFragmentedFrameAllocatesNothing) {
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    FrameBuffer keyed(ipv4Frame(4000));
    FrameBuffer plain(ipv4Frame(2000));
    const Destination tagged = peerV4(socket, 20);
    const Destination untagged = peerV4(socket, 0);
    AllocationCounter::start();
    send(log.logger, tagged, keyed.pdu, &kKey, 0);
    send(log.logger, untagged, plain.pdu, nullptr, 1300);
    const size_t allocations = AllocationCounter::stop();
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(socket.count(), 3u + 2u);
}

TEST(EncapsulationAllocation, TheCounterSeesAnAllocationInTheWindow) {
    // Proves the window counts: the same calls plus one copy of a datagram do.
    MemoryLog log;
    RecordingGreSocket socket = sendingSocket();
    FrameBuffer buffer(ipv4Frame(2000));
    AllocationCounter::start();
    send(log.logger, peerV4(socket, 0), buffer.pdu, &kKey, 0);
    const Bytes copy = socket.bytes(0);
    const size_t allocations = AllocationCounter::stop();
    EXPECT_GT(allocations, 0u);
    EXPECT_EQ(hexOf(slice(copy, 0, 4)), "20 00 65 58");
}

}  // namespace
}  // namespace lumora
