// The parts of VPNManager that keep the configuration alive without bothering the user: the soft
// removal of a key with its escalation to a clean install, the self-heal of a tunnel that dropped,
// and the silent restart the health engine repairs with.

#include <algorithm>

#include "tunnel/soft_remove_marker.h"
#include "tunnel/vpn_manager.h"

namespace norvik {
namespace {

bool isLive(TunnelStatus status) {
  return status == TunnelStatus::connecting || status == TunnelStatus::connected || status == TunnelStatus::reasserting;
}

bool isStale(const Error& error) {
  return error.domain == kNEVPNErrorDomain && error.code == static_cast<int>(NEVPNErrorCode::configurationStale);
}

// The emptied configuration: the same tunnel program, no key, switched off everywhere.
TunnelConfiguration makeSoftRemoveMarker(TunnelConfiguration configuration) {
  TunnelProviderProtocol marker;
  marker.providerBundleIdentifier = std::string(VPNManager::kProviderBundleIdentifier);
  marker.providerConfiguration[std::string(kSoftRemoveMarkerKey)] = true;
  configuration.protocolConfiguration = std::move(marker);
  configuration.isEnabled = false;
  configuration.isOnDemandEnabled = false;
  configuration.onDemandRules.clear();
  return configuration;
}

constexpr std::string_view kStepPrecondition = "precondition";
constexpr std::string_view kStepDisconnect = "disconnect";
constexpr std::string_view kStepConnect = "connect";

}  // namespace

struct VPNManager::SoftRemoveRun {
  std::string intent;
  SoftRemoveDone completion;
};

struct VPNManager::SilentRestart {
  RepairToken token = 0;
  std::int64_t delayMs = 0;
  std::int64_t connectTimeoutMs = 0;
  std::string identifier;
  OneShotTimer timer;
  SilentRestartDone completion;
};

bool VPNManager::softDeleteEnabled() const { return group_.integerForKey(kKeySoftDeleteFlag) > 0; }

bool VPNManager::softDeleteWatched() const { return softDeleteEnabled() && standard_.boolForKey(kSoftDeleteArmedKey); }

void VPNManager::forgetConfiguration(const std::string& identifier) {
  if (tunnelManager_ && tunnelManager_->identifier == identifier) tunnelManager_.reset();
  isConfigured_.set(false);
}

// --- Soft removal ---

void VPNManager::softRemove(std::string intent, SoftRemoveDone completion) {
  if (softRemoveInFlight_) {
    log_.format("[VPNManager] [keySoftDelete] soft remove already in flight ({}) — дубль отклонён",
                *softRemoveInFlight_);
    if (completion)
      loop_.post([completion = std::move(completion)]() mutable { completion(SoftRemoveOutcome::refused); });
    return;
  }
  log_.format("[VPNManager] [keySoftDelete] soft remove (intent: {})", intent);
  resetRepairToken();
  softRemoveInFlight_ = intent;
  auto run = std::make_shared<SoftRemoveRun>(SoftRemoveRun{std::move(intent), std::move(completion)});
  tunnels_.loadAllFromPreferences([weak = weakFactory_.weak(), run](auto loaded) mutable {
    if (auto self = weak.lock()) self->onSoftRemoveLoaded(std::move(run), std::move(loaded));
  });
}

void VPNManager::onSoftRemoveLoaded(std::shared_ptr<SoftRemoveRun> run,
                                    std::expected<std::vector<TunnelConfiguration>, Error> loaded) {
  if (!loaded) {
    log_.format("Soft-remove: error loading managers: {}", loaded.error().description());
    // Without the list the marker cannot be based on the stored copy; the key still goes.
    if (tunnelManager_) return softRemoveFallback(run, tunnelManager_->identifier);
    return finishSoftRemove(run, SoftRemoveOutcome::failed);
  }
  auto found = std::ranges::find(*loaded, std::optional<std::string>(kConfigurationName),
                                 &TunnelConfiguration::localizedDescription);
  if (found == loaded->end()) {
    log_.format("Soft-remove: no tunnel manager named {} → caller falls back to legacy remove()", kConfigurationName);
    return finishSoftRemove(run, SoftRemoveOutcome::noConfiguration);
  }
  const TunnelStatus status = tunnels_.status(found->identifier);
  if (isLive(status)) {
    log_.format("Soft-remove: stopping live tunnel before save (status: {})", toString(status));
    recordApplicationStop();
    tunnels_.stopVPNTunnel(found->identifier);
  }
  saveSoftRemoveMarker(std::move(run), *found, /*staleRetry=*/false);
}

void VPNManager::saveSoftRemoveMarker(std::shared_ptr<SoftRemoveRun> run, const TunnelConfiguration& base,
                                      bool staleRetry) {
  // Saving the marker disables the configuration, which also ends a session that still runs.
  recordApplicationStop();
  const std::string identifier = base.identifier;
  save(makeSoftRemoveMarker(base), [weak = weakFactory_.weak(), run, identifier, staleRetry](auto saved) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (saved) {
      self->log_.format("Soft-remove: marker saved, consent kept{}", staleRetry ? " (after stale retry)" : "");
      self->standard_.setBool(kSoftDeleteArmedKey, true);
      self->standard_.setInteger(kSoftDeleteFailsKey, 0);
      self->tunnelManager_ = std::move(*saved);
      return self->finishSoftRemove(run, SoftRemoveOutcome::markerSaved);
    }
    if (!staleRetry && isStale(saved.error())) {
      // Someone saved the configuration since it was loaded: base the marker on the stored copy.
      self->tunnels_.loadFromPreferences(identifier, [weak, run, identifier](auto reloaded) mutable {
        auto self = weak.lock();
        if (!self) return;
        if (!reloaded) {
          self->log_.format("Soft-remove save failed: {} → fallback removeFromPreferences",
                            reloaded.error().description());
          return self->softRemoveFallback(run, identifier);
        }
        self->saveSoftRemoveMarker(std::move(run), *reloaded, /*staleRetry=*/true);
      });
      return;
    }
    self->log_.format("Soft-remove save failed: {} → fallback removeFromPreferences", saved.error().description());
    self->softRemoveFallback(run, identifier);
  });
}

