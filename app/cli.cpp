#include "app/cli.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "app/agent_commands.h"
#include "app/command.h"
#include "app/debug_commands.h"
#include "app/update_commands.h"
#include "norvik/version.h"

namespace norvik::cli {

int run(int argc, char** argv) {
  CLI::App app{"Norvik VPN client", "norvik"};
  app.set_version_flag("--version", std::string("norvik ") + kAppVersion);
  app.require_subcommand(1);

  GlobalOptions global;
  app.add_option("--home", global.home, "Directory that holds all local state (default: $XDG_DATA_HOME/norvik)");
  app.add_option("--backend", global.backend, "Backend base URL; endpoint names are appended to it");
  app.add_option("--ca-file", global.caFile, "Extra trusted CA certificate (PEM)")->check(CLI::ExistingFile);
  app.add_option("--provisioning", global.provisioning, "Provisioning file with the deployment's keys")
      ->envname("NORVIK_PROVISIONING");
  app.add_flag("-v,--verbose", global.verbose, "Print log lines on stderr");
  app.add_option("--tunnel", global.tunnel,
                 "Tunnel service of the agent: wireguard (norvik-tunnel) or simulated; by default wireguard when "
                 "this machine lets norvik-tunnel create interfaces")
      ->envname("NORVIK_TUNNEL")
      ->check(CLI::IsMember({"simulated", "wireguard"}));

  CommandResult result;
  addAgentCommands(app, global, result);
  addDebugCommands(app, global, result);
  addUpdateCommands(app, global, result);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int status = app.exit(e);
    return status == 0 ? 0 : static_cast<int>(ExitCode::usage);
  }
  if (!result) {
    fmt::print(stderr, "{}\n", result.error().message);
    return static_cast<int>(result.error().code);
  }
  return static_cast<int>(ExitCode::ok);
}

}  // namespace norvik::cli
