#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "backend/api_response.h"
#include "health/health_probes.h"
#include "health/physical_path_monitor.h"
#include "health/smart_status_debug.h"
#include "health/smart_status_policy.h"
#include "health/smart_status_policy_store.h"
#include "health/smart_status_texts.h"
#include "health/smart_status_verdict.h"
#include "platform/clock.h"
#include "platform/defaults.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/tunnel_service.h"
#include "platform/weak_ptr_factory.h"
#include "tunnel/tunnel_intents.h"
#include "tunnel/vpn_manager.h"

namespace norvik {

class DeviceClockCheck;

// What a button of a health dialog does.
enum class SmartStatusDialogAction {
  close,               // only closes the dialog
  recheck,             // "Проверить ещё раз": SmartStatusEngine::recheck()
  changeServer,        // "Сменить сервер": the "SmartStatusChangeServer" request
  disconnectAndCheck,  // "Выключить и проверить": stop the tunnel, reload the main configuration
};

// A dialog the health check wants shown, with the cooldown and the backend's switches already
// applied. The application puts it on the overlay queue and answers its buttons with
// SmartStatusEngine::perform().
struct SmartStatusDialogRequest {
  std::string identifier;  // "smart_status_our_side", …, "smart_status_clock", "smart_status_pre_connect_no_internet"
  SmartStatusDiagnosis diagnosis = SmartStatusDiagnosis::ourSide;
  bool deviceClockWrong = false;  // the clock dialog stands in for the diagnosis's own
  SmartStatusDialogTexts texts;
  SmartStatusDialogAction primary = SmartStatusDialogAction::close;
  SmartStatusDialogAction secondary = SmartStatusDialogAction::close;
  bool operator==(const SmartStatusDialogRequest&) const = default;
};

// Texts of the wrong-clock diagnosis and of the toggle's no-internet dialog (the backend's text
// table has no keys for them).
namespace smart_status_texts {
inline constexpr std::string_view kClockStatus = "Проверьте дату и время";
inline constexpr std::string_view kClockDialogTitle = "Неверные дата и время";
inline constexpr std::string_view kClockDialogMessage =
    "Часы этого компьютера расходятся с точным временем, поэтому защищённое соединение не устанавливается и "
    "трафик не проходит. Включите автоматическую установку даты и времени в настройках системы — как только "
    "часы будут верны, статус обновится сам.";
inline constexpr std::string_view kPreConnectMessage =
    "Похоже, у вас сейчас нет доступа к интернету. Проверьте Wi-Fi или мобильную сеть и включите VPN, когда сеть "
    "появится.";
inline constexpr std::string_view kPreConnectIdentifier = "smart_status_pre_connect_no_internet";
}  // namespace smart_status_texts

// The health check: proves that traffic really flows through a connected tunnel, repairs it
// quietly when it does not, and tells the user what is wrong when repairs do not help.
//
// Every value comes from the resolved policy (SmartStatusPolicyStore); with `enabled` false the
// engine does nothing at all: no timers, no telemetry, no probes, no path monitor.
//
// A check is a cycle: verify windows of `verifyWindowMs`, the tunnel's telemetry polled every
// `pollIntervalMs` (each request limited to `telemetryTimeoutMs`) and judged by judgeWindow()
// (handshake ages, received bytes in the `requireRxModes` modes, the probe through the tunnel in
// the `probeTunnelModes` modes, fail-fast after `verifyFailFastMs`). A failed window is followed,
// where the cycle allows, by up to `repairAttempts` silent restarts of the tunnel
// (VPNManager::silentTunnelRestart with `repairDelayMs` and `repairConnectTimeoutMs`), each
// followed by a window of its own. When nothing helps, the probes outside the tunnel give the
// diagnosis and the health becomes a problem, with a dialog where allowed.
//
// Cycles start: `verifyDelayMs` after the tunnel reports connected (checking); every
// `monitorIntervalMs` while protected (refreshing); `recheckAfterProblemMs` after a problem
// (rechecking, no restarts); `netChangeGraceMs` after a change of the physical path; `resumeBeatMs`
// after a return to the foreground or a wake, when the app was away at least
// `resumeVisibleAfterMs` (restarts only with `resumeRepair`); at once when the system clock is set
// (a verdict reached on the old time, the wrong-clock diagnosis above all, no longer holds); on
// recheck() and refresh(). A
// connection the engine did not see come up (a cold start) counts as protected at once when the
// stored last verification is recent (`coldStartProofMaxAgeMs`) and the tunnel shook hands within
// `hsProofAgeMs`.
//
// Threading: a main-loop object; every completion holds it weakly. Ownership: borrows everything
// in Dependencies, which must outlive it.
class SmartStatusEngine {
 public:
  static constexpr std::string_view kChangeServerNotification = "SmartStatusChangeServer";

