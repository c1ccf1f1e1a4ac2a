#include "platform/simulated_tunnel_service.h"

#include <algorithm>

#include <fmt/format.h>

namespace norvik {
SimulatedTunnelService::SimulatedTunnelService(EventLoop& loop, Clock& clock, Log& log,
                                               NamedNotificationCenter* notifications, Options options)
    : loop_(loop),
      clock_(clock),
      notifications_(notifications),
      options_(std::move(options)),
      store_(log, options_.storeFile),
      observers_(std::make_shared<std::vector<std::pair<std::uint64_t, StatusObserver>>>()) {}

SimulatedTunnelService::~SimulatedTunnelService() = default;

template <class Completion, class Value>
void SimulatedTunnelService::answer(Completion completion, Value value) {
  // The caller guards its own lifetime; the answer itself needs nothing from this service.
  loop_.post(
      [completion = std::move(completion), value = std::move(value)]() mutable { completion(std::move(value)); });
}

TunnelConfiguration* SimulatedTunnelService::find(const std::string& identifier) { return store_.find(identifier); }

void SimulatedTunnelService::loadAllFromPreferences(ConfigurationsCompletion completion) {
  if (!failLoadAll_.empty()) {
    Error error = std::move(failLoadAll_.front());
    failLoadAll_.erase(failLoadAll_.begin());
    return answer(std::move(completion),
                  std::expected<std::vector<TunnelConfiguration>, Error>(std::unexpected(error)));
  }
  answer(std::move(completion), std::expected<std::vector<TunnelConfiguration>, Error>(store_.configurations()));
}

void SimulatedTunnelService::saveToPreferences(TunnelConfiguration configuration, ConfigurationCompletion completion) {
  using Result = std::expected<TunnelConfiguration, Error>;
  if (!failSave_.empty()) {
    Error error = std::move(failSave_.front());
    failSave_.erase(failSave_.begin());
    return answer(std::move(completion), Result(std::unexpected(error)));
  }
  ++saves_;
  auto saved = store_.save(std::move(configuration));
  if (!saved) return answer(std::move(completion), Result(std::unexpected(saved.error())));
  // A configuration switched off takes its session down, as the system does.
  if (!saved->isEnabled && status(saved->identifier) != TunnelStatus::disconnected) {
    beginStop(saved->identifier, /*postUserStop=*/true);
  }
  answer(std::move(completion), Result(*saved));
}

void SimulatedTunnelService::loadFromPreferences(std::string identifier, ConfigurationCompletion completion) {
  using Result = std::expected<TunnelConfiguration, Error>;
  if (const TunnelConfiguration* stored = find(identifier)) return answer(std::move(completion), Result(*stored));
  answer(std::move(completion), Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid))));
}

void SimulatedTunnelService::removeFromPreferences(std::string identifier, DoneCompletion completion) {
  using Result = std::expected<void, Error>;
  if (!failRemove_.empty()) {
    Error error = std::move(failRemove_.front());
    failRemove_.erase(failRemove_.begin());
    return answer(std::move(completion), Result(std::unexpected(error)));
  }
  if (!find(identifier)) {
    return answer(std::move(completion), Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid))));
  }
  if (status(identifier) != TunnelStatus::disconnected) finishStop(identifier, /*postUserStop=*/true, std::nullopt);
  answer(std::move(completion), Result(store_.remove(identifier)));
}

std::expected<void, Error> SimulatedTunnelService::startVPNTunnel(const std::string& identifier,
                                                                  const PropertyDictionary& options) {
  const TunnelConfiguration* configuration = find(identifier);
  if (!configuration) return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid));
  if (!configuration->isEnabled) return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationDisabled));
  if (!configuration->protocolConfiguration)
    return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid));
  startOptions_.push_back(options);

  const TunnelStatus current = status(identifier);
  if (current == TunnelStatus::connecting || current == TunnelStatus::connected) return {};
  // The system runs one tunnel at a time.
  for (const auto& [other, session] : sessions_) {
    if (other != identifier && session.status != TunnelStatus::disconnected) {
      finishStop(other, /*postUserStop=*/true, std::nullopt);
    }
  }

  sessions_[identifier].disconnectError.reset();
  setStatus(identifier, TunnelStatus::connecting);
  const std::uint64_t generation = sessions_[identifier].generation;
  std::optional<Error> failure;
  if (!failConnect_.empty()) {
    failure = std::move(failConnect_.front());
    failConnect_.erase(failConnect_.begin());
  } else if (connectHangs_) {
    return {};
  }
  loop_.postAfter(options_.connectDelay, [weak = weakFactory_.weak(), identifier, generation, failure] {
    auto self = weak.lock();
    if (!self || self->sessions_[identifier].generation != generation) return;
    if (failure) {
      self->finishStop(identifier, /*postUserStop=*/false, failure);
      return;
    }
    self->sessions_[identifier].connectedAt = self->clock_.now();
    self->setStatus(identifier, TunnelStatus::connected);
  });
  return {};
}

void SimulatedTunnelService::stopVPNTunnel(const std::string& identifier) {
  const TunnelStatus current = status(identifier);
  if (current == TunnelStatus::disconnected || current == TunnelStatus::disconnecting) return;
  beginStop(identifier, /*postUserStop=*/true);
}

