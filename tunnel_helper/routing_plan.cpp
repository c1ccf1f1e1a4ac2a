#include "tunnel_helper/routing_plan.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

namespace norvik::tunnel_helper {
namespace {

IpPrefix defaultRoute(int family) {
  IpAddress any;
  any.family = family;
  return IpPrefix{any, 0};
}

}  // namespace

RoutingPlan planRouting(const TunnelSettings& settings, const std::vector<IpPrefix>& geoip,
                        const std::vector<IpAddress>& watchAddresses) {
  RoutingPlan plan;
  const TunnelKey& key = settings.key;
  plan.mtu = key.interface.mtu.value_or(settings.tunMTU.value_or(routing_constants::kDefaultMtu));

  bool carriesIPv6 = !settings.disableIPv6 && plan.mtu >= kMinMtuIPv6;
  for (const IpPrefix& address : key.interface.addresses) {
    if (!address.address.isV4() && !carriesIPv6) continue;
    plan.addresses.push_back(address);
  }
  carriesIPv6 = carriesIPv6 && std::ranges::any_of(plan.addresses, [](const IpPrefix& a) { return !a.address.isV4(); });
  if (!carriesIPv6 &&
      std::ranges::any_of(key.interface.addresses, [](const IpPrefix& a) { return !a.address.isV4(); })) {
    plan.notes.push_back(settings.disableIPv6
                             ? "IPv6 выключен бэкендом (iosFixes.disableIPv6)"
                             : fmt::format("IPv6 не поднимается: MTU {} меньше {}", plan.mtu, kMinMtuIPv6));
  }

  std::set<IpPrefix> added;
  auto route = [&](const IpPrefix& prefix, bool bypass) {
    if (!prefix.address.isV4() && !carriesIPv6 && !bypass) return;
    if (added.insert(prefix.masked()).second) plan.routes.push_back({prefix.masked(), bypass});
  };

  if (settings.mode == TunnelRoutingMode::services) {
    for (const IpPrefix& cidr : settings.serviceCIDRs) route(cidr, false);
    for (const IpAddress& address : watchAddresses) route(IpPrefix::host(address), false);
  } else {
    plan.mainTableKeepsNarrowerRoutes = true;
    for (const TunnelPeer& peer : key.peers) {
      for (const IpPrefix& allowed : peer.allowedIPs) route(allowed, false);
    }
    const bool fullIPv4 = added.contains(defaultRoute(AF_INET));
    if (fullIPv4 && !carriesIPv6 && !added.contains(defaultRoute(AF_INET6))) {
      // The interface has no IPv6 address, so this only takes IPv6 away from the physical network.
      added.insert(defaultRoute(AF_INET6));
      plan.routes.push_back({defaultRoute(AF_INET6), false});
      plan.notes.emplace_back("IPv6 не идёт мимо туннеля: весь IPv6 направлен в туннель, где не передаётся");
    }
    if (settings.mode == TunnelRoutingMode::smart) {
      if (!settings.geoBypassAllowed) {
        plan.notes.emplace_back("обход по GeoIP запрещён бэкендом — умный режим ведёт всё через туннель");
      } else {
        auto bypass = bypassRoutes(geoip, plan.routes);
        plan.routes.insert(plan.routes.end(), bypass.begin(), bypass.end());
      }
    }
  }
  for (const PlannedRoute& r : plan.routes) {
    (r.prefix.address.isV4() ? plan.ipv4 : plan.ipv6) = true;
  }
  if (settings.mode != TunnelRoutingMode::services && !key.interface.dns.empty()) {
    DnsPlan dns;
    for (const IpAddress& server : key.interface.dns) {
      // A resolver the tunnel cannot reach would leave the machine without names.
      const bool carried = server.isV4() || carriesIPv6;
      const bool routed = std::ranges::any_of(plan.routes, [&](const PlannedRoute& r) {
        return !r.bypass && r.prefix.address.family == server.family && r.prefix.contains(server);
      });
      if (carried && routed) {
        dns.servers.push_back(server);
      } else {
        plan.notes.push_back(fmt::format("DNS {} не идёт через туннель — не используется", server.toString()));
      }
    }
    dns.searchDomains = key.interface.dnsSearch;
    if (dns.servers.empty()) {
      plan.notes.emplace_back("ни один DNS ключа не идёт через туннель — DNS системы не меняется");
    } else {
      plan.dns = std::move(dns);
    }
  }
  return plan;
}

std::vector<PlannedRoute> bypassRoutes(const std::vector<IpPrefix>& geoip,
                                       const std::vector<PlannedRoute>& tunnelRoutes) {
  const bool anyIPv6 =
      std::ranges::any_of(tunnelRoutes, [](const PlannedRoute& r) { return !r.bypass && !r.prefix.address.isV4(); });
  // Tens of thousands of ranges: repeats among them go by one look along the list, not by a set.
  std::vector<IpPrefix> kept;
  kept.reserve(geoip.size());
  for (const IpPrefix& range : geoip) {
    if (!range.address.isV4() && !anyIPv6) continue;
    const IpPrefix masked = range.masked();
    const bool intoTunnel =
        std::ranges::any_of(tunnelRoutes, [&](const PlannedRoute& r) { return !r.bypass && r.prefix == masked; });
    if (!intoTunnel) kept.push_back(masked);
  }
  removeRepeats(kept);
  std::vector<PlannedRoute> out;
  out.reserve(kept.size());
  for (const IpPrefix& range : kept) out.push_back({range, true});
  return out;
}

}  // namespace norvik::tunnel_helper
