#include "health/smart_status_engine.h"

#include <algorithm>

#include <fmt/format.h>

#include "health/device_clock_check.h"
#include "health/smart_status_engine_cycle.h"

namespace norvik {
namespace {

using std::chrono::milliseconds;
using Case = SmartStatusHealth::Case;

std::string_view reasonText(int reason) {
  static constexpr std::string_view kTexts[] = {"connect",         "cold_start",   "monitor",
                                                "problem_recheck", "user_recheck", "user_refresh",
                                                "path_change",     "resume",       "clock_change"};
  return reason >= 0 && reason < 9 ? kTexts[reason] : "unknown";
}

std::string_view snakeName(SmartStatusDiagnosis diagnosis) {
  switch (diagnosis) {
    case SmartStatusDiagnosis::ourSide:
      return "our_side";
    case SmartStatusDiagnosis::whitelist:
      return "whitelist";
    case SmartStatusDiagnosis::noInternet:
      return "no_internet";
    case SmartStatusDiagnosis::subExpired:
      return "sub_expired";
    default:
      return "unknown";
  }
}

std::optional<std::string> widgetWord(SmartStatusHealth health) {
  switch (health.kind()) {
    case Case::protected_:
      return "ok";
    case Case::checking:
    case Case::repairing:
    case Case::rechecking:
    case Case::refreshing:
      return "busy";
    case Case::problem:
      return "problem";
    case Case::none:
    default:
      return std::nullopt;
  }
}

bool dialogAllowed(const SmartStatusPolicy& policy, SmartStatusDiagnosis diagnosis) {
  switch (diagnosis) {
    case SmartStatusDiagnosis::ourSide:
      return policy.showDialogOurSide;
    case SmartStatusDiagnosis::whitelist:
      return policy.showDialogWhitelist;
    case SmartStatusDiagnosis::noInternet:
      return policy.showDialogNoInternet;
    case SmartStatusDiagnosis::subExpired:
      return policy.showDialogSubExpired;
    default:
      return false;
  }
}

// A scenario is played through counts and fixed probe results, once per arming.
void expandScenario(DebugOverride& debug, const SmartStatusPolicy& policy) {
  if (!debug.scenario) return;
  const std::int64_t allWindows = 1 + policy.repairAttempts;
  switch (*debug.scenario) {
    case SmartStatusDebugScenario::repair:
      debug.forceFailCount = std::max<std::int64_t>(debug.forceFailCount, 1);
      break;
    case SmartStatusDebugScenario::ourSide:
      debug.forceFailCount = std::max(debug.forceFailCount, allWindows);
      debug.probeOverride = ProbeOverride{true, true};
      break;
    case SmartStatusDebugScenario::whitelist:
      debug.forceFailCount = std::max(debug.forceFailCount, allWindows);
      debug.probeOverride = ProbeOverride{true, false};
      break;
    case SmartStatusDebugScenario::noInternet:
      debug.forceFailCount = std::max(debug.forceFailCount, allWindows);
      debug.probeOverride = ProbeOverride{false, false};
      break;
    default:
      break;
  }
  debug.scenario.reset();
}

}  // namespace

SmartStatusEngine::SmartStatusEngine(Dependencies d)
    : loop_(d.loop),
      clock_(d.clock),
      log_(d.log),
      analytics_(d.analytics),
      defaults_(d.standardDefaults),
      policyStore_(d.policyStore),
      vpn_(d.vpn),
      intents_(d.intents),
      tunnels_(d.tunnels),
      probes_(d.probes),
      pathMonitor_(d.pathMonitor),
      clockCheck_(d.clockCheck),
      routingModeCode_(std::move(d.routingModeCode)),
      mainResponses_(d.mainResponses),
      reloadMainConfiguration_(std::move(d.reloadMainConfiguration)) {
  publishTexts();
}

SmartStatusEngine::~SmartStatusEngine() {
  if (started_) policyStore_.setResetHandler(nullptr);
}

void SmartStatusEngine::start() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (started_) return;
  started_ = true;
  startedAt_ = clock_.now();
  policyStore_.setResetHandler([weak = weakFactory_.weak()](std::string_view reason) {
    if (auto* self = weak.lock()) self->reset(reason);
  });
  policySubscription_ = policyStore_.policy().subscribe([this](const SmartStatusPolicy& p) { onPolicy(p); });
  stateSubscription_ = vpn_.connectionState().subscribe([this](const TunnelStatus& s) { onTunnelState(s); });
  if (clockCheck_) {
    clockSubscription_ = clockCheck_->wrong().subscribe([this](const bool& wrong) { onClockVerdict(wrong); });
    clockChangeSubscription_ =
        clockCheck_->systemClockChanges().subscribe([this](const std::uint64_t&) { onSystemClockChanged(); });
  }
  if (enabled()) onPolicy(policy());
}

