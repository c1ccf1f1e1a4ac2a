#include "tunnel_helper/netlink_configurator.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <ranges>
#include <span>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace norvik::tunnel_helper {
namespace {

using namespace routing_constants;

constexpr int kBypassNice = 10;

bool ours(const RoutingRule& rule) {
  return rule.table == kTable || rule.priority == kMarkedToMainPriority || rule.priority == kResolverPriority ||
         rule.priority == kMainExceptDefaultPriority || rule.priority == kTunnelTablePriority;
}

}  // namespace

std::vector<RoutingRule> rulesFor(const RoutingPlan& plan) {
  std::vector<RoutingRule> rules;
  for (const int family : {AF_INET, AF_INET6}) {
    if ((family == AF_INET && !plan.ipv4) || (family == AF_INET6 && !plan.ipv6)) continue;
    if (plan.dns && std::ranges::any_of(plan.dns->servers, [&](const IpAddress& s) { return s.family == family; })) {
      // "fwmark M lookup main", then "to S lookup T": the resolvers go into the tunnel even from
      // inside a local network's range, where the main table's rule below would otherwise send
      // them, and the tunnel's own packets never do (one "not" over both selectors would invert
      // them together and send every encrypted packet back into the tunnel).
      rules.push_back(
          RoutingRule{family, kMarkedToMainPriority, RT_TABLE_MAIN, kFirewallMark, false, std::nullopt, std::nullopt});
      for (const IpAddress& server : plan.dns->servers) {
        if (server.family != family) continue;
        rules.push_back(
            RoutingRule{family, kResolverPriority, kTable, std::nullopt, false, std::nullopt, IpPrefix::host(server)});
      }
    }
    if (plan.mainTableKeepsNarrowerRoutes) {
      // "lookup main suppress_prefixlength 0": every main-table route but the default one.
      rules.push_back(
          RoutingRule{family, kMainExceptDefaultPriority, RT_TABLE_MAIN, std::nullopt, false, 0, std::nullopt});
    }
    // "not fwmark M lookup T": everything but the tunnel's own encrypted packets.
    rules.push_back(RoutingRule{family, kTunnelTablePriority, kTable, kFirewallMark, true, std::nullopt, std::nullopt});
  }
  return rules;
}

void NetlinkConfigurator::removeLeftovers() {
  auto netlink = RouteNetlink::open();
  if (!netlink) {
    log_.format("[Tunnel] rtnetlink недоступен: {}", netlink.error().message);
    return;
  }
  std::size_t removed = 0;
  for (const int family : {AF_INET, AF_INET6}) {
    auto rules = netlink->listRules(family);
    if (!rules) continue;
    for (const RoutingRule& rule : *rules) {
      if (!ours(rule)) continue;
      if (netlink->deleteRule(rule)) ++removed;
    }
    if (auto flushed = netlink->flushTable(family, kTable)) removed += *flushed;
  }
  if (removed > 0) log_.format("[Tunnel] убраны остатки прошлой сессии: {} правил и маршрутов", removed);
}

std::expected<void, Error> NetlinkConfigurator::apply(const std::string& interfaceName, const RoutingPlan& plan) {
  const auto started = std::chrono::steady_clock::now();
  auto netlink = RouteNetlink::open();
  if (!netlink) return std::unexpected(netlink.error());
  const int index = static_cast<int>(::if_nametoindex(interfaceName.c_str()));
  if (index == 0) return std::unexpected(Error{"POSIX", ENODEV, "нет интерфейса " + interfaceName});

  for (const IpPrefix& address : plan.addresses) {
    if (auto added = netlink->addAddress(index, address); !added) return std::unexpected(added.error());
  }
  if (auto up = netlink->setLinkUp(index, plan.mtu); !up) return std::unexpected(up.error());

  // The routes into the tunnel's table first; nothing reaches them before the rules exist. The
  // smart mode's bypass ranges (tens of thousands) follow in the background once the tunnel is
  // connected: until each is there its range goes through the tunnel, which protects more, never
  // less.
  tableUsed_ = true;
  const auto routesStarted = std::chrono::steady_clock::now();
  std::vector<PlannedRoute> v4;
  std::vector<PlannedRoute> v6;
  std::vector<PlannedRoute> bypass;
  for (const PlannedRoute& route : plan.routes) {
    if (route.bypass) {
      bypass.push_back(route);
    } else {
      (route.prefix.address.isV4() ? v4 : v6).push_back(route);
    }
  }
  if (auto added = netlink->addRoutes(kTable, index, v4); !added) return std::unexpected(added.error());
  const bool interfaceHasIPv6 =
      std::ranges::any_of(plan.addresses, [](const IpPrefix& a) { return !a.address.isV4(); });
  bool ipv6Usable = true;
  if (auto added = netlink->addRoutes(kTable, index, v6); !added) {
    // Without IPv6 on this machine there is nothing to carry or to keep from leaking.
    if (interfaceHasIPv6) return std::unexpected(added.error());
    log_.format("[Tunnel] IPv6 на этой машине недоступен ({}), правила IPv6 не ставятся", added.error().message);
    ipv6Usable = false;
  }
  if (!ipv6Usable) std::erase_if(bypass, [](const PlannedRoute& r) { return !r.prefix.address.isV4(); });
  const auto routesTook =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - routesStarted);
  log_.format("[Tunnel] {} маршрутов в туннель в таблицу {} за {} мкс", v4.size() + v6.size(), kTable,
              routesTook.count());

  if (plan.ipv4 && plan.mainTableKeepsNarrowerRoutes) {
    // The answers of the server come in on the physical interface while unmarked traffic is routed
    // into the tunnel; a strict reverse-path filter would drop them unless it honours the mark.
    std::ofstream sysctl("/proc/sys/net/ipv4/conf/all/src_valid_mark");
    if (!(sysctl << "1" << std::flush)) {
      log_.write(
          "[Tunnel] src_valid_mark не включён: при строгой проверке обратного пути ответы сервера могут теряться");
    }
  }
  for (const RoutingRule& rule : rulesFor(plan)) {
    if (rule.family == AF_INET6 && !ipv6Usable) continue;
    if (auto added = netlink->addRule(rule); !added) return std::unexpected(added.error());
    added_.push_back(rule);
  }
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
  log_.format("[Tunnel] маршруты: {} в таблице {}, правил {}, MTU {}, за {} мс{}", v4.size() + v6.size(), kTable,
              added_.size(), plan.mtu, took.count(),
              bypass.empty() && !plan.bypassList ? "" : "; обход — после подключения");
  pending_ = PendingBypass{std::move(bypass), plan.bypassList, {}, ipv6Usable};
  for (const PlannedRoute& route : plan.routes) {
    if (!route.bypass) pending_->tunnelRoutes.push_back(route);
  }
  return {};
}

