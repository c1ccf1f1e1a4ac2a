// The tunnel's on-demand rule after the network comes back: the watch alone on virtual time, then
// the whole agent (testing/agent_host.h) losing its tunnel with the network.
#include "app/network_return_watch.h"

#include <gtest/gtest.h>

#include "platform/error.h"
#include "testing/agent_host.h"
#include "testing/fake_physical_path_source.h"
#include "testing/fakes.h"
#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::AgentHost;

NetworkPath path(NetworkPathStatus status, std::vector<NetworkInterface> interfaces = {},
                 std::vector<std::string> gateways = {}) {
  NetworkPath p;
  p.status = status;
  p.availableInterfaces = std::move(interfaces);
  p.gateways = std::move(gateways);
  return p;
}

NetworkInterface wifi() { return {"wlan0", NetworkInterfaceType::wifi, 3}; }
NetworkInterface cable() { return {"eth0", NetworkInterfaceType::wiredEthernet, 2}; }
NetworkInterface tunnelInterface() { return {"norvik0", NetworkInterfaceType::other, 9}; }

TEST(NetworkReturnWatch, ReportsAReturnOrAMoveToAnotherNetworkButNeverTheFirstPathOrTheTunnelItself) {
  testing::VirtualEventLoop loop;
  testing::CapturingLog log;
  testing::FakePhysicalPathSource source;
  std::vector<std::string> returns;
  NetworkReturnWatch watch(loop, source, log, [&](std::string_view why) { returns.emplace_back(why); });

  source.setPath(path(NetworkPathStatus::satisfied, {wifi()}, {"192.168.1.1"}));
  ASSERT_TRUE(watch.start());
  loop.runUntilIdle();
  EXPECT_TRUE(returns.empty()) << "the network as found at start is no return";

  // The tunnel's own interface coming up changes nothing the watch sees.
  source.setPath(path(NetworkPathStatus::satisfied, {wifi(), tunnelInterface()}, {"192.168.1.1"}));
  loop.runUntilIdle();
  EXPECT_TRUE(returns.empty());

  source.setPath(path(NetworkPathStatus::unsatisfied));
  loop.runUntilIdle();
  EXPECT_TRUE(returns.empty()) << "losing the network is not a return";
  source.setPath(path(NetworkPathStatus::satisfied, {wifi()}, {"192.168.1.1"}));
  loop.runUntilIdle();
  EXPECT_EQ(returns, (std::vector<std::string>{"сеть вернулась"}));

  source.setPath(path(NetworkPathStatus::satisfied, {cable(), wifi()}, {"10.0.0.1", "192.168.1.1"}));
  loop.runUntilIdle();
  EXPECT_EQ(returns.back(), "сеть сменилась");

  // A path on its way when the watch stops is dropped; a stopped watch reports nothing.
  source.setPath(path(NetworkPathStatus::unsatisfied));
  source.setPath(path(NetworkPathStatus::satisfied, {wifi()}, {"192.168.1.1"}));
  watch.stop();
  loop.runUntilIdle();
  EXPECT_EQ(returns.size(), 2u);
  EXPECT_FALSE(source.isStarted());
}

TEST(NetworkReturnWatch, ASystemThatRefusesToWatchIsLoggedAndLeavesTheAgentToWakes) {
  testing::VirtualEventLoop loop;
  testing::CapturingLog log;
  testing::FakePhysicalPathSource source;
  source.failNextStart(Error{"netlink", 1, "socket: Operation not permitted"});
  NetworkReturnWatch watch(loop, source, log, [](std::string_view) {});
  EXPECT_FALSE(watch.start());
  EXPECT_TRUE(log.contains("[on-demand] сеть не отслеживается: "));
}

class OnDemandAgentTest : public ::testing::Test {
 protected:
  Json ask(const Json& request) { return host_.ask(request); }
  std::string tunnel() { return ask({{"command", "status"}})["status"].value("tunnel", ""); }

  // The network drops and the tunnel with it; the tunnel cannot come back by itself.
  void loseTheNetworkAndTheTunnel() {
    host_.networkReturns().setPath(path(NetworkPathStatus::unsatisfied));
    const std::string identifier = host_.tunnels().configurations().front().identifier;
    host_.tunnels().endSessionFromTunnel(identifier, Error{"tunnel", 1, "network is unreachable"});
    host_.advance(5s);
  }
  void networkComesBack() {
    host_.networkReturns().setPath(path(NetworkPathStatus::satisfied, {wifi()}, {"192.168.1.1"}));
    host_.advance(5s);
  }

  AgentHost host_;
};

TEST_F(OnDemandAgentTest, WithOnDemandATunnelLostWithTheNetworkComesBackWhenTheNetworkDoes) {
  Defaults& group = *host_.app().platform().groupDefaults;
  group.setBool("routing.onDemandEnabled", true);
  group.setInteger("iosFixes.selfHealMaxPerDay", 0);  // no repair of its own: only the network brings it back
  host_.networkReturns().setPath(path(NetworkPathStatus::satisfied, {wifi()}, {"192.168.1.1"}));
  ASSERT_EQ(ask({{"command", "connect"}})["status"]["tunnel"], "connected");

  loseTheNetworkAndTheTunnel();
  EXPECT_EQ(tunnel(), "disconnected");
  networkComesBack();
  EXPECT_TRUE(host_.log().contains("[Intent] сеть вернулась: VPN по требованию — поднимаем туннель снова"));
  EXPECT_EQ(tunnel(), "connected");

  // After the user's own disconnect the network's return brings nothing up.
  ASSERT_EQ(ask({{"command", "disconnect"}})["status"]["tunnel"], "disconnected");
  host_.networkReturns().setPath(path(NetworkPathStatus::unsatisfied));
  networkComesBack();
  EXPECT_EQ(tunnel(), "disconnected");
}

TEST_F(OnDemandAgentTest, WithoutOnDemandTheLostTunnelWaitsForTheUser) {
  Defaults& group = *host_.app().platform().groupDefaults;
  group.setBool("routing.onDemandEnabled", false);
  group.setInteger("iosFixes.selfHealMaxPerDay", 0);
  host_.networkReturns().setPath(path(NetworkPathStatus::satisfied, {wifi()}, {"192.168.1.1"}));
  ASSERT_EQ(ask({{"command", "connect"}})["status"]["tunnel"], "connected");
  loseTheNetworkAndTheTunnel();
  networkComesBack();
  EXPECT_EQ(tunnel(), "disconnected");
  EXPECT_EQ(ask({{"command", "status"}})["status"].value("intent", ""), "on") << "the user's word stands";
}

}  // namespace
}  // namespace norvik
