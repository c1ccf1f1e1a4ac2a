#include "connection/tunnel_state_machine.h"

#include <algorithm>

#include "connection/tunnel_jobs.h"
#include "tunnel/key_text.h"

namespace norvik {
namespace {

namespace texts = connection_texts;

}  // namespace

std::string_view toString(IntentOrigin origin) {
  switch (origin) {
    case IntentOrigin::homeScreen:
      return "главный экран";
    case IntentOrigin::commandLine:
      return "командная строка";
    case IntentOrigin::widget:
      return "виджет";
    case IntentOrigin::link:
      return "ссылка";
    case IntentOrigin::menuBar:
      return "меню";
    case IntentOrigin::healthDialog:
      return "диалог проверки";
    case IntentOrigin::systemControls:
      return "системный переключатель";
    case IntentOrigin::payment:
      return "оплата";
    default:
      return "?";
  }
}

std::string_view toString(TunnelStateMachine::State state) {
  using State = TunnelStateMachine::State;
  switch (state) {
    case State::disconnected:
      return "disconnected";
    case State::connecting:
      return "connecting";
    case State::connected:
      return "connected";
    case State::reconnecting:
      return "reconnecting";
    case State::disconnecting:
      return "disconnecting";
    case State::failed:
      return "failed";
    default:
      return "?";
  }
}

TunnelStateMachine::TunnelStateMachine(Dependencies d)
    : loop_(d.loop),
      network_(d.network),
      vpn_(d.vpn),
      screen_(d.screen),
      standard_(d.standardDefaults),
      group_(d.groupDefaults),
      log_(d.log),
      analytics_(d.analytics),
      preConnectCheck_(std::move(d.preConnectCheck)) {
  stateSubscription_ = vpn_.connectionState().subscribe([this](const TunnelStatus& s) { onTunnelState(s); });
  crashSubscription_ = vpn_.extensionCrashed().subscribe([this](const Error& error) { lastCrash_ = error; });
  widgetDisconnectSubscription_ =
      vpn_.disconnectRequested().subscribe([this] { disconnect(IntentOrigin::widget, nullptr); });
  systemStopSubscription_ =
      vpn_.stoppedFromSystemControls().subscribe([this] { disconnect(IntentOrigin::systemControls, nullptr); });
  restoreServer();
}

TunnelStateMachine::~TunnelStateMachine() = default;

// --- The user's requests ---

void TunnelStateMachine::restoreIntent() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  restored_ = true;
  if (userSpoke_) return scheduleAdvance();  // the user already said what they want
  const bool on =
      standard_.boolForKey(VPNManager::kUserIntentOnKey) && !group_.boolForKey(VPNManager::kUserInitiatedStopKey);
  log_.format("[Intent] при запуске: пользователь оставил VPN {}", on ? "включённым — поднимаем" : "выключенным");
  target_.set(on ? Target::on : Target::off);
  scheduleAdvance();
}

RequestId TunnelStateMachine::connect(IntentOrigin origin, IntentDone done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  log_.format("[Intent] подключить ({}), сейчас {}", toString(origin), stateName());
  userSpoke_ = true;
  if (settled(Target::on)) {
    if (done)
      reply(std::move(done),
            IntentOutcome{IntentOutcome::Kind::succeeded, "", std::string(texts::kAlreadyConnected), true});
    return 0;
  }
  setTarget(Target::on, origin);
  failure_.reset();
  connectOrigin_ = origin;
  const RequestId id = addRequest(RequestKind::connect, origin, std::move(done));
  scheduleAdvance();
  return id;
}

RequestId TunnelStateMachine::disconnect(IntentOrigin origin, IntentDone done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  log_.format("[Intent] отключить ({}), сейчас {}", toString(origin), stateName());
  userSpoke_ = true;
  if (settled(Target::off)) {
    if (done) {
      reply(std::move(done),
            IntentOutcome{IntentOutcome::Kind::succeeded, "", std::string(texts::kAlreadyDisconnected), true});
    }
    return 0;
  }
  setTarget(Target::off, origin);
  failure_.reset();
  const RequestId id = addRequest(RequestKind::disconnect, origin, std::move(done));
  scheduleAdvance();
  return id;
}

RequestId TunnelStateMachine::toggle(IntentOrigin origin, IntentDone done) {
  if (wantsTunnelUp()) return disconnect(origin, std::move(done));
  return connect(origin, std::move(done));
}

