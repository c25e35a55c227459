// vxbrdctl check: a configuration file read by the daemon's own parser,
// against this host's interfaces, without starting anything. Diagnostics are
// the daemon's, byte for byte; what start-up would then use is printed in
// the file's own syntax, with comment lines for whatever the reader turned
// into something other than what the file seems to say.
#pragma once

#include <map>
#include <string>

#include "app/ConfigParser.h"
#include "core/Config.h"

namespace lumora::ctl {

// The configuration start-up would run with, one setting per line, in a form
// the parser reads back to the same result: tap lines in file order (a line
// start-up skips as a duplicate VLAN commented out), forward lines by VLAN,
// then grekey, mss, mtu, server and ipchksum; notes as "# line N: ..." lines
// before what they explain, words the reader passed over at the end.
std::string effectiveConfiguration(const std::string& path, const Config& cfg,
                                   const std::map<std::string, std::string>& parents,
                                   const ConfigNotes& notes);

// Discovers the host's interfaces, parses path into the process's
// configuration (the parser prints its diagnostics on stderr), then prints
// the effective configuration on stdout unless quiet. Returns 0 when the
// daemon would start with the file, 1 when it would not. Opens no control
// socket, tap or PID file.
int checkConfiguration(const std::string& path, bool quiet);

}  // namespace lumora::ctl
