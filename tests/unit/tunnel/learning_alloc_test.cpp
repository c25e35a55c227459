// Learning a known client on its known peer is the per-packet path: it must
// not touch the heap. New and moving clients may.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <new>

#include "alloc_counter_support.h"
#include "learning_support.h"
#include "tunnel/Learning.h"

namespace {

thread_local bool counting = false;
thread_local size_t allocations = 0;

void* allocate(size_t size) {
    if (counting) ++allocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(size_t size) { return allocate(size); }
void* operator new[](size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace lumora::test {

void AllocationCounter::start() {
    allocations = 0;
    counting = true;
}

size_t AllocationCounter::stop() {
    counting = false;
    return allocations;
}

}  // namespace lumora::test

namespace lumora {
namespace {

using test::AllocationCounter;
using test::fromV4;
using test::fromV6;
using test::LogCapture;
using test::mac;

TEST(LearningAllocation, AKnownClientOnItsPeerAllocatesNothing) {
    Tables tables;
    LogCapture log;
    log.logger.level = Debug;
    const auto m = mac(0x55);
    Sighting s4 = fromV4("192.0.2.10", 20, m);
    s4.tagVlan = 20;
    s4.hasKey = true;
    s4.key = 7;
    const auto n = mac(0x66);
    Sighting s6 = fromV6("2001:db8::5", 0, n);
    learn(tables, &log.logger, s4);
    learn(tables, &log.logger, s6);
    const size_t lines = log.lines().size();

    AllocationCounter::start();
    for (int i = 0; i < 1000; ++i) {
        learn(tables, &log.logger, s4);
        learn(tables, &log.logger, s6);
    }
    EXPECT_EQ(AllocationCounter::stop(), 0u);
    EXPECT_EQ(log.lines().size(), lines);
    EXPECT_EQ(tables.findClient(m.data(), 20)->readTraffic().packetsIn, 1001u);
}

TEST(LearningAllocation, NewAndMovingClientsDoAllocate) {
    // Proves the counter counts: the same calls with new records allocate.
    Tables tables;
    LogCapture log;
    const auto m = mac(0x55);
    AllocationCounter::start();
    learn(tables, &log.logger, fromV4("192.0.2.10", 20, m));
    EXPECT_GT(AllocationCounter::stop(), 0u);
    AllocationCounter::start();
    learn(tables, &log.logger, fromV4("192.0.2.11", 20, m));
    EXPECT_GT(AllocationCounter::stop(), 0u);
}

}  // namespace
}  // namespace lumora
