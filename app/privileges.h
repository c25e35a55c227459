// Giving up privileges once start-up is over. Every endpoint (raw GRE
// sockets, tap devices, the control socket) is opened by start-up; from then
// on the daemon only reads, writes and sends on descriptors it holds, which
// needs no privilege at all.
#pragma once

namespace lumora {

// Gives up every privilege the calling thread holds that the system lets a
// process give up by itself. Where privileges belong to each thread (Linux
// capabilities), every thread calls it for itself. Returns 0, or the errno
// of the call that failed.
int dropPrivileges();

}  // namespace lumora
