#include "control/ControlSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "control/Reports.h"
#include "control/socket_platform.h"

namespace lumora {

namespace {

constexpr size_t kRequestSize = 80;

// Messages of this thread go to standard output, flushed per line so that an
// operator watching a pipe sees them as they happen. A reader that has gone
// away costs nothing: the daemon ignores SIGPIPE and the lines are lost.
__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::fflush(stdout);
}

// Blocking with a send time-out, on every system alike: an accepted socket
// inherits the listener's non-blocking mode on some systems, which would cut
// a large report short. Returns false with errno set when the socket refuses.
bool blockingWithSendTimeout(int client) {
    const int flags = fcntl(client, F_GETFL);
    if (flags < 0 || fcntl(client, F_SETFL, flags & ~O_NONBLOCK) < 0) return false;
    const timeval limit{kSendTimeoutMilliseconds / 1000, (kSendTimeoutMilliseconds % 1000) * 1000};
    return setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

}  // namespace

Descriptor openControlListener(const std::string& path) {
    unlink(path.c_str());  // a socket file left by an earlier run goes
    Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(),
                std::min(path.size() + 1, sizeof(address.sun_path)));
    if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), unixAddressSize()) < 0) {
        const int error = errno;
        say("bind failed: %s[%d]\n", std::strerror(error), error);
        return Descriptor();
    }
    if (listen(listener.get(), 5) < 0) {
        const int error = errno;
        say("listen failed: %s[%d]\n", std::strerror(error), error);
        return Descriptor();
    }
    return listener;
}

ControlServer::ControlServer(Descriptor listening, Tables& tables)
    : listener(std::move(listening)), tables(tables), descriptors{listener.get()} {}

ControlServer::~ControlServer() {
    for (const int client : clients()) close(client);
}

std::vector<int> ControlServer::clients() const {
    return std::vector<int>(descriptors.begin() + 1, descriptors.end());
}

void ControlServer::acceptAll() {
    for (;;) {
        const int client = accept(listener.get(), nullptr, nullptr);
        if (client < 0) return;
        if (descriptors.size() >= table.size()) {
            say("Refused connection. client_socket=%d: %zu connections open\n", client,
                descriptors.size() - 1);
            close(client);
            continue;
        }
        if (!blockingWithSendTimeout(client)) {
            const int error = errno;
            say("Refused connection. client_socket=%d: %s[%d]\n", client, std::strerror(error),
                error);
            close(client);
            continue;
        }
        say("Accepted connection. client_socket=%d\n", client);
        descriptors.push_back(client);
    }
}

void ControlServer::serveRequest(int client) {
    char request[kRequestSize];
    const ssize_t received = recv(client, request, sizeof request, 0);
    if (received < 0) return;
    if (received == 0) {
        say("Connection closed. client socket=%d\n", client);
        close(client);
        descriptors.erase(std::remove(descriptors.begin(), descriptors.end(), client),
                          descriptors.end());
        return;
    }
    const std::string reply =
        replyTo(tables, std::string_view(request, static_cast<size_t>(received)));
    // One send, result ignored, as clients expect: a client that has gone or
    // stopped reading loses (the rest of) its reply. It waits at most the
    // send time-out, and a peer that has gone raises no SIGPIPE.
    (void)send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
}

int ControlServer::pass(int timeout_ms) {
    const size_t n = descriptors.size();
    for (size_t i = 0; i < n; ++i) table[i] = {descriptors[i], POLLIN, 0};
    const int ready = poll(table.data(), n, timeout_ms);
    if (ready < 0) {
        const int error = errno;
        say("poll() error: %s[%d]\n", std::strerror(error), error);
        return ready;
    }
    for (size_t i = 0; i < n; ++i) {
        const pollfd entry = table[i];
        if (entry.revents == 0) continue;
        if (entry.revents != POLLIN) {
            // The hung-up descriptor stays; it is met again at the next poll.
            say("  Error! revents = %d\n", static_cast<int16_t>(entry.revents));
            break;
        }
        if (entry.fd == listener.get()) {
            acceptAll();
        } else {
            serveRequest(entry.fd);
        }
    }
    return ready;
}

void controlSocketServer(const std::string& path, Tables& tables) {
    Descriptor listening = openControlListener(path);
    if (!listening.valid()) return;
    // Kept for the thread's life, which is the process's.
    ControlServer server(std::move(listening), tables);
    for (;;) {
        if (server.pass(1000) == 0) usleep(1000);
    }
}

}  // namespace lumora
