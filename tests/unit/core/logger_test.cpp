// The logger's mechanism: level arithmetic, the stream line format, syslog
// priorities and whole lines under concurrency.
#include "core/Logger.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace lumora {
namespace {

// A memory stream for a logger: what was written, once closed.
class MemoryStream {
  public:
    MemoryStream() : file(open_memstream(&data, &size)) {}
    ~MemoryStream() {
        close();
        std::free(data);
    }
    FILE* get() { return file; }
    std::string text() {
        close();
        return std::string(data, size);
    }

  private:
    void close() {
        if (file != nullptr) std::fclose(file);
        file = nullptr;
    }
    char* data = nullptr;
    size_t size = 0;
    FILE* file;
};

// syslog stand-in: records priority and the rendered message of each call.
struct SyslogCall {
    int priority;
    std::string message;
};
std::vector<SyslogCall> syslog_calls;

__attribute__((format(printf, 2, 0))) void recordSyslog(int priority, const char* format,
                                                        va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    syslog_calls.push_back({priority, text});
}

const std::regex kTimestamped(R"(\d\d:\d\d:\d\d\.\d{6} (.*)\n)");

TEST(Logger, StartsInSyslogModeAtWarning) {
    Logger logger;
    EXPECT_EQ(logger.stream, nullptr);
    EXPECT_EQ(logger.level, 1);
}

TEST(Logger, RaiseSaturatesAtDebug) {
    Logger logger;
    const int expected[] = {1, 2, 3, 4, 4, 4};
    for (int want : expected) {
        EXPECT_EQ(logger.level, want);
        logger.raise();
    }
    logger.level = 0;
    logger.raise();
    EXPECT_EQ(logger.level, 1);
    // Anything at 3 or above (unsigned) becomes Debug, even a negative level.
    logger.level = 7;
    logger.raise();
    EXPECT_EQ(logger.level, 4);
    logger.level = -1;
    logger.raise();
    EXPECT_EQ(logger.level, 4);
}

TEST(Logger, LowerStopsAtError) {
    Logger logger;
    logger.level = 4;
    const int expected[] = {4, 3, 2, 1, 0, 0};
    for (int want : expected) {
        EXPECT_EQ(logger.level, want);
        logger.lower();
    }
    // Values outside 2..4 drop straight to Error.
    logger.level = 9;
    logger.lower();
    EXPECT_EQ(logger.level, 0);
    logger.level = -3;
    logger.lower();
    EXPECT_EQ(logger.level, 0);
}

TEST(Logger, OptionSequences) {
    struct Sequence {
        const char* options;
        int level;
    };
    for (const Sequence& s : {Sequence{"vvvvv", 4}, Sequence{"qq", 0}, Sequence{"vq", 1},
                              Sequence{"qv", 1}, Sequence{"v", 2}, Sequence{"vv", 3},
                              Sequence{"vvv", 4}, Sequence{"q", 0}, Sequence{"vvvq", 3}}) {
        Logger logger;
        for (const char* c = s.options; *c != '\0'; ++c) {
            if (*c == 'v') {
                logger.raise();
            } else {
                logger.lower();
            }
        }
        EXPECT_EQ(logger.level, s.level) << s.options;
    }
}

TEST(Logger, StreamLineIsTimestampTextNewline) {
    MemoryStream out;
    Logger logger;
    logger.stream = out.get();
    logger.log(Warning, "%s ready", "em0.20");
    const std::string text = out.text();
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, kTimestamped)) << text;
    EXPECT_EQ(match[1].str(), "em0.20 ready");
    EXPECT_EQ(text.size(), 16u + std::strlen("em0.20 ready") + 1u);
    EXPECT_EQ(text[2], ':');
    EXPECT_EQ(text[5], ':');
    EXPECT_EQ(text[8], '.');
    EXPECT_EQ(text[15], ' ');
}

TEST(Logger, FixedTextIsNeverAFormat) {
    MemoryStream out;
    Logger logger;
    logger.stream = out.get();
    logger.log(Error, std::string("100% sure %s %d"));
    const std::string text = out.text();
    ASSERT_EQ(text.size(), 16u + 15u + 1u) << text;
    EXPECT_EQ(text.substr(16), "100% sure %s %d\n");
}

TEST(Logger, FormattedMessagesGetExactlyOneNewline) {
    MemoryStream out;
    Logger logger;
    logger.stream = out.get();
    logger.log(Error, "vlan %d peers %lu", uint16_t{20}, 3ul).log(Warning, "%s", "second");
    const std::string text = out.text();
    std::istringstream lines(text);
    std::string first, second, rest;
    ASSERT_TRUE(std::getline(lines, first));
    ASSERT_TRUE(std::getline(lines, second));
    EXPECT_FALSE(std::getline(lines, rest));
    EXPECT_EQ(first.substr(16), "vlan 20 peers 3");
    EXPECT_EQ(second.substr(16), "second");
    EXPECT_EQ(text.back(), '\n');
    EXPECT_EQ(text.size(), 16u + 15u + 1u + 16u + 6u + 1u);
}

