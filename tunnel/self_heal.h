#pragma once

#include <chrono>

#include "platform/weak_ptr_factory.h"
#include "tunnel/tunnel_context.h"

namespace norvik {

// Whether a tunnel that dropped while the user wants it up is brought back: at most
// "iosFixes.selfHealMaxPerDay" attempts per local calendar day, at least 60 s apart, never for a
// drop that somebody asked for (the user, the application itself, a server change, a repair). The
// decision is recorded in the standard suite ("app.selfHealLastTs", "app.selfHealCount",
// "app.selfHealDay"); the reconnect itself is carried out by the owner of the user's intent, which
// asks here on every drop.
//
// Threading: a main-loop object. Ownership: a part of VPNManager.
class SelfHeal {
 public:
  static constexpr std::string_view kUserIntentOnKey = "app.userIntentOn";
  static constexpr std::string_view kLastTsKey = "app.selfHealLastTs";
  static constexpr std::string_view kCountKey = "app.selfHealCount";
  static constexpr std::string_view kDayKey = "app.selfHealDay";
  static constexpr std::string_view kMaxPerDayFlag = "iosFixes.selfHealMaxPerDay";
  static constexpr std::string_view kHealthCheckModeFlag = "iosFixes.healthCheckMode";
  static constexpr std::string_view kReconnectWaitMsFlag = "iosFixes.reconnectWaitMs";
  static constexpr double kSpacingSeconds = 60.0;
  static constexpr std::chrono::milliseconds kReconnectCheckDefault{10000};
  static constexpr std::chrono::milliseconds kAppStopGrace{5000};

  explicit SelfHeal(TunnelContext& context);
  SelfHeal(const SelfHeal&) = delete;
  SelfHeal& operator=(const SelfHeal&) = delete;

  // Called on each drop to disconnected. True when an attempt is due now; it is then counted and
  // logged, and the caller reconnects. `restartRunning`: a silent restart owns the drop.
  [[nodiscard]] bool selfHealIfNeeded(TunnelStatus status, bool restartRunning);
  [[nodiscard]] bool enabled() const;
  // After an attempt: when the health mode asks for it, the state is looked at once the tunnel had
  // time to come up, and a tunnel still not connected is logged.
  void scheduleReconnectCheck();

 private:
  TunnelContext& context_;
  OneShotTimer reconnectCheck_;
  WeakPtrFactory<SelfHeal> weakFactory_{this};
};

}  // namespace norvik
