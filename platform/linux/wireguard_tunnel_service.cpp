#include "platform/linux/wireguard_tunnel_service.h"

#include <algorithm>

#include <fmt/format.h>

#include "platform/linux/tunnel_helper_protocol.h"

namespace norvik {

namespace protocol = tunnel_helper_protocol;

WireGuardTunnelService::WireGuardTunnelService(EventLoop& loop, Clock& clock, Log& log,
                                               NamedNotificationCenter* notifications,
                                               std::unique_ptr<TunnelHelperLauncher> launcher, Options options)
    : loop_(loop),
      clock_(clock),
      log_(log),
      notifications_(notifications),
      launcher_(std::move(launcher)),
      options_(std::move(options)),
      store_(log, options_.storeFile),
      observers_(std::make_shared<std::vector<std::pair<std::uint64_t, StatusObserver>>>()) {}

WireGuardTunnelService::~WireGuardTunnelService() {
  failTelemetry("служба туннеля остановлена");
  // The process object closes the helper's input and waits for it to give the network back; the
  // launcher goes after it.
  helper_.reset();
}

template <class Completion, class Value>
void WireGuardTunnelService::answer(Completion completion, Value value) {
  loop_.post(
      [completion = std::move(completion), value = std::move(value)]() mutable { completion(std::move(value)); });
}

void WireGuardTunnelService::loadAllFromPreferences(ConfigurationsCompletion completion) {
  answer(std::move(completion), std::expected<std::vector<TunnelConfiguration>, Error>(store_.configurations()));
}

void WireGuardTunnelService::saveToPreferences(TunnelConfiguration configuration, ConfigurationCompletion completion) {
  using Result = std::expected<TunnelConfiguration, Error>;
  auto saved = store_.save(std::move(configuration));
  if (!saved) return answer(std::move(completion), Result(std::unexpected(saved.error())));
  // A configuration switched off takes its session down, as the system does.
  if (!saved->isEnabled) {
    const TunnelStatus current = status(saved->identifier);
    if (current != TunnelStatus::disconnected && current != TunnelStatus::disconnecting) beginStop(saved->identifier);
  }
  answer(std::move(completion), Result(*saved));
}

void WireGuardTunnelService::loadFromPreferences(std::string identifier, ConfigurationCompletion completion) {
  using Result = std::expected<TunnelConfiguration, Error>;
  if (const TunnelConfiguration* stored = store_.find(identifier))
    return answer(std::move(completion), Result(*stored));
  answer(std::move(completion), Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid))));
}

void WireGuardTunnelService::removeFromPreferences(std::string identifier, DoneCompletion completion) {
  const TunnelStatus current = status(identifier);
  if (store_.find(identifier) && current != TunnelStatus::disconnected && current != TunnelStatus::disconnecting) {
    stopVPNTunnel(identifier);
  }
  answer(std::move(completion), store_.remove(identifier));
}

std::expected<void, Error> WireGuardTunnelService::startVPNTunnel(const std::string& identifier,
                                                                  const PropertyDictionary& /*options*/) {
  const TunnelConfiguration* configuration = store_.find(identifier);
  if (!configuration) return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid));
  if (!configuration->isEnabled) return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationDisabled));
  if (!configuration->protocolConfiguration ||
      configuration->protocolConfiguration->providerBundleIdentifier != protocol::kProviderBundleIdentifier) {
    return std::unexpected(makeNEVPNError(NEVPNErrorCode::configurationInvalid));
  }
  const TunnelStatus current = status(identifier);
  if (current == TunnelStatus::connecting || current == TunnelStatus::connected ||
      current == TunnelStatus::reasserting) {
    return {};
  }
  // The system runs one tunnel at a time.
  for (const auto& [other, session] : sessions_) {
    if (other != identifier && session.status != TunnelStatus::disconnected &&
        session.status != TunnelStatus::disconnecting) {
      beginStop(other);
    }
  }
  Session& session = sessions_[identifier];
  session.disconnectError.reset();
  session.helperError.reset();
  session.stopRequested = false;
  setStatus(identifier, TunnelStatus::connecting);
  if (helper_) {
    // The previous helper is still giving the network back; this one starts when it is done.
    // What the previous one still says is no longer about this session.
    session.generation = nextGeneration_++;
    startAfterHelperEnds_ = identifier;
    return {};
  }
  launch(identifier);
  return {};
}

