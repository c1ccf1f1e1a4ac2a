#include "health/physical_path_monitor.h"

#include <mutex>

#include <gtest/gtest.h>

#include "testing/fake_physical_path_source.h"
#include "testing/fakes.h"

namespace norvik {
namespace {

using Type = NetworkInterfaceType;

NetworkPath wifiPath(std::vector<std::string> gateways = {"192.168.1.1"}) {
  NetworkPath path;
  path.status = NetworkPathStatus::satisfied;
  path.availableInterfaces = {{"wlan0", Type::wifi, 3}, {"eth0", Type::wiredEthernet, 2}};
  path.gateways = std::move(gateways);
  return path;
}

// A monitor over the fake source. The fake delivers on the test thread; the monitor compares on
// its own queue, so each step flushes the queue before looking.
class PhysicalPathMonitorTest : public ::testing::Test {
 protected:
  void TearDown() override { monitor.stop(); }

  void startRecording() {
    ASSERT_TRUE(monitor.start([this](const PhysicalPath& path) {
      std::lock_guard lock(mutex);
      changes.push_back(path);
      calledOnQueue = calledOnQueue && monitor.queue().isCurrent();
    }));
  }
  void setPath(NetworkPath path) {
    source.setPath(std::move(path));
    monitor.flush();
  }
  std::size_t changeCount() {
    std::lock_guard lock(mutex);
    return changes.size();
  }