void SmartStatusEngine::stop() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!started_) return;
  reset("stop");
  policyStore_.setResetHandler(nullptr);
  policySubscription_.reset();
  stateSubscription_.reset();
  clockSubscription_.reset();
  clockChangeSubscription_.reset();
  started_ = false;
}

// --- Following the policy, the tunnel, the path and the clock ---

void SmartStatusEngine::onPolicy(const SmartStatusPolicy& policy) {
  if (!policy.enabled) return reset("policy");
  publishTexts();
  if (pathMonitor_ && !pathMonitor_->isRunning()) startPathMonitor();
  // A connection that was up before the check was switched on is one it did not see come up.
  if (tunnelConnected() && !cycle_ && !nextCheck_.isRunning() && health_.get().kind() == Case::none) {
    sawConnected_ = true;
    beginCycle(Reason::coldStart);
  }
}

void SmartStatusEngine::startPathMonitor() {
  pathMonitor_->start(PhysicalPathMonitor::postingTo(loop_, [weak = weakFactory_.weak()](const PhysicalPath& path) {
    if (auto* self = weak.lock()) self->onPathChange(path);
  }));
}

void SmartStatusEngine::reset(std::string_view reason) {
  const bool active = cycle_ || nextCheck_.isRunning() || health_.get().kind() != Case::none;
  cancelCycle();
  stopTimers();
  diagnosis_.reset();
  lastDialog_.reset();
  debug_ = {};
  pathCheckPending_ = false;
  clockBlamed_.set(false);
  setHealth(SmartStatusHealth());
  if (pathMonitor_ && pathMonitor_->isRunning()) pathMonitor_->stop();
  if (active) log_.format("[SmartStatus] сброс ({})", reason);
}

void SmartStatusEngine::cancelCycle() { cycle_.reset(); }

void SmartStatusEngine::stopTimers() {
  nextCheck_.stop();
  scheduledReason_.reset();
}

void SmartStatusEngine::onTunnelState(TunnelStatus status) {
  if (!enabled()) return;
  cancelCycle();
  stopTimers();
  diagnosis_.reset();
  lastDialog_.reset();
  pathCheckPending_ = false;
  clockBlamed_.set(false);
  if (status != TunnelStatus::connected) return setHealth(SmartStatusHealth());

  std::optional<Clock::TimePoint> connectedAt;
  if (const auto& manager = vpn_.tunnelManager()) connectedAt = tunnels_.connectedDate(manager->identifier);
  const bool coldStart = !sawConnected_ && connectedAt && *connectedAt < startedAt_;
  sawConnected_ = true;
  setHealth(SmartStatusHealth());
  if (coldStart) return beginCycle(Reason::coldStart);
  scheduleCycle(Reason::connect, milliseconds(policy().verifyDelayMs));
}

void SmartStatusEngine::onPathChange(const PhysicalPath&) {
  if (!enabled() || !tunnelConnected()) return;
  const auto grace = milliseconds(policy().netChangeGraceMs);
  if (cycle_ && cycle_->repairing) {
    // The restart brings up a new session anyway; its own window checks the new network.
    log_.write("[SmartStatus] сеть изменилась во время починки — проверим после неё");
    pathCheckPending_ = true;
    return;
  }
  log_.format("[SmartStatus] сеть изменилась — перепроверка через {}ms", grace.count());
  cancelCycle();
  scheduleCycle(Reason::pathChange, grace);
}

void SmartStatusEngine::onClockVerdict(bool wrong) {
  if (health_.get().kind() != Case::problem) return;
  clockBlamed_.set(wrong);
  publishTexts();
}

