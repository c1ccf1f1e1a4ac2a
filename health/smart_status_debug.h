#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "health/smart_status_config.h"
#include "platform/log.h"

namespace norvik {

// A scenario the debug object can play through by hand.
enum class SmartStatusDebugScenario {
  repair,
  ourSide,
  whitelist,
  noInternet,
};

// "repair", "our_side", "whitelist", "no_internet": the backend's spelling.
[[nodiscard]] std::string_view rawValue(SmartStatusDebugScenario scenario);
[[nodiscard]] std::optional<SmartStatusDebugScenario> debugScenarioFromRaw(std::string_view raw);

// The fixed results of the two health probes.
struct ProbeOverride {
  bool ru = false;
  bool foreign = false;
  bool operator==(const ProbeOverride&) const = default;
};

// The debug object in the form the health check uses it: counts are plain (absent or negative is
// 0); the probe override needs both results (one alone is ignored); an unknown scenario is none.
struct DebugOverride {
  std::int64_t forceFailCount = 0;
  std::int64_t forceInconclusiveCount = 0;
  std::optional<ProbeOverride> probeOverride;
  std::optional<bool> tunnelProbeOverride;
  std::optional<SmartStatusDebugScenario> scenario;
  bool operator==(const DebugOverride&) const = default;
};

[[nodiscard]] DebugOverride makeDebugOverride(const SmartStatusDebugConfig& config);
// "forceFail=2 forceInconclusive=0 probe=ru:true,foreign:false tunnelProbe=none scenario=repair"
[[nodiscard]] std::string describe(const DebugOverride& debug);
// Builds the override and logs "[SmartStatus] debug override armed: " with its description.
[[nodiscard]] DebugOverride armDebugOverride(const SmartStatusDebugConfig& config, Log& log);

}  // namespace norvik
