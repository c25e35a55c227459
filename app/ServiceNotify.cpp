#include "app/ServiceNotify.h"

namespace lumora {

std::string statusLine(std::size_t peers, std::size_t clients) {
    return "STATUS=peers: " + std::to_string(peers) + ", clients: " + std::to_string(clients);
}

int ServiceStatus::ready(std::size_t peers, std::size_t clients, Clock::time_point now) {
    const int result = send_("READY=1\n" + statusLine(peers, clients));
    active_ = result != -1;
    peers_ = peers;
    clients_ = clients;
    sent_at_ = now;
    checked_at_ = now;
    return result;
}

bool ServiceStatus::update(std::size_t peers, std::size_t clients, Clock::time_point now) {
    if (!active_) return false;
    checked_at_ = now;
    if (peers == peers_ && clients == clients_) return false;
    if (now - sent_at_ < std::chrono::seconds(1)) return false;
    // A failed send is not retried sooner: the manager may be restarting.
    send_(statusLine(peers, clients));
    peers_ = peers;
    clients_ = clients;
    sent_at_ = now;
    return true;
}

}  // namespace lumora
