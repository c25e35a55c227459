// Start-up of the daemon, in the order the pieces depend on each other:
// options, the host's interfaces, the configuration (which checks names
// against those interfaces), the banner, daemon mode while the process still
// has one thread, then the endpoints and their threads.
#include "app/Startup.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <system_error>
#include <thread>
#include <vector>

#include "app/CommandLine.h"
#include "app/ConfigParser.h"
#include "app/Daemon.h"
#include "app/ServiceNotify.h"
#include "app/StartupSteps.h"
#include "app/Version.h"
#include "app/idle_platform.h"
#include "app/interfaces.h"
#include "app/privileges.h"
#include "control/ControlSocket.h"
#include "core/Config.h"
#include "core/Logger.h"
#include "core/Runtime.h"
#include "tunnel/Context.h"
#include "tunnel/Egress.h"
#include "tunnel/Ingress.h"
#include "vif/IP"
#include "vif/TAP"

namespace lumora {

namespace {

// The threads main starts. They live in main's frame, which never returns,
// and are never joined.
struct Threads {
    std::thread control;
    std::vector<std::thread> gre;
    std::vector<std::thread> taps = std::vector<std::thread>(kVlanCount);
};

// Privileges are given up thread by thread (see privileges.h); a failure
// is told and the daemon runs on, as it did before it gave them up.
void giveUpPrivileges(Logger& logger) {
    if (const int error = dropPrivileges(); error != 0)
        VXBRD_LOG(logger, Warning, "cannot drop privileges: %s", std::strerror(error));
}

// A thread that cannot be started ends the daemon: it would run without a
// part of its work. Each thread's endpoint is open before the thread starts,
// so the thread gives up its privileges before anything else.
template <typename... Args>
std::thread startThread(Logger& logger, Args&&... args) {
    try {
        return std::thread(
            [&logger](auto&&... call) {
                giveUpPrivileges(logger);
                std::invoke(std::forward<decltype(call)>(call)...);
            },
            std::forward<Args>(args)...);
    } catch (const std::system_error& error) {
        VXBRD_LOG(logger, Error, "Critical error - %s (%d)", error.what(), error.code().value());
        std::exit(-1);
    }
}

void discoverHostInterfaces(Logger& logger) {
    try {
        discoverInterfaces(system_interfaces, runtime.ipv4_addresses, runtime.ipv6_addresses);
    } catch (int error) {
        VXBRD_LOG(logger, Error, "getifaddrs(): %s", std::strerror(error));
        std::exit(1);
    }
}

void loadConfiguration(Logger& logger, const std::string& path) {
    try {
        parse_config(config, path.c_str());
    } catch (...) {
        // The parser has already said what is wrong, on stderr.
        VXBRD_LOG(logger, Error, "can't parse config file");
        std::exit(1);
    }
}

// A "server" line in the file wins over -s.
void settleSendAll(const Options& options) {
    SendAll& send_all = tunnelContext().send_all;
    send_all = options.send_all;
    if (config.server_family != 0) {
        send_all.ipv4 = config.server_ipv4;
        send_all.family = config.server_family;
        send_all.ipv6 = config.server_ipv6;
    }
    send_all.mtu = config.mtu;
}

void logTunnelPolicy(Logger& logger) {
    const SendAll& send_all = tunnelContext().send_all;
    if (send_all.family == 1) {
        VXBRD_LOG(logger, Error, "Sending all traffic to %s", addressText(send_all.ipv4).c_str());
    } else if (send_all.family == 2) {
        VXBRD_LOG(logger, Error, "Sending all traffic to %s", addressText(send_all.ipv6).c_str());
    }
    if (config.gre_key_mode != Ignore) {
        VXBRD_LOG(logger, Notice, "GRE Key Mode: %s", greKeyModeKeyword(config.gre_key_mode));
        if (config.gre_key_mode == Require) {
            VXBRD_LOG(logger, Notice, "GRE required key: %lu",
                      static_cast<unsigned long>(config.gre_key));
        }
    }
}

// The first endpoint of each family also carries server-mode traffic.
void startGreEndpoint(Logger& logger, Threads& threads, vif::IP* endpoint) {
    TunnelContext& context = tunnelContext();
    vif::GreSocket* none = nullptr;
    auto& server_socket =
        endpoint->family() == AF_INET6 ? context.server_socket_ipv6 : context.server_socket_ipv4;
    server_socket.compare_exchange_strong(none, endpoint, std::memory_order_release);
    threads.gre.push_back(startThread(logger, runGreIngress, &logger, endpoint));
}

// One GRE endpoint per local address, IPv4 interfaces first, each in name
// order. Endpoints live as long as the process.
void openGreEndpoints(Logger& logger, Threads& threads) {
    for (const auto& [name, addresses] : runtime.ipv4_addresses) {
        if (skipsVlanInterface(name, addresses.size())) {
            VXBRD_LOG(logger, Notice,
                      "Skipping interface: %s (%s). VLAN interface with > 2 ipaddrs (%d)",
                      name.c_str(), addressText(addresses.front()).c_str(),
                      static_cast<int>(addresses.size()));
            continue;
        }
        for (const in_addr& address : addresses) {
            VXBRD_LOG(logger, Notice, "Listening on interface: %s (%s)", name.c_str(),
                      addressText(address).c_str());
            startGreEndpoint(logger, threads, new vif::IP(&logger, address, name));
        }
    }
    for (const auto& [name, addresses] : runtime.ipv6_addresses) {
        for (const in6_addr& address : addresses) {
            VXBRD_LOG(logger, Notice, "Listening on interface: %s (%s)", name.c_str(),
                      addressText(address).c_str());
            startGreEndpoint(logger, threads, new vif::IP(&logger, address, name));
        }
    }
}

// The "any" endpoint on the wildcard address reaches the upstream gateways;
// it has no thread of its own.
void openForwardingEndpoint(Logger& logger) {
    if (config.forward_servers.empty()) return;
    VXBRD_LOG(logger, Notice, "Listening for forwarding on all IPv4 addresses");
    in_addr any{};
    any.s_addr = htonl(INADDR_ANY);
    tunnelContext().forward_socket.store(new vif::IP(&logger, any, "any"),
                                         std::memory_order_release);
}

// One tap endpoint per tap line, in file order; the first line for a VLAN wins.
void openTapEndpoints(Logger& logger, Threads& threads) {
    TunnelContext& context = tunnelContext();
    for (const InterfaceConfig& tap : config.interfaces) {
        if (context.taps_by_vid[tap.vid].load(std::memory_order_relaxed) != nullptr) {
            VXBRD_LOG(logger, Warning, "duplicate vlan entry for vid %d", tap.vid);
            continue;
        }
        VXBRD_LOG(logger, Notice, "interface: %s, vlan: %d, vlan-isolation: %s", tap.name.c_str(),
                  tap.vid, tap.isolate ? "true" : "false");
        const auto parent = parent_interfaces.find(tap.name);
        if (parent != parent_interfaces.end()) {
            // The parser accepted the parent only if discovery had found it.
            VXBRD_LOG(logger, Notice, "interface: %s parent interface: %s (%s)", tap.name.c_str(),
                      parent->second.c_str(),
                      macText(system_interfaces.at(parent->second)).c_str());
        }
        vif::TAP* endpoint = nullptr;
        try {
            // The name lives in the configuration, which outlives the endpoint.
            endpoint = new vif::TAP(&logger, tap.name.c_str(), config.offload && tap.offload);
        } catch (int) {
            VXBRD_LOG(logger, Error, "Critical error - cannot open TAP interface. Exiting.");
            std::exit(-1);
        }
        context.taps_by_vid[tap.vid].store(endpoint, std::memory_order_release);
        threads.taps[tap.vid] = startThread(logger, runTapEgress, &logger, endpoint, tap.vid);
        runtime.isolation_by_vid[tap.vid] = tap.isolate;
    }
}

void logForwarding(Logger& logger) {
    for (const auto& [vid, server] : config.forward_servers) {
        VXBRD_LOG(logger, Notice, "VLAN %d traffic will be forwarded to server %s", vid,
                  addressText(server.address).c_str());
    }
}

}  // namespace

int daemonMain(int argc, char** argv) {
    // Syslog mode at Warning until the options say otherwise. It lives in
    // this frame, which no longer returns once threads exist, so every
    // thread may keep a plain pointer to it.
    Logger logger;

    const CommandLine command_line = parseCommandLine(argc, argv, logger);
    if (command_line.exit_status) return *command_line.exit_status;
    const Options& options = command_line.options;

    discoverHostInterfaces(logger);
    loadConfiguration(logger, options.config_path);
    VXBRD_LOG(logger, Error, "vxbrd %s", versionString().c_str());
    settleSendAll(options);

    // Before any thread exists, so that every thread belongs to the daemon.
    if (options.daemonize) daemonize(logger, options.pid_path.c_str());
    // A reader of standard output that has gone (vxbrd -f | logger, a start
    // over ssh) must not end the daemon at the control thread's next line.
    std::signal(SIGPIPE, SIG_IGN);

    tunnelContext().logger = &logger;
    logTunnelPolicy(logger);
    Threads threads;
    threads.control = startThread(logger, controlSocketServer, std::string(kControlSocketPath),
                                  std::ref(Tables::process()));
    try {
        openGreEndpoints(logger, threads);
        openForwardingEndpoint(logger);
    } catch (int error) {
        VXBRD_LOG(logger, Error, "exception caught: %d", error);
        std::exit(1);
    }
    openTapEndpoints(logger, threads);
    logForwarding(logger);
    // Every endpoint is open: main needs no privilege from here on either.
    giveUpPrivileges(logger);

    // The threads do the work; main only has to stay alive, out of their
    // way (the idle class; refused, it sleeps as before), and tell a service
    // manager that asked (NOTIFY_SOCKET) that every endpoint is open and
    // every thread runs, then how many peers and clients there are.
    platform::moveThisThreadToIdleClass();
    Tables& tables = Tables::process();
    ServiceStatus status;
    const int notified =
        status.ready(tables.peerCount(), tables.clientCount(), ServiceStatus::Clock::now());
    if (notified > 0) VXBRD_LOG(logger, Warning, "NOTIFY_SOCKET: %s", std::strerror(notified));
    for (;;) {
        usleep(1000);
        const auto now = ServiceStatus::Clock::now();
        if (status.due(now)) status.update(tables.peerCount(), tables.clientCount(), now);
    }
}

}  // namespace lumora
