// A logger writing into memory (open_memstream) whose lines can be read
// back, each without the 16-character "HH:MM:SS.uuuuuu " timestamp the
// logger puts in front of stream lines.
//
// Header-only and free of GoogleTest: any unit binary and the fuzz targets
// can use it. Only the stream's own buffer grows while lines are written
// (with malloc, never operator new), so allocation-counting tests may log.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/Logger.h"

namespace lumora::test {

class MemoryLog {
  public:
    explicit MemoryLog(LogLevel level = Debug) {
        logger.stream = open_memstream(&text, &size);
        if (logger.stream == nullptr) throw std::runtime_error("open_memstream");
        logger.level = level;
    }
    ~MemoryLog() {
        std::fclose(logger.stream);
        std::free(text);
    }
    MemoryLog(const MemoryLog&) = delete;
    MemoryLog& operator=(const MemoryLog&) = delete;

    // Every line written since construction or the last clear(). A line
    // without a timestamp shows as "<no timestamp: ...>".
    std::vector<std::string> lines() {
        std::fflush(logger.stream);
        std::vector<std::string> out;
        size_t start = cleared;
        for (size_t i = cleared; i < size; ++i) {
            if (text[i] != '\n') continue;
            std::string line(text + start, i - start);
            const bool stamped = line.size() >= 16 && line[2] == ':' && line[5] == ':' &&
                                 line[8] == '.' && line[15] == ' ';
            out.push_back(stamped ? line.substr(16) : "<no timestamp: " + line + ">");
            start = i + 1;
        }
        return out;
    }

    // Lines written since the previous call of taken() (or clear()).
    std::vector<std::string> taken() {
        std::vector<std::string> all = lines();
        std::vector<std::string> fresh(all.begin() + static_cast<long>(seen), all.end());
        seen = all.size();
        return fresh;
    }

    // Forgets every line written so far.
    void clear() {
        std::fflush(logger.stream);
        cleared = size;
        seen = 0;
    }

    Logger logger;

  private:
    char* text = nullptr;
    size_t size = 0;
    size_t cleared = 0;  // offset of the first line lines() returns
    size_t seen = 0;     // lines already handed out by taken()
};

}  // namespace lumora::test
