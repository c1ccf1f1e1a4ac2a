#include "update/disk_image_installer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/text.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

namespace texts = update_texts;
namespace tools = install_tools;

std::string str(std::string_view s) { return std::string(s); }

// The tool's own words for a failure: its error output, else its standard output, else the status.
std::string toolFailure(const ProcessRunResult& result) {
  if (!result) return result.error().description();
  const auto err = trimWhitespace(result->err);
  const auto out = trimWhitespace(result->out);
  const std::string_view said = !err.empty() ? err : out;
  if (said.empty()) return fmt::format("exit status {}", result->exitStatus);
  return fmt::format("exit status {}: {}", result->exitStatus, utf8Prefix(said, 300));
}

bool succeeded(const ProcessRunResult& result) { return result && result->succeeded(); }

// Escapes for an AppleScript string literal.
std::string appleScriptString(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    switch (c) {
      case '\\':
        out += "\\\\";
        break;
      case '"':
        out += "\\\"";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        out += c;
        break;
    }
  }
  out += '"';
  return out;
}

bool hasLine(std::string_view text, std::string_view wanted) {
  while (!text.empty()) {
    const auto end = text.find('\n');
    const auto line = trimWhitespace(text.substr(0, end));
    if (line == wanted) return true;
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return false;
}

std::string teamLine(std::string_view text) {
  const auto at = text.find("TeamIdentifier=");
  if (at == std::string_view::npos) return "no TeamIdentifier line";
  return std::string(trimWhitespace(text.substr(at, text.find('\n', at) - at)));
}

}  // namespace

std::string shellQuoted(std::string_view path) {
  std::string out = "\"";
  for (char c : path) {
    if (c == '\\' || c == '"' || c == '$' || c == '`') out += '\\';
    out += c;
  }
  out += '"';
  return out;
}

std::string administratorReplaceScript(const std::filesystem::path& app, const std::filesystem::path& staging) {
  const std::string shell = "rm -rf " + shellQuoted(app.string()) + " && mv " + shellQuoted(staging.string()) + " " +
                            shellQuoted(app.string());
  return "do shell script " + appleScriptString(shell) + " with administrator privileges";
}

std::string relaunchShellText(const std::filesystem::path& app) { return "sleep 1; open " + shellQuoted(app.string()); }

std::optional<std::string> attachedTarget(std::string_view output, const std::filesystem::path& volumesDirectory,
                                          bool* isMountPoint) {
  const std::string prefix = volumesDirectory.string() + "/";
  std::optional<std::string> mountPoint;
  std::optional<std::string> device;
  while (!output.empty()) {
    const auto end = output.find('\n');
    const auto line = output.substr(0, end);
    if (const auto at = line.find(prefix); at != std::string_view::npos) {
      const std::filesystem::path candidate = std::filesystem::path(trimWhitespace(line.substr(at))).lexically_normal();
      const auto relative = candidate.lexically_relative(volumesDirectory);
      if (!relative.empty() && *relative.begin() != ".." && *relative.begin() != ".") mountPoint = candidate.string();
    }
    if (!device && line.starts_with("/dev/")) device = std::string(line.substr(0, line.find_first_of(" \t")));
    if (end == std::string_view::npos) break;
    output.remove_prefix(end + 1);
  }
  if (isMountPoint) *isMountPoint = mountPoint.has_value();
  return mountPoint ? mountPoint : device;
}

DiskImageInstaller::DiskImageInstaller(EventLoop& loop, FileDownloader& downloader, ProcessRunner& processes, Log& log,
                                       DiskImageInstallerConfig config)
    : processes_(processes), log_(log), config_(std::move(config)), download_(loop, downloader, log) {}

DiskImageInstaller::~DiskImageInstaller() {
  download_.cancel();
  if (running_) cleanUp();
}

void DiskImageInstaller::install(DiskImageSource source, InstallProgressHandler progress,
                                 InstallCompletion completion) {
  if (running_) {
    completion(std::unexpected(InstallFailure{str(texts::kCouldNotUpdate), "another install is running"}));
    return;
  }
  running_ = true;
  source_ = std::move(source);
  progress_ = std::move(progress);
  completion_ = std::move(completion);
  attached_.reset();
  privateStagingDirectory_.reset();

  if (config_.runningBundle && config_.runningBundle->lexically_normal() != config_.installedApp().lexically_normal()) {
    return fail(texts::kMoveToApplications, fmt::format("the app runs from {}, not {}", config_.runningBundle->string(),
                                                        config_.installedApp().string()));
  }
  download_.start(
      source_,
      VerifiedDownload::Settings{config_.temporaryDirectory, ".dmg", config_.ed25519PublicKey,
                                 config_.downloadStallTimeout},
      [weak = weakFactory_.weak()](DownloadProgress p) {
        if (auto self = weak.lock()) self->report(InstallStep::downloading, p);
      },
      [weak = weakFactory_.weak()](std::expected<void, InstallFailure> checked) {
        if (auto self = weak.lock()) self->onDownloadChecked(std::move(checked));
      });
}

void DiskImageInstaller::cancel() { download_.cancel(); }