void SmartStatusEngine::onSystemClockChanged() {
  if (!enabled() || !tunnelConnected()) return;
  if (cycle_ && cycle_->repairing) {
    // The restart's own window measures again on the new time.
    pathCheckPending_ = true;
    return;
  }
  log_.write("[SmartStatus] время изменено в системе — перепроверка");
  beginCycle(Reason::clockChange);
}

// --- What the user does ---

void SmartStatusEngine::recheck() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!enabled() || !tunnelConnected()) return;
  if (cycle_) return log_.write("[SmartStatus] перепроверка уже идёт");
  beginCycle(Reason::userRecheck);
}

void SmartStatusEngine::refresh() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!enabled() || !tunnelConnected() || cycle_) return;
  beginCycle(Reason::userRefresh);
}

void SmartStatusEngine::perform(SmartStatusDialogAction action) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  switch (action) {
    case SmartStatusDialogAction::recheck:
      return recheck();
    case SmartStatusDialogAction::changeServer:
      log_.format("[SmartStatus] {}", kChangeServerNotification);
      return changeServerRequested_.emit();
    case SmartStatusDialogAction::disconnectAndCheck:
      log_.write("[SmartStatus] выключаем VPN и проверяем подписку");
      intents_.disconnect(IntentOrigin::healthDialog, nullptr);
      if (reloadMainConfiguration_) reloadMainConfiguration_();
      return;
    case SmartStatusDialogAction::close:
    default:
      return;
  }
}

void SmartStatusEngine::preConnectCheck(std::move_only_function<void(std::optional<SmartStatusDialogRequest>)> done) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!enabled()) return done(std::nullopt);
  auto answer = [weak = weakFactory_.weak(), done = std::move(done)](bool reached) mutable {
    auto* self = weak.lock();
    if (!self || reached) return done(std::nullopt);
    const bool clockWrong = self->clockCheck_ && self->clockCheck_->wrong().get();
    SmartStatusDialogRequest request = self->makeDialog(SmartStatusDiagnosis::noInternet, clockWrong);
    if (!clockWrong) {
      request.identifier = std::string(smart_status_texts::kPreConnectIdentifier);
      request.texts.message = std::string(smart_status_texts::kPreConnectMessage);
      request.texts.primary = smartStatusText(self->policy().texts, SmartStatusTextKey::dlgNoInternetSecondary);
      request.texts.secondary.clear();
      request.primary = request.secondary = SmartStatusDialogAction::close;
    }
    self->log_.format("[SmartStatus] перед подключением: интернет недоступен{}", clockWrong ? " (часы сбиты)" : "");
    done(std::move(request));
  };
  if (debug_.probeOverride) {
    const bool reached = debug_.probeOverride->ru || debug_.probeOverride->foreign;
    loop_.post([answer = std::move(answer), reached]() mutable { answer(reached); });
    return;
  }
  probes_.probeInternet(policy(), std::move(answer));
}

void SmartStatusEngine::setForeground(bool foreground) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!foreground) {
    hiddenAt_ = loop_.now();
    return;
  }
  if (!hiddenAt_) return;
  const auto away = loop_.now() - *hiddenAt_;
  hiddenAt_.reset();
  const auto limit = milliseconds(policy().resumeVisibleAfterMs);
  if (!enabled() || limit.count() == 0 || away < limit) return;
  if (!tunnelConnected() || cycle_) return;
  log_.format("[SmartStatus] возврат после {} с — проверка через {}ms",
              std::chrono::duration_cast<std::chrono::seconds>(away).count(), policy().resumeBeatMs);
  scheduleCycle(Reason::resume, milliseconds(policy().resumeBeatMs));
}

void SmartStatusEngine::systemDidWake() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!enabled() || policy().resumeVisibleAfterMs == 0 || !tunnelConnected() || cycle_) return;
  log_.format("[SmartStatus] пробуждение — проверка через {}ms", policy().resumeBeatMs);
  scheduleCycle(Reason::resume, milliseconds(policy().resumeBeatMs));
}

bool SmartStatusEngine::armDebugScenario(SmartStatusDebugScenario scenario) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  const auto& debug = policy().debug;
  if (!enabled() || !debug || debug->gesture != true) return false;
  debug_.scenario = scenario;
  log_.write("[SmartStatus] debug override armed: " + describe(debug_));
  expandScenario(debug_, policy());
  return true;
}

// --- Cycles ---

