#pragma once

// What the health engine's tests stand on: virtual time, the simulated tunnel under a real
// VPNManager, a telemetry tap that a test can script, probes that answer as scripted, and the
// policy store fed with a "smart_status" object.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "health/device_clock_check.h"
#include "health/health_probes.h"
#include "health/physical_path_monitor.h"
#include "health/smart_status_engine.h"
#include "health/smart_status_policy_store.h"
#include "platform/simulated_tunnel_service.h"
#include "testing/direct_tunnel_intents.h"
#include "testing/fake_named_notifications.h"
#include "testing/fake_physical_path_source.h"
#include "testing/fakes.h"
#include "tunnel/vpn_manager.h"

namespace norvik::testing {

// The tunnel service the engine asks for telemetry: the simulated one, unless a test scripts the
// answers or makes them hang. Everything else passes through.
class TelemetryTap final : public TunnelService {
 public:
  using Script = std::function<std::expected<TunnelTelemetry, Error>()>;

  TelemetryTap(EventLoop& loop, TunnelService& inner) : loop_(loop), inner_(inner) {}

  void loadAllFromPreferences(ConfigurationsCompletion c) override { inner_.loadAllFromPreferences(std::move(c)); }
  void saveToPreferences(TunnelConfiguration t, ConfigurationCompletion c) override {
    inner_.saveToPreferences(std::move(t), std::move(c));
  }
  void loadFromPreferences(std::string id, ConfigurationCompletion c) override {
    inner_.loadFromPreferences(std::move(id), std::move(c));
  }
  void removeFromPreferences(std::string id, DoneCompletion c) override {
    inner_.removeFromPreferences(std::move(id), std::move(c));
  }
  std::expected<void, Error> startVPNTunnel(const std::string& id, const PropertyDictionary& o) override {
    return inner_.startVPNTunnel(id, o);
  }
  void stopVPNTunnel(const std::string& id) override { inner_.stopVPNTunnel(id); }
  TunnelStatus status(const std::string& id) const override { return inner_.status(id); }
  std::optional<Clock::TimePoint> connectedDate(const std::string& id) const override {
    return inner_.connectedDate(id);
  }
  std::optional<Error> lastDisconnectError(const std::string& id) const override {
    return inner_.lastDisconnectError(id);
  }
  Subscription observeStatus(StatusObserver o) override { return inner_.observeStatus(std::move(o)); }

  void fetchTelemetry(const std::string& id, TelemetryCompletion completion) override {
    ++fetches;
    if (hang) {
      parked_.push_back(std::move(completion));
      return;
    }
    if (!script) return inner_.fetchTelemetry(id, std::move(completion));
    loop_.post([completion = std::move(completion), answer = script()]() mutable { completion(std::move(answer)); });
  }

  int fetches = 0;
  bool hang = false;  // requests are never answered
  Script script;

 private:
  EventLoop& loop_;
  TunnelService& inner_;
  std::vector<TelemetryCompletion> parked_;
};

// Probes that answer as the test says, after `latency` of loop time.
class ScriptedProbes final : public HealthProbes {
 public:
  explicit ScriptedProbes(EventLoop& loop) : loop_(loop) {}

  void probeOutside(const SmartStatusPolicy&, OutsideDone done) override {
    ++outsideCalls;
    loop_.postAfter(latency, [done = std::move(done), r = outside]() mutable { done(r); });
  }
  void probeInternet(const SmartStatusPolicy&, ReachedDone done) override {
    ++internetCalls;
    loop_.postAfter(
        latency, [done = std::move(done), r = outside.ruReachable || outside.foreignReachable]() mutable { done(r); });
  }
  void probeTunnel(const SmartStatusPolicy&, std::optional<std::string> interfaceName, ReachedDone done) override {
    tunnelInterfaces.push_back(std::move(interfaceName));
    loop_.postAfter(tunnelLatency, [done = std::move(done), r = tunnel]() mutable { done(r); });
  }