void DiskImageInstaller::onDownloadChecked(std::expected<void, InstallFailure> checked) {
  if (!checked) return fail(checked.error().userMessage, checked.error().detail);
  mount();
}

template <class Next>
void DiskImageInstaller::runTool(std::vector<std::string> argv, Next next, std::chrono::milliseconds timeout) {
  processes_.run(ProcessCommand{std::move(argv), timeout},
                 [weak = weakFactory_.weak(), next = std::move(next)](ProcessRunResult result) mutable {
                   if (auto self = weak.lock()) next(*self, std::move(result));
                 });
}

void DiskImageInstaller::mount() {
  report(InstallStep::mounting);
  runTool({str(tools::kHdiutil), "attach", "-nobrowse", "-noautoopen", "-noverify", download_.file().string()},
          [](DiskImageInstaller& self, ProcessRunResult result) {
            bool isMountPoint = false;
            std::optional<std::string> target;
            if (result) target = attachedTarget(result->out, self.config_.volumesDirectory, &isMountPoint);
            if (succeeded(result)) self.attached_ = target;
            if (!succeeded(result)) return self.fail(texts::kCannotOpenImage, "hdiutil attach: " + toolFailure(result));
            if (!isMountPoint) {
              return self.fail(texts::kCannotOpenImage, fmt::format("hdiutil attach named no volume under {}",
                                                                    self.config_.volumesDirectory.string()));
            }
            self.mountedApp_ = std::filesystem::path(*target) / self.config_.appBundleName;
            // A link could point anywhere; only a real bundle directory on the image counts.
            std::error_code ec;
            if (!std::filesystem::is_directory(std::filesystem::symlink_status(self.mountedApp_, ec))) {
              return self.fail(texts::kNoAppInImage, fmt::format("{} is missing", self.mountedApp_.string()));
            }
            self.verifyCodeSignature();
          });
}

void DiskImageInstaller::verifyCodeSignature() {
  report(InstallStep::verifying);
  runTool({str(tools::kCodesign), "--verify", "--deep", "--strict", mountedApp_.string()},
          [](DiskImageInstaller& self, ProcessRunResult result) {
            if (!succeeded(result))
              return self.fail(texts::kBadCodeSignature, "codesign --verify: " + toolFailure(result));
            self.checkTeam();
          });
}

void DiskImageInstaller::checkTeam() {
  runTool({str(tools::kCodesign), "--display", "--verbose=2", mountedApp_.string()},
          [](DiskImageInstaller& self, ProcessRunResult result) {
            const std::string wanted = "TeamIdentifier=" + self.config_.teamIdentifier;
            // codesign writes the details to standard error.
            const std::string said = result ? result->err + "\n" + result->out : std::string();
            if (!succeeded(result)) return self.fail(texts::kWrongTeam, "codesign --display: " + toolFailure(result));
            if (!hasLine(said, wanted)) return self.fail(texts::kWrongTeam, teamLine(said));
            self.assess();
          });
}

void DiskImageInstaller::assess() {
  runTool({str(tools::kSpctl), "--assess", "--type", "execute", mountedApp_.string()},
          [](DiskImageInstaller& self, ProcessRunResult result) {
            if (!succeeded(result))
              return self.fail(texts::kAssessmentFailed, "spctl --assess: " + toolFailure(result));
            self.stageInApplications();
          });
}

void DiskImageInstaller::stageInApplications() {
  report(InstallStep::staging);
  staging_ = config_.stagingApp();
  runTool({str(tools::kRm), "-rf", staging_.string()}, [](DiskImageInstaller& self, ProcessRunResult removed) {
    if (!succeeded(removed)) return self.stageOutsideApplications("rm -rf: " + toolFailure(removed));
    self.runTool({str(tools::kDitto), self.mountedApp_.string(), self.staging_.string()},
                 [](DiskImageInstaller& self, ProcessRunResult copied) {
                   if (!succeeded(copied)) return self.stageOutsideApplications("ditto: " + toolFailure(copied));
                   self.detachAfterStaging();
                 });
  });
}

// The Applications folder refused the staging copy (it is not writable for this user). The copy
// goes to a private directory instead, and the replacement will need the administrator.
void DiskImageInstaller::stageOutsideApplications(std::string reason) {
  std::string pattern = (updateTemporaryDirectory(config_.temporaryDirectory) / "Norvik-update-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    return fail(texts::kNoAccessToApplications,
                fmt::format("{}; mkdtemp {}: {}", reason, pattern, std::strerror(errno)));
  }
  privateStagingDirectory_ = pattern;
  staging_ = *privateStagingDirectory_ / config_.appBundleName;
  runTool({str(tools::kDitto), mountedApp_.string(), staging_.string()}, [reason](DiskImageInstaller& self,
                                                                                  ProcessRunResult copied) {
    if (!succeeded(copied)) {
      return self.fail(texts::kNoAccessToApplications, fmt::format("{}; ditto: {}", reason, toolFailure(copied)));
    }
    self.detachAfterStaging();
  });
}

