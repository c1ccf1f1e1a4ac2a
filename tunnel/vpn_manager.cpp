#include "tunnel/vpn_manager.h"

#include "tunnel/tunnel_error_messages.h"

namespace norvik {

VPNManager::VPNManager(Dependencies d)
    : context_{d.loop, d.tunnels, d.groupDefaults, d.standardDefaults, d.clock, d.log, d.analytics, record_},
      softRemoval_(context_, [this](const std::string& keyText,
                                    Done completion) { installer_.installKey(keyText, std::move(completion)); }),
      connector_(context_, softRemoval_),
      installer_(context_, connector_, softRemoval_, std::move(d.extrasSnapshot)),
      selfHeal_(context_),
      silentRestart_(context_, connector_),
      notifications_(d.notifications) {
  statusSubscription_ = context_.tunnels.observeStatus(
      [this](const std::string& identifier, TunnelStatus status) { onStatusChanged(identifier, status); });
  widgetDisconnectObserver_ = notifications_.observe(std::string(kDisconnectNotification), [this] {
    context_.log.format("[VPNManager] {}: запрос на отключение", kDisconnectNotification);
    disconnectRequested_.emit();
  });
  userStopObserver_ = notifications_.observe(std::string(kUserStopNotification), [this] { onUserStopNotification(); });
}

VPNManager::~VPNManager() = default;

void VPNManager::start(std::move_only_function<void()> loaded) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  context_.tunnels.loadAllFromPreferences(
      [weak = weakFactory_.weak(), loaded = std::move(loaded)](auto configurations) mutable {
        auto* self = weak.lock();
        if (!self) return;
        if (!configurations) {
          self->context_.log.format("Error loading preferences: {}", configurations.error().description());
          self->record_.connectionState.set(TunnelStatus::disconnected);
        } else {
          self->adoptConfigurations(*configurations);
          if (self->record_.tunnelManager) self->softRemoval_.normalizeLeftoverMarker(*self->record_.tunnelManager);
        }
        if (loaded) loaded();
      });
  initialStateCheck_.start(context_.loop, kInitialStateCheckDelay, [this] {
    context_.log.format("[VPNManager] Checking initial VPN state: {}", toString(record_.connectionState.get()));
  });
  appGroupsCheckTimer_.startAligned(context_.loop, kWidgetRequestPeriod, [this] { checkWidgetDisconnectRequest(); });
}

void VPNManager::adoptConfigurations(const std::vector<TunnelConfiguration>& managers) {
  const TunnelConfiguration* found = findManager(managers);
  if (found) {
    record_.tunnelManager = *found;
    const TunnelStatus status = context_.tunnels.status(found->identifier);
    if (status == TunnelStatus::connected)
      record_.connectionStartTime = context_.tunnels.connectedDate(found->identifier);
    record_.connectionState.set(status);
  } else {
    record_.connectionState.set(TunnelStatus::disconnected);
  }
  record_.isConfigured.set(found && found->localizedDescription == kConfigurationName);
}

// --- Finding and describing ---

const TunnelConfiguration* VPNManager::findManager(const std::vector<TunnelConfiguration>& managers) {
  for (const auto& m : managers) {
    if (m.localizedDescription == kConfigurationName) return &m;
  }
  for (const auto& m : managers) {
    if (m.localizedDescription == kLegacyConfigurationName) return &m;
  }
  return nullptr;
}

std::string VPNManager::errorMessage(const Error& error) { return tunnelErrorMessage(error); }

std::optional<std::string> VPNManager::serverAddress() const {
  const auto& manager = record_.tunnelManager;
  if (!manager || !manager->protocolConfiguration) return std::nullopt;
  return manager->protocolConfiguration->serverAddress;
}

std::optional<std::string> VPNManager::installedKeyText() const {
  const auto& manager = record_.tunnelManager;
  if (!manager || !manager->protocolConfiguration) return std::nullopt;
  const auto& provider = manager->protocolConfiguration->providerConfiguration;
  auto it = provider.find(kKeyTextKey);
  if (it == provider.end() || !it->second.string()) return std::nullopt;
  return *it->second.string();
}

void VPNManager::checkConfigurationExists(std::move_only_function<void(bool)> completion) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  context_.tunnels.loadAllFromPreferences([weak = weakFactory_.weak(),
                                           completion = std::move(completion)](auto loaded) mutable {
    auto* self = weak.lock();
    if (!self) return;
    TunnelRecord& record = self->record_;
    if (!loaded) {
      self->context_.log.format("[VPNManager] Ошибка проверки конфигурации: {}", loaded.error().description());
      completion(record.isConfigured.get());
      return;
    }
    const TunnelConfiguration* found = nullptr;
    for (const auto& m : *loaded) {
      if (m.localizedDescription == kConfigurationName) {
        found = &m;
        break;
      }
    }
    const bool exists = found != nullptr;
    self->context_.log.format("[VPNManager] ЖЕЛЕЗНАЯ ПРОВЕРКА: конфигурация {}", exists ? "СУЩЕСТВУЕТ" : "ОТСУТСТВУЕТ");
    if (record.isConfigured.get() != exists) {
      self->context_.log.format("[VPNManager] Обнаружено несоответствие кэша! Было: {}, стало: {}",
                                record.isConfigured.get(), exists);
    }
    if (found) record.tunnelManager = *found;
    record.isConfigured.set(exists);
    completion(exists);
  });
}

