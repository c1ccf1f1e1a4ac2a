#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "norvik/version.h"
#include "platform/event_loop.h"
#include "platform/http_transport.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"
#include "update/app_version_checker.h"
#include "update/appcast_updater.h"
#include "update/update_installer.h"

namespace norvik {

// What the update screen and the menu bar show.
struct AppUpdateState {
  struct Idle {
    bool operator==(const Idle&) const = default;
  };
  struct Checking {
    bool operator==(const Checking&) const = default;
  };
  struct UpToDate {
    bool operator==(const UpToDate&) const = default;
  };
  struct Available {
    std::string version, title, message, button;
    bool dismissible = true;
    bool operator==(const Available&) const = default;
  };
  struct Downloading {
    std::string version;
    std::uint64_t received = 0;
    std::optional<std::uint64_t> total;
    bool operator==(const Downloading&) const = default;
  };
  struct Extracting {
    std::string version;
    double progress = 0;  // 0…1
    bool operator==(const Extracting&) const = default;
  };
  struct ReadyToInstall {
    std::string version;
    bool operator==(const ReadyToInstall&) const = default;
  };
  struct Installing {
    bool operator==(const Installing&) const = default;
  };
  struct Failed {
    std::string message;
    bool operator==(const Failed&) const = default;
  };

  std::variant<Idle, Checking, UpToDate, Available, Downloading, Extracting, ReadyToInstall, Installing, Failed> value;

  template <class T>
  [[nodiscard]] bool is() const {
    return std::holds_alternative<T>(value);
  }
  template <class T>
  [[nodiscard]] const T* as() const {
    return std::get_if<T>(&value);
  }
  bool operator==(const AppUpdateState&) const = default;
};

// The state's text for the screen (from update_texts.h).
[[nodiscard]] std::string describe(const AppUpdateState& state);

inline constexpr std::string_view kAppcastPath = "/mac/appcast.xml";
// The feed of the Linux packages, on the same hosts.
inline constexpr std::string_view kLinuxAppcastPath = "/linux/appcast.xml";
inline constexpr std::string_view kUpdateHost = "https://updates.norvik.app";
inline constexpr std::string_view kMirrorUpdateHost = "https://norvik-updates.net";

struct AppUpdaterConfig {
  // The feed and its mirror: the update host's kAppcastPath. The mirror lives on another
  // domain, so that one blocked or broken host does not stop updates.
  std::string feedURL = "https://updates.norvik.app/mac/appcast.xml";
  std::string mirrorFeedURL = "https://norvik-updates.net/mac/appcast.xml";
  std::string currentVersion = kAppVersion;
  std::chrono::seconds checkInterval{std::chrono::hours(4)};
  std::chrono::seconds firstCheckDelay{30};
  bool betaChannel = false;
  std::optional<std::string> systemVersion{};
  std::chrono::seconds releaseNotesTimeout{15};
};

// Keeps the application current: checks the update feed (main host, then the mirror after a
// failure) now and then and on request, offers what it finds with its release notes, and installs
// either the feed's release or the file of a forced update through this system's installer.
//
// Threading: main loop. Ownership: owns the appcast updater (which may be absent), borrows the
// rest. Hooks run on the loop.
class AppUpdater {
 public:
  struct Hooks {
    std::function<void()> quitApplication;  // after a successful install; the relaunch is under way
    std::function<void()> onAvailableDismissed;
  };

  AppUpdater(EventLoop& loop, HttpTransport& transport, std::unique_ptr<AppcastUpdater> updater,
             UpdateInstaller& installer, Log& log, AppUpdaterConfig config = {}, Hooks hooks = {});
  AppUpdater(const AppUpdater&) = delete;
  AppUpdater& operator=(const AppUpdater&) = delete;
  ~AppUpdater();

  // Starts the appcast updater and its periodic checks.
  void start();
  // A check the user asked for: its outcome is always shown.
  void checkForUpdates() { check(true); }
  // A periodic check: shows only what is new, never failures.
  void checkInBackground() { check(false); }
  // "Later" on the offered version: it is not offered again by background checks.
  void postpone();
  // Installs the offered feed release.
  void installUpdate();
  // A forced update from the version check.
  void installMandatoryUpdate(const MandatoryUpdate& update);
  // Stops a running download.
  void cancelDownload();

  [[nodiscard]] Published<AppUpdateState>& state() { return state_; }
  [[nodiscard]] Published<std::optional<std::string>>& releaseNotes() { return releaseNotes_; }
  [[nodiscard]] Published<bool>& canCheck() { return canCheck_; }
  [[nodiscard]] Published<std::optional<std::string>>& postponedVersion() { return postponedVersion_; }
  // True while the offered release's notes are being fetched.
  [[nodiscard]] Published<bool>& releaseNotesLoading() { return releaseNotesLoading_; }
  [[nodiscard]] const std::optional<AppcastItem>& offeredItem() const { return offeredItem_; }
  [[nodiscard]] bool hasAppcastUpdater() const { return updater_ != nullptr; }

 private:
  void check(bool manual);
  void fetchFeed();
  void onFeed(AppcastResult result);
  void offer(const AppcastItem& item);
  void loadReleaseNotes(const AppcastItem& item);
  void runInstall(UpdateSource source);
  void onInstallProgress(const InstallProgress& progress);
  void onInstalled(InstallResult result);
  void takePendingMandatory();
  void updateCanCheck();
  [[nodiscard]] bool busy() const;
  [[nodiscard]] std::string busyReason() const;

  EventLoop& loop_;
  HttpTransport& transport_;
  UpdateInstaller& installer_;
  Log& log_;
  AppUpdaterConfig config_;
  Hooks hooks_;

  Published<AppUpdateState> state_;
  Published<std::optional<std::string>> releaseNotes_;
  Published<bool> canCheck_{false};
  Published<std::optional<std::string>> postponedVersion_;
  Published<bool> releaseNotesLoading_{false};
  std::unique_ptr<AppcastUpdater> updater_;
  RepeatingTimer periodicChecks_;
  OneShotTimer firstCheck_;

  std::optional<AppcastItem> offeredItem_;
  std::string pendingVersion_;
  bool manualCheck_ = false;
  bool autoInstallWhenReady_ = false;
  bool useMirrorForNextCheck_ = false;
  bool mirrorRetryInFlight_ = false;
  bool checkInFlight_ = false;
  bool checkingMirror_ = false;
  std::optional<std::string> msiURL_;
  std::string msiVersion_;
  std::string msiWebLink_;
  std::optional<MandatoryUpdate> pendingMandatory_;  // came while the updater was busy
  std::string installingVersion_;

  WeakPtrFactory<AppUpdater> weakFactory_{this};
};

}  // namespace norvik
