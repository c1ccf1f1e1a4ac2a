#include "tunnel/vpn_manager.h"

#include "tunnel/key_text.h"
#include "tunnel/soft_remove_marker.h"
#include "tunnel/tunnel_error_messages.h"

namespace norvik {
namespace {

// Errors the manager makes itself; the connection flow recognises them by their text.
Error notFound() { return Error{"", 2, "Туннели не найдены"}; }
Error noProviderSession() { return Error{"", 3, "Tunnel Provider не найден"}; }

bool isNamed(const TunnelConfiguration& c, std::string_view name) { return c.localizedDescription == name; }

}  // namespace

struct VPNManager::ConnectRun {
  int recursion = 0;
  std::optional<Error> previousError;
  Done completion;
};

struct VPNManager::InstallRun {
  std::string keyText;  // normalised
  std::optional<std::string> serverAddress;
  Done completion;

  void finish(std::expected<void, Error> result) {
    if (completion) std::exchange(completion, nullptr)(std::move(result));
  }
};

VPNManager::VPNManager(Dependencies d)
    : loop_(d.loop),
      tunnels_(d.tunnels),
      notifications_(d.notifications),
      group_(d.groupDefaults),
      standard_(d.standardDefaults),
      clock_(d.clock),
      log_(d.log),
      analytics_(d.analytics),
      extrasSnapshot_(std::move(d.extrasSnapshot)) {
  statusSubscription_ = tunnels_.observeStatus(
      [this](const std::string& identifier, TunnelStatus status) { onStatusChanged(identifier, status); });
  widgetDisconnectObserver_ = notifications_.observe(std::string(kDisconnectNotification), [this] { disconnect(); });
  userStopObserver_ = notifications_.observe(std::string(kUserStopNotification), [this] { onUserStopNotification(); });
}

VPNManager::~VPNManager() = default;

void VPNManager::start() {
  tunnels_.loadAllFromPreferences([weak = weakFactory_.weak()](auto loaded) {
    auto self = weak.lock();
    if (!self) return;
    if (!loaded) {
      self->log_.format("Error loading preferences: {}", loaded.error().description());
      return;
    }
    self->adoptConfigurations(*loaded);
    if (self->tunnelManager_) self->normalizeLeftoverMarker(*self->tunnelManager_);
  });
  initialStateCheck_.start(loop_, kInitialStateCheckDelay, [this] {
    log_.format("[VPNManager] Checking initial VPN state: {}", toString(connectionState_.get()));
  });
  appGroupsCheckTimer_.startAligned(loop_, kWidgetRequestPeriod, [this] { checkWidgetDisconnectRequest(); });
}

void VPNManager::adoptConfigurations(const std::vector<TunnelConfiguration>& managers) {
  const TunnelConfiguration* found = findManager(managers);
  if (found) {
    tunnelManager_ = *found;
    connectionState_.set(tunnels_.status(found->identifier));
    if (connectionState_.get() == TunnelStatus::connected)
      connectionStartTime_ = tunnels_.connectedDate(found->identifier);
  } else {
    connectionState_.set(TunnelStatus::disconnected);
  }
  isConfigured_.set(found && isNamed(*found, kConfigurationName));
}

// --- Finding and describing ---

const TunnelConfiguration* VPNManager::findManager(const std::vector<TunnelConfiguration>& managers) {
  for (const auto& m : managers) {
    if (isNamed(m, kConfigurationName)) return &m;
  }
  for (const auto& m : managers) {
    if (isNamed(m, kLegacyConfigurationName)) return &m;
  }
  return nullptr;
}

std::string VPNManager::errorMessage(const Error& error) { return tunnelErrorMessage(error); }

void VPNManager::checkConfigurationExists(std::move_only_function<void(bool)> completion) {
  tunnels_.loadAllFromPreferences(
      [weak = weakFactory_.weak(), completion = std::move(completion)](auto loaded) mutable {
        auto self = weak.lock();
        if (!self) return;
        if (!loaded) {
          self->log_.format("[VPNManager] Ошибка проверки конфигурации: {}", loaded.error().description());
          completion(self->isConfigured_.get());
          return;
        }
        const TunnelConfiguration* found = nullptr;
        for (const auto& m : *loaded) {
          if (isNamed(m, kConfigurationName)) {
            found = &m;
            break;
          }
        }
        const bool exists = found != nullptr;
        self->log_.format("[VPNManager] ЖЕЛЕЗНАЯ ПРОВЕРКА: конфигурация {}", exists ? "СУЩЕСТВУЕТ" : "ОТСУТСТВУЕТ");
        if (self->isConfigured_.get() != exists) {
          self->log_.format("[VPNManager] Обнаружено несоответствие кэша! Было: {}, стало: {}",
                            self->isConfigured_.get(), exists);
        }
        if (found) self->tunnelManager_ = *found;
        self->isConfigured_.set(exists);
        completion(exists);
      });
}

bool VPNManager::softDeleteGateHolds(const TunnelConfiguration& configuration) const {
  return group_.integerForKey("iosFixes.keySoftDelete") > 0 && carriesSoftRemoveMarker(configuration);
}

// --- Installing a key ---

void VPNManager::installKey(const std::string& keyText, Done completion) {
  resetRepairToken();
  auto run = std::make_shared<InstallRun>();
  run->keyText = normalizeKeyText(keyText);
  run->serverAddress = extractServerAddress(run->keyText);
  run->completion = std::move(completion);
  if (softDeleteWatched()) {
    // The first installs after a soft removal are counted; enough failures replace the configuration.
    run->completion = [weak = weakFactory_.weak(), keyText = run->keyText,
                       done = std::move(run->completion)](std::expected<void, Error> result) mutable {
      if (auto self = weak.lock()) self->noteInstallResult(std::move(result), std::move(keyText), std::move(done));
    };
  }
  if (run->serverAddress) {
    log_.format("Extracted server address: {}", *run->serverAddress);
    lastServerIP_ = run->serverAddress;
  }
  tunnels_.loadAllFromPreferences([weak = weakFactory_.weak(), run](auto loaded) mutable {
    if (auto self = weak.lock()) self->onInstallLoaded(run, std::move(loaded));
  });
}

TunnelProviderProtocol VPNManager::makeProtocol(const InstallRun& run) const {
  TunnelProviderProtocol protocol;
  protocol.providerBundleIdentifier = std::string(kProviderBundleIdentifier);
  protocol.serverAddress = run.serverAddress;
  protocol.providerConfiguration[std::string(kKeyTextKey)] = run.keyText;
  // The extras go in one by one after the key text; an extra of the same name would replace it.
  if (extrasSnapshot_) {
    for (auto& [key, value] : extrasSnapshot_()) protocol.providerConfiguration[key] = std::move(value);
  }
  return protocol;
}

void VPNManager::onInstallLoaded(const std::shared_ptr<InstallRun>& run,
                                 std::expected<std::vector<TunnelConfiguration>, Error> loaded) {
  if (!loaded) {
    log_.format("Error loading preferences: {}", loaded.error().description());
    return run->finish(std::unexpected(loaded.error()));
  }
  if (const TunnelConfiguration* found = findManager(*loaded)) {
    // The running tunnel cannot take a new key; it is stopped first, as the application.
    recordApplicationStop();
    stopAsApplication(*found, [weak = weakFactory_.weak(), run](TunnelConfiguration stopped) mutable {
      if (auto self = weak.lock()) self->updateInPlace(run, std::move(stopped));
    });
    return;
  }

  TunnelConfiguration fresh;
  fresh.localizedDescription = std::string(kConfigurationName);
  fresh.protocolConfiguration = makeProtocol(*run);
  fresh.isEnabled = true;
  fresh.isOnDemandEnabled = false;
  save(std::move(fresh), [weak = weakFactory_.weak(), run](auto saved) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (!saved) {
      self->log_.format("Error on first save: {}", saved.error().description());
      return run->finish(std::unexpected(saved.error()));
    }
    self->afterFirstSave(run, std::move(*saved));
  });
}

