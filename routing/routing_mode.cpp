#include "routing/routing_mode.h"

#include <algorithm>

namespace norvik {

std::optional<VPNRoutingMode> modeFromBackendCode(std::int64_t code) {
  switch (code) {
    case 0:
      return VPNRoutingMode::smart;
    case 1:
      return VPNRoutingMode::full;
    case 2:
      return VPNRoutingMode::services;
    default:
      return std::nullopt;
  }
}

std::int64_t backendCode(VPNRoutingMode mode) {
  switch (mode) {
    case VPNRoutingMode::smart:
      return 0;
    case VPNRoutingMode::full:
      return 1;
    case VPNRoutingMode::services:
      return 2;
    default:
      return 0;
  }
}

VPNRoutingMode modeFromStoredCode(std::int64_t code) {
  switch (code) {
    case 1:
      return VPNRoutingMode::services;
    case 2:
      return VPNRoutingMode::full;
    default:
      return VPNRoutingMode::smart;
  }
}

std::int64_t storedCode(VPNRoutingMode mode) {
  switch (mode) {
    case VPNRoutingMode::smart:
      return 0;
    case VPNRoutingMode::services:
      return 1;
    case VPNRoutingMode::full:
      return 2;
    default:
      return 0;
  }
}

std::string_view rawText(VPNRoutingMode mode) {
  switch (mode) {
    case VPNRoutingMode::full:
      return "full";
    case VPNRoutingMode::smart:
      return "smart";
    case VPNRoutingMode::services:
      return "services";
    default:
      return "smart";
  }
}

std::string_view widgetText(VPNRoutingMode mode) { return mode == VPNRoutingMode::services ? "sites" : rawText(mode); }

std::vector<VPNRoutingMode> allowedModes(const RoutingConfig& routing) {
  // The list's order is fixed whatever order the backend sends.
  static constexpr VPNRoutingMode kListOrder[] = {VPNRoutingMode::smart, VPNRoutingMode::full,
                                                  VPNRoutingMode::services};
  std::vector<VPNRoutingMode> allowed;
  if (routing.allowedModes) {
    for (VPNRoutingMode mode : kListOrder) {
      const bool listed = std::ranges::any_of(*routing.allowedModes,
                                              [mode](std::int64_t code) { return modeFromBackendCode(code) == mode; });
      if (listed) allowed.push_back(mode);
    }
  }
  if (allowed.empty()) allowed = {VPNRoutingMode::smart, VPNRoutingMode::full};
  return allowed;
}

VPNRoutingMode effectiveMode(const RoutingConfig& routing, VPNRoutingMode requested) {
  if (routing.killSwitch.value_or(false)) return VPNRoutingMode::smart;
  if (routing.forcedMode) {
    if (auto forced = modeFromBackendCode(*routing.forcedMode)) return *forced;
  }
  const auto allowed = allowedModes(routing);
  auto isAllowed = [&](VPNRoutingMode mode) { return std::ranges::find(allowed, mode) != allowed.end(); };
  if (isAllowed(requested)) return requested;
  if (routing.defaultMode) {
    if (auto fallback = modeFromBackendCode(*routing.defaultMode); fallback && isAllowed(*fallback)) return *fallback;
  }
  return allowed.front();
}

}  // namespace norvik