void TunnelStateMachine::withdraw(RequestId id) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  auto found = std::ranges::find(requests_, id, &Request::id);
  if (id == 0 || found == requests_.end()) return;  // answered already
  Request request = std::move(*found);
  requests_.erase(found);
  reply(std::move(request.done), IntentOutcome{IntentOutcome::Kind::superseded, "", std::string(texts::kSuperseded)});
  if (request.kind != RequestKind::connect || target_.get() != Target::on || state_.get() == State::connected) return;
  // Another front-end still waiting for the tunnel keeps it coming.
  const bool othersWait =
      std::ranges::any_of(requests_, [](const Request& r) { return r.kind != RequestKind::disconnect; });
  if (othersWait) return;
  log_.format("[Intent] подключение отменено: {} перестал ждать", toString(request.origin));
  disconnect(request.origin, nullptr);
}

RequestId TunnelStateMachine::changeServer(IntentOrigin origin, IntentDone done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  log_.format("[Intent] сменить сервер ({}), сейчас {}", toString(origin), stateName());
  auto refuse = [&](std::string_view message) {
    log_.format("[Intent] смена сервера отклонена: {}", message);
    const ShownError error = screen_.showError(texts::kServerChangeTitle, std::string(message));
    if (done) reply(std::move(done), IntentOutcome{IntentOutcome::Kind::refused, error.title, error.message});
    return RequestId{0};
  };
  if (isServerChangeRunning()) return refuse(texts::kWaitForServerChange);
  if (isKeyInstallationRunning()) return refuse(texts::kWaitForKeyInstall);

  userSpoke_ = true;
  setTarget(Target::on, origin);
  failure_.reset();
  serverChangeWanted_ = true;
  const RequestId id = addRequest(RequestKind::changeServer, origin, std::move(done));
  if (job_) {
    // A connect or a restart on the way is taken over by the change, which ends connected too;
    // a repair ends by itself once the token moves on.
    switch (job_->kind()) {
      case Job::Kind::connect:
      case Job::Kind::restart:
        dropJob("смена сервера");
        break;
      case Job::Kind::repair:
        vpn_.resetRepairToken();
        break;
      default:
        break;
    }
  }
  scheduleAdvance();
  return id;
}

bool TunnelStateMachine::wantsTunnelUp() const { return target_.get() == Target::on && state_.get() != State::failed; }

std::string_view TunnelStateMachine::stateName() const { return toString(state_.get()); }

bool TunnelStateMachine::isKeyInstallationRunning() const { return job_ && job_->installingKey(); }

bool TunnelStateMachine::isServerChangeRunning() const {
  return (job_ && job_->kind() == Job::Kind::changeServer) || serverChangeWanted_;
}

void TunnelStateMachine::fetchKey(std::move_only_function<void(bool)> done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (isServerChangeRunning()) {
    screen_.showError(texts::kKeyErrorTitle, std::string(texts::kWaitForServerChange));
    if (done) done(false);
    return;
  }
  if (job_ || opsInFlight_ > 0) {
    log_.write("[getVPNKey] ключ уже устанавливается, игнорируем");
    if (done) done(false);
    return;
  }
  startJob(std::make_unique<FetchKeyJob>(*this, std::nullopt, std::move(done)));
}

void TunnelStateMachine::installKey(std::string keyText, std::move_only_function<void(bool)> done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (job_ || opsInFlight_ > 0 || serverChangeWanted_) {
    log_.write("[getVPNKey] ключ уже устанавливается, игнорируем");
    if (done) done(false);
    return;
  }
  startJob(std::make_unique<FetchKeyJob>(*this, std::move(keyText), std::move(done)));
}

// --- Automatic actions ---

void TunnelStateMachine::silentTunnelRestart(std::uint64_t token, std::int64_t delayMs, std::int64_t connectTimeoutMs,
                                             SilentRestart::Done done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (target_.get() != Target::on)
    return vpn_.refuseSilentRestart(delayMs, connectTimeoutMs, "стоп инициирован пользователем", std::move(done));
  if (job_ || opsInFlight_ > 0 || !restored_) {
    return vpn_.refuseSilentRestart(delayMs, connectTimeoutMs, "идёт другая операция с туннелем", std::move(done));
  }
  if (state_.get() != State::connected || failure_) {
    return vpn_.refuseSilentRestart(delayMs, connectTimeoutMs, "туннель не подключён", std::move(done));
  }
  startJob(std::make_unique<RepairJob>(*this, token, delayMs, connectTimeoutMs, std::move(done)));
}

void TunnelStateMachine::restartTunnel(std::string reason, std::move_only_function<void(bool)> done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!wantsTunnelUp()) {
    log_.format("[Intent] перезапуск туннеля не нужен ({}): пользователь не просил VPN", reason);
    if (done) loop_.post([done = std::move(done)]() mutable { done(false); });
    return;
  }
  // Whatever runs now finishes first; the restart comes after it.
  if (pendingRestart_ && pendingRestart_->done) {
    loop_.post([done = std::move(pendingRestart_->done)]() mutable { done(false); });
  }
  pendingRestart_ = PendingRestart{std::move(reason), std::move(done)};
  scheduleAdvance();
}

