#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <vector>

#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/named_notifications.h"
#include "platform/tunnel_preferences_store.h"
#include "platform/tunnel_service.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

// A tunnel service that behaves as the system's does, without a tunnel: configurations persist
// (in a file under the home when one is given), a started session moves through connecting to
// connected after a delay, a disabled or unknown configuration is refused with the system's error
// codes, a stale save fails as stale, on-demand brings a stopped session back as the system does,
// and the tunnel program posts its stop notification. Failures can be injected. Used by the tests
// and by machines that may not create network interfaces.
//
// Threading: a main-loop object; completions and status changes are posted to the loop.
class SimulatedTunnelService final : public TunnelService {
 public:
  static constexpr std::string_view kUserStopNotification = "com.norvik.macos.tunnel.userstop";

  struct Options {
    std::optional<std::filesystem::path> storeFile{};  // none: in memory only
    EventLoop::Duration connectDelay = std::chrono::milliseconds(300);
    EventLoop::Duration disconnectDelay = std::chrono::milliseconds(100);
    EventLoop::Duration onDemandRestartDelay = std::chrono::seconds(1);
  };

  SimulatedTunnelService(EventLoop& loop, Clock& clock, Log& log, NamedNotificationCenter* notifications,
                         Options options);
  ~SimulatedTunnelService() override;

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

  // --- Failure injection ---
  void failNextLoadAll(Error error) { failLoadAll_.push_back(std::move(error)); }
  void failNextSave(Error error) { failSave_.push_back(std::move(error)); }
  void failNextRemove(Error error) { failRemove_.push_back(std::move(error)); }
  // The next start is accepted, then the tunnel program fails to connect with this error.
  void failNextConnect(Error error) { failConnect_.push_back(std::move(error)); }
  // The tunnel program ends the running session on its own (it crashed, say).
  void endSessionFromTunnel(const std::string& identifier, Error error);
  // The user stops the session from the system's own controls.
  void stopFromSystemControls(const std::string& identifier);
  void setConnectDelay(EventLoop::Duration delay) { options_.connectDelay = delay; }
  // How long a stop takes; a long one is a tunnel program slow to go down.
  void setDisconnectDelay(EventLoop::Duration delay) { options_.disconnectDelay = delay; }
  // A start that never reaches connected (a tunnel program that hangs).
  void setConnectHangs(bool hangs) { connectHangs_ = hangs; }
  // Traffic flows through a connected session by default: handshakes renew every two minutes and
  // bytes arrive at `bytesPerSecond`. Switched off, the session stays "connected" with its last
  // handshake ageing and no bytes arriving — a tunnel that is up but carries nothing.
  void setTrafficFlows(bool flows) { trafficFlows_ = flows; }
  void setBytesPerSecond(std::uint64_t rate) { bytesPerSecond_ = rate; }

  // --- What tests look at ---
  [[nodiscard]] const std::vector<TunnelConfiguration>& configurations() const { return store_.configurations(); }
  [[nodiscard]] std::size_t saveCount() const { return saves_; }
  [[nodiscard]] const std::vector<PropertyDictionary>& startOptions() const { return startOptions_; }

 private:
  struct Session {
    TunnelStatus status = TunnelStatus::disconnected;
    std::optional<Clock::TimePoint> connectedAt;
    std::optional<Clock::TimePoint> stalledAt;  // when traffic stopped flowing in this session
    std::optional<Error> disconnectError;
    std::uint64_t generation = 0;  // bumps on every transition; stale timers see it
  };

  TunnelConfiguration* find(const std::string& identifier);
  void setStatus(const std::string& identifier, TunnelStatus status);
  void finishStop(const std::string& identifier, bool postUserStop, std::optional<Error> error);
  void beginStop(const std::string& identifier, bool postUserStop);
  template <class Completion, class Value>
  void answer(Completion completion, Value value);

  EventLoop& loop_;
  Clock& clock_;
  NamedNotificationCenter* notifications_;
  Options options_;
  TunnelPreferencesStore store_;
  std::map<std::string, Session, std::less<>> sessions_;
  std::shared_ptr<std::vector<std::pair<std::uint64_t, StatusObserver>>> observers_;
  std::uint64_t nextObserverId_ = 1;
  std::vector<Error> failLoadAll_, failSave_, failRemove_, failConnect_;
  bool connectHangs_ = false;
  bool trafficFlows_ = true;
  std::uint64_t bytesPerSecond_ = 20'000;
  std::size_t saves_ = 0;
  std::vector<PropertyDictionary> startOptions_;
  WeakPtrFactory<SimulatedTunnelService> weakFactory_{this};
};

}  // namespace norvik
