#include "vif_support.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "support/addresses.h"

namespace vxbrd_test {

namespace {

constexpr const char* kPrefix = "vxvif-";

// Namespaces of earlier runs whose process is gone (a crash skips TearDown).
void removeStaleNamespaces() {
    DIR* dir = opendir("/run/netns");
    if (dir == nullptr) return;
    std::vector<std::string> stale;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.rfind(kPrefix, 0) != 0) continue;
        const long pid = std::strtol(name.c_str() + std::strlen(kPrefix), nullptr, 10);
        if (pid > 0 && kill(static_cast<pid_t>(pid), 0) < 0 && errno == ESRCH) {
            stale.push_back(name);
        }
    }
    closedir(dir);
    for (const auto& name : stale) run("ip netns del " + name);
}

}  // namespace

int run(const std::string& command, std::string* output) {
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return -1;
    char chunk[256];
    std::string text;
    while (std::fgets(chunk, sizeof chunk, pipe) != nullptr) text += chunk;
    const int status = pclose(pipe);
    if (output != nullptr) *output += command + ": " + text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ScopedNetns::ScopedNetns(const std::string& name) {
    saved = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int target = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (saved < 0 || target < 0 || setns(target, CLONE_NEWNET) < 0) {
        const std::string why = std::strerror(errno);
        if (target >= 0) close(target);
        if (saved >= 0) close(saved);
        throw std::runtime_error("cannot enter netns " + name + ": " + why);
    }
    close(target);
}

ScopedNetns::~ScopedNetns() {
    // Staying in a test namespace would poison every later test: give up loudly.
    if (setns(saved, CLONE_NEWNET) < 0) std::abort();
    close(saved);
}

int openDescriptors() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
    return count;
}

in_addr ipv4(const char* text) { return lumora::test::ipv4Of(text); }

in6_addr ipv6(const char* text) { return lumora::test::ipv6Of(text); }

std::string text(in_addr address) {
    char out[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, out, sizeof out);
    return out;
}

std::string text(const in6_addr& address) {
    char out[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, &address, out, sizeof out);
    return out;
}

void VifNetTest::SetUp() {
    // No skipping: without root there is nothing real to test against.
    ASSERT_EQ(geteuid(), 0u) << "the endpoint tests need root (raw sockets, netns, tap)";
    removeStaleNamespaces();
    const std::string prefix = kPrefix + std::to_string(getpid());
    hub = prefix + "-hub";
    ap = prefix + "-ap";
    const std::string H = "ip -n " + hub + " ";
    const std::string A = "ip -n " + ap + " ";
    const std::vector<std::string> commands = {
        "ip netns add " + hub,
        "ip netns add " + ap,
        H + "link add vxh0 mtu 1600 type veth peer name vxa0 mtu 1600 netns " + ap,
        // Only the addresses below: no automatic link-local to compete with.
        H + "link set vxh0 addrgenmode none",
        A + "link set vxa0 addrgenmode none",
        H + "addr add 192.0.2.1/24 dev vxh0",
        H + "addr add 2001:db8::1/64 dev vxh0 nodad",
        H + "addr add fe80::1/64 dev vxh0 nodad",
        A + "addr add 192.0.2.2/24 dev vxa0",
        A + "addr add 2001:db8::2/64 dev vxa0 nodad",
        A + "addr add fe80::2/64 dev vxa0 nodad",
        H + "link set vxh0 up",
        A + "link set vxa0 up",
        H + "tuntap add dev vxtap0 mode tap",
        // No IPv6 on the tap: the kernel would send its own solicitations.
        "ip netns exec " + hub + " sysctl -qw net.ipv6.conf.vxtap0.disable_ipv6=1",
        H + "link set vxtap0 address 00:00:5e:00:53:01 mtu 1400",
        H + "tuntap add dev vxtun0 mode tun",
    };
    for (const auto& command : commands) {
        std::string output;
        ASSERT_EQ(run(command, &output), 0) << output;
    }
    // The veth loses what it is given until the kernel has processed its
    // carrier (IFF_RUNNING), up to a second after "up"; only tests that send
    // over it wait for that.
    if (!needs_link) return;
    bool running = false;
    for (int i = 0; i < 300 && !running; ++i) {
        running =
            (flagsIn(hub, "vxh0") & IFF_RUNNING) != 0 && (flagsIn(ap, "vxa0") & IFF_RUNNING) != 0;
        if (!running) usleep(10000);
    }
    ASSERT_TRUE(running) << "veth pair not running after 3 s";
}

void VifNetTest::TearDown() {
    if (!hub.empty()) run("ip netns del " + hub);
    if (!ap.empty()) run("ip netns del " + ap);
}

lumora::Descriptor VifNetTest::socketIn(const std::string& ns, int domain, int type, int protocol) {
    ScopedNetns in(ns);
    lumora::Descriptor sock(::socket(domain, type | SOCK_CLOEXEC, protocol));
    if (!sock.valid()) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
    timeval timeout{2, 0};
    setsockopt(sock.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return sock;
}

unsigned VifNetTest::indexIn(const std::string& ns, const char* interface) {
    ScopedNetns in(ns);
    return if_nametoindex(interface);
}

lumora::Descriptor VifNetTest::packetReceiver(const char* interface, uint16_t ethertype) {
    auto sock = socketIn(hub, AF_PACKET, SOCK_RAW, htons(ethertype));
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ethertype);
    at.sll_ifindex = static_cast<int>(indexIn(hub, interface));
    EXPECT_EQ(bind(sock.get(), reinterpret_cast<sockaddr*>(&at), sizeof at), 0)
        << std::strerror(errno);
    return sock;
}

int VifNetTest::flagsIn(const std::string& ns, const char* interface) {
    auto sock = socketIn(ns, AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
    if (ioctl(sock.get(), SIOCGIFFLAGS, &request) < 0) return -1;
    return request.ifr_flags;
}

int VifNetTest::mtuIn(const std::string& ns, const char* interface) {
    auto sock = socketIn(ns, AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
    if (ioctl(sock.get(), SIOCGIFMTU, &request) < 0) return -1;
    return request.ifr_mtu;
}

Frame::Frame(size_t length, uint8_t first, uint8_t step) : storage(64 + length + 32, 0xEE) {
    for (size_t i = 0; i < length; ++i) storage[64 + i] = static_cast<uint8_t>(first + i * step);
    pdu._buf = storage.data();
    pdu._cap = static_cast<uint16_t>(storage.size());
    pdu._begin = 64;
    pdu._end = static_cast<uint16_t>(64 + length);
}

std::vector<uint8_t> Frame::payload() const {
    return std::vector<uint8_t>(storage.begin() + pdu._begin, storage.begin() + pdu._end);
}

}  // namespace vxbrd_test
