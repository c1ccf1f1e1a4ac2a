#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "backend/api_response.h"
#include "health/physical_path_monitor.h"
#include "health/smart_status_config.h"
#include "health/smart_status_debug.h"
#include "health/smart_status_policy.h"
#include "platform/clock.h"
#include "platform/defaults.h"
#include "platform/log.h"
#include "platform/published.h"

namespace norvik {

// Holds the health check's policy: the one resolved from the latest main configuration, and the
// raw "smart_status" object it came from. Each main configuration replaces both and publishes the
// policy. When the new policy is off the health state is reset (through the reset handler the
// health engine installs), the physical path monitor stopped, and that is logged:
// "[SmartStatus] policy off (ccept=<reason>) — reset + stop path monitor", reason being
// "no_smart_status", "enabled_false" or "decode_error".
//
// A "smart_status" object that cannot be decoded costs the user nothing: one log line names the
// bad field and the built-in policy applies (which is off).
//
// Each main configuration also records the backend's clock offset ("server_time" minus the device
// clock, whole seconds) under "smart_status.server_time_offset_sec", and arms its debug object if it
// has one.
//
// Threading: a main-loop object. Ownership: borrows everything it is given.
class SmartStatusPolicyStore {
 public:
  using MainResponse = std::shared_ptr<const APIResponse>;
  using ResetHandler = std::function<void(std::string_view reason)>;

  // `pathMonitor` may be null when there is none to stop.
  SmartStatusPolicyStore(Log& log, Defaults& standardDefaults, const Clock& clock, PhysicalPathMonitor* pathMonitor);
  SmartStatusPolicyStore(const SmartStatusPolicyStore&) = delete;
  SmartStatusPolicyStore& operator=(const SmartStatusPolicyStore&) = delete;

  // Follows the published main configuration (NetworkService::currentResponse()); one that is
  // already there is taken at once.
  void follow(Published<MainResponse>& responses);
  // Takes one main configuration.
  void accept(const MainConfig& main);

  [[nodiscard]] Published<SmartStatusPolicy>& policy() { return policy_; }
  [[nodiscard]] const std::optional<SmartStatusConfig>& lastConfig() const { return lastConfig_; }
  // The override armed by the latest debug object, for the engine to use up; none without one.
  [[nodiscard]] std::optional<DebugOverride>& debugOverride() { return debugOverride_; }
  // Whether a stored verification is recent enough to count at a cold start, under the policy.
  [[nodiscard]] bool hasColdStartProof() const;

  // The health engine resets its state here when a policy turns the check off.
  void setResetHandler(ResetHandler handler) { resetHandler_ = std::move(handler); }

 private:
  void recordServerTime(const MainConfig& main);

  Log& log_;
  Defaults& defaults_;
  const Clock& clock_;
  PhysicalPathMonitor* pathMonitor_;
  Published<SmartStatusPolicy> policy_{defaultSmartStatusPolicy()};
  std::optional<SmartStatusConfig> lastConfig_;
  std::optional<DebugOverride> debugOverride_;
  ResetHandler resetHandler_;
  Subscription responses_;
};

}  // namespace norvik
