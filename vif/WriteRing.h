// A submission ring for frame writes: a batch of writes, to any descriptors,
// handed to the kernel in one system call. io_uring on Linux
// (writering_linux.cpp); FreeBSD has none (writering_freebsd.cpp) and its
// endpoints write one frame at a time.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace lumora::vif {

class WriteRing {
  public:
    // The most writes one submission takes.
    static constexpr unsigned kEntries = 16;

    // One write to fd, gathered from pieces[0..piece_count) (a frame and
    // the header in front of it, or the pieces of a merged frame). The
    // pieces stay put until writeAll returns.
    struct Write {
        int fd;
        const iovec* pieces;
        unsigned piece_count;
    };

    virtual ~WriteRing() = default;

    // A ring of kEntries, or null where the platform has none or refuses
    // one (the caller then writes plainly).
    static std::unique_ptr<WriteRing> open();

    // Performs writes[0..n) (n <= kEntries) in order and puts what each
    // returned (bytes written, -1 on error) in results. False when nothing
    // could be submitted at all: the caller then writes them one by one.
    virtual bool writeAll(std::span<const Write> writes, ssize_t* results) = 0;
};

}  // namespace lumora::vif
