// Option parsing in process: what each option does to the logger and the
// options, and the exact texts and statuses of the ways it ends the process.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "app/CommandLine.h"
#include "app/Version.h"
#include "app_support.h"

namespace lumora {
namespace {

using test::CapturedOutput;

const char* const kUsage =
    "usage: vxbrd [options]\n\noptions:\n"
    "\t-V        print version info and exit\n"
    "\t-b addr   bind the GRE endpoint to addr (ipv4)\n"
    "\t-c conf   configuration file (default: /etc/vxobrd.conf)\n"
    "\t-f        run in foreground mode (do not deamonize)\n"
    "\t-h        print usage summary and exit\n"
    "\t-p path   save PID in path\n"
    "\t-q        decrease verbosity (repeat to decrease further)\n"
    "\t-s        specify the GRE server to send ALL packets to\n"
    "\t-v        increase verbosity (repeat to increase further)\n\n";

struct ParseResult {
    CommandLine result;
    std::string out;
    std::string err;
};

// Runs the parser on "vxbrd" plus args with a fresh getopt state.
ParseResult parse(Logger& logger, std::initializer_list<const char*> args) {
    std::vector<std::string> words{"vxbrd"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    optind = 0;  // glibc: start a new scan
    ParseResult run;
    CapturedOutput out(1);
    CapturedOutput err(2);
    run.result = parseCommandLine(static_cast<int>(words.size()), argv.data(), logger);
    run.err = err.text();
    run.out = out.text();
    return run;
}

TEST(Version, Text) { EXPECT_EQ(versionString(), "1.35 [2025-09-05 15:00:31] [ ()]"); }

TEST(CommandLine, Defaults) {
    Logger logger;
    const ParseResult run = parse(logger, {});
    EXPECT_FALSE(run.result.exit_status);
    EXPECT_EQ(run.result.options.config_path, "/etc/vxobrd.conf");
    EXPECT_EQ(run.result.options.pid_path, "/var/run/vxbrd.pid");
    EXPECT_TRUE(run.result.options.daemonize);
    EXPECT_EQ(run.result.options.send_all.family, 0);
    EXPECT_EQ(logger.stream, nullptr);
    EXPECT_EQ(logger.level, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
}

TEST(CommandLine, ForegroundPathsAndVerbosityInOrder) {
    Logger logger;
    const ParseResult run =
        parse(logger, {"-v", "-c", "/tmp/a.conf", "-f", "-p/tmp/x.pid", "-vq", "-v"});
    EXPECT_FALSE(run.result.exit_status);
    EXPECT_EQ(run.result.options.config_path, "/tmp/a.conf");
    EXPECT_EQ(run.result.options.pid_path, "/tmp/x.pid");
    EXPECT_FALSE(run.result.options.daemonize);
    EXPECT_EQ(logger.stream, stderr);
    EXPECT_EQ(logger.level, 3);
}

TEST(CommandLine, QuietTwice) {
    Logger logger;
    EXPECT_FALSE(parse(logger, {"-q", "-q"}).result.exit_status);
    EXPECT_EQ(logger.level, 0);
}

TEST(CommandLine, Version) {
    Logger logger;
    const ParseResult run = parse(logger, {"-V", "-x"});
    EXPECT_EQ(run.result.exit_status, 0);
    EXPECT_EQ(run.out, "vxbrd 1.35 [2025-09-05 15:00:31] [ ()]\n");
    EXPECT_EQ(run.err, "");
}

TEST(CommandLine, Help) {
    Logger logger;
    const ParseResult run = parse(logger, {"-h"});
    EXPECT_EQ(run.result.exit_status, 0);
    EXPECT_EQ(run.err, kUsage);
    EXPECT_EQ(run.out, "");
}

TEST(CommandLine, BindIsRefused) {
    Logger logger;
    const ParseResult run = parse(logger, {"-b", "192.0.2.1"});
    EXPECT_EQ(run.result.exit_status, 1);
    EXPECT_EQ(run.err, kUsage);
}

TEST(CommandLine, UnknownOption) {
    Logger logger;
    const ParseResult run = parse(logger, {"-f", "-x"});
    EXPECT_EQ(run.result.exit_status, 1);
    EXPECT_EQ(run.err, std::string("vxbrd: invalid option -- 'x'\n") + kUsage);
}

TEST(CommandLine, MissingArgument) {
    Logger logger;
    const ParseResult run = parse(logger, {"-p"});
    EXPECT_EQ(run.result.exit_status, 1);
    EXPECT_EQ(run.err, std::string("vxbrd: option requires an argument -- 'p'\n") + kUsage);
}

TEST(CommandLine, LeftoverOperand) {
    Logger logger;
    const ParseResult run = parse(logger, {"-f", "extra"});
    EXPECT_EQ(run.result.exit_status, 1);
    EXPECT_EQ(run.err, kUsage);
}

TEST(CommandLine, ServerWithoutArgument) {
    Logger logger;
    const ParseResult run = parse(logger, {"-f", "-s"});
    EXPECT_EQ(run.result.exit_status, 1);
    EXPECT_EQ(run.err, "No Server IP address specified with -s flad");
    EXPECT_EQ(run.out, "");
}

TEST(CommandLine, ServerIPv4) {
    Logger logger;
    const ParseResult run = parse(logger, {"-s", "192.0.2.9"});
    EXPECT_FALSE(run.result.exit_status);
    EXPECT_EQ(run.out, "IP Addr: 192.0.2.9\n");
    EXPECT_EQ(run.err, "");
    const SendAll& send_all = run.result.options.send_all;
    EXPECT_EQ(send_all.family, 1);
    in_addr expected{};
    inet_pton(AF_INET, "192.0.2.9", &expected);
    EXPECT_EQ(send_all.ipv4.s_addr, expected.s_addr);
}

TEST(CommandLine, ServerIPv6) {
    Logger logger;
    const ParseResult run = parse(logger, {"-s", "2001:db8::9"});
    EXPECT_FALSE(run.result.exit_status);
    EXPECT_EQ(run.out, "IP Addr: 2001:db8::9\n");
    const SendAll& send_all = run.result.options.send_all;
    EXPECT_EQ(send_all.family, 2);
    in6_addr expected{};
    inet_pton(AF_INET6, "2001:db8::9", &expected);
    EXPECT_EQ(std::memcmp(&send_all.ipv6, &expected, sizeof expected), 0);
}

TEST(CommandLine, ServerTakesTheNextWordEvenIfItLooksLikeAnOption) {
    Logger logger;
    const ParseResult run = parse(logger, {"-s", "-f"});
    EXPECT_EQ(run.result.exit_status, 1);
    EXPECT_EQ(run.err, "-f: invalid IPv4 or IPv6 address\n");
}

TEST(CommandLine, ServerBadAddresses) {
    struct Bad {
        const char* argument;
        const char* message;
    };
    for (const Bad& bad : {Bad{"fe80::1%eth0", "fe80::1%eth0: invalid IPv6 address\n"},
                           Bad{"192.0.2.300", "192.0.2.300: invalid IPv4 or IPv6 address\n"},
                           Bad{"gateway", "gateway: invalid IPv4 or IPv6 address\n"}}) {
        Logger logger;
        const ParseResult run = parse(logger, {"-s", bad.argument});
        EXPECT_EQ(run.result.exit_status, 1) << bad.argument;
        EXPECT_EQ(run.err, bad.message);
        EXPECT_EQ(run.out, "");
    }
}

}  // namespace
}  // namespace lumora
