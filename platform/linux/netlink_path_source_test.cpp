#include "platform/linux/netlink_path_source.h"

#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <linux/if_arp.h>
#include <linux/if_tun.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "testing/fakes.h"
#include "testing/subprocess.h"
#include "testing/temp_dir.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using netlink_path::assemblePath;
using netlink_path::classifyInterface;
using netlink_path::DefaultRoute;
using netlink_path::Link;
using Type = NetworkInterfaceType;

TEST(NetlinkClassifyInterface, WhatAUserCallsWifiCellularOrWiredIsPhysicalTheRestIsNot) {
  EXPECT_EQ(classifyInterface(ARPHRD_ETHER, "", ""), Type::wiredEthernet);
  EXPECT_EQ(classifyInterface(ARPHRD_ETHER, "", "wlan"), Type::wifi);
  EXPECT_EQ(classifyInterface(ARPHRD_ETHER, "", "wwan"), Type::cellular);
  EXPECT_EQ(classifyInterface(ARPHRD_NONE, "wwan", ""), Type::cellular);
  EXPECT_EQ(classifyInterface(ARPHRD_RAWIP, "", ""), Type::cellular);
  EXPECT_EQ(classifyInterface(ARPHRD_ETHER, "veth", ""), Type::wiredEthernet);
  EXPECT_EQ(classifyInterface(ARPHRD_LOOPBACK, "", ""), Type::loopback);
  // Virtual devices, even the Ethernet-shaped ones.
  EXPECT_EQ(classifyInterface(ARPHRD_NONE, "wireguard", ""), Type::other);
  EXPECT_EQ(classifyInterface(ARPHRD_NONE, "tun", ""), Type::other);
  EXPECT_EQ(classifyInterface(ARPHRD_ETHER, "tun", ""), Type::other);  // a tap device
  EXPECT_EQ(classifyInterface(ARPHRD_ETHER, "bridge", "bridge"), Type::other);
  EXPECT_EQ(classifyInterface(ARPHRD_ETHER, "dummy", ""), Type::other);
  EXPECT_EQ(classifyInterface(ARPHRD_ETHER, "vlan", "vlan"), Type::other);
  EXPECT_EQ(classifyInterface(ARPHRD_PPP, "", ""), Type::other);
}

Link up(int index, std::string name, Type type) { return Link{index, std::move(name), type, true, true, false}; }

TEST(NetlinkAssemblePath, DefaultRouteInterfacesComeFirstInRouteOrderThenTheRestByIndex) {
  const std::vector<Link> links = {up(2, "eth0", Type::wiredEthernet), up(3, "wlan0", Type::wifi),
                                   up(4, "eth1", Type::wiredEthernet)};
  const std::vector<DefaultRoute> routes = {{3, "192.168.1.1"}, {2, "10.0.0.1"}, {3, "fe80::1"}};
  const NetworkPath path = assemblePath(links, {2, 3, 4}, routes, {});

  EXPECT_EQ(path.status, NetworkPathStatus::satisfied);
  ASSERT_EQ(path.availableInterfaces.size(), 3u);
  EXPECT_EQ(path.availableInterfaces[0].name, "wlan0");
  EXPECT_EQ(path.availableInterfaces[1].name, "eth0");
  EXPECT_EQ(path.availableInterfaces[2].name, "eth1");
  EXPECT_EQ(path.gateways, (std::vector<std::string>{"192.168.1.1", "10.0.0.1", "fe80::1"}));
  EXPECT_FALSE(path.unsatisfiedReason.has_value());
  EXPECT_FALSE(path.isExpensive);
}

TEST(NetlinkAssemblePath, AProhibitedTunnelWithTheFirstDefaultRouteIsInvisible) {
  const std::vector<Link> links = {up(2, "eth0", Type::wiredEthernet), up(9, "wg0", Type::other)};
  const std::vector<DefaultRoute> routes = {{9, ""}, {2, "10.0.0.1"}};
  PhysicalPathSourceOptions options;
  options.prohibitedInterfaceTypes = {Type::other};

  const NetworkPath path = assemblePath(links, {2, 9}, routes, options);
  ASSERT_EQ(path.availableInterfaces.size(), 1u);
  EXPECT_EQ(path.availableInterfaces[0].name, "eth0");
  EXPECT_EQ(path.gateways, std::vector<std::string>{"10.0.0.1"});

  // With the wired route gone, the tunnel's route does not keep the path satisfied.
  const NetworkPath tunnelOnly = assemblePath(links, {2, 9}, {{9, ""}}, options);
  EXPECT_EQ(tunnelOnly.status, NetworkPathStatus::unsatisfied);
  EXPECT_EQ(tunnelOnly.unsatisfiedReason, "noDefaultRoute");
}

