// Telling a service manager how start-up went and what the daemon carries.
// systemd hands a supervised daemon the address of a datagram socket in
// NOTIFY_SOCKET and waits for "READY=1" before it reports the service as
// started; "STATUS=..." is the one-line state "systemctl status" shows.
// Without NOTIFY_SOCKET none of this happens and the daemon behaves as it
// always has.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace lumora {

// Platform: sends state ("READY=1", "STATUS=...", several joined by
// newlines) as one datagram to the socket named by NOTIFY_SOCKET (a path,
// or "@name" for an abstract name). Returns 0 when sent, -1 when no
// service manager asked (NOTIFY_SOCKET unset or empty), else the errno of
// the failure. Never throws.
int notifyServiceManager(std::string_view state);

// "STATUS=peers: P, clients: C"
std::string statusLine(std::size_t peers, std::size_t clients);

// Readiness once, then the peer and client counts whenever they change, at
// most once a second. The main thread owns it and drives it from its idle
// loop, so the tunnel threads never wait for the service manager.
class ServiceStatus {
  public:
    using Clock = std::chrono::steady_clock;
    using Send = std::function<int(std::string_view)>;

    // send is notifyServiceManager in the daemon, a recorder in tests.
    explicit ServiceStatus(Send send = notifyServiceManager) : send_(std::move(send)) {}

    // Sends "READY=1" with the first status line. Returns the send's result;
    // when it is -1 (nobody asked) every later call does nothing.
    int ready(std::size_t peers, std::size_t clients, Clock::time_point now);

    // True when a service manager listens and the counts were last looked
    // at a second or more ago: reading them takes the tables' locks, which
    // the idle loop should not do a thousand times a second.
    bool due(Clock::time_point now) const {
        return active_ && now - checked_at_ >= std::chrono::seconds(1);
    }

    // Sends a status line when the counts differ from the last one sent and
    // a second has passed since then. Returns true when it sent one.
    bool update(std::size_t peers, std::size_t clients, Clock::time_point now);

    // False when no service manager asked for notifications.
    bool active() const { return active_; }

  private:
    Send send_;
    bool active_ = false;
    std::size_t peers_ = 0;
    std::size_t clients_ = 0;
    Clock::time_point sent_at_{};
    Clock::time_point checked_at_{};
};

}  // namespace lumora