TEST(Logger, NoticeFilteredAtDefaultLevel) {
    MemoryStream out;
    Logger logger;
    logger.stream = out.get();
    logger.log(Notice, "Listening on interface: %s (%s)", "em0", "192.0.2.1");
    logger.log(Notice, "fixed notice");
    logger.log(Info, "%s", "info");
    logger.log(Debug, "debug");
    EXPECT_EQ(out.text(), "");

    MemoryStream verbose;
    logger.stream = verbose.get();
    logger.raise();
    logger.log(Notice, "Listening on interface: %s (%s)", "em0", "192.0.2.1");
    logger.log(Info, "%s", "info");
    const std::string text = verbose.text();
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, kTimestamped)) << text;
    EXPECT_EQ(match[1].str(), "Listening on interface: em0 (192.0.2.1)");
}

TEST(Logger, ErrorIsNeverFiltered) {
    MemoryStream out;
    Logger logger;
    logger.stream = out.get();
    logger.lower();
    logger.lower();
    logger.log(Warning, "%s", "dropped");
    logger.log(Error, "%s", "kept");
    const std::string text = out.text();
    ASSERT_EQ(text.size(), 16u + 5u);
    EXPECT_EQ(text.substr(16), "kept\n");
}

TEST(Logger, SyslogPriorities) {
    syslog_calls.clear();
    Logger logger;
    logger.syslog_fn = recordSyslog;
    logger.level = 4;
    logger.log(Error, "%s", "error");
    logger.log(Warning, "warning %d", 1);
    logger.log(Notice, "%s", "notice");
    logger.log(Info, "%s", "info");
    logger.log(Debug, "%s", "debug");
    logger.log(Debug, std::string("fixed %s"));
    ASSERT_EQ(syslog_calls.size(), 6u);
    EXPECT_EQ(syslog_calls[0].priority, LOG_ERR);
    EXPECT_EQ(syslog_calls[0].priority, 3);
    EXPECT_EQ(syslog_calls[0].message, "error");
    EXPECT_EQ(syslog_calls[1].priority, 4);
    EXPECT_EQ(syslog_calls[1].message, "warning 1");
    EXPECT_EQ(syslog_calls[2].priority, 5);
    EXPECT_EQ(syslog_calls[3].priority, 6);
    EXPECT_EQ(syslog_calls[4].priority, 7);
    EXPECT_EQ(syslog_calls[4].priority, LOG_DEBUG);
    // Fixed text goes through "%s": no newline, no timestamp, not a format.
    EXPECT_EQ(syslog_calls[5].priority, 7);
    EXPECT_EQ(syslog_calls[5].message, "fixed %s");
    EXPECT_EQ(Logger::priority(5), LOG_DEBUG);
    EXPECT_EQ(Logger::priority(100), LOG_DEBUG);
}

// The argument a filtered line would format is never built.
TEST(Logger, FilteredLineEvaluatesNoArgument) {
    MemoryStream out;
    Logger logger;
    logger.stream = out.get();
    int built = 0;
    const auto text = [&built] {
        ++built;
        return "built";
    };
    VXBRD_LOG(logger, Info, "%s", text());
    EXPECT_EQ(built, 0);
    VXBRD_LOG(logger, Warning, "%s", text());
    EXPECT_EQ(built, 1);
    EXPECT_EQ(out.text().substr(16), "built\n");
}

// A filtered line takes no lock: it completes while another thread holds the
// logger's mutex (a locking one would wait for the whole second).
TEST(Logger, FilteredLineTakesNoLock) {
    Logger logger;
    logger.syslog_fn = recordSyslog;
    std::unique_lock hold(logger.mutex);
    auto filtered = std::async(std::launch::async, [&logger] {
        logger.log(Info, "%s", "filtered");
        logger.log(Debug, std::string("filtered"));
    });
    const auto status = filtered.wait_for(std::chrono::seconds(1));
    hold.unlock();
    EXPECT_EQ(status, std::future_status::ready);
}

TEST(Logger, SyslogFilteredNoticeMakesNoCall) {
    syslog_calls.clear();
    Logger logger;
    logger.syslog_fn = recordSyslog;
    logger.log(Notice, "%s ready", "em0");
    logger.log(Notice, "fixed");
    EXPECT_TRUE(syslog_calls.empty());
    logger.raise();
    logger.log(Notice, "%s ready", "em0");
    ASSERT_EQ(syslog_calls.size(), 1u);
    EXPECT_EQ(syslog_calls[0].priority, LOG_NOTICE);
    EXPECT_EQ(syslog_calls[0].message, "em0 ready");
}

TEST(Logger, TwoThreadsWriteWholeLines) {
    MemoryStream out;
    Logger logger;
    logger.stream = out.get();
    constexpr int kLines = 2000;
    const std::string a(60, 'a');
    const std::string b(60, 'b');
    auto writer = [&logger](const std::string& text) {
        for (int i = 0; i < kLines; ++i) logger.log(Warning, "%s %d", text.c_str(), i);
    };
    std::thread first(writer, a);
    std::thread second(writer, b);
    first.join();
    second.join();

    std::istringstream lines(out.text());
    std::string line;
    int count_a = 0;
    int count_b = 0;
    const std::regex whole(R"(\d\d:\d\d:\d\d\.\d{6} (a{60}|b{60}) \d+)");
    while (std::getline(lines, line)) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, whole)) << line;
        (match[1].str()[0] == 'a' ? count_a : count_b)++;
    }
    EXPECT_EQ(count_a, kLines);
    EXPECT_EQ(count_b, kLines);
}

}  // namespace
}  // namespace lumora
