#pragma once

#include <cstdint>
#include <expected>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "health/smart_status_texts.h"

namespace norvik {

// "probe_override" of the debug object: fixed results for the Russian and the foreign probe.
struct SmartStatusProbeOverrideConfig {
  std::optional<bool> ru;
  std::optional<bool> foreign;
  bool operator==(const SmartStatusProbeOverrideConfig&) const = default;
};

// The "debug" object, for testing the health check against the live service. Every field optional.
struct SmartStatusDebugConfig {
  std::optional<std::int64_t> forceFailCount;
  std::optional<std::int64_t> forceInconclusiveCount;
  std::optional<SmartStatusProbeOverrideConfig> probeOverride;
  std::optional<bool> tunnelProbeOverride;
  std::optional<bool> gesture;
  std::optional<std::string> scenario;
  bool operator==(const SmartStatusDebugConfig&) const = default;
};

// The "smart_status" object of the main configuration as received: every key optional (missing and
// null are both absent). Numbers are taken as sent; SmartStatusPolicy is where they are defaulted
// and forced into range.
struct SmartStatusConfig {
  std::optional<bool> enabled;
  std::optional<std::int64_t> verifyDelayMs;
  std::optional<std::int64_t> verifyWindowMs;
  std::optional<std::int64_t> pollIntervalMs;
  std::optional<std::int64_t> verifyFailFastMs;
  std::optional<std::int64_t> handshakeLookbackMs;
  std::optional<std::int64_t> handshakeStaleMs;
  std::optional<std::vector<std::int64_t>> requireRxModes;
  std::optional<std::int64_t> rxMinBytes;
  std::optional<std::int64_t> repairAttempts;
  std::optional<bool> resumeRepair;
  std::optional<std::int64_t> repairDelayMs;
  std::optional<std::int64_t> monitorIntervalMs;
  std::optional<std::int64_t> recheckAfterProblemMs;
  std::optional<std::int64_t> diagDialogCooldownMs;
  std::optional<std::int64_t> hsProofAgeMs;
  std::optional<bool> showDialogOurSide;
  std::optional<bool> showDialogWhitelist;
  std::optional<bool> showDialogNoInternet;
  std::optional<bool> subExpiryEnabled;
  std::optional<std::int64_t> subExpiryBufferHours;
  std::optional<bool> showDialogSubExpired;
  std::optional<std::int64_t> probeTimeoutMs;
  std::optional<std::vector<std::string>> probeRuUrls;
  std::optional<std::vector<std::string>> probeForeignUrls;
  std::optional<SmartStatusTexts> texts;
  std::optional<std::vector<std::string>> probeTunnelUrls;
  std::optional<std::int64_t> probeTunnelTimeoutMs;
  std::optional<std::int64_t> resumeVisibleAfterMs;
  std::optional<std::int64_t> resumeBeatMs;
  std::optional<std::int64_t> coldStartProofMaxAgeMs;
  std::optional<std::string> dpiProbeDownUrl;
  std::optional<std::string> dpiProbeUpUrl;
  std::optional<std::vector<std::int64_t>> probeTunnelModes;
  std::optional<bool> probeBypassEnabled;
  std::optional<std::vector<std::string>> probeBypassDns;
  std::optional<std::map<std::string, std::vector<std::string>>> probeBypassPins;
  std::optional<std::int64_t> netChangeGraceMs;
  std::optional<std::int64_t> telemetryTimeoutMs;
  std::optional<std::int64_t> repairConnectTimeoutMs;
  std::optional<SmartStatusDebugConfig> debug;
  bool operator==(const SmartStatusConfig&) const = default;
};

// Decodes the "smart_status" object one key at a time. Integers are lenient (a number without a
// fraction or a string of digits; anything else reads as absent); any other key of the wrong type
// fails the whole object with an error naming its path ("smart_status.texts.status_checking") and
// quoting the value.
[[nodiscard]] std::expected<SmartStatusConfig, std::string> decodeSmartStatusConfig(const nlohmann::json& object);

}  // namespace norvik