void NetlinkConfigurator::connected() {
  if (pending_) startBypass(*std::exchange(pending_, std::nullopt));
}

void NetlinkConfigurator::startBypass(PendingBypass pending) {
  stopBypass_ = false;
  bypassWorker_ = std::thread([this, pending = std::move(pending)] {
    // Background work: it yields to the connect's own last steps and to the user's programs.
    (void)::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), kBypassNice);
    const auto started = std::chrono::steady_clock::now();
    std::vector<PlannedRoute> routes = pending.routes;
    if (pending.list) {
      auto ranges = readGeoIPRanges(*pending.list);
      if (!ranges) {
        log_.format("[Tunnel] список GeoIP не прочитан ({}) — умный режим ведёт всё через туннель", ranges.error());
        return;
      }
      if (ranges->skippedLines > 0) {
        log_.format("[Tunnel] GeoIP: пропущено строк {}, первая «{}»", ranges->skippedLines,
                    ranges->firstSkipped.value_or(""));
      }
      auto listed = bypassRoutes(ranges->ranges, pending.tunnelRoutes);
      routes.insert(routes.end(), listed.begin(), listed.end());
      if (!pending.ipv6Usable) std::erase_if(routes, [](const PlannedRoute& r) { return !r.prefix.address.isV4(); });
    }
    if (routes.empty()) return;
    const auto read = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
    const auto installing = std::chrono::steady_clock::now();
    auto netlink = RouteNetlink::open();
    if (!netlink) {
      log_.format("[Tunnel] маршруты в обход не добавлены: {}", netlink.error().message);
      return;
    }
    // In slices, so that a stop does not wait for all of them.
    constexpr std::size_t kSlice = 2048;
    for (std::size_t at = 0; at < routes.size(); at += kSlice) {
      if (stopBypass_) return;
      const auto slice = std::span(routes).subspan(at, std::min(kSlice, routes.size() - at));
      if (auto added = netlink->addRoutes(kTable, 0, slice); !added) {
        // Ranges without their bypass route go through the tunnel: slower for them, never a leak.
        log_.format("[Tunnel] маршруты в обход добавлены не все: {}", added.error().message);
        return;
      }
    }
    const auto took =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - installing);
    log_.format("[Tunnel] {} маршрутов в обход в таблицу {} за {} мкс (список прочитан за {} мс)", routes.size(),
                kTable, took.count(), read.count());
  });
}

void NetlinkConfigurator::stopBypass() {
  stopBypass_ = true;
  if (bypassWorker_.joinable()) bypassWorker_.join();
}

NetlinkConfigurator::~NetlinkConfigurator() { stopBypass(); }

void NetlinkConfigurator::restore() {
  stopBypass();
  pending_.reset();
  if (added_.empty() && !tableUsed_) return;
  auto netlink = RouteNetlink::open();
  if (!netlink) {
    log_.format("[Tunnel] rtnetlink недоступен при восстановлении: {}", netlink.error().message);
    return;
  }
  for (auto& rule : std::ranges::reverse_view(added_)) {
    if (auto removed = netlink->deleteRule(rule); !removed) {
      log_.format("[Tunnel] правило не убрано: {}", removed.error().message);
    }
  }
  added_.clear();
  if (tableUsed_) {
    for (const int family : {AF_INET, AF_INET6}) {
      if (auto flushed = netlink->flushTable(family, kTable); !flushed) {
        log_.format("[Tunnel] таблица {} не очищена: {}", kTable, flushed.error().message);
      }
    }
    tableUsed_ = false;
  }
  log_.write("[Tunnel] правила и маршруты туннеля убраны");
}

}  // namespace norvik::tunnel_helper
