// The benchmark's yardsticks: relays that do nothing but move bytes between a
// raw GRE socket and a tap, measured one direction at a time.
//
//   relay ingress|egress minimal|duplex|batched|spin LOCAL_IP PEER_IP TAP VLAN KEY SECONDS
//
// ingress: GRE datagrams received on LOCAL_IP are written to TAP without
//   their outer IPv4 and GRE headers (any 802.1Q tag stays in the frame).
// egress: frames read from TAP get an 802.1Q tag (VLAN >= 2) and a GRE
//   header (with KEY when KEY >= 0), built in headroom, and are sent to PEER_IP.
// minimal: recvfrom -> write, read -> sendto, one frame per system call; only
//   the measured direction runs.
// duplex: minimal, with the other direction's loop waiting in a second thread,
//   as in any relay that carries a tunnel both ways: its receive waits on the
//   GRE socket the sends go through, and the two threads share the process's
//   descriptors.
// batched: recvmmsg -> io_uring writes, io_uring reads -> sendmmsg; falls back
//   to plain writes and reads where the kernel has no io_uring.
// spin: batched, but never sleeping: non-blocking receives (recvmmsg with
//   MSG_DONTWAIT, preadv2 with RWF_NOWAIT) in a loop that burns its core. The
//   floor of the table: the most one core moves here; its CPU time is the
//   whole core, whatever the load.
//
// Sockets get the daemon's buffer sizes and don't-fragment mode. The process
// ends itself after SECONDS (alarm), whatever it is doing.
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "frames.h"
#include "uring.h"

namespace {

constexpr unsigned kBatch = 32;
constexpr size_t kSlot = 65536;
constexpr size_t kHeadroom = 64;
constexpr size_t kFrameRoom = 4096 - kHeadroom;

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "relay: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

int greSocket(in_addr local) {
    const int fd = socket(AF_INET, SOCK_RAW, 47);
    if (fd < 0) die("socket(GRE)");
    const int size = 0xFFFFF;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    const int mode = IP_PMTUDISC_DO;
    setsockopt(fd, IPPROTO_IP, IP_MTU_DISCOVER, &mode, sizeof mode);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = local;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) die("bind");
    return fd;
}

int tapDevice(const char* name) {
    const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (fd < 0) die("open /dev/net/tun");
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    if (ioctl(fd, TUNSETIFF, &request) < 0) die("TUNSETIFF");
    return fd;
}

// Offset of the inner frame in a received IPv4 datagram, or 0 when malformed.
size_t innerOffset(const uint8_t* datagram, size_t length) {
    if (length < 24) return 0;
    const size_t ip = static_cast<size_t>(datagram[0] & 0x0F) * 4;
    const uint8_t flags = datagram[ip];
    const size_t gre =
        4 + ((flags & 0x80) ? 4 : 0) + ((flags & 0x20) ? 4 : 0) + ((flags & 0x10) ? 4 : 0);
    return ip + gre < length ? ip + gre : 0;
}

// Prepends the tag and GRE header in front of frame (which has kHeadroom
// bytes before it); returns the start of the datagram.
uint8_t* encapsulate(uint8_t* frame, size_t& length, uint16_t vlan, const bench::Bytes& gre) {
    uint8_t* start = frame;
    if (vlan >= 2) {
        std::memmove(start - 4, start, 12);
        start -= 4;
        bench::put16(start + 12, 0x8100);
        bench::put16(start + 14, vlan & 0x0fff);
        length += 4;
    }
    start -= gre.size();
    std::memcpy(start, gre.data(), gre.size());
    length += gre.size();
    return start;
}

void ingressMinimal(int gre, int tap) {
    auto buffer = std::make_unique<uint8_t[]>(kSlot);
    for (;;) {
        const ssize_t got = recvfrom(gre, buffer.get(), kSlot, 0, nullptr, nullptr);
        if (got < 0) die("recvfrom");
        const size_t offset = innerOffset(buffer.get(), static_cast<size_t>(got));
        if (offset == 0) continue;
        // A frame the tap refuses is dropped, as in the daemon.
        (void)!write(tap, buffer.get() + offset, static_cast<size_t>(got) - offset);
    }
}

