#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/defaults.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/named_notifications.h"
#include "platform/published.h"
#include "platform/tunnel_service.h"
#include "platform/weak_ptr_factory.h"
#include "tunnel/key_soft_removal.h"
#include "tunnel/self_heal.h"
#include "tunnel/silent_restart.h"
#include "tunnel/system_extension_state.h"
#include "tunnel/tunnel_connector.h"
#include "tunnel/tunnel_context.h"
#include "tunnel/tunnel_installer.h"

namespace norvik {

// The one owner of the application's tunnel configuration. It turns the key text the backend
// hands out into the system configuration, finds that configuration again among all the system
// has, starts and stops the tunnel, keeps the on-demand rule in step with the user's setting,
// watches the tunnel's status, and recognises the widget's and the tunnel program's requests.
// Every other part that touches the tunnel goes through this class.
//
// It is made of parts, each a class of its own: TunnelInstaller (install), TunnelConnector
// (start and stop), KeySoftRemoval (soft removal and its escalation), SelfHeal (whether a drop is
// healed) and SilentRestart (the health engine's repair). They share the TunnelRecord.
//
// It carries out; it does not decide. What the tunnel should be — the user's intent — is owned by
// the tunnel state machine of the connection flow, which is the only caller of the operations that
// change the tunnel in the running application. The requests this class recognises (the widget's
// disconnect, a stop from the system's controls) are handed to it as signals.
//
// Threading: a main-loop object; every public operation asserts it. Completions of the tunnel
// service hold its parts weakly.
class VPNManager {
 public:
  static constexpr std::string_view kConfigurationName = "Norvik";
  static constexpr std::string_view kLegacyConfigurationName = "NorvikVPN Mac";
  static constexpr std::string_view kProviderBundleIdentifier = "com.norvik.macos.tunnel";
  static constexpr std::string_view kKeyTextKey = "wgQuickConfig";

  static constexpr std::string_view kDisconnectNotification = "com.Quillon.disconnect.vpn";
  static constexpr std::string_view kUserStopNotification = "com.norvik.macos.tunnel.userstop";

  // Group-suite keys shared with the tunnel program and the widget.
  static constexpr std::string_view kOnDemandEnabledKey = TunnelConnector::kOnDemandEnabledKey;
  static constexpr std::string_view kUserInitiatedStopKey = TunnelConnector::kUserInitiatedStopKey;
  static constexpr std::string_view kShouldDisconnectKey = "shouldDisconnectVPN";
  static constexpr std::string_view kDisconnectRequestTimeKey = "disconnectRequestTime";

  static constexpr std::chrono::milliseconds kAppStopGrace = SelfHeal::kAppStopGrace;
  static constexpr std::chrono::milliseconds kWidgetRequestPeriod{1000};
  static constexpr std::chrono::milliseconds kWidgetRequestMaxAge{10000};
  static constexpr std::chrono::milliseconds kInitialStateCheckDelay{500};
  static constexpr int kRepairPasses = TunnelConnector::kRepairPasses;

  // Standard-suite keys of the parts.
  static constexpr std::string_view kSoftDeleteArmedKey = KeySoftRemoval::kArmedKey;
  static constexpr std::string_view kSoftDeleteFailsKey = KeySoftRemoval::kFailsKey;
  static constexpr std::string_view kUserIntentOnKey = SelfHeal::kUserIntentOnKey;
  static constexpr std::string_view kSelfHealLastTsKey = SelfHeal::kLastTsKey;
  static constexpr std::string_view kSelfHealCountKey = SelfHeal::kCountKey;
  static constexpr std::string_view kSelfHealDayKey = SelfHeal::kDayKey;

  using Done = std::move_only_function<void(std::expected<void, Error>)>;
  using SoftRemoveOutcome = KeySoftRemoval::Outcome;
  using SoftRemoveDone = KeySoftRemoval::OutcomeDone;
  using RepairToken = std::uint64_t;
  using SilentRestartResult = norvik::SilentRestartResult;
  using SilentRestartDone = SilentRestart::Done;

