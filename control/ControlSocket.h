// The control socket: a UNIX stream socket on which operators and monitoring
// scripts ask for the "peers" and "clients" reports. One thread serves every
// connection with poll; its messages go to standard output.
#pragma once

#include <poll.h>

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "core/Descriptor.h"
#include "tunnel/Tables.h"

namespace lumora {

inline constexpr const char* kControlSocketPath = "/var/run/vxbrd.sock";

// Entries of the poll table: the listening socket and at most 199 clients.
// A connection beyond that is accepted, told nothing, and closed at once
// ("Refused connection. ..."), so no number of clients can exhaust the
// daemon's descriptors.
inline constexpr size_t kPollTableSize = 200;

// The longest one reply's send waits for a client to make room. Replies are
// sent blocking, so that a client that keeps reading gets a large report
// whole; a client that stops reading costs the other clients at most this
// per request, and its reply is cut there.
inline constexpr int kSendTimeoutMilliseconds = 300;

// The listening socket at path (a file left there by an earlier run is
// removed first), non-blocking; none after printing why it cannot be bound
// or listened on.
Descriptor openControlListener(const std::string& path);

// The serving loop's state: the descriptor list (the listener, then each
// client in order of acceptance) and the fixed poll table.
class ControlServer {
  public:
    ControlServer(Descriptor listener, Tables& tables);
    // Closes every client descriptor. The daemon's server lives as long as
    // the process; tools that drive a server of their own end it this way.
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // One poll of every descriptor (waiting up to timeout_ms) and one walk
    // over the entries: accepts, serves one request per readable client,
    // closes clients that ended. Returns poll's result (below 0 after the
    // "poll() error" message).
    int pass(int timeout_ms);

    // The client descriptors, in order of acceptance.
    std::vector<int> clients() const;

  private:
    void acceptAll();
    void serveRequest(int client);

    Descriptor listener;
    Tables& tables;
    std::vector<int> descriptors;
    std::array<pollfd, kPollTableSize> table{};
};

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
