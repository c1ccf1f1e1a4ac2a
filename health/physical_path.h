#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/physical_path_source.h"

namespace norvik {

enum class PhysicalPathStatus {
  satisfied,
  unsatisfied,
  requiresConnection,
};

[[nodiscard]] std::string_view toString(PhysicalPathStatus status);

// The network path under the tunnel, seen without the tunnel's own virtual interfaces.
struct PhysicalPath {
  PhysicalPathStatus status = PhysicalPathStatus::unsatisfied;
  std::set<std::string> interfaceNames;  // Wi-Fi, cellular and wired interfaces only
  std::vector<std::string> gateways;     // in the system's order
  bool isCellular = false;
  bool isExpensive = false;
  bool isConstrained = false;
  std::optional<std::string> unsatisfiedReasonRaw;  // only for a path that is not satisfied

  bool operator==(const PhysicalPath&) const = default;
};

// Converts the system's path: status one to one; the names of the Wi-Fi, cellular and wired
// interfaces; the gateways in order; cellular when the preferred interface of a satisfied path is.
[[nodiscard]] PhysicalPath toPhysicalPath(const NetworkPath& path);

// Whether two paths differ in a way the health check reacts to: status, the set of interface
// names, or the ordered gateways. Cellular, expensive, constrained and the reason alone do not count
// (a switch to a personal hotspot on the same Wi-Fi is not a new network).
[[nodiscard]] bool isRouteChange(const PhysicalPath& before, const PhysicalPath& after);

// "status=satisfied interfaces=[en0, wwan0] gateways=[192.168.1.1] cellular=false expensive=false
// constrained=false", with " reason=…" for a path that has one.
[[nodiscard]] std::string describe(const PhysicalPath& path);

}  // namespace norvik