void WireGuardTunnelService::launch(const std::string& identifier) {
  Session& session = sessions_[identifier];
  const std::uint64_t generation = nextGeneration_++;
  session.generation = generation;
  const TunnelConfiguration* configuration = store_.find(identifier);
  auto fail = [&](Error error) {
    loop_.post([weak = weakFactory_.weak(), identifier, generation, error = std::move(error)] {
      auto* self = weak.lock();
      if (!self || self->sessions_[identifier].generation != generation) return;
      self->finishSession(identifier, error, /*postUserStop=*/false);
    });
  };
  if (!configuration || !configuration->protocolConfiguration) {
    return fail(makeNEVPNError(NEVPNErrorCode::configurationInvalid, "The VPN configuration was removed"));
  }

  TunnelHelperCallbacks callbacks;
  callbacks.event = [weak = weakFactory_.weak(), identifier, generation](const std::string& line) {
    if (auto* self = weak.lock()) self->onEvent(identifier, generation, line);
  };
  callbacks.log = [weak = weakFactory_.weak()](std::string line) {
    auto* self = weak.lock();
    if (!self) return;
    if (line.starts_with("[")) {
      self->log_.write(line);
    } else {
      self->log_.format("[Tunnel] {}", line);
    }
  };
  callbacks.exited = [weak = weakFactory_.weak(), identifier, generation](int exitStatus) {
    if (auto* self = weak.lock()) self->onExit(identifier, generation, exitStatus);
  };
  auto process = launcher_->launch(std::move(callbacks));
  if (!process) {
    log_.format("[Tunnel] norvik-tunnel не запустился: {}", process.error().message);
    return fail(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed,
                               "norvik-tunnel не запустился: " + process.error().message));
  }
  helper_ = std::move(*process);
  helperIdentifier_ = identifier;
  helperGeneration_ = generation;
  helper_->send(protocol::startLine(configuration->protocolConfiguration->providerConfiguration));
}

void WireGuardTunnelService::onEvent(const std::string& identifier, std::uint64_t generation, const std::string& line) {
  Session& session = sessions_[identifier];
  if (session.generation != generation) return;
  auto event = protocol::parseEvent(line);
  if (!event) {
    log_.format("[Tunnel] непонятная строка от norvik-tunnel: {}", event.error());
    return;
  }
  switch (event->kind) {
    case protocol::Event::Kind::connecting:
      session.interfaceName = event->interfaceName;
      break;
    case protocol::Event::Kind::connected:
      session.interfaceName = event->interfaceName;
      if (session.status == TunnelStatus::connecting && !session.stopRequested) {
        session.connectedAt = clock_.now();
        setStatus(identifier, TunnelStatus::connected);
      }
      break;
    case protocol::Event::Kind::telemetry: {
      auto pending = telemetry_.find(event->id);
      if (pending == telemetry_.end()) break;
      PendingTelemetry waiting = std::move(pending->second);
      telemetry_.erase(pending);
      waiting.timeout.cancel();
      using Result = std::expected<TunnelTelemetry, Error>;
      if (event->telemetry) {
        answer(std::move(waiting.completion), Result(*event->telemetry));
      } else {
        answer(std::move(waiting.completion),
               Result(std::unexpected(event->error.value_or(makeNEVPNError(NEVPNErrorCode::connectionFailed)))));
      }
      break;
    }
    case protocol::Event::Kind::failed:
      session.helperError = event->error;
      break;
    case protocol::Event::Kind::stopped:
    default:
      break;
  }
}

