#include "health/physical_path.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace norvik {

std::string_view toString(PhysicalPathStatus status) {
  switch (status) {
    case PhysicalPathStatus::satisfied:
      return "satisfied";
    case PhysicalPathStatus::unsatisfied:
      return "unsatisfied";
    case PhysicalPathStatus::requiresConnection:
      return "requiresConnection";
    default:
      return "unknown";
  }
}

PhysicalPath toPhysicalPath(const NetworkPath& path) {
  PhysicalPath out;
  switch (path.status) {
    case NetworkPathStatus::satisfied:
      out.status = PhysicalPathStatus::satisfied;
      break;
    case NetworkPathStatus::requiresConnection:
      out.status = PhysicalPathStatus::requiresConnection;
      break;
    case NetworkPathStatus::unsatisfied:
    default:
      out.status = PhysicalPathStatus::unsatisfied;
      break;
  }
  for (const auto& interface : path.availableInterfaces) {
    switch (interface.type) {
      case NetworkInterfaceType::wifi:
      case NetworkInterfaceType::cellular:
      case NetworkInterfaceType::wiredEthernet:
        out.interfaceNames.insert(interface.name);
        break;
      case NetworkInterfaceType::loopback:
      case NetworkInterfaceType::other:
      default:
        break;
    }
  }
  out.gateways = path.gateways;
  out.isCellular = out.status == PhysicalPathStatus::satisfied && !path.availableInterfaces.empty() &&
                   path.availableInterfaces.front().type == NetworkInterfaceType::cellular;
  out.isExpensive = path.isExpensive;
  out.isConstrained = path.isConstrained;
  if (out.status != PhysicalPathStatus::satisfied) out.unsatisfiedReasonRaw = path.unsatisfiedReason;
  return out;
}

bool isRouteChange(const PhysicalPath& before, const PhysicalPath& after) {
  return before.status != after.status || before.interfaceNames != after.interfaceNames ||
         before.gateways != after.gateways;
}

std::string describe(const PhysicalPath& path) {
  std::string text = fmt::format("status={} interfaces=[{}] gateways=[{}] cellular={} expensive={} constrained={}",
                                 toString(path.status), fmt::join(path.interfaceNames, ", "),
                                 fmt::join(path.gateways, ", "), path.isCellular, path.isExpensive, path.isConstrained);
  if (path.unsatisfiedReasonRaw) text += " reason=" + *path.unsatisfiedReasonRaw;
  return text;
}

}  // namespace norvik