// spin: never sleep (the floor subject); otherwise wait for the first datagram.
void ingressBatched(int gre, int tap, bool spin) {
    auto buffer = std::make_unique<uint8_t[]>(kSlot * kBatch);
    iovec iov[kBatch];
    mmsghdr messages[kBatch];
    std::memset(messages, 0, sizeof messages);
    for (unsigned i = 0; i < kBatch; ++i) {
        iov[i] = {buffer.get() + i * kSlot, kSlot};
        messages[i].msg_hdr.msg_iov = &iov[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    bench::Uring ring;
    const bool uring = ring.open(kBatch);
    std::fprintf(stderr, "relay: %stap writes %s\n", spin ? "spinning, " : "",
                 uring ? "through io_uring" : "plain");
    for (;;) {
        const int got =
            recvmmsg(gre, messages, kBatch, spin ? MSG_DONTWAIT : MSG_WAITFORONE, nullptr);
        if (got <= 0) {
            if (got < 0 && !spin) die("recvmmsg");
            continue;
        }
        unsigned queued = 0;
        for (int i = 0; i < got; ++i) {
            uint8_t* datagram = buffer.get() + static_cast<size_t>(i) * kSlot;
            const size_t length = messages[i].msg_len;
            const size_t offset = innerOffset(datagram, length);
            if (offset == 0) continue;
            if (uring) {
                ring.prepare(IORING_OP_WRITE, tap, datagram + offset,
                             static_cast<unsigned>(length - offset), 0);
                ++queued;
            } else {
                (void)!write(tap, datagram + offset, length - offset);
            }
        }
        if (queued == 0) continue;
        if (ring.enter(queued) < 0) die("io_uring_enter");
        for (unsigned reaped = 0; reaped < queued;) {
            reaped += ring.reap([](uint64_t, int) {});
            if (reaped < queued && ring.enter(1) < 0) die("io_uring_enter");
        }
    }
}

void egressSpin(int gre, int tap, sockaddr_in peer, uint16_t vlan, const bench::Bytes& header) {
    auto buffer = std::make_unique<uint8_t[]>(4096 * kBatch);
    iovec iov[kBatch];
    mmsghdr messages[kBatch];
    std::memset(messages, 0, sizeof messages);
    for (unsigned i = 0; i < kBatch; ++i) {
        messages[i].msg_hdr.msg_name = &peer;
        messages[i].msg_hdr.msg_namelen = sizeof peer;
        messages[i].msg_hdr.msg_iov = &iov[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    std::fprintf(stderr, "relay: spinning on tap reads\n");
    for (;;) {
        unsigned count = 0;
        while (count < kBatch) {
            uint8_t* frame = buffer.get() + count * 4096 + kHeadroom;
            iovec piece{frame, kFrameRoom};
            const ssize_t got = preadv2(tap, &piece, 1, -1, RWF_NOWAIT);
            if (got < 14) break;
            size_t length = static_cast<size_t>(got);
            uint8_t* start = encapsulate(frame, length, vlan, header);
            iov[count++] = {start, length};
        }
        for (unsigned sent = 0; sent < count;) {
            const int n = sendmmsg(gre, messages + sent, count - sent, 0);
            sent += n > 0 ? static_cast<unsigned>(n) : 1;
        }
    }
}

void egressMinimal(int gre, int tap, sockaddr_in peer, uint16_t vlan, const bench::Bytes& header) {
    auto buffer = std::make_unique<uint8_t[]>(4096);
    for (;;) {
        const ssize_t got = read(tap, buffer.get() + kHeadroom, kFrameRoom);
        if (got < 14) {
            if (got < 0) die("read");
            continue;
        }
        size_t length = static_cast<size_t>(got);
        uint8_t* start = encapsulate(buffer.get() + kHeadroom, length, vlan, header);
        (void)!sendto(gre, start, length, 0, reinterpret_cast<sockaddr*>(&peer), sizeof peer);
    }
}

void egressBatched(int gre, int tap, sockaddr_in peer, uint16_t vlan, const bench::Bytes& header) {
    auto buffer = std::make_unique<uint8_t[]>(4096 * kBatch);
    iovec iov[kBatch];
    mmsghdr messages[kBatch];
    std::memset(messages, 0, sizeof messages);
    for (auto& m : messages) {
        m.msg_hdr.msg_name = &peer;
        m.msg_hdr.msg_namelen = sizeof peer;
    }
    bench::Uring ring;
    const bool uring = ring.open(kBatch * 2);
    std::fprintf(stderr, "relay: tap reads %s\n", uring ? "through io_uring" : "plain");
    auto frame = [&](unsigned i) { return buffer.get() + i * 4096 + kHeadroom; };
    if (!uring) {
        for (;;) {
            const ssize_t got = read(tap, frame(0), kFrameRoom);
            if (got < 0) die("read");
            if (got < 14) continue;
            size_t length = static_cast<size_t>(got);
            uint8_t* start = encapsulate(frame(0), length, vlan, header);
            (void)!sendto(gre, start, length, 0, reinterpret_cast<sockaddr*>(&peer), sizeof peer);
        }
    }
    for (unsigned i = 0; i < kBatch; ++i)
        ring.prepare(IORING_OP_READ, tap, frame(i), kFrameRoom, i);
    unsigned completed[kBatch];
    for (;;) {
        if (ring.enter(1) < 0 && errno != EINTR) die("io_uring_enter");
        unsigned count = 0;
        ring.reap([&](uint64_t slot, int result) {
            const auto i = static_cast<unsigned>(slot);
            completed[count] = i;
            if (result >= 14) {
                size_t length = static_cast<size_t>(result);
                uint8_t* start = encapsulate(frame(i), length, vlan, header);
                iov[count] = {start, length};
            } else {
                iov[count] = {frame(i), 0};
            }
            messages[count].msg_hdr.msg_iov = &iov[count];
            messages[count].msg_hdr.msg_iovlen = 1;
            ++count;
        });
        for (unsigned sent = 0; sent < count;) {
            const int n = sendmmsg(gre, messages + sent, count - sent, 0);
            // A datagram the kernel refuses is dropped, as a relay would.
            sent += n > 0 ? static_cast<unsigned>(n) : 1;
        }
        for (unsigned c = 0; c < count; ++c)
            ring.prepare(IORING_OP_READ, tap, frame(completed[c]), kFrameRoom, completed[c]);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string kind = argc == 9 ? argv[2] : "";
    if (kind != "minimal" && kind != "duplex" && kind != "batched" && kind != "spin") {
        std::fprintf(
            stderr,
            "usage: relay ingress|egress minimal|duplex|batched|spin LOCAL_IP PEER_IP TAP VLAN "
            "KEY SECONDS\n");
        return 2;
    }
    const std::string direction = argv[1];
    const bool batched = kind == "batched";
    const in_addr local = bench::parseIPv4(argv[3]);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr = bench::parseIPv4(argv[4]);
    const auto vlan = static_cast<uint16_t>(std::strtoul(argv[6], nullptr, 10));
    const long long key = std::strtoll(argv[7], nullptr, 10);
    alarm(static_cast<unsigned>(std::strtoul(argv[8], nullptr, 10)));
    const int gre = greSocket(local);
    const int tap = tapDevice(argv[5]);
    std::fprintf(stderr, "relay: ready\n");
    const bench::Bytes header = bench::greHeader(key >= 0, static_cast<uint32_t>(key));
    if (kind == "duplex") {
        // The thread never ends; alarm ends the process.
        if (direction == "ingress") {
            std::thread([=] { egressMinimal(gre, tap, peer, vlan, header); }).detach();
            ingressMinimal(gre, tap);
        } else {
            std::thread([=] { ingressMinimal(gre, tap); }).detach();
            egressMinimal(gre, tap, peer, vlan, header);
        }
    } else if (kind == "spin") {
        direction == "ingress" ? ingressBatched(gre, tap, true)
                               : egressSpin(gre, tap, peer, vlan, header);
    } else if (direction == "ingress") {
        batched ? ingressBatched(gre, tap, false) : ingressMinimal(gre, tap);
    } else {
        batched ? egressBatched(gre, tap, peer, vlan, header)
                : egressMinimal(gre, tap, peer, vlan, header);
    }
    return 0;
}
