#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/defaults.h"
#include "platform/error.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/tunnel_service.h"

namespace norvik {

// Errors the tunnel manager makes itself carry no domain and one of these codes; callers recognise
// them by code, never by their text.
enum class TunnelManagerErrorCode : int {
  // Nothing named "Norvik" (or only a softly removed key): "Туннели не найдены".
  tunnelsNotFound = 2,
  // The configuration has no packet-tunnel protocol: "Tunnel Provider не найден".
  noProviderSession = 3,
  // The application stopped the tunnel while a start was still being prepared; it never started.
  connectCancelled = 10,
};
[[nodiscard]] Error makeTunnelManagerError(TunnelManagerErrorCode code);
[[nodiscard]] bool hasTunnelManagerCode(const Error& error, TunnelManagerErrorCode code);

// What the tunnel manager knows about the system's configuration, shared by its parts (install,
// connect, soft removal, self-heal, silent restart). Plain data; the parts keep it true.
struct TunnelRecord {
  // The application's configuration as last loaded or saved.
  std::optional<TunnelConfiguration> tunnelManager;
  // The last server address extracted from a key text.
  std::optional<std::string> lastServerIP;
  // When the application itself last stopped the tunnel: its own stop is not the user's.
  std::optional<Clock::TimePoint> lastApplicationStop;
  // Set for the whole of a server change: repairs do not bring the old configuration back.
  bool isServerChangeInProgress = false;
  // Moved on by every action that changes what the tunnel should be; a repair that captured an
  // older value stops instead of acting.
  std::uint64_t repairToken = 0;

  // When the tunnel last reached connected (`connectionStartTime`); none while it is not up.
  std::optional<Clock::TimePoint> connectionStartTime;

  Published<TunnelStatus> connectionState{TunnelStatus::invalid};
  Published<bool> isConfigured{false};
};

// The services and the record every part of the tunnel manager works with.
//
// Threading: the main loop. Ownership: everything here belongs to VPNManager or the application.
struct TunnelContext {
  EventLoop& loop;
  TunnelService& tunnels;
  Defaults& group;     // the shared group suite (tunnel program, widget)
  Defaults& standard;  // the application's own settings
  Clock& clock;
  Log& log;
  Analytics& analytics;
  TunnelRecord& record;

  void recordApplicationStop() { record.lastApplicationStop = clock.now(); }
  // The application stopped the tunnel less than `grace` ago: a stop or a drop now is its own.
  [[nodiscard]] bool stoppedByApplicationWithin(std::chrono::milliseconds grace) const {
    return record.lastApplicationStop && clock.now() - *record.lastApplicationStop < grace;
  }
  // The configuration `identifier` is gone from the system.
  void forgetConfiguration(const std::string& identifier) {
    if (record.tunnelManager && record.tunnelManager->identifier == identifier) record.tunnelManager.reset();
    record.isConfigured.set(false);
  }
  [[nodiscard]] TunnelStatus systemStatus() const {
    return record.tunnelManager ? tunnels.status(record.tunnelManager->identifier) : TunnelStatus::disconnected;
  }
};

}  // namespace norvik
