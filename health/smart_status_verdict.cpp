#include "health/smart_status_verdict.h"

namespace norvik {
namespace {

using std::chrono::milliseconds;

bool handshakeGood(const SmartStatusPolicy& policy, const VerifyDemands& demands, const TunnelTelemetry& telemetry,
                   Clock::TimePoint now) {
  if (isHandshakeStale(policy, telemetry, now)) return false;
  if (!demands.freshHandshake) return true;
  return *telemetry.lastHandshake >= demands.anchor - milliseconds(policy.handshakeLookbackMs);
}

bool receivedEnough(const SmartStatusPolicy& policy, const VerifyEvidence& evidence) {
  if (!evidence.rxAtStart || !evidence.latest) return false;
  const std::uint64_t now = evidence.latest->receivedBytes;
  // A counter that went backwards belongs to a new session: count from zero.
  const std::uint64_t grown = now >= *evidence.rxAtStart ? now - *evidence.rxAtStart : now;
  return grown >= static_cast<std::uint64_t>(policy.rxMinBytes);
}

}  // namespace

std::string_view toString(WindowVerdict verdict) {
  switch (verdict) {
    case WindowVerdict::pending:
      return "pending";
    case WindowVerdict::passed:
      return "passed";
    case WindowVerdict::failed:
      return "failed";
    case WindowVerdict::inconclusive:
      return "inconclusive";
    default:
      return "unknown";
  }
}

bool isHandshakeStale(const SmartStatusPolicy& policy, const TunnelTelemetry& telemetry, Clock::TimePoint now) {
  if (!telemetry.lastHandshake) return true;
  // A handshake "in the future" means the wall clock was set back since: it is recent.
  return now - *telemetry.lastHandshake > milliseconds(policy.handshakeStaleMs);
}

WindowVerdict judgeWindow(const SmartStatusPolicy& policy, const VerifyDemands& demands, const VerifyEvidence& evidence,
                          Clock::TimePoint now, milliseconds elapsed, bool over) {
  const bool probeOk = !demands.tunnelProbe || evidence.tunnelProbe == true;
  const bool probeFailed = demands.tunnelProbe && evidence.tunnelProbe == false;
  const bool probeRunning = demands.tunnelProbe && !evidence.tunnelProbe;

  if (evidence.latest) {
    const bool handshake = handshakeGood(policy, demands, *evidence.latest, now);
    const bool rx = !demands.receivedBytes || receivedEnough(policy, evidence);
    if (handshake && rx && probeOk) return WindowVerdict::passed;
    if (elapsed >= milliseconds(policy.verifyFailFastMs)) {
      if (isHandshakeStale(policy, *evidence.latest, now) || probeFailed) return WindowVerdict::failed;
    }
  } else if (probeFailed && elapsed >= milliseconds(policy.verifyFailFastMs)) {
    return WindowVerdict::failed;
  }
  if (!over || probeRunning) return WindowVerdict::pending;
  if (!evidence.latest) {
    if (demands.tunnelProbe) return evidence.tunnelProbe == true ? WindowVerdict::passed : WindowVerdict::failed;
    return WindowVerdict::inconclusive;
  }
  return WindowVerdict::failed;
}

bool isSubscriptionExpired(const SmartStatusPolicy& policy, const MainConfig* main, Clock::TimePoint now,
                           std::int64_t serverOffsetSeconds) {
  if (!policy.subExpiryEnabled || !main) return false;
  if (main->subActive == false) return true;
  if (!main->subExpireTs) return false;
  const std::int64_t serverNow =
      std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count() + serverOffsetSeconds;
  return serverNow + policy.subExpiryBufferHours * 3600 >= *main->subExpireTs;
}

SmartStatusDiagnosis diagnose(OutsideProbeResult outside, bool subscriptionExpired) {
  if (!outside.foreignReachable) {
    return outside.ruReachable ? SmartStatusDiagnosis::whitelist : SmartStatusDiagnosis::noInternet;
  }
  return subscriptionExpired ? SmartStatusDiagnosis::subExpired : SmartStatusDiagnosis::ourSide;
}

}  // namespace norvik
