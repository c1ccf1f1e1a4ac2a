#include "tunnel/key_soft_removal.h"

#include <algorithm>

#include "tunnel/soft_remove_marker.h"
#include "tunnel/vpn_manager.h"

namespace norvik {
namespace {

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

}  // namespace

struct KeySoftRemoval::Run {
  std::string intent;
  OutcomeDone completion;
};

KeySoftRemoval::KeySoftRemoval(TunnelContext& context, CleanInstall cleanInstall)
    : context_(context), cleanInstall_(std::move(cleanInstall)) {}

bool KeySoftRemoval::enabled() const { return context_.group.integerForKey(kFlag) > 0; }

bool KeySoftRemoval::watched() const { return enabled() && context_.standard.boolForKey(kArmedKey); }

bool KeySoftRemoval::gateHolds(const TunnelConfiguration& configuration) const {
  return enabled() && carriesSoftRemoveMarker(configuration);
}

void KeySoftRemoval::endWatch() {
  context_.standard.remove(kArmedKey);
  context_.standard.remove(kFailsKey);
}

// --- Soft removal ---

void KeySoftRemoval::softRemove(std::string intent, OutcomeDone completion) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  if (inFlight_) {
    context_.log.format("[VPNManager] [keySoftDelete] soft remove already in flight ({}) — дубль отклонён", *inFlight_);
    if (completion) {
      context_.loop.post([completion = std::move(completion)]() mutable { completion(Outcome::refused); });
    }
    return;
  }
  context_.log.format("[VPNManager] [keySoftDelete] soft remove (intent: {})", intent);
  ++context_.record.repairToken;
  inFlight_ = intent;
  auto run = std::make_shared<Run>(Run{std::move(intent), std::move(completion)});
  context_.tunnels.loadAllFromPreferences([weak = weakFactory_.weak(), run](auto loaded) mutable {
    if (auto* self = weak.lock()) self->onLoaded(std::move(run), std::move(loaded));
  });
}

void KeySoftRemoval::onLoaded(std::shared_ptr<Run> run, std::expected<std::vector<TunnelConfiguration>, Error> loaded) {
  if (!loaded) {
    context_.log.format("Soft-remove: error loading managers: {}", loaded.error().description());
    // Without the list the marker cannot be based on the stored copy; the key still goes.
    if (context_.record.tunnelManager) return fallback(run, context_.record.tunnelManager->identifier);
    return finish(run, Outcome::failed);
  }
  auto found = std::ranges::find(*loaded, std::optional<std::string>(VPNManager::kConfigurationName),
                                 &TunnelConfiguration::localizedDescription);
  if (found == loaded->end()) {
    context_.log.format("Soft-remove: no tunnel manager named {} → caller falls back to legacy remove()",
                        VPNManager::kConfigurationName);
    return finish(run, Outcome::noConfiguration);
  }
  const TunnelStatus status = context_.tunnels.status(found->identifier);
  if (isLive(status)) {
    context_.log.format("Soft-remove: stopping live tunnel before save (status: {})", toString(status));
    context_.recordApplicationStop();
    context_.tunnels.stopVPNTunnel(found->identifier);
  }
  saveMarker(std::move(run), *found, /*staleRetry=*/false);
}

void KeySoftRemoval::saveMarker(std::shared_ptr<Run> run, const TunnelConfiguration& base, bool staleRetry) {
  // Saving the marker disables the configuration, which also ends a session that still runs.
  context_.recordApplicationStop();
  const std::string identifier = base.identifier;
  context_.tunnels.saveToPreferences(
      makeSoftRemoveMarker(base), [weak = weakFactory_.weak(), run, identifier, staleRetry](auto saved) mutable {
        auto* self = weak.lock();
        if (!self) return;
        TunnelContext& context = self->context_;
        if (saved) {
          context.log.format("Soft-remove: marker saved, consent kept{}", staleRetry ? " (after stale retry)" : "");
          context.standard.setBool(kArmedKey, true);
          context.standard.setInteger(kFailsKey, 0);
          context.record.tunnelManager = std::move(*saved);
          return self->finish(run, Outcome::markerSaved);
        }
        if (!staleRetry && isStale(saved.error())) {
          // Someone saved the configuration since it was loaded: base the marker on the stored copy.
          context.tunnels.loadFromPreferences(identifier, [weak, run, identifier](auto reloaded) mutable {
            auto* self = weak.lock();
            if (!self) return;
            if (!reloaded) {
              self->context_.log.format("Soft-remove save failed: {} → fallback removeFromPreferences",
                                        reloaded.error().description());
              return self->fallback(run, identifier);
            }
            self->saveMarker(std::move(run), *reloaded, /*staleRetry=*/true);
          });
          return;
        }
        context.log.format("Soft-remove save failed: {} → fallback removeFromPreferences", saved.error().description());
        self->fallback(run, identifier);
      });
}

void KeySoftRemoval::fallback(const std::shared_ptr<Run>& run, const std::string& identifier) {
  context_.recordApplicationStop();
  context_.tunnels.removeFromPreferences(identifier, [weak = weakFactory_.weak(), run, identifier](auto removed) {
    auto* self = weak.lock();
    if (!self) return;
    if (!removed) {
      self->context_.log.format("Soft-remove fallback removeFromPreferences failed: {}", removed.error().description());
      return self->finish(run, Outcome::failed);
    }
    self->context_.forgetConfiguration(identifier);
    self->finish(run, Outcome::removedInstead);
  });
}

void KeySoftRemoval::finish(const std::shared_ptr<Run>& run, Outcome outcome) {
  inFlight_.reset();
  if (run->completion) std::exchange(run->completion, nullptr)(outcome);
}

