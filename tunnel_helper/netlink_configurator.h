#pragma once

#include <vector>

#include "platform/log.h"
#include "tunnel_helper/rtnetlink.h"
#include "tunnel_helper/tunnel_session.h"

namespace norvik::tunnel_helper {

// The rules the tunnel adds for a plan, in the order they are added (and removed in reverse).
[[nodiscard]] std::vector<RoutingRule> rulesFor(const RoutingPlan& plan);

// The routing plan applied through rtnetlink. The tunnel's table and rule priorities are its own
// (routing_constants), so what it removes is only ever what it added — also when an earlier helper
// was killed before it could clean up.
//
// Threading: one thread (the helper's loop).
class NetlinkConfigurator final : public NetworkConfigurator {
 public:
  explicit NetlinkConfigurator(Log& log) : log_(log) {}

  void removeLeftovers() override;
  [[nodiscard]] std::expected<void, Error> apply(const std::string& interfaceName, const RoutingPlan& plan) override;
  void restore() override;

 private:
  Log& log_;
  std::vector<RoutingRule> added_;
  bool tableUsed_ = false;
};

}  // namespace norvik::tunnel_helper