TEST(NetlinkAssemblePath, InterfacesThatCannotCarryThePathAreLeftOut) {
  Link down = up(2, "eth0", Type::wiredEthernet);
  down.up = false;
  Link noCarrier = up(3, "eth1", Type::wiredEthernet);
  noCarrier.running = false;
  Link bridgePort = up(4, "veth7", Type::wiredEthernet);
  bridgePort.enslaved = true;
  const Link noAddress = up(5, "wlan0", Type::wifi);

  const NetworkPath path =
      assemblePath({down, noCarrier, bridgePort, noAddress}, {2, 3, 4}, {{2, "10.0.0.1"}, {3, "10.0.1.1"}}, {});
  EXPECT_TRUE(path.availableInterfaces.empty());
  EXPECT_TRUE(path.gateways.empty());
  EXPECT_EQ(path.status, NetworkPathStatus::unsatisfied);
  EXPECT_EQ(path.unsatisfiedReason, "notAvailable");
}

TEST(NetlinkAssemblePath, ACellularPreferredInterfaceMakesThePathExpensive) {
  const NetworkPath path =
      assemblePath({up(2, "wwan0", Type::cellular), up(3, "wlan0", Type::wifi)}, {2, 3}, {{2, ""}}, {});
  EXPECT_EQ(path.status, NetworkPathStatus::satisfied);
  EXPECT_TRUE(path.isExpensive);
  EXPECT_TRUE(path.gateways.empty());  // a route straight out of the modem has no gateway
}

// ---------------------------------------------------------------------------------------------
// Against the kernel, in a network namespace of the test's own (root only).

// Collects what the source delivers, for waiting on from the namespace thread.
class Deliveries {
 public:
  void add(const NetworkPath& path) {
    std::lock_guard lock(mutex_);
    paths_.push_back(path);
    changed_.notify_all();
  }
  // Waits (real time: the kernel is real) until there are `count` paths; false on time-out.
  bool waitFor(std::size_t count, std::chrono::milliseconds limit = 5s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return paths_.size() >= count; });
  }
  std::size_t count() {
    std::lock_guard lock(mutex_);
    return paths_.size();
  }
  NetworkPath last() {
    std::lock_guard lock(mutex_);
    return paths_.back();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<NetworkPath> paths_;
};

std::optional<std::string> ipTool() {
  for (const char* candidate : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"}) {
    if (::access(candidate, X_OK) == 0) return candidate;
  }
  return std::nullopt;
}

std::vector<std::string> names(const NetworkPath& path) {
  std::vector<std::string> out;
  out.reserve(path.availableInterfaces.size());
  for (const auto& i : path.availableInterfaces) out.push_back(i.name);
  return out;
}

