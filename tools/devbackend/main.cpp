// norvik-devbackend: the local HTTPS backend for development, the demo and the integration tests.
// Runs in the foreground until SIGINT or SIGTERM.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "tools/devbackend/dev_backend.h"

namespace {

using norvik::devbackend::DevBackend;
using norvik::devbackend::DevBackendOptions;

enum ExitCode { kOk = 0, kFailed = 1, kUsage = 2 };

struct CommandLine {
  DevBackendOptions options;
  std::optional<std::filesystem::path> portFile;
  std::optional<std::filesystem::path> smartStatusFile, mainPatchFile, appUpdateFile;
  bool noSubscription = false;
  long clockOffset = 0;
};

std::filesystem::path defaultStateDir() {
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state)
    return std::filesystem::path(state) / "norvik-devbackend";
  if (const char* home = std::getenv("HOME"); home && *home)
    return std::filesystem::path(home) / ".local/state/norvik-devbackend";
  return "norvik-devbackend-state";
}

void setUp(CLI::App& app, CommandLine& c) {
  auto& o = c.options;
  o.stateDir = defaultStateDir();
  app.add_option("--state-dir", o.stateDir, "Devices, keys and certificates kept between runs")->capture_default_str();
  app.add_option("--listen", o.listenAddress, "Address to listen on")->capture_default_str();
  app.add_option("--port", o.port, "Port; 0 picks a free one")->capture_default_str()->check(CLI::Range(0, 65535));
  app.add_option("--port-file", c.portFile, "Write the port here once listening");
  app.add_option("--api-base", o.apiBase, "Path of the API")->capture_default_str();

  app.add_option("--provisioning", o.provisioningFile, "Use the keys of this provisioning file")
      ->check(CLI::ExistingFile);
  app.add_option("--write-provisioning", o.writeProvisioning, "Write the keys in use here, for norvik --provisioning");
  auto* cert =
      app.add_option("--cert", o.certificateFile, "Server certificate (PEM) of one's own")->check(CLI::ExistingFile);
  auto* key = app.add_option("--key", o.keyFile, "Its private key (PEM)")->check(CLI::ExistingFile);
  cert->needs(key);
  key->needs(cert);
  app.add_option("--extra-name", o.extraNames, "Another host name or address for the made certificate (repeatable)");
  app.add_option("--write-ca", o.writeCa, "Write the made CA certificate here, for norvik --ca-file");

  app.add_option("--servers", o.serversFile, "Server list (JSON)")->check(CLI::ExistingFile);
  app.add_option("--status", o.statusFaults, "Answer STATUS instead: ENDPOINT:STATUS[:COUNT] (repeatable)");
  app.add_option("--delay", o.delayFaults, "Hold answers back: ENDPOINT:MS[:COUNT] (repeatable)");
  app.add_option("--malformed", o.malformedFaults, "Answer with a broken body: ENDPOINT[:COUNT] (repeatable)");
  app.add_flag("--no-subscription", c.noSubscription, "New devices start without a subscription");
  app.add_option("--smart-status", c.smartStatusFile, "The \"smart_status\" object to send (JSON file)")
      ->check(CLI::ExistingFile);
  app.add_option("--link-domain", o.linkDomain,
                 "Announce this backend host in \"link_domain\" (the client then uses it)");
  app.add_option("--main-patch", c.mainPatchFile, "JSON merge patch over every main document")
      ->check(CLI::ExistingFile);
  app.add_option("--app-update", c.appUpdateFile, "The \"update\" object of check_app_version (JSON file)")
      ->check(CLI::ExistingFile);
  app.add_option("--geoip-count", o.geoIPCount, "Ranges in the GeoIP list")
      ->capture_default_str()
      ->check(CLI::Range(0, 10000));
  app.add_flag("--geoip-country", o.geoIPCountry,
               "Serve a list the size of a real country's: 20 000 IPv4 and 5 000 IPv6 aggregated ranges");
  app.add_option("--feed-version", o.feedVersion, "Version the update feed offers")->capture_default_str();
  app.add_option("--feed-file", o.feedFile, "Disk image the update feed offers (default: a stand-in)")
      ->check(CLI::ExistingFile);
  app.add_option("--clock-offset", c.clockOffset, "Seconds this server's clock runs ahead (negative: behind)");
}

std::expected<nlohmann::json, std::string> readJson(const std::filesystem::path& file) {
  auto text = norvik::readFile(file, 1u << 20);
  if (!text) return std::unexpected(text.error().message);
  auto json = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded() || !json.is_object())
    return std::unexpected(fmt::format("{}: not a JSON object", file.string()));
  return json;
}

int run(CommandLine& c) {
  auto& o = c.options;
  o.newDevicesSubscribed = !c.noSubscription;
  o.clockOffset = std::chrono::seconds(c.clockOffset);
  for (const auto& [file, target] :
       {std::pair{&c.smartStatusFile, &o.smartStatus}, std::pair{&c.mainPatchFile, &o.mainPatch},
        std::pair{&c.appUpdateFile, &o.appUpdate}}) {
    if (!*file) continue;
    auto json = readJson(**file);
    if (!json) {
      fmt::print(stderr, "norvik-devbackend: {}\n", json.error());
      return kUsage;
    }
    *target = std::move(*json);
  }

  // The server's threads inherit this mask, so only sigwait below sees the signals.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  auto backend = DevBackend::start(o);
  if (!backend) {
    fmt::print(stderr, "norvik-devbackend: {}\n", backend.error().message);
    return backend.error().domain == norvik::devbackend::kConfigurationErrorDomain ? kUsage : kFailed;
  }
  // The copies written for the client, when asked for, are the files to hand to norvik.
  const std::string ca = o.writeCa                      ? o.writeCa->string()
                         : (*backend)->caFile().empty() ? std::string("(certificate of one's own)")
                                                        : (*backend)->caFile().string();
  const std::string provisioning =
      (o.writeProvisioning ? *o.writeProvisioning : (*backend)->provisioningFile()).string();
  fmt::print("norvik-devbackend: listening on {}\n", (*backend)->url(""));
  fmt::print("  API:          {}\n", (*backend)->apiURL());
  fmt::print("  update feed:  {}\n", (*backend)->url("/mac/appcast.xml"));
  fmt::print("  admin:        {}\n", (*backend)->url("/admin/requests"));
  fmt::print("  CA:           {}\n", ca);
  fmt::print("  provisioning: {}\n", provisioning);
  fmt::print("  state:        {}\n", (*backend)->stateFile().string());
  fmt::print("  client:       norvik --backend {} --ca-file {} --provisioning {} debug api main\n",
             (*backend)->apiURL(), ca, provisioning);
  (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
  if (c.portFile) {
    if (auto written = norvik::writeFileAtomically(*c.portFile, fmt::format("{}\n", (*backend)->port())); !written) {
      fmt::print(stderr, "norvik-devbackend: {}\n", written.error().message);
      return kFailed;
    }
  }

  int received = 0;
  sigwait(&signals, &received);
  fmt::print(stderr, "norvik-devbackend: {} received, stopping\n", received == SIGINT ? "SIGINT" : "SIGTERM");
  (*backend)->stop();
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  // What the server reports itself comes back as an error value; this is for the rest (memory, the
  // standard library), so that it ends with a message rather than an abort.
  try {
    CLI::App app{"Local HTTPS backend for Norvik development, demos and tests"};
    CommandLine commandLine;
    setUp(app, commandLine);
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
      const int status = app.exit(e);
      return status == 0 ? kOk : kUsage;
    }
    return run(commandLine);
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "norvik-devbackend: %s\n", e.what());
    return kFailed;
  }
}
