// The owner of every descriptor the daemon keeps: GRE sockets, taps, the
// control listener and its clients, io_uring rings. A Descriptor closes what
// it holds when it goes; an open sequence keeps each descriptor in one until
// the endpoint is fully built, so a throw half-way closes whatever was
// already open, and an endpoint keeps its descriptors in them for its life.
//
// The named constructors make the call and check it: a failure is logged at
// Error as "<name> <call>: <strerror>" and thrown as the bare errno.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "core/Logger.h"

namespace lumora {

// Logs "<name> <call>: <strerror>" at Error and throws the errno as a bare int.
// errno is captured first: the logging itself may overwrite it.
[[noreturn]] inline void failCall(Logger* logger, const char* name, const char* call) {
    const int error = errno;
    VXBRD_LOG(*logger, Error, "%s %s: %s", name, call, std::strerror(error));
    throw error;
}

class Descriptor {
  public:
    Descriptor() = default;
    // Takes ownership of fd (-1: none).
    explicit Descriptor(int fd) : fd(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept : fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            reset();
            fd = other.release();
        }
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    // socket(domain, type | SOCK_CLOEXEC, protocol); a failure is reported
    // as the call named call ("socket()", "socket(v6)").
    static Descriptor socket(Logger* logger, const char* name, const char* call, int domain,
                             int type, int protocol) {
        Descriptor made(::socket(domain, type | SOCK_CLOEXEC, protocol));
        if (!made.valid()) failCall(logger, name, call);
        return made;
    }
    // open(path, flags | O_CLOEXEC); a failure is reported as "open()".
    static Descriptor open(Logger* logger, const char* name, const char* path, int flags) {
        Descriptor made(::open(path, flags | O_CLOEXEC));
        if (!made.valid()) failCall(logger, name, "open()");
        return made;
    }

    int get() const { return fd; }
    bool valid() const { return fd >= 0; }
    // Hands the descriptor over; the caller closes it.
    int release() { return std::exchange(fd, -1); }
    void reset() {
        // Nothing useful can be done about a failing close on a descriptor
        // that is being given up.
        if (fd >= 0) ::close(fd);
        fd = -1;
    }

  private:
    int fd = -1;
};

}  // namespace lumora
