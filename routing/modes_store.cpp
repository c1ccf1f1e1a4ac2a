#include "routing/modes_store.h"

#include <cassert>

#include "routing/routing_texts.h"

namespace norvik {
namespace {

std::string backendTextOr(const OptText& backend, std::string_view builtIn) {
  return backend && !backend->empty() ? *backend : std::string(builtIn);
}

}  // namespace

ModesStore::ModesStore(EventLoop& loop, Defaults& groupDefaults, Published<NetworkService::MainResponse>& responses,
                       Log& log)
    : loop_(loop), defaults_(groupDefaults), log_(log) {
  smartDisableConfirmHidden_.set(defaults_.boolValue(kSmartDisableConfirmHidden).value_or(false));
  migrateUserSelectedMode();
  currentMode_.set(modeFromStoredCode(readStoredCode()));
  // A response published before the store existed (the cached one at start-up) counts as the
  // first arrival, so that the first apply already sees the backend's restrictions.
  if (const auto& response = responses.get()) {
    copyBackendSwitches(*response);
    routing_ = response->routing.value_or(RoutingConfig{});
    lastRouting_ = routing_;
  }
  apply();
  reconcilePersistedMode();
  responseSubscription_ = responses.subscribe([this](const NetworkService::MainResponse& r) { onResponse(r); });
}

void ModesStore::onResponse(const NetworkService::MainResponse& response) {
  assert(loop_.isLoopThread());
  if (!response) return;
  copyBackendSwitches(*response);
  RoutingConfig routing = response->routing.value_or(RoutingConfig{});
  // The same section again changes nothing: the user's choice was applied against it already.
  if (lastRouting_ && *lastRouting_ == routing) return;
  routing_ = routing;
  lastRouting_ = std::move(routing);
  apply();
}

void ModesStore::copyBackendSwitches(const APIResponse& response) {
  const RoutingConfig routing = response.routing.value_or(RoutingConfig{});
  // A switch the backend stops sending is removed, so that the tunnel falls back to its own
  // default instead of keeping a value nobody sends any more.
  auto copyBool = [this](std::string_view key, const OptBool& value) {
    if (!value) {
      if (defaults_.contains(key)) defaults_.remove(key);
    } else if (defaults_.boolValue(key) != value) {
      defaults_.setBool(key, *value);
    }
  };
  copyBool(kFullModeLightDatapath, routing.fullModeLightDatapath);
  copyBool(kOnDemandEnabled, routing.onDemandEnabled);
  copyBool(kRelayHarden, routing.relayHardenEnabled);
  if (!routing.extensionMemLimitMb) {
    if (defaults_.contains(kExtMemLimitMb)) defaults_.remove(kExtMemLimitMb);
  } else if (defaults_.integerValue(kExtMemLimitMb) != routing.extensionMemLimitMb) {
    defaults_.setInteger(kExtMemLimitMb, *routing.extensionMemLimitMb);
  }
  copyBool(kGeoBypassAllowedByBackend, response.main.geoBypass());
}

std::int64_t ModesStore::legacyStoredCode() {
  if (const std::int64_t active = defaults_.integerForKey(kModeServicesActive); active != 0) return active;
  if (defaults_.boolValue(kRuBypass) == false) {
    // The older release kept only "ruBypassEnabled"; false there meant everything through VPN.
    defaults_.setInteger(kModeServicesActive, storedCode(VPNRoutingMode::full));
    return storedCode(VPNRoutingMode::full);
  }
  return storedCode(VPNRoutingMode::smart);
}

std::int64_t ModesStore::readStoredCode() {
  if (defaults_.contains(kUserSelectedMode)) return defaults_.integerForKey(kUserSelectedMode);
  return legacyStoredCode();
}

void ModesStore::migrateUserSelectedMode() {
  if (defaults_.contains(kUserSelectedMode)) return;
  const std::int64_t code = legacyStoredCode();
  defaults_.setInteger(kUserSelectedMode, code);
  log_.format("[Routing] migrated the stored mode: userSelectedMode={}", code);
}

VPNRoutingMode ModesStore::userSelectedMode() const {
  return modeFromStoredCode(defaults_.integerForKey(kUserSelectedMode));
}

Defaults::WriteResult ModesStore::select(VPNRoutingMode mode) {
  assert(loop_.isLoopThread());
  // The user's choice that cannot be written is not taken: the mode stays as it was, and the
  // caller learns why.
  if (auto saved = defaults_.setInteger(kUserSelectedMode, storedCode(mode)); !saved) {
    log_.format("[Routing] выбор режима {} не сохранён: {}", rawText(mode), saved.error().message);
    return saved;
  }
  apply();
  return {};
}

void ModesStore::apply() {
  assert(loop_.isLoopThread());
  const VPNRoutingMode requested = modeFromStoredCode(readStoredCode());
  const VPNRoutingMode effective = effectiveMode(requested);
  const VPNRoutingMode previous = currentMode_.get();
  if (effective == previous) return;

  persist(effective);
  log_.format("[Routing] mode {} -> {} (requested {})", rawText(previous), rawText(effective), rawText(requested));
  currentMode_.set(effective);
  // The tunnel side hears of it in a task of its own, after every observer of currentMode.
  loop_.post([weak = weakFactory_.weak(), previous, effective] {
    auto self = weak.lock();
    if (self && self->modeChangeHandler_) self->modeChangeHandler_(previous, effective);
  });
}

void ModesStore::persist(VPNRoutingMode mode) {
  // The mode in force follows the backend's rules even when it cannot be written down; the
  // adapter has logged the failure, and the next apply writes it again.
  (void)defaults_.setInteger(kModeServicesActive, storedCode(mode));
  (void)defaults_.setBool(kRuBypass, mode != VPNRoutingMode::full);
}

void ModesStore::reconcilePersistedMode() {
  const VPNRoutingMode mode = currentMode_.get();
  const bool activeDiffers = defaults_.contains(kModeServicesActive) &&
                             modeFromStoredCode(defaults_.integerForKey(kModeServicesActive)) != mode;
  const bool activeMissing = !defaults_.contains(kModeServicesActive) && mode != VPNRoutingMode::smart;
  const auto bypass = defaults_.boolValue(kRuBypass);
  const bool bypassDiffers = bypass && *bypass != (mode != VPNRoutingMode::full);
  if (activeDiffers || activeMissing || bypassDiffers) persist(mode);
}

VPNRoutingMode ModesStore::effectiveMode(VPNRoutingMode requested) const {
  return norvik::effectiveMode(routing_, requested);
}

std::vector<VPNRoutingMode> ModesStore::allowedModes() const { return norvik::allowedModes(routing_); }

bool ModesStore::isFullLightDatapath() const { return defaults_.boolValue(kFullModeLightDatapath).value_or(false); }

bool ModesStore::liveSwitchEnabled() const { return defaults_.boolValue(kLiveSwitchEnabled).value_or(false); }

void ModesStore::setLiveSwitchEnabled(bool enabled) { defaults_.setBool(kLiveSwitchEnabled, enabled); }

std::optional<std::string_view> ModesStore::modeControlNotice() const {
  if (routing_.killSwitch.value_or(false)) return routing_texts::kModeControlUnavailable;
  if (routing_.forcedMode && modeFromBackendCode(*routing_.forcedMode)) return routing_texts::kModeSetByProvider;
  return std::nullopt;
}

FullModeConfirmation ModesStore::fullModeConfirmation() const {
  return FullModeConfirmation{
      .identifier = std::string(routing_texts::kFullModeConfirmIdentifier),
      .title = backendTextOr(routing_.fullModeAlertTitle, routing_texts::kFullModeConfirmTitle),
      .message = backendTextOr(routing_.fullModeAlertMessage, routing_texts::kFullModeConfirmMessage),
      .confirm = backendTextOr(routing_.fullModeAlertConfirm, routing_texts::kFullModeConfirmButton),
      .cancel = backendTextOr(routing_.fullModeAlertCancel, routing_texts::kFullModeCancelButton),
  };
}

SmartModeDisableConfirmation ModesStore::smartModeDisableConfirmation() {
  return SmartModeDisableConfirmation{
      .identifier = std::string(routing_texts::kSmartDisableIdentifier),
      .title = std::string(routing_texts::kSmartDisableTitle),
      .message = std::string(routing_texts::kSmartDisableMessage),
      .confirm = std::string(routing_texts::kSmartDisableConfirm),
      .keep = std::string(routing_texts::kSmartDisableKeep),
      .dontShowAgain = std::string(routing_texts::kSmartDisableDontShowAgain),
  };
}

Defaults::WriteResult ModesStore::hideSmartDisableConfirm() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  auto saved = defaults_.setBool(kSmartDisableConfirmHidden, true);
  if (!saved) return saved;
  log_.write("[Routing] подтверждение выключения Умного режима больше не показывается");
  smartDisableConfirmHidden_.set(true);
  return saved;
}

}  // namespace norvik
