#include "core/Logger.h"

namespace lumora {

void Logger::writeTimestamp() {
    gettimeofday(&now, nullptr);
    // A failing localtime_r only costs this line its timestamp.
    if (localtime_r(&now.tv_sec, &local) != nullptr) {
        std::fprintf(stream, "%02d:%02d:%02d.%06ld ", local.tm_hour, local.tm_min, local.tm_sec,
                     static_cast<long>(now.tv_usec));
    }
}

Logger& Logger::log(unsigned lvl, const std::string& message) {
    if (!enabled(lvl)) return *this;
    std::lock_guard<std::mutex> guard(mutex);
    // The level may have moved while this thread waited for the lock.
    if (!enabled(lvl)) return *this;
    if (stream != nullptr) {
        writeTimestamp();
        std::fprintf(stream, "%s\n", message.c_str());
    } else {
        syslogLine(priority(lvl), "%s", message.c_str());
    }
    return *this;
}

Logger& Logger::log(unsigned lvl, const char* format, ...) {
    if (!enabled(lvl)) return *this;
    std::lock_guard<std::mutex> guard(mutex);
    if (!enabled(lvl)) return *this;
    va_list args;
    va_start(args, format);
    if (stream != nullptr) {
        writeTimestamp();
        std::vfprintf(stream, format, args);
        std::putc('\n', stream);
    } else {
        syslog_fn(priority(lvl), format, args);
    }
    va_end(args);
    return *this;
}

// The fixed-text form through the same hook as the formatted one.
void Logger::syslogLine(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    syslog_fn(priority, format, args);
    va_end(args);
}

void Logger::raise() {
    std::lock_guard<std::mutex> guard(mutex);
    const auto current = static_cast<uint32_t>(level.load(std::memory_order_relaxed));
    level.store(current >= 3 ? 4 : static_cast<int32_t>(current) + 1, std::memory_order_relaxed);
}

void Logger::lower() {
    std::lock_guard<std::mutex> guard(mutex);
    const int32_t current = level.load(std::memory_order_relaxed);
    const auto unsigned_current = static_cast<uint32_t>(current);
    level.store((unsigned_current >= 2 && unsigned_current <= 4) ? current - 1 : 0,
                std::memory_order_relaxed);
}

}  // namespace lumora
