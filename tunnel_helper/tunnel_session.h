#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <string>

#include "platform/error.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/weak_ptr_factory.h"
#include "tunnel_helper/routing_plan.h"
#include "tunnel_helper/system_dns.h"
#include "tunnel_helper/uapi.h"

namespace norvik::tunnel_helper {

// The WireGuard device of one session: a userspace WireGuard process and its interface in
// production, an in-memory device in tests.
class WireGuardDevice {
 public:
  virtual ~WireGuardDevice() = default;
  // Creates the interface; answers its name.
  [[nodiscard]] virtual std::expected<std::string, Error> create() = 0;
  // Sends a whole "set" request of the configuration protocol.
  [[nodiscard]] virtual std::expected<void, Error> configure(const std::string& setRequest) = 0;
  [[nodiscard]] virtual std::expected<DeviceState, Error> readState() = 0;
  // Ends the device; its interface, and every route through it, goes with it. Safe to repeat.
  virtual void destroy() = 0;
};

// The system's addresses, routes and rules for the tunnel.
class NetworkConfigurator {
 public:
  virtual ~NetworkConfigurator() = default;
  // Takes away the rules and routes a session that did not end cleanly left behind.
  virtual void removeLeftovers() = 0;
  // Addresses, MTU and link state of the interface, then the tunnel's table, then the rules that
  // send traffic into it (last, so that nothing is steered into an incomplete table).
  [[nodiscard]] virtual std::expected<void, Error> apply(const std::string& interfaceName, const RoutingPlan& plan) = 0;
  // The tunnel carries traffic (its first handshake): what could wait until now follows — the
  // smart mode's bypass routes, whose ranges use the tunnel until then.
  virtual void connected() {}
  // Takes back what apply did: the rules first, then the table. Best effort; safe to repeat.
  virtual void restore() = 0;
};

// Where a session reports to (the application, through the helper's standard output).
class SessionReporter {
 public:
  virtual ~SessionReporter() = default;
  virtual void connecting(const std::string& interfaceName) = 0;
  virtual void connected(const std::string& interfaceName, std::chrono::system_clock::time_point handshake) = 0;
  virtual void telemetry(std::uint64_t id, const std::expected<DeviceState, Error>& state,
                         const std::string& interfaceName) = 0;
  // The session is over: on its own failure, after cleaning up.
  virtual void failed(const Error& error) = 0;
  // The session is over: stopped on request, after cleaning up.
  virtual void stopped() = 0;
};

// What a session applies, all of it worked out and checked before anything on the system changes.
struct PreparedSession {
  std::string setRequest;  // the device configuration (holds the private key: never logged)
  RoutingPlan plan;
};

// One tunnel session of the helper: creates the device, configures it, applies the routing plan,
// makes the plan's DNS servers the machine's resolvers, and reports connecting; connected once the first handshake
// completes; or, when none completes within the handshake time-out, fails with NEVPNErrorDomain connectionFailed.
// Whatever ends the session — a stop, the device ending on its own, a failed step — the resolvers, the rules, the table
// and the device are taken back before the end is reported, so the machine's network is as it was. A plan whose
// resolvers cannot be set fails the session: in full and smart mode every name looked up would otherwise leave beside
// the tunnel.
//
// Threading: a main-loop object. The device and configurator calls are short and made on the loop.
class TunnelSession {
 public:
  struct Options {
    EventLoop::Duration handshakeTimeout = std::chrono::seconds(20);
    EventLoop::Duration pollInterval = std::chrono::milliseconds(200);
  };
  enum class State { idle, connecting, connected, ended };

  TunnelSession(EventLoop& loop, Log& log, WireGuardDevice& device, NetworkConfigurator& network, SystemDns& dns,
                SessionReporter& reporter, Options options);
  TunnelSession(const TunnelSession&) = delete;
  TunnelSession& operator=(const TunnelSession&) = delete;
  ~TunnelSession();

  void start(const PreparedSession& prepared);
  void requestTelemetry(std::uint64_t id);
  void stop();
  // The device ended without being asked (its process died).
  void deviceEnded(const std::string& reason);

  [[nodiscard]] State state() const { return state_; }

 private:
  void poll();
  void finish(std::optional<Error> error);

  EventLoop& loop_;
  Log& log_;
  WireGuardDevice& device_;
  NetworkConfigurator& network_;
  SystemDns& dns_;
  SessionReporter& reporter_;
  Options options_;
  State state_ = State::idle;
  std::string interfaceName_;
  bool dnsApplied_ = false;
  OneShotTimer pollTimer_;
  OneShotTimer deadline_;
  WeakPtrFactory<TunnelSession> weakFactory_{this};
};

}  // namespace norvik::tunnel_helper
