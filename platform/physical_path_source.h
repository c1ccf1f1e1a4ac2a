#pragma once

#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"

namespace norvik {

// The system's verdict on a network path, as its path monitor gives it.
enum class NetworkPathStatus {
  satisfied,           // traffic can flow: an interface with a default route is up
  unsatisfied,         // no usable interface, or none with a default route
  requiresConnection,  // usable once an on-demand connection is brought up
};

// What kind of link an interface is. A user would call the first three Wi-Fi, cellular and wired;
// `other` covers tunnels, WireGuard, bridges, dummies and every other virtual device.
enum class NetworkInterfaceType {
  wifi,
  cellular,
  wiredEthernet,
  loopback,
  other,
};

[[nodiscard]] constexpr std::string_view toString(NetworkPathStatus status) {
  switch (status) {
    case NetworkPathStatus::satisfied:
      return "satisfied";
    case NetworkPathStatus::unsatisfied:
      return "unsatisfied";
    case NetworkPathStatus::requiresConnection:
      return "requiresConnection";
    default:
      return "unknown";
  }
}

[[nodiscard]] constexpr std::string_view toString(NetworkInterfaceType type) {
  switch (type) {
    case NetworkInterfaceType::wifi:
      return "wifi";
    case NetworkInterfaceType::cellular:
      return "cellular";
    case NetworkInterfaceType::wiredEthernet:
      return "wiredEthernet";
    case NetworkInterfaceType::loopback:
      return "loopback";
    case NetworkInterfaceType::other:
      return "other";
    default:
      return "unknown";
  }
}

struct NetworkInterface {
  std::string name;
  NetworkInterfaceType type = NetworkInterfaceType::other;
  int index = 0;  // the system's interface index
  bool operator==(const NetworkInterface&) const = default;
};

// One observation of the network path, plain data.
struct NetworkPath {
  NetworkPathStatus status = NetworkPathStatus::unsatisfied;
  // Interfaces that can carry the path (up, with a carrier and an address), the preferred first:
  // those with a default route in the system's route order, then the rest by index.
  std::vector<NetworkInterface> availableInterfaces{};
  // Gateways of the default routes, as text, in the system's route order.
  std::vector<std::string> gateways{};
  bool isExpensive = false;
  bool isConstrained = false;
  // The system's reason for an unsatisfied path, as text; absent for a satisfied one.
  std::optional<std::string> unsatisfiedReason{};
  bool operator==(const NetworkPath&) const = default;
};

struct PhysicalPathSourceOptions {
  // Interfaces of these types are invisible to the path: they are neither listed nor can they
  // make it satisfied. Prohibiting `other` leaves out the tunnel's own virtual interfaces.
  std::vector<NetworkInterfaceType> prohibitedInterfaceTypes{};
};

// Watches the system's network path.
//
// Call order: start() → handler calls … → stop(); start() again afterwards begins a new watch.
// start() while started fails. After a successful start() the handler is called once soon with
// the current path, then once for each change of the path (a burst of system events for one change
// gives one call). Calls come from a thread of the source's own, one at a time, and never after
// stop() has returned. stop() must not be called from inside the handler. A source may be started
// and stopped from any one thread at a time; currentPath() may be called from any thread.
class PhysicalPathSource {
 public:
  using Handler = std::function<void(const NetworkPath&)>;

  virtual ~PhysicalPathSource() = default;

  [[nodiscard]] virtual std::expected<void, Error> start(PhysicalPathSourceOptions options, Handler handler) = 0;
  // Does nothing when not started.
  virtual void stop() = 0;
  // The latest path while started; nothing when stopped or before the first observation.
  [[nodiscard]] virtual std::optional<NetworkPath> currentPath() const = 0;
};

}  // namespace norvik