void SimulatedTunnelService::beginStop(const std::string& identifier, bool postUserStop) {
  setStatus(identifier, TunnelStatus::disconnecting);
  const std::uint64_t generation = sessions_[identifier].generation;
  loop_.postAfter(options_.disconnectDelay, [weak = weakFactory_.weak(), identifier, generation, postUserStop] {
    auto self = weak.lock();
    if (!self || self->sessions_[identifier].generation != generation) return;
    self->finishStop(identifier, postUserStop, std::nullopt);
    // On demand, the system brings the tunnel back up by itself.
    const TunnelConfiguration* configuration = self->find(identifier);
    if (configuration && connectsOnDemand(*configuration)) {
      const std::uint64_t stopped = self->sessions_[identifier].generation;
      self->loop_.postAfter(self->options_.onDemandRestartDelay,
                            [weak = self->weakFactory_.weak(), identifier, stopped] {
                              auto again = weak.lock();
                              if (!again || again->sessions_[identifier].generation != stopped) return;
                              const TunnelConfiguration* current = again->find(identifier);
                              if (current && connectsOnDemand(*current)) (void)again->startVPNTunnel(identifier, {});
                            });
    }
  });
}

void SimulatedTunnelService::finishStop(const std::string& identifier, bool postUserStop, std::optional<Error> error) {
  Session& session = sessions_[identifier];
  session.connectedAt.reset();
  session.stalledAt.reset();
  session.disconnectError = std::move(error);
  setStatus(identifier, TunnelStatus::disconnected);
  if (postUserStop && notifications_) notifications_->post(kUserStopNotification);
}

void SimulatedTunnelService::endSessionFromTunnel(const std::string& identifier, Error error) {
  if (status(identifier) == TunnelStatus::disconnected) return;
  finishStop(identifier, /*postUserStop=*/false, std::move(error));
}

void SimulatedTunnelService::stopFromSystemControls(const std::string& identifier) {
  if (status(identifier) == TunnelStatus::disconnected) return;
  // The system's own switch also ends on-demand, so the tunnel stays down.
  // A failure to write it down is logged by the store; the stop itself holds for this run.
  (void)store_.update(identifier, [](TunnelConfiguration& configuration) { configuration.isOnDemandEnabled = false; });
  finishStop(identifier, /*postUserStop=*/true, std::nullopt);
}

TunnelStatus SimulatedTunnelService::status(const std::string& identifier) const {
  auto it = sessions_.find(identifier);
  return it == sessions_.end() ? TunnelStatus::disconnected : it->second.status;
}

std::optional<Clock::TimePoint> SimulatedTunnelService::connectedDate(const std::string& identifier) const {
  auto it = sessions_.find(identifier);
  return it == sessions_.end() ? std::nullopt : it->second.connectedAt;
}

std::optional<Error> SimulatedTunnelService::lastDisconnectError(const std::string& identifier) const {
  auto it = sessions_.find(identifier);
  return it == sessions_.end() ? std::nullopt : it->second.disconnectError;
}

void SimulatedTunnelService::fetchTelemetry(const std::string& identifier, TelemetryCompletion completion) {
  using Result = std::expected<TunnelTelemetry, Error>;
  auto it = sessions_.find(identifier);
  if (it == sessions_.end() || it->second.status != TunnelStatus::connected || !it->second.connectedAt) {
    return answer(std::move(completion),
                  Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::connectionFailed, "no running session"))));
  }
  Session& session = it->second;
  const Clock::TimePoint now = clock_.now();
  if (!trafficFlows_ && !session.stalledAt) session.stalledAt = now;
  if (trafficFlows_) session.stalledAt.reset();
  // Up to the stall the session behaves like a healthy one: a handshake at connect and every two
  // minutes after, and a steady stream of bytes.
  const Clock::TimePoint until = session.stalledAt.value_or(now);
  const auto flowing = std::chrono::duration_cast<std::chrono::seconds>(until - *session.connectedAt);
  constexpr auto kRekey = std::chrono::seconds(120);
  TunnelTelemetry telemetry;
  telemetry.lastHandshake = *session.connectedAt + (flowing / kRekey) * kRekey;
  telemetry.receivedBytes =
      static_cast<std::uint64_t>(std::max<std::int64_t>(flowing.count(), 0)) * bytesPerSecond_ + 148;
  telemetry.sentBytes = telemetry.receivedBytes / 4 + 148;
  telemetry.interfaceName = "norvik0";
  answer(std::move(completion), Result(telemetry));
}

Subscription SimulatedTunnelService::observeStatus(StatusObserver observer) {
  const std::uint64_t id = nextObserverId_++;
  observers_->emplace_back(id, std::move(observer));
  std::weak_ptr<std::vector<std::pair<std::uint64_t, StatusObserver>>> weak = observers_;
  return Subscription([weak, id] {
    if (auto observers = weak.lock()) std::erase_if(*observers, [id](const auto& entry) { return entry.first == id; });
  });
}

void SimulatedTunnelService::setStatus(const std::string& identifier, TunnelStatus status) {
  Session& session = sessions_[identifier];
  session.status = status;
  ++session.generation;
  // Observers hear of it on the loop, in order.
  loop_.post([observers = std::weak_ptr(observers_), identifier, status] {
    auto list = observers.lock();
    if (!list) return;
    auto snapshot = *list;
    for (const auto& [id, observer] : snapshot) {
      const bool still = std::ranges::any_of(*list, [id](const auto& entry) { return entry.first == id; });
      if (still) observer(identifier, status);
    }
  });
}

}  // namespace norvik
