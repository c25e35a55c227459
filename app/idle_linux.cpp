#ifndef __linux__
#error "idle_linux.cpp is the Linux backend; build idle_freebsd.cpp instead"
#endif

#include <sched.h>

#include "app/idle_platform.h"

namespace lumora::platform {

bool moveThisThreadToIdleClass() {
    // Pid 0 names the calling thread: the tunnel threads, started earlier,
    // keep the normal class.
    const sched_param parameters{};
    return sched_setscheduler(0, SCHED_IDLE, &parameters) == 0;
}

}  // namespace lumora::platform