void WireGuardTunnelService::onExit(const std::string& identifier, std::uint64_t generation, int exitStatus) {
  if (!helper_ || helperGeneration_ != generation) return;
  helper_.reset();
  helperIdentifier_.clear();
  stopTimer_.stop();
  failTelemetry("norvik-tunnel завершился");
  // 0 and 1 are the helper's own ends, after it gave the network back; anything else is a crash.
  if (exitStatus != 0 && exitStatus != 1) {
    log_.format("[Tunnel] norvik-tunnel завершился аварийно ({}), убираем его правила", exitStatus);
    launcher_->cleanUpAfterCrash();
  }
  Session& session = sessions_[identifier];
  const bool restartingSame = startAfterHelperEnds_ == identifier;
  if (!restartingSame) {
    if (session.stopRequested) {
      finishSession(identifier, std::nullopt, /*postUserStop=*/true);
    } else {
      finishSession(
          identifier,
          session.helperError.value_or(makeNEVPNError(NEVPNErrorCode::connectionFailed,
                                                      fmt::format("norvik-tunnel завершился (код {})", exitStatus))),
          /*postUserStop=*/false);
    }
  }
  if (startAfterHelperEnds_) {
    const std::string next = *startAfterHelperEnds_;
    startAfterHelperEnds_.reset();
    launch(next);
  }
}

void WireGuardTunnelService::stopVPNTunnel(const std::string& identifier) {
  const TunnelStatus current = status(identifier);
  if (current == TunnelStatus::disconnected || current == TunnelStatus::disconnecting) return;
  if (startAfterHelperEnds_ == identifier) {
    // Its start was still waiting for the previous helper; that one's end finishes the session.
    startAfterHelperEnds_.reset();
    Session& session = sessions_[identifier];
    session.stopRequested = true;
    setStatus(identifier, TunnelStatus::disconnecting);
    if (helperIdentifier_ != identifier) {
      session.generation = nextGeneration_++;
      loop_.post([weak = weakFactory_.weak(), identifier, generation = session.generation] {
        auto* self = weak.lock();
        if (self && self->sessions_[identifier].generation == generation) {
          self->finishSession(identifier, std::nullopt, /*postUserStop=*/true);
        }
      });
    }
    return;
  }
  beginStop(identifier);
}

void WireGuardTunnelService::beginStop(const std::string& identifier) {
  Session& session = sessions_[identifier];
  session.stopRequested = true;
  setStatus(identifier, TunnelStatus::disconnecting);
  if (!helper_ || helperIdentifier_ != identifier) {
    // No helper runs for it (it failed to start): the stop completes at once.
    loop_.post([weak = weakFactory_.weak(), identifier, generation = session.generation] {
      auto* self = weak.lock();
      if (self && self->sessions_[identifier].generation == generation &&
          self->sessions_[identifier].status == TunnelStatus::disconnecting) {
        self->finishSession(identifier, std::nullopt, /*postUserStop=*/true);
      }
    });
    return;
  }
  helper_->send(protocol::stopLine());
  helper_->closeInput();
  stopTimer_.start(loop_, options_.stopGrace, [weak = weakFactory_.weak()] {
    auto* self = weak.lock();
    if (!self || !self->helper_) return;
    self->log_.write("[Tunnel] norvik-tunnel не остановился вовремя — SIGTERM");
    self->helper_->terminate();
    self->stopTimer_.start(self->loop_, self->options_.stopGrace, [weak = self->weakFactory_.weak()] {
      auto* again = weak.lock();
      if (!again || !again->helper_) return;
      again->log_.write("[Tunnel] norvik-tunnel не остановился — SIGKILL");
      again->helper_->kill();
    });
  });
}

