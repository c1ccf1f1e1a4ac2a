// The verify window of SmartStatusEngine: telemetry polled at the policy's step, the probe through
// the tunnel, and the verdict of judgeWindow() as evidence arrives.

#include <algorithm>

#include <fmt/format.h>

#include "health/smart_status_engine.h"
#include "health/smart_status_engine_cycle.h"

namespace norvik {
namespace {

using std::chrono::milliseconds;

bool contains(const std::vector<std::int64_t>& modes, std::int64_t mode) {
  return std::find(modes.begin(), modes.end(), mode) != modes.end();
}

std::string describeEvidence(const VerifyEvidence& evidence, Clock::TimePoint now) {
  std::string handshake = "none";
  std::string received = "none";
  if (evidence.latest) {
    if (evidence.latest->lastHandshake) {
      handshake = fmt::format(
          "{}s", std::chrono::duration_cast<std::chrono::seconds>(now - *evidence.latest->lastHandshake).count());
    }
    if (evidence.rxAtStart) {
      const auto latest = evidence.latest->receivedBytes;
      received = std::to_string(latest >= *evidence.rxAtStart ? latest - *evidence.rxAtStart : latest);
    }
  }
  const std::string probe = evidence.tunnelProbe ? (*evidence.tunnelProbe ? "ok" : "fail") : "none";
  return fmt::format("handshakeAge={} rx+={} tunnelProbe={}", handshake, received, probe);
}

}  // namespace

void SmartStatusEngine::openWindow() {
  Cycle& cycle = *cycle_;
  auto window = std::make_unique<Window>();
  window->id = cycle.nextWindowId++;
  window->openedAt = loop_.now();
  const std::int64_t mode = routingModeCode_ ? routingModeCode_() : 0;
  window->demands = VerifyDemands{cycle.freshHandshake, cycle.anchor, contains(cycle.policy.requireRxModes, mode),
                                  contains(cycle.policy.probeTunnelModes, mode)};
  cycle.window = std::move(window);
  Window& w = *cycle.window;
  const auto length = milliseconds(cycle.policy.verifyWindowMs);
  auto weak = weakFactory_.weak();
  const std::uint64_t id = w.id;

  // Windows the backend's debug object settles in advance.
  if (debug_.forceFailCount > 0) {
    --debug_.forceFailCount;
    log_.format("[SmartStatus] debug: окно проваливаем намеренно (ещё {})", debug_.forceFailCount);
    w.endTimer.start(loop_, std::min(milliseconds(cycle.policy.verifyFailFastMs), length), [weak] {
      if (auto* self = weak.lock()) self->closeWindow(WindowVerdict::failed);
    });
    return;
  }
  if (debug_.forceInconclusiveCount > 0) {
    --debug_.forceInconclusiveCount;
    log_.format("[SmartStatus] debug: окно без вердикта намеренно (ещё {})", debug_.forceInconclusiveCount);
    w.endTimer.start(loop_, length, [weak] {
      if (auto* self = weak.lock()) self->closeWindow(WindowVerdict::inconclusive);
    });
    return;
  }

  w.endTimer.start(loop_, length, [weak, id] {
    auto* self = weak.lock();
    if (!self || !self->cycle_ || !self->cycle_->window || self->cycle_->window->id != id) return;
    self->cycle_->window->over = true;
    self->cycle_->window->pollTimer.stop();
    self->judge();
  });
  // Evidence of failure may be in hand before the fail-fast moment: look again right at it.
  w.failFastTimer.start(loop_, milliseconds(cycle.policy.verifyFailFastMs), [weak] {
    if (auto* self = weak.lock()) self->judge();
  });
  w.pollTimer.start(loop_, milliseconds(cycle.policy.pollIntervalMs), [weak] {
    if (auto* self = weak.lock()) self->poll();
  });
  poll();
}

void SmartStatusEngine::poll() {
  if (!cycle_ || !cycle_->window) return;
  Window& w = *cycle_->window;
  if (w.fetching || w.over) return;  // one request at a time; a slow one is cut by its time-out
  w.fetching = true;
  const std::uint64_t sequence = ++w.fetchSequence;
  const std::uint64_t windowId = w.id;
  auto weak = weakFactory_.weak();
  w.fetchTimeout.start(loop_, milliseconds(cycle_->policy.telemetryTimeoutMs), [weak, windowId, sequence] {
    if (auto* self = weak.lock()) {
      self->onTelemetry(windowId, sequence, std::unexpected(Error{"SmartStatus", 1, "telemetry timed out"}));
    }
  });
  const auto& manager = vpn_.tunnelManager();
  tunnels_.fetchTelemetry(manager ? manager->identifier : std::string(),
                          [weak, windowId, sequence](std::expected<TunnelTelemetry, Error> telemetry) {
                            if (auto* self = weak.lock()) self->onTelemetry(windowId, sequence, std::move(telemetry));
                          });
}

void SmartStatusEngine::onTelemetry(std::uint64_t windowId, std::uint64_t sequence,
                                    std::expected<TunnelTelemetry, Error> telemetry) {
  if (!cycle_ || !cycle_->window || cycle_->window->id != windowId) return;
  Window& w = *cycle_->window;
  if (!w.fetching || sequence != w.fetchSequence) return;  // late: its time-out answered already
  w.fetching = false;
  w.fetchTimeout.stop();
  std::optional<std::string> interfaceName;
  if (telemetry) {
    if (!w.evidence.rxAtStart) w.evidence.rxAtStart = telemetry->receivedBytes;
    interfaceName = telemetry->interfaceName;
    w.evidence.latest = std::move(*telemetry);
  }
  // The probe goes out once the first answer (or its absence) tells which interface to use.
  if (w.demands.tunnelProbe && !w.probeStarted) return startTunnelProbe(std::move(interfaceName));
  judge();
}

void SmartStatusEngine::startTunnelProbe(std::optional<std::string> interfaceName) {
  Window& w = *cycle_->window;
  w.probeStarted = true;
  if (debug_.tunnelProbeOverride) {
    log_.format("[SmartStatus] debug: проба через туннель задана: {}", *debug_.tunnelProbeOverride);
    w.evidence.tunnelProbe = *debug_.tunnelProbeOverride;
    return judge();
  }
  probes_.probeTunnel(cycle_->policy, std::move(interfaceName), [weak = weakFactory_.weak(), id = w.id](bool reached) {
    auto* self = weak.lock();
    if (!self || !self->cycle_ || !self->cycle_->window || self->cycle_->window->id != id) return;
    self->cycle_->window->evidence.tunnelProbe = reached;
    self->judge();
  });
  judge();
}

void SmartStatusEngine::judge() {
  if (!cycle_ || !cycle_->window) return;
  Window& w = *cycle_->window;
  const auto elapsed = std::chrono::duration_cast<milliseconds>(loop_.now() - w.openedAt);
  const WindowVerdict verdict = judgeWindow(cycle_->policy, w.demands, w.evidence, clock_.now(), elapsed, w.over);
  if (verdict != WindowVerdict::pending) closeWindow(verdict);
}

void SmartStatusEngine::closeWindow(WindowVerdict verdict) {
  if (!cycle_ || !cycle_->window) return;
  const auto elapsed = std::chrono::duration_cast<milliseconds>(loop_.now() - cycle_->window->openedAt);
  log_.format("[SmartStatus] окно проверки: {} за {}ms ({})", toString(verdict), elapsed.count(),
              describeEvidence(cycle_->window->evidence, clock_.now()));
  cycle_->window.reset();
  switch (verdict) {
    case WindowVerdict::passed:
      return succeed();
    case WindowVerdict::inconclusive:
      return endWithoutVerdict();
    case WindowVerdict::failed:
    default:
      return afterFailedWindow();
  }
}

}  // namespace norvik
