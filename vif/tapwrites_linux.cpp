#ifndef __linux__
#error "tapwrites_linux.cpp is the Linux batched tap write"
#endif

// Batched tap writes: one io_uring per writing thread takes a batch of frame
// writes in one system call. The tun driver performs each write at once
// (it never has to wait), so the writes complete inside the submission, in
// order. Where io_uring is missing or refused, writeFrames says so and the
// endpoint writes plainly.

#include <linux/io_uring.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "vif/tap_platform.h"

namespace lumora::vif::platform {

namespace {

constexpr unsigned kEntries = TAP::kMaxHeldWrites;

class Ring {
  public:
    ~Ring() {
        if (fd >= 0) ::close(fd);
    }

    // Sets the ring up the first time; false for good when that fails.
    bool ready() {
        if (!tried) {
            tried = true;
            usable = open();
        }
        return usable;
    }

    bool writeAll(const TAP::Outgoing* frames, unsigned count, ssize_t* results) {
        unsigned tail = *sq_tail;
        for (unsigned i = 0; i < count; ++i, ++tail) {
            io_uring_sqe* sqe = &sqes[tail & sq_mask];
            std::memset(sqe, 0, sizeof *sqe);
            sqe->opcode = IORING_OP_WRITE;
            sqe->fd = frames[i].fd;
            sqe->addr = reinterpret_cast<uint64_t>(frames[i].data);
            sqe->len = static_cast<uint32_t>(frames[i].length);
            sqe->off = static_cast<uint64_t>(-1);
            sqe->user_data = i;
            sq_array[tail & sq_mask] = tail & sq_mask;
            results[i] = -1;
        }
        std::atomic_ref<unsigned>(*sq_tail).store(tail, std::memory_order_release);
        unsigned submitted = 0;
        unsigned done = 0;
        for (int round = 0; done < count && round < 1000; ++round) {
            const long entered = syscall(__NR_io_uring_enter, fd, count - submitted, count - done,
                                         IORING_ENTER_GETEVENTS, nullptr, 0);
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
    bool open() {
        io_uring_params p;
        std::memset(&p, 0, sizeof p);
        fd = static_cast<int>(syscall(__NR_io_uring_setup, kEntries, &p));
        if (fd < 0) return false;
        if ((p.features & IORING_FEAT_SINGLE_MMAP) == 0 || p.sq_entries < kEntries) return false;
        size_t size = p.sq_off.array + p.sq_entries * sizeof(unsigned);
        const size_t cq_size = p.cq_off.cqes + p.cq_entries * sizeof(io_uring_cqe);
        if (cq_size > size) size = cq_size;
        void* rings = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd,
                           IORING_OFF_SQ_RING);
        if (rings == MAP_FAILED) return false;
        void* entries = mmap(nullptr, p.sq_entries * sizeof(io_uring_sqe), PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_POPULATE, fd, IORING_OFF_SQES);
        if (entries == MAP_FAILED) return false;
        auto* base = static_cast<uint8_t*>(rings);
        sq_tail = reinterpret_cast<unsigned*>(base + p.sq_off.tail);
        sq_mask = *reinterpret_cast<unsigned*>(base + p.sq_off.ring_mask);
        sq_array = reinterpret_cast<unsigned*>(base + p.sq_off.array);
        cq_head = reinterpret_cast<unsigned*>(base + p.cq_off.head);
        cq_tail = reinterpret_cast<unsigned*>(base + p.cq_off.tail);
        cq_mask = *reinterpret_cast<unsigned*>(base + p.cq_off.ring_mask);
        cqes = reinterpret_cast<io_uring_cqe*>(base + p.cq_off.cqes);
        sqes = static_cast<io_uring_sqe*>(entries);
        return true;
    }

    bool tried = false;
    bool usable = false;
    int fd = -1;
    unsigned* sq_tail = nullptr;
    unsigned sq_mask = 0;
    unsigned* sq_array = nullptr;
    io_uring_sqe* sqes = nullptr;
    unsigned* cq_head = nullptr;
    unsigned* cq_tail = nullptr;
    unsigned cq_mask = 0;
    io_uring_cqe* cqes = nullptr;
};

thread_local Ring ring;

}  // namespace

unsigned writeBatchLimit() { return kEntries; }

bool writeFrames(const TAP::Outgoing* frames, unsigned count, ssize_t* results) {
    if (count == 0) return true;
    if (count > kEntries || !ring.ready()) return false;
    return ring.writeAll(frames, count, results);
}

}  // namespace lumora::vif::platform
