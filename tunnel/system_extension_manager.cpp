#include "tunnel/system_extension_manager.h"

#include <fmt/format.h>

namespace norvik {
namespace {

// The installed copy that counts: the enabled one when the system lists several (an old copy
// may still be on its way out).
std::optional<SystemExtensionProperties> installedCopy(const std::vector<SystemExtensionProperties>& all) {
  for (const auto& p : all) {
    if (p.isEnabled) return p;
  }
  if (!all.empty()) return all.front();
  return std::nullopt;
}

}  // namespace

std::string_view toString(SystemExtensionOutcome outcome) {
  switch (outcome) {
    case SystemExtensionOutcome::completed:
      return "completed";
    case SystemExtensionOutcome::needsUserApproval:
      return "needsUserApproval";
    case SystemExtensionOutcome::willCompleteAfterReboot:
      return "willCompleteAfterReboot";
    default:
      return "unknown";
  }
}

// The delegate of one request. It answers its caller once (`finished`); whatever the system says
// afterwards (an approval that arrives later, a second failure) is ignored.
class SystemExtensionManager::RequestRunner final : public SystemExtensionRequestDelegate {
 public:
  RequestRunner(Log& log, int systemMajorVersion, bool forceReplace, ActivationCompletion activationDone,
                PropertiesCompletion propertiesDone)
      : log_(log),
        systemMajorVersion_(systemMajorVersion),
        forceReplace_(forceReplace),
        activationDone_(std::move(activationDone)),
        propertiesDone_(std::move(propertiesDone)) {}

  SystemExtensionReplacementAction actionForReplacingExtension(const SystemExtensionProperties& existing,
                                                               const SystemExtensionProperties& replacement) override {
    const std::string versions =
        fmt::format("installed {} ({}), bundled {} ({})", existing.bundleVersion, existing.bundleShortVersion,
                    replacement.bundleVersion, replacement.bundleShortVersion);
    if (forceReplace_) {
      log_.format("[VPNManager] sysext replace (forced): {}", versions);
      return SystemExtensionReplacementAction::replace;
    }
    if (existing.isAwaitingUserApproval) {
      log_.format("[VPNManager] sysext replace (installed copy awaits approval): {}", versions);
      return SystemExtensionReplacementAction::replace;
    }
    // Equality only: an older carried copy replaces a newer installed one too, so the extension
    // always matches the application that carries it.
    if (existing.bundleIdentifier == replacement.bundleIdentifier &&
        existing.bundleVersion == replacement.bundleVersion &&
        existing.bundleShortVersion == replacement.bundleShortVersion) {
      log_.format("[VPNManager] sysext keep installed: {}", versions);
      keptInstalled_ = true;
      return SystemExtensionReplacementAction::cancel;
    }
    log_.format("[VPNManager] sysext replace: {}", versions);
    return SystemExtensionReplacementAction::replace;
  }

  void requestNeedsUserApproval() override { resume(SystemExtensionOutcome::needsUserApproval); }

  void requestDidFinish(SystemExtensionRequestResult result) override {
    resume(result == SystemExtensionRequestResult::willCompleteAfterReboot
               ? SystemExtensionOutcome::willCompleteAfterReboot
               : SystemExtensionOutcome::completed);
  }

  void requestDidFail(const Error& error) override {
    // Keeping the installed copy ends the request as cancelled: the extension that runs is the
    // one we asked for.
    if (keptInstalled_ && error.code == static_cast<int>(SystemExtensionErrorCode::requestCanceled)) {
      return resume(SystemExtensionOutcome::completed);
    }
    if (finished_) return;
    finished_ = true;
    auto failure = SysExtError::failed(error, systemMajorVersion_);
    if (activationDone_) return std::exchange(activationDone_, nullptr)(std::unexpected(std::move(failure)));
    if (propertiesDone_) std::exchange(propertiesDone_, nullptr)(std::unexpected(std::move(failure)));
  }

  void requestFoundProperties(const std::vector<SystemExtensionProperties>& properties) override {
    if (finished_ || !propertiesDone_) return;
    finished_ = true;
    std::exchange(propertiesDone_, nullptr)(properties);
  }

 private:
  void resume(SystemExtensionOutcome outcome) {
    if (finished_ || !activationDone_) return;
    finished_ = true;
    std::exchange(activationDone_, nullptr)(outcome);
  }

  Log& log_;
  const int systemMajorVersion_;
  const bool forceReplace_;
  ActivationCompletion activationDone_;
  PropertiesCompletion propertiesDone_;
  bool keptInstalled_ = false;
  bool finished_ = false;
};

SystemExtensionManager::SystemExtensionManager(Dependencies d, Config config)
    : loop_(d.loop),
      system_(d.system),
      vpn_(d.vpn),
      intents_(d.intents),
      standard_(d.standardDefaults),
      log_(d.log),
      analytics_(d.analytics),
      config_(config) {}

SystemExtensionManager::~SystemExtensionManager() = default;

std::optional<std::string> SystemExtensionManager::packagedExtensionVersion() const {
  NORVIK_ASSERT_ON_LOOP(loop_);
  return system_.packagedExtensionVersion(kExtensionIdentifier);
}

// --- Requests, one at a time ---

void SystemExtensionManager::activate(bool forceReplace, ActivationCompletion completion) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  Request request;
  request.forceReplace = forceReplace;
  request.activationDone = std::move(completion);
  queue_.push_back(std::move(request));
  runNext();
}