void VPNManager::softRemoveFallback(const std::shared_ptr<SoftRemoveRun>& run, const std::string& identifier) {
  recordApplicationStop();
  tunnels_.removeFromPreferences(identifier, [weak = weakFactory_.weak(), run, identifier](auto removed) {
    auto self = weak.lock();
    if (!self) return;
    if (!removed) {
      self->log_.format("Soft-remove fallback removeFromPreferences failed: {}", removed.error().description());
      return self->finishSoftRemove(run, SoftRemoveOutcome::failed);
    }
    self->forgetConfiguration(identifier);
    self->finishSoftRemove(run, SoftRemoveOutcome::removedInstead);
  });
}

void VPNManager::finishSoftRemove(const std::shared_ptr<SoftRemoveRun>& run, SoftRemoveOutcome outcome) {
  softRemoveInFlight_.reset();
  if (run->completion) std::exchange(run->completion, nullptr)(outcome);
}

void VPNManager::removeConfiguration(Done completion) {
  resetRepairToken();
  tunnels_.loadAllFromPreferences(
      [weak = weakFactory_.weak(), completion = std::move(completion)](auto loaded) mutable {
        auto self = weak.lock();
        if (!self) return;
        if (!loaded) {
          self->log_.format("Error loading preferences: {}", loaded.error().description());
          return completion(std::unexpected(loaded.error()));
        }
        const TunnelConfiguration* found = findManager(*loaded);
        if (!found) return completion({});  // nothing to remove: the key is gone either way
        const std::string identifier = found->identifier;
        self->recordApplicationStop();
        self->tunnels_.removeFromPreferences(
            identifier, [weak, identifier, completion = std::move(completion)](auto removed) mutable {
              auto self = weak.lock();
              if (!self) return;
              if (!removed) {
                self->log_.format("[VPNManager] удаление конфигурации не удалось: {}", removed.error().description());
                return completion(std::unexpected(removed.error()));
              }
              self->forgetConfiguration(identifier);
              completion({});
            });
      });
}

void VPNManager::normalizeLeftoverMarker(const TunnelConfiguration& configuration) {
  if (softDeleteEnabled() || !carriesSoftRemoveMarker(configuration) || gateOffNormalizeInFlight_) return;
  gateOffNormalizeInFlight_ = true;
  const std::string identifier = configuration.identifier;
  tunnels_.removeFromPreferences(identifier, [weak = weakFactory_.weak(), identifier](auto removed) {
    auto self = weak.lock();
    if (!self) return;
    self->gateOffNormalizeInFlight_ = false;
    if (!removed) {
      self->log_.format("[VPNManager] [keySoftDelete] нормализация маркера не удалась: {}",
                        removed.error().description());
      return;
    }
    // The kept configuration is gone, and with it the consent the watch was about.
    self->standard_.remove(kSoftDeleteArmedKey);
    self->standard_.remove(kSoftDeleteFailsKey);
    self->forgetConfiguration(identifier);
  });
}

