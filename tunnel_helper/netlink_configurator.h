#pragma once

#include <atomic>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

#include "platform/log.h"
#include "tunnel_helper/rtnetlink.h"
#include "tunnel_helper/tunnel_session.h"

namespace norvik::tunnel_helper {

// The rules the tunnel adds for a plan, in the order they are added (and removed in reverse).
[[nodiscard]] std::vector<RoutingRule> rulesFor(const RoutingPlan& plan);

// The routing plan applied through rtnetlink: addresses, link, the routes into the tunnel and the
// rules at once; the smart mode's bypass routes once the tunnel is connected, on a worker thread
// (restore waits for it), so that they never slow the connect down. The tunnel's table and rule priorities are its own
// (routing_constants), so what it removes is only ever what it added — also when an earlier helper
// was killed before it could clean up.
//
// Threading: one thread (the helper's loop), plus its own worker for the bypass routes.
class NetlinkConfigurator final : public NetworkConfigurator {
 public:
  explicit NetlinkConfigurator(Log& log) : log_(log) {}
  NetlinkConfigurator(const NetlinkConfigurator&) = delete;
  NetlinkConfigurator& operator=(const NetlinkConfigurator&) = delete;
  ~NetlinkConfigurator() override;

  void removeLeftovers() override;
  [[nodiscard]] std::expected<void, Error> apply(const std::string& interfaceName, const RoutingPlan& plan) override;
  void connected() override;
  void restore() override;

 private:
  // What follows the connect: the plan's own bypass routes and those of its GeoIP list.
  struct PendingBypass {
    std::vector<PlannedRoute> routes;
    std::optional<std::filesystem::path> list;
    std::vector<PlannedRoute> tunnelRoutes;
    bool ipv6Usable = true;
  };
  // The bypass routes go in on a thread of their own, with a netlink socket of its own.
  void startBypass(PendingBypass pending);
  void stopBypass();

  Log& log_;
  std::vector<RoutingRule> added_;
  bool tableUsed_ = false;
  std::optional<PendingBypass> pending_;  // from apply until the tunnel is connected
  std::atomic<bool> stopBypass_{false};
  std::thread bypassWorker_;
};

}  // namespace norvik::tunnel_helper