void WireGuardTunnelService::finishSession(const std::string& identifier, std::optional<Error> error,
                                           bool postUserStop) {
  Session& session = sessions_[identifier];
  session.connectedAt.reset();
  session.disconnectError = std::move(error);
  session.helperError.reset();
  session.stopRequested = false;
  session.interfaceName.clear();
  setStatus(identifier, TunnelStatus::disconnected);
  if (!postUserStop) return;
  if (notifications_) notifications_->post(kUserStopNotification);
  // On demand, the system brings the tunnel back up by itself.
  const TunnelConfiguration* configuration = store_.find(identifier);
  if (!configuration || !connectsOnDemand(*configuration)) return;
  const std::uint64_t stopped = session.generation;
  loop_.postAfter(options_.onDemandRestartDelay, [weak = weakFactory_.weak(), identifier, stopped] {
    auto* self = weak.lock();
    if (!self || self->sessions_[identifier].generation != stopped) return;
    const TunnelConfiguration* current = self->store_.find(identifier);
    if (current && connectsOnDemand(*current) && self->status(identifier) == TunnelStatus::disconnected) {
      (void)self->startVPNTunnel(identifier, {});
    }
  });
}

void WireGuardTunnelService::failTelemetry(const std::string& why) {
  using Result = std::expected<TunnelTelemetry, Error>;
  auto pending = std::move(telemetry_);
  telemetry_.clear();
  for (auto& [id, waiting] : pending) {
    waiting.timeout.cancel();
    answer(std::move(waiting.completion),
           Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::connectionFailed, why))));
  }
}

TunnelStatus WireGuardTunnelService::status(const std::string& identifier) const {
  auto it = sessions_.find(identifier);
  return it == sessions_.end() ? TunnelStatus::disconnected : it->second.status;
}

std::optional<Clock::TimePoint> WireGuardTunnelService::connectedDate(const std::string& identifier) const {
  auto it = sessions_.find(identifier);
  return it == sessions_.end() ? std::nullopt : it->second.connectedAt;
}

std::optional<Error> WireGuardTunnelService::lastDisconnectError(const std::string& identifier) const {
  auto it = sessions_.find(identifier);
  return it == sessions_.end() ? std::nullopt : it->second.disconnectError;
}

void WireGuardTunnelService::fetchTelemetry(const std::string& identifier, TelemetryCompletion completion) {
  using Result = std::expected<TunnelTelemetry, Error>;
  if (status(identifier) != TunnelStatus::connected || !helper_ || helperIdentifier_ != identifier) {
    return answer(std::move(completion),
                  Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::connectionFailed, "no running session"))));
  }
  const std::uint64_t id = nextTelemetryId_++;
  PendingTelemetry waiting{std::move(completion), {}};
  waiting.timeout = loop_.postAfter(options_.telemetryTimeout, [weak = weakFactory_.weak(), id] {
    auto* self = weak.lock();
    if (!self) return;
    auto pending = self->telemetry_.find(id);
    if (pending == self->telemetry_.end()) return;
    auto completion = std::move(pending->second.completion);
    self->telemetry_.erase(pending);
    self->answer(
        std::move(completion),
        Result(std::unexpected(makeNEVPNError(NEVPNErrorCode::connectionFailed, "norvik-tunnel не ответил вовремя"))));
  });
  telemetry_.emplace(id, std::move(waiting));
  helper_->send(protocol::telemetryRequestLine(id));
}

Subscription WireGuardTunnelService::observeStatus(StatusObserver observer) {
  const std::uint64_t id = nextObserverId_++;
  observers_->emplace_back(id, std::move(observer));
  std::weak_ptr<std::vector<std::pair<std::uint64_t, StatusObserver>>> weak = observers_;
  return Subscription([weak, id] {
    if (auto observers = weak.lock()) std::erase_if(*observers, [id](const auto& entry) { return entry.first == id; });
  });
}

void WireGuardTunnelService::setStatus(const std::string& identifier, TunnelStatus status) {
  Session& session = sessions_[identifier];
  if (session.status == status) return;
  session.status = status;
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
