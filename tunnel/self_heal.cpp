#include "tunnel/self_heal.h"

#include <algorithm>

#include "tunnel/soft_remove_marker.h"
#include "tunnel/tunnel_connector.h"

namespace norvik {

SelfHeal::SelfHeal(TunnelContext& context) : context_(context) {}

bool SelfHeal::enabled() const { return context_.group.integerForKey(kMaxPerDayFlag) > 0; }

bool SelfHeal::selfHealIfNeeded(TunnelStatus status, bool restartRunning) {
  NORVIK_ASSERT_ON_LOOP(context_.loop);
  if (status != TunnelStatus::disconnected) return false;
  const std::int64_t cap = context_.group.integerForKey(kMaxPerDayFlag);
  if (cap <= 0 || !context_.standard.boolForKey(kUserIntentOnKey)) return false;
  // Only a drop nobody asked for is healed: not the application's own stop (an install, a removal,
  // a restart), not the user's stop from the system's controls, not during a server change.
  const TunnelRecord& record = context_.record;
  if (restartRunning || record.isServerChangeInProgress ||
      context_.group.boolForKey(TunnelConnector::kUserInitiatedStopKey)) {
    return false;
  }
  if (context_.stoppedByApplicationWithin(kAppStopGrace)) return false;
  if (!record.tunnelManager || carriesSoftRemoveMarker(*record.tunnelManager)) return false;

  Defaults& standard = context_.standard;
  const double now = context_.clock.secondsSince1970();
  if (auto last = standard.doubleValue(kLastTsKey)) {
    // A last attempt in the future means the clock was set back; it says nothing about spacing.
    const double since = now - *last;
    if (since >= 0 && since < kSpacingSeconds) return false;
  }
  const std::string today = context_.clock.localDay(context_.clock.now());
  std::int64_t count = standard.integerForKey(kCountKey);
  if (standard.stringValue(kDayKey) != today) {
    count = 0;
    standard.setString(kDayKey, today);
    standard.setInteger(kCountKey, 0);
  }
  if (count >= cap) {
    context_.log.format("[self-heal] дневной лимит исчерпан ({}/{})", count, cap);
    return false;
  }
  standard.setDouble(kLastTsKey, now);
  standard.setInteger(kCountKey, count + 1);
  context_.log.format("[self-heal] connect (state, {})", toString(status));
  return true;
}

// "iosFixes.healthCheckMode" 0 or less: the reconnect is not followed up. 1 and above: once the
// tunnel had time to come up ("iosFixes.reconnectWaitMs", 1–60 s, 10 s when unset), a tunnel that
// is not connected is logged. Verifying that traffic flows is the health engine's business.
void SelfHeal::scheduleReconnectCheck() {
  if (context_.group.integerForKey(kHealthCheckModeFlag) <= 0) return;
  std::chrono::milliseconds wait = kReconnectCheckDefault;
  if (const std::int64_t ms = context_.group.integerForKey(kReconnectWaitMsFlag); ms > 0) {
    wait = std::chrono::milliseconds(std::clamp<std::int64_t>(ms, 1000, 60000));
  }
  reconnectCheck_.start(context_.loop, wait, [weak = weakFactory_.weak()] {
    auto* self = weak.lock();
    if (!self) return;
    const TunnelStatus status = self->context_.record.connectionState.get();
    if (status != TunnelStatus::connected)
      self->context_.log.format("[VPNManager] reconnect: still {}", toString(status));
  });
}

}  // namespace norvik
