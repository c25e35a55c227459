// The control socket's serving loop (ControlServer::pass) as its clients meet
// it: up to four clients on a real UNIX socket send arbitrary requests,
// several to a write or one cut over several reads, some before their
// connection is accepted, several clients in one pass, and end their
// connections in order (shutting down their sending side). After every pass
// poll's count, each client's received bytes and the server's connection
// list must be exactly what the protocol promises for what the server has
// read by then: one read of at most 80 bytes per readable client per pass,
// answered as control_tables.h works out; an ended connection closed, and
// nothing sent to a client that asked nothing. Anything else is a finding.
//
// Input: steps of one byte, a request's bytes following its step.
//   bits 0-1  the client (0-3)
//   bits 2-4  0-3: the client writes a request (connecting first when it
//             has no connection): the next byte gives its length less one,
//             the bytes follow (cut at the input's end);
//             4, 7: one pass; 5: the client shuts down its sending side;
//             6: the client connects (when it has no connection)
// After the last step every client still connected ends its connection,
// and the server must be left with none.
//
// libFuzzer's per-input time-out is a periodic SIGALRM, which would end a
// poll or a send early (EINTR) and so fail a pass for no fault of the
// server's: it is held back for the length of each pass and each write,
// both bounded, and delivered after.
//
// Left to the end-to-end tests: a client that never reads (each reply waits
// out the send time-out) and one that closes outright (the server keeps
// reporting its hang-up).
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "control/ControlSocket.h"
#include "tests/fuzz/control_tables.h"

namespace {

using namespace lumora;

constexpr size_t kMaxInput = 8192;
constexpr size_t kReadSize = 80;  // the server's read per request
constexpr size_t kClients = 4;
constexpr int kMaxClosingPasses = 1000;

std::string socket_directory;
std::string socket_path;

void removeSocket() {
    unlink(socket_path.c_str());
    rmdir(socket_directory.c_str());
}

// Holds SIGALRM back while it lives.
class AlarmHeld {
  public:
    AlarmHeld() {
        sigset_t alarm;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        if (pthread_sigmask(SIG_BLOCK, &alarm, &before) != 0) std::abort();
    }
    ~AlarmHeld() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    AlarmHeld(const AlarmHeld&) = delete;
    AlarmHeld& operator=(const AlarmHeld&) = delete;

  private:
    sigset_t before;
};

struct Client {
    int fd = -1;
    bool shut = false;   // its sending side is shut down
    std::string unread;  // written, not yet read by the server
    std::string owed;    // replies the server has sent since the last check
    bool ended = false;  // the server has closed the connection
};

struct Harness {
    Harness() {
        // The server's lines go to standard output; the fuzzer's own to
        // standard error.
        if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
        char pattern[] = "/tmp/vxbrd-control-fuzz-XXXXXX";
        if (mkdtemp(pattern) == nullptr) std::abort();
        socket_directory = pattern;
        socket_path = socket_directory + "/vxbrd.sock";
        std::atexit(removeSocket);
        Descriptor listener = openControlListener(socket_path);
        if (!listener.valid()) std::abort();
        server = new ControlServer(std::move(listener), tables.tables);
    }

    fuzz::ControlTables tables;
    ControlServer* server = nullptr;
};

class Session {
  public:
    explicit Session(Harness& harness) : h(harness) {}

    void connectClient(size_t i) {
        Client& c = clients[i];
        if (c.fd >= 0) return;
        c = Client{};
        c.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (c.fd < 0) std::abort();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socket_path.c_str(), sizeof address.sun_path - 1);
        if (connect(c.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            std::abort();
        connecting.push_back(i);
    }

    void write(size_t i, const uint8_t* bytes, size_t length) {
        connectClient(i);
        Client& c = clients[i];
        if (c.shut || length == 0) return;
        const AlarmHeld held;
        if (send(c.fd, bytes, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length)) std::abort();
        c.unread.append(reinterpret_cast<const char*>(bytes), length);
    }

    void shut(size_t i) {
        Client& c = clients[i];
        if (c.fd < 0 || c.shut) return;
        if (shutdown(c.fd, SHUT_WR) != 0) std::abort();
        c.shut = true;
    }

    // One pass, then every client's bytes checked against the model.
    void pass() {
        int ready = connecting.empty() ? 0 : 1;
        std::vector<size_t> still;
        for (const size_t i : served) {
            Client& c = clients[i];
            if (!c.unread.empty()) {
                ++ready;
                const std::string request = c.unread.substr(0, kReadSize);
                c.unread.erase(0, request.size());
                c.owed += h.tables.expectedReply(request);
            } else if (c.shut) {
                ++ready;
                c.ended = true;
                continue;
            }
            still.push_back(i);
        }
        // New connections are accepted first, but served from the next pass.
        still.insert(still.end(), connecting.begin(), connecting.end());
        connecting.clear();
        served = still;

        int got;
        {
            const AlarmHeld held;
            got = h.server->pass(0);
        }
        if (got != ready) std::abort();
        if (h.server->clients().size() != served.size()) std::abort();
        for (Client& c : clients) check(c);
    }

    bool open() const {
        for (const Client& c : clients)
            if (c.fd >= 0) return true;
        return false;
    }

  private:
    // Replies are sent whole before the pass returns: what is owed must be
    // there, and nothing more.
    static void check(Client& c) {
        if (c.fd < 0) return;
        std::string got;
        char chunk[4096];
        bool end = false;
        for (;;) {
            const ssize_t n = recv(c.fd, chunk, sizeof chunk, MSG_DONTWAIT);
            if (n > 0) {
                got.append(chunk, static_cast<size_t>(n));
                continue;
            }
            if (n == 0) {
                end = true;
            } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
                std::abort();
            }
            break;
        }
        if (got != c.owed || end != c.ended) std::abort();
        c.owed.clear();
        if (c.ended) {
            close(c.fd);
            c = Client{};
        }
    }

    Harness& h;
    std::array<Client, kClients> clients{};
    std::vector<size_t> connecting;  // connected, not yet accepted
    std::vector<size_t> served;      // accepted, in order of acceptance
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Harness* harness = new Harness;
    if (size > kMaxInput) return 0;
    Session session(*harness);
    size_t at = 0;
    while (at < size) {
        const uint8_t step = data[at++];
        const size_t client = step & 0x03;
        const unsigned action = (step >> 2) & 0x07;
        if (action < 4) {
            if (at >= size) break;
            const size_t wanted = static_cast<size_t>(data[at++]) + 1;
            const size_t length = wanted < size - at ? wanted : size - at;
            session.write(client, data + at, length);
            at += length;
        } else if (action == 5) {
            session.shut(client);
        } else if (action == 6) {
            session.connectClient(client);
        } else {
            session.pass();
        }
    }
    for (size_t i = 0; i < kClients; ++i) session.shut(i);
    for (int passes = 0; session.open(); ++passes) {
        if (passes == kMaxClosingPasses) std::abort();
        session.pass();
    }
    if (!harness->server->clients().empty()) std::abort();
    return 0;
}
