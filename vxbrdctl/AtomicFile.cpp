#include "vxbrdctl/AtomicFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace lumora::ctl {

std::string writeFileAtomically(const std::string& path, const std::string& text) {
    // Beside the target, so the rename stays within one file system; a name
    // starting with a dot, so collectors that read "*.prom" skip it.
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string pattern = directory + "." + base + ".XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = mkstemp(name.data());
    if (fd < 0) return path + ": " + std::strerror(errno);
    const std::string temporary(name.data());
    int error = 0;
    size_t done = 0;
    while (error == 0 && done < text.size()) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote < 0 && errno != EINTR) error = errno;
        if (wrote > 0) done += static_cast<size_t>(wrote);
    }
    if (error == 0 && fchmod(fd, 0644) != 0) error = errno;
    if (error == 0 && fsync(fd) != 0) error = errno;
    if (close(fd) != 0 && error == 0) error = errno;
    if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) error = errno;
    if (error != 0) {
        unlink(temporary.c_str());
        return path + ": " + std::strerror(error);
    }
    return "";
}

}  // namespace lumora::ctl
