#pragma once

#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/property_list.h"
#include "platform/published.h"

namespace norvik {

// The system's tunnel states, in the system's order.
enum class TunnelStatus { invalid, disconnected, connecting, connected, reasserting, disconnecting };

[[nodiscard]] std::string_view toString(TunnelStatus status);

// A session runs: it is coming up, up, or finding its way again. What a stop acts on.
[[nodiscard]] constexpr bool isLive(TunnelStatus status) {
  return status == TunnelStatus::connecting || status == TunnelStatus::connected || status == TunnelStatus::reasserting;
}
// Nothing runs and nothing is on its way down.
[[nodiscard]] constexpr bool isDown(TunnelStatus status) {
  return status == TunnelStatus::disconnected || status == TunnelStatus::invalid;
}

// Errors of the tunnel service carry this domain and one of these codes.
inline constexpr std::string_view kNEVPNErrorDomain = "NEVPNErrorDomain";
enum class NEVPNErrorCode : int {
  configurationInvalid = 1,
  configurationDisabled = 2,
  connectionFailed = 3,
  configurationStale = 4,
  configurationReadWriteFailed = 5,
  configurationUnknown = 6,
};
[[nodiscard]] Error makeNEVPNError(NEVPNErrorCode code, std::string message = {});

// A rule that keeps the tunnel up on demand. The product only ever uses "connect on any interface".
struct OnDemandRule {
  enum class Action { connect, disconnect };
  enum class InterfaceType { any, wifi, cellular, ethernet };
  Action action = Action::connect;
  InterfaceType interfaceTypeMatch = InterfaceType::any;
  bool operator==(const OnDemandRule&) const = default;
};

// The protocol of a packet-tunnel configuration: which tunnel program serves it and what it is given.
struct TunnelProviderProtocol {
  std::string providerBundleIdentifier;
  std::optional<std::string> serverAddress{};
  PropertyDictionary providerConfiguration{};
  bool operator==(const TunnelProviderProtocol&) const = default;
};

// One tunnel configuration as the system keeps it (the system's "manager"). `identifier` and
// `revision` belong to the service: the identifier is given at the first save, and the revision
// grows with every save, so that saving a copy older than the stored one fails as stale.
struct TunnelConfiguration {
  std::string identifier{};
  std::uint64_t revision = 0;
  std::optional<std::string> localizedDescription{};
  bool isEnabled = false;
  bool isOnDemandEnabled = false;
  std::vector<OnDemandRule> onDemandRules{};
  // Absent, the configuration has no packet-tunnel session to start.
  std::optional<TunnelProviderProtocol> protocolConfiguration{};
  bool operator==(const TunnelConfiguration&) const = default;
};

// What the tunnel program reports about a running session: the last completed handshake with the
// server, and the bytes carried each way.
struct TunnelTelemetry {
  std::optional<Clock::TimePoint> lastHandshake{};
  std::uint64_t receivedBytes = 0;
  std::uint64_t sentBytes = 0;
  std::optional<std::string> interfaceName{};  // the tunnel's network interface, when it has one
  bool operator==(const TunnelTelemetry&) const = default;
};

// The system's tunnel configurations and their sessions, shaped after the operating system's VPN
// preferences: load all, save, reload one, remove; start a session with options, stop it, and
// watch its status. Every completion runs on the main loop, exactly once. Status changes are
// delivered on the main loop too, in the order they happen.
//
// Only one session runs at a time: starting one configuration stops another that runs.
class TunnelService {
 public:
  using ConfigurationsCompletion =
      std::move_only_function<void(std::expected<std::vector<TunnelConfiguration>, Error>)>;
  using ConfigurationCompletion = std::move_only_function<void(std::expected<TunnelConfiguration, Error>)>;
  using DoneCompletion = std::move_only_function<void(std::expected<void, Error>)>;
  using StatusObserver = std::function<void(const std::string& identifier, TunnelStatus status)>;
  using TelemetryCompletion = std::move_only_function<void(std::expected<TunnelTelemetry, Error>)>;

  virtual ~TunnelService() = default;

  virtual void loadAllFromPreferences(ConfigurationsCompletion completion) = 0;
  // Saves `configuration` and answers with the stored copy (its identifier and new revision).
  // An unsaved configuration (empty identifier) is created. Fails with configurationStale when the
  // stored revision is newer than the copy's, and configurationInvalid when the identifier is unknown.
  virtual void saveToPreferences(TunnelConfiguration configuration, ConfigurationCompletion completion) = 0;
  virtual void loadFromPreferences(std::string identifier, ConfigurationCompletion completion) = 0;
  virtual void removeFromPreferences(std::string identifier, DoneCompletion completion) = 0;

  // Starts the session of a saved configuration. The outcome of the start comes later as status
  // changes; the answer here says only whether the start was accepted (configurationDisabled for
  // a disabled one, configurationInvalid for an unknown one or one without a tunnel protocol).
  [[nodiscard]] virtual std::expected<void, Error> startVPNTunnel(const std::string& identifier,
                                                                  const PropertyDictionary& options) = 0;
  virtual void stopVPNTunnel(const std::string& identifier) = 0;
  [[nodiscard]] virtual TunnelStatus status(const std::string& identifier) const = 0;
  // When the running session of `identifier` reached connected, if it did.
  [[nodiscard]] virtual std::optional<Clock::TimePoint> connectedDate(const std::string& identifier) const = 0;
  // Why the last session of `identifier` ended, when the tunnel program ended it on its own.
  [[nodiscard]] virtual std::optional<Error> lastDisconnectError(const std::string& identifier) const = 0;
  // Asks the tunnel program of a running session for its telemetry (a provider message on the
  // original system). Fails with connectionFailed when no session of `identifier` runs.
  virtual void fetchTelemetry(const std::string& identifier, TelemetryCompletion completion) = 0;

  [[nodiscard]] virtual Subscription observeStatus(StatusObserver observer) = 0;
};

}  // namespace norvik
