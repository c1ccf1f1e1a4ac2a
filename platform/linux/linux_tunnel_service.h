#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/named_notifications.h"
#include "platform/tunnel_service.h"

namespace norvik {

// Which tunnel service carries the sessions.
enum class TunnelServiceKind {
  automatic,  // the WireGuard one when this machine lets the helper create interfaces, else simulated
  simulated,  // no traffic: for tests and machines without the privilege
  wireguard,  // norvik-tunnel and userspace WireGuard; refused when the machine does not allow it
};

// "simulated", "wireguard" (and "auto"); nothing for anything else.
[[nodiscard]] std::optional<TunnelServiceKind> tunnelServiceKindNamed(std::string_view name);

struct LinuxTunnelServiceSetup {
  EventLoop& loop;
  Clock& clock;
  Log& log;
  NamedNotificationCenter* notifications;
  TunnelServiceKind kind = TunnelServiceKind::automatic;
  std::filesystem::path storeFile;  // both services keep the configurations here
  std::chrono::milliseconds simulatedConnectDelay{300};
};

struct LinuxTunnelService {
  std::unique_ptr<TunnelService> service;
  std::string name;  // "wireguard" or "simulated", as the status shows it
};

// The one place that picks the tunnel service. The WireGuard service needs norvik-tunnel (see
// findTunnelHelper) and a machine where "norvik-tunnel probe" succeeds; automatic falls back to the
// simulated one and logs why, a forced wireguard is refused with the reason.
[[nodiscard]] std::expected<LinuxTunnelService, std::string> makeLinuxTunnelService(
    const LinuxTunnelServiceSetup& setup);

}  // namespace norvik