void KeySoftRemoval::removeConfiguration(Done completion) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  ++context_.record.repairToken;
  context_.tunnels.loadAllFromPreferences([weak = weakFactory_.weak(),
                                           completion = std::move(completion)](auto loaded) mutable {
    auto* self = weak.lock();
    if (!self) return;
    TunnelContext& context = self->context_;
    if (!loaded) {
      context.log.format("Error loading preferences: {}", loaded.error().description());
      return completion(std::unexpected(loaded.error()));
    }
    const TunnelConfiguration* found = VPNManager::findManager(*loaded);
    if (!found) return completion({});  // nothing to remove: the key is gone either way
    const std::string identifier = found->identifier;
    context.recordApplicationStop();
    context.tunnels.removeFromPreferences(identifier, [weak, identifier,
                                                       completion = std::move(completion)](auto removed) mutable {
      auto* self = weak.lock();
      if (!self) return;
      if (!removed) {
        self->context_.log.format("[VPNManager] удаление конфигурации не удалось: {}", removed.error().description());
        return completion(std::unexpected(removed.error()));
      }
      self->context_.forgetConfiguration(identifier);
      completion({});
    });
  });
}

void KeySoftRemoval::normalizeLeftoverMarker(const TunnelConfiguration& configuration) {
  if (enabled() || !carriesSoftRemoveMarker(configuration) || gateOffNormalizeInFlight_) return;
  gateOffNormalizeInFlight_ = true;
  const std::string identifier = configuration.identifier;
  context_.tunnels.removeFromPreferences(identifier, [weak = weakFactory_.weak(), identifier](auto removed) {
    auto* self = weak.lock();
    if (!self) return;
    self->gateOffNormalizeInFlight_ = false;
    if (!removed) {
      self->context_.log.format("[VPNManager] [keySoftDelete] нормализация маркера не удалась: {}",
                                removed.error().description());
      return;
    }
    // The kept configuration is gone, and with it the consent the watch was about.
    self->endWatch();
    self->context_.forgetConfiguration(identifier);
  });
}

// --- Escalation ---

std::int64_t KeySoftRemoval::escalationThreshold(std::int64_t keySoftDelete) {
  // Uneven on purpose: 1 and 2 both mean two failures, and nine is the most ever waited for.
  return keySoftDelete < 3 ? 2 : std::min<std::int64_t>(keySoftDelete, 9);
}

void KeySoftRemoval::noteInstallResult(std::expected<void, Error> result, std::string keyText, Done completion) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  if (!watched()) return completion(std::move(result));
  const std::int64_t stored = context_.standard.integerForKey(kFailsKey);
  const std::int64_t threshold = escalationThreshold(context_.group.integerForKey(kFlag));

  std::optional<Error> failure = result ? std::nullopt : std::optional<Error>(result.error());
  if (context_.group.integerForKey(kDebugFlag) == 2 && stored < threshold) {
    context_.log.format("[VPNManager] [keySoftDelete] debug=2: имитируем провал установки (fails={})", stored);
    if (!failure) failure = Error{"", 0, "debug=2"};
  }
  if (!failure) {
    // The key is back in the kept configuration and the user was not asked again: the watch ends.
    endWatch();
    return completion(std::move(result));
  }

  const std::int64_t fails = stored + 1;
  context_.standard.setInteger(kFailsKey, fails);
  context_.log.format("[VPNManager] [keySoftDelete] провал установки после мягкого удаления: {}",
                      failure->description());
  if (fails < threshold) return completion(std::move(result));
  escalate(fails, std::move(result), std::move(keyText), std::move(completion));
}

void KeySoftRemoval::escalate(std::int64_t fails, std::expected<void, Error> result, std::string keyText,
                              Done completion) {
  context_.log.format("[VPNManager] [keySoftDelete] {} провалов подряд → полное удаление + чистая установка", fails);
  auto pending = std::make_shared<std::pair<std::string, Done>>(std::move(keyText), std::move(completion));
  auto original = std::make_shared<std::expected<void, Error>>(std::move(result));
  context_.tunnels.loadAllFromPreferences([weak = weakFactory_.weak(), pending, original](auto loaded) {
    auto* self = weak.lock();
    if (!self) return;
    if (!loaded) {
      // The count stays at the threshold, so the next install tries the escalation again.
      self->context_.log.format("[VPNManager] [keySoftDelete] loadAll перед эскалацией упал: {}",
                                loaded.error().description());
      return pending->second(std::move(*original));
    }
    auto cleanInstall = [weak, pending] {
      auto* self = weak.lock();
      if (!self) return;
      // The kept configuration is gone; the new one is not watched.
      self->endWatch();
      self->context_.log.write("[VPNManager] [keySoftDelete] эскалация: чистая установка");
      self->cleanInstall_(pending->first, std::move(pending->second));
    };
    const TunnelConfiguration* found = VPNManager::findManager(*loaded);
    if (!found) return cleanInstall();
    const std::string identifier = found->identifier;
    self->context_.recordApplicationStop();
    self->context_.tunnels.removeFromPreferences(
        identifier,
        [weak, pending, original, identifier, cleanInstall = std::move(cleanInstall)](auto removed) mutable {
          auto* self = weak.lock();
          if (!self) return;
          if (!removed) {
            self->context_.log.format("[VPNManager] [keySoftDelete] эскалация: удаление не удалось: {}",
                                      removed.error().description());
            return pending->second(std::move(*original));
          }
          self->context_.forgetConfiguration(identifier);
          cleanInstall();
        });
  });
}

}  // namespace norvik
