// The real tunnel as a user gets it (tunnel_lab.h): the agent and the command line on the user's
// side, two WireGuard servers on the provider's. Runs as root only; skips otherwise.
#include <gtest/gtest.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tunnel_helper/tunnel_lab.h"

namespace norvik::tunnel_helper {
namespace {

using namespace std::chrono_literals;
using namespace lab;
using Json = nlohmann::json;
using testing::waitFor;

using TunnelEndToEndTest = TunnelLabTest;

TEST_F(TunnelEndToEndTest, ConnectCarriesTrafficSmartModeBypassesChangeServerMovesAndDisconnectRestores) {
  const std::string before = routingState();
  const std::string resolversBefore = clientResolvConf();
  // Only what comes out of one of the tunnels reaches the service; the GeoIP address takes anything.
  const int serviceA = inNamespace(server_, [&] { return listenOn(kServiceAddress, wgA_); });
  const int serviceB = inNamespace(server_, [&] { return listenOn(kServiceAddress, wgB_); });
  const int geo = inNamespace(server_, [&] { return listenOn(kGeoAddress, ""); });
  listeners_ = {serviceA, serviceB, geo};
  ASSERT_TRUE(serviceA >= 0 && serviceB >= 0 && geo >= 0);
  EXPECT_EQ(arrivesFrom(client_, kServiceAddress, serviceA), "") << "not reachable without the tunnel";

  startAgent();
  auto status = testing::runProcess(norvikArgv({"status", "--json"}));
  EXPECT_EQ(Json::parse(status.out, nullptr, false).value("tunnelService", ""), "wireguard") << status.out;

  // As a user would, connect once the agent has the GeoIP list (its first download at start).
  ASSERT_TRUE(waitFor([&] { return agent_->output().find("[GeoIP] cache refreshed") != std::string::npos; }, 20s))
      << agent_->output();
  const auto started = std::chrono::steady_clock::now();
  std::string address;
  auto connected = norvikWhileAdmitting({"connect"}, "lab-1", wgA_, &address);
  ASSERT_EQ(connected.exitStatus, 0) << connected.out << agent_->output();
  const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
  (void)std::fprintf(stderr, "connect → connected (a handshake after the server learnt the key): %lld ms\n",
                     static_cast<long long>(took.count()));
  EXPECT_NE(connected.out.find("Norvik — Защищено"), std::string::npos) << connected.out;
  EXPECT_EQ(address, "10.200.1.2");
  EXPECT_NE(clientResolvConf().find("nameserver 10.200.1.1\n"), std::string::npos) << "the key's resolver";

  EXPECT_EQ(arrivesFrom(client_, kServiceAddress, serviceA), address) << agent_->output();
  EXPECT_NE(agent_->output().find("[Tunnel] режим smart: 2 маршрутов в туннель, 0 в обход и список GeoIP после "
                                  "подключения"),
            std::string::npos);
  ASSERT_TRUE(waitFor([&] { return agent_->output().find("[Tunnel] 10000 маршрутов в обход") != std::string::npos; }))
      << agent_->output();
  EXPECT_EQ(arrivesFrom(client_, kGeoAddress, geo), "198.18.0.2") << "smart mode: the GeoIP range goes direct\n"
                                                                  << agent_->output();

  auto changed = norvikWhileAdmitting({"change-server"}, "lab-2", wgB_, &address);
  ASSERT_EQ(changed.exitStatus, 0) << changed.out << agent_->output();
  EXPECT_EQ(address, "10.200.2.2");
  EXPECT_NE(clientResolvConf().find("nameserver 10.200.2.1\n"), std::string::npos) << "the new key's resolver";
  EXPECT_TRUE(waitFor([&] { return arrivesFrom(client_, kServiceAddress, serviceB) == address; }, 10s))
      << agent_->output();

  auto disconnected = testing::runProcess(norvikArgv({"disconnect"}));
  ASSERT_EQ(disconnected.exitStatus, 0) << disconnected.out << disconnected.err;
  const std::string links = run({kIp, "-n", client_, "-br", "link"});
  EXPECT_EQ(links.find("norvik"), std::string::npos) << links;
  EXPECT_EQ(routingState(), before);
  EXPECT_EQ(clientResolvConf(), resolversBefore);
  EXPECT_EQ(arrivesFrom(client_, kServiceAddress, serviceB), "");
  EXPECT_EQ(agent_->stop(), 0);
}

}  // namespace
}  // namespace norvik::tunnel_helper