// --- Escalation ---

std::int64_t VPNManager::escalationThreshold(std::int64_t keySoftDelete) {
  // Uneven on purpose: 1 and 2 both mean two failures, and nine is the most ever waited for.
  return keySoftDelete < 3 ? 2 : std::min<std::int64_t>(keySoftDelete, 9);
}

void VPNManager::noteInstallResult(std::expected<void, Error> result, std::string keyText, Done completion) {
  if (!softDeleteWatched()) return completion(std::move(result));
  const std::int64_t stored = standard_.integerForKey(kSoftDeleteFailsKey);
  const std::int64_t threshold = escalationThreshold(group_.integerForKey(kKeySoftDeleteFlag));

  std::optional<Error> failure = result ? std::nullopt : std::optional<Error>(result.error());
  if (group_.integerForKey(kKeySoftDeleteDebugFlag) == 2 && stored < threshold) {
    log_.format("[VPNManager] [keySoftDelete] debug=2: имитируем провал установки (fails={})", stored);
    if (!failure) failure = Error{"", 0, "debug=2"};
  }
  if (!failure) {
    // The key is back in the kept configuration and the user was not asked again: the watch ends.
    standard_.remove(kSoftDeleteArmedKey);
    standard_.remove(kSoftDeleteFailsKey);
    return completion(std::move(result));
  }

  const std::int64_t fails = stored + 1;
  standard_.setInteger(kSoftDeleteFailsKey, fails);
  log_.format("[VPNManager] [keySoftDelete] провал установки после мягкого удаления: {}", failure->description());
  if (fails < threshold) return completion(std::move(result));
  escalate(fails, std::move(result), std::move(keyText), std::move(completion));
}

void VPNManager::escalate(std::int64_t fails, std::expected<void, Error> result, std::string keyText, Done completion) {
  log_.format("[VPNManager] [keySoftDelete] {} провалов подряд → полное удаление + чистая установка", fails);
  auto pending = std::make_shared<std::pair<std::string, Done>>(std::move(keyText), std::move(completion));
  auto original = std::make_shared<std::expected<void, Error>>(std::move(result));
  tunnels_.loadAllFromPreferences([weak = weakFactory_.weak(), pending, original](auto loaded) {
    auto self = weak.lock();
    if (!self) return;
    if (!loaded) {
      // The count stays at the threshold, so the next install tries the escalation again.
      self->log_.format("[VPNManager] [keySoftDelete] loadAll перед эскалацией упал: {}", loaded.error().description());
      return pending->second(std::move(*original));
    }
    auto cleanInstall = [weak, pending] {
      auto self = weak.lock();
      if (!self) return;
      // The kept configuration is gone; the new one is not watched.
      self->standard_.remove(kSoftDeleteArmedKey);
      self->standard_.remove(kSoftDeleteFailsKey);
      self->log_.write("[VPNManager] [keySoftDelete] эскалация: чистая установка");
      self->installKey(pending->first, std::move(pending->second));
    };
    const TunnelConfiguration* found = findManager(*loaded);
    if (!found) return cleanInstall();
    const std::string identifier = found->identifier;
    self->recordApplicationStop();
    self->tunnels_.removeFromPreferences(identifier, [weak, pending, original, identifier,
                                                      cleanInstall = std::move(cleanInstall)](auto removed) mutable {
      auto self = weak.lock();
      if (!self) return;
      if (!removed) {
        self->log_.format("[VPNManager] [keySoftDelete] эскалация: удаление не удалось: {}",
                          removed.error().description());
        return pending->second(std::move(*original));
      }
      self->forgetConfiguration(identifier);
      cleanInstall();
    });
  });
}

// --- Self-heal ---

