#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/command.h"
#include "backend/network_service.h"
#include "backend/security_manager.h"
#include "connection/overlay_queue.h"
#include "connection/vpn_view_model.h"
#include "health/device_clock_check.h"
#include "health/health_probes.h"
#include "health/physical_path_monitor.h"
#include "health/smart_status_engine.h"
#include "health/smart_status_policy_store.h"
#include "platform/app_paths.h"
#include "platform/linux/asio_event_loop.h"
#include "platform/linux/linux_tunnel_service.h"
#include "platform/named_notifications.h"
#include "platform/platform.h"
#include "platform/tunnel_service.h"
#include "platform/weak_ptr_factory.h"
#include "routing/geoip_cache.h"
#include "routing/ios_fixes.h"
#include "routing/modes_store.h"
#include "routing/service_catalog_store.h"
#include "routing/tunnel_extras_snapshot.h"
#include "tunnel/menu_bar_model.h"
#include "tunnel/system_extension_manager.h"
#include "tunnel/vpn_manager.h"
#include "tunnel/widget_command_center.h"
#include "update/app_updater.h"
#include "update/app_version_checker.h"
#include "update/update_installer.h"

namespace norvik {

class NetworkReturnWatch;
class WakeDetector;

struct ApplicationOptions {
  AppPaths paths;
  std::optional<std::string> backend;                 // base URL instead of the built-in one
  std::optional<std::filesystem::path> caFile;        // an extra trusted CA
  std::optional<std::filesystem::path> provisioning;  // the deployment's keys
  bool logToStderr = true;
  // How long the simulated tunnel takes to connect.
  std::chrono::milliseconds simulatedConnectDelay{300};
  // Which tunnel service runs the sessions (platform/linux/linux_tunnel_service.h).
  TunnelServiceKind tunnel = TunnelServiceKind::automatic;
  // The in-app updater's feed; unset: the built-in hosts, or the backend's own host when
  // `backend` names one (updaterConfigFor).
  std::optional<AppUpdaterConfig> updater{};
  // Called when an installed update has put the new application in place: the host ends the run
  // so that the new one takes over.
  std::function<void()> quit{};
};

// The updater settings of an application: the options' own, else the feed of the backend host
// the application was pointed at (its "/linux/appcast.xml", no mirror), else this system's
// built-in feed and mirror.
[[nodiscard]] AppUpdaterConfig updaterConfigFor(const ApplicationOptions& options);

// The application: every part of the client, wired in the order the product starts. It owns
// them all and lends them to one another; the main loop it is given runs them.
//
// Start-up: the device identity is read once (and again after a wake from sleep), the tunnel
// manager loads the system's configurations and publishes its state, the last main
// configuration is published from the cache, and the network's is asked for. Every part that
// follows the main configuration subscribes before the first one is published.
//
// Threading: the main loop's thread.
class Application {
 public:
  [[nodiscard]] static std::expected<std::unique_ptr<Application>, cli::CommandError> create(
      AsioEventLoop& loop, const ApplicationOptions& options);

  // What the host lends the application: its services, the cross-process notifications and the
  // tunnel service (which may refer to the first two; their objects keep their addresses when
  // the bundle moves). create() brings the Linux ones; a host on another loop (virtual time, the
  // fuzz target) brings its own and calls assemble().
  struct Adapters {
    Platform platform;
    std::unique_ptr<NamedNotificationCenter> notifications;
    std::unique_ptr<TunnelService> tunnels;
    std::string tunnelServiceName;
  };
  [[nodiscard]] static std::expected<std::unique_ptr<Application>, cli::CommandError> assemble(
      EventLoop& loop, const ApplicationOptions& options, Adapters adapters);
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;
  ~Application();

  void start();
  // Stops timers and watchers; the loop can then end.
  void shutDown();

