#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "backend/api_response.h"
#include "backend/network_service.h"
#include "platform/defaults.h"
#include "platform/log.h"
#include "platform/published.h"

namespace norvik {

// The backend's tunnel feature flags ("iosFixes" in "main"). Every flag is an optional integer;
// on/off flags are 0 or 1 (a JSON true or false reads as 1 or 0).
struct IOSFixesConfig {
  OptInt sockBufBytes, enobufsRetryCount, maxPaddingTransport, preallocBufsPerPool, useShortHeaderAfterHandshake,
      tunMTU, disableIPv6, selfCheckBlockSend, debugLogEnabled, smartIfaceProbeEnabled, routingRuntimeFlagsEnabled,
      delkeyVerifyViaMain, healthCheckMode, reconnectWaitMs, selfHealMaxPerDay, diagRecorderEnabled, dpiDiag,
      pathOfflineMode, wakeRebind, wakeRebindNewPort, pathRebindCheck, hopHygiene, diagExportRaw, memPressureTrim,
      rebuildHygiene, gvisorFlowBudget, extGcPercent, extMemLimitMb, keySoftDelete, keySoftDeleteDebug, keyIpSeamless,
      preConnectNoInternet;
  bool operator==(const IOSFixesConfig&) const = default;
};

// Reads the flags object field by field; a value that is no integer reads as absent.
[[nodiscard]] IOSFixesConfig decodeIOSFixesConfig(const nlohmann::json& object);

// Group-suite keys of the cache.
inline constexpr std::string_view kIOSFixesEnableKey = "iosFixes.iosFixedEnable";
inline constexpr std::string_view kIOSFixesEverReceivedKey = "iosFixes.everReceived";
// The integer flags the cache keeps, as full keys ("iosFixes.sockBufBytes", …), in the order
// they are written.
[[nodiscard]] std::span<const std::string> iosFixesCachedIntegerKeys();

// Caches the feature flags of every main configuration response in the group suite, where the
// tunnel (through the extras snapshot) and the application's own components read them. The cache
// is not sticky: a flag the backend stops sending is written as 0 at once. "iosFixes.everReceived"
// tells a reader whether a 0 came from the backend or from nothing having arrived yet.
//
// Threading: a main-loop object; the defaults, the publisher and the log are lent.
class IOSFixesCache {
 public:
  // Caches the response already published, if any, then every new one.
  IOSFixesCache(Defaults& groupDefaults, Published<NetworkService::MainResponse>& responses, Log& log);
  IOSFixesCache(const IOSFixesCache&) = delete;
  IOSFixesCache& operator=(const IOSFixesCache&) = delete;

  // Writes the master switch, every cached flag (0 when absent) and "iosFixes.everReceived",
  // in that order, and logs one summary line.
  void cache(const MainConfig& main);

 private:
  Defaults& defaults_;
  Log& log_;
  Subscription responseSubscription_;
};

}  // namespace norvik
