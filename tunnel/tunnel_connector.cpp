#include "tunnel/tunnel_connector.h"

#include "tunnel/key_soft_removal.h"
#include "tunnel/soft_remove_marker.h"
#include "tunnel/vpn_manager.h"

namespace norvik {

struct TunnelConnector::Run {
  int recursion = 0;
  std::optional<Error> previousError;
  std::uint64_t stopGeneration = 0;
  Done completion;
};

bool TunnelConnector::cancelled(const Run& run) const { return run.stopGeneration != stopGeneration_; }

TunnelConnector::TunnelConnector(TunnelContext& context, KeySoftRemoval& softRemoval)
    : context_(context), softRemoval_(softRemoval) {}

void TunnelConnector::save(TunnelConfiguration configuration, TunnelService::ConfigurationCompletion completion) {
  context_.tunnels.saveToPreferences(std::move(configuration), std::move(completion));
}

// --- Starting ---

void TunnelConnector::connect(Done completion) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  auto run = std::make_shared<Run>();
  run->stopGeneration = stopGeneration_;
  run->completion = std::move(completion);
  pass(std::move(run));
}

void TunnelConnector::pass(std::shared_ptr<Run> run) {
  if (cancelled(*run))
    return finish(run, std::unexpected(makeTunnelManagerError(TunnelManagerErrorCode::connectCancelled)));
  context_.log.format("Attempting to turn on tunnel (recursion: {})", run->recursion);
  context_.group.setBool(kUserInitiatedStopKey, false);
  context_.tunnels.loadAllFromPreferences([weak = weakFactory_.weak(), run](auto loaded) mutable {
    if (auto* self = weak.lock()) self->onLoaded(std::move(run), std::move(loaded));
  });
}

void TunnelConnector::onLoaded(std::shared_ptr<Run> run,
                               std::expected<std::vector<TunnelConfiguration>, Error> loaded) {
  if (!loaded) {
    context_.log.format("Ошибка загрузки туннеля: {}", loaded.error().description());
    return finish(run, std::unexpected(loaded.error()));
  }
  const TunnelConfiguration* found = VPNManager::findManager(*loaded);
  const Error notFound = makeTunnelManagerError(TunnelManagerErrorCode::tunnelsNotFound);
  if (!found) return finish(run, std::unexpected(notFound));
  if (softRemoval_.gateHolds(*found)) {
    context_.analytics.record("connect_blocked");
    return finish(run, std::unexpected(notFound));
  }
  if (carriesSoftRemoveMarker(*found)) {
    // Soft removal was switched off while a marker remained: it holds no key, so it goes.
    softRemoval_.normalizeLeftoverMarker(*found);
    return finish(run, std::unexpected(notFound));
  }
  TunnelRecord& record = context_.record;
  record.tunnelManager = *found;
  if (!record.tunnelManager->protocolConfiguration) {
    return finish(run, std::unexpected(makeTunnelManagerError(TunnelManagerErrorCode::noProviderSession)));
  }

  const bool wanted = context_.group.boolForKey(kOnDemandEnabledKey);
  if (wanted) context_.group.setBool(kUserInitiatedStopKey, false);
  if (record.tunnelManager->isOnDemandEnabled == wanted) return decideStart(std::move(run));

  TunnelConfiguration updated = *record.tunnelManager;
  if (wanted) updated.onDemandRules = {OnDemandRule{OnDemandRule::Action::connect, OnDemandRule::InterfaceType::any}};
  updated.isOnDemandEnabled = wanted;
  save(std::move(updated), [weak = weakFactory_.weak(), run, wanted](auto saved) mutable {
    auto* self = weak.lock();
    if (!self) return;
    if (!saved) {
      self->context_.log.format("[on-demand] save failed: {}", saved.error().description());
    } else {
      self->context_.record.tunnelManager = std::move(*saved);
    }
    self->context_.log.format("[on-demand] isOnDemandEnabled={}", wanted);
    self->decideStart(std::move(run));
  });
}

