#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "backend/endpoint_responses.h"
#include "backend/network_service.h"
#include "platform/clock.h"
#include "platform/defaults.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

// The prompt a screen shows after a version check. `showUpdateAlert` false means no prompt.
struct UpdatePrompt {
  bool showUpdateAlert = false;
  std::string updateTitle;
  std::string updateMessage;
  std::string updateLink;     // what the main button acts on: the disk image for in-app, else the page
  std::string updateWebLink;  // the download page
  std::string updateMainButton;
  std::string updateLaterButton;
  std::string updateTextAfterButton;
  bool isForceUpdate = false;
  bool isSoftScreen = false;
  // Unique within the run for each prompt put up; an answer names it.
  std::uint64_t id = 0;
  bool operator==(const UpdatePrompt&) const = default;
};

// What the version check hands the in-app updater when a forced update is to be installed.
struct MandatoryUpdate {
  std::optional<std::string> msiURL;  // the disk image; absent: the updater takes the feed's newest item
  std::string version;                // not told by the backend: empty
  std::string webLink;                // the download page, for when installing is impossible
  bool operator==(const MandatoryUpdate&) const = default;
};

enum class UpdatePromptKind { none, oneTime, softScreen, forced, ordinary };

// Asks the backend whether a newer version exists and turns the answer into a prompt: forced, soft
// full screen, one-time per release, or an ordinary alert. Dismissals start cooldowns in the
// standard defaults, so a prompt does not come back before its time.
//
// Checks: at most one at a time and one per 30 s; a failed check is retried 3 times, 3 s apart
// (each attempt is one `check_app_version` call with that endpoint's own retries).
//
// The release hash of a one-time prompt: the backend's update info carries no identifier of the
// release, so the hash is taken from its content — the first 16 hex digits of SHA-256 over the
// title, message, link and disk-image URL (see releaseHash). A new release changes at least one.
//
// A prompt counts as shown only once a front-end has it on screen (markSeen): that is when
// "update_available" is recorded and a one-time prompt's "ontimeUpdateLastShown" is written. A
// prompt nobody saw starts no cooldown and cannot be put off.
//
// Threading: main loop. Ownership: borrows everything; hooks are called on the loop.
class AppVersionChecker {
 public:
  static constexpr int kMaxRetries = 3;
  static constexpr std::chrono::seconds kMinCheckInterval{30};
  static constexpr std::chrono::seconds kRetryDelay{3};
  static constexpr double kDefaultCooldownSeconds = 172800;  // 2 days
  static constexpr double kOneTimeCooldownSeconds = 172800;
  static constexpr double kMaxCooldownHours = 24 * 365;  // a bigger value is clamped to a year

  // Standard-defaults keys.
  static constexpr std::string_view kOntimeUpdateLastShownKey = "ontimeUpdateLastShown";
  static constexpr std::string_view kOntimeHashLastShownPrefix = "ontimeHashLastShown_";
  static constexpr std::string_view kSoftScreenCooldownKey = "softScreenUpdateCooldownUntil";
  static constexpr std::string_view kNormalCooldownKey = "winNormalUpdateCooldownUntil";

  struct Hooks {
    std::function<void(const MandatoryUpdate&)> installInApp;  // the in-app updater
    std::function<void(const std::string& url)> openURL;       // the browser
  };

  AppVersionChecker(EventLoop& loop, NetworkService& network, Defaults& standardDefaults, Clock& clock, Log& log,
                    Analytics& analytics, Hooks hooks);
  AppVersionChecker(const AppVersionChecker&) = delete;
  AppVersionChecker& operator=(const AppVersionChecker&) = delete;

  // A trigger: start, return to the foreground, a push.
  void check();
  // A front-end has the prompt on screen; the first call for each prompt records the showing.
  void markSeen();
  // "Later": starts the prompt's cooldown and hides it. A forced prompt cannot be put off, nor can
  // one no front-end has seen. False when nothing was put off.
  bool dismiss();
  // The main button: installs in the app for a forced update that can, else opens the page.
  void pressMainButton();

  [[nodiscard]] Published<UpdatePrompt>& prompt() { return prompt_; }
  [[nodiscard]] bool isChecking() const { return isChecking_; }
  [[nodiscard]] int retryCount() const { return retryCount_; }
  [[nodiscard]] UpdatePromptKind promptKind() const { return kind_; }
  [[nodiscard]] bool promptSeen() const { return seen_; }
  // The main button installs in the app (a forced update with in-app install) rather than opening
  // the page.
  [[nodiscard]] bool installsInApp() const { return kind_ == UpdatePromptKind::forced && inAppUpdate_; }
  [[nodiscard]] const std::string& releaseHash() const { return releaseHash_; }

  [[nodiscard]] static std::string releaseHash(const UpdateInfo& info);

 private:
  void send();
  void onAnswer(std::expected<AppVersionResponse, APIError> answer);
  void present(const UpdateInfo& info);
  void show(const UpdateInfo& info);
  void clearPrompt();
  // Stores now + the cooldown of `cooldown_hours` under `key`; returns the whole hours, or
  // nothing when the cooldown was removed.
  std::optional<long long> startCooldown(std::string_view key);
  [[nodiscard]] bool cooldownActive(std::string_view key) const;
  [[nodiscard]] double now() const { return clock_.secondsSince1970(); }

  EventLoop& loop_;
  NetworkService& network_;
  Defaults& defaults_;
  Clock& clock_;
  Log& log_;
  Analytics& analytics_;
  Hooks hooks_;

  Published<UpdatePrompt> prompt_;
  bool isChecking_ = false;
  int retryCount_ = 0;
  std::optional<EventLoop::TimePoint> lastCheckTime_;
  OneShotTimer retryTimer_;

  // The update on screen.
  UpdatePromptKind kind_ = UpdatePromptKind::none;
  std::optional<double> cooldownHours_;
  std::string releaseHash_;
  bool inAppUpdate_ = false;
  std::optional<std::string> msiURL_;
  bool seen_ = false;
  std::uint64_t lastPromptId_ = 0;

  WeakPtrFactory<AppVersionChecker> weakFactory_{this};
};

}  // namespace norvik
