#include "tunnel/silent_restart.h"

#include <algorithm>

#include <fmt/format.h>

#include "tunnel/self_heal.h"
#include "tunnel/soft_remove_marker.h"
#include "tunnel/tunnel_connector.h"

namespace norvik {

std::string_view toString(RestartStep step) {
  switch (step) {
    case RestartStep::precondition:
      return "precondition";
    case RestartStep::disconnect:
      return "disconnect";
    case RestartStep::connect:
      return "connect";
    case RestartStep::none:
    default:
      return "";
  }
}

struct SilentRestart::Run {
  std::uint64_t token = 0;
  std::int64_t delayMs = 0;
  std::int64_t connectTimeoutMs = 0;
  std::string identifier;
  OneShotTimer timer;
  Done completion;
};

SilentRestart::SilentRestart(TunnelContext& context, TunnelConnector& connector)
    : context_(context), connector_(connector) {}

SilentRestart::~SilentRestart() = default;

std::optional<std::string> SilentRestart::blockedBy(std::uint64_t token) const {
  const TunnelRecord& record = context_.record;
  if (token != record.repairToken) return "токен сброшен";
  if (!record.tunnelManager || !record.tunnelManager->protocolConfiguration ||
      carriesSoftRemoveMarker(*record.tunnelManager)) {
    return "конфигурация отсутствует";
  }
  if (context_.group.boolForKey(TunnelConnector::kUserInitiatedStopKey)) return "стоп инициирован пользователем";
  if (record.isServerChangeInProgress) return "идёт смена сервера — старый конфиг не поднимаем";
  return std::nullopt;
}

void SilentRestart::run(std::uint64_t token, std::int64_t delayMs, std::int64_t connectTimeoutMs, Done completion) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  Log& log = context_.log;
  log.format("[VPNManager] [SmartStatus] silentTunnelRestart: start delay={}ms connectTimeout={}ms", delayMs,
             connectTimeoutMs);
  std::optional<std::string> blocked = current_ ? std::optional<std::string>("починка уже идёт") : blockedBy(token);
  // Nothing was touched: no status to publish, and a restart that runs keeps running.
  if (blocked) return reject(std::move(*blocked), std::move(completion));

  current_ = std::make_shared<Run>();
  current_->token = token;
  current_->delayMs = std::max<std::int64_t>(delayMs, 0);
  current_->connectTimeoutMs = std::max<std::int64_t>(connectTimeoutMs, 0);
  current_->identifier = context_.record.tunnelManager->identifier;
  current_->completion = std::move(completion);

  const EventLoop::TimePoint deadline = context_.loop.now() + kDisconnectLimit;
  connector_.stopAsApplication(
      *context_.record.tunnelManager, [weak = weakFactory_.weak(), deadline](const TunnelConfiguration&) {
        auto* self = weak.lock();
        if (!self || !self->current_) return;
        self->poll(TunnelStatus::disconnected, deadline, [weak](bool down) {
          auto* self = weak.lock();
          if (!self) return;
          if (!down) {
            return self->finish(RestartStep::disconnect,
                                fmt::format("не дождались .disconnected за {}ms", kDisconnectLimit.count()));
          }
          self->current_->timer.start(self->context_.loop, std::chrono::milliseconds(self->current_->delayMs), [weak] {
            if (auto* owner = weak.lock()) owner->connectStep();
          });
        });
      });
}

void SilentRestart::refuse(std::int64_t delayMs, std::int64_t connectTimeoutMs, std::string reason, Done completion) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  context_.log.format("[VPNManager] [SmartStatus] silentTunnelRestart: start delay={}ms connectTimeout={}ms", delayMs,
                      connectTimeoutMs);
  reject(std::move(reason), std::move(completion));
}