void SmartStatusEngine::scheduleCycle(Reason reason, milliseconds delay) {
  scheduledReason_ = reason;
  nextCheck_.start(loop_, delay, [weak = weakFactory_.weak(), reason] {
    if (auto* self = weak.lock()) {
      self->scheduledReason_.reset();
      self->beginCycle(reason);
    }
  });
}

void SmartStatusEngine::adoptDebugOverride() {
  if (auto& armed = policyStore_.debugOverride()) {
    debug_ = *armed;
    armed.reset();
    expandScenario(debug_, policy());
  }
}

void SmartStatusEngine::beginCycle(Reason reason) {
  if (!enabled() || !tunnelConnected()) return;
  cancelCycle();
  stopTimers();
  adoptDebugOverride();

  auto cycle = std::make_unique<Cycle>();
  cycle->id = nextCycleId_++;
  cycle->reason = reason;
  cycle->policy = policy();
  cycle->previous = health_.get();
  cycle->allowRepair = reason != Reason::problemRecheck && (reason != Reason::resume || cycle->policy.resumeRepair);
  switch (reason) {
    case Reason::connect:
    case Reason::coldStart:
      cycle->busy = SmartStatusHealth::of(Case::checking);
      break;
    case Reason::monitor:
    case Reason::userRefresh:
      cycle->busy = SmartStatusHealth::of(Case::refreshing);
      break;
    default:
      cycle->busy = SmartStatusHealth::of(Case::rechecking);
      break;
  }
  // Right after connecting, the session must show a handshake of its own.
  cycle->freshHandshake = reason == Reason::connect;
  cycle->anchor = vpn_.connectionStartTime().value_or(clock_.now());
  cycle_ = std::move(cycle);
  log_.format("[SmartStatus] проверка: {}", reasonText(static_cast<int>(reason)));

  if (reason == Reason::coldStart) return coldStart();
  setHealth(cycle_->busy);
  openWindow();
}

void SmartStatusEngine::coldStart() {
  if (!policyStore_.hasColdStartProof()) {
    setHealth(cycle_->busy);
    return openWindow();
  }
  // One look at the telemetry: a handshake young enough confirms the stored verification.
  const std::uint64_t id = cycle_->id;
  auto look = [weak = weakFactory_.weak(), id](const TunnelTelemetry* telemetry) {
    auto* self = weak.lock();
    if (!self || !self->cycle_ || self->cycle_->id != id || !self->cycle_->guard.isRunning()) return;
    self->cycle_->guard.stop();
    const SmartStatusPolicy& policy = self->cycle_->policy;
    const auto now = self->clock_.now();
    if (telemetry && telemetry->lastHandshake && now - *telemetry->lastHandshake <= milliseconds(policy.hsProofAgeMs)) {
      self->log_.write("[SmartStatus] холодный старт: проверка подтверждена свежим рукопожатием");
      self->cycle_.reset();
      self->diagnosis_.reset();
      self->setHealth(SmartStatusHealth::of(Case::protected_));
      return self->afterCycle();
    }
    self->setHealth(self->cycle_->busy);
    self->openWindow();
  };
  auto shared = std::make_shared<decltype(look)>(std::move(look));
  cycle_->guard.start(loop_, milliseconds(cycle_->policy.telemetryTimeoutMs), [shared] { (*shared)(nullptr); });
  const auto& manager = vpn_.tunnelManager();
  tunnels_.fetchTelemetry(
      manager ? manager->identifier : std::string(),
      [shared](std::expected<TunnelTelemetry, Error> telemetry) { (*shared)(telemetry ? &*telemetry : nullptr); });
}

void SmartStatusEngine::afterFailedWindow() {
  Cycle& cycle = *cycle_;
  bool pathUsable = true;
  if (pathMonitor_) {
    const auto path = pathMonitor_->currentPath();
    pathUsable = !path || path->status == PhysicalPathStatus::satisfied;
  }
  if (cycle.allowRepair && cycle.repairsDone < cycle.policy.repairAttempts && pathUsable) return repair();
  if (!pathUsable) log_.write("[SmartStatus] сети под туннелем нет — без починки");
  runDiagnosis();
}

