#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/log.h"
#include "platform/physical_path_source.h"

namespace norvik {

// The network path on Linux, from rtnetlink: the link, address and route groups of the kernel's
// own change feed, nothing polled.
//
// The path is rebuilt from dumps of the kernel's links, addresses and routes whenever the feed
// reports something, after the burst has gone quiet for `quietPeriod` (or `maxDelay` after its first
// message at the latest): bringing up a Wi-Fi link sends a dozen messages, the user sees one change.
// A rebuilt path equal to the last one delivered is not delivered again.
//
// What counts (see docs/health.md): an interface is available when it is up, has a carrier, is
// nobody's bridge or bond port, and holds an address of global or site scope. Its type comes from the
// kernel's link kind and the device type in sysfs: Wi-Fi ("wlan"), cellular ("wwan", raw-IP modems),
// wired (plain Ethernet devices, and veth so that network namespaces can exercise it), loopback, and
// other (tunnels, WireGuard, bridges, dummies, VLANs, PPP…). The gateways are those of the main
// table's unicast default routes out of available interfaces, IPv4 then IPv6, in the kernel's
// order (by metric). The path is satisfied when such a default route exists.
//
// Threading: sockets are opened in start(), in the calling thread's network namespace; a worker
// thread of the source's own reads the feed and calls the handler. currentPath() is thread-safe.
class NetlinkPathSource final : public PhysicalPathSource {
 public:
  struct Options {
    std::chrono::milliseconds quietPeriod{150};
    std::chrono::milliseconds maxDelay{400};
  };

  explicit NetlinkPathSource(Log& log) : NetlinkPathSource(log, Options{}) {}
  NetlinkPathSource(Log& log, Options options);
  NetlinkPathSource(const NetlinkPathSource&) = delete;
  NetlinkPathSource& operator=(const NetlinkPathSource&) = delete;
  ~NetlinkPathSource() override;

  [[nodiscard]] std::expected<void, Error> start(PhysicalPathSourceOptions options, Handler handler) override;
  void stop() override;
  [[nodiscard]] std::optional<NetworkPath> currentPath() const override;

 private:
  void run(PhysicalPathSourceOptions options, Handler handler);
  // Dumps links, addresses and routes and builds the path; retried when a dump is interrupted.
  [[nodiscard]] std::expected<NetworkPath, Error> observe(const PhysicalPathSourceOptions& options);
  void closeSockets();

  Log& log_;
  const Options options_;
  int eventSocket_ = -1;
  int requestSocket_ = -1;
  int stopEvent_ = -1;
  std::uint32_t sequence_ = 0;  // worker thread only
  std::thread worker_;
  mutable std::mutex mutex_;
  std::optional<NetworkPath> current_;
};

// The pieces the path is built from, public for tests.
namespace netlink_path {

struct Link {
  int index = 0;
  std::string name;
  NetworkInterfaceType type = NetworkInterfaceType::other;
  bool up = false;        // administratively up
  bool running = false;   // carrier present (operationally up)
  bool enslaved = false;  // a bridge or bond port
};

struct DefaultRoute {
  int outputIndex = 0;
  std::string gateway;  // empty for a route straight out of the interface
};

// `hardwareType` is the ARPHRD_* type, `kind` the rtnetlink link kind ("veth", "wireguard", …;
// empty for a plain device driver), `deviceType` the DEVTYPE of sysfs ("wlan", "wwan", …; empty
// when unknown).
[[nodiscard]] NetworkInterfaceType classifyInterface(unsigned hardwareType, std::string_view kind,
                                                     std::string_view deviceType);

// Builds the path from links, the indexes of links holding a usable address, and the default
// routes in kernel order.
[[nodiscard]] NetworkPath assemblePath(const std::vector<Link>& links, const std::set<int>& addressed,
                                       const std::vector<DefaultRoute>& routes,
                                       const PhysicalPathSourceOptions& options);

}  // namespace netlink_path
}  // namespace norvik