void VPNManager::updateInPlace(const std::shared_ptr<InstallRun>& run, TunnelConfiguration configuration) {
  configuration.protocolConfiguration = makeProtocol(*run);
  configuration.isEnabled = true;
  configuration.localizedDescription = std::string(kConfigurationName);
  save(std::move(configuration), [weak = weakFactory_.weak(), run](auto saved) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (!saved) {
      self->log_.format("Ошибка сохранения конфигурации: {}", saved.error().description());
      return run->finish(std::unexpected(saved.error()));
    }
    self->afterFirstSave(run, std::move(*saved));
  });
}

// The configuration is read back and saved a second time before it is trusted: a configuration
// saved once is not always usable at once.
void VPNManager::afterFirstSave(const std::shared_ptr<InstallRun>& run, const TunnelConfiguration& saved) {
  auto weak = weakFactory_.weak();
  tunnels_.loadFromPreferences(saved.identifier, [weak, run](auto reloaded) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (!reloaded) {
      self->log_.format("Error loading preferences after update: {}", reloaded.error().description());
      return run->finish(std::unexpected(reloaded.error()));
    }
    self->save(std::move(*reloaded), [weak, run](auto second) mutable {
      auto self = weak.lock();
      if (!self) return;
      if (!second) {
        self->log_.format("Error on second save: {}", second.error().description());
        return run->finish(std::unexpected(second.error()));
      }
      self->tunnels_.loadAllFromPreferences([weak, run](auto all) mutable {
        auto self = weak.lock();
        if (!self) return;
        if (!all) {
          self->log_.format("Error loading managers after creation: {}", all.error().description());
          return run->finish(std::unexpected(all.error()));
        }
        for (const auto& m : *all) {
          if (isNamed(m, kConfigurationName)) {
            self->tunnelManager_ = m;
            break;
          }
        }
        self->isConfigured_.set(self->tunnelManager_.has_value());
        run->finish({});
      });
    });
  });
}

