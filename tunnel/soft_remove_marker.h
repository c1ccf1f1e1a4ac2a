#pragma once

#include <string_view>

#include "platform/tunnel_service.h"

namespace norvik {

// A softly removed key leaves its configuration in place, emptied and disabled, so that the
// system's consent to add a VPN configuration is kept. The emptied configuration carries this
// marker in its provider configuration instead of a key text; the connect path treats it as
// missing.
inline constexpr std::string_view kSoftRemoveMarkerKey = "norvik.keySoftRemoved";

[[nodiscard]] inline bool carriesSoftRemoveMarker(const TunnelConfiguration& configuration) {
  if (!configuration.protocolConfiguration) return false;
  const auto& provider = configuration.protocolConfiguration->providerConfiguration;
  auto marker = provider.find(kSoftRemoveMarkerKey);
  const bool marked = marker != provider.end() && marker->second.boolean() && *marker->second.boolean();
  return marked && !provider.contains("wgQuickConfig");
}

}  // namespace norvik
