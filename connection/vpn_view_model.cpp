#include "connection/vpn_view_model.h"

#include "tunnel/key_text.h"

namespace norvik {
namespace {

namespace texts = connection_texts;

constexpr std::string_view kConnectErrorTitle = "Ошибка подключения";
constexpr std::string_view kRefreshTitle = "Обновление сервера";
constexpr std::string_view kExtensionErrorTitle = "Ошибка расширения";
constexpr std::string_view kGenericKeyError = "Не удалось получить ключ. Попробуйте позже.";
constexpr std::string_view kGenericChangeError = "Не удалось сменить сервер. Попробуйте позже.";

bool isUp(TunnelStatus s) {
  return s == TunnelStatus::connected || s == TunnelStatus::connecting || s == TunnelStatus::reasserting;
}
bool isTransitional(TunnelStatus s) {
  return s == TunnelStatus::connecting || s == TunnelStatus::disconnecting || s == TunnelStatus::reasserting;
}
std::string resultText(const OptInt& result) { return result ? std::to_string(*result) : "none"; }
std::string describe(const APIError& e) { return e.code + ": " + e.message; }

// A failure the server reports in the body of a successful answer, the current way ("error")
// or the older one (a "result" that is not a success).
std::optional<std::string> serverError(const VPNKeyResponse& r, bool& legacy) {
  legacy = false;
  if (r.error && !r.error->empty()) return r.error;
  if (r.result && *r.result <= 0 && !(r.keyData && !r.keyData->empty())) {
    legacy = true;
    return r.message.value_or("result=" + std::to_string(*r.result));
  }
  return std::nullopt;
}

}  // namespace

// Watches the tunnel until the verdict says yes or no, or a time limit passes; answers once. The
// state at the start only counts when it is already a yes: a start that was just accepted still
// shows the old state until its first change arrives.
class VPNViewModel::StateWait {
 public:
  StateWait(EventLoop& loop, Published<TunnelStatus>& state, const Verdict& verdict, EventLoop::Duration limit,
            std::move_only_function<void(bool)> then)
      : loop_(loop), then_(std::move(then)) {
    if (verdict(state.get()) == true) {
      answerLater(true);
      return;
    }
    subscription_ = state.subscribe([this, verdict](const TunnelStatus& s) {
      if (auto decided = verdict(s)) answerLater(*decided);
    });
    timer_.start(loop, limit, [this] { answer(false); });
  }

 private:
  // The answer runs on a later turn of the loop: never inside the caller, and after whatever
  // else the same status change sets off (a crash report, say) has been heard.
  void answerLater(bool ok) {
    subscription_.reset();
    timer_.start(loop_, EventLoop::Duration::zero(), [this, ok] { answer(ok); });
  }

  void answer(bool ok) {
    subscription_.reset();
    timer_.stop();
    if (then_) std::exchange(then_, nullptr)(ok);
  }

