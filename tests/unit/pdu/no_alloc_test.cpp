// The per-frame work (making views, walking a TCP/IPv4 frame, clamping the
// MSS, the header checksum) must not touch the heap. Global operator new and
// delete are replaced for the whole unit_pdu binary to count calls; only the
// difference across the measured window is asserted.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "frames_support.h"
#include "pdu/Checksum.h"
#include "pdu/ClampMSS.h"
#include "pdu/Views.h"

namespace {

std::atomic<unsigned long> allocations{0};
std::atomic<unsigned long> deallocations{0};

void* allocate(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size == 0 ? 1 : size);
}

void* allocateAligned(std::size_t size, std::align_val_t alignment) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    void* memory = nullptr;
    std::size_t align = static_cast<std::size_t>(alignment);
    if (align < sizeof(void*)) align = sizeof(void*);
    if (posix_memalign(&memory, align, size == 0 ? 1 : size) != 0) return nullptr;
    return memory;
}

// Kept out of line: once inlined into operator delete and from there into a
// new-expression, GCC takes the free() for a mismatch with operator new.
[[gnu::noinline]] void release(void* memory) {
    if (memory == nullptr) return;
    deallocations.fetch_add(1, std::memory_order_relaxed);
    std::free(memory);
}

}  // namespace

void* operator new(std::size_t size) {
    if (void* memory = allocate(size)) return memory;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    if (void* memory = allocate(size)) return memory;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new(std::size_t size, std::align_val_t alignment) {
    if (void* memory = allocateAligned(size, alignment)) return memory;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    if (void* memory = allocateAligned(size, alignment)) return memory;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocateAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocateAligned(size, alignment);
}

void operator delete(void* memory) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { release(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { release(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { release(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { release(memory); }
void operator delete[](void* memory, std::align_val_t) noexcept { release(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept { release(memory); }
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    release(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    release(memory);
}

namespace lumora::pdu {
namespace {

TEST(NoAllocation, CounterSeesAnAllocation) {
    const unsigned long before = allocations.load();
    void* volatile memory = ::operator new(32);
    ::operator delete(memory);
    EXPECT_EQ(allocations.load() - before, 1u);
}

// The egress path's per-frame work on a SYN: walk to TCP, fill the IPv4
// checksum, clamp. Returns whether it clamped.
bool perFrame(PDU frame) {
    const EthernetPDU eth = EthernetPDU::at(frame, frame._begin);
    if (eth.ethertype() != kEthertypeIPv4) return false;
    const IPv4PDU ip = IPv4PDU::at(eth, eth.innerBegin());
    ipv4HeaderChecksum(ip);
    if (ip.protocol() != kProtocolTcp || ip.fragmentOffset() != 0) return false;
    const TcpPDU tcp = TcpPDU::at(ip, ip.innerBegin());
    return tcp.syn() && clampMSS(tcp, 1380);
}

TEST(NoAllocation, ViewsWalkChecksumAndClamp) {
    test::Frame frame(
        "02 00 00 00 00 02 02 00 00 00 00 01 08 00"
        "45 00 00 2c 12 34 40 00 40 06 00 00 c0 00 02 01 c6 33 64 02"
        "c0 00 00 50 00 00 00 01 00 00 00 00 60 02 ff ff ab cd 00 00 02 04 05 b4",
        64, 4032 - 58);
    const PDU p = frame.pdu();
    int clamped = 0;

    const unsigned long allocated = allocations.load();
    const unsigned long released = deallocations.load();
    for (int i = 0; i < 1000; ++i) {
        frame.at(56)[0] = 0x05;  // MSS back to 1460 for the next round
        frame.at(56)[1] = 0xb4;
        clamped += perFrame(p) ? 1 : 0;
        // Every view type, made and thrown away.
        (void)VlanPDU::at(p, p._begin);
        (void)QinQPDU::at(p, p._begin);
        (void)ArpPDU::at(p, p._begin);
        (void)IPv6PDU::at(p, p._begin);
        (void)GrePDU::at(p, p._begin);
        (void)UdpPDU::at(p, p._begin);
        (void)Icmpv4PDU::at(p, p._begin);
        (void)Icmpv6PDU::at(p, p._begin);
    }
    const unsigned long allocated_after = allocations.load();
    const unsigned long released_after = deallocations.load();

    EXPECT_EQ(allocated_after - allocated, 0u);
    EXPECT_EQ(released_after - released, 0u);
    EXPECT_EQ(clamped, 1000);
    EXPECT_EQ(frame.bytes()[56], 0x05);
    EXPECT_EQ(frame.bytes()[57], 0x64);
}

}  // namespace
}  // namespace lumora::pdu
