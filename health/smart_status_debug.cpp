#include "health/smart_status_debug.h"

#include <algorithm>

#include <fmt/format.h>

namespace norvik {

std::string_view rawValue(SmartStatusDebugScenario scenario) {
  switch (scenario) {
    case SmartStatusDebugScenario::repair:
      return "repair";
    case SmartStatusDebugScenario::ourSide:
      return "our_side";
    case SmartStatusDebugScenario::whitelist:
      return "whitelist";
    case SmartStatusDebugScenario::noInternet:
      return "no_internet";
    default:
      return "unknown";
  }
}

std::optional<SmartStatusDebugScenario> debugScenarioFromRaw(std::string_view raw) {
  for (auto scenario : {SmartStatusDebugScenario::repair, SmartStatusDebugScenario::ourSide,
                        SmartStatusDebugScenario::whitelist, SmartStatusDebugScenario::noInternet}) {
    if (rawValue(scenario) == raw) return scenario;
  }
  return std::nullopt;
}

DebugOverride makeDebugOverride(const SmartStatusDebugConfig& config) {
  DebugOverride debug;
  debug.forceFailCount = std::max<std::int64_t>(config.forceFailCount.value_or(0), 0);
  debug.forceInconclusiveCount = std::max<std::int64_t>(config.forceInconclusiveCount.value_or(0), 0);
  if (config.probeOverride && config.probeOverride->ru && config.probeOverride->foreign) {
    debug.probeOverride = ProbeOverride{*config.probeOverride->ru, *config.probeOverride->foreign};
  }
  debug.tunnelProbeOverride = config.tunnelProbeOverride;
  if (config.scenario) debug.scenario = debugScenarioFromRaw(*config.scenario);
  return debug;
}

std::string describe(const DebugOverride& debug) {
  const std::string probe = debug.probeOverride
                                ? fmt::format("ru:{},foreign:{}", debug.probeOverride->ru, debug.probeOverride->foreign)
                                : std::string("none");
  const std::string tunnel = debug.tunnelProbeOverride ? fmt::format("{}", *debug.tunnelProbeOverride) : "none";
  const std::string_view scenario = debug.scenario ? rawValue(*debug.scenario) : "none";
  return fmt::format("forceFail={} forceInconclusive={} probe={} tunnelProbe={} scenario={}", debug.forceFailCount,
                     debug.forceInconclusiveCount, probe, tunnel, scenario);
}

DebugOverride armDebugOverride(const SmartStatusDebugConfig& config, Log& log) {
  DebugOverride debug = makeDebugOverride(config);
  log.write("[SmartStatus] debug override armed: " + describe(debug));
  return debug;
}

}  // namespace norvik