  EventLoop& loop_;
  std::move_only_function<void(bool)> then_;
  Subscription subscription_;
  OneShotTimer timer_;
};

namespace {

std::optional<bool> untilDisconnected(TunnelStatus s) {
  if (s == TunnelStatus::disconnected) return true;
  return std::nullopt;
}

std::optional<bool> untilConnected(TunnelStatus s) {
  if (s == TunnelStatus::connected) return true;
  if (s == TunnelStatus::disconnected || s == TunnelStatus::invalid) return false;
  return std::nullopt;
}

}  // namespace

VPNViewModel::VPNViewModel(Dependencies d)
    : loop_(d.loop),
      network_(d.network),
      vpn_(d.vpn),
      overlays_(d.overlays),
      log_(d.log),
      analytics_(d.analytics),
      preConnectCheck_(std::move(d.preConnectCheck)) {
  responseSubscription_ =
      network_.currentResponse().subscribe([this](const NetworkService::MainResponse& r) { onMainResponse(r); });
  loadErrorSubscription_ =
      network_.lastError().subscribe([this](const std::optional<APIError>& e) { onMainLoadError(e); });
  loadingSubscription_ = network_.isLoading().subscribe([this](const bool& loading) {
    if (loading && operation_.get() == Operation::none && !busyText_.get()) {
      loadingBusy_ = true;
      busyText_.set(busy_texts::loadingData());
    } else if (!loading && loadingBusy_) {
      loadingBusy_ = false;
      if (busyText_.get() == busy_texts::loadingData()) busyText_.set(std::nullopt);
    }
  });
  stateSubscription_ = vpn_.connectionState().subscribe([this](const TunnelStatus& status) {
    previousState_ = currentState_;
    currentState_ = status;
  });
  crashSubscription_ = vpn_.extensionCrashed().subscribe([this](const Error& error) {
    log_.format("[HomeView] VPN connection failed: {}", error.description());
    // A server change or a refresh that is running reports its own failure.
    if (operation_.get() != Operation::none) return;
    // A tunnel that was up and dropped is told apart from one that never came up.
    const bool dropped = previousState_ == TunnelStatus::connected || previousState_ == TunnelStatus::reasserting;
    showError(Action::toggle, kConnectErrorTitle,
              dropped ? std::string(texts::kConnectionDropped) : VPNManager::errorMessage(error));
  });
  failureSubscription_ = vpn_.connectionFailed().subscribe(
      [this](const std::string& message) { showError(Action::toggle, kExtensionErrorTitle, message); });
}

VPNViewModel::~VPNViewModel() = default;

// --- Shared steps ---

void VPNViewModel::setBusy(std::optional<BusyText> text) {
  loadingBusy_ = false;
  busyText_.set(std::move(text));
}

void VPNViewModel::endOperation() {
  wait_.reset();
  refreshing_ = false;
  vpn_.isServerChangeInProgress = false;
  operation_.set(Operation::none);
  setBusy(std::nullopt);
}

void VPNViewModel::showError(Action action, std::string_view title, std::string message) {
  ShownError error{std::string(title), std::move(message)};
  lastError_.set(error);
  overlays_.enqueue(OverlayItem{OverlayItem::Kind::dialog, "connection_error", error.title, error.message, {{"OK"}}});
  finished_.emit(Outcome{action, false, error});
}

void VPNViewModel::succeed(Action action) { finished_.emit(Outcome{action, true}); }

void VPNViewModel::waitForTunnel(const Verdict& verdict, EventLoop::Duration limit,
                                 std::move_only_function<void(bool)> then) {
  wait_ = std::make_unique<StateWait>(loop_, vpn_.connectionState(), verdict, limit, std::move(then));
}

std::optional<std::string> VPNViewModel::currentServerIP() {
  const auto& manager = vpn_.tunnelManager();
  std::optional<std::string> ip;
  if (manager && manager->protocolConfiguration) ip = manager->protocolConfiguration->serverAddress;
  log_.format("Current server IP: {}", ip.value_or("none"));
  return ip;
}

std::optional<std::string> VPNViewModel::installedKeyText() const {
  const auto& manager = vpn_.tunnelManager();
  if (!manager || !manager->protocolConfiguration) return std::nullopt;
  const auto& provider = manager->protocolConfiguration->providerConfiguration;
  auto it = provider.find(VPNManager::kKeyTextKey);
  if (it == provider.end() || !it->second.string()) return std::nullopt;
  return *it->second.string();
}

// --- The toggle ---

void VPNViewModel::toggleVPN() {
  if (operation_.get() != Operation::none || refreshing_) {
    log_.write("[toggleVPN] идёт смена сервера или установка ключа, игнорируем");
    finished_.emit(Outcome{Action::toggle, false});
    return;
  }
  const TunnelStatus state = vpn_.connectionState().get();
  if (isTransitional(state)) {
    log_.format("[toggleVPN] VPN занят ({}), игнорируем", toString(state));
    finished_.emit(Outcome{Action::toggle, false});
    return;
  }
  if (state == TunnelStatus::connected) {
    log_.format("Stopping tunnel (current status: {})", toString(state));
    vpn_.disconnect();
    succeed(Action::toggle);
    return;
  }
  if (switchBlock_.get().locked) {
    // Without a configuration a key would come from the backend that just failed: say why.
    const auto& cause = network_.lastError().get();
    showError(Action::toggle, texts::kKeyErrorTitle,
              cause ? keyFetchMessage(*cause) : std::string(texts::kCheckInternet));
    return;
  }
  if (!preConnectCheck_) return toggleConnect();
  if (preConnectCheckRunning_) {
    log_.write("[toggleVPN] идёт проверка сети, игнорируем");
    finished_.emit(Outcome{Action::toggle, false});
    return;
  }
  // The check may take up to the probes' time-out; a second tap meanwhile is ignored.
  preConnectCheckRunning_ = true;
  preConnectCheck_([weak = weakFactory_.weak()](std::optional<OverlayItem> dialog) {
    auto self = weak.lock();
    if (!self) return;
    self->preConnectCheckRunning_ = false;
    if (!dialog) return self->toggleConnect();
    self->analytics_.record("no_internet pre_connect");
    self->overlays_.enqueue(std::move(*dialog));
    self->finished_.emit(Outcome{Action::toggle, false});
  });
}

void VPNViewModel::toggleConnect() {
  vpn_.checkConfigurationExists([weak = weakFactory_.weak()](bool exists) {
    auto self = weak.lock();
    if (!self) return;
    if (exists) return self->connectPath(Action::toggle);
    self->connectAfterKey(Action::toggle);
  });
}

void VPNViewModel::connectAfterKey(Action action) {
  getVPNKey([weak = weakFactory_.weak(), action](bool installed) {
    auto self = weak.lock();
    if (self && installed) self->connectPath(action);
  });
}

void VPNViewModel::connectPath(Action action) {
  vpn_.connect([weak = weakFactory_.weak(), action](std::expected<void, Error> result) {
    auto self = weak.lock();
    if (!self) return;
    if (result) return self->succeed(action);
    // A configuration that has gone is replaced by a fresh key.
    if (result.error().domain.empty() && result.error().message == "Туннели не найдены") {
      return self->connectAfterKey(action);
    }
    self->log_.format("[HomeView] VPN connection failed: {}", result.error().description());
    self->showError(action, kConnectErrorTitle, std::string(texts::kConnectFailed));
  });
}

// --- Fetching a key ---

void VPNViewModel::getVPNKey(std::move_only_function<void(bool)> done) {
  if (operation_.get() == Operation::serverChange) {
    showError(Action::getKey, texts::kKeyErrorTitle, std::string(texts::kWaitForServerChange));
    if (done) done(false);
    return;
  }
  if (operation_.get() == Operation::keyInstallation || refreshing_) {
    log_.write("[getVPNKey] ключ уже устанавливается, игнорируем");
    if (done) done(false);
    return;
  }
  operation_.set(Operation::keyInstallation);
  setBusy(busy_texts::fetchingKey());
  network_.getKey([weak = weakFactory_.weak(), done = std::move(done)](auto response) mutable {
    if (auto self = weak.lock()) self->onKeyResponse(std::move(response), std::move(done));
  });
}

void VPNViewModel::onKeyResponse(std::expected<VPNKeyResponse, APIError> response,
                                 std::move_only_function<void(bool)> done) {
  auto fail = [&](std::string message) {
    endOperation();
    showError(Action::getKey, texts::kKeyErrorTitle, std::move(message));
    if (done) done(false);
  };
  if (!response) {
    log_.format("[getVPNKey] Ошибка API: {}", describe(response.error()));
    return fail(keyFetchMessage(response.error()));
  }
  const VPNKeyResponse& r = *response;
  log_.format("[getVPNKey] Получен ответ от API: result={}", resultText(r.result));
  bool legacy = false;
  if (auto error = serverError(r, legacy)) {
    log_.format("[getVPNKey] Серверная ошибка{}: {}", legacy ? " (legacy)" : "", *error);
    return fail(std::string(kGenericKeyError));
  }
  if (!r.keyData || r.keyData->empty()) return fail(std::string(texts::kNoKeyConfiguration));

  vpn_.installKey(*r.keyData,
                  [weak = weakFactory_.weak(), done = std::move(done)](std::expected<void, Error> installed) mutable {
                    auto self = weak.lock();
                    if (!self) return;
                    self->endOperation();
                    if (!installed) {
                      if (isVPNPermissionDenied(installed.error())) {
                        self->analytics_.record("permission_denied");
                        self->permissionCard_.set(true);
                        self->showError(Action::getKey, texts::kKeyErrorTitle, std::string(texts::kAllowVPN));
                      } else {
                        self->showError(Action::getKey, texts::kKeyErrorTitle, std::string(texts::kInstallFailed));
                      }
                      if (done) done(false);
                      return;
                    }
                    self->permissionCard_.set(false);
                    self->succeed(Action::getKey);
                    if (done) done(true);
                  });
}

// --- Changing server ---

void VPNViewModel::changeServerAction() {
  if (operation_.get() == Operation::serverChange) {
    return showError(Action::changeServer, texts::kServerChangeTitle, std::string(texts::kWaitForServerChange));
  }
  if (operation_.get() == Operation::keyInstallation || refreshing_) {
    return showError(Action::changeServer, texts::kServerChangeTitle, std::string(texts::kWaitForKeyInstall));
  }
  operation_.set(Operation::serverChange);
  vpn_.isServerChangeInProgress = true;
  std::optional<std::string> oldServer = currentServerIP();
  log_.format("Смена сервера: {}", oldServer.value_or("none"));

  if (!isUp(vpn_.connectionState().get())) return changeServerRequest(std::move(oldServer));
  setBusy(busy_texts::disconnectingForChange());
  vpn_.disconnect();
  waitForTunnel(&untilDisconnected, kDisconnectWait, [weak = weakFactory_.weak(), oldServer](bool stopped) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (!stopped) return self->failServerChange(texts::kServerChangeTitle, std::string(texts::kDisconnectFailed));
    self->changeServerRequest(std::move(oldServer));
  });
}

