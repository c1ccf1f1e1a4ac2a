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
#include "tunnel/system_extension_state.h"

namespace norvik {

// The one owner of the application's tunnel configuration. It turns the key text the backend
// hands out into the system configuration, finds that configuration again among all the system
// has, starts and stops the tunnel, keeps the on-demand rule in step with the user's setting,
// watches the tunnel's status, and listens to the widget's and the tunnel program's requests.
// Every other part that touches the tunnel goes through this class.
//
// Threading: a main-loop object. Completions of the tunnel service hold it weakly.
class VPNManager {
 public:
  static constexpr std::string_view kConfigurationName = "Norvik";
  static constexpr std::string_view kLegacyConfigurationName = "NorvikVPN Mac";
  static constexpr std::string_view kProviderBundleIdentifier = "com.norvik.macos.tunnel";
  static constexpr std::string_view kKeyTextKey = "wgQuickConfig";

  static constexpr std::string_view kDisconnectNotification = "com.Quillon.disconnect.vpn";
  static constexpr std::string_view kUserStopNotification = "com.norvik.macos.tunnel.userstop";

  // Group-suite keys shared with the tunnel program and the widget.
  static constexpr std::string_view kOnDemandEnabledKey = "routing.onDemandEnabled";
  static constexpr std::string_view kUserInitiatedStopKey = "routing.userInitiatedStop";
  static constexpr std::string_view kShouldDisconnectKey = "shouldDisconnectVPN";
  static constexpr std::string_view kDisconnectRequestTimeKey = "disconnectRequestTime";

  static constexpr std::chrono::milliseconds kAppStopGrace{5000};
  static constexpr std::chrono::milliseconds kWidgetRequestPeriod{1000};
  static constexpr std::chrono::milliseconds kWidgetRequestMaxAge{10000};
  static constexpr std::chrono::milliseconds kInitialStateCheckDelay{500};
  static constexpr int kRepairPasses = 8;

  using Done = std::move_only_function<void(std::expected<void, Error>)>;

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
  // disconnect requests. Call once, at start-up.
  void start();

  // Installs or replaces the configuration from a key text.
  void installKey(const std::string& keyText, Done completion);
  // Makes sure the configuration is enabled and named, applies the on-demand setting and starts
  // the tunnel. Completes when the start was accepted; the outcome follows in connectionState.
  void connect(Done completion);
  // Stops the tunnel as the application (not as the user from the system's controls).
  void disconnect();
  // Stops and starts the tunnel again when it runs, so that it takes a changed configuration.
  void reconnectIfActive();
  // Reloads the configurations and reports whether the application's exists.
  void checkConfigurationExists(std::move_only_function<void(bool)> completion);

  // The Russian text for a tunnel error.
  [[nodiscard]] static std::string errorMessage(const Error& error);
  // The application's configuration among `managers`: by name, else by a legacy name.
  [[nodiscard]] static const TunnelConfiguration* findManager(const std::vector<TunnelConfiguration>& managers);

  // --- Published state ---
  [[nodiscard]] Published<TunnelStatus>& connectionState() { return connectionState_; }
  [[nodiscard]] Published<bool>& isConfigured() { return isConfigured_; }
  [[nodiscard]] Published<SystemExtensionState>& systemExtensionState() { return systemExtensionState_; }
  // "VPNConnectionFailed": a Russian message for the connection screen.
  [[nodiscard]] Signal<std::string>& connectionFailed() { return connectionFailed_; }
  // "VPNExtensionCrashed": the tunnel program ended a session on its own.
  [[nodiscard]] Signal<Error>& extensionCrashed() { return extensionCrashed_; }

  [[nodiscard]] const std::optional<TunnelConfiguration>& tunnelManager() const { return tunnelManager_; }
  [[nodiscard]] const std::optional<std::string>& lastServerIP() const { return lastServerIP_; }
  [[nodiscard]] std::optional<Clock::TimePoint> connectionStartTime() const { return connectionStartTime_; }
  [[nodiscard]] std::optional<Clock::TimePoint> lastApplicationStop() const { return lastApplicationStop_; }

  // Set for the whole of a server change; repairs do not bring the old configuration back meanwhile.
  bool isServerChangeInProgress = false;

  // --- Keeping the configuration alive: soft removal, self-heal, silent restart ---
  // (vpn_manager_resilience.cpp; the rules are in docs/tunnel.md.)

