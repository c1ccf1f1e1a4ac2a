#include "tunnel_helper/tunnel_session.h"

#include "platform/tunnel_service.h"

namespace norvik::tunnel_helper {

TunnelSession::TunnelSession(EventLoop& loop, Log& log, WireGuardDevice& device, NetworkConfigurator& network,
                             SystemDns& dns, SessionReporter& reporter, Options options)
    : loop_(loop), log_(log), device_(device), network_(network), dns_(dns), reporter_(reporter), options_(options) {}

TunnelSession::~TunnelSession() {
  // A session destroyed while running still gives the network back.
  if (state_ == State::connecting || state_ == State::connected) {
    if (dnsApplied_) dns_.restore();
    network_.restore();
    device_.destroy();
  }
}

void TunnelSession::start(const PreparedSession& prepared) {
  if (state_ != State::idle) return;
  state_ = State::connecting;
  dns_.repairLeftovers();
  network_.removeLeftovers();

  auto name = device_.create();
  if (!name) {
    return finish(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed,
                                 "не удалось создать интерфейс WireGuard: " + name.error().message));
  }
  interfaceName_ = *name;
  log_.format("[Tunnel] интерфейс {} создан", interfaceName_);
  if (auto configured = device_.configure(prepared.setRequest); !configured) {
    return finish(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed,
                                 "устройство WireGuard не приняло настройки: " + configured.error().message));
  }
  if (auto applied = network_.apply(interfaceName_, prepared.plan); !applied) {
    return finish(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed,
                                 "не удалось настроить маршруты: " + applied.error().message));
  }
  if (prepared.plan.dns) {
    // Marked before the attempt: a half-done change is taken back like a whole one.
    dnsApplied_ = true;
    if (auto set = dns_.apply(interfaceName_, *prepared.plan.dns); !set) {
      return finish(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed,
                                   "не удалось настроить DNS (" + dns_.name() + "): " + set.error().message));
    }
  }
  reporter_.connecting(interfaceName_);
  deadline_.start(loop_, options_.handshakeTimeout, [weak = weakFactory_.weak()] {
    auto* self = weak.lock();
    if (!self || self->state_ != State::connecting) return;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(self->options_.handshakeTimeout).count();
    self->finish(makeNEVPNError(NEVPNErrorCode::connectionFailed,
                                fmt::format("сервер не ответил на рукопожатие за {} с", seconds)));
  });
  poll();
}

void TunnelSession::poll() {
  if (state_ != State::connecting) return;
  auto state = device_.readState();
  if (state && state->lastHandshake()) {
    state_ = State::connected;
    deadline_.stop();
    log_.format("[Tunnel] первое рукопожатие на {} — подключено", interfaceName_);
    reporter_.connected(interfaceName_, *state->lastHandshake());
    network_.connected();
    return;
  }
  if (!state) log_.format("[Tunnel] состояние устройства не прочитано: {}", state.error().message);
  pollTimer_.start(loop_, options_.pollInterval, [weak = weakFactory_.weak()] {
    if (auto* self = weak.lock()) self->poll();
  });
}

void TunnelSession::requestTelemetry(std::uint64_t id) {
  if (state_ != State::connecting && state_ != State::connected) {
    reporter_.telemetry(id, std::unexpected(makeNEVPNError(NEVPNErrorCode::connectionFailed, "сессия не идёт")),
                        interfaceName_);
    return;
  }
  reporter_.telemetry(id, device_.readState(), interfaceName_);
}

void TunnelSession::stop() {
  if (state_ == State::ended) return;
  log_.write("[Tunnel] остановка по запросу");
  finish(std::nullopt);
}

void TunnelSession::deviceEnded(const std::string& reason) {
  if (state_ != State::connecting && state_ != State::connected) return;
  finish(makeNEVPNError(NEVPNErrorCode::connectionFailed, "процесс WireGuard завершился: " + reason));
}

void TunnelSession::finish(std::optional<Error> error) {
  const bool wasRunning = state_ != State::idle && state_ != State::ended;
  state_ = State::ended;
  pollTimer_.stop();
  deadline_.stop();
  if (wasRunning) {
    // The system's resolvers first, while the tunnel still carries the names; then the rules
    // (inside restore), then the device: traffic never meets a rule without a table.
    if (dnsApplied_) dns_.restore();
    dnsApplied_ = false;
    network_.restore();
    device_.destroy();
  }
  if (error) {
    log_.format("[Tunnel] сессия завершена с ошибкой: {}", error->message);
    reporter_.failed(*error);
  } else {
    reporter_.stopped();
  }
}

}  // namespace norvik::tunnel_helper
