#include "app/update_commands.h"

#include <cstdio>
#include <memory>
#include <unistd.h>

#include <fmt/format.h>

#include "app/agent_exchange.h"
#include "app/app_context.h"
#include "backend/provisioning.h"
#include "update/app_updater.h"
#include "update/file_signature.h"
#include "update/platform_update_installer.h"
#include "update/update_texts.h"

namespace norvik::cli {
namespace {

struct FeedOptions {
  std::optional<std::string> feed;
  std::optional<std::string> mirror;
  std::optional<std::string> currentVersion;
  bool beta = false;
};

struct InstallOptions {
  FeedOptions feed;
  std::optional<std::string> msiURL;
  std::string msiVersion;
};

// The update machinery of one command, over the context's platform.
struct UpdateSession {
  std::unique_ptr<UpdateInstaller> installer;
  std::unique_ptr<AppUpdater> updater;
  bool quitRequested = false;
};

std::expected<AppUpdaterConfig, CommandError> updaterConfig(const FeedOptions& options) {
  AppUpdaterConfig config = platformUpdaterConfig();
  if (options.feed) {
    config.feedURL = *options.feed;
    // A feed of one's own has no mirror unless one is named: the built-in mirror serves other builds.
    config.mirrorFeedURL = options.mirror.value_or("");
  } else if (options.mirror) {
    config.mirrorFeedURL = *options.mirror;
  }
  for (const auto* url : {&config.feedURL, &config.mirrorFeedURL}) {
    if (!url->empty() && !url->starts_with("https://")) {
      return failure(ExitCode::usage, fmt::format("{}: the feed must be an https URL", *url));
    }
  }
  if (options.currentVersion) config.currentVersion = *options.currentVersion;
  config.betaChannel = options.beta;
  return config;
}

// The feed's signing key from the provisioning file, when one is given.
std::expected<std::optional<Bytes>, CommandError> feedKey(const GlobalOptions& global) {
  auto path = provisioningPath(global.provisioning);
  if (!path) return std::nullopt;
  auto loaded = loadProvisioning(*path);
  if (!loaded) return failure(ExitCode::usage, loaded.error().message);
  if (!loaded->updateEd25519PublicKey) return std::nullopt;
  auto key = parseEd25519PublicKey(*loaded->updateEd25519PublicKey);
  if (!key) return failure(ExitCode::usage, fmt::format("{}: {}", path->string(), key.error()));
  return std::optional<Bytes>(std::move(*key));
}

std::expected<UpdateSession, CommandError> openSession(AppContext& context, const GlobalOptions& global,
                                                       const FeedOptions& options) {
  auto config = updaterConfig(options);
  if (!config) return std::unexpected(config.error());
  auto key = feedKey(global);
  if (!key) return std::unexpected(key.error());

  Platform& platform = context.platform();
  UpdateSession session;
  session.installer =
      makeUpdateInstaller(context.loop(), *platform.downloads, *platform.processes, *platform.log, std::move(*key));
  auto* quit = &session.quitRequested;
  session.updater =
      std::make_unique<AppUpdater>(context.loop(), *platform.http, std::make_unique<FeedAppcastUpdater>(*platform.http),
                                   *session.installer, *platform.log, *config,
                                   AppUpdater::Hooks{[quit, &context] {
                                                       *quit = true;
                                                       context.loop().stop();
                                                     },
                                                     nullptr});
  session.updater->start();
  if (!session.updater->hasAppcastUpdater())
    return failure(ExitCode::failed, "the update feed client did not start; see the log");
  return session;
}

std::string bytesText(std::uint64_t bytes) {
  if (bytes >= (1u << 20)) return fmt::format("{:.1f} MiB", static_cast<double>(bytes) / (1 << 20));
  if (bytes >= 1024) return fmt::format("{:.1f} KiB", static_cast<double>(bytes) / 1024);
  return fmt::format("{} B", bytes);
}

void printOffer(const AppcastItem& item, const std::optional<std::string>& notes) {
  fmt::print("{} {}\n", update_texts::kVersionAvailable, item.displayVersion());
  fmt::print("  title: {}\n  build: {}\n  file: {}\n", item.title, item.version, item.enclosureURL);
  if (item.enclosureLength) fmt::print("  length: {} bytes\n", *item.enclosureLength);
  fmt::print("  signature: {}\n", item.edSignature ? "Ed25519" : "none");
  if (item.minimumSystemVersion) fmt::print("  minimum system: {}\n", *item.minimumSystemVersion);
  if (item.channel) fmt::print("  channel: {}\n", *item.channel);
  if (notes && !notes->empty()) {
    fmt::print("  release notes:\n");
    std::string_view rest = *notes;
    while (!rest.empty()) {
      const auto end = rest.find('\n');
      fmt::print("    {}\n", rest.substr(0, end));
      if (end == std::string_view::npos) break;
      rest.remove_prefix(end + 1);
    }
  }
}

// Feed options describe another feed than the agent's: such a command runs on its own.
bool agentMayRun(const FeedOptions& options) {
  return !options.feed && !options.mirror && !options.currentVersion && !options.beta;
}

// The updater's state as the agent sends it ("updater" topic), for the printer.
AppUpdateState stateFromAgent(const Json& value) {
  const std::string state = text(value, "state");
  const std::string version = text(value, "version");
  if (state == "downloading") {
    const Json total = value.value("total", Json());
    return {AppUpdateState::Downloading{
        version, value.value("received", std::uint64_t{0}),
        total.is_number_unsigned() ? std::optional(total.get<std::uint64_t>()) : std::nullopt}};
  }
  if (state == "checking") return {AppUpdateState::Checking{}};
  if (state == "upToDate") return {AppUpdateState::UpToDate{}};
  if (state == "available") {
    return {AppUpdateState::Available{version, text(value, "title"), text(value, "message"), text(value, "button"),
                                      value.value("dismissible", true)}};
  }
  if (state == "extracting") return {AppUpdateState::Extracting{version, value.value("progress", 0.0)}};
  if (state == "readyToInstall") return {AppUpdateState::ReadyToInstall{version}};
  if (state == "installing") return {AppUpdateState::Installing{}};
  if (state == "failed") return {AppUpdateState::Failed{text(value, "failure")}};
  return {AppUpdateState::Idle{}};
}

// Runs the request in the agent of this home; nothing when none runs (the command then does the
// work itself).
std::optional<std::expected<Json, CommandError>> askAgent(const GlobalOptions& global, const Json& request,
                                                          const std::function<void(const Json&)>& onEvent) {
  Exchange exchange{global, std::chrono::hours(2)};
  auto answer = exchange.run(request, onEvent);
  if (!answer && answer.error().code == ExitCode::noAgent) return std::nullopt;
  return answer;
}

CommandResult runCheck(const GlobalOptions& global, const FeedOptions& options) {
  if (agentMayRun(options)) {
    fmt::print("{}\n", update_texts::kConnecting);
    (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
    if (auto answer = askAgent(global, Json{{"command", "update"}, {"action", "check"}}, nullptr)) {
      if (!*answer) return std::unexpected(answer->error());
      const Json value = (*answer)->value("updater", Json::object());
      if (!(*answer)->value("ok", false)) return failure(ExitCode::failed, errorText(**answer));
      if (text(value, "state") == "upToDate") {
        fmt::print("{} ({})\n", update_texts::kUpToDate, kAppVersion);
        return {};
      }
      if (text(value, "state") != "available") return failure(ExitCode::failed, text(value, "text"));
      fmt::print("{} {}\n  title: {}\n", update_texts::kVersionAvailable, text(value, "version"),
                 text(value, "message"));
      const std::string notes = text(value, "releaseNotes");
      if (!notes.empty()) fmt::print("  release notes:\n    {}\n", notes);
      return {};
    }
  }
  auto context = AppContext::open(global);
  if (!context) return std::unexpected(context.error());
  auto session = openSession(**context, global, options);
  if (!session) return std::unexpected(session.error());
  AppUpdater& updater = *session->updater;

  fmt::print("{}\n", update_texts::kConnecting);
  (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
  auto settled = [&] {
    return !updater.state().get().is<AppUpdateState::Checking>() && !updater.releaseNotesLoading().get();
  };
  auto stopWhenSettled = [&](const auto&) {
    if (settled()) (*context)->loop().stop();
  };
  auto stateWatch = updater.state().subscribe(stopWhenSettled);
  auto notesWatch = updater.releaseNotesLoading().subscribe(stopWhenSettled);
  updater.checkForUpdates();
  if (!settled()) (*context)->runLoop();

  const AppUpdateState& state = updater.state().get();
  if (state.is<AppUpdateState::UpToDate>()) {
    fmt::print("{} ({})\n", update_texts::kUpToDate, kAppVersion);
    return {};
  }
  if (state.is<AppUpdateState::Available>() && updater.offeredItem()) {
    printOffer(*updater.offeredItem(), updater.releaseNotes().get());
    return {};
  }
  return failure(ExitCode::failed, describe(state));
}

// Download progress: a bar redrawn in place on a terminal, a line per tenth otherwise.
class ProgressPrinter {
 public:
  explicit ProgressPrinter(bool terminal) : terminal_(terminal) {}

  void show(const AppUpdateState& state) {
    if (const auto* d = state.as<AppUpdateState::Downloading>()) return download(*d);
    endBar();
    const std::string text = describe(state);
    if (!text.empty() && text != lastText_ && !state.is<AppUpdateState::Failed>()) fmt::print("{}\n", text);
    lastText_ = text;
    (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
  }
  void endBar() {
    if (barShown_) fmt::print("\n");
    barShown_ = false;
  }

 private:
  void download(const AppUpdateState::Downloading& d) {
    if (!terminal_) {
      const int tenth = d.total && *d.total > 0 ? static_cast<int>(d.received * 10 / *d.total) : -1;
      if (tenth == lastTenth_ && d.received != 0) return;
      lastTenth_ = tenth;
      if (d.total)
        fmt::print("{}: {} / {} bytes\n", update_texts::kDownloading, d.received, *d.total);
      else
        fmt::print("{}: {} bytes\n", update_texts::kDownloading, d.received);
      (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
      return;
    }
    constexpr int kWidth = 30;
    if (d.total && *d.total > 0) {
      const double share = std::min(1.0, static_cast<double>(d.received) / static_cast<double>(*d.total));
      const int filled = static_cast<int>(share * kWidth);
      fmt::print("\r{} [{}{}] {:3.0f}%  {} / {} ({} / {} bytes)\x1b[K", update_texts::kDownloading,
                 std::string(filled, '#'), std::string(kWidth - filled, '-'), share * 100, bytesText(d.received),
                 bytesText(*d.total), d.received, *d.total);
    } else {
      fmt::print("\r{} {} ({} bytes)\x1b[K", update_texts::kDownloading, bytesText(d.received), d.received);
    }
    barShown_ = true;
    (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
  }

  bool terminal_;
  bool barShown_ = false;
  int lastTenth_ = -2;
  std::string lastText_;
};

CommandResult runInstall(const GlobalOptions& global, const InstallOptions& options) {
  if (agentMayRun(options.feed)) {
    ProgressPrinter printer(::isatty(STDOUT_FILENO) == 1);
    Json request = {{"command", "update"}, {"action", "install"}};
    if (options.msiURL) {
      request["msiURL"] = *options.msiURL;
      request["msiVersion"] = options.msiVersion;
    } else {
      fmt::print("{}\n", update_texts::kConnecting);
    }
    auto answer = askAgent(global, request, [&printer](const Json& line) {
      if (text(line, "topic") == "updater") printer.show(stateFromAgent(line.value("value", Json::object())));
    });
    if (answer) {
      printer.endBar();
      if (!*answer) return std::unexpected(answer->error());
      if (!(*answer)->value("ok", false)) return failure(ExitCode::failed, errorText(**answer));
      const std::string message = text(**answer, "message");
      if (!message.empty()) fmt::print("{}\n", message);
      return {};
    }
  }
  auto context = AppContext::open(global);
  if (!context) return std::unexpected(context.error());
  auto session = openSession(**context, global, options.feed);
  if (!session) return std::unexpected(session.error());
  AppUpdater& updater = *session->updater;
  auto& loop = (*context)->loop();

  ProgressPrinter printer(::isatty(STDOUT_FILENO) == 1);
  bool installStarted = false;
  auto watch = updater.state().subscribe([&](const AppUpdateState& state) {
    printer.show(state);
    if (state.is<AppUpdateState::Available>() && !installStarted) {
      installStarted = true;
      loop.post([&] { updater.installUpdate(); });
    } else if (state.is<AppUpdateState::Failed>() || state.is<AppUpdateState::UpToDate>()) {
      loop.stop();
    }
  });
  if (options.msiURL) {
    installStarted = true;
    updater.installMandatoryUpdate({*options.msiURL, options.msiVersion, ""});
  } else {
    fmt::print("{}\n", update_texts::kConnecting);
    updater.checkForUpdates();
  }
  (*context)->runLoop();
  printer.endBar();

  const AppUpdateState& state = updater.state().get();
  if (session->quitRequested) {
    fmt::print("{}\n", update_texts::kWillRelaunch);
    return {};
  }
  if (state.is<AppUpdateState::UpToDate>()) return {};
  return failure(ExitCode::failed, describe(state));
}

void addFeedOptions(CLI::App* command, FeedOptions& options) {
  command->add_option("--feed", options.feed,
                      "Update feed URL (default: the built-in update host's feed for this system)");
  command->add_option("--mirror", options.mirror,
                      "Mirror feed URL, tried after the feed fails (default: none with --feed)");
  command->add_option("--current-version", options.currentVersion,
                      "Compare the feed with this build version instead of ours");
  command->add_flag("--beta", options.beta, "Also offer releases of the beta channel");
}

}  // namespace

void addUpdateCommands(CLI::App& app, const GlobalOptions& global, CommandResult& result) {
  auto* update = app.add_subcommand("update", "The update feed and the in-app install");
  update->require_subcommand(1);

  auto check = std::make_shared<FeedOptions>();
  auto* checkCommand = update->add_subcommand("check", "Print what the update feed offers");
  addFeedOptions(checkCommand, *check);
  checkCommand->callback([&global, &result, check] { result = runCheck(global, *check); });

  auto install = std::make_shared<InstallOptions>();
  auto* installCommand = update->add_subcommand("install", "Download and install the update, showing progress");
  addFeedOptions(installCommand, install->feed);
  installCommand->add_option("--msi-url", install->msiURL,
                             "Install this release file (a package on Linux), as a forced update does");
  installCommand->add_option("--msi-version", install->msiVersion, "The version of --msi-url, for display");
  installCommand->callback([&global, &result, install] { result = runInstall(global, *install); });
}

}  // namespace norvik::cli
