#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "platform/event_loop.h"
#include "platform/linux/tunnel_helper_process.h"
#include "platform/log.h"
#include "platform/named_notifications.h"
#include "platform/tunnel_preferences_store.h"
#include "platform/tunnel_service.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

// The tunnel service of a Linux machine: configurations are kept as the simulated service keeps
// them (the same file), and a session is a run of the tunnel helper (norvik-tunnel), which brings
// up userspace WireGuard and the routes of the routing mode. The service hands the helper the
// provider configuration, turns its events into the system's status changes (connecting →
// connected; → disconnected with the helper's error when it fails), asks it for telemetry, and
// stops it by closing its input. Like the system, the service runs one session at a time: a start
// while a helper is still going down waits for it to end, so two helpers never own the routes at
// once. The tunnel program's stop notification is posted when a session is stopped.
//
// Threading: a main-loop object; completions and status changes come on the loop.
class WireGuardTunnelService final : public TunnelService {
 public:
  static constexpr std::string_view kUserStopNotification = "com.norvik.macos.tunnel.userstop";

  struct Options {
    std::optional<std::filesystem::path> storeFile{};
    // After a stop, the helper has this long to give the network back before it is terminated,
    // and as long again before it is killed.
    EventLoop::Duration stopGrace = std::chrono::seconds(5);
    EventLoop::Duration telemetryTimeout = std::chrono::seconds(3);
    EventLoop::Duration onDemandRestartDelay = std::chrono::seconds(1);
  };

  WireGuardTunnelService(EventLoop& loop, Clock& clock, Log& log, NamedNotificationCenter* notifications,
                         std::unique_ptr<TunnelHelperLauncher> launcher, Options options);
  ~WireGuardTunnelService() override;

  void loadAllFromPreferences(ConfigurationsCompletion completion) override;
  void saveToPreferences(TunnelConfiguration configuration, ConfigurationCompletion completion) override;
  void loadFromPreferences(std::string identifier, ConfigurationCompletion completion) override;
  void removeFromPreferences(std::string identifier, DoneCompletion completion) override;
  [[nodiscard]] std::expected<void, Error> startVPNTunnel(const std::string& identifier,
                                                          const PropertyDictionary& options) override;
  void stopVPNTunnel(const std::string& identifier) override;
  [[nodiscard]] TunnelStatus status(const std::string& identifier) const override;
  [[nodiscard]] std::optional<Clock::TimePoint> connectedDate(const std::string& identifier) const override;
  [[nodiscard]] std::optional<Error> lastDisconnectError(const std::string& identifier) const override;
  void fetchTelemetry(const std::string& identifier, TelemetryCompletion completion) override;
  [[nodiscard]] Subscription observeStatus(StatusObserver observer) override;

 private:
  struct PendingTelemetry {
    TelemetryCompletion completion;
    TaskHandle timeout;
  };
  struct Session {
    TunnelStatus status = TunnelStatus::disconnected;
    std::optional<Clock::TimePoint> connectedAt;
    std::optional<Error> disconnectError;
    std::optional<Error> helperError;  // what the running helper reported before it ended
    std::string interfaceName;
    bool stopRequested = false;
    std::uint64_t generation = 0;  // one per helper run; late events of an older run are dropped
  };

  void launch(const std::string& identifier);
  void onEvent(const std::string& identifier, std::uint64_t generation, const std::string& line);
  void onExit(const std::string& identifier, std::uint64_t generation, int exitStatus);
  void beginStop(const std::string& identifier);
  void finishSession(const std::string& identifier, std::optional<Error> error, bool postUserStop);
  void failTelemetry(const std::string& why);
  void setStatus(const std::string& identifier, TunnelStatus status);
  template <class Completion, class Value>
  void answer(Completion completion, Value value);

  EventLoop& loop_;
  Clock& clock_;
  Log& log_;
  NamedNotificationCenter* notifications_;
  std::unique_ptr<TunnelHelperLauncher> launcher_;
  Options options_;
  TunnelPreferencesStore store_;
  std::map<std::string, Session, std::less<>> sessions_;
  // The helper of the one running session, and which session it serves.
  std::unique_ptr<TunnelHelperProcess> helper_;
  std::string helperIdentifier_;
  std::uint64_t helperGeneration_ = 0;
  std::optional<std::string> startAfterHelperEnds_;
  OneShotTimer stopTimer_;
  std::map<std::uint64_t, PendingTelemetry> telemetry_;
  std::uint64_t nextTelemetryId_ = 1;
  std::uint64_t nextGeneration_ = 1;
  std::shared_ptr<std::vector<std::pair<std::uint64_t, StatusObserver>>> observers_;
  std::uint64_t nextObserverId_ = 1;
  WeakPtrFactory<WireGuardTunnelService> weakFactory_{this};
};

}  // namespace norvik
