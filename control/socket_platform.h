// The size a UNIX socket address is bound with on this platform.
#pragma once

#include <sys/socket.h>

namespace lumora {

socklen_t unixAddressSize();

}  // namespace lumora
