// The process logger: one instance, created by main, shared by every thread
// through a plain non-owning pointer. Each line is written under one mutex,
// so lines of different threads never mix; the logger is always the innermost
// lock of the process.
//
// A message the threshold filters out costs one relaxed atomic load: no lock,
// and, through VXBRD_LOG, not even its arguments are built (an address text
// for an Info line that is off by default is never formatted).
#pragma once

#include <sys/time.h>
#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <string>

namespace lumora {

enum LogLevel : unsigned { Error = 0, Warning = 1, Notice = 2, Info = 3, Debug = 4 };

class Logger {
  public:
    // Where syslog-mode lines go. Tests replace it to observe priorities.
    using SyslogFn = void (*)(int, const char*, va_list);

    // Null: syslog mode (the daemon's default). Otherwise the stream that
    // receives timestamped lines (stderr with -f). Set before any thread runs.
    FILE* stream = nullptr;
    // Messages of level L are emitted while level >= L. Starts at Warning.
    // Written only under the mutex (raise, lower), read anywhere.
    std::atomic<int32_t> level{1};
    std::mutex mutex;
    // Scratch for the timestamp, touched only under the mutex so the emission
    // path needs no buffers of its own.
    struct timeval now {};
    struct tm local {};
    SyslogFn syslog_fn = ::vsyslog;

    // True when a message of this level would be emitted. Lock-free.
    bool enabled(unsigned lvl) const {
        return level.load(std::memory_order_relaxed) >= static_cast<int32_t>(lvl);
    }

    // printf-style text; the format and arguments reach fprintf/syslog
    // unchanged. The compiler checks every format against its arguments, so
    // a literal without conversions is simply printed as it stands.
    Logger& log(unsigned lvl, const char* format, ...) __attribute__((format(printf, 3, 4)));
    // Fixed text made at run time, never interpreted as a format.
    Logger& log(unsigned lvl, const std::string& message);

    // -v: 0->1, 1->2, 2->3, 3 and above -> 4.
    void raise();
    // -q: 2, 3, 4 step down by one; 0 and 1 (and anything else) become 0.
    void lower();

    // A stream to dump frames to at lvl, or null: the dumps go to the
    // foreground stream only, never to syslog.
    FILE* dumpStream(unsigned lvl) const {
        return stream != nullptr && enabled(lvl) ? stream : nullptr;
    }

    // syslog priority of a level: level + 3 below Debug, LOG_DEBUG from Debug on.
    static int priority(unsigned lvl) { return lvl < 4 ? static_cast<int>(lvl) + 3 : LOG_DEBUG; }

  private:
    void writeTimestamp();
    void syslogLine(int priority, const char* format, ...) __attribute__((format(printf, 3, 4)));
};

}  // namespace lumora

// Logs through logger (a Logger&) unless lvl is filtered out, in which case
// the arguments are not evaluated at all.
#define VXBRD_LOG(logger, lvl, ...)                                      \
    do {                                                                 \
        ::lumora::Logger& vxbrd_log_ = (logger);                         \
        if (vxbrd_log_.enabled(lvl)) vxbrd_log_.log((lvl), __VA_ARGS__); \
    } while (0)
