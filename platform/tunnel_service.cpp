#include "platform/tunnel_service.h"

namespace norvik {

std::string_view toString(TunnelStatus status) {
  switch (status) {
    case TunnelStatus::invalid:
      return "invalid";
    case TunnelStatus::disconnected:
      return "disconnected";
    case TunnelStatus::connecting:
      return "connecting";
    case TunnelStatus::connected:
      return "connected";
    case TunnelStatus::reasserting:
      return "reasserting";
    case TunnelStatus::disconnecting:
      return "disconnecting";
  }
  return "invalid";
}

Error makeNEVPNError(NEVPNErrorCode code, std::string message) {
  if (message.empty()) {
    switch (code) {
      case NEVPNErrorCode::configurationInvalid:
        message = "The VPN configuration is invalid";
        break;
      case NEVPNErrorCode::configurationDisabled:
        message = "The VPN configuration is disabled";
        break;
      case NEVPNErrorCode::connectionFailed:
        message = "The VPN connection failed";
        break;
      case NEVPNErrorCode::configurationStale:
        message = "The VPN configuration is stale";
        break;
      case NEVPNErrorCode::configurationReadWriteFailed:
        message = "The VPN configuration could not be read or written";
        break;
      case NEVPNErrorCode::configurationUnknown:
        message = "The VPN configuration is unknown";
        break;
      default:
        message = "VPN error";
        break;
    }
  }
  return Error{std::string(kNEVPNErrorDomain), static_cast<int>(code), std::move(message)};
}

}  // namespace norvik
