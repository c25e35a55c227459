#include "vxbrdctl/Status.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vxbrdctl/ControlClient.h"
#include "vxbrdctl/Process.h"
#include "vxbrdctl/Report.h"

namespace lumora::ctl {

namespace {

std::string timeText(std::time_t when) {
    std::tm local{};
    localtime_r(&when, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string runningText(const std::vector<pid_t>& pids) {
    std::string text = pids.size() == 1 ? "vxbrd is running (pid " : "vxbrd is running (pids ";
    for (size_t i = 0; i < pids.size(); ++i) text += (i > 0 ? ", " : "") + std::to_string(pids[i]);
    return text + ")";
}

// The connection failed. When a vxbrd runs here anyway, the plain "not
// running" would send the operator the wrong way: say what probably
// happened instead.
ControlError explain(const ControlError& error, const std::string& socket, pid_t answered,
                     int timeout_seconds) {
    if (error.timed_out && answered != 0) {
        return {error.status,
                "vxbrd (pid " + std::to_string(answered) + ") took the connection on " + socket +
                    " but did not answer within " + std::to_string(timeout_seconds) +
                    " s: its control thread is most likely held up by a client that closed "
                    "without reading its reply, after which it answers no later connection; "
                    "restart vxbrd",
                true};
    }
    if (error.status != kNoSocket && error.status != kNotRunning) return error;
    const std::vector<pid_t> pids = daemonsHere();
    if (pids.empty()) return error;
    if (error.status == kNoSocket) {
        return {error.status, runningText(pids) + " but its control socket " + socket +
                                  " is gone: it was removed, most likely by another vxbrd "
                                  "started since (each one replaces the socket at start-up); "
                                  "restart vxbrd to get it back"};
    }
    return {error.status, runningText(pids) + " but nothing listens on " + socket +
                              ": another vxbrd started since took the socket over and has "
                              "ended; restart vxbrd to get it back"};
}

// The start time is known to one clock tick and a file's time to one timer
// tick; a configuration written just before the start is not a change.
constexpr long long kStartSlackMs = 50;

std::string configChange(const std::string& path, const ProcessInfo& process) {
    if (path.empty() || path[0] != '/')
        return "unknown (a relative path, read from the directory vxbrd started in)";
    struct stat info {};
    if (stat(path.c_str(), &info) != 0)
        return std::string("unknown (") + std::strerror(errno) + ")";
    const long long modified_ms = info.st_mtim.tv_sec * 1000LL + info.st_mtim.tv_nsec / 1000000;
    const long long started_ms = process.started * 1000LL + process.startedMs;
    if (modified_ms <= started_ms + kStartSlackMs) return "no";
    return "yes (modified " + timeText(info.st_mtime) + "; vxbrd reads it only at start-up)";
}

}  // namespace

std::string configPathOf(const std::vector<std::string>& arguments) {
    std::string path = kDaemonDefaultConfig;
    const std::string with_argument = "bcps";
    for (size_t i = 1; i < arguments.size(); ++i) {
        const std::string& word = arguments[i];
        if (word == "--" || word.size() < 2 || word[0] != '-') break;
        for (size_t at = 1; at < word.size(); ++at) {
            if (with_argument.find(word[at]) == std::string::npos) continue;
            std::string value;
            if (at + 1 < word.size()) {
                value = word.substr(at + 1);
            } else if (i + 1 < arguments.size()) {
                value = arguments[++i];
            }
            if (word[at] == 'c') path = value;
            break;
        }
    }
    return path;
}

std::string durationText(std::time_t seconds) {
    if (seconds < 0) seconds = 0;
    char text[64];
    std::snprintf(text, sizeof text, "%lld days %02lld:%02lld:%02lld",
                  static_cast<long long>(seconds / 86400),
                  static_cast<long long>(seconds / 3600 % 24),
                  static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
    return text;
}

int printStatus(const std::string& socket, int timeout_seconds) {
    pid_t pid = 0;
    size_t peers = 0;
    size_t clients = 0;
    try {
        peers = parsePeers(exchange(socket, "peers", timeout_seconds, &pid)).size();
        clients = parseClients(exchange(socket, "clients", timeout_seconds)).size();
    } catch (const ControlError& error) {
        const ControlError explained = explain(error, socket, pid, timeout_seconds);
        std::fprintf(stderr, "vxbrdctl: %s\n", explained.message.c_str());
        return explained.status;
    } catch (const ReportError& error) {
        std::fprintf(stderr, "vxbrdctl: unexpected reply from %s, %s\n", socket.c_str(),
                     error.what());
        return kFailed;
    }
    std::string out = "socket: " + socket + "\n";
    const auto info = pid != 0 ? processInfo(pid) : std::nullopt;
    if (info) {
        const std::string config = configPathOf(info->arguments);
        out += "pid: " + std::to_string(info->pid) + "\n";
        out += "started: " + timeText(info->started) + "\n";
        out += "uptime: " + durationText(std::time(nullptr) - info->started) + "\n";
        out += "configuration: " + config + "\n";
        out += "changed since start: " + configChange(config, *info) + "\n";
    } else {
        out += "pid: unknown (the system does not name the socket's owner)\n";
    }
    out += "peers: " + std::to_string(peers) + "\n";
    out += "clients: " + std::to_string(clients) + "\n";
    if (std::fwrite(out.data(), 1, out.size(), stdout) != out.size() || std::fflush(stdout) != 0) {
        std::perror("vxbrdctl: standard output");
        return kFailed;
    }
    return kOk;
}

}  // namespace lumora::ctl
