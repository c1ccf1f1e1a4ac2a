#pragma once

#include <expected>
#include <filesystem>
#include <optional>
#include <string>

namespace norvik::cli {

// Exit statuses of the norvik command, decided in one place (cli.cpp).
enum class ExitCode : int {
  ok = 0,
  failed = 1,   // the operation ran and failed; its message is printed
  usage = 2,    // bad arguments or configuration (provisioning, home, CA file)
  noAgent = 3,  // the command needs the agent and none runs
};

struct CommandError {
  ExitCode code = ExitCode::failed;
  std::string message;
};

using CommandResult = std::expected<void, CommandError>;

inline std::unexpected<CommandError> failure(ExitCode code, std::string message) {
  return std::unexpected(CommandError{code, std::move(message)});
}

// Options every command shares. They stay stable: scripts depend on them.
struct GlobalOptions {
  std::optional<std::filesystem::path> home;          // --home DIR
  std::optional<std::string> backend;                 // --backend URL
  std::optional<std::filesystem::path> caFile;        // --ca-file PEM
  std::optional<std::filesystem::path> provisioning;  // --provisioning FILE (or $NORVIK_PROVISIONING)
  bool verbose = false;                               // -v: log lines on stderr too
  std::optional<std::string> tunnel;                  // --tunnel simulated|wireguard (or $NORVIK_TUNNEL)
};

}  // namespace norvik::cli
