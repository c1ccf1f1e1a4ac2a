#include "update/app_updater.h"

#include <fmt/format.h>

#include "update/release_notes.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

namespace texts = update_texts;

std::string failureText(AppcastFailureKind kind) {
  switch (kind) {
    case AppcastFailureKind::noConnection:
      return std::string(texts::kNoConnection);
    case AppcastFailureKind::server:
    case AppcastFailureKind::malformed:
    default:
      return std::string(texts::kServerUnavailable);
  }
}

std::string httpsURL(const std::string& url) { return url.starts_with("http://") ? "https://" + url.substr(7) : url; }

}  // namespace

std::string describe(const AppUpdateState& state) {
  using S = AppUpdateState;
  if (state.is<S::Checking>()) return std::string(texts::kChecking);
  if (state.is<S::UpToDate>()) return std::string(texts::kUpToDate);
  if (const auto* a = state.as<S::Available>()) return a->title;
  if (state.is<S::Downloading>()) return std::string(texts::kDownloading);
  if (state.is<S::Extracting>()) return std::string(texts::kPreparing);
  if (state.is<S::ReadyToInstall>()) return std::string(texts::kRestartSoon);
  if (state.is<S::Installing>()) return std::string(texts::kInstalling);
  if (const auto* f = state.as<S::Failed>()) return f->message;
  return {};
}

AppUpdater::AppUpdater(EventLoop& loop, HttpTransport& transport, std::unique_ptr<AppcastUpdater> updater,
                       UpdateInstaller& installer, Log& log, AppUpdaterConfig config, Hooks hooks)
    : loop_(loop),
      transport_(transport),
      installer_(installer),
      log_(log),
      config_(std::move(config)),
      hooks_(std::move(hooks)),
      updater_(std::move(updater)) {}

AppUpdater::~AppUpdater() = default;

void AppUpdater::start() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!updater_) {
    log_.write("[Update] Sparkle не стартовал: нет модуля обновлений");
    return;
  }
  std::expected<void, std::string> started;
  if (!config_.feedURL.starts_with("https://")) {
    started = std::unexpected(fmt::format("адрес фида \"{}\" не https", config_.feedURL));
  } else {
    started = updater_->start({config_.currentVersion, config_.betaChannel, config_.systemVersion});
  }
  if (!started) {
    log_.format("[Update] Sparkle не стартовал: {}", started.error());
    updater_.reset();
    updateCanCheck();
    return;
  }
  log_.format("[Update] Sparkle запущен, интервал {}с, канал beta: {}", config_.checkInterval.count(),
              config_.betaChannel);
  firstCheck_.start(loop_, config_.firstCheckDelay, [weak = weakFactory_.weak()] {
    if (auto self = weak.lock()) self->checkInBackground();
  });
  periodicChecks_.start(loop_, config_.checkInterval, [weak = weakFactory_.weak()] {
    if (auto self = weak.lock()) self->checkInBackground();
  });
  updateCanCheck();
}

bool AppUpdater::busy() const { return checkInFlight_ || installer_.isRunning(); }

std::string AppUpdater::busyReason() const {
  if (installer_.isRunning()) return "идёт установка " + installingVersion_;
  return checkingMirror_ ? "идёт проверка зеркала" : "идёт проверка";
}

void AppUpdater::updateCanCheck() { canCheck_.set(updater_ != nullptr && !busy()); }

void AppUpdater::check(bool manual) {
  if (!updater_) {
    if (manual) state_.set({AppUpdateState::Failed{std::string(texts::kCouldNotUpdate)}});
    return;
  }
  if (busy() || updater_->busy()) {
    if (manual) log_.format("[Update] ручная проверка: Sparkle занят ({})", busyReason());
    return;
  }
  manualCheck_ = manual;
  if (manual) state_.set({AppUpdateState::Checking{}});
  checkInFlight_ = true;
  updateCanCheck();
  fetchFeed();
}

