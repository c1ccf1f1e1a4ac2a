#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "backend/api_response.h"
#include "health/health_probes.h"
#include "health/smart_status_policy.h"
#include "health/smart_status_texts.h"
#include "platform/clock.h"
#include "platform/tunnel_service.h"

namespace norvik {

// What one verify window demands, fixed when it opens.
struct VerifyDemands {
  // After a (re)connect the tunnel must have shaken hands since it came up: the last handshake
  // must be no older than `anchor` minus the look-back. Later windows accept any handshake that
  // is not stale.
  bool freshHandshake = false;
  Clock::TimePoint anchor{};
  bool receivedBytes = false;  // the mode in force is one of requireRxModes
  bool tunnelProbe = false;    // the mode in force is one of probeTunnelModes
};

// What a window has seen so far.
struct VerifyEvidence {
  std::optional<std::uint64_t> rxAtStart;  // received bytes in the window's first sample
  std::optional<TunnelTelemetry> latest;   // the last sample
  std::optional<bool> tunnelProbe;         // none while the probe runs or was not made
};

enum class WindowVerdict { pending, passed, failed, inconclusive };

[[nodiscard]] std::string_view toString(WindowVerdict verdict);

// The verdict on a window at wall-clock `now`, `elapsed` into it (`over`: its time is up).
//
// Passed as soon as the handshake is good and every demand is met. Once `verifyFailFastMs` have
// passed, a stale or missing handshake, or a failed tunnel probe, fails the window at once. At
// its end a window that is not passed fails, except that one which got no telemetry at all and
// had no probe to tell has no verdict, and one whose probe got through without telemetry passes.
// A window whose probe still runs at its end waits for the probe.
[[nodiscard]] WindowVerdict judgeWindow(const SmartStatusPolicy& policy, const VerifyDemands& demands,
                                        const VerifyEvidence& evidence, Clock::TimePoint now,
                                        std::chrono::milliseconds elapsed, bool over);

// Whether the handshake is missing or older than `handshakeStaleMs` at `now`.
[[nodiscard]] bool isHandshakeStale(const SmartStatusPolicy& policy, const TunnelTelemetry& telemetry,
                                    Clock::TimePoint now);

// Whether the subscription looks ended, for the diagnosis: the main configuration says it is not
// active, or its end (on the backend's clock, the device clock plus `serverOffsetSeconds`) is at
// most `subExpiryBufferHours` away or passed. False without `subExpiryEnabled` or without facts.
[[nodiscard]] bool isSubscriptionExpired(const SmartStatusPolicy& policy, const MainConfig* main, Clock::TimePoint now,
                                         std::int64_t serverOffsetSeconds);

// The diagnosis of a tunnel that fails: the network under it first (foreign addresses unreachable
// while Russian ones answer is a whitelist, nothing answering is no internet), then the
// subscription, else the service's side.
[[nodiscard]] SmartStatusDiagnosis diagnose(OutsideProbeResult outside, bool subscriptionExpired);

}  // namespace norvik
