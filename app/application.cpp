#include "app/application.h"

#include <fmt/format.h>

#include "app/network_return_watch.h"
#include "app/wake_detector.h"
#include "platform/linux/inotify_notification_center.h"
#include "platform/linux/linux_platform.h"
#include "routing/routing_texts.h"
#include "update/file_signature.h"
#include "update/platform_update_installer.h"

namespace norvik {

AppUpdaterConfig updaterConfigFor(const ApplicationOptions& options) {
  if (options.updater) return *options.updater;
  AppUpdaterConfig config = platformUpdaterConfig();
  if (!options.backend) return config;
  // A backend of one's own (the local one, a staging host) serves the feed beside its API; the
  // built-in hosts serve other builds.
  auto location = BackendLocation::fromURL(*options.backend);
  if (!location) return config;
  // Scheme and authority of one URL, the path of the other.
  auto pathStart = [](const std::string& url) {
    const auto scheme = url.find("://");
    return scheme == std::string::npos ? std::string::npos : url.find('/', scheme + 3);
  };
  const std::string& base = location->baseURL();
  const std::string& feed = config.feedURL;
  const auto feedPath = pathStart(feed);
  std::string origin = base.substr(0, pathStart(base));
  if (origin.starts_with("http://")) origin = "https://" + origin.substr(7);
  config.feedURL = origin + (feedPath == std::string::npos ? "" : feed.substr(feedPath));
  config.mirrorFeedURL.clear();
  return config;
}

Application::Application(EventLoop& loop, AppPaths paths) : loop_(loop), paths_(std::move(paths)) {}

Application::~Application() { shutDown(); }

std::expected<std::unique_ptr<Application>, cli::CommandError> Application::create(AsioEventLoop& loop,
                                                                                   const ApplicationOptions& options) {
  using cli::ExitCode;
  using cli::failure;
  auto platform = makeLinuxPlatform(loop, {options.paths, options.caFile, options.logToStderr});
  if (!platform) return failure(ExitCode::usage, platform.error().description());
  auto notifications = InotifyNotificationCenter::open(loop, options.paths.runtime() / "notify");
  if (!notifications) return failure(ExitCode::usage, notifications.error().description());
  // The real tunnel when this machine lets norvik-tunnel create interfaces, unless forced otherwise.
  auto tunnels =
      makeLinuxTunnelService({loop, *platform->clock, *platform->log, notifications->get(), options.tunnel,
                              options.paths.home / "tunnel" / "preferences.json", options.simulatedConnectDelay});
  if (!tunnels) return failure(ExitCode::usage, tunnels.error());
  return assemble(
      loop, options,
      Adapters{std::move(*platform), std::move(*notifications), std::move(tunnels->service), std::move(tunnels->name)});
}

std::expected<std::unique_ptr<Application>, cli::CommandError> Application::assemble(EventLoop& loop,
                                                                                     const ApplicationOptions& options,
                                                                                     Adapters adapters) {
  using cli::ExitCode;
  using cli::failure;
  std::unique_ptr<Application> app(new Application(loop, options.paths));
  app->platform_ = std::move(adapters.platform);
  app->notifications_ = std::move(adapters.notifications);
  app->tunnels_ = std::move(adapters.tunnels);
  app->tunnelServiceName_ = std::move(adapters.tunnelServiceName);
  Platform& p = app->platform_;

  auto provisioningFile = provisioningPath(options.provisioning);
  if (!provisioningFile) {
    return failure(ExitCode::usage, "no provisioning file: pass --provisioning FILE or set NORVIK_PROVISIONING");
  }
  auto provisioning = loadProvisioning(*provisioningFile);
  if (!provisioning) return failure(ExitCode::usage, provisioning.error().message);

  NetworkServiceConfig networkConfig;
  if (options.backend) {
    auto location = BackendLocation::fromURL(*options.backend);
    if (!location) return failure(ExitCode::usage, fmt::format("--backend {}: {}", *options.backend, location.error()));
    networkConfig.location = std::move(*location);
  }
  networkConfig.supportHmacSecret = provisioning->supportHmacSecret;
  networkConfig.supportHmacMessage = provisioning->supportHmacMessage;

  app->security_ = std::make_unique<SecurityManager>(*provisioning, *p.secureItems, *p.standardDefaults, *p.crypto,
                                                     *p.clock, *p.log);
  app->warmUp_ = std::make_unique<VendorIDWarmUp>(loop, *app->security_, *p.log);
  app->wake_ = std::make_unique<WakeDetector>(
      loop, &WakeDetector::systemSleepOffset, [raw = app.get()](std::chrono::seconds slept) {
        raw->platform_.log->format("[Sleep] пробуждение после сна ({} с)", slept.count());
        raw->warmUp_->start();
        if (raw->health_) raw->health_->systemDidWake();
        if (raw->home_) raw->home_->machine().networkAvailable("пробуждение после сна");
      });
  if (p.networkReturns) {
    app->networkReturn_ =
        std::make_unique<NetworkReturnWatch>(loop, *p.networkReturns, *p.log, [raw = app.get()](std::string_view why) {
          if (raw->home_) raw->home_->machine().networkAvailable(why);
        });
  }
  app->network_ = std::make_unique<NetworkService>(loop, *p.http, *app->security_, *p.standardDefaults, *p.clock,
                                                   *p.log, std::move(networkConfig));

  // Everything that follows the main configuration exists before the first one is published.
  const auto geodata = options.paths.groupContainer() / "geodata";
  auto& responses = app->network_->currentResponse();
  app->modes_ = std::make_unique<ModesStore>(loop, *p.groupDefaults, responses, *p.log);
  app->sites_ = std::make_unique<ServiceCatalogStore>(loop, *p.groupDefaults, *app->network_, *app->modes_, geodata,
                                                      *p.log, *p.analytics);
  app->geoip_ = std::make_unique<GeoIPCache>(loop, *p.groupDefaults, *app->network_, geodata, *p.log);
  app->flags_ = std::make_unique<IOSFixesCache>(*p.groupDefaults, responses, *p.log);
  app->extras_ = std::make_unique<TunnelExtrasSnapshot>(
      *p.groupDefaults, app->geoip_->cacheFile(),
      [network = app->network_.get()] { return network->netProfile().keyValueText(); });
  app->vpn_ = std::make_unique<VPNManager>(VPNManager::Dependencies{
      loop, *app->tunnels_, *app->notifications_, *p.groupDefaults, *p.standardDefaults, *p.clock, *p.log, *p.analytics,
      [extras = app->extras_.get()] { return extras->snapshot(); }});
  app->overlays_ = std::make_unique<OverlayQueue>(loop);
  // Before connecting, the health check's probes make sure there is an internet to connect over.
  auto preConnectCheck = [raw = app.get()](VPNViewModel::PreConnectAnswer answer) {
    raw->health_->preConnectCheck([answer = std::move(answer)](std::optional<SmartStatusDialogRequest> dialog) mutable {
      if (!dialog) return answer(std::nullopt);
      answer(OverlayItem{OverlayItem::Kind::dialog,
                         dialog->identifier,
                         dialog->texts.title,
                         dialog->texts.message,
                         {OverlayButton{dialog->texts.primary, {}}}});
    });
  };
  app->home_ = std::make_unique<VPNViewModel>(
      VPNViewModel::Dependencies{loop, *app->network_, *app->vpn_, *app->overlays_, *p.standardDefaults,
                                 *p.groupDefaults, *p.log, *p.analytics, std::move(preConnectCheck)});

  app->pathMonitor_ = std::make_unique<PhysicalPathMonitor>(*p.physicalPaths, *p.log);
  app->healthPolicy_ =
      std::make_unique<SmartStatusPolicyStore>(*p.log, *p.standardDefaults, *p.clock, app->pathMonitor_.get());
  app->healthPolicy_->follow(responses);
  app->clockCheck_ = std::make_unique<DeviceClockCheck>(loop, *p.log);
  app->clockCheck_->feedFrom(*app->network_);
  // The main button of a forced update installs through the in-app updater; other prompts open
  // their page in a front-end.
  app->versionChecker_ = std::make_unique<AppVersionChecker>(
      loop, *app->network_, *p.standardDefaults, *p.clock, *p.log, *p.analytics,
      AppVersionChecker::Hooks{[raw = app.get()](const MandatoryUpdate& update) {
                                 if (raw->updater_) return raw->updater_->installMandatoryUpdate(update);
                                 raw->platform_.log->write("[Version] установка в приложении недоступна — сайт");
                                 if (!update.webLink.empty()) raw->pageToOpen_.emit(update.webLink);
                               },
                               [raw = app.get()](const std::string& url) {
                                 raw->platform_.log->format("[Version] открываем страницу обновления: {}", url);
                                 raw->pageToOpen_.emit(url);
                               }});
  app->createUpdater(options, provisioning->updateEd25519PublicKey);
  app->createSurfaces();
  return app;
}

void Application::start() {
  Platform& p = platform_;
  // The identity is read once at start, under its lock; requests read it again as they go.
  const VendorID id = security_->vendorID();
  p.log->format("[VendorID] запуск: trusted={} id={}…", id.trusted, id.identifier.substr(0, 8));
  wake_->start();
  if (networkReturn_) (void)networkReturn_->start();
  clockCheck_->watchSystemClock(*p.clockChanges);

  // The user's intent comes back once the tunnel manager knows the configurations.
  vpn_->start([weak = weakFactory_.weak()] {
    if (auto* self = weak.lock()) self->home_->machine().restoreIntent();
  });
  startSurfaces();

  // New routing settings reach the tunnel with its next configuration: the installed key is saved
  // again with fresh extras, and a tunnel the user wants up comes back with them — unless the
  // running tunnel takes them live.
  modes_->setModeChangeHandler([this](VPNRoutingMode from, VPNRoutingMode to) {
    platform_.log->format("[Routing] режим {} → {}", rawText(from), rawText(to));
    if (modes_->liveSwitchEnabled()) return;
    home_->machine().applyConfiguration(fmt::format("режим {}", rawText(to)));
  });
  // In the by-sites mode the chosen sites are the tunnel's routes.
  auto sitesChanged = [this](std::string_view what) {
    if (modes_->currentMode().get() != VPNRoutingMode::services || modes_->liveSwitchEnabled()) return;
    home_->machine().applyConfiguration(std::string(what));
  };
  sitesSubscriptions_.push_back(sites_->selectedServices().subscribe(
      [sitesChanged](const std::set<std::string>&) { sitesChanged("сервисы по сайтам"); }));
  sitesSubscriptions_.push_back(sites_->customDomains().subscribe(
      [sitesChanged](const std::vector<std::string>&) { sitesChanged("свои сайты"); }));
  sitesSubscriptions_.push_back(sites_->disabledDomains().subscribe(
      [sitesChanged](const std::vector<std::string>&) { sitesChanged("свои сайты"); }));
  smartNotice_ = sites_->pendingSmartNotice().subscribe([this](const bool& pending) {
    if (!pending) return;
    overlays_->showToast(std::string(routing_texts::kAutoSmartNoticeIdentifier),
                         std::string(routing_texts::kAutoSmartNoticeText));
    sites_->acknowledgeSmartNotice();
  });

  // The last known configuration first, then the network's.
  network_->loadCachedMainConfiguration();
  network_->loadMainConfiguration();
  versionChecker_->check();
  if (updater_) updater_->start();
}

void Application::createUpdater(const ApplicationOptions& options, const std::optional<std::string>& feedKey) {
  Platform& p = platform_;
  if (!p.downloads || !p.processes) return;
  std::optional<Bytes> key;
  if (feedKey) {
    // A provisioning key that does not read is no key: the feed's releases are then refused
    // unless signed, which the installer reports; nothing unsigned slips through.
    auto parsed = parseEd25519PublicKey(*feedKey);
    if (parsed) key = std::move(*parsed);
    if (!parsed) p.log->format("[Update] ключ подписи обновлений не читается: {}", parsed.error());
  }
  updateInstaller_ = makeUpdateInstaller(loop_, *p.downloads, *p.processes, *p.log, std::move(key));
  updater_ = std::make_unique<AppUpdater>(
      loop_, *p.http, std::make_unique<FeedAppcastUpdater>(*p.http), *updateInstaller_, *p.log,
      updaterConfigFor(options),
      AppUpdater::Hooks{[weak = weakFactory_.weak(), quit = options.quit] {
                          auto* self = weak.lock();
                          if (!self) return;
                          self->platform_.log->write("[Update] обновление установлено — перезапуск");
                          if (quit) quit();
                        },
                        nullptr});
}

void Application::shutDown() {
  stopSurfaces();
  if (wake_) wake_->stop();
  if (networkReturn_) networkReturn_->stop();
  if (clockCheck_) clockCheck_->stopWatchingSystemClock();
  if (pathMonitor_) pathMonitor_->stop();
}

}  // namespace norvik
