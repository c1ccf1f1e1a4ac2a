#include "tunnel/system_extension_state.h"

namespace norvik {

std::string_view toString(SystemExtensionState::Kind kind) {
  switch (kind) {
    case SystemExtensionState::Kind::failed:
      return "failed";
    case SystemExtensionState::Kind::unknown:
      return "unknown";
    case SystemExtensionState::Kind::activating:
      return "activating";
    case SystemExtensionState::Kind::active:
      return "active";
    case SystemExtensionState::Kind::needsApproval:
      return "needsApproval";
    case SystemExtensionState::Kind::needsReboot:
      return "needsReboot";
  }
  return "unknown";
}

}  // namespace norvik