void SmartStatusEngine::repair() {
  Cycle& cycle = *cycle_;
  ++cycle.repairsDone;
  if (!cycle.token) cycle.token = intents_.repairToken();
  cycle.repairing = true;
  setHealth(SmartStatusHealth::of(Case::repairing));
  log_.format("[SmartStatus] починка {}/{}", cycle.repairsDone, cycle.policy.repairAttempts);
  intents_.silentTunnelRestart(
      *cycle.token, cycle.policy.repairDelayMs, cycle.policy.repairConnectTimeoutMs,
      [weak = weakFactory_.weak(), id = cycle.id](const VPNManager::SilentRestartResult& result) {
        if (auto* self = weak.lock()) self->onRepairDone(id, result);
      });
}

void SmartStatusEngine::onRepairDone(std::uint64_t cycleId, const VPNManager::SilentRestartResult& result) {
  if (!cycle_ || cycle_->id != cycleId) {
    // The check was dropped meanwhile; a change of network seen during the restart still counts.
    if (pathCheckPending_ && !cycle_ && tunnelConnected()) {
      pathCheckPending_ = false;
      scheduleCycle(Reason::pathChange, milliseconds(policy().netChangeGraceMs));
    }
    return;
  }
  cycle_->repairing = false;
  pathCheckPending_ = false;
  analytics_.record(result.ok ? "smart_status repair ok" : "smart_status repair fail");
  if (result.ok) {
    cycle_->freshHandshake = true;
    cycle_->anchor = clock_.now();
    return openWindow();
  }
  if (result.failStep == RestartStep::precondition) {
    log_.format("[SmartStatus] починка не начата: {}", result.reason);
    return endWithoutVerdict();
  }
  if (!tunnelConnected()) return;  // the state change has ended the check already
  afterFailedWindow();
}

void SmartStatusEngine::runDiagnosis() {
  const std::uint64_t id = cycle_->id;
  if (debug_.probeOverride) {
    const OutsideProbeResult fixed{debug_.probeOverride->ru, debug_.probeOverride->foreign};
    log_.format("[SmartStatus] debug: пробы заданы: ru={} foreign={}", fixed.ruReachable, fixed.foreignReachable);
    loop_.post([weak = weakFactory_.weak(), id, fixed] {
      if (auto* self = weak.lock()) self->onDiagnosis(id, fixed);
    });
    return;
  }
  probes_.probeOutside(cycle_->policy, [weak = weakFactory_.weak(), id](OutsideProbeResult outside) {
    if (auto* self = weak.lock()) self->onDiagnosis(id, outside);
  });
}

void SmartStatusEngine::onDiagnosis(std::uint64_t cycleId, OutsideProbeResult outside) {
  if (!cycle_ || cycle_->id != cycleId) return;
  const MainConfig* main = nullptr;
  if (mainResponses_ && mainResponses_->get()) main = &mainResponses_->get()->main;
  const std::int64_t offset = defaults_.integerForKey(kSmartStatusServerTimeOffsetKey);
  const bool expired = isSubscriptionExpired(cycle_->policy, main, clock_.now(), offset);
  reportProblem(diagnose(outside, expired));
}

void SmartStatusEngine::reportProblem(SmartStatusDiagnosis diagnosis) {
  cycle_.reset();
  diagnosis_ = diagnosis;
  const bool clockWrong = clockCheck_ && clockCheck_->wrong().get();
  clockBlamed_.set(clockWrong);
  setHealth(SmartStatusHealth::problem(diagnosis));
  log_.format("[SmartStatus] проблема: {}{}", toString(diagnosis), clockWrong ? " (часы устройства сбиты)" : "");
  analytics_.record(fmt::format("smart_status problem {}", clockWrong ? "clock" : snakeName(diagnosis)));
  maybeRequestDialog(diagnosis, clockWrong);
  afterCycle();
}

void SmartStatusEngine::maybeRequestDialog(SmartStatusDiagnosis diagnosis, bool clockWrong) {
  const SmartStatusPolicy& p = policy();
  if (lastDialog_ == std::pair(diagnosis, clockWrong)) return;  // this problem was put to the user already
  if (!dialogAllowed(p, diagnosis)) {
    return log_.format("[SmartStatus] диалог {} выключен настройками", snakeName(diagnosis));
  }
  const auto now = loop_.now();
  if (lastDialogAt_ && now - *lastDialogAt_ < milliseconds(p.diagDialogCooldownMs)) {
    return log_.format("[SmartStatus] диалог {} отложен: пауза между диалогами", snakeName(diagnosis));
  }
  lastDialog_ = std::pair(diagnosis, clockWrong);
  lastDialogAt_ = now;
  SmartStatusDialogRequest request = makeDialog(diagnosis, clockWrong);
  log_.format("[SmartStatus] диалог: {}", request.identifier);
  dialogRequested_.emit(request);
}

