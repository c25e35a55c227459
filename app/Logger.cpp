#include "app/Logger.h"

namespace lumora {

void Logger::writeTimestamp() {
    gettimeofday(&now, nullptr);
    // A failing localtime_r only costs this line its timestamp.
    if (localtime_r(&now.tv_sec, &local) != nullptr) {
        std::fprintf(stream, "%02d:%02d:%02d.%06ld ", local.tm_hour, local.tm_min, local.tm_sec,
                     static_cast<long>(now.tv_usec));
    }
}

Logger& Logger::log(unsigned lvl, const char* message) {
    std::lock_guard<std::mutex> guard(mutex);
    if (level < static_cast<int32_t>(lvl)) return *this;
    if (stream != nullptr) {
        writeTimestamp();
        std::fprintf(stream, "%s\n", message);
    } else {
        syslog_fn(priority(lvl), "%s", message);
    }
    return *this;
}

void Logger::raise() {
    std::lock_guard<std::mutex> guard(mutex);
    level = static_cast<uint32_t>(level) >= 3 ? 4 : level + 1;
}

void Logger::lower() {
    std::lock_guard<std::mutex> guard(mutex);
    const auto current = static_cast<uint32_t>(level);
    level = (current >= 2 && current <= 4) ? level - 1 : 0;
}

bool Logger::enabled(unsigned lvl) {
    std::lock_guard<std::mutex> guard(mutex);
    return level >= static_cast<int32_t>(lvl);
}

}  // namespace lumora