  struct Dependencies {
    EventLoop& loop;
    Clock& clock;
    Log& log;
    Analytics& analytics;
    Defaults& standardDefaults;
    SmartStatusPolicyStore& policyStore;
    VPNManager& vpn;
    // The owner of the user's intent: the repair and the "switch off" button go through it.
    TunnelIntents& intents;
    // Where the tunnel's telemetry is asked for (the service the VPN manager runs on).
    TunnelService& tunnels;
    HealthProbes& probes;
    PhysicalPathMonitor* pathMonitor = nullptr;
    DeviceClockCheck* clockCheck = nullptr;
    // The backend code (0 smart, 1 full, 2 services) of the routing mode in force; empty: smart.
    std::function<std::int64_t()> routingModeCode{};
    // The main configuration, for the subscription's end; may be null.
    Published<std::shared_ptr<const APIResponse>>* mainResponses = nullptr;
    // Reloads the main configuration ("Выключить и проверить"); may be empty.
    std::function<void()> reloadMainConfiguration{};
  };

  explicit SmartStatusEngine(Dependencies dependencies);
  SmartStatusEngine(const SmartStatusEngine&) = delete;
  SmartStatusEngine& operator=(const SmartStatusEngine&) = delete;
  ~SmartStatusEngine();

  // Follows the policy and the tunnel; installs the policy store's reset handler. Call once,
  // after VPNManager::start().
  void start();
  // Stops every timer, probe and the path monitor, and stops following. The health becomes none.
  void stop();

  // --- Published state ---
  [[nodiscard]] Published<SmartStatusHealth>& health() { return health_; }
  // The label of the health ("Интернет работает", …); "Проверьте дату и время" for a problem while
  // the device clock is wrong.
  [[nodiscard]] Published<std::string>& statusText() { return statusText_; }
  // The widget's word: "ok" (protected), "busy" (checking, repairing, rechecking, refreshing),
  // "problem"; none while nothing is verified.
  [[nodiscard]] Published<std::optional<std::string>>& healthRaw() { return healthRaw_; }
  // A problem is put down to the device clock rather than to the service or the network.
  [[nodiscard]] Published<bool>& clockBlamed() { return clockBlamed_; }
  [[nodiscard]] Signal<SmartStatusDialogRequest>& dialogRequested() { return dialogRequested_; }
  // "SmartStatusChangeServer": the connection flow answers it with a server change.
  [[nodiscard]] Signal<>& changeServerRequested() { return changeServerRequested_; }
  // "status_refresh_ok", after a refresh() that ended well.
  [[nodiscard]] Signal<std::string>& confirmation() { return confirmation_; }

  // --- What the user and the screens do ---
  // "Проверить ещё раз": a full check now, restarts allowed. Ignored while a check runs.
  void recheck();
  // The user asks to re-verify a protected connection; "status_refresh_ok" follows on success.
  void refresh();
  void perform(SmartStatusDialogAction action);
  // The toggle's check before connecting: the no-internet dialog when the probes outside the
  // tunnel reach nothing, else none. Answers none at once while the policy is off.
  void preConnectCheck(std::move_only_function<void(std::optional<SmartStatusDialogRequest>)> done);
  // The application window shows or hides.
  void setForeground(bool foreground);
  // The system woke from sleep.
  void systemDidWake();
  // The hidden gesture: arms a scenario by hand when the backend's debug object allows it.
  bool armDebugScenario(SmartStatusDebugScenario scenario);

  [[nodiscard]] bool isCheckRunning() const { return cycle_ != nullptr; }

