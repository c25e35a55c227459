// vxbrdctl: asks a running vxbrd for its peers and clients over the control
// socket and prints them as tables, JSON or metrics.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "vxbrdctl/ControlClient.h"
#include "vxbrdctl/Output.h"
#include "vxbrdctl/Report.h"

namespace {

using namespace lumora::ctl;

void usage(FILE* stream) {
    std::fputs(
        "usage: vxbrdctl [-j] [-s socket] [-t seconds] peers | clients | metrics\n"
        "       vxbrdctl -V | -h\n"
        "\n"
        "\t-j          print JSON instead of a table (peers, clients)\n"
        "\t-s socket   control socket (default: /var/run/vxbrd.sock)\n"
        "\t-t seconds  give up after this long (default: 5)\n"
        "\t-V          print the version and exit\n"
        "\t-h          print this summary and exit\n",
        stream);
}

struct Options {
    bool json = false;
    std::string socket = kDefaultSocketPath;
    int timeout = 5;
};

// The daemon's reply to one word, read back. Throws ControlError.
template <typename Parse>
auto ask(const Options& options, const char* word, Parse parse) {
    const std::string reply = exchange(options.socket, word, options.timeout);
    if (isUnknownRequestReply(reply))
        throw ControlError{kFailed, std::string("vxbrd does not know the request \"") + word +
                                        "\" (is this vxbrd's control socket?)"};
    try {
        return parse(reply);
    } catch (const ReportError& error) {
        throw ControlError{kFailed,
                           std::string("unexpected reply to \"") + word + "\", " + error.what()};
    }
}

int run(const Options& options, std::string_view command) {
    std::string out;
    if (command == "peers") {
        const auto peers = ask(options, "peers", parsePeers);
        out = options.json ? peersJson(peers) : peersTable(peers);
    } else if (command == "clients") {
        const auto clients = ask(options, "clients", parseClients);
        out = options.json ? clientsJson(clients) : clientsTable(clients);
    } else {
        const auto peers = ask(options, "peers", parsePeers);
        const auto clients = ask(options, "clients", parseClients);
        out = metrics(peers, clients);
    }
    if (std::fwrite(out.data(), 1, out.size(), stdout) != out.size() || std::fflush(stdout) != 0) {
        std::perror("vxbrdctl: standard output");
        return kFailed;
    }
    return kOk;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    int option;
    // Our own diagnostics, so that they carry the same prefix as the others.
    while ((option = getopt(argc, argv, ":hjs:t:V")) != -1) {
        switch (option) {
            case 'h':
                usage(stdout);
                return kOk;
            case 'j':
                options.json = true;
                break;
            case 's':
                options.socket = optarg;
                break;
            case 't': {
                char* end = nullptr;
                const long seconds = std::strtol(optarg, &end, 10);
                if (*optarg == '\0' || *end != '\0' || seconds < 1 || seconds > 3600) {
                    std::fprintf(stderr, "vxbrdctl: -t wants seconds from 1 to 3600, not \"%s\"\n",
                                 optarg);
                    return kUsage;
                }
                options.timeout = static_cast<int>(seconds);
                break;
            }
            case 'V':
                std::printf("vxbrdctl %s\n", VXBRD_VERSION);
                return kOk;
            case ':':
                std::fprintf(stderr, "vxbrdctl: option requires an argument -- '%c'\n", optopt);
                usage(stderr);
                return kUsage;
            default:
                std::fprintf(stderr, "vxbrdctl: invalid option -- '%c'\n", optopt);
                usage(stderr);
                return kUsage;
        }
    }
    if (argc - optind != 1) {
        usage(stderr);
        return kUsage;
    }
    const std::string_view command = argv[optind];
    if (command != "peers" && command != "clients" && command != "metrics") {
        std::fprintf(stderr, "vxbrdctl: unknown command \"%s\"\n", argv[optind]);
        usage(stderr);
        return kUsage;
    }
    if (command == "metrics" && options.json) {
        std::fputs("vxbrdctl: -j applies to peers and clients, not metrics\n", stderr);
        return kUsage;
    }
    try {
        return run(options, command);
    } catch (const ControlError& error) {
        std::fprintf(stderr, "vxbrdctl: %s\n", error.message.c_str());
        return error.status;
    }
}
