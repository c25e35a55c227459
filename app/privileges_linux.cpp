#ifndef __linux__
#error "privileges_linux.cpp is the Linux backend"
#endif

// Linux capabilities belong to each thread: a thread empties its own
// effective, permitted and inheritable sets (the ambient set follows the
// permitted one) and, where it may, its bounding set, so that not even a
// later exec of something would bring a capability back. Made through the
// system calls themselves: no capability library is needed for this much.

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "app/privileges.h"

namespace lumora {

int dropPrivileges() {
    // The bounding set first: shrinking it needs CAP_SETPCAP, which the
    // capset below gives up. A service manager that withheld CAP_SETPCAP
    // has bounded the set already; EPERM then leaves the rest as it is.
    for (unsigned long capability = 0;; ++capability) {
        const int held = prctl(PR_CAPBSET_READ, capability, 0, 0, 0);
        if (held < 0) break;  // beyond the last capability this kernel knows
        if (held == 1 && prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) < 0) {
            if (errno == EPERM) break;
            return errno;
        }
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};  // 0: this thread
    __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capset, &header, none) < 0) return errno;
    return 0;
}

}  // namespace lumora