void SystemExtensionManager::installedProperties(PropertiesCompletion completion) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  Request request;
  request.properties = true;
  request.propertiesDone = std::move(completion);
  queue_.push_back(std::move(request));
  runNext();
}

void SystemExtensionManager::runNext() {
  while (!activeRunner_ && !queue_.empty()) {
    Request request = std::move(queue_.front());
    queue_.pop_front();
    if (!request.properties) {
      startActivation(std::move(request));
      continue;
    }
    auto weak = weakFactory_.weak();
    activeRunner_ = std::make_shared<RequestRunner>(
        log_, systemMajorVersion(), false, nullptr,
        [weak, done = std::move(request.propertiesDone)](PropertiesResult result) mutable {
          auto* self = weak.lock();
          if (!self) return;
          self->requestEnded();
          if (done) done(std::move(result));
        });
    system_.submitPropertiesRequest(std::string(kExtensionIdentifier), activeRunner_);
  }
}

std::optional<SysExtError> SystemExtensionManager::preconditionFailure() const {
  const std::filesystem::path bundle = system_.mainBundlePath();
  if (system_.isTranslocated(bundle)) return SysExtError::translocated(systemMajorVersion());
  const std::string path = bundle.string();
  if (!path.starts_with(system_.applicationsDirectory())) {
    return SysExtError::notInApplications(path, systemMajorVersion());
  }
  return std::nullopt;
}

void SystemExtensionManager::startActivation(Request request) {
  if (auto failure = preconditionFailure()) {
    // No request is made: the system would refuse an extension carried from here anyway, with a
    // text that does not tell the user what to do.
    loop_.post([weak = weakFactory_.weak(), failure = std::move(*failure),
                done = std::move(request.activationDone)]() mutable {
      if (auto* self = weak.lock()) self->finishActivation(std::unexpected(std::move(failure)), std::move(done));
    });
    return;
  }
  vpn_.systemExtensionState().set(SystemExtensionState{SystemExtensionState::Kind::activating});
  auto weak = weakFactory_.weak();
  activeRunner_ = std::make_shared<RequestRunner>(
      log_, systemMajorVersion(), request.forceReplace,
      [weak, done = std::move(request.activationDone)](ActivationResult result) mutable {
        auto* self = weak.lock();
        if (!self) return;
        self->requestEnded();
        self->finishActivation(std::move(result), std::move(done));
      },
      nullptr);
  system_.submitActivationRequest(std::string(kExtensionIdentifier), activeRunner_);
}

void SystemExtensionManager::requestEnded() {
  // The runner is still on the stack of the system's call; it lives on through the system's own
  // reference until that call returns. The next request starts on a later turn of the loop.
  activeRunner_.reset();
  loop_.post([weak = weakFactory_.weak()] {
    if (auto* self = weak.lock()) self->runNext();
  });
}

void SystemExtensionManager::finishActivation(ActivationResult result, ActivationCompletion completion) {
  using Kind = SystemExtensionState::Kind;
  if (result) {
    log_.format("[VPNManager] sysext activation: {}", toString(*result));
    switch (*result) {
      case SystemExtensionOutcome::completed:
        vpn_.systemExtensionState().set({Kind::active});
        break;
      case SystemExtensionOutcome::needsUserApproval:
        vpn_.systemExtensionState().set({Kind::needsApproval});
        vpn_.connectionFailed().emit(std::string(approvalInstruction(systemMajorVersion())));
        break;
      case SystemExtensionOutcome::willCompleteAfterReboot:
        vpn_.systemExtensionState().set({Kind::needsReboot});
        vpn_.connectionFailed().emit(std::string(sysext_texts::kReboot));
        break;
      default:
        break;
    }
  } else {
    const std::string text = result.error().description();
    log_.format("[VPNManager] sysext activation failed: {}", text);
    vpn_.systemExtensionState().set(SystemExtensionState::failed(text));
    vpn_.connectionFailed().emit(text);
  }
  if (completion) completion(std::move(result));
}

// --- Quiet replacement after an update of the application ---

void SystemExtensionManager::activateOnLaunch() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  installedProperties([weak = weakFactory_.weak()](PropertiesResult result) {
    if (auto* self = weak.lock()) self->onLaunchProperties(std::move(result));
  });
}

