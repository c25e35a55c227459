// Set-up failures of the control socket: the thread prints why on standard
// output and returns, leaving the daemon without a control socket.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "control/ControlSocket.h"

namespace lumora {
namespace {

std::string scratchDirectory() {
    char pattern[] = "/tmp/vxbrd-control-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr) throw std::runtime_error("mkdtemp");
    return made;
}

TEST(ControlSocketSetup, BindIntoMissingDirectoryReturnsWithMessage) {
    const std::string directory = scratchDirectory();
    Tables tables;
    testing::internal::CaptureStdout();
    controlSocketServer(directory + "/absent/vxbrd.sock", tables);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "bind failed: No such file or directory[2]\n");
    rmdir(directory.c_str());
}

TEST(ControlSocketSetup, PathTakenByADirectoryReturnsWithMessage) {
    // unlink cannot remove a directory, so bind finds the name in use.
    const std::string directory = scratchDirectory();
    const std::string path = directory + "/vxbrd.sock";
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    Tables tables;
    testing::internal::CaptureStdout();
    controlSocketServer(path, tables);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "bind failed: Address already in use[98]\n");
    rmdir(path.c_str());
    rmdir(directory.c_str());
}

}  // namespace
}  // namespace lumora
