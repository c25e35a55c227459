#include "app/CommandLine.h"

#include <unistd.h>

#include <cstdio>

#include "app/ConfigParser.h"
#include "app/Version.h"

namespace lumora {

namespace {

// The leading ':' keeps getopt quiet and makes it report a missing argument
// as ':' rather than '?'. That is what lets a bare "-s" end with our own
// one-line complaint alone; every other error gets the diagnostic below in
// the wording of the C library's getopt, then the usage text.
constexpr const char* kOptionString = ":Vb:c:fhp:qs:v";

int usageError(const char* program) {
    printUsage(program);
    return 1;
}

}  // namespace

void printUsage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s [options]\n\noptions:\n"
                 "\t-V        print version info and exit\n"
                 "\t-b addr   bind the GRE endpoint to addr (ipv4)\n"
                 "\t-c conf   configuration file (default: /etc/vxobrd.conf)\n"
                 "\t-f        run in foreground mode (do not deamonize)\n"
                 "\t-h        print usage summary and exit\n"
                 "\t-p path   save PID in path\n"
                 "\t-q        decrease verbosity (repeat to decrease further)\n"
                 "\t-s        specify the GRE server to send ALL packets to\n"
                 "\t-v        increase verbosity (repeat to increase further)\n\n",
                 program);
}

CommandLine parseCommandLine(int argc, char** argv, Logger& logger) {
    CommandLine result;
    Options& options = result.options;
    const char* program = argc > 0 && argv[0] != nullptr ? argv[0] : "vxbrd";

    int option;
    while ((option = getopt(argc, argv, kOptionString)) != -1) {
        switch (option) {
            case 'V':
                std::printf("vxbrd %s\n", versionString().c_str());
                result.exit_status = 0;
                return result;
            case 'b':
                // Listed in the usage text but never implemented: refusing
                // it is safer than silently binding everywhere.
                result.exit_status = usageError(program);
                return result;
            case 'c':
                options.config_path = optarg;
                break;
            case 'f':
                logger.stream = stderr;
                options.daemonize = false;
                break;
            case 'h':
                printUsage(program);
                result.exit_status = 0;
                return result;
            case 'p':
                options.pid_path = optarg;
                break;
            case 'q':
                logger.lower();
                break;
            case 's': {
                SendAll& target = options.send_all;
                if (!parseServerAddress(optarg, target.ipv4, target.ipv6, target.family)) {
                    result.exit_status = 1;
                    return result;
                }
                std::printf("IP Addr: %s\n", optarg);
                // The daemon never exits normally: without this the line
                // would sit in a pipe's buffer for ever.
                std::fflush(stdout);
                break;
            }
            case 'v':
                logger.raise();
                break;
            case ':':
                if (optopt == 's') {
                    // No newline: this is the text operators' wrappers expect.
                    std::fputs("No Server IP address specified with -s flad", stderr);
                    result.exit_status = 1;
                    return result;
                }
                std::fprintf(stderr, "%s: option requires an argument -- '%c'\n", program, optopt);
                result.exit_status = usageError(program);
                return result;
            default:
                std::fprintf(stderr, "%s: invalid option -- '%c'\n", program, optopt);
                result.exit_status = usageError(program);
                return result;
        }
    }
    if (optind < argc) result.exit_status = usageError(program);
    return result;
}

}  // namespace lumora
