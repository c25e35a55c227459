// The process logger: one instance, created by main, shared by every thread
// through a plain non-owning pointer. Each line is written under one mutex,
// so lines of different threads never mix; the logger is always the innermost
// lock of the process.
#pragma once

#include <sys/time.h>
#include <syslog.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace lumora {

enum LogLevel : unsigned { Error = 0, Warning = 1, Notice = 2, Info = 3, Debug = 4 };

class Logger {
public:
    // Where syslog-mode lines go. Tests replace it to observe priorities.
    using SyslogFn = void (*)(int, const char*, ...);

    // Null: syslog mode (the daemon's default). Otherwise the stream that
    // receives timestamped lines (stderr with -f).
    FILE* stream = nullptr;
    // Messages of level L are emitted while level >= L. Starts at Warning.
    int32_t level = 1;
    std::mutex mutex;
    // Scratch for the timestamp, touched only under the mutex so the emission
    // path needs no buffers of its own.
    struct timeval now {};
    struct tm local {};
    SyslogFn syslog_fn = ::syslog;

    // Fixed text, never interpreted as a format.
    Logger& log(unsigned lvl, const char* message);

    // printf-style text; the format and arguments reach fprintf/syslog unchanged.
    template <typename First, typename... Rest>
    Logger& log(unsigned lvl, const char* format, First first, Rest... rest) {
        std::lock_guard<std::mutex> guard(mutex);
        if (level < static_cast<int32_t>(lvl)) return *this;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        if (stream != nullptr) {
            writeTimestamp();
            std::fprintf(stream, format, first, rest...);
            std::putc('\n', stream);
        } else {
            syslog_fn(priority(lvl), format, first, rest...);
        }
#pragma GCC diagnostic pop
        return *this;
    }

    // -v: 0->1, 1->2, 2->3, 3 and above -> 4.
    void raise();
    // -q: 2, 3, 4 step down by one; 0 and 1 (and anything else) become 0.
    void lower();

    // True when a message of this level would be emitted (takes the mutex).
    bool enabled(unsigned lvl);
    // syslog priority of a level: level + 3 below Debug, LOG_DEBUG from Debug on.
    static int priority(unsigned lvl) { return lvl < 4 ? static_cast<int>(lvl) + 3 : LOG_DEBUG; }

private:
    void writeTimestamp();
};

}  // namespace lumora
