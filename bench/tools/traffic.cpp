// The benchmark's traffic tool: offers fixed, pre-built frames at a set rate
// through an AF_PACKET socket (sendmmsg, qdisc bypassed), or holds a GRE sink.
//
//   traffic gre  DEV SRC_MAC DST_MAC SRC_IP DST_IP SIZE VLAN KEY RATE SECONDS
//       GRE over IPv4 from an access point to the hub; the inner frame is
//       SIZE bytes from CLIENT_MAC to HOST_MAC (VLAN 0: untagged, KEY -1: no key)
//   traffic tap  DEV SIZE RATE SECONDS
//       frames from HOST_MAC to CLIENT_MAC sent out of a tap interface, which
//       is where the tunnel (or a relay) reads them
//   traffic sink SECONDS
//       a raw GRE socket that is never read, so that arriving GRE is taken by
//       a socket (and counted in /proc/net/raw) instead of answered with ICMP
//
// Prints "offered=N seconds=S" on success. Every loop is bounded by SECONDS.
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frames.h"

namespace {

constexpr const char* kClientMac = "02:00:00:00:0b:01";
constexpr const char* kHostMac = "02:00:00:00:0b:99";
constexpr unsigned kBatch = 32;

double now() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "traffic: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

int packetSocket(const char* device) {
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);  // send only: no protocol to receive
    if (fd < 0) die("socket(AF_PACKET)");
    const int on = 1;
    if (setsockopt(fd, SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on) < 0)
        die("PACKET_QDISC_BYPASS");
    const int sndbuf = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(device));
    if (address.sll_ifindex == 0) die(std::string("if_nametoindex ") + device);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) die("bind");
    return fd;
}

// Sends `frame` at `rate` per second for `seconds`; returns how many were
// offered. A frame the device refuses (its queue is full: ENOBUFS) counts as
// offered and lost, since the receiver did not keep up.
unsigned long long offer(int fd, const bench::Bytes& frame, double rate, double seconds) {
    iovec iov{const_cast<uint8_t*>(frame.data()), frame.size()};
    mmsghdr messages[kBatch];
    std::memset(messages, 0, sizeof messages);
    for (auto& m : messages) {
        m.msg_hdr.msg_iov = &iov;
        m.msg_hdr.msg_iovlen = 1;
    }
    unsigned long long offered = 0;
    const double start = now();
    const double end = start + seconds;
    for (;;) {
        const double t = now();
        if (t >= end) break;
        const double due = rate * (t - start) - static_cast<double>(offered);
        if (due < 1.0) {
            // Ahead of schedule: sleep most of the gap (timer slack is 1 ns).
            const double gap = (1.0 - due) / rate;
            if (gap > 20e-6) {
                timespec pause{0, static_cast<long>((gap - 10e-6) * 1e9)};
                nanosleep(&pause, nullptr);
            }
            continue;
        }
        unsigned count = due > kBatch ? kBatch : static_cast<unsigned>(due);
        unsigned done = 0;
        for (int tries = 0; done < count && tries < 1000; ++tries) {
            const int sent = sendmmsg(fd, messages + done, count - done, 0);
            if (sent > 0) {
                done += static_cast<unsigned>(sent);
            } else if (errno == ENOBUFS || errno == EAGAIN) {
                ++done;  // refused by a full queue: offered and lost
            } else {
                die("sendmmsg");
            }
        }
        offered += done;
    }
    std::printf("offered=%llu seconds=%.6f\n", offered, now() - start);
    return offered;
}

double number(const char* text) { return std::strtod(text, nullptr); }

}  // namespace

int main(int argc, char** argv) {
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "gre" && argc == 12) {
        const bench::Bytes src_mac = bench::parseMac(argv[3]);
        const bench::Bytes dst_mac = bench::parseMac(argv[4]);
        const in_addr src_ip = bench::parseIPv4(argv[5]);
        const in_addr dst_ip = bench::parseIPv4(argv[6]);
        const auto size = static_cast<size_t>(number(argv[7]));
        const auto vlan = static_cast<uint16_t>(number(argv[8]));
        const long long key = std::strtoll(argv[9], nullptr, 10);
        bench::Bytes inner =
            bench::innerFrame(bench::parseMac(kHostMac), bench::parseMac(kClientMac), size);
        if (vlan != 0) inner = bench::tagged(inner, vlan);
        const bench::Bytes gre = bench::greHeader(key >= 0, static_cast<uint32_t>(key));
        const bench::Bytes ip = bench::ipv4Header(src_ip, dst_ip, 47, gre.size() + inner.size());
        bench::Bytes frame(dst_mac);
        frame.insert(frame.end(), src_mac.begin(), src_mac.end());
        frame.push_back(0x08);
        frame.push_back(0x00);
        frame.insert(frame.end(), ip.begin(), ip.end());
        frame.insert(frame.end(), gre.begin(), gre.end());
        frame.insert(frame.end(), inner.begin(), inner.end());
        offer(packetSocket(argv[2]), frame, number(argv[10]), number(argv[11]));
        return 0;
    }
    if (mode == "tap" && argc == 6) {
        const bench::Bytes frame =
            bench::innerFrame(bench::parseMac(kClientMac), bench::parseMac(kHostMac),
                              static_cast<size_t>(number(argv[3])));
        offer(packetSocket(argv[2]), frame, number(argv[4]), number(argv[5]));
        return 0;
    }
    if (mode == "sink" && argc == 3) {
        const int fd = socket(AF_INET, SOCK_RAW, 47);
        if (fd < 0) die("socket(GRE)");
        // Every datagram is taken by the socket and dropped by its filter,
        // never queued: the kernel counts it delivered. A socket whose queue
        // is full is passed over instead, and the kernel then answers the
        // datagram with an ICMP protocol unreachable, route lookup and all,
        // in the softirq of whoever sent it: the subject's CPU time would
        // carry the receiver's error path.
        sock_filter drop_all[] = {{BPF_RET | BPF_K, 0, 0, 0}};
        const sock_fprog program{1, drop_all};
        if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) < 0)
            die("SO_ATTACH_FILTER");
        const double end = now() + number(argv[2]);
        while (now() < end) sleep(1);
        return 0;
    }
    std::fprintf(stderr,
                 "usage: traffic gre DEV SRC_MAC DST_MAC SRC_IP DST_IP SIZE VLAN KEY RATE SECONDS\n"
                 "       traffic tap DEV SIZE RATE SECONDS\n"
                 "       traffic sink SECONDS\n");
    return 2;
}
