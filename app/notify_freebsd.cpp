#ifndef __FreeBSD__
#error "notify_freebsd.cpp is the FreeBSD backend; build notify_linux.cpp instead"
#endif

#include "app/ServiceNotify.h"

namespace lumora {

// rc.d and daemon(8) watch the process and its PID file; nothing on FreeBSD
// waits for a readiness message, so there is never anybody to tell.
int notifyServiceManager(std::string_view) { return -1; }

}  // namespace lumora