// --- Connecting ---

void VPNManager::connect(Done completion) {
  standard_.setBool(kUserIntentOnKey, true);
  resetRepairToken();
  connectWithoutUserAction(std::move(completion));
}

void VPNManager::connectWithoutUserAction(Done completion) {
  auto run = std::make_shared<ConnectRun>();
  run->completion = std::move(completion);
  connectPass(std::move(run));
}

void VPNManager::connectPass(std::shared_ptr<ConnectRun> run) {
  log_.format("Attempting to turn on tunnel (recursion: {})", run->recursion);
  group_.setBool(kUserInitiatedStopKey, false);
  tunnels_.loadAllFromPreferences([weak = weakFactory_.weak(), run](auto loaded) mutable {
    if (auto self = weak.lock()) self->onConnectLoaded(std::move(run), std::move(loaded));
  });
}

void VPNManager::onConnectLoaded(std::shared_ptr<ConnectRun> run,
                                 std::expected<std::vector<TunnelConfiguration>, Error> loaded) {
  if (!loaded) {
    log_.format("Ошибка загрузки туннеля: {}", loaded.error().description());
    return finishConnect(run, std::unexpected(loaded.error()));
  }
  const TunnelConfiguration* found = findManager(*loaded);
  if (!found) return finishConnect(run, std::unexpected(notFound()));
  if (softDeleteGateHolds(*found)) {
    analytics_.record("connect_blocked");
    return finishConnect(run, std::unexpected(notFound()));
  }
  if (carriesSoftRemoveMarker(*found)) {
    // Soft removal was switched off while a marker remained: it holds no key, so it goes.
    normalizeLeftoverMarker(*found);
    return finishConnect(run, std::unexpected(notFound()));
  }
  tunnelManager_ = *found;
  if (!tunnelManager_->protocolConfiguration) return finishConnect(run, std::unexpected(noProviderSession()));

  const bool wanted = group_.boolForKey(kOnDemandEnabledKey);
  if (wanted) group_.setBool(kUserInitiatedStopKey, false);
  if (tunnelManager_->isOnDemandEnabled == wanted) return decideStart(std::move(run));

  TunnelConfiguration updated = *tunnelManager_;
  if (wanted) updated.onDemandRules = {OnDemandRule{OnDemandRule::Action::connect, OnDemandRule::InterfaceType::any}};
  updated.isOnDemandEnabled = wanted;
  save(std::move(updated), [weak = weakFactory_.weak(), run, wanted](auto saved) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (!saved) {
      self->log_.format("[on-demand] save failed: {}", saved.error().description());
    } else {
      self->tunnelManager_ = std::move(*saved);
    }
    self->log_.format("[on-demand] isOnDemandEnabled={}", wanted);
    self->decideStart(std::move(run));
  });
}