void VPNManager::selfHealIfNeeded(TunnelStatus status) {
  if (status != TunnelStatus::disconnected) return;
  const std::int64_t cap = group_.integerForKey(kSelfHealMaxPerDayFlag);
  if (cap <= 0 || !standard_.boolForKey(kUserIntentOnKey)) return;
  // Only a drop nobody asked for is healed: not the application's own stop (an install, a removal,
  // a restart), not the user's stop from the system's controls, not during a server change.
  if (silentRestart_ || isServerChangeInProgress || group_.boolForKey(kUserInitiatedStopKey)) return;
  if (lastApplicationStop_ && clock_.now() - *lastApplicationStop_ < kAppStopGrace) return;
  if (!tunnelManager_ || carriesSoftRemoveMarker(*tunnelManager_)) return;

  const double now = clock_.secondsSince1970();
  if (auto last = standard_.doubleValue(kSelfHealLastTsKey)) {
    // A last attempt in the future means the clock was set back; it says nothing about spacing.
    const double since = now - *last;
    if (since >= 0 && since < kSelfHealSpacingSeconds) return;
  }
  const std::string today = clock_.localDay(clock_.now());
  std::int64_t count = standard_.integerForKey(kSelfHealCountKey);
  if (standard_.stringValue(kSelfHealDayKey) != today) {
    count = 0;
    standard_.setString(kSelfHealDayKey, today);
    standard_.setInteger(kSelfHealCountKey, 0);
  }
  if (count >= cap) {
    log_.format("[self-heal] дневной лимит исчерпан ({}/{})", count, cap);
    return;
  }
  standard_.setDouble(kSelfHealLastTsKey, now);
  standard_.setInteger(kSelfHealCountKey, count + 1);
  log_.format("[self-heal] connect (state, {})", toString(status));
  connectWithoutUserAction([](std::expected<void, Error>) {});
  scheduleReconnectCheck();
}

// "iosFixes.healthCheckMode" 0 or less: the reconnect is not followed up. 1 and above: once the
// tunnel had time to come up ("iosFixes.reconnectWaitMs", 1–60 s, 10 s when unset), a tunnel that
// is not connected is logged. Verifying that traffic flows is the health engine's business.
void VPNManager::scheduleReconnectCheck() {
  if (group_.integerForKey(kHealthCheckModeFlag) <= 0) return;
  std::chrono::milliseconds wait = kReconnectCheckDefault;
  if (const std::int64_t ms = group_.integerForKey(kReconnectWaitMsFlag); ms > 0) {
    wait = std::chrono::milliseconds(std::clamp<std::int64_t>(ms, 1000, 60000));
  }
  reconnectCheck_.start(loop_, wait, [this] {
    const TunnelStatus status = connectionState_.get();
    if (status != TunnelStatus::connected) log_.format("[VPNManager] reconnect: still {}", toString(status));
  });
}

// --- Silent restart ---

void VPNManager::silentTunnelRestart(std::int64_t delayMs, std::int64_t connectTimeoutMs,
                                     SilentRestartDone completion) {
  silentTunnelRestart(repairToken_, delayMs, connectTimeoutMs, std::move(completion));
}

std::optional<std::string> VPNManager::restartBlockedBy(RepairToken token) const {
  if (token != repairToken_) return "токен сброшен";
  if (!tunnelManager_ || !tunnelManager_->protocolConfiguration || carriesSoftRemoveMarker(*tunnelManager_)) {
    return "конфигурация отсутствует";
  }
  if (group_.boolForKey(kUserInitiatedStopKey)) return "стоп инициирован пользователем";
  if (isServerChangeInProgress) return "идёт смена сервера — старый конфиг не поднимаем";
  return std::nullopt;
}

void VPNManager::silentTunnelRestart(RepairToken token, std::int64_t delayMs, std::int64_t connectTimeoutMs,
                                     SilentRestartDone completion) {
  log_.format("[VPNManager] [SmartStatus] silentTunnelRestart: start delay={}ms connectTimeout={}ms", delayMs,
              connectTimeoutMs);
  std::optional<std::string> blocked =
      silentRestart_ ? std::optional<std::string>("починка уже идёт") : restartBlockedBy(token);
  if (blocked) {
    // Nothing was touched: no status to publish, and a restart that runs keeps running.
    log_.format("[VPNManager] [SmartStatus] silentTunnelRestart: {}: {}", kStepPrecondition, *blocked);
    log_.format("[VPNManager] [SmartStatus] silentTunnelRestart: end ok=false failStep={}", kStepPrecondition);
    log_.format("[VPNManager] [SmartStatus] починка провалена на шаге {}", kStepPrecondition);
    loop_.post([completion = std::move(completion), reason = std::move(*blocked)]() mutable {
      if (completion) completion(SilentRestartResult{false, std::string(kStepPrecondition), std::move(reason)});
    });
    return;
  }

  silentRestart_ = std::make_shared<SilentRestart>();
  silentRestart_->token = token;
  silentRestart_->delayMs = std::max<std::int64_t>(delayMs, 0);
  silentRestart_->connectTimeoutMs = std::max<std::int64_t>(connectTimeoutMs, 0);
  silentRestart_->identifier = tunnelManager_->identifier;
  silentRestart_->completion = std::move(completion);

  const EventLoop::TimePoint deadline = loop_.now() + kRestartDisconnectLimit;
  recordApplicationStop();
  stopAsApplication(*tunnelManager_, [this, deadline](const TunnelConfiguration&) {
    if (!silentRestart_) return;
    pollRestart(TunnelStatus::disconnected, deadline, [this](bool down) {
      if (!down) {
        return finishRestart(kStepDisconnect,
                             fmt::format("не дождались .disconnected за {}ms", kRestartDisconnectLimit.count()));
      }
      silentRestart_->timer.start(loop_, std::chrono::milliseconds(silentRestart_->delayMs),
                                  [this] { restartConnectStep(); });
    });
  });
}