void TunnelConnector::decideStart(std::shared_ptr<Run> run) {
  TunnelConfiguration manager = *context_.record.tunnelManager;
  const bool startable = manager.isEnabled && manager.localizedDescription == VPNManager::kConfigurationName;
  // After a repair the previous error stays set, so a repaired configuration is saved again on
  // every pass and started only on the last one: a configuration the system has just re-enabled
  // is not always startable at once.
  if (startable && (!run->previousError || run->recursion >= kRepairPasses)) return start(run);

  manager.isEnabled = true;
  manager.localizedDescription = std::string(VPNManager::kConfigurationName);
  save(std::move(manager), [weak = weakFactory_.weak(), run](auto saved) mutable {
    auto* self = weak.lock();
    if (!self) return;
    if (!saved) {
      self->context_.log.format("Ошибка сохранения туннеля после активации: {}", saved.error().description());
      return self->finish(run, std::unexpected(saved.error()));
    }
    self->context_.record.tunnelManager = std::move(*saved);
    run->recursion += 1;
    run->previousError = makeNEVPNError(NEVPNErrorCode::configurationUnknown);
    self->pass(std::move(run));
  });
}

void TunnelConnector::start(const std::shared_ptr<Run>& run) {
  const auto& manager = context_.record.tunnelManager;
  if (!manager) return finish(run, std::unexpected(Error{"", 0, "tunnelManager is nil"}));
  if (!manager->protocolConfiguration) {
    return finish(run, std::unexpected(Error{"", 0, "tunnelManager.connection is invalid"}));
  }
  if (cancelled(*run)) {
    context_.log.write("[VPNManager] запуск отменён: приложение остановило туннель, пока запуск готовился");
    return finish(run, std::unexpected(makeTunnelManagerError(TunnelManagerErrorCode::connectCancelled)));
  }
  auto started = context_.tunnels.startVPNTunnel(manager->identifier, {{"vpnInAPP", "yes"}});
  if (!started) {
    context_.log.format("Error (startTunnel): {}", started.error().description());
    return finish(run, std::unexpected(started.error()));
  }
  finish(run, {});
}

void TunnelConnector::finish(const std::shared_ptr<Run>& run, std::expected<void, Error> result) {
  if (!result) context_.log.format("[VPNManager] Failed to connect VPN: {}", result.error().description());
  if (run->completion) std::exchange(run->completion, nullptr)(std::move(result));
}

// --- Stopping ---

void TunnelConnector::stopAsApplication(TunnelConfiguration configuration,
                                        std::move_only_function<void(TunnelConfiguration)> then) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  ++stopGeneration_;
  context_.recordApplicationStop();
  if (!configuration.protocolConfiguration) return then(std::move(configuration));
  if (!configuration.isOnDemandEnabled) {
    context_.tunnels.stopVPNTunnel(configuration.identifier);
    return then(std::move(configuration));
  }
  // With on-demand on, the system would bring the tunnel straight back.
  TunnelConfiguration off = configuration;
  off.isOnDemandEnabled = false;
  save(std::move(off), [weak = weakFactory_.weak(), configuration, then = std::move(then)](auto saved) mutable {
    auto* self = weak.lock();
    if (!self) return;
    if (!saved) self->context_.log.format("[on-demand] disable on stop failed: {}", saved.error().description());
    TunnelConfiguration current = saved ? std::move(*saved) : std::move(configuration);
    auto& manager = self->context_.record.tunnelManager;
    if (manager && manager->identifier == current.identifier) manager = current;
    self->context_.tunnels.stopVPNTunnel(current.identifier);
    then(std::move(current));
  });
}

void TunnelConnector::stop() {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  if (const auto& manager = context_.record.tunnelManager) {
    return stopAsApplication(*manager, [](const TunnelConfiguration&) {});
  }
  // Nothing runs, but a start being prepared must not begin after this.
  ++stopGeneration_;
  context_.recordApplicationStop();
}

}  // namespace norvik
