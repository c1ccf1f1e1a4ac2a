#include "platform/simulated_tunnel_service.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "testing/fake_named_notifications.h"
#include "testing/fakes.h"
#include "testing/temp_dir.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

class SimulatedTunnelServiceTest : public ::testing::Test {
 protected:
  std::unique_ptr<SimulatedTunnelService> make() {
    SimulatedTunnelService::Options options;
    options.storeFile = dir_ / "tunnel" / "preferences.json";
    return std::make_unique<SimulatedTunnelService>(loop_, clock_, log_, &notifications_, options);
  }

  TunnelConfiguration save(TunnelConfiguration configuration) {
    std::optional<std::expected<TunnelConfiguration, Error>> result;
    service_->saveToPreferences(std::move(configuration), [&](auto r) { result = std::move(r); });
    loop_.runUntilIdle();
    EXPECT_TRUE(result && result->has_value());
    return result && result->has_value() ? **result : TunnelConfiguration{};
  }

  Error saveFails(TunnelConfiguration configuration) {
    std::optional<std::expected<TunnelConfiguration, Error>> result;
    service_->saveToPreferences(std::move(configuration), [&](auto r) { result = std::move(r); });
    loop_.runUntilIdle();
    EXPECT_TRUE(result && !result->has_value());
    return result && !result->has_value() ? result->error() : Error{};
  }

  static TunnelConfiguration norvik(bool enabled = true) {
    TunnelConfiguration c;
    c.localizedDescription = "Norvik";
    c.isEnabled = enabled;
    c.protocolConfiguration =
        TunnelProviderProtocol{"com.norvik.macos.tunnel", "203.0.113.10", {{"wgQuickConfig", "[Interface]"}}};
    return c;
  }

  testing::TempDir dir_;
  testing::VirtualEventLoop loop_;
  testing::VirtualClock clock_{loop_};
  testing::CapturingLog log_;
  testing::FakeNamedNotifications notifications_{loop_};
  std::unique_ptr<SimulatedTunnelService> service_ = make();
  std::vector<TunnelStatus> statuses_;
  Subscription watch_ = service_->observeStatus([this](const std::string&, TunnelStatus s) { statuses_.push_back(s); });
};

TEST_F(SimulatedTunnelServiceTest, SavesGiveIdentitiesAndRefuseStaleCopies) {
  const TunnelConfiguration stored = save(norvik());
  EXPECT_FALSE(stored.identifier.empty());
  EXPECT_EQ(stored.revision, 1u);

  TunnelConfiguration newer = stored;
  newer.isOnDemandEnabled = true;
  EXPECT_EQ(save(newer).revision, 2u);
  const Error stale = saveFails(stored);  // still revision 1
  EXPECT_EQ(stale.domain, "NEVPNErrorDomain");
  EXPECT_EQ(stale.code, 4);

  std::optional<std::expected<void, Error>> removed;
  service_->removeFromPreferences(stored.identifier, [&](auto r) { removed = r; });
  loop_.runUntilIdle();
  ASSERT_TRUE(removed && removed->has_value());
  EXPECT_EQ(saveFails(newer).code, 1) << "a removed configuration is invalid";
}

// A save that cannot reach the disk fails with the system's reason, and the configuration stays
// as it was, in memory and after a restart.
TEST_F(SimulatedTunnelServiceTest, ASaveThatCannotBeWrittenFailsWithTheReasonAndKeepsTheOldConfiguration) {
  TunnelConfiguration first = save(norvik());
  // Something that is no file where the temporary copy goes: the write cannot happen.
  ASSERT_TRUE(std::filesystem::create_directory(dir_ / "tunnel" / "preferences.json.tmp"));
  TunnelConfiguration changed = first;
  changed.protocolConfiguration->serverAddress = "198.51.100.7";
  const Error error = saveFails(changed);
  EXPECT_EQ(error.domain, "POSIX");
  EXPECT_EQ(error.code, EISDIR);
  EXPECT_TRUE(log_.contains("[Tunnel] настройки туннеля не сохранены: "));

  std::filesystem::remove(dir_ / "tunnel" / "preferences.json.tmp");
  auto restarted = make();
  std::optional<std::expected<std::vector<TunnelConfiguration>, Error>> loaded;
  restarted->loadAllFromPreferences([&](auto r) { loaded = std::move(r); });
  loop_.runUntilIdle();
  ASSERT_TRUE(loaded && loaded->has_value() && (*loaded)->size() == 1u);
  EXPECT_EQ((*loaded)->front().protocolConfiguration->serverAddress, "203.0.113.10");
  EXPECT_EQ((*loaded)->front().revision, first.revision);
}

TEST_F(SimulatedTunnelServiceTest, AStartGoesThroughConnectingToConnectedAfterTheDelay) {
  const TunnelConfiguration stored = save(norvik());
  ASSERT_TRUE(service_->startVPNTunnel(stored.identifier, {{"vpnInAPP", "yes"}}).has_value());
  loop_.runUntilIdle();
  EXPECT_EQ(service_->status(stored.identifier), TunnelStatus::connecting);
  loop_.advance(299ms);
  EXPECT_EQ(service_->status(stored.identifier), TunnelStatus::connecting);
  loop_.advance(1ms);
  EXPECT_EQ(service_->status(stored.identifier), TunnelStatus::connected);
  EXPECT_EQ(statuses_, (std::vector<TunnelStatus>{TunnelStatus::connecting, TunnelStatus::connected}));
  EXPECT_EQ(service_->connectedDate(stored.identifier), clock_.now());
  EXPECT_EQ(service_->startOptions().back().at("vpnInAPP"), PropertyValue("yes"));
}

