#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "backend/api_response.h"

namespace norvik {

// The three ways traffic is routed. The case order is the product's own (full, smart, services);
// the backend's codes, the stored codes and the order of the allowed list each differ from it on
// purpose, so every conversion goes through the functions below and nothing else.
enum class VPNRoutingMode { full, smart, services };

// Backend codes ("allowed_modes", "forced_mode", "default_mode"): smart 0, full 1, services 2.
// Any other number stands for no mode.
[[nodiscard]] std::optional<VPNRoutingMode> modeFromBackendCode(std::int64_t code);
[[nodiscard]] std::int64_t backendCode(VPNRoutingMode mode);

// Stored codes ("routing.userSelectedMode", "routing.modeServicesActive"): smart 0, services 1,
// full 2. Anything other than 1 or 2 — 0, garbage, a missing value — reads as smart.
[[nodiscard]] VPNRoutingMode modeFromStoredCode(std::int64_t code);
[[nodiscard]] std::int64_t storedCode(VPNRoutingMode mode);

// "full", "smart", "services".
[[nodiscard]] std::string_view rawText(VPNRoutingMode mode);
// The widget's word for the mode: "full", "smart", "sites".
[[nodiscard]] std::string_view widgetText(VPNRoutingMode mode);

// The modes the backend lets the user choose, ordered smart, full, services. Codes outside 0..2
// and repeats are dropped; without a usable list the choice is smart and full (services is
// offered only when the backend lists it).
[[nodiscard]] std::vector<VPNRoutingMode> allowedModes(const RoutingConfig& routing);

// The mode in force for a requested one: the kill switch gives smart; else a forced mode wins;
// else the request when it is allowed; else the default when it is allowed; else the first
// allowed mode.
[[nodiscard]] VPNRoutingMode effectiveMode(const RoutingConfig& routing, VPNRoutingMode requested);

}  // namespace norvik
