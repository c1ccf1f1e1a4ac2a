#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <optional>
#include <string>

#include "platform/file_downloader.h"

namespace norvik {

// What to install: the release file and what the feed (or the version check) says about it.
struct UpdateSource {
  std::string url;
  std::string version;
  std::optional<std::uint64_t> expectedLength{};
  std::optional<std::string> edSignature{};
  // Refuse a download without a signature (the feed's items when a key is provisioned).
  bool signatureRequired = false;
};

enum class InstallStep { downloading, mounting, verifying, staging, replacing, relaunching };

struct InstallProgress {
  InstallStep step = InstallStep::downloading;
  DownloadProgress download{};  // meaningful while downloading
};

// Why an install ended: the fixed text for the user and the detail for the log.
struct InstallFailure {
  std::string userMessage;
  std::string detail;
  bool operator==(const InstallFailure&) const = default;
};

// Success means the new application is in place and its restart is under way; the caller quits.
using InstallResult = std::expected<void, InstallFailure>;
using InstallCompletion = std::move_only_function<void(InstallResult)>;
using InstallProgressHandler = std::function<void(const InstallProgress&)>;

// Installs one release of the application on this system: a disk image on macOS, the Debian
// package on Linux. The download's size and Ed25519 signature are checked before anything opens
// it; then the release is checked to be ours, put in place and the application restarted.
// `makeUpdateInstaller` (update/platform_update_installer.h) picks the one for this system.
//
// Threading: a main-loop object. One install at a time: a second is refused at once with "Не
// удалось обновить". The completion runs on the loop, exactly once, and is dropped if the installer
// is gone.
class UpdateInstaller {
 public:
  virtual ~UpdateInstaller() = default;

  virtual void install(UpdateSource source, InstallProgressHandler progress, InstallCompletion completion) = 0;
  // Stops a running download; the install then ends with "Установка отменена". Later steps are not
  // interrupted: a half-done replacement is worse than a finished one.
  virtual void cancel() = 0;
  [[nodiscard]] virtual bool isRunning() const = 0;
  // Whether a feed key is provisioned, so that the feed's releases must carry its signature.
  [[nodiscard]] virtual bool checksFeedSignatures() const = 0;
};

}  // namespace norvik
