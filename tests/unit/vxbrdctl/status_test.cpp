// vxbrdctl status's readings of the daemon's command line and its uptime,
// and the atomic replacement of the metrics file.
#include "vxbrdctl/Status.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "vxbrdctl/AtomicFile.h"

namespace lumora::ctl {
namespace {

TEST(VxbrdctlStatus, ConfigurationPathAsTheDaemonReadsItsOptions) {
    EXPECT_EQ(configPathOf({"vxbrd"}), "/etc/vxobrd.conf");
    EXPECT_EQ(configPathOf({"vxbrd", "-f", "-c", "/a.conf"}), "/a.conf");
    EXPECT_EQ(configPathOf({"vxbrd", "-fc", "/b.conf", "-v"}), "/b.conf");
    EXPECT_EQ(configPathOf({"vxbrd", "-c/c.conf"}), "/c.conf");
    EXPECT_EQ(configPathOf({"vxbrd", "-c", "/a.conf", "-c", "/d.conf"}), "/d.conf");
    // Arguments of other options are not options.
    EXPECT_EQ(configPathOf({"vxbrd", "-p", "-c", "-s", "192.0.2.9"}), "/etc/vxobrd.conf");
    EXPECT_EQ(configPathOf({"vxbrd", "-pc", "-c", "/e.conf"}), "/e.conf");
}

TEST(VxbrdctlStatus, UptimeInDaysHoursMinutesSeconds) {
    EXPECT_EQ(durationText(0), "0 days 00:00:00");
    EXPECT_EQ(durationText(7), "0 days 00:00:07");
    EXPECT_EQ(durationText(2 * 86400 + 3 * 3600 + 4 * 60 + 5), "2 days 03:04:05");
    EXPECT_EQ(durationText(-5), "0 days 00:00:00");
}

std::string contents(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(VxbrdctlAtomicFile, ReplacesTheFileAndLeavesNothingBeside) {
    char directory[] = "/tmp/vxbrdctl-atomic-XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    const std::string path = std::string(directory) + "/vxbrd.prom";
    {
        std::ofstream old(path);
        old << "old\n";
    }
    const mode_t mask = umask(077);
    EXPECT_EQ(writeFileAtomically(path, "vxbrd_up 1\n"), "");
    umask(mask);
    EXPECT_EQ(contents(path), "vxbrd_up 1\n");
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
    EXPECT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(rmdir(directory), 0) << "a temporary file was left behind";
}

TEST(VxbrdctlAtomicFile, AMissingDirectoryIsNamed) {
    EXPECT_EQ(writeFileAtomically("/nonexistent-vxbrd-dir/vxbrd.prom", "x"),
              "/nonexistent-vxbrd-dir/vxbrd.prom: No such file or directory");
}

}  // namespace
}  // namespace lumora::ctl