// A tun device kept open, so that it has a carrier like a live tunnel does. Closed on destruction.
int openTun(const char* name) {
  const int fd = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
  if (fd < 0) return -1;
  ifreq request{};
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
  if (::ioctl(fd, TUNSETIFF, &request) < 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

class NetlinkPathSourceInNamespaceTest : public ::testing::Test {
 protected:
  // Runs `commands` in one `ip -batch`, so that they reach the kernel as one burst.
  void ipBatch(const std::string& commands) {
    const auto file = dir_.path() / "batch";
    std::ofstream(file) << commands;
    const auto result = testing::runProcess({*ip_, "-batch", file.string()});
    ASSERT_EQ(result.exitStatus, 0) << commands << "\n" << result.err;
  }

  // One step: the batches, run one after the other as separate processes, must give exactly one
  // new path, and no other within a quiet while.
  NetworkPath expectOneChange(Deliveries& seen, const std::vector<std::string>& batches) {
    const std::size_t before = seen.count();
    for (const auto& commands : batches) ipBatch(commands);
    const std::string all = fmt::format("{}", fmt::join(batches, "--\n"));
    EXPECT_TRUE(seen.waitFor(before + 1)) << "no path after:\n" << all;
    std::this_thread::sleep_for(600ms);  // longer than the source's longest debounce
    EXPECT_EQ(seen.count(), before + 1) << "more than one path after:\n" << all;
    return seen.count() > before ? seen.last() : NetworkPath{};
  }

  std::optional<std::string> ip_ = ipTool();
  testing::TempDir dir_;
  testing::CapturingLog log_;
};

TEST_F(NetlinkPathSourceInNamespaceTest, SeesAVethAndItsDefaultRoutesComeAndGoOneChangeAtATime) {
  if (::geteuid() != 0) GTEST_SKIP() << "a network namespace of our own needs root";
  if (!ip_) GTEST_SKIP() << "the ip tool (iproute2) is not installed";

  std::string skipped;
  // Network namespaces belong to threads: this one moves into a new one; the source's sockets are
  // opened here, and the ip tool it starts inherits the namespace.
  std::thread inNamespace([&] {
    if (::unshare(CLONE_NEWNET) != 0) {
      skipped = std::string("unshare(CLONE_NEWNET): ") + std::strerror(errno);
      return;
    }
    Deliveries seen;
    NetlinkPathSource source(log_);
    PhysicalPathSourceOptions options;
    options.prohibitedInterfaceTypes = {Type::other};
    ASSERT_TRUE(source.start(options, [&](const NetworkPath& p) { seen.add(p); }).has_value());

    // A fresh namespace has only its loopback, and that is down.
    ASSERT_TRUE(seen.waitFor(1));
    EXPECT_EQ(seen.last().status, NetworkPathStatus::unsatisfied);
    EXPECT_TRUE(seen.last().availableInterfaces.empty());
    EXPECT_EQ(seen.last().unsatisfiedReason, "notAvailable");

    // A wired link with an address: available, but no way out yet. (veth1 has no address, so only
    // veth0 can carry the path.)
    NetworkPath path = expectOneChange(seen, {"link add veth0 type veth peer name veth1\n"
                                              "link set veth1 up\n"
                                              "addr add 10.77.0.1/24 dev veth0\n"
                                              "link set veth0 up\n"});
    EXPECT_EQ(path.status, NetworkPathStatus::unsatisfied);
    EXPECT_EQ(names(path), std::vector<std::string>{"veth0"});
    EXPECT_EQ(path.availableInterfaces.at(0).type, Type::wiredEthernet);
    EXPECT_EQ(path.unsatisfiedReason, "noDefaultRoute");

    // Two default routes, added by two processes in quick succession (one burst, so one path) and
    // worst metric first: the kernel orders them by metric.
    path = expectOneChange(seen, {"route add default via 10.77.0.3 dev veth0 metric 200\n",
                                  "route add default via 10.77.0.2 dev veth0 metric 100\n"});
    EXPECT_EQ(path.status, NetworkPathStatus::satisfied);
    EXPECT_EQ(path.gateways, (std::vector<std::string>{"10.77.0.2", "10.77.0.3"}));
    EXPECT_EQ(names(path), std::vector<std::string>{"veth0"});
    EXPECT_EQ(source.currentPath(), path);

    // A live tunnel taking the best default route changes nothing about the physical path.
    const int tun = openTun("tun7");
    if (tun >= 0) {
      const std::size_t before = seen.count();
      ipBatch("addr add 10.99.0.1/24 dev tun7\nlink set tun7 up\nroute add default dev tun7 metric 50\n");
      std::this_thread::sleep_for(700ms);
      EXPECT_EQ(seen.count(), before) << "the tunnel showed in the physical path";
    }

    path = expectOneChange(
        seen, {"route del default via 10.77.0.2 dev veth0\n", "route del default via 10.77.0.3 dev veth0\n"});
    EXPECT_EQ(path.status, NetworkPathStatus::unsatisfied);
    EXPECT_TRUE(path.gateways.empty());
    EXPECT_EQ(names(path), std::vector<std::string>{"veth0"});

    path = expectOneChange(seen, {"link del veth0\n"});
    EXPECT_TRUE(path.availableInterfaces.empty());
    EXPECT_EQ(path.unsatisfiedReason, "notAvailable");

    // Once stopped, changes are not delivered.
    source.stop();
    EXPECT_FALSE(source.currentPath().has_value());
    const std::size_t atStop = seen.count();
    ipBatch(
        "link add veth2 type veth peer name veth3\naddr add 10.78.0.1/24 dev veth2\n"
        "link set veth3 up\nlink set veth2 up\n");
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(seen.count(), atStop);
    if (tun >= 0) ::close(tun);
  });
  inNamespace.join();
  if (!skipped.empty()) GTEST_SKIP() << skipped;
  EXPECT_FALSE(log_.contains("[PathMonitor]")) << log_.lines().front();
}

TEST(NetlinkPathSource, StartingTwiceFailsAndStopWithoutStartDoesNothing) {
  testing::CapturingLog log;
  NetlinkPathSource source(log);
  source.stop();
  ASSERT_TRUE(source.start({}, [](const NetworkPath&) {}).has_value());
  auto again = source.start({}, [](const NetworkPath&) {});
  ASSERT_FALSE(again.has_value());
  EXPECT_EQ(again.error().code, EALREADY);
  source.stop();
  source.stop();
}

}  // namespace
}  // namespace norvik