void VPNManager::restartConnectStep() {
  // Whatever changed during the wait is checked again before the tunnel is brought back.
  if (auto blocked = restartBlockedBy(silentRestart_->token)) return finishRestart(kStepPrecondition, *blocked);
  const EventLoop::TimePoint deadline = loop_.now() + std::chrono::milliseconds(silentRestart_->connectTimeoutMs);
  connectWithoutUserAction([weak = weakFactory_.weak(), deadline](std::expected<void, Error> started) {
    auto self = weak.lock();
    if (!self || !self->silentRestart_) return;
    if (!started) {
      self->log_.format("[VPNManager] [SmartStatus] подъём туннеля в починке не удался: {}",
                        started.error().description());
      return self->finishRestart(kStepConnect, started.error().description());
    }
    self->pollRestart(TunnelStatus::connected, deadline, [self](bool up) {
      if (up) return self->finishRestart({}, {});
      self->finishRestart(kStepConnect,
                          fmt::format("не дождались .connected за {}ms", self->silentRestart_->connectTimeoutMs));
    });
  });
}

// Polls the system's status every 100 ms until it is `wanted` or `deadline` has come; the last look
// is at the deadline itself. A repair superseded meanwhile stops at once.
void VPNManager::pollRestart(TunnelStatus wanted, EventLoop::TimePoint deadline,
                             std::move_only_function<void(bool)> then) {
  SilentRestart& restart = *silentRestart_;
  if (restart.token != repairToken_) return finishRestart(kStepPrecondition, "токен сброшен");
  if (tunnels_.status(restart.identifier) == wanted) return then(true);
  const EventLoop::TimePoint now = loop_.now();
  if (now >= deadline) return then(false);
  const EventLoop::Duration next = std::min<EventLoop::Duration>(kRestartPollInterval, deadline - now);
  restart.timer.start(loop_, next, [this, wanted, deadline, then = std::move(then)]() mutable {
    pollRestart(wanted, deadline, std::move(then));
  });
}

void VPNManager::finishRestart(std::string_view failStep, std::string reason) {
  std::shared_ptr<SilentRestart> restart = std::exchange(silentRestart_, nullptr);
  const bool ok = failStep.empty();
  if (!ok) log_.format("[VPNManager] [SmartStatus] silentTunnelRestart: {}: {}", failStep, reason);
  log_.format("[VPNManager] [SmartStatus] silentTunnelRestart: end ok={} failStep={}", ok, failStep);
  if (!ok) log_.format("[VPNManager] [SmartStatus] починка провалена на шаге {}", failStep);
  applyRealStatus();
  if (restart->completion) restart->completion(SilentRestartResult{ok, std::string(failStep), std::move(reason)});
}

// The screens were kept on the old state during the restart; they get the system's now. A tunnel
// that ended up down goes through the self-heal check like any other drop.
void VPNManager::applyRealStatus() {
  if (!tunnelManager_) return;
  const std::string& identifier = tunnelManager_->identifier;
  const TunnelStatus status = tunnels_.status(identifier);
  const bool selfHeal = status == TunnelStatus::disconnected && group_.integerForKey(kSelfHealMaxPerDayFlag) > 0;
  log_.format("[VPNManager] [SmartStatus] applyRealStatus: raw={} selfHeal={}", toString(status), selfHeal);
  connectionState_.set(status);
  connectionStartTime_ = status == TunnelStatus::connected ? tunnels_.connectedDate(identifier) : std::nullopt;
  if (selfHeal) selfHealIfNeeded(status);
}

}  // namespace norvik
