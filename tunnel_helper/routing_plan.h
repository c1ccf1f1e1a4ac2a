#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tunnel_helper/ip_prefix.h"
#include "tunnel_helper/system_dns.h"
#include "tunnel_helper/tunnel_settings.h"

namespace norvik::tunnel_helper {

// The tunnel's own routing table and the marks and rule priorities that steer traffic into it.
// The encrypted traffic of the tunnel itself carries the mark and skips the table, so it keeps
// leaving through the physical network whatever the table routes into the tunnel.
namespace routing_constants {
inline constexpr std::uint32_t kTable = 0x6E76;  // 28278
inline constexpr std::uint32_t kFirewallMark = 0x6E76;
// Before the main table's own rule (32766): the first lets the main table answer for everything but
// its default route, the second sends the rest of unmarked traffic to the tunnel's table.
// Before both: the tunnel's resolvers go into the tunnel even when the local network's routes
// cover their addresses; the tunnel's own marked packets are sent to the main table first, so that
// a resolver at the endpoint's address cannot pull the encrypted traffic back into the tunnel.
inline constexpr std::uint32_t kMarkedToMainPriority = 28274;
inline constexpr std::uint32_t kResolverPriority = 28275;
inline constexpr std::uint32_t kMainExceptDefaultPriority = 28276;
inline constexpr std::uint32_t kTunnelTablePriority = 28277;
inline constexpr int kDefaultMtu = 1420;
}  // namespace routing_constants

// One entry of the tunnel's table: into the tunnel, or back to the rules after it (a "throw"
// route, which the smart mode uses for its direct ranges).
struct PlannedRoute {
  IpPrefix prefix;
  bool bypass = false;
  bool operator==(const PlannedRoute&) const = default;
};

// What the tunnel changes on the system for one session, worked out before anything is changed.
struct RoutingPlan {
  std::vector<IpPrefix> addresses;  // the interface's addresses
  int mtu = routing_constants::kDefaultMtu;
  std::vector<PlannedRoute> routes;
  // Full and smart: the main table's narrower routes (the local network) win over the tunnel.
  bool mainTableKeepsNarrowerRoutes = false;
  bool ipv4 = false;  // the families that get rules
  bool ipv6 = false;
  // Full and smart with DNS servers in the key: they become the machine's resolvers, and each
  // gets a rule of its own into the tunnel's table. Only servers the tunnel carries are used.
  std::optional<DnsPlan> dns;
  // Smart mode: the GeoIP list whose ranges go direct, read and applied once the tunnel is
  // connected (bypassRoutes), until then through the tunnel.
  std::optional<std::filesystem::path> bypassList;
  std::vector<std::string> notes;  // for the log
};

// The plan for a mode:
//  - full: every peer's AllowedIPs into the tunnel; when the key carries all of IPv4 but the tunnel
//    cannot carry IPv6 (no IPv6 address, IPv6 switched off by the backend), IPv6 still goes into
//    the tunnel, where it ends — it must not leave beside a full tunnel;
//  - smart: as full, with the GeoIP ranges sent back to the main table (unless the backend forbids
//    the bypass);
//  - services: only the service CIDRs and the watch domains' addresses into the tunnel; the
//    system's resolvers stay.
// `geoip` and `watchAddresses` are read and resolved by the caller.
[[nodiscard]] RoutingPlan planRouting(const TunnelSettings& settings, const std::vector<IpPrefix>& geoip,
                                      const std::vector<IpAddress>& watchAddresses);

// The bypass routes of `geoip` next to a plan's routes into the tunnel: each range once, none that
// is already a route into the tunnel, and IPv6 ranges only where IPv6 is routed into the tunnel at
// all (elsewhere it is direct anyway).
[[nodiscard]] std::vector<PlannedRoute> bypassRoutes(const std::vector<IpPrefix>& geoip,
                                                     const std::vector<PlannedRoute>& tunnelRoutes);

}  // namespace norvik::tunnel_helper
