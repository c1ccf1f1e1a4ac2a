#pragma once

#include <CLI/App.hpp>

#include "app/command.h"

namespace norvik::cli {

// `norvik debug …`: tools for engineers — one signed request to any endpoint, the device
// identifier, and the lock of the secure store.
void addDebugCommands(CLI::App& app, const GlobalOptions& global, CommandResult& result);

}  // namespace norvik::cli