  testing::CapturingLog log;
  testing::FakePhysicalPathSource source;
  PhysicalPathMonitor monitor{source, log};
  std::mutex mutex;
  std::vector<PhysicalPath> changes;
  bool calledOnQueue = true;
};

TEST_F(PhysicalPathMonitorTest, TheFirstPathIsABaselineThatIsLoggedButNotReported) {
  source.setPath(wifiPath());
  startRecording();
  monitor.flush();

  EXPECT_EQ(changeCount(), 0u);
  EXPECT_TRUE(
      log.hasLine("[SmartStatus] physical path baseline: status=satisfied interfaces=[eth0, wlan0] "
                  "gateways=[192.168.1.1] cellular=false expensive=false constrained=false"))
      << log.lines().at(0);
  // Virtual interfaces are not watched at all.
  EXPECT_EQ(source.lastOptions().prohibitedInterfaceTypes, std::vector<Type>{Type::other});
}

TEST_F(PhysicalPathMonitorTest, OnlyStatusInterfaceSetAndGatewayOrderAreChanges) {
  startRecording();
  setPath(wifiPath({"192.168.1.1", "fe80::1"}));

  NetworkPath hotspot = wifiPath({"192.168.1.1", "fe80::1"});
  hotspot.isExpensive = true;  // same Wi-Fi, now a personal hotspot
  setPath(hotspot);
  NetworkPath reordered = hotspot;
  std::swap(reordered.availableInterfaces[0], reordered.availableInterfaces[1]);
  setPath(reordered);
  EXPECT_EQ(changeCount(), 0u);
  EXPECT_FALSE(log.contains("physical path changed"));

  setPath(wifiPath({"fe80::1", "192.168.1.1"}));
  ASSERT_EQ(changeCount(), 1u);
  EXPECT_EQ(changes[0].gateways, (std::vector<std::string>{"fe80::1", "192.168.1.1"}));
  EXPECT_EQ(log.count("[SmartStatus] physical path changed: status=satisfied"), 1u);

  NetworkPath lost;
  lost.unsatisfiedReason = "notAvailable";
  setPath(lost);
  ASSERT_EQ(changeCount(), 2u);
  EXPECT_EQ(changes[1].status, PhysicalPathStatus::unsatisfied);
  EXPECT_EQ(changes[1].unsatisfiedReasonRaw, "notAvailable");
  EXPECT_TRUE(calledOnQueue);
  EXPECT_EQ(monitor.queue().label(), "com.Quillon.smartstatus.path");
}

TEST_F(PhysicalPathMonitorTest, StopForgetsTheBaselineAndSilencesTheMonitor) {
  source.setPath(wifiPath());
  startRecording();
  monitor.flush();
  monitor.stop();
  EXPECT_FALSE(source.isStarted());
  EXPECT_FALSE(monitor.currentPath().has_value());
  source.setPath(wifiPath({"10.0.0.1"}));  // not delivered: the source is stopped
  EXPECT_EQ(changeCount(), 0u);

  // A new start measures from a new baseline, even though the path differs from the old one.
  startRecording();
  monitor.flush();
  EXPECT_EQ(changeCount(), 0u);
  EXPECT_EQ(log.count("[SmartStatus] physical path baseline: "), 2u);
}

TEST_F(PhysicalPathMonitorTest, ConvertsOnlyPhysicalInterfacesAndAnswersSynchronousQuestions) {
  NetworkPath path;
  path.status = NetworkPathStatus::satisfied;
  path.availableInterfaces = {{"wwan0", Type::cellular, 4}, {"lo", Type::loopback, 1}, {"wlan0", Type::wifi, 3}};
  path.isExpensive = true;
  path.unsatisfiedReason = "stale";  // only an unsatisfied path keeps its reason
  source.setPath(path);
  startRecording();

  const auto current = monitor.currentPath();
  ASSERT_TRUE(current.has_value());
  EXPECT_EQ(current->interfaceNames, (std::set<std::string>{"wlan0", "wwan0"}));
  EXPECT_TRUE(current->isCellular);
  EXPECT_TRUE(current->isExpensive);
  EXPECT_FALSE(current->unsatisfiedReasonRaw.has_value());
  EXPECT_EQ(monitor.interfaceName(Type::wifi), "wlan0");
  EXPECT_FALSE(monitor.interfaceName(Type::wiredEthernet).has_value());
  EXPECT_EQ(monitor.preferredInterfaceName(), "wwan0");

  path.availableInterfaces = {{"lo", Type::loopback, 1}, {"eth0", Type::wiredEthernet, 2}};
  source.setPath(path);
  EXPECT_EQ(monitor.preferredInterfaceName(), "eth0") << "loopback never carries a probe";
  monitor.stop();
  EXPECT_FALSE(monitor.preferredInterfaceName().has_value());
}

TEST_F(PhysicalPathMonitorTest, ASourceThatCannotStartLeavesTheMonitorStoppedWithALogLine) {
  source.failNextStart(Error{"POSIX", EMFILE, "netlink socket: Too many open files"});
  EXPECT_FALSE(monitor.start([](const PhysicalPath&) {}));
  EXPECT_FALSE(monitor.isRunning());
  EXPECT_EQ(log.count("[SmartStatus] physical path monitor could not start: "), 1u);
  startRecording();  // the next attempt works
  EXPECT_TRUE(monitor.isRunning());
}

TEST(PhysicalPathMonitorPosting, ChangesReachTheMainLoopAsPosts) {
  testing::VirtualEventLoop loop;
  testing::CapturingLog log;
  testing::FakePhysicalPathSource source;
  PhysicalPathMonitor monitor(source, log);
  std::vector<PhysicalPath> onLoop;
  bool alwaysOnLoop = true;
  ASSERT_TRUE(monitor.start(PhysicalPathMonitor::postingTo(loop, [&](const PhysicalPath& path) {
    alwaysOnLoop = alwaysOnLoop && loop.isLoopThread();
    onLoop.push_back(path);
  })));
  source.setPath(wifiPath());
  source.setPath(wifiPath({"10.0.0.1"}));
  monitor.flush();
  EXPECT_TRUE(onLoop.empty());  // nothing runs on the loop until it turns

  loop.runUntilIdle();
  ASSERT_EQ(onLoop.size(), 1u);
  EXPECT_EQ(onLoop[0].gateways, std::vector<std::string>{"10.0.0.1"});
  EXPECT_TRUE(alwaysOnLoop);
  monitor.stop();
}

}  // namespace
}  // namespace norvik
