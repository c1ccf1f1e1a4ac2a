#include "tunnel/tunnel_installer.h"

#include "tunnel/key_soft_removal.h"
#include "tunnel/key_text.h"
#include "tunnel/tunnel_connector.h"
#include "tunnel/vpn_manager.h"

namespace norvik {

struct TunnelInstaller::Run {
  std::string keyText;  // normalised
  std::optional<std::string> serverAddress;
  Done completion;

  void finish(std::expected<void, Error> result) {
    if (completion) std::exchange(completion, nullptr)(std::move(result));
  }
};

TunnelInstaller::TunnelInstaller(TunnelContext& context, TunnelConnector& connector, KeySoftRemoval& softRemoval,
                                 ExtrasSnapshot extras)
    : context_(context), connector_(connector), softRemoval_(softRemoval), extras_(std::move(extras)) {}

void TunnelInstaller::installKey(const std::string& keyText, Done completion) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  ++context_.record.repairToken;
  auto run = std::make_shared<Run>();
  run->keyText = normalizeKeyText(keyText);
  run->serverAddress = extractServerAddress(run->keyText);
  run->completion = std::move(completion);
  if (softRemoval_.watched()) {
    // The first installs after a soft removal are counted; enough failures replace the configuration.
    run->completion = [weak = weakFactory_.weak(), keyText = run->keyText,
                       done = std::move(run->completion)](std::expected<void, Error> result) mutable {
      if (auto* self = weak.lock()) {
        self->softRemoval_.noteInstallResult(std::move(result), std::move(keyText), std::move(done));
      }
    };
  }
  if (run->serverAddress) {
    context_.log.format("Extracted server address: {}", *run->serverAddress);
    context_.record.lastServerIP = run->serverAddress;
  }
  context_.tunnels.loadAllFromPreferences([weak = weakFactory_.weak(), run](auto loaded) mutable {
    if (auto* self = weak.lock()) self->onLoaded(run, std::move(loaded));
  });
}

TunnelProviderProtocol TunnelInstaller::makeProtocol(const Run& run) const {
  TunnelProviderProtocol protocol;
  protocol.providerBundleIdentifier = std::string(VPNManager::kProviderBundleIdentifier);
  protocol.serverAddress = run.serverAddress;
  protocol.providerConfiguration[std::string(VPNManager::kKeyTextKey)] = run.keyText;
  // The extras go in one by one after the key text; an extra of the same name would replace it.
  if (extras_) {
    for (auto& [key, value] : extras_()) protocol.providerConfiguration[key] = std::move(value);
  }
  return protocol;
}

void TunnelInstaller::onLoaded(const std::shared_ptr<Run>& run,
                               std::expected<std::vector<TunnelConfiguration>, Error> loaded) {
  if (!loaded) {
    context_.log.format("Error loading preferences: {}", loaded.error().description());
    return run->finish(std::unexpected(loaded.error()));
  }
  if (const TunnelConfiguration* found = VPNManager::findManager(*loaded)) {
    // The running tunnel cannot take a new key; it is stopped first, as the application.
    connector_.stopAsApplication(*found, [weak = weakFactory_.weak(), run](TunnelConfiguration stopped) mutable {
      if (auto* self = weak.lock()) self->updateInPlace(run, std::move(stopped));
    });
    return;
  }

  TunnelConfiguration fresh;
  fresh.localizedDescription = std::string(VPNManager::kConfigurationName);
  fresh.protocolConfiguration = makeProtocol(*run);
  fresh.isEnabled = true;
  fresh.isOnDemandEnabled = false;
  context_.tunnels.saveToPreferences(std::move(fresh), [weak = weakFactory_.weak(), run](auto saved) mutable {
    auto* self = weak.lock();
    if (!self) return;
    if (!saved) {
      self->context_.log.format("Error on first save: {}", saved.error().description());
      return run->finish(std::unexpected(saved.error()));
    }
    self->afterFirstSave(run, std::move(*saved));
  });
}

void TunnelInstaller::updateInPlace(const std::shared_ptr<Run>& run, TunnelConfiguration configuration) {
  configuration.protocolConfiguration = makeProtocol(*run);
  configuration.isEnabled = true;
  configuration.localizedDescription = std::string(VPNManager::kConfigurationName);
  context_.tunnels.saveToPreferences(std::move(configuration), [weak = weakFactory_.weak(), run](auto saved) mutable {
    auto* self = weak.lock();
    if (!self) return;
    if (!saved) {
      self->context_.log.format("Ошибка сохранения конфигурации: {}", saved.error().description());
      return run->finish(std::unexpected(saved.error()));
    }
    self->afterFirstSave(run, std::move(*saved));
  });
}

// The configuration is read back and saved a second time before it is trusted: a configuration
// saved once is not always usable at once.
void TunnelInstaller::afterFirstSave(const std::shared_ptr<Run>& run, const TunnelConfiguration& saved) {
  auto weak = weakFactory_.weak();
  context_.tunnels.loadFromPreferences(saved.identifier, [weak, run](auto reloaded) mutable {
    auto* self = weak.lock();
    if (!self) return;
    if (!reloaded) {
      self->context_.log.format("Error loading preferences after update: {}", reloaded.error().description());
      return run->finish(std::unexpected(reloaded.error()));
    }
    self->context_.tunnels.saveToPreferences(std::move(*reloaded), [weak, run](auto second) mutable {
      auto* self = weak.lock();
      if (!self) return;
      if (!second) {
        self->context_.log.format("Error on second save: {}", second.error().description());
        return run->finish(std::unexpected(second.error()));
      }
      self->context_.tunnels.loadAllFromPreferences([weak, run](auto all) mutable {
        auto* self = weak.lock();
        if (!self) return;
        if (!all) {
          self->context_.log.format("Error loading managers after creation: {}", all.error().description());
          return run->finish(std::unexpected(all.error()));
        }
        TunnelRecord& record = self->context_.record;
        for (const auto& m : *all) {
          if (m.localizedDescription == VPNManager::kConfigurationName) {
            record.tunnelManager = m;
            break;
          }
        }
        record.isConfigured.set(record.tunnelManager.has_value());
        run->finish({});
      });
    });
  });
}

}  // namespace norvik