SmartStatusDialogRequest SmartStatusEngine::makeDialog(SmartStatusDiagnosis diagnosis, bool clockWrong) const {
  using Action = SmartStatusDialogAction;
  SmartStatusDialogRequest request;
  request.diagnosis = diagnosis;
  request.deviceClockWrong = clockWrong;
  if (clockWrong) {
    request.identifier = "smart_status_clock";
    request.texts = {std::string(smart_status_texts::kClockDialogTitle),
                     std::string(smart_status_texts::kClockDialogMessage),
                     smartStatusText(policy().texts, SmartStatusTextKey::dlgNoInternetPrimary),
                     smartStatusText(policy().texts, SmartStatusTextKey::dlgNoInternetSecondary)};
    request.primary = Action::recheck;
    request.secondary = Action::close;
    return request;
  }
  request.identifier = fmt::format("smart_status_{}", snakeName(diagnosis));
  request.texts = dialogTexts(policy().texts, diagnosis);
  switch (diagnosis) {
    case SmartStatusDiagnosis::ourSide:
      request.primary = Action::changeServer;
      request.secondary = Action::recheck;
      break;
    case SmartStatusDiagnosis::subExpired:
      request.primary = Action::disconnectAndCheck;
      request.secondary = Action::close;
      break;
    case SmartStatusDiagnosis::whitelist:
    case SmartStatusDiagnosis::noInternet:
    default:
      request.primary = Action::recheck;
      request.secondary = Action::close;
      break;
  }
  return request;
}

void SmartStatusEngine::succeed() {
  const Reason reason = cycle_->reason;
  cycle_.reset();
  diagnosis_.reset();
  lastDialog_.reset();
  clockBlamed_.set(false);
  const auto ms = std::chrono::duration<double, std::milli>(clock_.now().time_since_epoch()).count();
  defaults_.setDouble(kSmartStatusLastVerifiedAtKey, ms);
  setHealth(SmartStatusHealth::of(Case::protected_));
  log_.format("[SmartStatus] трафик идёт ({})", reasonText(static_cast<int>(reason)));
  if (reason == Reason::userRefresh)
    confirmation_.emit(smartStatusText(policy().texts, SmartStatusTextKey::statusRefreshOk));
  afterCycle();
}

void SmartStatusEngine::endWithoutVerdict() {
  const SmartStatusHealth previous = cycle_->previous;
  cycle_.reset();
  log_.write("[SmartStatus] проверка без вердикта");
  setHealth(previous.kind() == Case::problem || previous.kind() == Case::protected_ ? previous : SmartStatusHealth());
  afterCycle();
}

void SmartStatusEngine::afterCycle() {
  const SmartStatusPolicy& p = policy();
  if (!enabled() || !tunnelConnected()) return;
  if (pathCheckPending_) {
    pathCheckPending_ = false;
    return scheduleCycle(Reason::pathChange, milliseconds(p.netChangeGraceMs));
  }
  if (health_.get().kind() == Case::problem) {
    if (p.recheckAfterProblemMs > 0) scheduleCycle(Reason::problemRecheck, milliseconds(p.recheckAfterProblemMs));
    return;
  }
  if (p.monitorIntervalMs > 0) scheduleCycle(Reason::monitor, milliseconds(p.monitorIntervalMs));
}

void SmartStatusEngine::setHealth(SmartStatusHealth health) {
  if (!(health == health_.get())) {
    log_.format("[SmartStatus] health: {} → {}", toString(health_.get()), toString(health));
    health_.set(health);
  }
  publishTexts();
}

void SmartStatusEngine::publishTexts() {
  const SmartStatusHealth health = health_.get();
  if (health.kind() == Case::problem && clockBlamed_.get()) {
    statusText_.set(std::string(smart_status_texts::kClockStatus));
  } else {
    statusText_.set(smartStatusText(policy().texts, statusTextKey(health)));
  }
  healthRaw_.set(widgetWord(health));
}

}  // namespace norvik