void VPNViewModel::changeServerRequest(std::optional<std::string> oldServer) {
  setBusy(busy_texts::changingServer());
  network_.changeServer([weak = weakFactory_.weak(), oldServer = std::move(oldServer)](auto response) mutable {
    if (auto self = weak.lock()) self->onChangeServerResponse(std::move(response), std::move(oldServer));
  });
}

void VPNViewModel::onChangeServerResponse(std::expected<VPNKeyResponse, APIError> response,
                                          std::optional<std::string> oldServer) {
  if (!response) {
    const APIError& e = response.error();
    if (e.code == api_error::kNetworkError && e.timedOut) {
      analytics_.record("fail api_timeout");
      return failServerChange(texts::kServerChangeRequestErrorTitle, std::string(texts::kChangeTimedOut));
    }
    log_.format("[changeServer] Ошибка API: {}", describe(e));
    return failServerChange(texts::kServerChangeRequestErrorTitle, serverChangeMessage(e));
  }
  const VPNKeyResponse& r = *response;
  log_.format("[changeServer] Получен ответ от API: result={}", resultText(r.result));
  bool legacy = false;
  if (auto error = serverError(r, legacy)) {
    log_.format("[changeServer] Серверная ошибка{}: {}", legacy ? " (legacy)" : "", *error);
    return failServerChange(texts::kServerChangeRequestErrorTitle, std::string(kGenericChangeError));
  }
  if (!r.keyData || r.keyData->empty()) {
    return failServerChange(texts::kServerChangeRequestErrorTitle, std::string(texts::kNoNewConfiguration));
  }
  vpn_.installKey(*r.keyData, [weak = weakFactory_.weak(), oldServer = std::move(oldServer)](auto installed) mutable {
    auto self = weak.lock();
    if (!self) return;
    if (!installed) {
      if (self->vpn_.systemExtensionState().get().kind == SystemExtensionState::Kind::needsApproval) {
        self->analytics_.record("fail sysext_approval");
        self->approvalCard_.set(true);
      } else if (isVPNPermissionDenied(installed.error())) {
        self->analytics_.record("fail permission_denied");
        self->permissionCard_.set(true);
      }
      return self->failServerChange(texts::kServerChangeInstallErrorTitle, std::string(texts::kNewInstallFailed));
    }
    self->changeServerConnect(std::move(oldServer));
  });
}

