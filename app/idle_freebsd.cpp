#ifndef __FreeBSD__
#error "idle_freebsd.cpp is the FreeBSD backend; build idle_linux.cpp instead"
#endif

// sys/rtprio.h uses the BSD integer types without including them.
// clang-format off
#include <sys/types.h>
#include <sys/rtprio.h>
// clang-format on

#include "app/idle_platform.h"

namespace lumora::platform {

bool moveThisThreadToIdleClass() {
    // The lowest idle priority; lwpid 0 is the calling thread.
    struct rtprio priority {};
    priority.type = RTP_PRIO_IDLE;
    priority.prio = RTP_PRIO_MAX;
    return rtprio_thread(RTP_SET, 0, &priority) == 0;
}

}  // namespace lumora::platform
