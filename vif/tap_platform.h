// The OS-specific half of the tap endpoint: opening the device, reading a
// frame only when one is queued, and pushing an MTU into the kernel. One implementation per OS
// (tap_freebsd.cpp, tap_linux.cpp). Every failure is logged at Error with the current name first
// and thrown as int errno (22 for a device that is not Ethernet).
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "core/Descriptor.h"
#include "core/Logger.h"
#include "pdu/PDU.h"
#include "vif/TAP"

namespace lumora::vif::platform {

struct OpenedTap {
    Descriptor fd;          // the device, read and written by the endpoint
    long mtu = 0;           // the interface's MTU as the kernel reports it
    bool offloads = false;  // frames carry a VnetHeader both ways
};

// Opens the tap device for interface, brings the interface up and learns its
// kernel name, MAC and MTU. name (64 bytes) holds "/dev/<interface>" on entry
// and is overwritten with the kernel name once it is known; link_address
// (16 bytes) receives length, family and the 6-byte MAC. interface must stay
// valid for the call only. With offloads the device is asked for TCP
// super-frames and checksum offload behind a VnetHeader; a kernel that
// refuses is one Notice line and the device is opened for ordinary frames.
OpenedTap openTap(Logger* logger, const char* interface, char* name, uint8_t* link_address,
                  bool offloads);

// Reads one frame only if one is already queued: -1 with errno EAGAIN when
// none is, or EOPNOTSUPP where the device cannot be read without waiting.
ssize_t readIfQueued(int fd, void* data, size_t size);

// Sets the interface MTU in the kernel (value already validated).
void setTapMtu(Logger* logger, int fd, const char* name, long mtu);

}  // namespace lumora::vif::platform