void VPNViewModel::changeServerConnect(std::optional<std::string> oldServer) {
  setBusy(busy_texts::reconnectingForChange());
  vpn_.connect(
      [weak = weakFactory_.weak(), oldServer = std::move(oldServer)](std::expected<void, Error> started) mutable {
        auto self = weak.lock();
        if (!self) return;
        if (!started) {
          return self->failServerChange(texts::kServerChangeTitle, std::string(texts::kChangedButNotConnected));
        }
        self->waitForTunnel(
            &untilConnected, kConnectWait,
            [weak = self->weakFactory_.weak(), oldServer = std::move(oldServer)](bool connected) {
              auto self = weak.lock();
              if (!self) return;
              if (!connected) {
                return self->failServerChange(texts::kServerChangeTitle, std::string(texts::kChangedButNotConnected));
              }
              const auto newServer = self->currentServerIP();
              self->log_.format("Сервер сменён: {} → {}", oldServer.value_or("none"), newServer.value_or("none"));
              self->endOperation();
              self->overlays_.showToast("server_changed", std::string(texts::kServerChanged));
              self->succeed(Action::changeServer);
            });
      });
}

void VPNViewModel::failServerChange(std::string_view title, std::string message) {
  endOperation();
  showError(Action::changeServer, title, std::move(message));
}

