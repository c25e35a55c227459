// Readiness and status for a service manager: READY=1 once, status lines
// only on change and at most once a second, nothing at all when nobody asked;
// and the datagram itself on a real socket, by path and by abstract name.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "app/ServiceNotify.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;
using Clock = ServiceStatus::Clock;

struct Recorder {
    std::vector<std::string> sent;
    int result = 0;
    ServiceStatus::Send send() {
        return [this](std::string_view state) {
            sent.emplace_back(state);
            return result;
        };
    }
};

TEST(ServiceStatus, ReadyCarriesTheFirstCounts) {
    Recorder recorder;
    ServiceStatus status(recorder.send());
    EXPECT_EQ(status.ready(0, 0, Clock::time_point{}), 0);
    EXPECT_TRUE(status.active());
    EXPECT_EQ(recorder.sent, (std::vector<std::string>{"READY=1\nSTATUS=peers: 0, clients: 0"}));
}

TEST(ServiceStatus, ChangesAreSentAtMostOnceASecond) {
    Recorder recorder;
    ServiceStatus status(recorder.send());
    const Clock::time_point start{};
    status.ready(0, 0, start);
    EXPECT_FALSE(status.due(start + 999ms));
    EXPECT_TRUE(status.due(start + 1s));
    EXPECT_FALSE(status.update(0, 0, start + 1s));  // no change
    EXPECT_FALSE(status.due(start + 1500ms));       // looked a moment ago
    EXPECT_TRUE(status.update(1, 2, start + 2s));
    EXPECT_FALSE(status.update(2, 3, start + 2500ms));  // too soon
    EXPECT_TRUE(status.update(2, 3, start + 3s));
    EXPECT_EQ(recorder.sent, (std::vector<std::string>{"READY=1\nSTATUS=peers: 0, clients: 0",
                                                       "STATUS=peers: 1, clients: 2",
                                                       "STATUS=peers: 2, clients: 3"}));
}

TEST(ServiceStatus, NobodyAskedMeansNothingMore) {
    Recorder recorder;
    recorder.result = -1;
    ServiceStatus status(recorder.send());
    EXPECT_EQ(status.ready(0, 0, Clock::time_point{}), -1);
    EXPECT_FALSE(status.active());
    EXPECT_FALSE(status.due(Clock::time_point{} + 10s));
    EXPECT_FALSE(status.update(5, 5, Clock::time_point{} + 10s));
    EXPECT_EQ(recorder.sent.size(), 1u);
}

// A datagram socket bound to address (length bytes), as systemd listens.
int listener(const sockaddr_un& address, socklen_t length) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), length), 0)
        << std::strerror(errno);
    return fd;
}

std::string receive(int fd) {
    char buffer[256];
    const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    return got < 0 ? "<nothing>" : std::string(buffer, static_cast<size_t>(got));
}

TEST(NotifyServiceManager, WithoutNotifySocketNothingIsSent) {
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(notifyServiceManager("READY=1"), -1);
    setenv("NOTIFY_SOCKET", "", 1);
    EXPECT_EQ(notifyServiceManager("READY=1"), -1);
    unsetenv("NOTIFY_SOCKET");
}

TEST(NotifyServiceManager, SendsOneDatagramToAPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/tmp/vxbrd-notify-test-" + std::to_string(getpid());
    std::strcpy(address.sun_path, path.c_str());
    unlink(path.c_str());
    const int fd = listener(address, sizeof address);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    EXPECT_EQ(notifyServiceManager("READY=1\nSTATUS=peers: 0, clients: 0"), 0);
    EXPECT_EQ(receive(fd), "READY=1\nSTATUS=peers: 0, clients: 0");
    unsetenv("NOTIFY_SOCKET");
    close(fd);
    unlink(path.c_str());
}

TEST(NotifyServiceManager, SendsToAnAbstractName) {
    const std::string name = "vxbrd-notify-test-" + std::to_string(getpid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const int fd = listener(
        address, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size()));
    setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    EXPECT_EQ(notifyServiceManager("STATUS=peers: 1, clients: 1"), 0);
    EXPECT_EQ(receive(fd), "STATUS=peers: 1, clients: 1");
    setenv("NOTIFY_SOCKET", "/nonexistent-vxbrd/notify", 1);
    EXPECT_EQ(notifyServiceManager("READY=1"), ENOENT);
    unsetenv("NOTIFY_SOCKET");
    close(fd);
}

}  // namespace
}  // namespace lumora