void SystemExtensionManager::onLaunchProperties(PropertiesResult result) {
  const TunnelStatus status = vpn_.connectionState().get();
  const std::optional<std::string> packaged = packagedExtensionVersion();
  std::optional<SystemExtensionProperties> installed;
  if (result) installed = installedCopy(*result);
  log_.format("[SysExtUpdate] installed={} bundled={} vpn={}", installed ? installed->bundleVersion : "none",
              packaged.value_or("none"), toString(status));

  std::string skip;
  if (!result) {
    skip = "запрос свойств не удался: " + result.error().description();
  } else if (!installed) {
    skip = "расширение ещё не установлено";
  } else if (!packaged) {
    skip = "версия в пакете неизвестна";
  } else if (installed->isAwaitingUserApproval) {
    skip = "установленное расширение ждёт разрешения";
  } else if (installed->bundleVersion == *packaged) {
    skip = "версии совпадают";
  }
  if (!skip.empty()) {
    log_.format("[SysExtUpdate] пропуск: {}", skip);
    // The usual activation: it installs a missing extension, asks for approval again, or keeps
    // the installed copy, and publishes the state either way.
    activate(false);
    return;
  }
  // A tunnel that is coming up for the user counts as up: it must come back on the new program.
  replaceQuietly(*packaged, isLive(status) || intents_.wantsTunnelUp());
}

void SystemExtensionManager::replaceQuietly(std::string version, bool tunnelWasUp) {
  const std::string key = std::string(kRefreshAttemptsKeyPrefix) + version;
  const std::int64_t attempts = standard_.integerForKey(key);
  if (attempts >= config_.quietRefreshAttemptLimit) {
    log_.format("[SysExtUpdate] {}: лимит попыток исчерпан, ждём подключения", version);
    waitForUserConnect(version);
    return;
  }
  // Counted before the request, so that an attempt that never comes back (the application was
  // killed meanwhile) still counts.
  standard_.setInteger(key, attempts + 1);
  activate(true, [weak = weakFactory_.weak(), version, tunnelWasUp](ActivationResult result) {
    if (auto* self = weak.lock()) self->onQuietOutcome(version, tunnelWasUp, result);
  });
}

void SystemExtensionManager::onQuietOutcome(const std::string& version, bool tunnelWasUp,
                                            const ActivationResult& result) {
  if (!result) {
    log_.format("[SysExtUpdate] тихая замена не удалась: {}", result.error().description());
    analytics_.record("sysext quiet fail");
    return;
  }
  switch (*result) {
    case SystemExtensionOutcome::completed:
      standard_.remove(std::string(kRefreshAttemptsKeyPrefix) + version);
      if (tunnelWasUp) return reconnectAfterReplacement(version);
      log_.format("[SysExtUpdate] расширение {} заменено тихо", version);
      return;
    case SystemExtensionOutcome::needsUserApproval:
      analytics_.record("sysext quiet approval");
      return;
    case SystemExtensionOutcome::willCompleteAfterReboot:
      analytics_.record("sysext quiet reboot");
      return;
    default:
      return;
  }
}

void SystemExtensionManager::waitForUserConnect(const std::string& version) {
  // Once the user connects, the attempts start again: the tunnel is up, so a replacement now is
  // followed by a reconnect the user is there to see.
  userConnectWatch_ = vpn_.connectionState().subscribe([this, version](const TunnelStatus& status) {
    if (status != TunnelStatus::connected) return;
    loop_.post([weak = weakFactory_.weak(), version] {
      auto* self = weak.lock();
      if (!self) return;
      self->userConnectWatch_.reset();
      self->standard_.remove(std::string(kRefreshAttemptsKeyPrefix) + version);
      self->activateOnLaunch();
    });
  });
}

void SystemExtensionManager::reconnectAfterReplacement(const std::string& version) {
  if (reconnecting_) return;
  reconnecting_ = true;
  updateNotice_.emit("Обновление применяется, переподключаем…");
  reconnectWatch_ = vpn_.connectionState().subscribe([this, version](const TunnelStatus& status) {
    if (status != TunnelStatus::connected) return;
    loop_.post([weak = weakFactory_.weak(), version] {
      if (auto* self = weak.lock()) self->finishReconnect(version, std::nullopt);
    });
  });
  reconnectDeadline_.start(loop_, config_.quietReconnectTimeout,
                           [this, version] { finishReconnect(version, "timeout"); });
  // The replaced program may still serve the running session: the tunnel is stopped and started
  // again, as long as the user wants it up.
  intents_.restartTunnel("расширение " + version + " заменено", [weak = weakFactory_.weak(), version](bool connected) {
    auto* self = weak.lock();
    if (!self) return;
    self->finishReconnect(version, connected ? std::nullopt : std::optional<std::string>("connect_error"));
  });
}

void SystemExtensionManager::finishReconnect(const std::string& version, std::optional<std::string> failure) {
  if (!reconnecting_) return;
  reconnecting_ = false;
  reconnectWatch_.reset();
  reconnectDeadline_.stop();
  if (!failure) {
    log_.format("[SysExtUpdate] расширение {} заменено тихо, VPN снова подключён", version);
    analytics_.record("sysext reconnect ok");
    updateNotice_.emit("Обновление применено");
    return;
  }
  log_.format("[SysExtUpdate] расширение {} заменено тихо", version);
  log_.format("[SysExtUpdate] VPN не переподключился: {}", *failure);
  analytics_.record("sysext reconnect fail " + *failure);
}

}  // namespace norvik