  // Standard-suite keys.
  static constexpr std::string_view kSoftDeleteArmedKey = "app.keySoftDelete.armed";
  static constexpr std::string_view kSoftDeleteFailsKey = "app.keySoftDelete.fails";
  static constexpr std::string_view kUserIntentOnKey = "app.userIntentOn";
  static constexpr std::string_view kSelfHealLastTsKey = "app.selfHealLastTs";
  static constexpr std::string_view kSelfHealCountKey = "app.selfHealCount";
  static constexpr std::string_view kSelfHealDayKey = "app.selfHealDay";
  // Feature flags, as the routing module caches them in the group suite.
  static constexpr std::string_view kKeySoftDeleteFlag = "iosFixes.keySoftDelete";
  static constexpr std::string_view kKeySoftDeleteDebugFlag = "iosFixes.keySoftDeleteDebug";
  static constexpr std::string_view kSelfHealMaxPerDayFlag = "iosFixes.selfHealMaxPerDay";
  static constexpr std::string_view kHealthCheckModeFlag = "iosFixes.healthCheckMode";
  static constexpr std::string_view kReconnectWaitMsFlag = "iosFixes.reconnectWaitMs";

  static constexpr double kSelfHealSpacingSeconds = 60.0;
  static constexpr std::chrono::milliseconds kReconnectCheckDefault{10000};
  static constexpr std::chrono::milliseconds kRestartPollInterval{100};
  static constexpr std::chrono::milliseconds kRestartDisconnectLimit{3000};

  enum class SoftRemoveOutcome {
    markerSaved,      // the configuration stays, emptied and disabled; consent is kept
    removedInstead,   // the marker could not be saved, so the configuration was removed
    noConfiguration,  // nothing named "Norvik": the caller removes the old way (removeConfiguration)
    refused,          // another soft removal is running
    failed,           // neither the marker nor the removal could be saved; the key stays
  };
  using SoftRemoveDone = std::move_only_function<void(SoftRemoveOutcome)>;

  // Removes the key but keeps the configuration, emptied and disabled, so that the next install
  // does not ask the user for permission again. For use while "iosFixes.keySoftDelete" is above 0;
  // otherwise removeConfiguration(). `intent` says why, for the log.
  void softRemove(std::string intent, SoftRemoveDone completion = {});
  // Removes the configuration outright (the application's, or one with the legacy name).
  void removeConfiguration(Done completion);
  // Called by the install path while a soft removal is being watched: counts failed installs and,
  // at the threshold, removes the configuration and installs `keyText` cleanly. `completion` gets
  // what the install's caller should hear (the clean install's result after an escalation).
  void noteInstallResult(std::expected<void, Error> result, std::string keyText, Done completion);
  // The escalation threshold for a "iosFixes.keySoftDelete" value (2 below 3, else at most 9).
  [[nodiscard]] static std::int64_t escalationThreshold(std::int64_t keySoftDelete);

  // Brings a tunnel that dropped back up while the user wants it, a few times a day at most.
  // Runs on each change to disconnected.
  void selfHealIfNeeded(TunnelStatus status);

  // A repair captures the token when it begins; every user action (connect, disconnect, install,
  // removal) moves it on, and a repair holding an older token stops instead of acting.
  using RepairToken = std::uint64_t;
  [[nodiscard]] RepairToken repairToken() const { return repairToken_; }

  struct SilentRestartResult {
    bool ok = false;
    std::string failStep;  // "precondition", "disconnect" or "connect"; empty when ok
    std::string reason;
    bool operator==(const SilentRestartResult&) const = default;
  };
  using SilentRestartDone = std::move_only_function<void(SilentRestartResult)>;
  // The health engine's repair step: stop the tunnel, wait `delayMs`, start it again and wait up
  // to `connectTimeoutMs` for connected. The screens keep the state they had meanwhile; the real
  // status is published at the end. Never fails otherwise than through the result.
  void silentTunnelRestart(RepairToken token, std::int64_t delayMs, std::int64_t connectTimeoutMs,
                           SilentRestartDone completion);
  // The same, for a repair that begins here.
  void silentTunnelRestart(std::int64_t delayMs, std::int64_t connectTimeoutMs, SilentRestartDone completion);
  [[nodiscard]] bool isSilentRestartRunning() const { return silentRestart_ != nullptr; }

 private:
  struct ConnectRun;
  struct InstallRun;

  // Connect, pass by pass.
  void connectPass(std::shared_ptr<ConnectRun> run);
  void onConnectLoaded(std::shared_ptr<ConnectRun> run, std::expected<std::vector<TunnelConfiguration>, Error> loaded);
  void decideStart(std::shared_ptr<ConnectRun> run);
  void startTunnel(const std::shared_ptr<ConnectRun>& run);
  void finishConnect(const std::shared_ptr<ConnectRun>& run, std::expected<void, Error> result);

