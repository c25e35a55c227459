// Descriptor ownership and checked system calls for the endpoints. An open
// sequence keeps each descriptor in a Descriptor until the endpoint is fully
// built, so a throw half-way closes whatever was already open.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "app/Logger.h"

namespace lumora::vif {

class Descriptor {
public:
    Descriptor() = default;
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

    int get() const { return fd; }
    bool valid() const { return fd >= 0; }
    // Hands the descriptor to its long-term owner, which must close it.
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

// Logs "<name> <call>: <strerror>" at Error and throws the errno as a bare int.
// errno is captured first: the logging itself may overwrite it.
[[noreturn]] inline void failCall(Logger* logger, const char* name, const char* call) {
    const int error = errno;
    logger->log(Error, "%s %s: %s", name, call, std::strerror(error));
    throw error;
}

}  // namespace lumora::vif
