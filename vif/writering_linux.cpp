#ifndef __linux__
#error "writering_linux.cpp is the Linux write ring (io_uring)"
#endif

// Batched frame writes through io_uring: a batch of writes in one system
// call. The tun driver performs each write at once (it never has to wait),
// so the writes complete inside the submission, in order. Where io_uring is
// missing or refused, open() says so and the endpoint writes plainly.

#include <linux/io_uring.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "core/Descriptor.h"
#include "vif/WriteRing.h"

namespace lumora::vif {

namespace {

// A memory mapping of the ring, unmapped with the ring.
struct Mapping {
    void* address = MAP_FAILED;
    size_t size = 0;
    ~Mapping() {
        if (address != MAP_FAILED) munmap(address, size);
    }
};

class UringWriteRing : public WriteRing {
  public:
    // False when the kernel refuses the ring or lacks what it needs.
    bool setUp() {
        io_uring_params p;
        std::memset(&p, 0, sizeof p);
        ring = Descriptor(static_cast<int>(syscall(__NR_io_uring_setup, kEntries, &p)));
        if (!ring.valid()) return false;
        if ((p.features & IORING_FEAT_SINGLE_MMAP) == 0 || p.sq_entries < kEntries) return false;
        rings.size = std::max<size_t>(p.sq_off.array + p.sq_entries * sizeof(unsigned),
                                      p.cq_off.cqes + p.cq_entries * sizeof(io_uring_cqe));
        rings.address = mmap(nullptr, rings.size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE,
                             ring.get(), IORING_OFF_SQ_RING);
        if (rings.address == MAP_FAILED) return false;
        entries.size = p.sq_entries * sizeof(io_uring_sqe);
        entries.address = mmap(nullptr, entries.size, PROT_READ | PROT_WRITE,
                               MAP_SHARED | MAP_POPULATE, ring.get(), IORING_OFF_SQES);
        if (entries.address == MAP_FAILED) return false;
        auto* base = static_cast<uint8_t*>(rings.address);
        sq_tail = reinterpret_cast<unsigned*>(base + p.sq_off.tail);
        sq_mask = *reinterpret_cast<unsigned*>(base + p.sq_off.ring_mask);
        sq_array = reinterpret_cast<unsigned*>(base + p.sq_off.array);
        cq_head = reinterpret_cast<unsigned*>(base + p.cq_off.head);
        cq_tail = reinterpret_cast<unsigned*>(base + p.cq_off.tail);
        cq_mask = *reinterpret_cast<unsigned*>(base + p.cq_off.ring_mask);
        cqes = reinterpret_cast<io_uring_cqe*>(base + p.cq_off.cqes);
        sqes = static_cast<io_uring_sqe*>(entries.address);
        return true;
    }

    bool writeAll(std::span<const Write> writes, ssize_t* results) override {
        const auto count = static_cast<unsigned>(writes.size());
        if (count == 0) return true;
        if (count > kEntries || !usable) return false;
        unsigned tail = *sq_tail;
        for (unsigned i = 0; i < count; ++i, ++tail) {
            io_uring_sqe* sqe = &sqes[tail & sq_mask];
            std::memset(sqe, 0, sizeof *sqe);
            sqe->opcode = IORING_OP_WRITEV;
            sqe->fd = writes[i].fd;
            sqe->addr = reinterpret_cast<uint64_t>(writes[i].pieces);
            sqe->len = writes[i].piece_count;
            sqe->off = static_cast<uint64_t>(-1);
            sqe->user_data = i;
            sq_array[tail & sq_mask] = tail & sq_mask;
            results[i] = -1;
        }
        std::atomic_ref<unsigned>(*sq_tail).store(tail, std::memory_order_release);
        unsigned submitted = 0;
        unsigned done = 0;
        for (int round = 0; done < count && round < 1000; ++round) {
            const long entered = syscall(__NR_io_uring_enter, ring.get(), count - submitted,
                                         count - done, IORING_ENTER_GETEVENTS, nullptr, 0);
            if (entered < 0 && errno != EINTR) {
                // Nothing taken: the ring is given up for good and the
                // caller writes plainly. Else what was taken is reaped.
                if (submitted == 0) {
                    usable = false;
                    return false;
                }
                break;
            }
            if (entered > 0) submitted += static_cast<unsigned>(entered);
            unsigned head = *cq_head;
            const unsigned ready =
                std::atomic_ref<unsigned>(*cq_tail).load(std::memory_order_acquire);
            for (; head != ready; ++head, ++done) {
                const io_uring_cqe& cqe = cqes[head & cq_mask];
                if (cqe.user_data < count) results[cqe.user_data] = cqe.res < 0 ? -1 : cqe.res;
            }
            std::atomic_ref<unsigned>(*cq_head).store(head, std::memory_order_release);
        }
        return true;
    }

  private:
    bool usable = true;
    // Declared before the mappings: they are unmapped first, then it closes.
    Descriptor ring;
    Mapping rings;
    Mapping entries;
    unsigned* sq_tail = nullptr;
    unsigned sq_mask = 0;
    unsigned* sq_array = nullptr;
    io_uring_sqe* sqes = nullptr;
    unsigned* cq_head = nullptr;
    unsigned* cq_tail = nullptr;
    unsigned cq_mask = 0;
    io_uring_cqe* cqes = nullptr;
};

}  // namespace

std::unique_ptr<WriteRing> WriteRing::open() {
    auto made = std::make_unique<UringWriteRing>();
    if (!made->setUp()) return nullptr;
    return made;
}

}  // namespace lumora::vif
