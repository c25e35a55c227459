#include "vxbrdctl/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>

#include "vxbrdctl/Process.h"

namespace lumora::ctl {

namespace {

using Clock = std::chrono::steady_clock;

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

[[noreturn]] void failWith(int status, const std::string& message) {
    throw ControlError{status, message};
}

[[noreturn]] void timedOut(const std::string& path, int timeout_seconds) {
    throw ControlError{
        kFailed,
        "no reply from vxbrd on " + path + " within " + std::to_string(timeout_seconds) + " s",
        true};
}

[[noreturn]] void connectFailed(const std::string& path, int error, int timeout_seconds) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            failWith(kNoSocket, path + ": no such socket (is vxbrd running?)");
        case EACCES:
        case EPERM:
            failWith(kDenied, path + ": permission denied");
        case ECONNREFUSED: {
            struct stat info {};
            if (stat(path.c_str(), &info) == 0 && !S_ISSOCK(info.st_mode))
                failWith(kNoSocket, path + ": not a socket");
            // The daemon never removes its socket, so one left by a daemon
            // that has gone refuses connections.
            failWith(kNotRunning, "vxbrd is not running (nothing listens on " + path + ")");
        }
        case EAGAIN:
        case EINPROGRESS:
        case ETIMEDOUT:
            timedOut(path, timeout_seconds);
        default:
            failWith(kFailed, path + ": connect: " + std::strerror(error));
    }
}

// Milliseconds left until deadline, at least 0.
int remaining(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

}  // namespace

std::string exchange(const std::string& path, std::string_view request, int timeout_seconds,
                     pid_t* daemon_pid) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(timeout_seconds);
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) failWith(kUsage, path + ": socket path too long");
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    const Descriptor socket_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (socket_fd.get() < 0) failWith(kFailed, std::string("socket: ") + std::strerror(errno));
    // Bounds a connect that waits for room in a full listen queue.
    timeval limit{};
    limit.tv_sec = timeout_seconds;
    (void)setsockopt(socket_fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
    if (connect(socket_fd.get(), reinterpret_cast<const sockaddr*>(&address), length) < 0)
        connectFailed(path, errno, timeout_seconds);
    if (daemon_pid != nullptr) *daemon_pid = socketPeer(socket_fd.get()).value_or(0);

    // The daemon takes what one read returns as one request: the word goes
    // out in one piece, without a newline.
    const ssize_t sent = send(socket_fd.get(), request.data(), request.size(), MSG_NOSIGNAL);
    if (sent < 0) failWith(kFailed, path + ": send: " + std::strerror(errno));
    if (static_cast<size_t>(sent) != request.size())
        failWith(kFailed, path + ": the request went out in part");
    if (shutdown(socket_fd.get(), SHUT_WR) < 0)
        failWith(kFailed, path + ": shutdown: " + std::strerror(errno));

    std::string reply;
    char buffer[16384];
    for (;;) {
        pollfd entry{socket_fd.get(), POLLIN, 0};
        const int ready = poll(&entry, 1, remaining(deadline));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) failWith(kFailed, path + ": poll: " + std::strerror(errno));
        if (ready == 0) timedOut(path, timeout_seconds);
        const ssize_t got = recv(socket_fd.get(), buffer, sizeof buffer, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) failWith(kFailed, path + ": recv: " + std::strerror(errno));
        if (got == 0) return reply;  // the daemon has closed its side
        reply.append(buffer, static_cast<size_t>(got));
    }
}

}  // namespace lumora::ctl
