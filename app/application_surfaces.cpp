// The parts of the application that face the user outside the command line: the health check and
// its dialogs, the widget bridge, the menu-bar model and the tunnel helper's activation.
#include <fmt/format.h>

#include "app/application.h"
#include "platform/linux/tunnel_helper_extension_requests.h"
#include "platform/linux/tunnel_helper_process.h"
#include "routing/routing_mode.h"
#include "tunnel/widget_files.h"

namespace norvik {
namespace {

// Where a helper found outside an installation (a development tree) counts as installed: the
// activation's "applications folder" check only means something for an installed package.
std::string applicationsDirectoryFor(const std::filesystem::path& bundle) {
  // The package installs under /usr itself ("/usr/bin/norvik"), which is not inside "/usr/".
  if (bundle == "/usr") return "/usr";
  for (std::string_view prefix : {"/usr/", "/opt/"}) {
    if ((bundle.string() + "/").starts_with(prefix)) return std::string(prefix);
  }
  return bundle.parent_path().string() + "/";
}

}  // namespace

void Application::createSurfaces() {
  Platform& p = platform_;

  probes_ = std::make_unique<HttpHealthProbes>(HttpHealthProbes::Dependencies{
      loop_, *p.http, *p.clock, *p.log, p.dnsResolver.get(), pathMonitor_.get(), clockCheck_.get()});
  health_ = std::make_unique<SmartStatusEngine>(SmartStatusEngine::Dependencies{
      loop_, *p.clock, *p.log, *p.analytics, *p.standardDefaults, *healthPolicy_, *vpn_, home_->machine(), *tunnels_,
      *probes_, pathMonitor_.get(), clockCheck_.get(),
      [modes = modes_.get()] { return backendCode(modes->currentMode().get()); }, &network_->currentResponse(),
      [network = network_.get()] { network->loadMainConfiguration(); }});

  // The widget and the menu bar ask the tunnel state machine, like every front-end.
  TunnelStateMachine& machine = home_->machine();
  auto openWindow = [weak = weakFactory_.weak()] {
    auto* self = weak.lock();
    if (!self) return;
    self->platform_.log->write("[App] открыть окно Norvik");
    self->windowRequested_.emit();
  };
  widget_ = std::make_unique<WidgetCommandCenter>(WidgetCommandCenter::Dependencies{
      loop_, *p.clock, *p.log, *notifications_, *vpn_, *tunnels_, machine, paths_.groupContainer(), openWindow});
  // "Запускать при входе в систему" switches the system's login item; the menu shows what the system says.
  auto setLaunchAtLogin = [weak = weakFactory_.weak(), log = p.log.get(), login = p.loginItem.get()](bool enabled) {
    auto done = login ? login->setEnabled(enabled) : std::expected<void, Error>{};
    if (done) log->format("[App] запуск при входе в систему: {}", enabled ? "вкл" : "выкл");
    if (!done) log->format("[App] запуск при входе в систему: не удалось ({})", done.error().description());
    auto* self = weak.lock();
    if (self && login) self->menuBar_->setLaunchAtLogin(login->isEnabled());
  };
  menuBar_ = std::make_unique<MenuBarModel>(
      *vpn_, MenuBarModel::Handlers{[&machine] { machine.connect(IntentOrigin::menuBar, nullptr); },
                                    [&machine] { machine.disconnect(IntentOrigin::menuBar, nullptr); },
                                    setLaunchAtLogin, openWindow,
                                    [weak = weakFactory_.weak()] {
                                      if (auto* self = weak.lock()) self->installOfferedUpdate();
                                    }});
  if (p.loginItem) menuBar_->setLaunchAtLogin(p.loginItem->isEnabled());

  // The simulated tunnel has no program to activate; the real one activates norvik-tunnel.
  if (tunnelServiceName_ == "wireguard") {
    if (auto helper = findTunnelHelper()) {
      const auto bundle = TunnelHelperExtensionRequests::bundleOfRunningProgram();
      extensionRequests_ = std::make_unique<TunnelHelperExtensionRequests>(
          loop_, TunnelHelperExtensionRequests::Options{bundle, paths_.home / "extensions", *helper,
                                                        applicationsDirectoryFor(bundle)});
      extensions_ = std::make_unique<SystemExtensionManager>(SystemExtensionManager::Dependencies{
          loop_, *extensionRequests_, *vpn_, machine, *p.standardDefaults, *p.log, *p.analytics});
    }
  }
}

void Application::installOfferedUpdate() {
  // A forced update's prompt installs its own release; otherwise the feed's offer.
  if (versionChecker_->installsInApp()) return versionChecker_->pressMainButton();
  if (!updater_) return platform_.log->write("[Update] установка недоступна: нет модуля обновлений");
  if (!updater_->offeredItem()) return updater_->checkForUpdates();
  updater_->installUpdate();
}

void Application::refreshMenuUpdateFacts() {
  MenuBarUpdateFacts facts;
  facts.available = versionChecker_->prompt().get().showUpdateAlert && versionChecker_->installsInApp();
  if (updater_) {
    const AppUpdateState& state = updater_->state().get();
    if (const auto* available = state.as<AppUpdateState::Available>()) {
      facts.available = true;
      facts.version = available->version;
    } else if (const auto* downloading = state.as<AppUpdateState::Downloading>()) {
      facts = {true, downloading->version, true};
    } else if (const auto* extracting = state.as<AppUpdateState::Extracting>()) {
      facts = {true, extracting->version, true};
    } else if (state.is<AppUpdateState::Installing>() || state.is<AppUpdateState::ReadyToInstall>()) {
      facts = {true, std::nullopt, true};
    }
  }
  menuBar_->setUpdateFacts(facts);
}

void Application::startSurfaces() {
  auto weak = weakFactory_.weak();
  // The menu's update items follow the updater and a forced update's prompt.
  refreshMenuUpdateFacts();
  if (updater_) {
    surfaceSubscriptions_.push_back(updater_->state().subscribe([weak](const AppUpdateState&) {
      if (auto* self = weak.lock()) self->refreshMenuUpdateFacts();
    }));
  }
  surfaceSubscriptions_.push_back(versionChecker_->prompt().subscribe([weak](const UpdatePrompt&) {
    if (auto* self = weak.lock()) self->refreshMenuUpdateFacts();
  }));
  if (extensions_) {
    surfaceSubscriptions_.push_back(extensions_->updateNotice().subscribe([weak](const std::string& text) {
      if (auto* self = weak.lock()) self->overlays_->showToast("sysext_update", text);
    }));
    extensions_->activateOnLaunch();
  }

  // The health check's dialogs go through the overlay queue; their buttons come back to it.
  surfaceSubscriptions_.push_back(health_->dialogRequested().subscribe([weak](const SmartStatusDialogRequest& request) {
    auto* self = weak.lock();
    if (!self) return;
    auto button = [weak](std::string title, SmartStatusDialogAction action) {
      return OverlayButton{std::move(title), [weak, action] {
                             if (auto* owner = weak.lock()) owner->health_->perform(action);
                           }};
    };
    OverlayItem item{OverlayItem::Kind::dialog, request.identifier, request.texts.title, request.texts.message, {}};
    item.buttons.push_back(button(request.texts.primary, request.primary));
    if (!request.texts.secondary.empty()) item.buttons.push_back(button(request.texts.secondary, request.secondary));
    self->overlays_->enqueue(std::move(item));
  }));
  // "SmartStatusChangeServer": the user pressed the dialog's button.
  surfaceSubscriptions_.push_back(health_->changeServerRequested().subscribe([weak] {
    if (auto* self = weak.lock()) self->home_->machine().changeServer(IntentOrigin::healthDialog, nullptr);
  }));
  surfaceSubscriptions_.push_back(health_->healthRaw().subscribe([weak](const std::optional<std::string>& raw) {
    if (auto* self = weak.lock()) self->widget_->setHealth(raw);
  }));
  surfaceSubscriptions_.push_back(home_->operation().subscribe([weak](const VPNViewModel::Operation& operation) {
    if (auto* self = weak.lock()) self->widget_->setBusy(operation != VPNViewModel::Operation::none);
  }));
  surfaceSubscriptions_.push_back(vpn_->connectionState().subscribe([weak](const TunnelStatus& status) {
    auto* self = weak.lock();
    if (!self) return;
    if ((status == TunnelStatus::connected || status == TunnelStatus::reasserting) && !self->trafficPollRunning_) {
      self->trafficPollRunning_ = true;
      self->pollTraffic();
      self->trafficTimer_.startAligned(self->loop_, kTrafficPollPeriod, [weak] {
        if (auto* owner = weak.lock()) owner->pollTraffic();
      });
    } else if (isDown(status) && self->trafficPollRunning_) {
      self->trafficPollRunning_ = false;
      self->trafficTimer_.stop();
      self->widget_->setTraffic(std::nullopt, std::nullopt);
    }
  }));

  health_->start();
  widget_->start();
}

void Application::stopSurfaces() {
  surfaceSubscriptions_.clear();
  trafficTimer_.stop();
  trafficPollRunning_ = false;
  if (widget_) widget_->stop();
  if (health_) health_->stop();
}

void Application::pollTraffic() {
  const auto& manager = vpn_->tunnelManager();
  if (!manager) return;
  tunnels_->fetchTelemetry(manager->identifier, [weak = weakFactory_.weak()](
                                                    std::expected<TunnelTelemetry, Error> telemetry) {
    auto* self = weak.lock();
    if (!self || !telemetry || !self->trafficPollRunning_) return;
    self->widget_->setTraffic(formatTrafficAmount(telemetry->receivedBytes), formatTrafficAmount(telemetry->sentBytes));
  });
}

}  // namespace norvik
