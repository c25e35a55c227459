// The configuration file reader. Line-oriented and deliberately literal: the
// quirks below (pieces of long lines counted as lines, '#' splitting only
// later tokens, the messages' wording) are what existing configurations and
// the operators' scripts that read our diagnostics were written against.
#include "app/ConfigParser.h"

#include <arpa/inet.h>
#include <strings.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>

#include "core/Config.h"

namespace lumora {

namespace {

constexpr int kInvalid = 22;      // EINVAL: every fatal error but a failed open
constexpr int kMaxTokens = 8;     // tokens looked at per line; the rest is ignored
constexpr int kLineBuffer = 256;  // fgets piece: longer lines are read as several

bool matches(const char* text, const std::regex& pattern) {
    return std::regex_match(text, pattern);
}

bool knownInterface(const char* name) {
    return system_interfaces.find(name) != system_interfaces.end();
}

__attribute__((format(printf, 1, 2))) void diagnose(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
}

// Every fatal message has been printed by the time this is called.
[[noreturn]] void fail() { throw kInvalid; }

// One line (or one 255-byte piece of a longer line) at a time.
class LineParser {
  public:
    LineParser(Config& cfg, const char* path, ConfigNotes* notes)
        : cfg(cfg), path(path), notes(notes) {}

    void parse(char* line, int number);

  private:
    void tapLine();
    void forwardLine();
    void mssLine();
    void mtuLine();
    void serverLine();
    void greKeyLine();
    // Notes the tokens from first on as words the line's keyword never reads.
    void noteIgnored(int first);

