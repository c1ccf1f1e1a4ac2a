#pragma once

#include <CLI/App.hpp>

#include "app/command.h"

namespace norvik::cli {

// `norvik update …`: what the update feed offers, and the in-app install with its progress. When
// the agent of this home runs they go through it (its updater is the application's); without an
// agent, or with feed options of their own, they run in the command's own process.
void addUpdateCommands(CLI::App& app, const GlobalOptions& global, CommandResult& result);

}  // namespace norvik::cli
