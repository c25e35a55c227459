// vxbrdctl status: which daemon answers on the control socket, since when,
// with which configuration file, and whether that file has changed since the
// daemon read it (it reads it once, at start-up). When the socket does not
// answer, it says whether a vxbrd runs anyway and why it is probably mute.
#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace lumora::ctl {

// The daemon's own default, used when its command line has no -c.
inline constexpr const char* kDaemonDefaultConfig = "/etc/vxobrd.conf";

// The configuration file of a vxbrd started with arguments (argv, program
// first), read as the daemon's option string "Vb:c:fhp:qs:v" reads them: the
// last -c wins, an option's argument may be glued to it or follow it.
std::string configPathOf(const std::vector<std::string>& arguments);

// "D days HH:MM:SS" for a number of seconds ("0 days 00:00:07").
std::string durationText(std::time_t seconds);

// Asks the daemon on socket for its reports and prints the status on
// stdout. Returns vxbrdctl's exit status; messages go to stderr.
int printStatus(const std::string& socket, int timeout_seconds);

}  // namespace lumora::ctl
