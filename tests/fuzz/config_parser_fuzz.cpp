// Arbitrary configuration files through parse_config, as start-up reads them:
// the input is written to a file, the globals are reset, and the file is
// parsed against a fixed list of host interfaces. A file may parse or be
// refused with int 22; whatever it configured must then hold together (VLAN
// ids in range, forwarded VLANs with a gateway, parents naming known
// interfaces). Diagnostics are the parser's business and go to /dev/null.
//
// The one crash the parser is allowed: a tap line whose "parent-interface"
// option sits in the eighth and last token slot, where no slot is left for
// its argument, aborts on purpose. Inputs that hold such a line are skipped:
// abortsOnLastSlotParent() reads the file exactly as the parser does (fgets
// pieces of at most 255 bytes; the first token split at blanks, tabs and line
// ends, the further ones at "#" too; eight tokens at most) and walks the tap
// options the same way. It may skip a few files that would have failed
// earlier in the line; it never lets an aborting one through.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/ConfigParser.h"
#include "core/Config.h"

namespace {

using namespace lumora;

constexpr int kMaxTokens = 8;
constexpr int kLineBuffer = 256;

// Where the input is written; made once per process and removed at exit.
char path[] = "/tmp/vxbrd-config-fuzz-XXXXXX";
int file = -1;

void removeFile() { unlink(path); }

void setUp() {
    // Every input prints diagnostics; nobody reads them. The parser writes
    // them to stderr, so stderr becomes a /dev/null stream. The stream
    // itself is swapped rather than reopened: libFuzzer took the original
    // stream for its own reports when it started, and keeps it.
    FILE* null = std::fopen("/dev/null", "w");
    if (null == nullptr) std::abort();
    stderr = null;
    file = mkstemp(path);
    if (file < 0) std::abort();
    std::atexit(removeFile);
}

bool abortsOnLastSlotParent() {
    FILE* in = std::fopen(path, "r");
    if (in == nullptr) std::abort();
    char text[kLineBuffer];
    bool aborts = false;
    while (!aborts && std::fgets(text, sizeof text, in) != nullptr) {
        const char* tokens[kMaxTokens] = {};
        tokens[0] = std::strtok(text, " \t\n\r");
        if (tokens[0] == nullptr || tokens[0][0] == '#') continue;
        for (int i = 1; i < kMaxTokens; ++i) {
            tokens[i] = std::strtok(nullptr, " \t\n\r#");
            if (tokens[i] == nullptr) break;
        }
        if (std::strncmp(tokens[0], "tap", 3) != 0) continue;
        for (int i = 2; i < kMaxTokens && tokens[i] != nullptr; ++i) {
            if (std::strcmp(tokens[i], "parent-interface") != 0) continue;
            if (i + 1 >= kMaxTokens) aborts = true;
            ++i;  // its argument
        }
    }
    std::fclose(in);
    return aborts;
}

// What a parsed (or partly parsed) configuration must look like.
void check(const Config& cfg) {
    for (const InterfaceConfig& tap : cfg.interfaces) {
        if (tap.vid >= 4096 || tap.vid == 1) std::abort();
        if (!cfg.vlans.test(tap.vid)) std::abort();
        if (system_interfaces.count(tap.name) == 0) std::abort();
    }
    for (size_t vid = 0; vid < 4096; ++vid) {
        if (!cfg.forward_vlans.test(vid)) continue;
        if (!cfg.vlans.test(vid)) std::abort();
        if (cfg.forward_servers.count(static_cast<uint16_t>(vid)) == 0) std::abort();
    }
    if (cfg.forward_servers.size() != cfg.forward_vlans.count()) std::abort();
    if (cfg.mtu != 0 && (cfg.mtu < 1280 || cfg.mtu > 9000)) std::abort();
    if (cfg.server_family > 2) std::abort();
    switch (cfg.gre_key_mode) {
        case Ignore:
        case Reject:
        case Require:
        case VlanMap:
        case PreferKey:
        case PreferVlan:
            break;
        default:
            std::abort();
    }
    for (const auto& [tap, parent] : parent_interfaces) {
        if (system_interfaces.count(tap) == 0 || system_interfaces.count(parent) == 0) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = (setUp(), true);
    (void)ready;

    if (ftruncate(file, 0) != 0) std::abort();
    size_t written = 0;
    while (written < size) {
        const ssize_t n = pwrite(file, data + written, size - written, static_cast<off_t>(written));
        if (n <= 0) std::abort();
        written += static_cast<size_t>(n);
    }
    if (abortsOnLastSlotParent()) return 0;

    // The state start-up parses into: defaults, no parents, the host's
    // interfaces as discovery would have listed them.
    config = Config{};
    parent_interfaces.clear();
    system_interfaces = {{"tap0", {2, 0, 0x5e, 0, 0, 1}}, {"tap1", {2, 0, 0x5e, 0, 0, 2}},
                         {"tap2", {2, 0, 0x5e, 0, 0, 3}}, {"em0", {2, 0, 0x5e, 0, 0, 4}},
                         {"em1", {2, 0, 0x5e, 0, 0, 5}},  {"vlan20", {2, 0, 0x5e, 0, 0, 6}}};
    try {
        parse_config(config, path);
    } catch (int error) {
        if (error != 22) std::abort();
    }
    check(config);
    return 0;
}