    Config& cfg;
    const char* path;
    ConfigNotes* notes;
    int line = 0;
    const char* tokens[kMaxTokens] = {};
};

void LineParser::parse(char* text, int number) {
    line = number;
    for (auto& token : tokens) token = nullptr;
    // Only the first token ends at blanks alone; from the second on '#' is a
    // delimiter too, so the words of a trailing comment become tokens.
    tokens[0] = std::strtok(text, " \t\n\r");
    if (tokens[0] == nullptr || tokens[0][0] == '#') return;
    for (int i = 1; i < kMaxTokens; ++i) {
        tokens[i] = std::strtok(nullptr, " \t\n\r#");
        if (tokens[i] == nullptr) break;
    }

    const char* keyword = tokens[0];
    if (std::strncmp(keyword, "tap", 3) == 0) {
        tapLine();
    } else if (std::strncmp(keyword, "vlan", 4) == 0) {
        forwardLine();
        noteIgnored(3);
    } else if (std::strcmp(keyword, "mss") == 0) {
        mssLine();
        noteIgnored(2);
    } else if (std::strcmp(keyword, "mtu") == 0) {
        mtuLine();
        noteIgnored(2);
    } else if (std::strcmp(keyword, "server") == 0) {
        serverLine();
        noteIgnored(2);
    } else if (std::strcmp(keyword, "grekey") == 0) {
        greKeyLine();
        noteIgnored(4);
    } else if (std::strcmp(keyword, "ipchksum") == 0) {
        cfg.ipchksum = true;
        noteIgnored(1);
    } else if (std::strcmp(keyword, "offload-disable") == 0) {
        cfg.offload = false;
        noteIgnored(1);
    } else {
        diagnose("%s:%d ignoring unknown keyword \"%s\"\n", path, line, keyword);
    }
}

void LineParser::noteIgnored(int first) {
    if (notes == nullptr) return;
    ConfigNotes::Words ignored{line, {}};
    for (int i = first; i < kMaxTokens && tokens[i] != nullptr; ++i)
        ignored.words.emplace_back(tokens[i]);
    if (!ignored.words.empty()) notes->ignored_words.push_back(std::move(ignored));
}

// TAPNAME VID [vlan-isolate-enable | parent-interface NAME | offload-disable | ...]
void LineParser::tapLine() {
    const char* name = tokens[0];
    if (tokens[1] == nullptr) {
        diagnose("%s:%d missing argument (VID)\n", path, line);
        fail();
    }
    // atoi without a pattern: a word reads as VLAN 0, and negative numbers
    // wrap to large unsigned values and are refused with the rest.
    const auto vid_value = static_cast<unsigned>(std::atoi(tokens[1]));
    if (vid_value >= 4096) {
        diagnose("%s:%d invalid VID: \"%s\"\n", path, line, tokens[1]);
        fail();
    }
    if (!knownInterface(name)) {
        diagnose("%s:%d tap interface \"%s\" not found\n", path, line, name);
        fail();
    }
    // VLAN 1 is the access points' untagged LAN: it is carried as VLAN 0.
    const auto vid = static_cast<uint16_t>(vid_value == 1 ? 0 : vid_value);

    bool isolate = false;
    bool offload = true;
    const char* parent = nullptr;
    for (int i = 2; i < kMaxTokens && tokens[i] != nullptr; ++i) {
        const char* option = tokens[i];
        if (std::strcmp(option, "vlan-isolate-enable") == 0) {
            isolate = true;
        } else if (std::strcmp(option, "offload-disable") == 0) {
            offload = false;
        } else if (std::strcmp(option, "parent-interface") == 0) {
            // The last token slot has no room for the argument: an internal
            // limit of this reader, not an operator error, so it stops hard.
            if (i + 1 >= kMaxTokens) std::abort();
            parent = tokens[++i];
            if (parent == nullptr) {
                diagnose("%s:%d missing argument (parent-interface)\n", path, line);
                fail();
            }
            if (!knownInterface(parent)) {
                diagnose("%s:%d parent interface \"%s\" not found\n", path, line, parent);
                fail();
            }
        } else {
            diagnose("%s:%d ignoring unknown interface option \"%s\"\n", path, line, option);
            if (notes != nullptr) {
                if (notes->ignored_words.empty() || notes->ignored_words.back().line != line)
                    notes->ignored_words.push_back({line, {}});
                notes->ignored_words.back().words.emplace_back(option);
            }
        }
    }

    cfg.vlans.set(vid);
    cfg.interfaces.push_back(InterfaceConfig{name, vid, isolate, offload});
    if (notes != nullptr) notes->taps.push_back({line, tokens[1]});
    if (parent != nullptr) parent_interfaces[name] = parent;
}

// vlanVID forward-to-vym ADDRESS
void LineParser::forwardLine() {
    const char* vid_text = tokens[0] + 4;
    if (!matches(vid_text, forwardVidPattern())) {
        diagnose("%s:%d invalid VID: \"%s\"\n", path, line, vid_text);
        fail();
    }
    const int vid = std::atoi(vid_text);
    if ((vid & 0xf000) != 0) {
        diagnose("%s:%d invalid VID outside range: \"%s\"\n", path, line, vid_text);
        fail();
    }
    if (tokens[1] == nullptr) {
        // Truncated wording kept: log scanners in the field match on it.
        diagnose("%s:%d vlan operation)\n", path, line);
        fail();
    }
    if (strcasecmp(tokens[1], "forward-to-vym") != 0) {
        diagnose("%s:%d unknown vlan operation: \"%s\"\n", path, line, tokens[1]);
        fail();
    }
    const char* address = tokens[2];
    if (address == nullptr) {
        diagnose("%s:%d missing argument (ip address)\n", path, line);
        fail();
    }
    if (matches(address, ipv4Pattern())) {
        in_addr server{};
        if (inet_aton(address, &server) == 0) {
            diagnose("%s:%d invalid IPv4 address '%s'\n", path, line, address);
            fail();
        }
        cfg.forward_servers[static_cast<uint16_t>(vid)] = ForwardServer{server};
        cfg.forward_vlans.set(vid);
        cfg.vlans.set(vid);
        if (notes != nullptr) notes->forward_lines[static_cast<uint16_t>(vid)] = line;
    } else if (matches(address, ipv6Pattern())) {
        // The upstream gateways speak IPv4 only: the address is checked and
        // then dropped, so the line configures nothing.
        diagnose("%s:%d IPv6 Not supported for forward-to-vym '%s'\n", path, line, address);
        in6_addr ignored{};
        if (inet_pton(AF_INET6, address, &ignored) != 1) {
            diagnose("%s:%d invalid IPv6 address '%s'\n", path, line, address);
            fail();
        }
        if (notes != nullptr) notes->dropped_forwards.push_back({line, vid_text, address});
    } else {
        diagnose("%s:%d invalid IPv4 or IPv6 address '%s'\n", path, line, address);
        fail();
    }
}

// mss N: no upper bound; kept in 16 bits, so 65536 wraps to 0.
void LineParser::mssLine() {
    if (tokens[1] == nullptr) {
        diagnose("%s:%d missing argument (MSS)\n", path, line);
        fail();
    }
    const int mss = std::atoi(tokens[1]);
    if (mss < 536) {
        diagnose("%s:%d invalid MSS: \"%s\"\n", path, line, tokens[1]);
        fail();
    }
    cfg.mss = static_cast<uint16_t>(mss);
}

// mtu N, 1280..9000
void LineParser::mtuLine() {
    if (tokens[1] == nullptr) {
        diagnose("%s:%d missing argument (mtu)\n", path, line);
        fail();
    }
    const int mtu = std::atoi(tokens[1]);
    if (mtu < 1280 || mtu > 9000) {
        diagnose("%s:%d invalid MTU: \"%s\"\n", path, line, tokens[1]);
        fail();
    }
    cfg.mtu = static_cast<uint16_t>(mtu);
}

// server ADDRESS: the same reading as -s, whose messages carry no position.
void LineParser::serverLine() {
    if (tokens[1] == nullptr) {
        diagnose("%s:%d missing argument (Server IP)\n", path, line);
        fail();
    }
    if (!parseServerAddress(tokens[1], cfg.server_ipv4, cfg.server_ipv6, cfg.server_family)) {
        fail();
    }
}

// grekey mode MODE [KEY]
void LineParser::greKeyLine() {
    if (tokens[1] == nullptr) {
        diagnose("%s:%d missing GRE Key argument (mode)\n", path, line);
        fail();
    }
    if (std::strcmp(tokens[1], "mode") != 0) {
        diagnose("%s:%d unknown GRE key option '%s'\n", path, line, tokens[1]);
        fail();
    }
    const char* mode = tokens[2];
    if (mode == nullptr) {
        // "prefervlen" is how this message has always spelled it.
        diagnose(
            "%s:%d missing GRE key mode type (ignore, reject, require, vlanmap, "
            "preferkey, prefervlen)\n",
            path, line);
        fail();
    }
    static constexpr struct {
        const char* keyword;
        GreKeyMode mode;
    } kModes[] = {{"ignore", Ignore},   {"reject", Reject},       {"require", Require},
                  {"vlanmap", VlanMap}, {"preferkey", PreferKey}, {"prefervlan", PreferVlan}};
    bool known = false;
    for (const auto& entry : kModes) {
        if (std::strcmp(mode, entry.keyword) == 0) {
            cfg.gre_key_mode = entry.mode;
            known = true;
            break;
        }
    }
    if (!known) {
        diagnose("%s:%d unknown GRE key mode '%s'\n", path, line, mode);
        fail();
    }

    const char* key = tokens[3];
    if (cfg.gre_key_mode == Require) {
        if (key == nullptr) {
            diagnose("%s:%d missing GRE key\n", path, line);
            fail();
        }
        if (!matches(key, greKeyPattern())) {
            diagnose("%s:%d invalid GRE key '%s'\n", path, line, key);
            fail();
        }
        // Base from the text, as the access points' own tools write keys:
        // a leading zero means octal (010 is 8, and 08 reads as 0).
        cfg.gre_key = std::strtoul(key, nullptr, 0);
    } else if (key != nullptr) {
        diagnose("%s:%d Unknown extra GRE Key argument '%s'\n", path, line, key);
        fail();
    }
    if (notes != nullptr) {
        notes->gre_key_line = line;
        notes->gre_key_text = cfg.gre_key_mode == Require ? key : "";
    }
}

// Closes the file however parsing ends.
struct FileCloser {
    FILE* file;
    ~FileCloser() { std::fclose(file); }
};

}  // namespace

bool parseServerAddress(const char* text, in_addr& ipv4, in6_addr& ipv6, uint8_t& family) {
    if (matches(text, ipv4Pattern())) {
        in_addr address{};
        if (inet_aton(text, &address) == 0) {
            diagnose("%s: invalid IPv4 address\n", text);
            return false;
        }
        ipv4 = address;
        family = 1;
        return true;
    }
    if (matches(text, ipv6Pattern())) {
        in6_addr address{};
        if (inet_pton(AF_INET6, text, &address) != 1) {
            diagnose("%s: invalid IPv6 address\n", text);
            return false;
        }
        ipv6 = address;
        family = 2;
        return true;
    }
    diagnose("%s: invalid IPv4 or IPv6 address\n", text);
    return false;
}

void parse_config(Config& cfg, const char* path) { parse_config(cfg, path, nullptr); }

void parse_config(Config& cfg, const char* path, ConfigNotes* notes) {
    FILE* file = std::fopen(path, "r");
    if (file == nullptr) {
        const int error = errno;
        diagnose("%s: %s\n", path, std::strerror(error));
        throw error;
    }
    FileCloser closer{file};

    // Parsing runs on the main thread before any other thread exists, so
    // strtok's hidden state is not shared with anybody.
    LineParser parser(cfg, path, notes);
    char text[kLineBuffer];
    bool continues = false;
    for (int number = 1; std::fgets(text, sizeof text, file) != nullptr; ++number) {
        if (continues && notes != nullptr) notes->continued_lines.push_back(number);
        // A piece without its newline is followed by the rest of its line.
        continues = std::strchr(text, '\n') == nullptr;
        parser.parse(text, number);
    }
}

}  // namespace lumora