  struct Dependencies {
    EventLoop& loop;
    TunnelService& tunnels;
    NamedNotificationCenter& notifications;
    Defaults& groupDefaults;
    Defaults& standardDefaults;
    Clock& clock;
    Log& log;
    Analytics& analytics;
    // The extras merged into the provider configuration at every install (routing, GeoIP,
    // feature flags, transport profile). May be empty.
    std::function<PropertyDictionary()> extrasSnapshot{};
  };

  explicit VPNManager(Dependencies dependencies);
  VPNManager(const VPNManager&) = delete;
  VPNManager& operator=(const VPNManager&) = delete;
  ~VPNManager();

  // Loads the system's configurations, publishes the state, and starts listening to the widget's
  // disconnect requests. Call once, at start-up; `loaded` runs once the state is known.
  void start(std::move_only_function<void()> loaded = nullptr);

  // Installs or replaces the configuration from a key text.
  void installKey(const std::string& keyText, Done completion);
  // The user's connect: records the intent ("app.userIntentOn"), then the start path. Completes
  // when the start was accepted; the outcome follows in connectionState.
  void connect(Done completion);
  // The start path without the user's marks, for connects the application makes by itself
  // (self-heal, bringing back what the user had after a restart, applying a new configuration).
  void connectAutomatically(Done completion);
  // The user's disconnect: stops the tunnel as the application and, with self-heal on, records
  // that the user no longer wants it ("app.userIntentOn" false).
  void disconnect();
  // Stops the tunnel as the application without touching the user's marks (a server change, a
  // new configuration, a cancelled connect).
  void stopTunnel();
  // A start being prepared now never starts (the user said off before it got there).
  void cancelPendingStarts() { connector_.cancelPendingStarts(); }
  // Stops and starts the tunnel again when it runs, so that it takes a changed configuration.
  void reconnectIfActive();
  // Reloads the configurations and reports whether the application's exists.
  void checkConfigurationExists(std::move_only_function<void(bool)> completion);

  // The Russian text for a tunnel error.
  [[nodiscard]] static std::string errorMessage(const Error& error);
  // The application's configuration among `managers`: by name, else by a legacy name.
  [[nodiscard]] static const TunnelConfiguration* findManager(const std::vector<TunnelConfiguration>& managers);

  // --- Published state ---
  [[nodiscard]] Published<TunnelStatus>& connectionState() { return record_.connectionState; }
  [[nodiscard]] Published<bool>& isConfigured() { return record_.isConfigured; }
  [[nodiscard]] Published<SystemExtensionState>& systemExtensionState() { return systemExtensionState_; }
  // "VPNConnectionFailed": a Russian message for the connection screen.
  [[nodiscard]] Signal<std::string>& connectionFailed() { return connectionFailed_; }
  // "VPNExtensionCrashed": the tunnel program ended a session on its own.
  [[nodiscard]] Signal<Error>& extensionCrashed() { return extensionCrashed_; }
  // The widget asked for the tunnel to go down ("com.Quillon.disconnect.vpn", or a recent
  // "shouldDisconnectVPN" request): the user's disconnect, for the owner of the intent to carry out.
  [[nodiscard]] Signal<>& disconnectRequested() { return disconnectRequested_; }
  // The tunnel was stopped from the system's own controls: the user's off.
  [[nodiscard]] Signal<>& stoppedFromSystemControls() { return stoppedFromSystemControls_; }

  [[nodiscard]] const std::optional<TunnelConfiguration>& tunnelManager() const { return record_.tunnelManager; }
  [[nodiscard]] const std::optional<std::string>& lastServerIP() const { return record_.lastServerIP; }
  // The installed configuration's server address and key text, when it has them.
  [[nodiscard]] std::optional<std::string> serverAddress() const;
  [[nodiscard]] std::optional<std::string> installedKeyText() const;
  [[nodiscard]] std::optional<Clock::TimePoint> connectionStartTime() const { return record_.connectionStartTime; }
  [[nodiscard]] std::optional<Clock::TimePoint> lastApplicationStop() const { return record_.lastApplicationStop; }
  // The system's status of the application's configuration, read now (not the published copy,
  // which a silent restart holds back).
  [[nodiscard]] TunnelStatus systemStatus() const { return context_.systemStatus(); }

