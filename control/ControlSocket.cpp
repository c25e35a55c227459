#include "control/ControlSocket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <vector>

#include "control/Reports.h"
#include "control/socket_platform.h"
#include "core/Descriptor.h"

namespace lumora {

namespace {

constexpr size_t kRequestSize = 80;

// Messages of this thread go to standard output, flushed per line so that an
// operator watching a pipe sees them as they happen.
__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    std::fflush(stdout);
}

// The listening socket, or none when it cannot be bound or listened on.
Descriptor openListener(const std::string& path) {
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

void acceptAll(int listener, std::vector<int>& descriptors) {
    for (;;) {
        const int client = accept(listener, nullptr, nullptr);
        if (client < 0) return;
        say("Accepted connection. client_socket=%d\n", client);
        descriptors.push_back(client);
    }
}

void serveRequest(int client, std::vector<int>& descriptors, Tables& tables) {
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
    // One send, result ignored, as clients expect; a peer that has gone must
    // not take the daemon with it, hence no SIGPIPE.
    (void)send(client, reply.data(), reply.size(), MSG_NOSIGNAL);
}

}  // namespace

void controlSocketServer(const std::string& path, Tables& tables) {
    // Kept for the thread's life, which is the process's.
    const Descriptor listening = openListener(path);
    if (!listening.valid()) return;
    const int listener = listening.get();
    std::vector<int> descriptors{listener};
    // Grows with the descriptor list, so the number of clients is not capped.
    std::vector<pollfd> table;
    for (;;) {
        table.assign(descriptors.size(), pollfd{});
        for (size_t i = 0; i < descriptors.size(); ++i) table[i] = {descriptors[i], POLLIN, 0};
        const int ready = poll(table.data(), table.size(), 1000);
        if (ready == 0) {
            usleep(1000);
            continue;
        }
        if (ready < 0) {
            say("poll() error: %s[%d]\n", std::strerror(errno), errno);
            continue;
        }
        for (const pollfd& entry : table) {
            if (entry.revents == 0) continue;
            if (entry.revents != POLLIN) {
                // The hung-up descriptor stays; it is met again at the next poll.
                say("  Error! revents = %d\n", static_cast<int16_t>(entry.revents));
                break;
            }
            if (entry.fd == listener) {
                acceptAll(listener, descriptors);
            } else {
                serveRequest(entry.fd, descriptors, tables);
            }
        }
    }
}

}  // namespace lumora
