// What vxbrdctl status learns about the daemon's process from the system:
// who is at the other end of the control socket, when that process started
// and with which arguments, and whether a vxbrd runs at all when the socket
// does not answer. One implementation per system: process_linux.cpp,
// process_freebsd.cpp.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace lumora::ctl {

struct ProcessInfo {
    pid_t pid = 0;
    std::time_t started = 0;             // wall-clock seconds
    long startedMs = 0;                  // and the milliseconds past them
    std::vector<std::string> arguments;  // argv, the program first
};

// The process id of the peer of a connected UNIX stream socket.
std::optional<pid_t> socketPeer(int fd);

// The start time and arguments of pid; nullopt when it is gone.
std::optional<ProcessInfo> processInfo(pid_t pid);

// Running processes named "vxbrd" that share this process's view of the
// file system (its mount namespace, its jail), so whose control socket would
// be the one at our path. In ascending pid order.
std::vector<pid_t> daemonsHere();

}  // namespace lumora::ctl