  // Set for the whole of a server change; repairs do not bring the old configuration back meanwhile.
  [[nodiscard]] bool isServerChangeInProgress() const { return record_.isServerChangeInProgress; }
  void setServerChangeInProgress(bool running) { record_.isServerChangeInProgress = running; }

  // --- Keeping the configuration alive (the parts; docs/tunnel.md has the rules) ---

  // Removes the key but keeps the configuration, emptied and disabled, so that the next install
  // does not ask the user for permission again. For use while "iosFixes.keySoftDelete" is above 0;
  // otherwise removeConfiguration(). `intent` says why, for the log.
  void softRemove(std::string intent, SoftRemoveDone completion = {});
  // Removes the configuration outright (the application's, or one with the legacy name).
  void removeConfiguration(Done completion);
  // Called by the install path while a soft removal is being watched (see KeySoftRemoval).
  void noteInstallResult(std::expected<void, Error> result, std::string keyText, Done completion);
  [[nodiscard]] static std::int64_t escalationThreshold(std::int64_t keySoftDelete) {
    return KeySoftRemoval::escalationThreshold(keySoftDelete);
  }

  // Whether a tunnel that dropped to `status` is to be brought back now; counts and logs the
  // attempt when it is. The caller reconnects (connectAutomatically) and then calls
  // followUpSelfHeal().
  [[nodiscard]] bool selfHealIfNeeded(TunnelStatus status);
  void followUpSelfHeal() { selfHeal_.scheduleReconnectCheck(); }

  // A repair captures the token when it begins; every action on the tunnel (connect, disconnect,
  // install, removal) moves it on, and a repair holding an older token stops instead of acting.
  [[nodiscard]] RepairToken repairToken() const { return record_.repairToken; }
  void resetRepairToken() { ++record_.repairToken; }
  // The health engine's repair step (see SilentRestart).
  void silentTunnelRestart(RepairToken token, std::int64_t delayMs, std::int64_t connectTimeoutMs,
                           SilentRestartDone completion);
  // The same, for a repair that begins here.
  void silentTunnelRestart(std::int64_t delayMs, std::int64_t connectTimeoutMs, SilentRestartDone completion);
  [[nodiscard]] bool isSilentRestartRunning() const { return silentRestart_.isRunning(); }
  // A repair the owner of the user's intent does not allow now ends at "precondition" with `reason`.
  void refuseSilentRestart(std::int64_t delayMs, std::int64_t connectTimeoutMs, std::string reason,
                           SilentRestartDone completion) {
    silentRestart_.refuse(delayMs, connectTimeoutMs, std::move(reason), std::move(completion));
  }

 private:
  void onStatusChanged(const std::string& identifier, TunnelStatus status);
  void onUserStopNotification();
  void checkWidgetDisconnectRequest();
  void adoptConfigurations(const std::vector<TunnelConfiguration>& managers);

  TunnelRecord record_;
  TunnelContext context_;
  KeySoftRemoval softRemoval_;
  TunnelConnector connector_;
  TunnelInstaller installer_;
  SelfHeal selfHeal_;
  SilentRestart silentRestart_;
  NamedNotificationCenter& notifications_;

  Published<SystemExtensionState> systemExtensionState_;
  Signal<std::string> connectionFailed_;
  Signal<Error> extensionCrashed_;
  Signal<> disconnectRequested_;
  Signal<> stoppedFromSystemControls_;
  bool analyticsConnected_ = false;

  RepeatingTimer appGroupsCheckTimer_;
  OneShotTimer initialStateCheck_;
  Subscription statusSubscription_;
  Subscription widgetDisconnectObserver_;
  Subscription userStopObserver_;
  Subscription reconnectWatch_;

  WeakPtrFactory<VPNManager> weakFactory_{this};
};

}  // namespace norvik