  OutsideProbeResult outside{true, true};
  bool tunnel = true;
  EventLoop::Duration latency = std::chrono::milliseconds(200);
  EventLoop::Duration tunnelLatency = std::chrono::milliseconds(200);
  int outsideCalls = 0;
  int internetCalls = 0;
  std::vector<std::optional<std::string>> tunnelInterfaces;

 private:
  EventLoop& loop_;
};

// The whole stack under the engine, on virtual time.
struct HealthStack {
  static constexpr const char* kKey = "[Interface]\nPrivateKey = a2V5\n[Peer]\nEndpoint = 203.0.113.10:51820";

  explicit HealthStack(HealthProbes* probesInUse = nullptr) : probesInUse_(probesInUse) {
    NetworkPath path;
    path.status = NetworkPathStatus::satisfied;
    path.availableInterfaces = {{"eth0", NetworkInterfaceType::wiredEthernet, 2}};
    path.gateways = {"192.168.1.1"};
    paths.setPath(path);
    vpn->start();
    loop.runUntilIdle();
  }

  // Feeds a main configuration whose "smart_status" is `smartStatus` (none: without one).
  void usePolicy(std::optional<nlohmann::json> smartStatus) {
    MainConfig main;
    main.smartStatus = std::move(smartStatus);
    store.accept(main);
  }

  // Makes the engine after the stack; start() follows the policy and the tunnel.
  SmartStatusEngine& makeEngine() {
    engine = std::make_unique<SmartStatusEngine>(SmartStatusEngine::Dependencies{
        loop, clock, log, analytics, standard, store, *vpn, intents, tap, probesInUse_ ? *probesInUse_ : probes,
        &pathMonitor, &clockCheck, [this] { return modeCode; }, &responses, [this] { ++reloads; }});
    engine->start();
    return *engine;
  }

  void connect() {
    if (service.configurations().empty()) {
      bool installed = false;
      vpn->installKey(kKey, [&](auto r) { installed = r.has_value(); });
      loop.runUntil([&] { return installed; });
    }
    vpn->connect([](auto) {});
    loop.runUntil([&] { return vpn->connectionState().get() == TunnelStatus::connected; });
  }

  // The physical network changes under the tunnel.
  void changePath(std::string gateway) {
    NetworkPath path;
    path.status = NetworkPathStatus::satisfied;
    path.availableInterfaces = {{"wlan0", NetworkInterfaceType::wifi, 3}};
    path.gateways = {std::move(gateway)};
    paths.setPath(path);
    pathMonitor.flush();
    loop.runUntilIdle();
  }

  [[nodiscard]] std::string id() const { return service.configurations().front().identifier; }
  [[nodiscard]] SmartStatusHealth::Case kind() const { return engine->health().get().kind(); }
  [[nodiscard]] std::size_t restarts() const { return log.count("silentTunnelRestart: start"); }

  VirtualEventLoop loop;
  VirtualClock clock{loop};
  CapturingLog log;
  CapturingAnalytics analytics;
  MemoryDefaults group;
  MemoryDefaults standard;
  FakeNamedNotifications notifications{loop};
  SimulatedTunnelService service{loop, clock, log, &notifications, {}};
  TelemetryTap tap{loop, service};
  std::unique_ptr<VPNManager> vpn = std::make_unique<VPNManager>(
      VPNManager::Dependencies{loop, service, notifications, group, standard, clock, log, analytics, {}});
  DirectTunnelIntents intents{loop, *vpn};
  FakePhysicalPathSource paths;
  PhysicalPathMonitor pathMonitor{paths, log};
  SmartStatusPolicyStore store{log, standard, clock, &pathMonitor};
  DeviceClockCheck clockCheck{loop, log};
  ScriptedProbes probes{loop};
  Published<std::shared_ptr<const APIResponse>> responses;
  std::int64_t modeCode = 0;
  int reloads = 0;
  std::unique_ptr<SmartStatusEngine> engine;

 private:
  HealthProbes* probesInUse_;
};

}  // namespace norvik::testing
