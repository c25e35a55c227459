// Helpers shared by the app unit tests: temporary files and capture of what
// the code under test prints straight to stdout/stderr.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace lumora::test {

// A file with the given content under /tmp, removed again on destruction.
class TempFile {
  public:
    explicit TempFile(const std::string& content) {
        char name[] = "/tmp/vxbrd-app-test-XXXXXX";
        const int fd = mkstemp(name);
        if (fd < 0) throw std::runtime_error("mkstemp failed");
        path_ = name;
        std::size_t done = 0;
        while (done < content.size()) {
            const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
            if (n <= 0) throw std::runtime_error("write failed");
            done += static_cast<std::size_t>(n);
        }
        ::close(fd);
    }
    ~TempFile() { ::unlink(path_.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Redirects a standard descriptor (1 or 2) into a temporary file for the
// lifetime of the object; text() restores it and returns what was written.
class CapturedOutput {
  public:
    explicit CapturedOutput(int fd) : fd_(fd), file_("") {
        flushAll();
        saved_ = ::dup(fd_);
        const int target = ::open(file_.path().c_str(), O_WRONLY | O_TRUNC);
        ::dup2(target, fd_);
        ::close(target);
    }
    ~CapturedOutput() { restore(); }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    std::string text() {
        restore();
        return readFile(file_.path());
    }

  private:
    static void flushAll() {
        std::fflush(stdout);
        std::fflush(stderr);
    }
    void restore() {
        if (saved_ < 0) return;
        flushAll();
        ::dup2(saved_, fd_);
        ::close(saved_);
        saved_ = -1;
    }

    int fd_;
    TempFile file_;
    int saved_ = -1;
};

// Replaces every '@' in pattern with path: expected parser diagnostics are
// written as "@:3 invalid MSS: \"100\"\n".
inline std::string withPath(const std::string& pattern, const std::string& path) {
    std::string out;
    for (char c : pattern) {
        if (c == '@') {
            out += path;
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace lumora::test