  // Install, step by step.
  void onInstallLoaded(const std::shared_ptr<InstallRun>& run,
                       std::expected<std::vector<TunnelConfiguration>, Error> loaded);
  void updateInPlace(const std::shared_ptr<InstallRun>& run, TunnelConfiguration configuration);
  void afterFirstSave(const std::shared_ptr<InstallRun>& run, const TunnelConfiguration& saved);
  [[nodiscard]] TunnelProviderProtocol makeProtocol(const InstallRun& run) const;

  // Stops `configuration`'s session as the application: on-demand off first, so the system does
  // not bring it back. `then` gets the configuration as stored afterwards.
  void stopAsApplication(TunnelConfiguration configuration, std::move_only_function<void(TunnelConfiguration)> then);
  void recordApplicationStop();
  void save(TunnelConfiguration configuration, TunnelService::ConfigurationCompletion completion);

  void onStatusChanged(const std::string& identifier, TunnelStatus status);
  void onUserStopNotification();
  void checkWidgetDisconnectRequest();
  void adoptConfigurations(const std::vector<TunnelConfiguration>& managers);
  [[nodiscard]] bool softDeleteGateHolds(const TunnelConfiguration& configuration) const;

  // Resilience (vpn_manager_resilience.cpp).
  struct SoftRemoveRun;
  struct SilentRestart;
  // The connect path without the user's marks (intent, repair token): for self-heal and repairs.
  void connectWithoutUserAction(Done completion);
  void resetRepairToken() { ++repairToken_; }
  [[nodiscard]] bool softDeleteEnabled() const;
  [[nodiscard]] bool softDeleteWatched() const;
  void onSoftRemoveLoaded(std::shared_ptr<SoftRemoveRun> run,
                          std::expected<std::vector<TunnelConfiguration>, Error> loaded);
  void saveSoftRemoveMarker(std::shared_ptr<SoftRemoveRun> run, const TunnelConfiguration& base, bool staleRetry);
  void softRemoveFallback(const std::shared_ptr<SoftRemoveRun>& run, const std::string& identifier);
  void finishSoftRemove(const std::shared_ptr<SoftRemoveRun>& run, SoftRemoveOutcome outcome);
  void escalate(std::int64_t fails, std::expected<void, Error> result, std::string keyText, Done completion);
  // Removes a marker left behind once soft removal was switched off.
  void normalizeLeftoverMarker(const TunnelConfiguration& configuration);
  void forgetConfiguration(const std::string& identifier);
  void scheduleReconnectCheck();
  [[nodiscard]] std::optional<std::string> restartBlockedBy(RepairToken token) const;
  void restartConnectStep();
  void pollRestart(TunnelStatus wanted, EventLoop::TimePoint deadline, std::move_only_function<void(bool)> then);
  void finishRestart(std::string_view failStep, std::string reason);
  void applyRealStatus();

  EventLoop& loop_;
  TunnelService& tunnels_;
  NamedNotificationCenter& notifications_;
  Defaults& group_;
  Defaults& standard_;
  Clock& clock_;
  Log& log_;
  Analytics& analytics_;
  std::function<PropertyDictionary()> extrasSnapshot_;

  Published<TunnelStatus> connectionState_{TunnelStatus::invalid};
  Published<bool> isConfigured_{false};
  Published<SystemExtensionState> systemExtensionState_;
  Signal<std::string> connectionFailed_;
  Signal<Error> extensionCrashed_;

  std::optional<TunnelConfiguration> tunnelManager_;
  std::optional<std::string> lastServerIP_;
  std::optional<Clock::TimePoint> connectionStartTime_;
  bool analyticsConnected_ = false;
  std::optional<Clock::TimePoint> lastApplicationStop_;

  RepeatingTimer appGroupsCheckTimer_;
  OneShotTimer initialStateCheck_;
  Subscription statusSubscription_;
  Subscription widgetDisconnectObserver_;
  Subscription userStopObserver_;
  Subscription reconnectWatch_;

  // The intent of the soft removal now running.
  std::optional<std::string> softRemoveInFlight_;
  bool gateOffNormalizeInFlight_ = false;
  RepairToken repairToken_ = 0;
  std::shared_ptr<SilentRestart> silentRestart_;
  OneShotTimer reconnectCheck_;

  WeakPtrFactory<VPNManager> weakFactory_{this};
};

}  // namespace norvik
