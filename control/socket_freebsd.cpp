#ifndef __FreeBSD__
#error "socket_freebsd.cpp is the FreeBSD backend"
#endif

#include <sys/un.h>

#include "control/socket_platform.h"

namespace lumora {

// The full 106-byte address (length byte, family, 104-byte path), as the
// daemon has always bound it.
socklen_t unixAddressSize() { return 106; }

}  // namespace lumora