void DiskImageInstaller::detachAfterStaging() {
  const std::string target = attached_.value_or("");
  runTool({str(tools::kHdiutil), "detach", target}, [target](DiskImageInstaller& self, ProcessRunResult result) {
    if (succeeded(result)) {
      self.attached_.reset();
      return self.replace();
    }
    self.runTool({str(tools::kHdiutil), "detach", target, "-force"},
                 [target](DiskImageInstaller& self, ProcessRunResult forced) {
                   // A volume left attached is untidy, not dangerous: the copy is already staged.
                   if (!succeeded(forced))
                     self.log_.format("[Update] msi: образ не отключился ({}): {}", target, toolFailure(forced));
                   self.attached_.reset();
                   self.replace();
                 });
  });
}

void DiskImageInstaller::replace() {
  report(InstallStep::replacing);
  if (privateStagingDirectory_) {
    // As this user the Applications folder cannot even hold the copy; only the administrator can
    // replace the app, and trying without would only half-delete it.
    return replaceAsAdministrator("папка «Программы» недоступна для записи");
  }
  const std::string app = config_.installedApp().string();
  runTool({str(tools::kRm), "-rf", app}, [app](DiskImageInstaller& self, ProcessRunResult removed) {
    if (!succeeded(removed)) return self.replaceAsAdministrator("rm -rf: " + toolFailure(removed));
    self.runTool({str(tools::kMv), self.staging_.string(), app}, [](DiskImageInstaller& self, ProcessRunResult moved) {
      if (!succeeded(moved)) return self.replaceAsAdministrator("mv: " + toolFailure(moved));
      self.relaunch();
    });
  });
}

void DiskImageInstaller::replaceAsAdministrator(std::string reason) {
  log_.format("[Update] msi: замена без прав не прошла ({}) — просим пароль администратора", reason);
  const std::string script = administratorReplaceScript(config_.installedApp(), staging_);
  runTool(
      {str(tools::kOsascript), "-e", script},
      [](DiskImageInstaller& self, ProcessRunResult result) {
        if (!succeeded(result)) {
          const std::string detail = toolFailure(result);
          self.log_.format("[Update] msi: замена с правами администратора не прошла: {}", detail);
          return self.restoreIfRemoved(InstallFailure{str(texts::kCouldNotFinish), detail});
        }
        self.relaunch();
      },
      std::chrono::milliseconds(0));
}

void DiskImageInstaller::restoreIfRemoved(InstallFailure failure) {
  // The installed application may already be gone (removed as the user before the move failed,
  // or by half the administrator's script): the staging copy takes its place, so that the user
  // is never left without the application.
  std::error_code ec;
  const std::filesystem::path app = config_.installedApp();
  if (std::filesystem::exists(app, ec) || !std::filesystem::exists(staging_, ec)) {
    return finish(std::unexpected(std::move(failure)));
  }
  log_.format("[Update] msi: приложения нет на месте — ставим копию из {}", staging_.string());
  runTool({str(tools::kDitto), staging_.string(), app.string()},
          [failure = std::move(failure)](DiskImageInstaller& self, ProcessRunResult copied) mutable {
            if (succeeded(copied)) {
              self.log_.write("[Update] msi: приложение восстановлено из копии обновления");
            } else {
              self.log_.format("[Update] msi: восстановить приложение не удалось: {}", toolFailure(copied));
              failure.detail += "; restore: " + toolFailure(copied);
            }
            self.finish(std::unexpected(std::move(failure)));
          });
}

void DiskImageInstaller::relaunch() {
  report(InstallStep::relaunching);
  auto launched = processes_.launchDetached({str(tools::kShell), "-c", relaunchShellText(config_.installedApp())});
  if (!launched) return fail(texts::kCouldNotUpdate, "relaunch: " + launched.error().description());
  log_.write("[Update] msi: обновление установлено, перезапуск");
  finish({});
}

void DiskImageInstaller::fail(std::string_view userMessage, std::string detail) {
  log_.format("[Update] msi: установка не удалась: {} ({})", userMessage, detail);
  InstallResult result = std::unexpected(InstallFailure{str(userMessage), std::move(detail)});
  if (!attached_) return finish(std::move(result));
  const std::string target = *attached_;
  runTool({str(tools::kHdiutil), "detach", target, "-force"},
          [target, result = std::move(result)](DiskImageInstaller& self, ProcessRunResult detached) mutable {
            if (!succeeded(detached))
              self.log_.format("[Update] msi: образ не отключился ({}): {}", target, toolFailure(detached));
            self.attached_.reset();
            self.finish(std::move(result));
          });
}

void DiskImageInstaller::finish(InstallResult result) {
  cleanUp();
  running_ = false;
  progress_ = nullptr;
  if (auto completion = std::move(completion_)) completion(std::move(result));
}

void DiskImageInstaller::report(InstallStep step, DownloadProgress download) {
  if (progress_) progress_(InstallProgress{step, download});
}

void DiskImageInstaller::cleanUp() {
  std::error_code ec;
  download_.removeFile();
  if (privateStagingDirectory_) std::filesystem::remove_all(*privateStagingDirectory_, ec);
  privateStagingDirectory_.reset();
}

}  // namespace norvik
