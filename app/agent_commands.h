#pragma once

#include <CLI/App.hpp>

#include "app/command.h"

namespace norvik::cli {

// `norvik agent`, and the commands that speak to it: status, connect, disconnect, toggle,
// change-server, mode, sites, watch; and logs, which reads the agent's log file.
void addAgentCommands(CLI::App& app, const GlobalOptions& global, CommandResult& result);

}  // namespace norvik::cli
