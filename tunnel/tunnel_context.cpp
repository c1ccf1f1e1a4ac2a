#include "tunnel/tunnel_context.h"

namespace norvik {

Error makeTunnelManagerError(TunnelManagerErrorCode code) {
  switch (code) {
    case TunnelManagerErrorCode::tunnelsNotFound:
      return Error{"", static_cast<int>(code), "Туннели не найдены"};
    case TunnelManagerErrorCode::noProviderSession:
      return Error{"", static_cast<int>(code), "Tunnel Provider не найден"};
    case TunnelManagerErrorCode::connectCancelled:
    default:
      return Error{"", static_cast<int>(code), "подключение отменено: туннель остановлен"};
  }
}

bool hasTunnelManagerCode(const Error& error, TunnelManagerErrorCode code) {
  return error.domain.empty() && error.code == static_cast<int>(code);
}

}  // namespace norvik