// --- Refreshing the key from the main configuration ---

void VPNViewModel::checkAndUpdateVPNKey(const APIResponse& response) {
  if (response.main.keyData && !response.main.keyData->empty()) {
    checkAndUpdateVPNKeyByFullConfig(*response.main.keyData, response);
  }
}

void VPNViewModel::checkAndUpdateVPNKeyByFullConfig(const std::string& keyData, const APIResponse& /*response*/) {
  // Nothing installed yet: the toggle fetches a key when the user asks for the tunnel.
  const auto installed = installedKeyText();
  if (!installed) return;
  const std::string offered = normalizeKeyText(keyData);
  const std::string current = normalizeKeyText(*installed);
  if (offered == current) return;
  if (operation_.get() != Operation::none || refreshing_) {
    log_.write("[keyCfg] compare: CHANGED, но идёт другая операция — обновим позже");
    return;
  }
  const auto before = extractServerAddress(current);
  const auto after = extractServerAddress(offered);
  const std::string reason = before != after ? "server " + before.value_or("none") + " → " + after.value_or("none")
                                             : std::string("config text");
  log_.format("[keyCfg] compare: CHANGED ({})", reason);
  installKeyIpConfig(keyData);
}

void VPNViewModel::installKeyIpConfig(const std::string& keyText) {
  const bool wasUp = isUp(vpn_.connectionState().get());
  refreshing_ = true;
  operation_.set(Operation::keyInstallation);
  setBusy(busy_texts::refreshingKey());
  vpn_.installKey(keyText, [weak = weakFactory_.weak(), wasUp](std::expected<void, Error> installed) {
    auto* self = weak.lock();
    if (!self) return;
    if (!installed) {
      self->analytics_.record("key_ip fail install");
      self->endOperation();
      return self->showError(Action::refreshKey, kRefreshTitle, std::string(texts::kRefreshInstallFailed));
    }
    if (!wasUp) return self->finishRefresh(true);
    self->vpn_.connect([weak](std::expected<void, Error> started) {
      auto* self = weak.lock();
      if (!self) return;
      if (!started) return self->finishRefresh(false);
      self->waitForTunnel(&untilConnected, kConnectWait, [weak](bool connected) {
        if (auto* self = weak.lock()) self->finishRefresh(connected);
      });
    });
  });
}

