#pragma once

#include <chrono>

#include "app/command.h"

namespace norvik::cli {

struct AgentOptions {
  // How long the simulated tunnel takes to connect (development and tests).
  std::chrono::milliseconds simulatedConnectDelay{300};
  bool simulatedConnectGiven = false;  // --simulated-connect-ms was given: the simulated tunnel is meant
};

// `norvik agent`: the application in the foreground. It logs to stderr and to the log file,
// serves the control socket for the command line, and ends cleanly on SIGINT or SIGTERM. One
// agent runs per home directory: a second one is refused and the first is left alone.
CommandResult runAgent(const GlobalOptions& global, const AgentOptions& options);

}  // namespace norvik::cli