 private:
  enum class Reason {
    connect,
    coldStart,
    monitor,
    problemRecheck,
    userRecheck,
    userRefresh,
    pathChange,
    resume,
    clockChange
  };
  struct Cycle;
  struct Window;

  [[nodiscard]] bool enabled() const { return policy().enabled; }
  [[nodiscard]] const SmartStatusPolicy& policy() const { return policyStore_.policy().get(); }
  [[nodiscard]] bool tunnelConnected() const { return vpn_.connectionState().get() == TunnelStatus::connected; }

  void onPolicy(const SmartStatusPolicy& policy);
  void onTunnelState(TunnelStatus status);
  void onPathChange(const PhysicalPath& path);
  void onClockVerdict(bool wrong);
  void onSystemClockChanged();
  void startPathMonitor();
  void reset(std::string_view reason);
  void cancelCycle();
  void stopTimers();

  // Cycles (smart_status_engine.cpp).
  void scheduleCycle(Reason reason, std::chrono::milliseconds delay);
  void beginCycle(Reason reason);
  void coldStart();
  void adoptDebugOverride();
  void afterFailedWindow();
  void repair();
  void onRepairDone(std::uint64_t cycleId, const VPNManager::SilentRestartResult& result);
  void runDiagnosis();
  void onDiagnosis(std::uint64_t cycleId, OutsideProbeResult outside);
  void succeed();
  void endWithoutVerdict();
  void reportProblem(SmartStatusDiagnosis diagnosis);
  void maybeRequestDialog(SmartStatusDiagnosis diagnosis, bool clockWrong);
  void afterCycle();
  void setHealth(SmartStatusHealth health);
  void publishTexts();
  [[nodiscard]] SmartStatusDialogRequest makeDialog(SmartStatusDiagnosis diagnosis, bool clockWrong) const;

  // Verify windows (smart_status_engine_window.cpp).
  void openWindow();
  void poll();
  void onTelemetry(std::uint64_t windowId, std::uint64_t sequence, std::expected<TunnelTelemetry, Error> telemetry);
  void startTunnelProbe(std::optional<std::string> interfaceName);
  void judge();
  void closeWindow(WindowVerdict verdict);

  EventLoop& loop_;
  Clock& clock_;
  Log& log_;
  Analytics& analytics_;
  Defaults& defaults_;
  SmartStatusPolicyStore& policyStore_;
  VPNManager& vpn_;
  TunnelIntents& intents_;
  TunnelService& tunnels_;
  HealthProbes& probes_;
  PhysicalPathMonitor* pathMonitor_;
  DeviceClockCheck* clockCheck_;
  std::function<std::int64_t()> routingModeCode_;
  Published<std::shared_ptr<const APIResponse>>* mainResponses_;
  std::function<void()> reloadMainConfiguration_;

  Published<SmartStatusHealth> health_;
  Published<std::string> statusText_;
  Published<std::optional<std::string>> healthRaw_;
  Published<bool> clockBlamed_{false};
  Signal<SmartStatusDialogRequest> dialogRequested_;
  Signal<> changeServerRequested_;
  Signal<std::string> confirmation_;

  bool started_ = false;
  Clock::TimePoint startedAt_{};
  std::unique_ptr<Cycle> cycle_;
  std::uint64_t nextCycleId_ = 1;
  OneShotTimer nextCheck_;  // the one scheduled cycle (monitor, recheck, grace, resume beat)
  std::optional<Reason> scheduledReason_;
  bool pathCheckPending_ = false;  // the path changed during a restart
  bool verifiedThisSession_ = false;
  bool sawConnected_ = false;
  std::optional<SmartStatusDiagnosis> diagnosis_;
  std::optional<std::pair<SmartStatusDiagnosis, bool>> lastDialog_;
  std::optional<EventLoop::TimePoint> lastDialogAt_;
  std::optional<EventLoop::TimePoint> hiddenAt_;
  DebugOverride debug_;

  Subscription policySubscription_;
  Subscription stateSubscription_;
  Subscription clockSubscription_;
  Subscription clockChangeSubscription_;
  WeakPtrFactory<SmartStatusEngine> weakFactory_{this};
};

}  // namespace norvik