void TunnelStateMachine::applyConfiguration(std::string reason) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  ++settingsVersion_;
  settingsReason_ = std::move(reason);
  scheduleAdvance();
}

void TunnelStateMachine::refreshKey(std::string keyText) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (isServerChangeRunning() || isKeyInstallationRunning()) {
    log_.write("[keyCfg] compare: CHANGED, но идёт другая операция — обновим позже");
    return;
  }
  pendingKey_ = std::move(keyText);
  scheduleAdvance();
}

void TunnelStateMachine::networkAvailable(std::string_view why) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (target_.get() != Target::on || state_.get() != State::failed) return;
  if (!group_.boolForKey(VPNManager::kOnDemandEnabledKey)) return;
  log_.format("[Intent] {}: VPN по требованию — поднимаем туннель снова", why);
  failure_.reset();
  scheduleAdvance();
}

// --- Requests ---

bool TunnelStateMachine::settled(Target target) const {
  if (target_.get() != target || job_ || opsInFlight_ > 0 || failure_ || hasPendingWork()) return false;
  const TunnelStatus status = vpn_.systemStatus();
  return target == Target::on ? state_.get() == State::connected && status == TunnelStatus::connected
                              : state_.get() == State::disconnected && isDown(status);
}

bool TunnelStateMachine::hasPendingWork() const {
  return serverChangeWanted_ || pendingKey_ || pendingRestart_ || appliedSettings_ < settingsVersion_;
}

void TunnelStateMachine::reply(IntentDone done, IntentOutcome outcome) {
  // Always on a later turn: the requester never hears back inside its own call.
  loop_.post([done = std::move(done), outcome = std::move(outcome)]() mutable { done(std::move(outcome)); });
}

RequestId TunnelStateMachine::addRequest(RequestKind kind, IntentOrigin origin, IntentDone done) {
  if (!done) return 0;
  const RequestId id = nextRequestId_++;
  requests_.push_back(Request{kind, origin, std::move(done), id});
  return id;
}

void TunnelStateMachine::answer(RequestKind kind, const IntentOutcome& outcome) {
  auto first =
      std::stable_partition(requests_.begin(), requests_.end(), [kind](const Request& r) { return r.kind != kind; });
  std::vector<Request> answered(std::make_move_iterator(first), std::make_move_iterator(requests_.end()));
  requests_.erase(first, requests_.end());
  for (auto& request : answered) reply(std::move(request.done), outcome);
}

void TunnelStateMachine::supersede(RequestKind kind) {
  answer(kind, IntentOutcome{IntentOutcome::Kind::superseded, "", std::string(texts::kSuperseded)});
}

void TunnelStateMachine::setTarget(Target target, IntentOrigin origin) {
  if (target == Target::on) {
    // Written at once, so that an agent that ends before the tunnel is up brings it back.
    standard_.setBool(VPNManager::kUserIntentOnKey, true);
    group_.setBool(VPNManager::kUserInitiatedStopKey, false);
    supersede(RequestKind::disconnect);
  } else {
    // The user's off: nothing that began before it may bring the tunnel up afterwards.
    group_.setBool(VPNManager::kUserInitiatedStopKey, true);
    vpn_.resetRepairToken();
    vpn_.cancelPendingStarts();
    supersede(RequestKind::connect);
    supersede(RequestKind::changeServer);
    serverChangeWanted_ = false;
    connectOrigin_.reset();
    if (pendingRestart_) {
      if (pendingRestart_->done) loop_.post([done = std::move(pendingRestart_->done)]() mutable { done(false); });
      pendingRestart_.reset();
    }
  }
  if (target_.get() != target)
    log_.format("[Intent] цель: {} ({})", target == Target::on ? "вкл" : "выкл", toString(origin));
  target_.set(target);
  if (job_ && !job_->serves(target))
    dropJob(target == Target::on ? "пользователь включил VPN" : "пользователь выключил VPN");
}

// --- Jobs ---

void TunnelStateMachine::startJob(std::unique_ptr<Job> job) {
  job_ = std::move(job);
  lastCrash_.reset();
  job_->start();
}

void TunnelStateMachine::dropJob(std::string_view why) {
  std::unique_ptr<Job> dropped = std::move(job_);
  log_.format("[Intent] операция прервана: {}", why);
  dropped->abandon();
  scheduleAdvance();
}

