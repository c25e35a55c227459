#ifndef __linux__
#error "tap_linux.cpp is the Linux backend of the tap endpoint"
#endif

// Linux tap interfaces are reached through /dev/net/tun: TUNSETIFF attaches
// the descriptor to the tap interface of that name, which the operator created
// beforehand (ip tuntap add dev tap0 mode tap), as on FreeBSD.
//
// Naming: until TUNSETIFF has named the interface, error lines carry the
// FreeBSD-style device path "/dev/<name>", so operators see the same lines on
// both systems. TUNSETIFF would quietly create a missing interface, so
// existence is checked first and a missing one is reported as the open
// failure ("/dev/tap9 open(): No such device").

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vif/VnetHeader.h"
#include "vif/tap_platform.h"

namespace lumora::vif::platform {

namespace {

constexpr size_t kMacSize = 6;

// At most IFNAMSIZ bytes of the name, as the kernel reads them.
void setName(ifreq& request, const char* interface) {
    std::memset(&request, 0, sizeof request);
    std::memcpy(request.ifr_name, interface, strnlen(interface, IFNAMSIZ));
}

Descriptor controlSocket(Logger* logger, const char* name) {
    return Descriptor::socket(logger, name, "socket()", AF_INET, SOCK_DGRAM, 0);
}

// Header size, byte order and the offloads themselves: TCP super-frames
// over IPv4 and IPv6 and checksums left to us. False, after one Notice
// line naming the call the kernel refused, when any is refused.
bool enableOffloads(Logger* logger, int fd, const char* name) {
    int header = VnetHeader::kLength;
    int little_endian = 1;
    const char* refused = nullptr;
    if (::ioctl(fd, TUNSETVNETHDRSZ, &header) < 0) {
        refused = "TUNSETVNETHDRSZ";
    } else if (::ioctl(fd, TUNSETVNETLE, &little_endian) < 0 && errno != EINVAL) {
        // EINVAL: a kernel that only knows the host's own order, which is
        // little-endian wherever the daemon runs.
        refused = "TUNSETVNETLE";
    } else if (::ioctl(fd, TUNSETOFFLOAD, TUN_F_CSUM | TUN_F_TSO4 | TUN_F_TSO6) < 0) {
        refused = "TUNSETOFFLOAD";
    }
    if (refused == nullptr) return true;
    const int error = errno;
    VXBRD_LOG(*logger, Notice, "%s %s: %s; offloads off, plain frames", name, refused,
              std::strerror(error));
    return false;
}

}  // namespace

OpenedTap openTap(Logger* logger, const char* interface, char* name, uint8_t* link_address,
                  bool offloads) {
    if (if_nametoindex(interface) == 0) failCall(logger, name, "open()");
    OpenedTap opened;
    opened.fd = Descriptor::open(logger, name, "/dev/net/tun", O_RDWR);

    ifreq request;
    setName(request, interface);
    request.ifr_flags = IFF_TAP | IFF_NO_PI | (offloads ? IFF_VNET_HDR : 0);
    if (::ioctl(opened.fd.get(), TUNSETIFF, &request) < 0) failCall(logger, name, "TUNSETIFF");
    std::snprintf(name, 64, "%.*s", IFNAMSIZ, request.ifr_name);
    if (offloads) {
        opened.offloads = enableOffloads(logger, opened.fd.get(), name);
        if (!opened.offloads) {
            // The header cannot be taken back from an attached descriptor:
            // the device is opened afresh for ordinary frames.
            opened.fd = Descriptor::open(logger, name, "/dev/net/tun", O_RDWR);
            setName(request, interface);
            request.ifr_flags = IFF_TAP | IFF_NO_PI;
            if (::ioctl(opened.fd.get(), TUNSETIFF, &request) < 0)
                failCall(logger, name, "TUNSETIFF");
        }
    }
    if (!opened.offloads) {
        // An earlier run may have left the offloads on; a reader without the
        // header must not be handed super-frames. Refused only by kernels
        // that never had them.
        static_cast<void>(::ioctl(opened.fd.get(), TUNSETOFFLOAD, 0u));
    }

    // The rest goes through an ordinary socket: the tun descriptor answers
    // none of the interface ioctls.
    const Descriptor sock = controlSocket(logger, name);
    setName(request, name);
    if (::ioctl(sock.get(), SIOCGIFHWADDR, &request) < 0) failCall(logger, name, "SIOCGIFHWADDR");
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER) {
        VXBRD_LOG(*logger, Error, "%s not an Ethernet interface", name);
        throw pdu::kInvalid;
    }
    std::memset(link_address, 0, 16);
    link_address[0] = 16;
    link_address[1] = AF_PACKET;
    std::memcpy(link_address + 2, request.ifr_hwaddr.sa_data, kMacSize);

    setName(request, interface);
    if (::ioctl(sock.get(), SIOCGIFFLAGS, &request) < 0) failCall(logger, name, "SIOCGIFFLAGS");
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    if (::ioctl(sock.get(), SIOCSIFFLAGS, &request) < 0) failCall(logger, name, "SIOCSIFFLAGS");

    setName(request, name);
    if (::ioctl(sock.get(), SIOCGIFMTU, &request) < 0) failCall(logger, name, "SIOCGIFMTU");
    opened.mtu = static_cast<uint16_t>(request.ifr_mtu);
    return opened;
}

// The tun driver honours RWF_NOWAIT: an empty queue answers EAGAIN at once.
ssize_t readIfQueued(int fd, void* data, size_t size) {
    iovec piece{data, size};
    return ::preadv2(fd, &piece, 1, -1, RWF_NOWAIT);
}

void setTapMtu(Logger* logger, int, const char* name, long mtu) {
    const Descriptor sock = controlSocket(logger, name);
    ifreq request;
    setName(request, name);
    request.ifr_mtu = static_cast<int>(mtu);
    if (::ioctl(sock.get(), SIOCSIFMTU, &request) < 0) failCall(logger, name, "SIOCSIFMTU");
}

}  // namespace lumora::vif::platform
