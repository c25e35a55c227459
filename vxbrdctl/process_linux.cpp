#ifndef __linux__
#error "process_linux.cpp is the Linux backend; build process_freebsd.cpp instead"
#endif

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "vxbrdctl/Process.h"

namespace lumora::ctl {

namespace {

std::optional<std::string> readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::string linkTarget(const std::string& path) {
    char target[256];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

// The fields of /proc/PID/stat after the command name, which may itself
// hold blanks and parentheses.
std::optional<std::vector<std::string>> statFields(pid_t pid) {
    const auto text = readFile("/proc/" + std::to_string(pid) + "/stat");
    if (!text) return std::nullopt;
    const size_t close = text->rfind(')');
    if (close == std::string::npos) return std::nullopt;
    std::istringstream rest(text->substr(close + 1));
    std::vector<std::string> fields{std::istream_iterator<std::string>(rest), {}};
    return fields;
}

// The wall-clock time of boot in milliseconds. /proc/stat's btime is cut
// to whole seconds, which can put a process's start a second before the
// configuration it was given was written; the two clocks read now are exact.
long long bootTimeMs() {
    timespec now{};
    timespec since_boot{};
    clock_gettime(CLOCK_REALTIME, &now);
    clock_gettime(CLOCK_BOOTTIME, &since_boot);
    return (now.tv_sec - since_boot.tv_sec) * 1000LL + (now.tv_nsec - since_boot.tv_nsec) / 1000000;
}

}  // namespace

std::optional<pid_t> socketPeer(int fd) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0 || credentials.pid <= 0)
        return std::nullopt;
    return credentials.pid;
}

std::optional<ProcessInfo> processInfo(pid_t pid) {
    const auto fields = statFields(pid);
    // Field 22 of the whole line, the start time in clock ticks since boot,
    // is the 20th after the command name.
    if (!fields || fields->size() < 20 || (*fields)[0] == "Z") return std::nullopt;
    ProcessInfo info;
    info.pid = pid;
    const long ticks = sysconf(_SC_CLK_TCK);
    const long long started_ms =
        bootTimeMs() + std::atoll((*fields)[19].c_str()) * 1000 / (ticks > 0 ? ticks : 100);
    info.started = static_cast<std::time_t>(started_ms / 1000);
    info.startedMs = static_cast<long>(started_ms % 1000);
    const auto cmdline = readFile("/proc/" + std::to_string(pid) + "/cmdline");
    if (!cmdline) return std::nullopt;
    std::string argument;
    for (const char c : *cmdline) {
        if (c != '\0') {
            argument += c;
            continue;
        }
        info.arguments.push_back(argument);
        argument.clear();
    }
    return info;
}

std::vector<pid_t> daemonsHere() {
    std::vector<pid_t> found;
    const std::string ours = linkTarget("/proc/self/ns/mnt");
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return found;
    while (const dirent* entry = readdir(proc)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0') continue;
        const std::string base = "/proc/" + std::string(entry->d_name);
        if (readFile(base + "/comm").value_or("") != "vxbrd\n") continue;
        if (linkTarget(base + "/ns/mnt") != ours) continue;
        const auto fields = statFields(static_cast<pid_t>(pid));
        if (!fields || fields->empty() || (*fields)[0] == "Z") continue;
        found.push_back(static_cast<pid_t>(pid));
    }
    closedir(proc);
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace lumora::ctl