void TunnelStateMachine::jobFinished(const Job& job, std::optional<ShownError> failure) {
  if (job_.get() != &job) return;
  const Job::Kind kind = job.kind();
  // Destroyed when this returns, which is the last thing the job does.
  std::unique_ptr<Job> finished = std::move(job_);
  if (kind == Job::Kind::changeServer) {
    answer(RequestKind::changeServer,
           failure ? IntentOutcome{IntentOutcome::Kind::failed, failure->title, failure->message}
                   : IntentOutcome{IntentOutcome::Kind::succeeded, "", std::string(texts::kServerChanged)});
  }
  if (failure) failure_ = std::move(failure);
  scheduleAdvance();
}

// --- Deciding what comes next ---

void TunnelStateMachine::scheduleAdvance() {
  if (advanceScheduled_) return;
  advanceScheduled_ = true;
  loop_.post([weak = weakFactory_.weak()] {
    if (auto* self = weak.lock()) self->advance();
  });
}

void TunnelStateMachine::advance() {
  advanceScheduled_ = false;
  if (!restored_ || job_ || opsInFlight_ > 0) return;
  const TunnelStatus status = vpn_.systemStatus();
  const Target target = target_.get();

  // Pending work first: each is one install at most, and a tunnel the user wants up follows it.
  if (target == Target::on && serverChangeWanted_) {
    serverChangeWanted_ = false;
    return startJob(std::make_unique<ChangeServerJob>(*this));
  }
  if (pendingKey_) {
    std::string key = *std::exchange(pendingKey_, std::nullopt);
    const auto installed = vpn_.installedKeyText();
    if (installed && normalizeKeyText(*installed) != normalizeKeyText(key)) {
      return startJob(std::make_unique<ApplyKeyJob>(*this, std::move(key), "новый ключ"));
    }
  }
  if (appliedSettings_ < settingsVersion_) {
    if (!vpn_.installedKeyText()) {
      appliedSettings_ = settingsVersion_;  // nothing installed: the next install takes the settings
    } else {
      return startJob(std::make_unique<ApplyKeyJob>(*this, std::nullopt, settingsReason_));
    }
  }

  if (target == Target::off) {
    if (failure_) return setState(State::failed);
    if (isLive(status)) return startJob(std::make_unique<DisconnectJob>(*this));
    if (status == TunnelStatus::disconnecting) return setState(State::disconnecting);  // its end advances again
    setState(State::disconnected);
    return answer(RequestKind::disconnect, IntentOutcome{IntentOutcome::Kind::succeeded});
  }

  if (pendingRestart_) {
    PendingRestart restart = std::move(*pendingRestart_);
    pendingRestart_.reset();
    return startJob(std::make_unique<RestartJob>(*this, std::move(restart.reason), std::move(restart.done)));
  }
  if (status == TunnelStatus::connected || status == TunnelStatus::reasserting) {
    failure_.reset();
    setState(State::connected);
    return answer(RequestKind::connect, IntentOutcome{IntentOutcome::Kind::succeeded});
  }
  if (failure_) {
    setState(State::failed);
    return answer(RequestKind::connect, IntentOutcome{IntentOutcome::Kind::failed, failure_->title, failure_->message});
  }
  if (status == TunnelStatus::disconnecting) return;  // its end advances again
  // Down without being asked: a drop — unless the user has just asked for the tunnel again.
  const State state = state_.get();
  const bool wasUp = state == State::connected || state == State::reconnecting;
  if (isDown(status) && wasUp && !connectOrigin_) return handleDrop();
  const bool byUser = connectOrigin_.has_value();
  connectOrigin_.reset();
  startJob(std::make_unique<ConnectJob>(*this, byUser));
}

void TunnelStateMachine::onTunnelState(TunnelStatus /*status*/) {
  // A running job watches the tunnel itself; otherwise the change may be a drop, the system
  // bringing the tunnel back on demand, or the end of a stop.
  if (!job_) scheduleAdvance();
}

void TunnelStateMachine::handleDrop() {
  if (vpn_.selfHealIfNeeded(TunnelStatus::disconnected)) {
    startJob(std::make_unique<ConnectJob>(*this, /*byUser=*/false));
    vpn_.followUpSelfHeal();
    return;
  }
  if (lastCrash_) log_.format("[HomeView] VPN connection failed: {}", lastCrash_->description());
  log_.write("[Intent] туннель упал, а пользователь хочет VPN — сам не поднимается, ждём пользователя");
  failure_ = screen_.showError(texts::kConnectErrorTitle, std::string(texts::kConnectionDropped));
  setState(State::failed);
  answer(RequestKind::connect, IntentOutcome{IntentOutcome::Kind::failed, failure_->title, failure_->message});
}

void TunnelStateMachine::setState(State state) {
  if (state_.get() != state) log_.format("[Intent] состояние: {} → {}", toString(state_.get()), toString(state));
  state_.set(state);
}

}  // namespace norvik
