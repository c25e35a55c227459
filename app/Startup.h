#pragma once

namespace lumora {

// The whole daemon: command line, interface discovery, configuration,
// daemon mode, then the tunnel endpoints and their threads. Returns the exit
// status when the command line ends the process (-V, -h, usage errors);
// start-up failures exit() with theirs; a running daemon never returns.
int daemonMain(int argc, char** argv);

}  // namespace lumora
