// The control socket: a UNIX stream socket on which operators and monitoring
// scripts ask for the "peers" and "clients" reports. One thread serves every
// connection with poll; its messages go to standard output.
#pragma once

#include <string>

#include "tunnel/Tables.h"

namespace lumora {

inline constexpr const char* kControlSocketPath = "/var/run/vxbrd.sock";

// Serves path for ever. Returns only when the socket cannot be bound or
// listened on (after printing why); the daemon then runs without it.
//
// A client ends a connection by shutting down its sending side and reading
// until the daemon closes: the daemon then sees a plain end of stream and
// closes its descriptor. A client that closes outright makes the daemon
// report the hang-up ("  Error! revents = ...") and keep the descriptor, as
// it always has.
void controlSocketServer(const std::string& path, Tables& tables);

}  // namespace lumora
