#ifndef __linux__
#error "notify_linux.cpp is the Linux backend; build notify_freebsd.cpp instead"
#endif

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "app/ServiceNotify.h"

namespace lumora {

int notifyServiceManager(std::string_view state) {
    const char* target = std::getenv("NOTIFY_SOCKET");
    if (target == nullptr || *target == '\0') return -1;
    const std::size_t length = std::strlen(target);
    sockaddr_un address{};
    if (length >= sizeof address.sun_path) return ENAMETOOLONG;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, target, length);
    // "@name" is an abstract socket: a leading NUL and no terminator.
    if (target[0] == '@') address.sun_path[0] = '\0';
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length +
                                             (target[0] == '@' ? 0 : 1));

    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    int result = 0;
    if (sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr*>(&address), size) < 0)
        result = errno;
    close(fd);
    return result;
}

}  // namespace lumora
