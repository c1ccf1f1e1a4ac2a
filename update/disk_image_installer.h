#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/bytes.h"
#include "platform/event_loop.h"
#include "platform/file_downloader.h"
#include "platform/log.h"
#include "platform/process_runner.h"
#include "platform/weak_ptr_factory.h"
#include "update/update_installer.h"
#include "update/verified_download.h"

namespace norvik {

// The system tools the install runs, always by absolute path.
namespace install_tools {
inline constexpr std::string_view kHdiutil = "/usr/bin/hdiutil";
inline constexpr std::string_view kCodesign = "/usr/bin/codesign";
inline constexpr std::string_view kSpctl = "/usr/sbin/spctl";
inline constexpr std::string_view kDitto = "/usr/bin/ditto";
inline constexpr std::string_view kRm = "/bin/rm";
inline constexpr std::string_view kMv = "/bin/mv";
inline constexpr std::string_view kOsascript = "/usr/bin/osascript";
inline constexpr std::string_view kShell = "/bin/sh";
}  // namespace install_tools

// Where the install puts things. The defaults are the product's; tests point them at a temporary
// directory.
struct DiskImageInstallerConfig {
  std::filesystem::path applicationsDirectory = "/Applications";
  std::string appBundleName = "Norvik.app";
  std::filesystem::path volumesDirectory = "/Volumes";
  std::filesystem::path temporaryDirectory{};  // empty: the system's ($TMPDIR, else /tmp)
  std::string teamIdentifier = "QX7RT2LM9A";
  // Where the running application lives, when the shell knows it. An application that does not run
  // from the installed path (started from the disk image, say) is not replaced.
  std::optional<std::filesystem::path> runningBundle{};
  // The feed's Ed25519 key; without it a signed download cannot be checked and is refused.
  std::optional<Bytes> ed25519PublicKey{};
  std::chrono::milliseconds downloadStallTimeout{std::chrono::seconds(60)};
  // A tool that takes longer is ended; the administrator prompt, which waits for a person, has none.
  std::chrono::milliseconds toolTimeout{std::chrono::minutes(5)};

  [[nodiscard]] std::filesystem::path installedApp() const { return applicationsDirectory / appBundleName; }
  [[nodiscard]] std::filesystem::path stagingApp() const { return applicationsDirectory / (appBundleName + ".update"); }
};

// The macOS name of what to install: the disk image and what the feed says about it.
using DiskImageSource = UpdateSource;

// Installs an update from a disk image: download (size and Ed25519 signature checked before
// anything is opened), mount, find the app, verify its code signature and team, assess it, stage a
// copy beside the installed app, detach, replace — as the user, else through the administrator
// prompt — and relaunch. The image is detached on every failure after it was mounted, and the
// downloaded file is removed at the end either way.
//
// Threading: a main-loop object. One install at a time; the completion runs on the loop and is
// dropped if the installer is gone.
class DiskImageInstaller final : public UpdateInstaller {
 public:
  DiskImageInstaller(EventLoop& loop, FileDownloader& downloader, ProcessRunner& processes, Log& log,
                     DiskImageInstallerConfig config = {});
  DiskImageInstaller(const DiskImageInstaller&) = delete;
  DiskImageInstaller& operator=(const DiskImageInstaller&) = delete;
  ~DiskImageInstaller() override;

  // Refused at once (with `kCouldNotUpdate`) while another install runs.
  void install(DiskImageSource source, InstallProgressHandler progress, InstallCompletion completion) override;
  // Stops a running download; the install then ends with `kCancelled`. Later steps are not
  // interrupted: a half-done replacement is worse than a finished one.
  void cancel() override;
  [[nodiscard]] bool isRunning() const override { return running_; }
  [[nodiscard]] bool checksFeedSignatures() const override { return config_.ed25519PublicKey.has_value(); }
  [[nodiscard]] const DiskImageInstallerConfig& config() const { return config_; }

 private:
  void fail(std::string_view userMessage, std::string detail);
  void finish(InstallResult result);
  void report(InstallStep step, DownloadProgress download = {});
  template <class Next>
  void runTool(std::vector<std::string> argv, Next next, std::chrono::milliseconds timeout);
  template <class Next>
  void runTool(std::vector<std::string> argv, Next next) {
    runTool(std::move(argv), std::move(next), config_.toolTimeout);
  }

  void onDownloadChecked(std::expected<void, InstallFailure> checked);
  void mount();
  void verifyCodeSignature();
  void checkTeam();
  void assess();
  void stageInApplications();
  void stageOutsideApplications(std::string reason);
  void detachAfterStaging();
  void replace();
  // Ends a failed replacement; puts the staging copy in place first when the installed app is gone.
  void restoreIfRemoved(InstallFailure failure);
  void replaceAsAdministrator(std::string reason);
  void relaunch();
  void cleanUp();

  ProcessRunner& processes_;
  Log& log_;
  DiskImageInstallerConfig config_;

  bool running_ = false;
  DiskImageSource source_;
  InstallProgressHandler progress_;
  InstallCompletion completion_;
  VerifiedDownload download_;
  std::optional<std::string> attached_;  // mount point (or device) while the image is attached
  std::filesystem::path mountedApp_;
  std::filesystem::path staging_;                                 // where the staged copy is
  std::optional<std::filesystem::path> privateStagingDirectory_;  // set when Applications refused it

  WeakPtrFactory<DiskImageInstaller> weakFactory_{this};
};

// Shell quoting for the two shell texts the install must hand over: the path in double quotes with
// `\`, `"`, `$` and the backquote escaped, so that the shell takes it as one literal word.
[[nodiscard]] std::string shellQuoted(std::string_view path);
// The AppleScript that replaces the app as an administrator.
[[nodiscard]] std::string administratorReplaceScript(const std::filesystem::path& app,
                                                     const std::filesystem::path& staging);
// The shell text that starts the new app once this one has quit.
[[nodiscard]] std::string relaunchShellText(const std::filesystem::path& app);
// The mount point (or, failing that, the device) in hdiutil attach's answer.
[[nodiscard]] std::optional<std::string> attachedTarget(std::string_view hdiutilOutput,
                                                        const std::filesystem::path& volumesDirectory,
                                                        bool* isMountPoint = nullptr);

}  // namespace norvik
