#include "vxbrdctl/Check.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "app/interfaces.h"

namespace lumora::ctl {

namespace {

std::string line(int number) { return "# line " + std::to_string(number) + ": "; }

std::string quoted(std::string_view text) { return "\"" + std::string(text) + "\""; }

const char* modeKeyword(unsigned mode) {
    switch (mode) {
        case Ignore:
            return "ignore";
        case Reject:
            return "reject";
        case Require:
            return "require";
        case VlanMap:
            return "vlanmap";
        case PreferKey:
            return "preferkey";
        case PreferVlan:
            return "prefervlan";
        default:
            return "unknown";
    }
}

std::string addressText(int family, const void* address) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(family, address, text, sizeof text);
    return text;
}

void tapLines(std::string& out, const Config& cfg,
              const std::map<std::string, std::string>& parents, const ConfigNotes& notes) {
    std::bitset<4096> served;
    for (size_t i = 0; i < cfg.interfaces.size(); ++i) {
        const InterfaceConfig& tap = cfg.interfaces[i];
        const ConfigNotes::Tap note = i < notes.taps.size() ? notes.taps[i] : ConfigNotes::Tap{};
        std::string text = tap.name + ' ' + std::to_string(tap.vid);
        if (tap.isolate) text += " vlan-isolate-enable";
        if (!tap.offload) text += " offload-disable";
        const auto parent = parents.find(tap.name);
        if (parent != parents.end()) text += " parent-interface " + parent->second;
        if (note.vid != std::to_string(tap.vid)) {
            out += line(note.line) + (std::atoi(note.vid.c_str()) == 1
                                          ? "VLAN 1 is carried untagged, as VLAN 0\n"
                                          : "VID " + quoted(note.vid) + " is read as " +
                                                std::to_string(tap.vid) + '\n');
        }
        // Start-up opens the first tap line of a VLAN and skips the others.
        if (served.test(tap.vid)) {
            out += line(note.line) + "skipped at start-up (duplicate vlan entry for vid " +
                   std::to_string(tap.vid) + ")\n#" + text + '\n';
            continue;
        }
        served.set(tap.vid);
        out += text + '\n';
    }
}

void forwardLines(std::string& out, const Config& cfg, const ConfigNotes& notes) {
    for (unsigned vid = 0; vid < 4096; ++vid) {
        const auto server = cfg.forward_servers.find(static_cast<uint16_t>(vid));
        if (server == cfg.forward_servers.end()) continue;
        out += "vlan" + std::to_string(vid) + " forward-to-vym " +
               addressText(AF_INET, &server->second.address) + '\n';
    }
    for (const ConfigNotes::DroppedForward& dropped : notes.dropped_forwards) {
        out += line(dropped.line) + "dropped: upstream gateways are reached over IPv4 only\n";
        out += "#vlan" + dropped.vlan + " forward-to-vym " + dropped.address + '\n';
    }
}

void keywordLines(std::string& out, const Config& cfg, const ConfigNotes& notes) {
    std::string grekey = std::string("grekey mode ") + modeKeyword(cfg.gre_key_mode);
    if (cfg.gre_key_mode == Require) {
        const std::string value = std::to_string(cfg.gre_key);
        const std::string& written = notes.gre_key_text;
        if (!written.empty() && written != value) {
            out += line(notes.gre_key_line) + "key " + quoted(written) +
                   (written.size() > 1 && written[0] == '0'
                        ? " has a leading zero and is read as octal\n"
                        : " is read as " + value + '\n');
        }
        grekey += ' ' + value;
    }
    out += grekey + '\n';
    out += "mss " + std::to_string(cfg.mss) + '\n';
    out += cfg.mtu != 0 ? "mtu " + std::to_string(cfg.mtu) + '\n'
                        : "# mtu not set: the tunnel's own limit\n";
    if (cfg.server_family == 1) {
        out += "server " + addressText(AF_INET, &cfg.server_ipv4) + '\n';
    } else if (cfg.server_family == 2) {
        out += "server " + addressText(AF_INET6, &cfg.server_ipv6) + '\n';
    } else {
        out += "# server not set\n";
    }
    out += cfg.ipchksum ? "ipchksum\n" : "# ipchksum not set\n";
    if (!cfg.offload) out += "offload-disable\n";
}

// The abort start-up would die of, turned into a verdict: the message is
// made before parsing, since the handler may only write and exit.
std::string abort_message;

extern "C" void abortHandler(int) {
    (void)!write(STDERR_FILENO, abort_message.data(), abort_message.size());
    _exit(1);
}

}  // namespace

std::string effectiveConfiguration(const std::string& path, const Config& cfg,
                                   const std::map<std::string, std::string>& parents,
                                   const ConfigNotes& notes) {
    std::string out = "# " + path + " as vxbrd reads it\n";
    tapLines(out, cfg, parents, notes);
    forwardLines(out, cfg, notes);
    keywordLines(out, cfg, notes);
    for (const ConfigNotes::Words& ignored : notes.ignored_words) {
        std::string words;
        for (const std::string& word : ignored.words) words += ' ' + quoted(word);
        out += line(ignored.line) + "words not read:" + words + '\n';
    }
    for (const int continued : notes.continued_lines) {
        out += line(continued) + "the rest of line " + std::to_string(continued - 1) +
               " (read in pieces of 255 bytes)\n";
    }
    return out;
}

int checkConfiguration(const std::string& path, bool quiet) {
    IPv4AddressMap ipv4;
    IPv6AddressMap ipv6;
    try {
        discoverInterfaces(system_interfaces, ipv4, ipv6);
    } catch (int error) {
        std::fprintf(stderr, "vxbrdctl: getifaddrs(): %s\n", std::strerror(error));
        return 1;
    }
    abort_message = "vxbrdctl: vxbrd would abort reading " + path + "\n";
    std::signal(SIGABRT, abortHandler);
    ConfigNotes notes;
    try {
        parse_config(config, path.c_str(), &notes);
    } catch (...) {
        // The parser has said what is wrong; this is start-up's last word.
        std::fputs("vxbrdctl: can't parse config file\n", stderr);
        return 1;
    }
    std::signal(SIGABRT, SIG_DFL);
    if (quiet) return 0;
    const std::string out = effectiveConfiguration(path, config, parent_interfaces, notes);
    if (std::fwrite(out.data(), 1, out.size(), stdout) != out.size() || std::fflush(stdout) != 0) {
        std::perror("vxbrdctl: standard output");
        return 1;
    }
    return 0;
}

}  // namespace lumora::ctl
