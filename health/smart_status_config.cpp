#include "health/smart_status_config.h"

#include <nlohmann/json.hpp>

#include "backend/json_fields.h"

namespace norvik {
namespace {

using json_fields::Fields;

SmartStatusProbeOverrideConfig decodeProbeOverride(const Fields& f) {
  SmartStatusProbeOverrideConfig o;
  f.boolean("ru", o.ru);
  f.boolean("foreign", o.foreign);
  return o;
}

SmartStatusDebugConfig decodeDebug(const Fields& f) {
  SmartStatusDebugConfig d;
  f.integer("force_fail_count", d.forceFailCount);
  f.integer("force_inconclusive_count", d.forceInconclusiveCount);
  f.nested("probe_override", d.probeOverride, &decodeProbeOverride);
  f.boolean("tunnel_probe_override", d.tunnelProbeOverride);
  f.boolean("gesture", d.gesture);
  f.text("scenario", d.scenario);
  return d;
}

SmartStatusTexts decodeTexts(const Fields& f) {
  SmartStatusTexts t;
  for (std::size_t i = 0; i < kSmartStatusTextKeyCount; ++i) {
    const auto key = static_cast<SmartStatusTextKey>(i);
    f.text(std::string(jsonKey(key)).c_str(), t[key]);
  }
  return t;
}

SmartStatusConfig decodeConfig(const Fields& f) {
  SmartStatusConfig c;
  f.boolean("enabled", c.enabled);
  f.integer("verify_delay_ms", c.verifyDelayMs);
  f.integer("verify_window_ms", c.verifyWindowMs);
  f.integer("poll_interval_ms", c.pollIntervalMs);
  f.integer("verify_fail_fast_ms", c.verifyFailFastMs);
  f.integer("handshake_lookback_ms", c.handshakeLookbackMs);
  f.integer("handshake_stale_ms", c.handshakeStaleMs);
  f.integers("require_rx_modes", c.requireRxModes);
  f.integer("rx_min_bytes", c.rxMinBytes);
  f.integer("repair_attempts", c.repairAttempts);
  f.boolean("resume_repair", c.resumeRepair);
  f.integer("repair_delay_ms", c.repairDelayMs);
  f.integer("monitor_interval_ms", c.monitorIntervalMs);
  f.integer("recheck_after_problem_ms", c.recheckAfterProblemMs);
  f.integer("diag_dialog_cooldown_ms", c.diagDialogCooldownMs);
  f.integer("hs_proof_age_ms", c.hsProofAgeMs);
  f.boolean("show_dialog_our_side", c.showDialogOurSide);
  f.boolean("show_dialog_whitelist", c.showDialogWhitelist);
  f.boolean("show_dialog_no_internet", c.showDialogNoInternet);
  f.boolean("sub_expiry_enabled", c.subExpiryEnabled);
  f.integer("sub_expiry_buffer_hours", c.subExpiryBufferHours);
  f.boolean("show_dialog_sub_expired", c.showDialogSubExpired);
  f.integer("probe_timeout_ms", c.probeTimeoutMs);
  f.texts("probe_ru_urls", c.probeRuUrls);
  f.texts("probe_foreign_urls", c.probeForeignUrls);
  f.nested("texts", c.texts, &decodeTexts);
  f.texts("probe_tunnel_urls", c.probeTunnelUrls);
  f.integer("probe_tunnel_timeout_ms", c.probeTunnelTimeoutMs);
  f.integer("resume_visible_after_ms", c.resumeVisibleAfterMs);
  f.integer("resume_beat_ms", c.resumeBeatMs);
  f.integer("cold_start_proof_max_age_ms", c.coldStartProofMaxAgeMs);
  f.text("dpi_probe_down_url", c.dpiProbeDownUrl);
  f.text("dpi_probe_up_url", c.dpiProbeUpUrl);
  f.integers("probe_tunnel_modes", c.probeTunnelModes);
  f.boolean("probe_bypass_enabled", c.probeBypassEnabled);
  f.texts("probe_bypass_dns", c.probeBypassDns);
  f.textLists("probe_bypass_pins", c.probeBypassPins);
  f.integer("net_change_grace_ms", c.netChangeGraceMs);
  f.integer("telemetry_timeout_ms", c.telemetryTimeoutMs);
  f.integer("repair_connect_timeout_ms", c.repairConnectTimeoutMs);
  f.nested("debug", c.debug, &decodeDebug);
  return c;
}

}  // namespace

std::expected<SmartStatusConfig, std::string> decodeSmartStatusConfig(const nlohmann::json& object) {
  if (!object.is_object()) return std::unexpected(std::string("\"smart_status\": expected an object"));
  try {
    return decodeConfig(Fields(object, "smart_status"));
  } catch (const json_fields::DecodeFailure& failure) {
    return std::unexpected(failure.message);
  }
}

}  // namespace norvik
