// Just enough io_uring for the batched relay, on the raw system calls (no
// library): one ring, submission of prepared entries, reaping completions.
#pragma once

#include <linux/io_uring.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

namespace bench {

class Uring {
  public:
    ~Uring() {
        if (fd >= 0) close(fd);
    }

    // false when the kernel has no io_uring (or it is disabled).
    bool open(unsigned entries) {
        io_uring_params p;
        std::memset(&p, 0, sizeof p);
        fd = static_cast<int>(syscall(__NR_io_uring_setup, entries, &p));
        if (fd < 0) return false;
        size_t sq_size = p.sq_off.array + p.sq_entries * sizeof(unsigned);
        size_t cq_size = p.cq_off.cqes + p.cq_entries * sizeof(io_uring_cqe);
        const bool single = (p.features & IORING_FEAT_SINGLE_MMAP) != 0;
        if (single) sq_size = cq_size = sq_size > cq_size ? sq_size : cq_size;
        auto* sq = static_cast<uint8_t*>(mmap(nullptr, sq_size, PROT_READ | PROT_WRITE,
                                              MAP_SHARED | MAP_POPULATE, fd, IORING_OFF_SQ_RING));
        if (sq == MAP_FAILED) return false;
        uint8_t* cq = sq;
        if (!single) {
            cq = static_cast<uint8_t*>(mmap(nullptr, cq_size, PROT_READ | PROT_WRITE,
                                            MAP_SHARED | MAP_POPULATE, fd, IORING_OFF_CQ_RING));
            if (cq == MAP_FAILED) return false;
        }
        sqes = static_cast<io_uring_sqe*>(mmap(nullptr, p.sq_entries * sizeof(io_uring_sqe),
                                               PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE,
                                               fd, IORING_OFF_SQES));
        if (sqes == MAP_FAILED) return false;
        sq_head = reinterpret_cast<unsigned*>(sq + p.sq_off.head);
        sq_tail = reinterpret_cast<unsigned*>(sq + p.sq_off.tail);
        sq_mask = *reinterpret_cast<unsigned*>(sq + p.sq_off.ring_mask);
        sq_array = reinterpret_cast<unsigned*>(sq + p.sq_off.array);
        sq_entries = p.sq_entries;
        cq_head = reinterpret_cast<unsigned*>(cq + p.cq_off.head);
        cq_tail = reinterpret_cast<unsigned*>(cq + p.cq_off.tail);
        cq_mask = *reinterpret_cast<unsigned*>(cq + p.cq_off.ring_mask);
        cqes = reinterpret_cast<io_uring_cqe*>(cq + p.cq_off.cqes);
        tail = *sq_tail;
        return true;
    }

    // A read or write of one buffer on fd; user_data comes back in the completion.
    bool prepare(uint8_t opcode, int target, void* data, unsigned length, uint64_t user_data) {
        const unsigned head = std::atomic_ref<unsigned>(*sq_head).load(std::memory_order_acquire);
        if (tail - head >= sq_entries) return false;
        io_uring_sqe* sqe = &sqes[tail & sq_mask];
        std::memset(sqe, 0, sizeof *sqe);
        sqe->opcode = opcode;
        sqe->fd = target;
        sqe->addr = reinterpret_cast<uint64_t>(data);
        sqe->len = length;
        sqe->off = static_cast<uint64_t>(-1);
        sqe->user_data = user_data;
        sq_array[tail & sq_mask] = tail & sq_mask;
        ++tail;
        ++pending;
        return true;
    }

    // Submits what was prepared and waits until at least min_complete are done.
    int enter(unsigned min_complete) {
        std::atomic_ref<unsigned>(*sq_tail).store(tail, std::memory_order_release);
        const unsigned submit = pending;
        pending = 0;
        return static_cast<int>(syscall(__NR_io_uring_enter, fd, submit, min_complete,
                                        min_complete > 0 ? IORING_ENTER_GETEVENTS : 0, nullptr, 0));
    }

    // Calls f(user_data, result) for every completion that is ready.
    template <typename F>
    unsigned reap(F f) {
        unsigned head = *cq_head;
        const unsigned ready = std::atomic_ref<unsigned>(*cq_tail).load(std::memory_order_acquire);
        unsigned count = 0;
        for (; head != ready; ++head, ++count) {
            const io_uring_cqe& cqe = cqes[head & cq_mask];
            f(cqe.user_data, cqe.res);
        }
        std::atomic_ref<unsigned>(*cq_head).store(head, std::memory_order_release);
        return count;
    }

  private:
    int fd = -1;
    unsigned* sq_head = nullptr;
    unsigned* sq_tail = nullptr;
    unsigned sq_mask = 0;
    unsigned* sq_array = nullptr;
    unsigned sq_entries = 0;
    io_uring_sqe* sqes = nullptr;
    unsigned* cq_head = nullptr;
    unsigned* cq_tail = nullptr;
    unsigned cq_mask = 0;
    io_uring_cqe* cqes = nullptr;
    unsigned tail = 0;
    unsigned pending = 0;
};

}  // namespace bench