// --- Operations (each carried out by its part) ---

void VPNManager::installKey(const std::string& keyText, Done completion) {
  installer_.installKey(keyText, std::move(completion));
}

void VPNManager::connect(Done completion) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  context_.standard.setBool(kUserIntentOnKey, true);
  resetRepairToken();
  connector_.connect(std::move(completion));
}

void VPNManager::connectAutomatically(Done completion) { connector_.connect(std::move(completion)); }

void VPNManager::disconnect() {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  resetRepairToken();
  connector_.stop();
  // With self-heal on, a stop by the user means the user no longer wants the tunnel.
  if (selfHeal_.enabled()) context_.standard.setBool(kUserIntentOnKey, false);
}

void VPNManager::stopTunnel() {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  resetRepairToken();
  connector_.stop();
}

void VPNManager::reconnectIfActive() {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  const TunnelStatus status = record_.connectionState.get();
  if (status != TunnelStatus::connected && status != TunnelStatus::connecting) {
    context_.log.format("[VPNManager] reconnectIfActive: VPN is {}, skip reconnect", toString(status));
    return;
  }
  context_.log.format("[VPNManager] reconnectIfActive: VPN is {}, triggering reconnect", toString(status));
  reconnectWatch_ = record_.connectionState.subscribe([this](const TunnelStatus& now) {
    if (now != TunnelStatus::disconnected) return;
    // Ending the watch from inside its own notification is allowed; the next step runs later.
    context_.loop.post([weak = weakFactory_.weak()] {
      auto* self = weak.lock();
      if (!self) return;
      self->reconnectWatch_.reset();
      self->connectAutomatically([weak](std::expected<void, Error> started) {
        auto* self = weak.lock();
        if (self && !started) {
          self->context_.log.format("[VPNManager] reconnectIfActive: запуск не удался: {}",
                                    started.error().description());
        }
      });
    });
  });
  connector_.stop();
}

void VPNManager::softRemove(std::string intent, SoftRemoveDone completion) {
  softRemoval_.softRemove(std::move(intent), std::move(completion));
}

void VPNManager::removeConfiguration(Done completion) { softRemoval_.removeConfiguration(std::move(completion)); }

void VPNManager::noteInstallResult(std::expected<void, Error> result, std::string keyText, Done completion) {
  softRemoval_.noteInstallResult(std::move(result), std::move(keyText), std::move(completion));
}

bool VPNManager::selfHealIfNeeded(TunnelStatus status) {
  return selfHeal_.selfHealIfNeeded(status, silentRestart_.isRunning());
}

void VPNManager::silentTunnelRestart(RepairToken token, std::int64_t delayMs, std::int64_t connectTimeoutMs,
                                     SilentRestartDone completion) {
  silentRestart_.run(token, delayMs, connectTimeoutMs, std::move(completion));
}

void VPNManager::silentTunnelRestart(std::int64_t delayMs, std::int64_t connectTimeoutMs,
                                     SilentRestartDone completion) {
  silentRestart_.run(record_.repairToken, delayMs, connectTimeoutMs, std::move(completion));
}

// --- Listening ---

void VPNManager::onStatusChanged(const std::string& identifier, TunnelStatus status) {
  if (!record_.tunnelManager || record_.tunnelManager->identifier != identifier) return;
  context_.log.format("[VPNManager] System VPN status changed: {}", toString(status));
  // A silent restart keeps the screens on the state they had and publishes the real one at its end.
  if (silentRestart_.isRunning()) return;
  if (status == TunnelStatus::connected) {
    record_.connectionStartTime = context_.tunnels.connectedDate(identifier).value_or(context_.clock.now());
    if (!analyticsConnected_) {
      analyticsConnected_ = true;
      context_.analytics.record("vpn_connected");
    }
  } else if (status == TunnelStatus::disconnected) {
    record_.connectionStartTime.reset();
    analyticsConnected_ = false;
  }
  record_.connectionState.set(status);
  if (status != TunnelStatus::disconnected) return;
  if (auto error = context_.tunnels.lastDisconnectError(identifier)) {
    context_.log.format("[VPNManager] Расширение завершило сессию: {}", error->description());
    extensionCrashed_.emit(*error);
  }
}

void VPNManager::onUserStopNotification() {
  // The tunnel program posts this on every stop; only a stop the application did not make
  // itself came from the user, through the system's own controls.
  if (context_.stoppedByApplicationWithin(kAppStopGrace)) return;
  context_.group.setBool(kUserInitiatedStopKey, true);
  stoppedFromSystemControls_.emit();
}

void VPNManager::checkWidgetDisconnectRequest() {
  if (!context_.group.boolForKey(kShouldDisconnectKey)) return;
  context_.group.setBool(kShouldDisconnectKey, false);
  const double requestedAt = context_.group.doubleForKey(kDisconnectRequestTimeKey);
  const double age = context_.clock.secondsSince1970() - requestedAt;
  if (age < std::chrono::duration<double>(kWidgetRequestMaxAge).count()) {
    context_.log.format("[VPNManager] запрос виджета на отключение ({:.1f} с)", age);
    disconnectRequested_.emit();
  } else {
    context_.log.format("[VPNManager] запрос виджета на отключение устарел ({:.1f} с) — пропускаем", age);
  }
}

}  // namespace norvik
