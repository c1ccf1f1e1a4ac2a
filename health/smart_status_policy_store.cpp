#include "health/smart_status_policy_store.h"

#include <chrono>
#include <cmath>

namespace norvik {

SmartStatusPolicyStore::SmartStatusPolicyStore(Log& log, Defaults& standardDefaults, const Clock& clock,
                                               PhysicalPathMonitor* pathMonitor)
    : log_(log), defaults_(standardDefaults), clock_(clock), pathMonitor_(pathMonitor) {}

void SmartStatusPolicyStore::follow(Published<MainResponse>& responses) {
  // The subscription ends with this object, so the observer never outlives it.
  responses_ = responses.subscribe([this](const MainResponse& response) {
    if (response) accept(response->main);
  });
  if (const auto& current = responses.get()) accept(current->main);
}

void SmartStatusPolicyStore::accept(const MainConfig& main) {
  recordServerTime(main);

  std::optional<SmartStatusConfig> config;
  std::string_view offReason = "no_smart_status";
  if (main.smartStatus) {
    auto decoded = decodeSmartStatusConfig(*main.smartStatus);
    if (decoded) {
      config = std::move(*decoded);
      offReason = "enabled_false";
    } else {
      log_.write("[SmartStatus] smart_status not decoded, built-in policy used: " + decoded.error());
      offReason = "decode_error";
    }
  }

  SmartStatusPolicy resolved = resolveSmartStatusPolicy(config);
  lastConfig_ = std::move(config);
  debugOverride_.reset();
  if (resolved.debug) debugOverride_ = armDebugOverride(*resolved.debug, log_);
  const bool enabled = resolved.enabled;
  policy_.set(std::move(resolved));

  if (!enabled) {
    if (resetHandler_) resetHandler_(offReason);
    if (pathMonitor_) pathMonitor_->stop();
    log_.write("[SmartStatus] policy off (ccept=" + std::string(offReason) + ") — reset + stop path monitor");
  }
}

bool SmartStatusPolicyStore::hasColdStartProof() const {
  return norvik::hasColdStartProof(policy_.get(), defaults_, clock_);
}

void SmartStatusPolicyStore::recordServerTime(const MainConfig& main) {
  if (!main.serverTime || *main.serverTime <= 0) return;
  const auto deviceSeconds = std::chrono::duration_cast<std::chrono::seconds>(clock_.now().time_since_epoch()).count();
  defaults_.setInteger(kSmartStatusServerTimeOffsetKey, *main.serverTime - static_cast<std::int64_t>(deviceSeconds));
}

}  // namespace norvik