void VPNManager::decideStart(std::shared_ptr<ConnectRun> run) {
  TunnelConfiguration manager = *tunnelManager_;
  const bool startable = manager.isEnabled && isNamed(manager, kConfigurationName);
  // After a repair the previous error stays set, so a repaired configuration is saved again on
  // every pass and started only on the last one: a configuration the system has just re-enabled
  // is not always startable at once.
  if (startable && (!run->previousError || run->recursion >= kRepairPasses)) return startTunnel(run);

  manager.isEnabled = true;
  manager.localizedDescription = std::string(kConfigurationName);
  save(std::move(manager), [weak = weakFactory_.weak(), run](auto saved) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (!saved) {
      self->log_.format("Ошибка сохранения туннеля после активации: {}", saved.error().description());
      return self->finishConnect(run, std::unexpected(saved.error()));
    }
    self->tunnelManager_ = std::move(*saved);
    run->recursion += 1;
    run->previousError = makeNEVPNError(NEVPNErrorCode::configurationUnknown);
    self->connectPass(std::move(run));
  });
}

void VPNManager::startTunnel(const std::shared_ptr<ConnectRun>& run) {
  if (!tunnelManager_) return finishConnect(run, std::unexpected(Error{"", 0, "tunnelManager is nil"}));
  if (!tunnelManager_->protocolConfiguration) {
    return finishConnect(run, std::unexpected(Error{"", 0, "tunnelManager.connection is invalid"}));
  }
  auto started = tunnels_.startVPNTunnel(tunnelManager_->identifier, {{"vpnInAPP", "yes"}});
  if (!started) {
    log_.format("Error (startTunnel): {}", started.error().description());
    return finishConnect(run, std::unexpected(started.error()));
  }
  finishConnect(run, {});
}

void VPNManager::finishConnect(const std::shared_ptr<ConnectRun>& run, std::expected<void, Error> result) {
  if (!result) log_.format("[VPNManager] Failed to connect VPN: {}", result.error().description());
  if (run->completion) std::exchange(run->completion, nullptr)(std::move(result));
}

// --- Stopping ---

void VPNManager::recordApplicationStop() { lastApplicationStop_ = clock_.now(); }

void VPNManager::stopAsApplication(TunnelConfiguration configuration,
                                   std::move_only_function<void(TunnelConfiguration)> then) {
  if (!configuration.protocolConfiguration) return then(std::move(configuration));
  if (!configuration.isOnDemandEnabled) {
    tunnels_.stopVPNTunnel(configuration.identifier);
    return then(std::move(configuration));
  }
  // With on-demand on, the system would bring the tunnel straight back.
  TunnelConfiguration off = configuration;
  off.isOnDemandEnabled = false;
  save(std::move(off), [weak = weakFactory_.weak(), configuration, then = std::move(then)](auto saved) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (!saved) self->log_.format("[on-demand] disable on stop failed: {}", saved.error().description());
    TunnelConfiguration current = saved ? std::move(*saved) : std::move(configuration);
    if (self->tunnelManager_ && self->tunnelManager_->identifier == current.identifier) self->tunnelManager_ = current;
    self->tunnels_.stopVPNTunnel(current.identifier);
    then(std::move(current));
  });
}

