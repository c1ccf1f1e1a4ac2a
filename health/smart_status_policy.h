#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "health/smart_status_config.h"
#include "platform/clock.h"
#include "platform/defaults.h"

namespace norvik {

// A probe address that passed cleaning: https with a host. `url` is the address as configured
// (trimmed); `host` is lower-cased.
struct ProbeURL {
  std::string url;
  std::string host;
  std::optional<int> port;
  std::string path;  // "/" when the address has none

  // Nothing unless `text` (trimmed) parses as a URL whose scheme is https and whose host is not empty.
  [[nodiscard]] static std::optional<ProbeURL> parse(std::string_view text);
  bool operator==(const ProbeURL&) const = default;
};

// The health check's settings, resolved from the backend's "smart_status" object: every value
// present, in range and cleaned. A plain value; every consumer reads this, never the raw object
// (the speed probe's two addresses are the exception, read from SmartStatusConfig).
//
// Integers are milliseconds unless named otherwise. Routing-mode lists hold the backend's mode
// codes: 0 smart, 1 full, 2 services.
struct SmartStatusPolicy {
  bool enabled = false;
  std::int64_t verifyDelayMs = 1200;
  std::int64_t verifyWindowMs = 5000;
  std::int64_t pollIntervalMs = 800;
  std::int64_t verifyFailFastMs = 2500;
  std::int64_t handshakeLookbackMs = 10000;
  std::int64_t handshakeStaleMs = 180000;
  std::vector<std::int64_t> requireRxModes{0, 1};
  std::int64_t rxMinBytes = 400;
  std::int64_t repairAttempts = 2;
  bool resumeRepair = false;
  std::int64_t repairDelayMs = 700;
  std::int64_t monitorIntervalMs = 60000;      // 0: no periodic re-verification
  std::int64_t recheckAfterProblemMs = 30000;  // 0: a problem is not rechecked by itself
  std::int64_t diagDialogCooldownMs = 300000;
  std::int64_t hsProofAgeMs = 30000;
  bool showDialogOurSide = true;
  bool showDialogWhitelist = true;
  bool showDialogNoInternet = true;
  bool subExpiryEnabled = false;
  std::int64_t subExpiryBufferHours = 24;
  bool showDialogSubExpired = true;
  std::int64_t probeTimeoutMs = 3000;
  std::vector<ProbeURL> probeRuUrls;
  std::vector<ProbeURL> probeForeignUrls;
  std::optional<SmartStatusTexts> texts;
  std::vector<ProbeURL> probeTunnelUrls;
  std::int64_t probeTunnelTimeoutMs = 4000;
  std::int64_t resumeVisibleAfterMs = 60000;  // 0: off
  std::int64_t resumeBeatMs = 1000;
  std::int64_t coldStartProofMaxAgeMs = 86400000;  // 0: a stored verification never counts at start
  std::vector<std::int64_t> probeTunnelModes{0, 1};
  bool probeBypassEnabled = false;
  std::vector<std::string> probeBypassDns;
  std::map<std::string, std::vector<std::string>> probeBypassPins;  // lower-cased host → addresses
  std::int64_t netChangeGraceMs = 1500;
  std::int64_t telemetryTimeoutMs = 1500;
  std::int64_t repairConnectTimeoutMs = 10000;
  std::optional<SmartStatusDebugConfig> debug;

  bool operator==(const SmartStatusPolicy&) const = default;
};

// The built-in policy, built once: the health check stays off until the backend turns it on.
[[nodiscard]] const SmartStatusPolicy& defaultSmartStatusPolicy();

// The policy for a configuration (none: the main configuration had no "smart_status"). Absent keys
// keep their defaults; present numbers are clamped, lists filtered and cleaned. Never fails.
[[nodiscard]] SmartStatusPolicy resolveSmartStatusPolicy(const std::optional<SmartStatusConfig>& config);

// Standard-defaults keys of the health check.
inline constexpr std::string_view kSmartStatusLastVerifiedAtKey = "smartStatusLastVerifiedAtMs";
inline constexpr std::string_view kSmartStatusServerTimeOffsetKey = "smart_status.server_time_offset_sec";

// Whether the last successful verification, stored in the standard defaults as milliseconds since
// 1970, is recent enough to count at a cold start. A moment in the future never counts.
[[nodiscard]] bool hasColdStartProof(const SmartStatusPolicy& policy, const Defaults& standardDefaults,
                                     const Clock& clock);

}  // namespace norvik