  [[nodiscard]] EventLoop& loop() { return loop_; }
  [[nodiscard]] const AppPaths& paths() const { return paths_; }
  [[nodiscard]] Platform& platform() { return platform_; }
  [[nodiscard]] NetworkService& network() { return *network_; }
  [[nodiscard]] VPNManager& vpn() { return *vpn_; }
  [[nodiscard]] VPNViewModel& home() { return *home_; }
  [[nodiscard]] OverlayQueue& overlays() { return *overlays_; }
  [[nodiscard]] ModesStore& modes() { return *modes_; }
  [[nodiscard]] ServiceCatalogStore& sites() { return *sites_; }
  [[nodiscard]] SmartStatusPolicyStore& healthPolicy() { return *healthPolicy_; }
  [[nodiscard]] DeviceClockCheck& clockCheck() { return *clockCheck_; }
  [[nodiscard]] NamedNotificationCenter& notifications() { return *notifications_; }
  [[nodiscard]] TunnelService& tunnelService() { return *tunnels_; }
  [[nodiscard]] std::string_view tunnelServiceName() const { return tunnelServiceName_; }
  [[nodiscard]] SecurityManager& security() { return *security_; }
  [[nodiscard]] SmartStatusEngine& health() { return *health_; }
  [[nodiscard]] WidgetCommandCenter& widget() { return *widget_; }
  [[nodiscard]] MenuBarModel& menuBar() { return *menuBar_; }
  [[nodiscard]] AppVersionChecker& versionChecker() { return *versionChecker_; }
  // Null when this platform cannot download or run an installer.
  [[nodiscard]] AppUpdater* updater() { return updater_.get(); }
  // A page the user asked to open (the update prompt's main button, a link): a front-end opens it.
  [[nodiscard]] Signal<std::string>& pageToOpen() { return pageToOpen_; }
  // "norvikvpn://widget/open", "Открыть Norvik": the front-ends bring the main window forward.
  [[nodiscard]] Signal<>& windowRequested() { return windowRequested_; }
  // The menu's "Обновить …": a forced update's release, else the feed's offer (looked for first
  // when nothing is offered yet).
  void installOfferedUpdate();
  // Null with the simulated tunnel, which has no helper program to activate.
  [[nodiscard]] SystemExtensionManager* extensions() { return extensions_.get(); }

  // How often the widget's traffic figures follow the tunnel's counters while it is up.
  static constexpr std::chrono::seconds kTrafficPollPeriod{5};

 private:
  Application(EventLoop& loop, AppPaths paths);

  // The health check, the widget, the menu bar and the extension (application_surfaces.cpp).
  void createSurfaces();
  void startSurfaces();
  void stopSurfaces();
  void pollTraffic();
  void refreshMenuUpdateFacts();
  // The in-app updater and its ties to the version check and the menu bar (application.cpp).
  void createUpdater(const ApplicationOptions& options, const std::optional<std::string>& feedKey);

  EventLoop& loop_;
  AppPaths paths_;
  Platform platform_;
  std::unique_ptr<NamedNotificationCenter> notifications_;
  std::unique_ptr<SecurityManager> security_;
  std::unique_ptr<VendorIDWarmUp> warmUp_;
  std::unique_ptr<WakeDetector> wake_;
  std::unique_ptr<NetworkReturnWatch> networkReturn_;
  std::unique_ptr<NetworkService> network_;
  std::unique_ptr<TunnelService> tunnels_;
  std::string tunnelServiceName_;
  std::unique_ptr<ModesStore> modes_;
  std::unique_ptr<ServiceCatalogStore> sites_;
  std::unique_ptr<GeoIPCache> geoip_;
  std::unique_ptr<IOSFixesCache> flags_;
  std::unique_ptr<TunnelExtrasSnapshot> extras_;
  std::unique_ptr<VPNManager> vpn_;
  std::unique_ptr<OverlayQueue> overlays_;
  std::unique_ptr<VPNViewModel> home_;
  std::unique_ptr<PhysicalPathMonitor> pathMonitor_;
  std::unique_ptr<SmartStatusPolicyStore> healthPolicy_;
  std::unique_ptr<DeviceClockCheck> clockCheck_;
  std::unique_ptr<AppVersionChecker> versionChecker_;
  std::unique_ptr<UpdateInstaller> updateInstaller_;
  std::unique_ptr<AppUpdater> updater_;
  Signal<std::string> pageToOpen_;
  Signal<> windowRequested_;
  std::unique_ptr<HttpHealthProbes> probes_;
  std::unique_ptr<SmartStatusEngine> health_;
  std::unique_ptr<SystemExtensionRequests> extensionRequests_;
  std::unique_ptr<SystemExtensionManager> extensions_;
  std::unique_ptr<WidgetCommandCenter> widget_;
  std::unique_ptr<MenuBarModel> menuBar_;
  RepeatingTimer trafficTimer_;
  bool trafficPollRunning_ = false;
  Subscription modeNotice_;
  Subscription smartNotice_;
  std::vector<Subscription> sitesSubscriptions_;
  std::vector<Subscription> surfaceSubscriptions_;
  WeakPtrFactory<Application> weakFactory_{this};
};

}  // namespace norvik