TEST_F(SimulatedTunnelServiceTest, StartsThatTheSystemRefusesCarryItsCodes) {
  const TunnelConfiguration disabled = save(norvik(/*enabled=*/false));
  auto refused = service_->startVPNTunnel(disabled.identifier, {});
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(refused.error().code, 2);
  TunnelConfiguration bare;
  bare.isEnabled = true;
  EXPECT_EQ(service_->startVPNTunnel(save(bare).identifier, {}).error().code, 1) << "no tunnel protocol";
  EXPECT_EQ(service_->startVPNTunnel("unknown", {}).error().code, 1);
}

TEST_F(SimulatedTunnelServiceTest, OnDemandBringsAStoppedTunnelBackAndTheTunnelPostsItsStop) {
  TunnelConfiguration c = norvik();
  c.isOnDemandEnabled = true;
  c.onDemandRules = {OnDemandRule{}};
  const TunnelConfiguration stored = save(c);
  ASSERT_TRUE(service_->startVPNTunnel(stored.identifier, {}).has_value());
  loop_.advance(1s);
  service_->stopVPNTunnel(stored.identifier);
  loop_.advance(100ms);
  EXPECT_EQ(service_->status(stored.identifier), TunnelStatus::disconnected);
  EXPECT_EQ(notifications_.postCount("com.norvik.macos.tunnel.userstop"), 1u);
  loop_.advance(1300ms);
  EXPECT_EQ(service_->status(stored.identifier), TunnelStatus::connected) << "on-demand restarted it";

  // The system's own switch ends on-demand as well.
  service_->stopFromSystemControls(stored.identifier);
  loop_.advance(10s);
  EXPECT_EQ(service_->status(stored.identifier), TunnelStatus::disconnected);
}

TEST_F(SimulatedTunnelServiceTest, AFailedConnectEndsWithTheTunnelsError) {
  const TunnelConfiguration stored = save(norvik());
  service_->failNextConnect(makeNEVPNError(NEVPNErrorCode::connectionFailed));
  ASSERT_TRUE(service_->startVPNTunnel(stored.identifier, {}).has_value());
  loop_.advance(1s);
  EXPECT_EQ(statuses_, (std::vector<TunnelStatus>{TunnelStatus::connecting, TunnelStatus::disconnected}));
  ASSERT_TRUE(service_->lastDisconnectError(stored.identifier).has_value());
  EXPECT_EQ(service_->lastDisconnectError(stored.identifier)->code, 3);
  EXPECT_EQ(notifications_.postCount("com.norvik.macos.tunnel.userstop"), 0u);
}

TEST_F(SimulatedTunnelServiceTest, ConfigurationsSurviveARestartAndADamagedFileIsSetAside) {
  const TunnelConfiguration stored = save(norvik());
  service_ = make();
  ASSERT_EQ(service_->configurations().size(), 1u);
  EXPECT_EQ(service_->configurations()[0], stored);

  // Entries that are not objects, or whose fields have another type, as an editor or a torn copy
  // leaves them: set aside every time, never a failed start.
  for (const std::string damaged :
       {R"({"configurations": [7]})", R"({"configurations": [{"identifier": "1", "enabled": "yes"}]})",
        R"({"configurations": [{"identifier": "1", "onDemandRules": [{"interface": "wifi"}]}]})",
        R"({"configurations": [{"identifier": "1", "protocol": {"providerBundleIdentifier": 5}}]})"}) {
    std::filesystem::remove(dir_ / "tunnel" / "preferences.json.damaged");
    ASSERT_TRUE(writeFileAtomically(dir_ / "tunnel" / "preferences.json", damaged));
    service_ = make();
    EXPECT_TRUE(service_->configurations().empty()) << damaged;
    EXPECT_TRUE(std::filesystem::exists(dir_ / "tunnel" / "preferences.json.damaged")) << damaged;
  }
  EXPECT_TRUE(log_.contains("[Tunnel] настройки туннеля повреждены"));

  // A counter of another type is read as missing: the entries it came with are kept.
  service_ = make();
  const TunnelConfiguration kept = save(norvik());
  auto text = readFile(dir_ / "tunnel" / "preferences.json").value();
  auto document = nlohmann::json::parse(text);
  document["nextIdentifier"] = nullptr;
  ASSERT_TRUE(writeFileAtomically(dir_ / "tunnel" / "preferences.json", document.dump()));
  service_ = make();
  ASSERT_EQ(service_->configurations().size(), 1u);
  EXPECT_NE(save(norvik()).identifier, kept.identifier);
}

TEST_F(SimulatedTunnelServiceTest, TelemetryShowsFlowingTrafficAndAStallThatAges) {
  const TunnelConfiguration stored = save(norvik());
  auto fetch = [&] {
    std::optional<std::expected<TunnelTelemetry, Error>> result;
    service_->fetchTelemetry(stored.identifier, [&](auto r) { result = std::move(r); });
    loop_.runUntilIdle();
    return *result;
  };
  EXPECT_FALSE(fetch().has_value()) << "no session";
  ASSERT_TRUE(service_->startVPNTunnel(stored.identifier, {}).has_value());
  loop_.advance(300ms);
  const auto connectedAt = clock_.now();
  loop_.advance(10s);
  auto flowing = fetch();
  ASSERT_TRUE(flowing.has_value());
  EXPECT_EQ(flowing->lastHandshake, connectedAt);
  EXPECT_GT(flowing->receivedBytes, 100'000u);

  service_->setTrafficFlows(false);
  (void)fetch();  // the stall starts now
  loop_.advance(5min);
  auto stalled = fetch();
  EXPECT_EQ(stalled->lastHandshake, connectedAt) << "no handshake since the stall";
  EXPECT_EQ(stalled->receivedBytes, flowing->receivedBytes) << "no bytes since the stall";
}

}  // namespace
}  // namespace norvik
