#pragma once

#include <string>
#include <string_view>

namespace norvik {

// The activation state of the network extension that serves the tunnel, as the home screen's
// banner shows it. The cases keep their order.
struct SystemExtensionState {
  enum class Kind { failed, unknown, activating, active, needsApproval, needsReboot };
  Kind kind = Kind::unknown;
  std::string failureText{};  // set for `failed`: the text the banner shows

  static SystemExtensionState failed(std::string text) { return {Kind::failed, std::move(text)}; }
  bool operator==(const SystemExtensionState&) const = default;
};

[[nodiscard]] std::string_view toString(SystemExtensionState::Kind kind);

}  // namespace norvik
