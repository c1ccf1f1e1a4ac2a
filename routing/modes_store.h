#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backend/network_service.h"
#include "platform/defaults.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"
#include "routing/routing_mode.h"

namespace norvik {

// The dialog the mode screen puts up before the full mode is switched on: the backend's texts
// where it sends non-empty ones, else the built-in ones. Confirm performs select(full); cancel
// changes nothing.
struct FullModeConfirmation {
  std::string identifier;
  std::string title;
  std::string message;
  std::string confirm;
  std::string cancel;
  bool operator==(const FullModeConfirmation&) const = default;
};

// The dialog the settings screen puts up before the smart mode is switched off, with its
// "Больше не показывать" check box. Confirm switches to the full mode; keep changes nothing.
struct SmartModeDisableConfirmation {
  std::string identifier;
  std::string title;
  std::string message;
  std::string confirm;
  std::string keep;
  std::string dontShowAgain;
  bool operator==(const SmartModeDisableConfirmation&) const = default;
};

// Keeps the routing mode: the user's own choice ("routing.userSelectedMode") apart from the mode
// in force ("routing.modeServicesActive"), which follows from the choice and the backend's
// routing section (kill switch, forced, allowed and default modes). The mode in force is
// persisted in the group suite, where the tunnel extras snapshot and the widget read it, and
// published to the mode screen. Every main configuration response also refreshes the group
// suite's copies of the backend's tunnel switches.
//
// Threading: a main-loop object. Owns nothing but its subscription; the defaults, the response
// publisher and the log are lent and must outlive it.
class ModesStore {
 public:
  static constexpr std::string_view kRuBypass = "ruBypassEnabled";
  static constexpr std::string_view kModeServicesActive = "routing.modeServicesActive";
  static constexpr std::string_view kUserSelectedMode = "routing.userSelectedMode";
  static constexpr std::string_view kLiveSwitchEnabled = "routing.liveSwitchEnabled";
  static constexpr std::string_view kFullModeLightDatapath = "routing.fullModeLightDatapath";
  static constexpr std::string_view kOnDemandEnabled = "routing.onDemandEnabled";
  static constexpr std::string_view kRelayHarden = "routing.relayHarden";
  static constexpr std::string_view kExtMemLimitMb = "routing.extMemLimitMb";
  static constexpr std::string_view kGeoBypassAllowedByBackend = "geoBypassAllowedByBackend";
  // The user ticked "Больше не показывать" under the smart-mode-off confirmation.
  static constexpr std::string_view kSmartDisableConfirmHidden = "settings.smartModeDisableConfirmHidden";

  // Called on the loop, after the new mode is persisted and published, with (old, new).
  using ModeChangeHandler = std::function<void(VPNRoutingMode from, VPNRoutingMode to)>;

  // Runs the one-time migration, publishes the stored choice as the first mode, applies it
  // against the response already published (if any), then follows new responses.
  ModesStore(EventLoop& loop, Defaults& groupDefaults, Published<NetworkService::MainResponse>& responses, Log& log);
  ModesStore(const ModesStore&) = delete;
  ModesStore& operator=(const ModesStore&) = delete;

  // The mode in force.
  [[nodiscard]] Published<VPNRoutingMode>& currentMode() { return currentMode_; }

  // The user picks a mode: it is stored as the user's choice, then applied. Under a forced mode
  // or the kill switch the choice is kept for when the restriction is lifted. A choice that cannot
  // be written changes nothing and answers the system's reason (a full disk, no permission).
  Defaults::WriteResult select(VPNRoutingMode mode);
  // Recomputes the mode in force; persists and publishes it when it changed.
  void apply();

  // The mode in force for `requested` under the latest routing section.
  [[nodiscard]] VPNRoutingMode effectiveMode(VPNRoutingMode requested) const;
  // The modes the mode screen offers, ordered smart, full, services.
  [[nodiscard]] std::vector<VPNRoutingMode> allowedModes() const;
  // The user's own choice, as stored.
  [[nodiscard]] VPNRoutingMode userSelectedMode() const;
  // The latest routing section (empty when the response had none).
  [[nodiscard]] const RoutingConfig& routing() const { return routing_; }

  // "routing.fullModeLightDatapath"; missing or not a Boolean is false.
  [[nodiscard]] bool isFullLightDatapath() const;

  // Whether a mode change may be handed to a running tunnel as it is (true), or needs the
  // tunnel to be reconnected so that the next install carries it (false, the default).
  [[nodiscard]] bool liveSwitchEnabled() const;
  void setLiveSwitchEnabled(bool enabled);

  // What the mode screen shows instead of the choice: "Управление режимом временно недоступно."
  // under the kill switch, "Режим настроен провайдером" under a forced mode, else nothing.
  [[nodiscard]] std::optional<std::string_view> modeControlNotice() const;
  [[nodiscard]] FullModeConfirmation fullModeConfirmation() const;
  [[nodiscard]] static SmartModeDisableConfirmation smartModeDisableConfirmation();
  // Whether switching the smart mode off in the settings asks first (false once the user ticked
  // "Больше не показывать"; kept in the group suite across runs).
  [[nodiscard]] Published<bool>& smartDisableConfirmHidden() { return smartDisableConfirmHidden_; }
  Defaults::WriteResult hideSmartDisableConfirm();

  // The hand-over of a mode change to the tunnel side; the application wires it.
  void setModeChangeHandler(ModeChangeHandler handler) { modeChangeHandler_ = std::move(handler); }

 private:
  void onResponse(const NetworkService::MainResponse& response);
  void copyBackendSwitches(const APIResponse& response);
  // The stored code, migrating older installs (may write "routing.modeServicesActive").
  std::int64_t readStoredCode();
  // The code the older installs leave behind, for a store without "routing.userSelectedMode".
  std::int64_t legacyStoredCode();
  void migrateUserSelectedMode();
  void persist(VPNRoutingMode mode);
  // At start the persisted mode in force may disagree with the published one (an older run
  // stopped under a restriction that is gone now); the tunnel must not keep the stale one.
  void reconcilePersistedMode();

  EventLoop& loop_;
  Defaults& defaults_;
  Log& log_;
  RoutingConfig routing_;
  std::optional<RoutingConfig> lastRouting_;
  Published<VPNRoutingMode> currentMode_;
  Published<bool> smartDisableConfirmHidden_{false};
  ModeChangeHandler modeChangeHandler_;
  Subscription responseSubscription_;

  WeakPtrFactory<ModesStore> weakFactory_{this};
};

}  // namespace norvik
