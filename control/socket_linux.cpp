#ifndef __linux__
#error "socket_linux.cpp is the Linux backend"
#endif

#include <sys/un.h>

#include "control/socket_platform.h"

namespace lumora {

// Linux addresses carry no length byte: the whole structure is given.
socklen_t unixAddressSize() { return sizeof(sockaddr_un); }

}  // namespace lumora
