// The server change as one job of the tunnel state machine: down, "change_server", install the new
// key, up again — with the step texts, the error table and the toast of the home screen.
#include "connection/tunnel_jobs.h"

namespace norvik {
namespace {
namespace texts = connection_texts;
}  // namespace

void TunnelStateMachine::ChangeServerJob::start() {
  machine_.setState(State::reconnecting);
  screen().beginOperation(HomeScreen::Operation::serverChange, std::nullopt);
  // Repairs leave the old configuration alone while the change runs.
  vpn().setServerChangeInProgress(true);
  oldServer_ = currentServerIP();
  log().format("Смена сервера: {}", oldServer_.value_or("none"));

  const TunnelStatus status = vpn().systemStatus();
  if (isDown(status)) return request();
  screen().setBusy(busy_texts::disconnectingForChange());
  if (isLive(status)) vpn().stopTunnel();
  waitUntilDown(kServerChangeDisconnectLimit, [this](bool down) {
    if (!down) return failChange(texts::kServerChangeTitle, std::string(texts::kDisconnectFailed));
    request();
  });
}

void TunnelStateMachine::ChangeServerJob::request() {
  screen().setBusy(busy_texts::changingServer());
  // Sent once, never retried; a change the user abandons meanwhile ignores its answer (the next
  // main configuration brings the key the backend settled on).
  machine_.network_.changeServer(
      whileAlive([this](std::expected<VPNKeyResponse, APIError> response) { onResponse(std::move(response)); }));
}

void TunnelStateMachine::ChangeServerJob::onResponse(std::expected<VPNKeyResponse, APIError> response) {
  if (!response) {
    const APIError& e = response.error();
    if (e.code == api_error::kNetworkError && e.timedOut) {
      machine_.analytics_.record("fail api_timeout");
      return failChange(texts::kServerChangeRequestErrorTitle, std::string(texts::kChangeTimedOut));
    }
    log().format("[changeServer] Ошибка API: {}: {}", e.code, e.message);
    // The server's own title heads the dialog when it gave one.
    return failChange(e.title && !e.title->empty() ? std::string_view(*e.title) : texts::kServerChangeRequestErrorTitle,
                      serverChangeMessage(e));
  }
  const VPNKeyResponse& r = *response;
  log().format("[changeServer] Получен ответ от API: result={}", resultText(r.result));
  // A success without the configuration is the server's omission, whatever else the body says.
  if (r.result && *r.result > 0 && !(r.keyData && !r.keyData->empty())) {
    return failChange(texts::kServerChangeRequestErrorTitle, std::string(texts::kNoNewConfiguration));
  }
  bool legacy = false;
  if (auto error = serverError(r, legacy)) {
    log().format("[changeServer] Серверная ошибка{}: {}", legacy ? " (legacy)" : "", *error);
    return failChange(texts::kServerChangeRequestErrorTitle, std::string(texts::kGenericChangeError));
  }
  if (!r.keyData || r.keyData->empty()) {
    return failChange(texts::kServerChangeRequestErrorTitle, std::string(texts::kNoNewConfiguration));
  }
  installKey(*r.keyData, /*fresh=*/true,
             [this, named = FetchedKey{*r.keyData, r.serverName.value_or(""), r.location.value_or("")}](
                 std::expected<void, Error> installed) {
               if (installed) {
                 machine_.rememberServer(named);
                 return connectToNewServer();
               }
               if (vpn().systemExtensionState().get().kind == SystemExtensionState::Kind::needsApproval) {
                 machine_.analytics_.record("fail sysext_approval");
                 screen().extensionApprovalCardShown().set(true);
               } else if (isVPNPermissionDenied(installed.error())) {
                 machine_.analytics_.record("fail permission_denied");
                 screen().permissionCardShown().set(true);
               }
               failChange(texts::kServerChangeInstallErrorTitle,
                          withWriteCause(texts::kNewInstallFailed, installed.error()));
             });
}

void TunnelStateMachine::ChangeServerJob::connectToNewServer() {
  screen().setBusy(busy_texts::reconnectingForChange());
  vpn().connect(operation<std::expected<void, Error>>([this](std::expected<void, Error> started) {
    if (!started) return failChange(texts::kServerChangeTitle, std::string(texts::kChangedButNotConnected));
    waitUntilConnected(kReconnectLimit, [this](bool connected) {
      if (!connected) {
        if (isLive(vpn().systemStatus())) vpn().stopTunnel();
        return failChange(texts::kServerChangeTitle, std::string(texts::kChangedButNotConnected));
      }
      const auto newServer = currentServerIP();
      log().format("Сервер сменён: {} → {}", oldServer_.value_or("none"), newServer.value_or("none"));
      vpn().setServerChangeInProgress(false);
      screen().endOperation();
      screen().showToast("server_changed", texts::kServerChanged);
      finish();
    });
  }));
}

void TunnelStateMachine::ChangeServerJob::failChange(std::string_view title, std::string message) {
  vpn().setServerChangeInProgress(false);
  screen().endOperation();
  fail(title, std::move(message));
}

void TunnelStateMachine::ChangeServerJob::abandon() {
  log().write("[changeServer] смена сервера отменена: пользователь выключил VPN");
  vpn().setServerChangeInProgress(false);
  screen().endOperation();
}

}  // namespace norvik