void AppUpdater::fetchFeed() {
  checkingMirror_ = useMirrorForNextCheck_ && !config_.mirrorFeedURL.empty();
  const std::string url = checkingMirror_ ? config_.mirrorFeedURL : config_.feedURL;
  updater_->check(url, [weak = weakFactory_.weak()](AppcastResult result) {
    if (auto self = weak.lock()) self->onFeed(std::move(result));
  });
}

void AppUpdater::onFeed(AppcastResult result) {
  if (!result) {
    if (!checkingMirror_ && !mirrorRetryInFlight_ && !config_.mirrorFeedURL.empty()) {
      log_.format("[Update] фид не загрузился: {}", result.error().detail);
      log_.write("[Update] фид: зеркало");
      useMirrorForNextCheck_ = true;
      mirrorRetryInFlight_ = true;
      return fetchFeed();
    }
    mirrorRetryInFlight_ = false;
    useMirrorForNextCheck_ = false;
    checkInFlight_ = false;
    log_.format("[Update] проверка обновлений не удалась: {}", result.error().detail);
    if (manualCheck_ || autoInstallWhenReady_) state_.set({AppUpdateState::Failed{failureText(result.error().kind)}});
    autoInstallWhenReady_ = false;
    updateCanCheck();
    return takePendingMandatory();
  }

  mirrorRetryInFlight_ = false;
  useMirrorForNextCheck_ = false;
  checkInFlight_ = false;
  log_.format("[Update] appcast загружен: {} элементов", result->itemCount);
  for (const auto& reason : result->skipped) log_.format("[Update] appcast: пропущен элемент: {}", reason);
  updateCanCheck();

  if (result->update) {
    const std::string version = result->update->displayVersion();
    const bool postponed = postponedVersion_.get() == version;
    if (manualCheck_ || autoInstallWhenReady_ || !postponed) offer(*result->update);
    if (autoInstallWhenReady_) {
      autoInstallWhenReady_ = false;
      installUpdate();
      return;
    }
  } else {
    offeredItem_.reset();
    if (autoInstallWhenReady_) {
      // The backend wants an update the feed does not have yet: the page is the way.
      autoInstallWhenReady_ = false;
      state_.set({AppUpdateState::Failed{std::string(texts::kAvailableOnWebsite)}});
    } else if (manualCheck_ || state_.get().is<AppUpdateState::Available>()) {
      state_.set({manualCheck_ ? AppUpdateState{AppUpdateState::UpToDate{}} : AppUpdateState{AppUpdateState::Idle{}}});
    }
  }
  takePendingMandatory();
}

void AppUpdater::offer(const AppcastItem& item) {
  const std::string version = item.displayVersion();
  const bool sameAsBefore = offeredItem_ && *offeredItem_ == item;
  offeredItem_ = item;
  pendingVersion_ = version;
  // The notes start loading before the offer is published, so that whoever watches the offer
  // also sees that its notes are on the way.
  if (!sameAsBefore) loadReleaseNotes(item);
  state_.set({AppUpdateState::Available{version, fmt::format("{} {}", texts::kVersionAvailable, version), item.title,
                                        std::string(texts::kUpdateNow), !autoInstallWhenReady_}});
}

void AppUpdater::loadReleaseNotes(const AppcastItem& item) {
  releaseNotes_.set(item.description ? std::optional(releaseNotesText(*item.description)) : std::nullopt);
  if (!item.releaseNotesURL) return;
  HttpRequest request;
  request.url = httpsURL(*item.releaseNotesURL);
  request.headers = {{"Accept", "text/html, text/plain;q=0.9"}};
  request.timeout = config_.releaseNotesTimeout;
  releaseNotesLoading_.set(true);
  transport_.send(std::move(request), [weak = weakFactory_.weak(), version = pendingVersion_](HttpResult result) {
    auto self = weak.lock();
    if (!self || self->pendingVersion_ != version) return;  // another release is on screen by now
    if (!result) {
      self->log_.format("[Update] release notes не загрузились: {}", result.error().message);
    } else if (result->status < 200 || result->status > 299) {
      self->log_.format("[Update] release notes не загрузились: HTTP status {}", result->status);
    } else {
      self->releaseNotes_.set(releaseNotesText(result->body));
    }
    self->releaseNotesLoading_.set(false);
  });
}

