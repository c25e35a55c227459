#pragma once

#include "core/Logger.h"

namespace lumora {

// Detaches from the terminal and session by the classic double fork.
// Returns only in the final daemon process (cwd "/", umask 0). The caller
// exits 0 at once; the intermediate process, the session leader, writes the
// daemon's pid to pid_path and exits 0, also when it cannot write the file.
// Must be called while the process has a single thread.
void daemonize(Logger& logger, const char* pid_path);

}  // namespace lumora
