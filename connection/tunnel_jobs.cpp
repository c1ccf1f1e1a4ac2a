#include "connection/tunnel_jobs.h"

namespace norvik {
namespace {

namespace texts = connection_texts;
using Status = TunnelStatus;

std::optional<bool> untilConnected(Status s) {
  if (s == Status::connected) return true;
  if (isDown(s)) return false;
  return std::nullopt;
}

std::optional<bool> untilDown(Status s) {
  if (isDown(s)) return true;
  return std::nullopt;
}

}  // namespace

std::optional<std::string> TunnelStateMachine::Job::serverError(const VPNKeyResponse& r, bool& legacy) {
  legacy = false;
  if (r.error && !r.error->empty()) return r.error;
  if (r.result && *r.result <= 0 && !(r.keyData && !r.keyData->empty())) {
    legacy = true;
    return r.message.value_or("result=" + std::to_string(*r.result));
  }
  return std::nullopt;
}

std::optional<std::string> TunnelStateMachine::Job::currentServerIP() {
  auto ip = vpn().serverAddress();
  log().format("Current server IP: {}", ip.value_or("none"));
  return ip;
}

// --- Waiting for the tunnel ---

TunnelStateMachine::TunnelWait::TunnelWait(EventLoop& loop, VPNManager& vpn, Verdict verdict, EventLoop::Duration limit,
                                           std::move_only_function<void(bool)> then)
    : loop_(loop), then_(std::move(then)) {
  if (verdict(vpn.systemStatus()) == true) {
    answerLater(true);
    return;
  }
  subscription_ = vpn.connectionState().subscribe([this, &vpn, verdict](const TunnelStatus& /*published*/) {
    if (auto decided = verdict(vpn.systemStatus())) answerLater(*decided);
  });
  timer_.start(loop, limit, [this] { answer(false); });
}

void TunnelStateMachine::TunnelWait::answerLater(bool ok) {
  subscription_.reset();
  timer_.start(loop_, EventLoop::Duration::zero(), [this, ok] { answer(ok); });
}

void TunnelStateMachine::TunnelWait::answer(bool ok) {
  subscription_.reset();
  timer_.stop();
  if (then_) std::exchange(then_, nullptr)(ok);
}

void TunnelStateMachine::Job::waitUntilConnected(EventLoop::Duration limit, std::move_only_function<void(bool)> then) {
  wait_ = std::make_unique<TunnelWait>(machine_.loop_, vpn(), &untilConnected, limit, std::move(then));
}

void TunnelStateMachine::Job::waitUntilDown(EventLoop::Duration limit, std::move_only_function<void(bool)> then) {
  wait_ = std::make_unique<TunnelWait>(machine_.loop_, vpn(), &untilDown, limit, std::move(then));
}

void TunnelStateMachine::Job::installKey(const std::string& keyText, bool fresh,
                                         std::move_only_function<void(std::expected<void, Error>)> then) {
  const std::uint64_t settings = machine_.settingsVersion_;
  auto continuation = operation<std::expected<void, Error>>(std::move(then));
  vpn().installKey(keyText, [machine = machine_.weakFactory_.weak(), settings, fresh,
                             continuation = std::move(continuation)](std::expected<void, Error> result) mutable {
    // Recorded whether or not the job is still there: the install happened.
    if (auto* owner = machine.lock(); owner && result) {
      owner->appliedSettings_ = std::max(owner->appliedSettings_, settings);
      if (fresh) owner->pendingKey_.reset();
    }
    continuation(std::move(result));
  });
}

// --- Getting a key: shared by the connect and getVPNKey ---

std::expected<TunnelStateMachine::FetchedKey, TunnelStateMachine::ShownError> TunnelStateMachine::acceptKey(
    std::expected<VPNKeyResponse, APIError> response) {
  auto failed = [](std::string message, const std::optional<std::string>& title = std::nullopt) {
    return std::unexpected(
        ShownError{title && !title->empty() ? *title : std::string(texts::kKeyErrorTitle), std::move(message)});
  };
  if (!response) {
    log_.format("[getVPNKey] Ошибка API: {}: {}", response.error().code, response.error().message);
    return failed(keyFetchMessage(response.error()), response.error().title);
  }
  const VPNKeyResponse& r = *response;
  log_.format("[getVPNKey] Получен ответ от API: result={}", Job::resultText(r.result));
  const bool hasKey = r.keyData && !r.keyData->empty();
  // A success without the key is the server's omission, whatever else the body says.
  if (r.result && *r.result > 0 && !hasKey) return failed(std::string(texts::kNoKeyConfiguration));
  bool legacy = false;
  if (auto error = Job::serverError(r, legacy)) {
    log_.format("[getVPNKey] Серверная ошибка{}: {}", legacy ? " (legacy)" : "", *error);
    return failed(std::string(texts::kGenericKeyError));
  }
  if (!hasKey) return failed(std::string(texts::kNoKeyConfiguration));
  return FetchedKey{*r.keyData, r.serverName.value_or(""), r.location.value_or("")};
}

void TunnelStateMachine::rememberServer(const FetchedKey& installed) {
  const auto& manager = vpn_.tunnelManager();
  const std::optional<std::string> address =
      manager && manager->protocolConfiguration ? manager->protocolConfiguration->serverAddress : std::nullopt;
  // A lost write only costs the name after a restart of the agent.
  if (!address || (installed.serverName.empty() && installed.location.empty())) {
    screen_.serverPlace().set(std::nullopt);
    (void)standard_.remove(kServerPlaceKey);
    return;
  }
  screen_.serverPlace().set(HomeScreen::ServerPlace{*address, installed.serverName, installed.location});
  (void)standard_.setStringArray(kServerPlaceKey, {*address, installed.serverName, installed.location});
}

void TunnelStateMachine::restoreServer() {
  const auto stored = standard_.stringArrayValue(kServerPlaceKey);
  if (!stored || stored->size() != 3 || (*stored)[0].empty()) return;
  screen_.serverPlace().set(HomeScreen::ServerPlace{(*stored)[0], (*stored)[1], (*stored)[2]});
}

std::optional<std::string> TunnelStateMachine::keyInstallFailure(const Error& error) {
  if (isVPNPermissionDenied(error)) {
    analytics_.record("permission_denied");
    screen_.permissionCardShown().set(true);
    return std::nullopt;
  }
  return withWriteCause(texts::kInstallFailed, error);
}

// --- Connect ---

void TunnelStateMachine::ConnectJob::start() {
  machine_.setState(State::connecting);
  const Status status = vpn().systemStatus();
  if (status == Status::connected) return finish();
  if (!byUser_) return checkConfiguration();

  if (screen().switchBlock().get().locked) {
    // Without a configuration a key would come from the backend that just failed: say why.
    const auto& cause = machine_.network_.lastError().get();
    return fail(texts::kKeyErrorTitle, cause ? keyFetchMessage(*cause) : std::string(texts::kCheckInternet));
  }
  if (!machine_.preConnectCheck_) return checkConfiguration();
  // The check may take up to the probes' time-out; the user's later word can drop the job meanwhile.
  machine_.preConnectCheck_(whileAlive([this](std::optional<OverlayItem> dialog) {
    if (!dialog) return checkConfiguration();
    machine_.analytics_.record("no_internet pre_connect");
    ShownError error{dialog->title, dialog->message};
    screen().overlays().enqueue(std::move(*dialog));
    finish(std::move(error));
  }));
}

void TunnelStateMachine::ConnectJob::checkConfiguration() {
  if (isLive(vpn().systemStatus())) return waitForConnected();
  vpn().checkConfigurationExists(operation<bool>([this](bool exists) {
    if (exists) return startTunnel();
    fetchKeyThenStart();
  }));
}

void TunnelStateMachine::ConnectJob::fetchKeyThenStart() {
  fetchingKey_ = true;
  keyFetched_ = true;
  screen().beginOperation(HomeScreen::Operation::keyInstallation, busy_texts::fetchingKey());
  machine_.network_.getKey(whileAlive([this](std::expected<VPNKeyResponse, APIError> response) {
    auto key = machine_.acceptKey(std::move(response));
    if (!key) {
      fetchingKey_ = false;
      screen().endOperation();
      return fail(key.error().title, std::move(key.error().message));
    }
    const std::string text = key->text;
    installKey(text, /*fresh=*/true, [this, named = std::move(*key)](std::expected<void, Error> installed) {
      fetchingKey_ = false;
      screen().endOperation();
      if (!installed) {
        if (auto message = machine_.keyInstallFailure(installed.error())) return fail(texts::kKeyErrorTitle, *message);
        // The permission card asks; the request that led here fails with its words.
        return finish(ShownError{std::string(texts::kKeyErrorTitle), std::string(texts::kAllowVPN)});
      }
      machine_.rememberServer(named);
      screen().permissionCardShown().set(false);
      startTunnel();
    });
  }));
}

void TunnelStateMachine::ConnectJob::startTunnel() {
  auto started = operation<std::expected<void, Error>>([this](std::expected<void, Error> result) {
    if (result) return waitForConnected();
    // A configuration that has gone is replaced by a fresh key, once.
    if (hasTunnelManagerCode(result.error(), TunnelManagerErrorCode::tunnelsNotFound) && !keyFetched_) {
      return fetchKeyThenStart();
    }
    log().format("[HomeView] VPN connection failed: {}", result.error().description());
    fail(texts::kConnectErrorTitle, withWriteCause(texts::kConnectFailed, result.error()));
  });
  if (byUser_) return vpn().connect(std::move(started));
  vpn().connectAutomatically(std::move(started));
}

void TunnelStateMachine::ConnectJob::waitForConnected() {
  waitUntilConnected(kConnectLimit, [this](bool connected) {
    if (connected) return finish();
    if (isLive(vpn().systemStatus())) {
      // Not up in time: it does not stay half-way.
      log().format("[HomeView] VPN connection failed: не подключились за {} с", kConnectLimit.count());
      vpn().stopTunnel();
      return fail(texts::kConnectErrorTitle, std::string(texts::kConnectFailed));
    }
    if (auto crash = std::exchange(machine_.lastCrash_, std::nullopt)) {
      log().format("[HomeView] VPN connection failed: {}", crash->description());
      return fail(texts::kConnectErrorTitle, VPNManager::errorMessage(*crash));
    }
    fail(texts::kConnectErrorTitle, std::string(texts::kConnectFailed));
  });
}

void TunnelStateMachine::ConnectJob::abandon() {
  if (fetchingKey_) screen().endOperation();
}

// --- Disconnect ---

void TunnelStateMachine::DisconnectJob::start() {
  machine_.setState(State::disconnecting);
  const Status status = vpn().systemStatus();
  if (isDown(status)) {
    log().format("Tunnel is not active or already disconnected (status: {})", toString(status));
  } else {
    log().format("Stopping tunnel (current status: {})", toString(status));
  }
  // The user's stop, with its marks; also when nothing runs, so that a start being prepared never
  // begins.
  vpn().disconnect();
  machine_.group_.setBool(VPNManager::kUserInitiatedStopKey, true);
  waitUntilDown(kDisconnectLimit, [this](bool down) {
    if (down) return finish();
    fail("", std::string(texts::kDisconnectFailed));
  });
}

// --- Installing a key again (a refresh, or new settings) ---

void TunnelStateMachine::ApplyKeyJob::start() {
  std::optional<std::string> text = newKey_;
  if (!text) text = vpn().installedKeyText();
  if (!text) {
    // Nothing installed yet: the next install takes the settings as they are then.
    return finish();
  }
  if (machine_.target_.get() == Target::on && !isDown(vpn().systemStatus())) {
    machine_.setState(State::reconnecting);
  }
  if (newKey_) {
    screen().beginOperation(HomeScreen::Operation::keyInstallation, busy_texts::refreshingKey());
  } else {
    log().format("[Routing] применяем к туннелю: {}", reason_);
  }
  installKey(*text, /*fresh=*/false, [this](std::expected<void, Error> result) { installed(std::move(result)); });
}

void TunnelStateMachine::ApplyKeyJob::installed(std::expected<void, Error> result) {
  if (!result) {
    // The previous configuration stays; a tunnel the user wants up comes back with it.
    if (machine_.target_.get() == Target::on) machine_.setState(State::connecting);
    if (!newKey_) {
      log().format("[Routing] не удалось применить к туннелю ({}): {}", reason_, result.error().description());
      return finish();
    }
    machine_.analytics_.record("key_ip fail install");
    screen().endOperation();
    screen().showError(texts::kRefreshTitle, withWriteCause(texts::kRefreshInstallFailed, result.error()));
    return finish();
  }
  if (machine_.target_.get() != Target::on) return done(true);
  reconnect();
}

void TunnelStateMachine::ApplyKeyJob::reconnect() {
  reconnecting_ = true;
  machine_.setState(State::reconnecting);
  vpn().connectAutomatically(operation<std::expected<void, Error>>([this](std::expected<void, Error> started) {
    if (!started) return done(false);
    waitUntilConnected(kReconnectLimit, [this](bool connected) { done(connected); });
  }));
}

void TunnelStateMachine::ApplyKeyJob::done(bool connected) {
  if (!newKey_) {
    if (connected) return finish();
    if (isLive(vpn().systemStatus())) vpn().stopTunnel();
    return fail(texts::kConnectErrorTitle, std::string(texts::kConnectFailed));
  }
  screen().endOperation();
  if (!connected) {
    if (isLive(vpn().systemStatus())) vpn().stopTunnel();
    machine_.analytics_.record("key_ip fail reconnect");
    return fail(texts::kRefreshTitle, std::string(texts::kRefreshedButNotConnected));
  }
  screen().showToast("server_refreshed", texts::kServerRefreshed);
  finish();
}

void TunnelStateMachine::ApplyKeyJob::abandon() {
  if (newKey_) screen().endOperation();
}

// --- Fetching a key alone ---

void TunnelStateMachine::FetchKeyJob::start() {
  screen().beginOperation(HomeScreen::Operation::keyInstallation, busy_texts::fetchingKey());
  if (key_) return install(FetchedKey{*key_, {}, {}});
  machine_.network_.getKey(whileAlive([this](std::expected<VPNKeyResponse, APIError> response) {
    auto key = machine_.acceptKey(std::move(response));
    if (!key) {
      screen().endOperation();
      screen().showError(key.error().title, std::move(key.error().message));
      return end(false);
    }
    install(std::move(*key));
  }));
}

void TunnelStateMachine::FetchKeyJob::install(FetchedKey key) {
  const std::string text = key.text;
  installKey(text, /*fresh=*/true, [this, named = std::move(key)](std::expected<void, Error> installed) {
    screen().endOperation();
    if (!installed) {
      if (auto message = machine_.keyInstallFailure(installed.error())) {
        screen().showError(texts::kKeyErrorTitle, std::move(*message));
      }
      return end(false);
    }
    machine_.rememberServer(named);
    screen().permissionCardShown().set(false);
    end(true);
  });
}

void TunnelStateMachine::FetchKeyJob::abandon() {
  screen().endOperation();
  if (done_) std::exchange(done_, nullptr)(false);
}

void TunnelStateMachine::FetchKeyJob::end(bool installed) {
  auto done = std::exchange(done_, nullptr);
  finish();
  if (done) done(installed);
}

// --- Restarting for a replaced tunnel program ---

void TunnelStateMachine::RestartJob::start() {
  machine_.setState(State::reconnecting);
  log().format("[Intent] перезапуск туннеля: {}", reason_);
  if (isLive(vpn().systemStatus())) vpn().stopTunnel();
  waitUntilDown(kServerChangeDisconnectLimit, [this](bool down) {
    if (!down) return end(false);
    vpn().connectAutomatically(operation<std::expected<void, Error>>([this](std::expected<void, Error> started) {
      if (!started) return end(false);
      waitUntilConnected(kReconnectLimit, [this](bool connected) { end(connected); });
    }));
  });
}

void TunnelStateMachine::RestartJob::end(bool connected) {
  auto done = std::exchange(done_, nullptr);
  if (!connected && isLive(vpn().systemStatus())) vpn().stopTunnel();
  // The restart's own outcome goes to whoever asked; the user's target is settled by the machine.
  finish();
  if (done) done(connected);
}

// --- The health engine's repair ---

void TunnelStateMachine::RepairJob::start() {
  machine_.setState(State::reconnecting);
  auto finished = operation<bool>([this](bool /*ok*/) { finish(); });
  // The engine hears the result whatever becomes of the job.
  vpn().silentTunnelRestart(
      token_, delayMs_, connectTimeoutMs_,
      [finished = std::move(finished), done = std::move(done_)](SilentRestartResult result) mutable {
        finished(result.ok);
        if (done) done(std::move(result));
      });
}

}  // namespace norvik