void SilentRestart::reject(std::string reason, Done completion) {
  const auto step = toString(RestartStep::precondition);
  context_.log.format("[VPNManager] [SmartStatus] silentTunnelRestart: {}: {}", step, reason);
  context_.log.format("[VPNManager] [SmartStatus] silentTunnelRestart: end ok=false failStep={}", step);
  context_.log.format("[VPNManager] [SmartStatus] починка провалена на шаге {}", step);
  context_.loop.post([completion = std::move(completion), reason = std::move(reason)]() mutable {
    if (completion) completion(SilentRestartResult{false, RestartStep::precondition, std::move(reason)});
  });
}

void SilentRestart::connectStep() {
  // Whatever changed during the wait is checked again before the tunnel is brought back.
  if (auto blocked = blockedBy(current_->token)) return finish(RestartStep::precondition, *blocked);
  const EventLoop::TimePoint deadline = context_.loop.now() + std::chrono::milliseconds(current_->connectTimeoutMs);
  connector_.connect([weak = weakFactory_.weak(), deadline](std::expected<void, Error> started) {
    auto* self = weak.lock();
    if (!self || !self->current_) return;
    if (!started) {
      self->context_.log.format("[VPNManager] [SmartStatus] подъём туннеля в починке не удался: {}",
                                started.error().description());
      return self->finish(RestartStep::connect, started.error().description());
    }
    self->poll(TunnelStatus::connected, deadline, [weak](bool up) {
      auto* self = weak.lock();
      if (!self) return;
      if (up) return self->finish(RestartStep::none, {});
      self->finish(RestartStep::connect,
                   fmt::format("не дождались .connected за {}ms", self->current_->connectTimeoutMs));
    });
  });
}

// Polls the system's status every 100 ms until it is `wanted` or `deadline` has come; the last look
// is at the deadline itself. A repair superseded meanwhile stops at once.
void SilentRestart::poll(TunnelStatus wanted, EventLoop::TimePoint deadline, std::move_only_function<void(bool)> then) {
  Run& restart = *current_;
  if (restart.token != context_.record.repairToken) return finish(RestartStep::precondition, "токен сброшен");
  if (context_.tunnels.status(restart.identifier) == wanted) return then(true);
  const EventLoop::TimePoint now = context_.loop.now();
  if (now >= deadline) return then(false);
  const EventLoop::Duration next = std::min<EventLoop::Duration>(kPollInterval, deadline - now);
  restart.timer.start(context_.loop, next,
                      [weak = weakFactory_.weak(), wanted, deadline, then = std::move(then)]() mutable {
                        if (auto* self = weak.lock()) self->poll(wanted, deadline, std::move(then));
                      });
}

void SilentRestart::finish(RestartStep failStep, std::string reason) {
  std::shared_ptr<Run> restart = std::exchange(current_, nullptr);
  const bool ok = failStep == RestartStep::none;
  Log& log = context_.log;
  if (!ok) log.format("[VPNManager] [SmartStatus] silentTunnelRestart: {}: {}", toString(failStep), reason);
  log.format("[VPNManager] [SmartStatus] silentTunnelRestart: end ok={} failStep={}", ok, toString(failStep));
  if (!ok) log.format("[VPNManager] [SmartStatus] починка провалена на шаге {}", toString(failStep));
  applyRealStatus();
  if (restart->completion) restart->completion(SilentRestartResult{ok, failStep, std::move(reason)});
}

// The screens were kept on the old state during the restart; they get the system's now. A tunnel
// that ended up down is then a drop like any other, for the owner of the user's intent to handle.
void SilentRestart::applyRealStatus() {
  TunnelRecord& record = context_.record;
  if (!record.tunnelManager) return;
  const std::string& identifier = record.tunnelManager->identifier;
  const TunnelStatus status = context_.tunnels.status(identifier);
  const bool selfHeal =
      status == TunnelStatus::disconnected && context_.group.integerForKey(SelfHeal::kMaxPerDayFlag) > 0;
  context_.log.format("[VPNManager] [SmartStatus] applyRealStatus: raw={} selfHeal={}", toString(status), selfHeal);
  record.connectionStartTime =
      status == TunnelStatus::connected ? context_.tunnels.connectedDate(identifier) : std::nullopt;
  record.connectionState.set(status);
}

}  // namespace norvik
