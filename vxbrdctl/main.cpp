// vxbrdctl: asks a running vxbrd for its peers and clients over the control
// socket and prints them as tables, JSON or metrics; shows the daemon's
// status; checks a configuration file as the daemon would read it.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "vxbrdctl/AtomicFile.h"
#include "vxbrdctl/Check.h"
#include "vxbrdctl/ControlClient.h"
#include "vxbrdctl/Output.h"
#include "vxbrdctl/Report.h"
#include "vxbrdctl/Status.h"

namespace {

using namespace lumora::ctl;

void usage(FILE* stream) {
    std::fputs(
        "usage: vxbrdctl [-j] [-s socket] [-t seconds] peers | clients\n"
        "       vxbrdctl [-s socket] [-t seconds] metrics [-C] [-o file]\n"
        "       vxbrdctl [-s socket] [-t seconds] status\n"
        "       vxbrdctl check [-q] [-c file]\n"
        "       vxbrdctl -V | -h\n"
        "\n"
        "\t-j          print JSON instead of a table (peers, clients)\n"
        "\t-s socket   control socket (default: /var/run/vxbrd.sock)\n"
        "\t-t seconds  give up after this long (default: 5)\n"
        "\t-C          metrics: a series per client as well\n"
        "\t-o file     metrics: replace file atomically instead of printing\n"
        "\t-c file     check: configuration file (default: " VXBRDCTL_DEFAULT_CONFIG
        ")\n"
        "\t-q          check: diagnostics only, not the configuration\n"
        "\t-V          print the version and exit\n"
        "\t-h          print this summary and exit\n",
        stream);
}

struct Options {
    bool json = false;
    std::string socket = kDefaultSocketPath;
    int timeout = 5;
    bool per_client = false;
    std::string output;  // metrics -o
    std::string config = VXBRDCTL_DEFAULT_CONFIG;
    bool quiet = false;
    std::string given;  // the option letters seen, in order
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

int emit(const Options& options, const std::string& out) {
    if (!options.output.empty()) {
        const std::string failure = writeFileAtomically(options.output, out);
        if (failure.empty()) return kOk;
        std::fprintf(stderr, "vxbrdctl: %s\n", failure.c_str());
        return kFailed;
    }
    if (std::fwrite(out.data(), 1, out.size(), stdout) != out.size() || std::fflush(stdout) != 0) {
        std::perror("vxbrdctl: standard output");
        return kFailed;
    }
    return kOk;
}

// A daemon that does not answer is a fact to export (vxbrd_up 0), not a
// failure of the exporter: the exposition is written either way.
int exportMetrics(const Options& options) {
    const MetricsOptions format{options.per_client, VXBRD_VERSION};
    std::string out;
    try {
        const auto peers = ask(options, "peers", parsePeers);
        const auto clients = ask(options, "clients", parseClients);
        out = metrics(peers, clients, format);
    } catch (const ControlError& error) {
        out = metricsDown(error.message, format);
    }
    return emit(options, out);
}

int run(const Options& options, std::string_view command) {
    if (command == "check") return checkConfiguration(options.config, options.quiet);
    if (command == "status") return printStatus(options.socket, options.timeout);
    if (command == "metrics") return exportMetrics(options);
    std::string out;
    try {
        if (command == "peers") {
            const auto peers = ask(options, "peers", parsePeers);
            out = options.json ? peersJson(peers) : peersTable(peers);
        } else {
            const auto clients = ask(options, "clients", parseClients);
            out = options.json ? clientsJson(clients) : clientsTable(clients);
        }
    } catch (const ControlError& error) {
        std::fprintf(stderr, "vxbrdctl: %s\n", error.message.c_str());
        return error.status;
    }
    return emit(options, out);
}

// Takes one option; returns an exit status when the command line ends here.
int take(Options& options, char option, const char* argument) {
    options.given += option;
    switch (option) {
        case 'h':
            usage(stdout);
            return kOk;
        case 'V':
            std::printf("vxbrdctl %s\n", VXBRD_VERSION);
            return kOk;
        case 'j':
            options.json = true;
            break;
        case 's':
            options.socket = argument;
            break;
        case 'C':
            options.per_client = true;
            break;
        case 'o':
            options.output = argument;
            break;
        case 'c':
            options.config = argument;
            break;
        case 'q':
            options.quiet = true;
            break;
        case 't': {
            char* end = nullptr;
            const long seconds = std::strtol(argument, &end, 10);
            if (*argument == '\0' || *end != '\0' || seconds < 1 || seconds > 3600) {
                std::fprintf(stderr, "vxbrdctl: -t wants seconds from 1 to 3600, not \"%s\"\n",
                             argument);
                return kUsage;
            }
            options.timeout = static_cast<int>(seconds);
            break;
        }
    }
    return -1;
}

constexpr const char* kOptions = "hjs:t:VCo:c:q";

int badOption(char option, bool missing_argument) {
    std::fprintf(stderr,
                 missing_argument ? "vxbrdctl: option requires an argument -- '%c'\n"
                                  : "vxbrdctl: invalid option -- '%c'\n",
                 option);
    usage(stderr);
    return kUsage;
}

// The command's own options after its name: getopt stops at the command on
// some systems and not on others, so what it left is read here.
int takeTrailing(Options& options, int argc, char** argv, int first, int& leftover) {
    for (int i = first; i < argc; ++i) {
        const char* word = argv[i];
        if (word[0] != '-' || word[1] == '\0') {
            ++leftover;
            continue;
        }
        for (const char* at = word + 1; *at != '\0'; ++at) {
            const char* spec = std::strchr(kOptions, *at);
            if (spec == nullptr || *at == ':') return badOption(*at, false);
            if (spec[1] != ':') {
                if (const int status = take(options, *at, nullptr); status >= 0) return status;
                continue;
            }
            const char* argument = at[1] != '\0' ? at + 1 : (i + 1 < argc ? argv[++i] : nullptr);
            if (argument == nullptr) return badOption(*at, true);
            if (const int status = take(options, *at, argument); status >= 0) return status;
            break;
        }
    }
    return -1;
}

// Which command each option belongs to; -s and -t to all that ask the daemon.
int checkApplies(const Options& options, std::string_view command) {
    static const struct {
        char option;
        const char* commands;
        const char* text;
    } kApplies[] = {
        {'j', "peers clients", "peers and clients"},
        {'s', "peers clients metrics status", "peers, clients, metrics and status"},
        {'t', "peers clients metrics status", "peers, clients, metrics and status"},
        {'C', "metrics", "metrics"},
        {'o', "metrics", "metrics"},
        {'c', "check", "check"},
        {'q', "check", "check"},
    };
    for (const char option : options.given) {
        for (const auto& rule : kApplies) {
            if (rule.option != option) continue;
            const std::string_view commands = rule.commands;
            bool applies = false;
            for (size_t at = 0; at != std::string_view::npos;) {
                const size_t end = commands.find(' ', at);
                applies |= commands.substr(at, end - at) == command;
                at = end == std::string_view::npos ? end : end + 1;
            }
            if (applies) continue;
            std::fprintf(stderr, "vxbrdctl: -%c applies to %s, not %.*s\n", option, rule.text,
                         static_cast<int>(command.size()), command.data());
            return kUsage;
        }
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    int option;
    // Our own diagnostics, so that they carry the same prefix as the others.
    while ((option = getopt(argc, argv, ":hjs:t:VCo:c:q")) != -1) {
        if (option == ':') return badOption(static_cast<char>(optopt), true);
        if (option == '?') return badOption(static_cast<char>(optopt), false);
        if (const int status = take(options, static_cast<char>(option), optarg); status >= 0)
            return status;
    }
    if (optind >= argc) {
        usage(stderr);
        return kUsage;
    }
    const std::string_view command = argv[optind];
    int leftover = 0;
    if (const int status = takeTrailing(options, argc, argv, optind + 1, leftover); status >= 0)
        return status;
    if (leftover != 0) {
        usage(stderr);
        return kUsage;
    }
    if (command != "peers" && command != "clients" && command != "metrics" && command != "status" &&
        command != "check") {
        std::fprintf(stderr, "vxbrdctl: unknown command \"%s\"\n", argv[optind]);
        usage(stderr);
        return kUsage;
    }
    if (const int status = checkApplies(options, command); status >= 0) return status;
    return run(options, command);
}
