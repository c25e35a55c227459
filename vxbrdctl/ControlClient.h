// Talking to the daemon's control socket. The daemon serves a connection
// until it reads end of stream, so every exchange ends the same way: send
// the request, shut down the sending side, read until the daemon closes,
// then close. A client that closed outright would leave the daemon holding
// a hung-up descriptor that it never releases.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace lumora::ctl {

inline constexpr const char* kDefaultSocketPath = "/var/run/vxbrd.sock";

// Exit statuses of vxbrdctl, documented in vxbrdctl(8).
enum ExitStatus : int {
    kOk = 0,
    kFailed = 1,      // I/O error, time-out, or a reply that is not a report
    kUsage = 2,       // bad command line
    kNotRunning = 3,  // the socket exists but nothing listens on it
    kNoSocket = 4,    // no socket at that path
    kDenied = 5,      // not allowed to connect
};

// Why an exchange failed: the exit status and the message for stderr.
struct ControlError {
    int status;
    std::string message;
    // The daemon took the connection but did not answer in time.
    bool timed_out = false;
};

// Sends request (the bare word) on the socket at path and returns the whole
// reply. Gives up after timeout_seconds in all. Throws ControlError. When
// daemon_pid is given, it receives the process id at the other end as soon
// as the connection stands (0 when the system does not tell).
std::string exchange(const std::string& path, std::string_view request, int timeout_seconds,
                     pid_t* daemon_pid = nullptr);

}  // namespace lumora::ctl
