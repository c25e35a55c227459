// Daemon mode, run in a forked child so that the exits inside daemonize end
// the child, not the test. The daemon process reports what it sees about
// itself into a file and leaves with _exit.
#include "app/Daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>

#include "app_support.h"

namespace lumora {
namespace {

using test::readFile;

// Where the syslog stand-in of the forked processes writes ("<priority> <text>").
int syslog_record_fd = -1;

__attribute__((format(printf, 2, 0))) void recordSyslog(int priority, const char* format,
                                                        va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    dprintf(syslog_record_fd, "%d %s\n", priority, text);
}

class DaemonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/vxbrd-daemon-test-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir = name;
        report = dir + "/report";
        syslog_path = dir + "/syslog";
        syslog_record_fd = open(syslog_path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        ASSERT_GE(syslog_record_fd, 0);
    }
    void TearDown() override {
        close(syslog_record_fd);
        std::string command = "rm -rf '" + dir + "'";
        ASSERT_EQ(std::system(command.c_str()), 0);
    }

    // Forks a caller that daemonizes; returns the caller's exit status.
    int runDaemonize(const std::string& pid_path) {
        const pid_t caller = fork();
        if (caller == 0) {
            Logger logger;
            logger.syslog_fn = recordSyslog;
            daemonize(logger, pid_path.c_str());
            // Only the daemon gets here.
            char cwd[256] = {};
            if (getcwd(cwd, sizeof cwd) == nullptr) _exit(3);
            const mode_t mask = umask(077);
            const std::string partial = report + ".part";
            FILE* out = std::fopen(partial.c_str(), "w");
            if (out == nullptr) _exit(4);
            std::fprintf(out, "%d %d %s %03o\n", static_cast<int>(getpid()),
                         static_cast<int>(getsid(0)), cwd, static_cast<unsigned>(mask));
            std::fclose(out);
            rename(partial.c_str(), report.c_str());
            _exit(0);
        }
        int status = 0;
        waitpid(caller, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // Waits up to five seconds for a non-empty file.
    static std::string awaitFile(const std::string& path) {
        for (int i = 0; i < 500; ++i) {
            const std::string text = readFile(path);
            if (!text.empty()) return text;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return "";
    }

    std::string dir;
    std::string report;
    std::string syslog_path;
};

struct Report {
    int pid = 0;
    int sid = 0;
    std::string cwd;
    std::string mask;
};

Report parseReport(const std::string& text) {
    Report r;
    std::istringstream in(text);
    in >> r.pid >> r.sid >> r.cwd >> r.mask;
    return r;
}

TEST_F(DaemonTest, PidFileHoldsTheDaemonNotItsWriter) {
    const std::string pid_path = dir + "/vxbrd.pid";
    EXPECT_EQ(runDaemonize(pid_path), 0);
    const Report r = parseReport(awaitFile(report));
    ASSERT_GT(r.pid, 0);
    EXPECT_EQ(awaitFile(pid_path), std::to_string(r.pid) + "\n");
    // The writer is the session leader; the daemon is not.
    EXPECT_NE(r.sid, r.pid);
    EXPECT_EQ(r.cwd, "/");
    EXPECT_EQ(r.mask, "000");
    EXPECT_EQ(readFile(syslog_path), "");
}

TEST_F(DaemonTest, UnwritablePidPathOnlyWarns) {
    const std::string pid_path = dir + "/missing/vxbrd.pid";
    EXPECT_EQ(runDaemonize(pid_path), 0);
    const Report r = parseReport(awaitFile(report));
    EXPECT_GT(r.pid, 0);
    EXPECT_EQ(r.cwd, "/");
    EXPECT_EQ(awaitFile(syslog_path),
              "4 can't write PID to " + pid_path + ": No such file or directory\n");
}

}  // namespace
}  // namespace lumora
