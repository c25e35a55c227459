#ifndef __FreeBSD__
#error "process_freebsd.cpp is the FreeBSD backend; build process_linux.cpp instead"
#endif

#include <sys/param.h>
#include <sys/socket.h>
#include <sys/sysctl.h>
#include <sys/ucred.h>
#include <sys/un.h>
#include <sys/user.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "vxbrdctl/Process.h"

namespace lumora::ctl {

namespace {

std::optional<kinfo_proc> kernelInfo(pid_t pid) {
    int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, static_cast<int>(pid)};
    kinfo_proc info{};
    size_t size = sizeof info;
    if (sysctl(name, 4, &info, &size, nullptr, 0) != 0 || size != sizeof info) return std::nullopt;
    return info;
}

}  // namespace

std::optional<pid_t> socketPeer(int fd) {
    xucred credentials{};
    socklen_t size = sizeof credentials;
    if (getsockopt(fd, SOL_LOCAL, LOCAL_PEERCRED, &credentials, &size) != 0 ||
        credentials.cr_version != XUCRED_VERSION || credentials.cr_pid <= 0)
        return std::nullopt;
    return credentials.cr_pid;
}

std::optional<ProcessInfo> processInfo(pid_t pid) {
    const auto kernel = kernelInfo(pid);
    if (!kernel || kernel->ki_stat == SZOMB) return std::nullopt;
    ProcessInfo info;
    info.pid = pid;
    info.started = kernel->ki_start.tv_sec;
    info.startedMs = kernel->ki_start.tv_usec / 1000;
    int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_ARGS, static_cast<int>(pid)};
    std::vector<char> arguments(ARG_MAX);
    size_t size = arguments.size();
    if (sysctl(name, 4, arguments.data(), &size, nullptr, 0) != 0) return std::nullopt;
    for (size_t at = 0; at < size;) {
        const size_t length = strnlen(arguments.data() + at, size - at);
        info.arguments.emplace_back(arguments.data() + at, length);
        at += length + 1;
    }
    return info;
}

std::vector<pid_t> daemonsHere() {
    std::vector<pid_t> found;
    const auto self = kernelInfo(getpid());
    if (!self) return found;
    int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_PROC, 0};
    size_t size = 0;
    if (sysctl(name, 3, nullptr, &size, nullptr, 0) != 0) return found;
    // Room for processes started between the two calls.
    std::vector<kinfo_proc> all(size / sizeof(kinfo_proc) + 16);
    size = all.size() * sizeof(kinfo_proc);
    if (sysctl(name, 3, all.data(), &size, nullptr, 0) != 0) return found;
    all.resize(size / sizeof(kinfo_proc));
    for (const kinfo_proc& process : all) {
        if (std::strcmp(process.ki_comm, "vxbrd") != 0 || process.ki_stat == SZOMB) continue;
        if (process.ki_jid != self->ki_jid) continue;
        found.push_back(process.ki_pid);
    }
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace lumora::ctl
