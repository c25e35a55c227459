#ifndef __FreeBSD__
#error "tap_freebsd.cpp is the FreeBSD backend of the tap endpoint"
#endif

// FreeBSD tap(4): the device node /dev/<name> of an interface created with
// "ifconfig tapN create"; the node answers the tap ioctls directly.

#include <fcntl.h>
#include <net/if.h>
#include <net/if_tap.h>
#include <net/if_types.h>
#include <sys/filio.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

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

}  // namespace

OpenedTap openTap(Logger* logger, const char* interface, char* name, uint8_t* link_address,
                  bool offloads) {
    OpenedTap opened;
    opened.fd = Descriptor::open(logger, name, name, O_RDWR);
    const int fd = opened.fd.get();

    ifreq request;
    std::memset(&request, 0, sizeof request);
    if (::ioctl(fd, TAPGIFNAME, &request) < 0) failCall(logger, name, "TAPGIFNAME");
    std::snprintf(name, 64, "%.*s", IFNAMSIZ, request.ifr_name);

    // The driver copies the MAC to the start of the buffer, but the ioctl
    // moves a whole ifreq in and out: hand it one, not the 14 data bytes of
    // the link address.
    std::memset(&request, 0, sizeof request);
    std::memset(link_address, 0, 16);
    if (::ioctl(fd, SIOCGIFADDR, &request) < 0) failCall(logger, name, "SIOCGIFADDR");
    std::memcpy(link_address + 2, &request, kMacSize);
    link_address[0] = 16;
    link_address[1] = AF_LINK;

    tapinfo info;
    std::memset(&info, 0, sizeof info);
    if (::ioctl(fd, TAPGIFINFO, &info) < 0) failCall(logger, name, "TAPGIFINFO");
    if (info.type != IFT_ETHER) {
        VXBRD_LOG(*logger, Error, "%s not an Ethernet interface", name);
        throw pdu::kInvalid;
    }

    const Descriptor sock = Descriptor::socket(logger, name, "socket()", AF_INET, SOCK_DGRAM, 0);
    setName(request, interface);
    if (::ioctl(sock.get(), SIOCGIFFLAGS, &request) < 0) failCall(logger, name, "SIOCGIFFLAGS");
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    if (::ioctl(sock.get(), SIOCSIFFLAGS, &request) < 0) failCall(logger, name, "SIOCSIFFLAGS");

    opened.mtu = static_cast<uint16_t>(info.mtu);
    // The header's size turns the offloads on: tap(4) then hands over TCP
    // super-frames with checksums left to us and takes merged frames. A
    // size of 0 keeps (or puts back) ordinary frames.
    int header = offloads ? VnetHeader::kLength : 0;
    if (::ioctl(fd, TAPSVNETHDR, &header) == 0) {
        opened.offloads = offloads;
    } else if (offloads) {
        const int error = errno;
        VXBRD_LOG(*logger, Notice, "%s TAPSVNETHDR: %s; offloads off, plain frames", name,
                  std::strerror(error));
    }
    return opened;
}

// tap(4) answers FIONREAD with the size of the first queued frame, so a
// frame is read only when one is there.
ssize_t readIfQueued(int fd, void* data, size_t size) {
    int queued = 0;
    if (::ioctl(fd, FIONREAD, &queued) < 0) return -1;
    if (queued <= 0) {
        errno = EAGAIN;
        return -1;
    }
    return ::read(fd, data, size);
}

void setTapMtu(Logger* logger, int fd, const char* name, long mtu) {
    tapinfo info;
    std::memset(&info, 0, sizeof info);
    if (::ioctl(fd, TAPGIFINFO, &info) < 0) failCall(logger, name, "TAPGIFINFO");
    info.mtu = static_cast<unsigned short>(mtu);
    if (::ioctl(fd, TAPSIFINFO, &info) < 0) failCall(logger, name, "TAPSIFINFO");
}

}  // namespace lumora::vif::platform
