// vxbrdctl check's effective configuration: what start-up would use, in the
// file's own syntax, with the reader's surprises spelled out.
#include "vxbrdctl/Check.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace lumora::ctl {
namespace {

class TempConfig {
  public:
    explicit TempConfig(const std::string& text) {
        char name[] = "/tmp/vxbrdctl-check-test-XXXXXX";
        const int fd = mkstemp(name);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
        path_ = name;
    }
    ~TempConfig() { unlink(path_.c_str()); }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// Parses text as the daemon would, with tap0, tap1, tap2 and em1 on the host.
std::string effective(const std::string& text) {
    system_interfaces.clear();
    parent_interfaces.clear();
    for (const char* name : {"tap0", "tap1", "tap2", "em1"}) system_interfaces[name] = {};
    TempConfig file(text);
    Config cfg;
    ConfigNotes notes;
    // Diagnostics go to stderr, as the daemon's; only the result is looked at.
    parse_config(cfg, file.path().c_str(), &notes);
    const std::string out = effectiveConfiguration("F", cfg, parent_interfaces, notes);
    system_interfaces.clear();
    parent_interfaces.clear();
    return out;
}

TEST(VxbrdctlCheck, AnEmptyFileIsTheDefaults) {
    EXPECT_EQ(effective(""),
              "# F as vxbrd reads it\n"
              "grekey mode ignore\n"
              "mss 1380\n"
              "# mtu not set: the tunnel's own limit\n"
              "# server not set\n"
              "# ipchksum not set\n");
}

TEST(VxbrdctlCheck, TheExampleFileReadsBackAsWritten) {
    EXPECT_EQ(effective("# access point tunnels\n"
                        "tap0 1\n"
                        "tap1 20 vlan-isolate-enable\n"
                        "tap2 30 parent-interface em1\n"
                        "vlan40 forward-to-vym 192.0.2.1\n"
                        "grekey mode require 1001\n"
                        "mss 1380\n"
                        "mtu 1500\n"
                        "server 192.0.2.10\n"),
              "# F as vxbrd reads it\n"
              "# line 2: VLAN 1 is carried untagged, as VLAN 0\n"
              "tap0 0\n"
              "tap1 20 vlan-isolate-enable\n"
              "tap2 30 parent-interface em1\n"
              "vlan40 forward-to-vym 192.0.2.1\n"
              "grekey mode require 1001\n"
              "mss 1380\n"
              "mtu 1500\n"
              "server 192.0.2.10\n"
              "# ipchksum not set\n");
}

TEST(VxbrdctlCheck, WhatStartUpSkipsOrTheReaderChangesIsNoted) {
    EXPECT_EQ(effective("tap0 20\n"
                        "tap1 x\n"
                        "tap2 20 # second\n"
                        "vlan0050 forward-to-vym 192.0.2.1\n"
                        "vlan60 forward-to-vym 2001:db8::1\n"
                        "vlan50 FORWARD-TO-VYM 192.0.2.9 spare\n"
                        "grekey mode prefervlan\n"
                        "grekey mode require 010\n"
                        "mss 65536\n"
                        "mtu 1500 # jumbo frames\n"
                        "server 2001:db8::10\n"
                        "ipchksum on\n"),
              "# F as vxbrd reads it\n"
              "tap0 20\n"
              "# line 2: VID \"x\" is read as 0\n"
              "tap1 0\n"
              "# line 3: skipped at start-up (duplicate vlan entry for vid 20)\n"
              "#tap2 20\n"
              "vlan50 forward-to-vym 192.0.2.9\n"
              "# line 5: dropped: upstream gateways are reached over IPv4 only\n"
              "#vlan60 forward-to-vym 2001:db8::1\n"
              "# line 8: key \"010\" has a leading zero and is read as octal\n"
              "grekey mode require 8\n"
              "mss 0\n"
              "mtu 1500\n"
              "server 2001:db8::10\n"
              "ipchksum\n"
              "# line 3: words not read: \"second\"\n"
              "# line 6: words not read: \"spare\"\n"
              "# line 10: words not read: \"jumbo\" \"frames\"\n"
              "# line 12: words not read: \"on\"\n");
}

TEST(VxbrdctlCheck, PiecesOfLongLinesAreNamed) {
    EXPECT_EQ(effective("# " + std::string(300, 'x') + "\nmss 600\n"),
              "# F as vxbrd reads it\n"
              "grekey mode ignore\n"
              "mss 600\n"
              "# mtu not set: the tunnel's own limit\n"
              "# server not set\n"
              "# ipchksum not set\n"
              "# line 2: the rest of line 1 (read in pieces of 255 bytes)\n");
}

}  // namespace
}  // namespace lumora::ctl