void VPNViewModel::finishRefresh(bool connected) {
  endOperation();
  if (!connected) {
    analytics_.record("key_ip fail reconnect");
    return showError(Action::refreshKey, kRefreshTitle, std::string(texts::kRefreshedButNotConnected));
  }
  overlays_.showToast("server_refreshed", std::string(texts::kServerRefreshed));
  succeed(Action::refreshKey);
}

// --- The main configuration and payments ---

void VPNViewModel::onMainResponse(const NetworkService::MainResponse& response) {
  if (!response) return;
  if (switchBlock_.get().locked) switchBlock_.set(SwitchBlock{});
  checkAndUpdateVPNKey(*response);

  if (!awaitingPaymentSince_) return;
  if (loop_.now() - *awaitingPaymentSince_ > kPaymentWait) {
    awaitingPaymentSince_.reset();
    return;
  }
  const bool active = response->main.subActive.value_or(false) || response->main.isActive.value_or(false);
  if (!active) return;
  awaitingPaymentSince_.reset();
  if (busyText_.get() == busy_texts::checkingPayment()) setBusy(std::nullopt);
  overlays_.showToast("payment_activated", std::string(texts::kSubscriptionActivated));
  if (!isUp(vpn_.connectionState().get()) && operation_.get() == Operation::none) {
    vpn_.checkConfigurationExists([weak = weakFactory_.weak()](bool exists) {
      auto self = weak.lock();
      if (!self) return;
      exists ? self->connectPath(Action::paymentConnect) : self->connectAfterKey(Action::paymentConnect);
    });
  }
}

void VPNViewModel::onMainLoadError(const std::optional<APIError>& error) {
  if (!error) return;
  const bool offline = error->code == api_error::kNetworkError;
  const bool configured = vpn_.isConfigured().get();
  log_.format("Свитч заблокирован: API ошибка (offline={}), VPN конфиг: {}", offline ? "true" : "false",
              configured ? "ДА (разблокирован)" : "НЕТ (заблокирован)");
  switchBlock_.set(SwitchBlock{!configured, offline});
}

void VPNViewModel::paymentConfirmed() {
  awaitingPaymentSince_ = loop_.now();
  analytics_.record("payment_checking");
  if (operation_.get() == Operation::none) setBusy(busy_texts::checkingPayment());
  network_.loadMainConfiguration([weak = weakFactory_.weak()](auto) {
    auto self = weak.lock();
    if (self && self->busyText_.get() == busy_texts::checkingPayment()) self->setBusy(std::nullopt);
  });
}

// --- The sample key ---

std::string VPNViewModel::sampleKeyText() {
  // Made-up keys of the real form (44-character Base64) and documentation addresses: this
  // configuration connects nowhere.
  return "[Interface]\n"
         "PrivateKey = bm9ydmlrLXNhbXBsZS1wcml2YXRlLWtleS0wMDAwMDE=\n"
         "Address = 10.66.0.2/32\n"
         "DNS = 10.66.0.1\n"
         "\n"
         "[Peer]\n"
         "PublicKey = bm9ydmlrLXNhbXBsZS1wdWJsaWMta2V5LTAwMDAwMDE=\n"
         "PresharedKey = bm9ydmlrLXNhbXBsZS1wcmVzaGFyZWQta2V5LTAwMDE=\n"
         "AllowedIPs = 0.0.0.0/0, ::/0\n"
         "Endpoint = 203.0.113.1:51820\n"
         "PersistentKeepalive = 25";
}

void VPNViewModel::installFakeVPNKey(std::move_only_function<void(bool)> done) {
  vpn_.installKey(sampleKeyText(), [done = std::move(done)](std::expected<void, Error> installed) mutable {
    if (done) done(installed.has_value());
  });
}

}  // namespace norvik