void VPNManager::disconnect() {
  resetRepairToken();
  recordApplicationStop();
  if (tunnelManager_) stopAsApplication(*tunnelManager_, [](const TunnelConfiguration&) {});
  // With self-heal on, a stop by the user means the user no longer wants the tunnel.
  if (group_.integerForKey("iosFixes.selfHealMaxPerDay") > 0) standard_.setBool("app.userIntentOn", false);
}

void VPNManager::reconnectIfActive() {
  const TunnelStatus status = connectionState_.get();
  if (status != TunnelStatus::connected && status != TunnelStatus::connecting) {
    log_.format("[VPNManager] reconnectIfActive: VPN is {}, skip reconnect", toString(status));
    return;
  }
  log_.format("[VPNManager] reconnectIfActive: VPN is {}, triggering reconnect", toString(status));
  reconnectWatch_ = connectionState_.subscribe([this](const TunnelStatus& now) {
    if (now != TunnelStatus::disconnected) return;
    // Ending the watch from inside its own notification is allowed; the next step runs later.
    loop_.post([weak = weakFactory_.weak()] {
      auto self = weak.lock();
      if (!self) return;
      self->reconnectWatch_.reset();
      self->connect([](std::expected<void, Error>) {});
    });
  });
  recordApplicationStop();
  if (tunnelManager_) stopAsApplication(*tunnelManager_, [](const TunnelConfiguration&) {});
}

void VPNManager::save(TunnelConfiguration configuration, TunnelService::ConfigurationCompletion completion) {
  tunnels_.saveToPreferences(std::move(configuration), std::move(completion));
}

// --- Listening ---

void VPNManager::onStatusChanged(const std::string& identifier, TunnelStatus status) {
  if (!tunnelManager_ || tunnelManager_->identifier != identifier) return;
  log_.format("[VPNManager] System VPN status changed: {}", toString(status));
  // A silent restart keeps the screens on the state they had and publishes the real one at its end.
  if (silentRestart_) return;
  connectionState_.set(status);
  if (status == TunnelStatus::connected) {
    connectionStartTime_ = tunnels_.connectedDate(identifier).value_or(clock_.now());
    if (!analyticsConnected_) {
      analyticsConnected_ = true;
      analytics_.record("vpn_connected");
    }
  } else if (status == TunnelStatus::disconnected) {
    connectionStartTime_.reset();
    analyticsConnected_ = false;
    if (auto error = tunnels_.lastDisconnectError(identifier)) {
      log_.format("[VPNManager] Расширение завершило сессию: {}", error->description());
      extensionCrashed_.emit(*error);
    }
    // One turn later, so that the tunnel program's stop notification, which comes with the
    // status change, is heard first.
    loop_.post([weak = weakFactory_.weak()] {
      auto self = weak.lock();
      if (self && self->connectionState_.get() == TunnelStatus::disconnected) {
        self->selfHealIfNeeded(TunnelStatus::disconnected);
      }
    });
  }
}

void VPNManager::onUserStopNotification() {
  // The tunnel program posts this on every stop; only a stop the application did not make
  // itself came from the user, through the system's own controls.
  if (lastApplicationStop_ && clock_.now() - *lastApplicationStop_ < kAppStopGrace) return;
  group_.setBool(kUserInitiatedStopKey, true);
}

void VPNManager::checkWidgetDisconnectRequest() {
  if (!group_.boolForKey(kShouldDisconnectKey)) return;
  group_.setBool(kShouldDisconnectKey, false);
  const double requestedAt = group_.doubleForKey(kDisconnectRequestTimeKey);
  const double age = clock_.secondsSince1970() - requestedAt;
  if (age < std::chrono::duration<double>(kWidgetRequestMaxAge).count()) {
    disconnect();
  } else {
    log_.format("[VPNManager] запрос виджета на отключение устарел ({:.1f} с) — пропускаем", age);
  }
}

}  // namespace norvik
