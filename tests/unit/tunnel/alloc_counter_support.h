// Counts the calling thread's heap allocations between start() and stop().
// The counting operator new lives in learning_alloc_test.cpp; any test of the
// unit_tunnel binary may use it to prove a per-packet path allocation-free.
#pragma once

#include <cstddef>

namespace lumora::test {

struct AllocationCounter {
    static void start();
    // Allocations made by this thread since start().
    static size_t stop();
};

}  // namespace lumora::test
