#ifndef __FreeBSD__
#error "privileges_freebsd.cpp is the FreeBSD backend"
#endif

// FreeBSD has no capability sets a root process could shrink: raw sockets
// and tap devices are a matter of being root, and a process stays root.
// What limits the daemon there is its setting, described in vxbrd(8): a jail
// with raw sockets allowed and only its tap devices in its devfs ruleset.
// Capability mode (cap_enter) does not fit: it refuses sendto with a
// destination address, and every GRE send names its peer on a socket shared
// by all peers.

#include "app/privileges.h"

namespace lumora {

int dropPrivileges() { return 0; }

}  // namespace lumora
