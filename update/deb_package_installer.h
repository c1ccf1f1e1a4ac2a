#pragma once

#include <chrono>
#include <filesystem>
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

// The system tools the Linux install runs, always by absolute path.
namespace package_tools {
inline constexpr std::string_view kDpkgDeb = "/usr/bin/dpkg-deb";
inline constexpr std::string_view kDpkg = "/usr/bin/dpkg";
inline constexpr std::string_view kPkexec = "/usr/bin/pkexec";
inline constexpr std::string_view kAptGet = "/usr/bin/apt-get";
}  // namespace package_tools

struct DebPackageInstallerConfig {
  std::string packageName = "norvik";
  // The system's Debian architecture; empty: asked of `dpkg --print-architecture`.
  std::string architecture{};
  std::filesystem::path temporaryDirectory{};  // empty: the system's ($TMPDIR, else /tmp)
  // The release key. It checks the feed's signature of the download and the package's own
  // signature; without it nothing can be checked and nothing is installed.
  std::optional<Bytes> ed25519PublicKey{};
  std::chrono::milliseconds downloadStallTimeout{std::chrono::seconds(60)};
  // A tool that takes longer is ended; the administrator's install, which waits for a person, has none.
  std::chrono::milliseconds toolTimeout{std::chrono::minutes(2)};
};

// Installs an update from a Debian package, the Linux counterpart of the disk-image install:
//   1. download — size and the feed's Ed25519 signature checked before anything else;
//   2. the package's own signature member ("_norvik-sig"): signed with our key, else "Файл подписан
//      не нами — установка отменена"; a signature that does not verify: "Загруженный файл повреждён
//      (подпись)";
//   3. its control fields (`dpkg-deb --field`): the package must be "norvik" (else not ours) and
//      built for this architecture;
//   4. `pkexec apt-get install` of the file: polkit asks for the administrator's consent, apt brings
//      any new dependency; a dismissed prompt is "Установка отменена", any other failure "Не удалось
//      завершить установку обновления";
//   5. the package's own scripts restart every running agent (the new programs, and a quiet
//      replacement of the tunnel helper); the caller quits.
// The downloaded file is removed at the end either way.
//
// Threading: a main-loop object. One install at a time; the completion runs on the loop and is
// dropped if the installer is gone.
class DebPackageInstaller final : public UpdateInstaller {
 public:
  DebPackageInstaller(EventLoop& loop, FileDownloader& downloader, ProcessRunner& processes, Log& log,
                      DebPackageInstallerConfig config = {});
  DebPackageInstaller(const DebPackageInstaller&) = delete;
  DebPackageInstaller& operator=(const DebPackageInstaller&) = delete;
  ~DebPackageInstaller() override;

  void install(UpdateSource source, InstallProgressHandler progress, InstallCompletion completion) override;
  void cancel() override { download_.cancel(); }
  [[nodiscard]] bool isRunning() const override { return running_; }
  [[nodiscard]] bool checksFeedSignatures() const override { return config_.ed25519PublicKey.has_value(); }
  [[nodiscard]] const DebPackageInstallerConfig& config() const { return config_; }

 private:
  void onDownloadChecked(std::expected<void, InstallFailure> checked);
  void onSignatureChecked(std::expected<void, InstallFailure> checked);
  void readControlFields();
  void checkArchitecture(const std::string& packageArchitecture);
  void installAsAdministrator();
  void fail(std::string_view userMessage, std::string detail);
  void finish(InstallResult result);
  void report(InstallStep step, DownloadProgress download = {});
  template <class Next>
  void runTool(std::vector<std::string> argv, std::chrono::milliseconds timeout, Next next);

  EventLoop& loop_;
  ProcessRunner& processes_;
  Log& log_;
  DebPackageInstallerConfig config_;

  bool running_ = false;
  UpdateSource source_;
  InstallProgressHandler progress_;
  InstallCompletion completion_;
  VerifiedDownload download_;

  WeakPtrFactory<DebPackageInstaller> weakFactory_{this};
};

// The package's fields from `dpkg-deb --field FILE Package Version Architecture`: "Name: value"
// lines; a missing field reads as empty.
struct PackageFields {
  std::string package, version, architecture;
};
[[nodiscard]] PackageFields parsePackageFields(std::string_view dpkgDebOutput);

}  // namespace norvik
