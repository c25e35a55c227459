#include "app/Daemon.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace lumora {

void daemonize(Logger& logger, const char* pid_path) {
    // Each process below ends with exit(), which flushes stdio: empty the
    // buffers now so that nothing printed so far is written twice.
    std::fflush(stdout);
    std::fflush(stderr);

    const pid_t first = fork();
    if (first < 0) {
        std::perror("fork()");
        std::exit(1);
    }
    // The caller does not wait for the PID file.
    if (first > 0) std::exit(0);

    // A new session without a controlling terminal. It cannot fail here: a
    // freshly forked child is never a process group leader.
    setsid();
    const pid_t daemon = fork();
    if (daemon < 0) {
        VXBRD_LOG(logger, Error, "fork(): %s", std::strerror(errno));
        std::exit(1);
    }
    if (daemon == 0) {
        // Not a session leader, so it can never reacquire a terminal. Neither
        // call can fail in a way that matters to the daemon.
        (void)chdir("/");
        umask(0);
        return;
    }

    // The session leader records the daemon's pid and leaves. Running without
    // a PID file is acceptable to the operators, hence status 0 either way.
    FILE* file = std::fopen(pid_path, "w");
    if (file == nullptr) {
        VXBRD_LOG(logger, Warning, "can't write PID to %s: %s", pid_path, std::strerror(errno));
        std::exit(0);
    }
    std::fprintf(file, "%d\n", static_cast<int>(daemon));
    std::fclose(file);
    std::exit(0);
}

}  // namespace lumora