void AppUpdater::postpone() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  const auto* available = state_.get().as<AppUpdateState::Available>();
  if (!available || !available->dismissible) return;
  const std::string version = available->version;
  postponedVersion_.set(version);
  log_.format("[Update] отложено ({})", version);
  state_.set({AppUpdateState::Idle{}});
  if (hooks_.onAvailableDismissed) hooks_.onAvailableDismissed();
}

void AppUpdater::installUpdate() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!offeredItem_) return;
  if (busy()) {
    log_.format("[Update] установка: модуль обновлений занят ({})", busyReason());
    return;
  }
  const AppcastItem& item = *offeredItem_;
  runInstall(UpdateSource{item.enclosureURL, item.displayVersion(), item.enclosureLength, item.edSignature,
                          installer_.checksFeedSignatures()});
}

void AppUpdater::installMandatoryUpdate(const MandatoryUpdate& update) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  msiURL_ = update.msiURL;
  msiVersion_ = update.version;
  msiWebLink_ = update.webLink;
  if (busy() || (updater_ && updater_->busy())) {
    log_.format("[Update] обязательное обновление: Sparkle занят ({})", busyReason());
    // Taken up as soon as the running work ends, unless that work is this very install.
    if (!installer_.isRunning()) pendingMandatory_ = update;
    return;
  }
  if (msiURL_) {
    return runInstall(UpdateSource{*msiURL_, msiVersion_, std::nullopt, std::nullopt, false});
  }
  if (updater_) {
    autoInstallWhenReady_ = true;
    return check(true);
  }
  state_.set({AppUpdateState::Failed{std::string(texts::kAvailableOnWebsite)}});
}

void AppUpdater::takePendingMandatory() {
  if (!pendingMandatory_ || busy()) return;
  auto update = std::move(*pendingMandatory_);
  pendingMandatory_.reset();
  installMandatoryUpdate(update);
}

void AppUpdater::cancelDownload() { installer_.cancel(); }

void AppUpdater::runInstall(UpdateSource source) {
  installingVersion_ = source.version;
  state_.set({AppUpdateState::Downloading{source.version, 0, source.expectedLength}});
  installer_.install(
      std::move(source),
      [weak = weakFactory_.weak()](const InstallProgress& progress) {
        if (auto self = weak.lock()) self->onInstallProgress(progress);
      },
      [weak = weakFactory_.weak()](InstallResult result) {
        if (auto self = weak.lock()) self->onInstalled(std::move(result));
      });
  updateCanCheck();
}

void AppUpdater::onInstallProgress(const InstallProgress& progress) {
  const std::string& version = installingVersion_;
  switch (progress.step) {
    case InstallStep::downloading:
      return state_.set({AppUpdateState::Downloading{version, progress.download.received, progress.download.total}});
    case InstallStep::mounting:
      return state_.set({AppUpdateState::Extracting{version, 0.0}});
    case InstallStep::verifying:
      return state_.set({AppUpdateState::Extracting{version, 0.4}});
    case InstallStep::staging:
      return state_.set({AppUpdateState::Extracting{version, 0.7}});
    case InstallStep::replacing:
      return state_.set({AppUpdateState::Installing{}});
    case InstallStep::relaunching:
      return state_.set({AppUpdateState::ReadyToInstall{version}});
    default:
      return;
  }
}

void AppUpdater::onInstalled(InstallResult result) {
  updateCanCheck();
  if (!result) {
    state_.set({AppUpdateState::Failed{result.error().userMessage}});
    return takePendingMandatory();
  }
  state_.set({AppUpdateState::ReadyToInstall{installingVersion_}});
  if (hooks_.quitApplication) {
    loop_.post([weak = weakFactory_.weak()] {
      if (auto self = weak.lock()) self->hooks_.quitApplication();
    });
  }
}

}  // namespace norvik
