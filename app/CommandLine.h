// The command line: "Vb:c:fhp:qs:v". Options take effect in the order given,
// so -f may come before or after -v.
#pragma once

#include <optional>
#include <string>

#include "core/Logger.h"
#include "core/Runtime.h"

namespace lumora {

struct Options {
    std::string config_path = "/etc/vxobrd.conf";
    std::string pid_path = "/var/run/vxbrd.pid";
    bool daemonize = true;
    // Server mode from -s (family 0 when not given); a "server" line in the
    // configuration file takes precedence.
    SendAll send_all;
};

struct CommandLine {
    Options options;
    // Set when the command line itself ends the process (-V, -h, errors).
    std::optional<int> exit_status;
};

// Parses argv with getopt, moving logger's stream and level as -f, -v and -q
// ask. Everything it prints goes straight to stdout/stderr, never through
// the logger. Expects getopt's state to be fresh (optind 1).
CommandLine parseCommandLine(int argc, char** argv, Logger& logger);

// The usage text for program (argv[0]) on stderr.
void printUsage(const char* program);

}  // namespace lumora
