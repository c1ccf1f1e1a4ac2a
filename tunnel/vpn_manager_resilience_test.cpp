#include <gtest/gtest.h>

#include "platform/simulated_tunnel_service.h"
#include "testing/fake_named_notifications.h"
#include "testing/fakes.h"
#include "tunnel/soft_remove_marker.h"
#include "tunnel/vpn_manager.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Status = TunnelStatus;
using Outcome = VPNManager::SoftRemoveOutcome;
using Restart = VPNManager::SilentRestartResult;

constexpr const char* kResilienceKey = "[Interface]\nPrivateKey = a2V5\n[Peer]\nEndpoint = 203.0.113.10:51820";

class VPNManagerResilienceTest : public ::testing::Test {
 protected:
  VPNManagerResilienceTest() { manager_->start(); }

  std::expected<void, Error> install() {
    std::optional<std::expected<void, Error>> result;
    manager_->installKey(kResilienceKey, [&](auto r) { result = std::move(r); });
    loop_.runUntil([&] { return result.has_value(); });
    return *result;
  }

  // Installs, connects and lets the tunnel come up.
  void bringUp() {
    if (service_.configurations().empty()) {
      ASSERT_TRUE(install().has_value());
    }
    manager_->connect([](auto) {});
    loop_.advance(1s);
    ASSERT_EQ(service_.status(id()), Status::connected);
  }

  Outcome softRemove(std::string intent = "logout") {
    std::optional<Outcome> outcome;
    manager_->softRemove(std::move(intent), [&](Outcome o) { outcome = o; });
    loop_.runUntil([&] { return outcome.has_value(); });
    return *outcome;
  }

  // Runs a restart to its end; `took` is how long it ran.
  Restart restart(std::int64_t delayMs, std::int64_t timeoutMs, std::optional<VPNManager::RepairToken> token = {}) {
    std::optional<Restart> result;
    const auto started = loop_.now();
    manager_->silentTunnelRestart(token.value_or(manager_->repairToken()), delayMs, timeoutMs,
                                  [&](Restart r) { result = std::move(r); });
    loop_.runUntil([&] { return result.has_value(); });
    took = loop_.now() - started;
    return *result;
  }

  // The tunnel program ends the session on its own.
  void drop() {
    service_.endSessionFromTunnel(id(), makeNEVPNError(NEVPNErrorCode::connectionFailed));
    loop_.runUntilIdle();
  }

  std::string id() const { return service_.configurations().front().identifier; }
  const TunnelConfiguration& stored() const { return service_.configurations().front(); }

  testing::VirtualEventLoop loop_;
  testing::VirtualClock clock_{loop_};
  testing::CapturingLog log_;
  testing::CapturingAnalytics analytics_;
  testing::MemoryDefaults group_;
  testing::MemoryDefaults standard_;
  testing::FakeNamedNotifications notifications_{loop_};
  SimulatedTunnelService service_{loop_, clock_, log_, &notifications_, {}};
  std::unique_ptr<VPNManager> manager_ = std::make_unique<VPNManager>(
      VPNManager::Dependencies{loop_, service_, notifications_, group_, standard_, clock_, log_, analytics_, {}});
  EventLoop::Duration took{};
};

// --- Soft removal ---

TEST_F(VPNManagerResilienceTest, SoftRemovalKeepsAKeylessDisabledConfigurationThatTheNextInstallRefills) {
  group_.setInteger("iosFixes.keySoftDelete", 1);
  group_.setBool("routing.onDemandEnabled", true);
  bringUp();
  const std::string kept = id();

  EXPECT_EQ(softRemove(), Outcome::markerSaved);
  loop_.advance(5s);
  EXPECT_TRUE(log_.hasLine("Soft-remove: stopping live tunnel before save (status: connected)"));
  EXPECT_TRUE(log_.hasLine("Soft-remove: marker saved, consent kept"));
  ASSERT_EQ(service_.configurations().size(), 1u);
  EXPECT_EQ(id(), kept);
  EXPECT_EQ(stored().localizedDescription, "Norvik");
  EXPECT_FALSE(stored().isEnabled || stored().isOnDemandEnabled || !stored().onDemandRules.empty());
  EXPECT_EQ(stored().protocolConfiguration->providerBundleIdentifier, "com.norvik.macos.tunnel");
  EXPECT_TRUE(carriesSoftRemoveMarker(stored()));
  EXPECT_EQ(service_.status(kept), Status::disconnected) << "on-demand did not bring it back";
  EXPECT_EQ(group_.boolValue("routing.userInitiatedStop"), false) << "the application's stop is not the user's";
  EXPECT_EQ(standard_.boolValue("app.keySoftDelete.armed"), true);

  std::optional<std::expected<void, Error>> connected;
  manager_->connect([&](auto r) { connected = r; });
  loop_.runUntilIdle();
  EXPECT_EQ(connected->error().message, "Туннели не найдены");
  EXPECT_EQ(analytics_.count("connect_blocked"), 1u);

  ASSERT_TRUE(install().has_value());
  EXPECT_EQ(id(), kept) << "refilled, without asking for consent again";
  EXPECT_FALSE(standard_.contains("app.keySoftDelete.armed") || standard_.contains("app.keySoftDelete.fails"));
}

TEST_F(VPNManagerResilienceTest, ASecondSoftRemovalWhileOneRunsIsRefusedAndTheFirstCompletes) {
  ASSERT_TRUE(install().has_value());
  std::vector<Outcome> outcomes;
  manager_->softRemove("logout", [&](Outcome o) { outcomes.push_back(o); });
  manager_->softRemove("transfer", [&](Outcome o) { outcomes.push_back(o); });
  loop_.runUntilIdle();
  EXPECT_TRUE(log_.hasLine("[VPNManager] [keySoftDelete] soft remove already in flight (logout) — дубль отклонён"));
  EXPECT_EQ(outcomes, (std::vector<Outcome>{Outcome::refused, Outcome::markerSaved}));
  EXPECT_EQ(log_.count("soft remove (intent: "), 1u);
  EXPECT_EQ(softRemove("again"), Outcome::markerSaved) << "the guard is released when the first ends";
}

TEST_F(VPNManagerResilienceTest, AStaleSaveIsRetriedOnceAndAnyOtherFailureRemovesTheConfiguration) {
  ASSERT_TRUE(install().has_value());
  std::optional<Outcome> outcome;
  manager_->softRemove("logout", [&](Outcome o) { outcome = o; });
  service_.saveToPreferences(stored(), [](auto) {});  // another writer saves after the manager loaded
  loop_.runUntilIdle();
  EXPECT_EQ(outcome, Outcome::markerSaved);
  EXPECT_TRUE(log_.hasLine("Soft-remove: marker saved, consent kept (after stale retry)"));

  ASSERT_TRUE(install().has_value());
  service_.failNextSave(makeNEVPNError(NEVPNErrorCode::configurationStale));
  service_.failNextSave(makeNEVPNError(NEVPNErrorCode::configurationStale));
  EXPECT_EQ(softRemove(), Outcome::removedInstead);
  EXPECT_TRUE(log_.hasLine("Soft-remove save failed: The VPN configuration is stale → fallback removeFromPreferences"));
  EXPECT_TRUE(service_.configurations().empty());
  EXPECT_FALSE(manager_->isConfigured().get());

  ASSERT_TRUE(install().has_value());
  service_.failNextSave(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed, "disk full"));
  service_.failNextRemove(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed, "still full"));
  EXPECT_EQ(softRemove(), Outcome::failed);
  EXPECT_TRUE(log_.hasLine("Soft-remove fallback removeFromPreferences failed: still full"));
  EXPECT_TRUE(stored().protocolConfiguration->providerConfiguration.contains("wgQuickConfig")) << "the key stays";
}

TEST_F(VPNManagerResilienceTest, WithoutTheNamedConfigurationTheCallerRemovesTheOldWay) {
  TunnelConfiguration legacy;
  legacy.localizedDescription = "NorvikVPN Mac";
  service_.saveToPreferences(legacy, [](auto) {});
  loop_.runUntilIdle();
  EXPECT_EQ(softRemove(), Outcome::noConfiguration);
  EXPECT_TRUE(log_.hasLine("Soft-remove: no tunnel manager named Norvik → caller falls back to legacy remove()"));
  manager_->removeConfiguration([](auto r) { EXPECT_TRUE(r.has_value()); });
  loop_.runUntilIdle();
  EXPECT_TRUE(service_.configurations().empty());
}

TEST_F(VPNManagerResilienceTest, ALeftoverMarkerIsRemovedOnceWhenSoftRemovalIsSwitchedOff) {
  group_.setInteger("iosFixes.keySoftDelete", 1);
  ASSERT_TRUE(install().has_value());
  ASSERT_EQ(softRemove(), Outcome::markerSaved);
  group_.setInteger("iosFixes.keySoftDelete", 0);

  std::vector<std::expected<void, Error>> results;
  auto connect = [&] { manager_->connect([&](auto r) { results.push_back(r); }); };
  service_.failNextRemove(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed, "busy"));
  connect();
  loop_.runUntilIdle();
  EXPECT_TRUE(log_.hasLine("[VPNManager] [keySoftDelete] нормализация маркера не удалась: busy"));
  ASSERT_EQ(service_.configurations().size(), 1u) << "left for the next try";

  connect();
  connect();
  loop_.runUntilIdle();
  EXPECT_TRUE(service_.configurations().empty());
  EXPECT_EQ(log_.count("нормализация маркера не удалась"), 1u) << "the two connects removed it once";
  for (const auto& r : results) EXPECT_EQ(r.error().message, "Туннели не найдены");
  EXPECT_TRUE(service_.startOptions().empty()) << "a keyless configuration is never started";
  EXPECT_FALSE(standard_.contains("app.keySoftDelete.armed"));
}

// --- Escalation ---

struct Threshold {
  std::int64_t keySoftDelete;
  int escalatesOnFailure;
};

class VPNManagerEscalationTest : public VPNManagerResilienceTest, public ::testing::WithParamInterface<Threshold> {};

TEST_P(VPNManagerEscalationTest, FailedInstallsAfterASoftRemovalEscalateToACleanInstallAtTheThreshold) {
  const auto [flag, escalatesOn] = GetParam();
  group_.setInteger("iosFixes.keySoftDelete", flag);
  ASSERT_TRUE(install().has_value());
  const std::string kept = id();
  ASSERT_EQ(softRemove(), Outcome::markerSaved);

  for (int failure = 1; failure <= escalatesOn; ++failure) {
    service_.failNextLoadAll(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed, "locked"));
    const bool installed = install().has_value();
    if (failure < escalatesOn) {
      EXPECT_FALSE(installed);
      EXPECT_EQ(id(), kept);
      EXPECT_EQ(standard_.integerValue("app.keySoftDelete.fails"), failure);
    } else {
      EXPECT_TRUE(installed) << "the caller hears the clean install";
    }
  }
  EXPECT_EQ(log_.count("провал установки после мягкого удаления: locked"), std::size_t(escalatesOn));
  EXPECT_TRUE(log_.hasLine(fmt::format(
      "[VPNManager] [keySoftDelete] {} провалов подряд → полное удаление + чистая установка", escalatesOn)));
  EXPECT_TRUE(log_.hasLine("[VPNManager] [keySoftDelete] эскалация: чистая установка"));
  ASSERT_EQ(service_.configurations().size(), 1u);
  EXPECT_NE(id(), kept) << "a new configuration";
  EXPECT_FALSE(standard_.contains("app.keySoftDelete.armed") || standard_.contains("app.keySoftDelete.fails"));
}

INSTANTIATE_TEST_SUITE_P(Thresholds, VPNManagerEscalationTest,
                         ::testing::Values(Threshold{1, 2}, Threshold{3, 3}, Threshold{9, 9}, Threshold{20, 9}));

TEST_F(VPNManagerResilienceTest, DebugModeTwoCountsEveryInstallAsFailedUntilTheEscalation) {
  group_.setInteger("iosFixes.keySoftDelete", 1);
  group_.setInteger("iosFixes.keySoftDeleteDebug", 2);
  ASSERT_TRUE(install().has_value());
  const std::string kept = id();
  ASSERT_EQ(softRemove(), Outcome::markerSaved);

  EXPECT_TRUE(install().has_value()) << "only the count is made to fail";
  EXPECT_TRUE(log_.hasLine("[VPNManager] [keySoftDelete] debug=2: имитируем провал установки (fails=0)"));
  EXPECT_EQ(id(), kept);
  EXPECT_TRUE(install().has_value());
  EXPECT_TRUE(log_.hasLine("[VPNManager] [keySoftDelete] debug=2: имитируем провал установки (fails=1)"));
  EXPECT_NE(id(), kept);
  ASSERT_TRUE(install().has_value());
  EXPECT_EQ(log_.count("debug=2: имитируем"), 2u) << "the clean configuration is not watched";
}

// --- Self-heal: whether a drop is healed (the reconnect itself is the tunnel state machine's) ---

TEST_F(VPNManagerResilienceTest, SelfHealIsSpacedBySixtySecondsCappedPerDayAndCountsAgainTheNextDay) {
  group_.setInteger("iosFixes.selfHealMaxPerDay", 2);
  bringUp();
  drop();
  auto due = [&] { return manager_->selfHealIfNeeded(Status::disconnected); };
  EXPECT_TRUE(due());
  EXPECT_TRUE(log_.hasLine("[self-heal] connect (state, disconnected)"));
  loop_.advance(59s);
  EXPECT_FALSE(due());
  loop_.advance(1s);  // exactly 60 s after the first attempt
  EXPECT_TRUE(due());
  EXPECT_EQ(standard_.stringValue("app.selfHealDay"), "2027-01-15");

  loop_.advance(2min);
  EXPECT_FALSE(due());
  EXPECT_TRUE(log_.hasLine("[self-heal] дневной лимит исчерпан (2/2)"));

  loop_.advance(16h);  // past midnight
  EXPECT_TRUE(due());
  EXPECT_EQ(standard_.stringValue("app.selfHealDay"), "2027-01-16");
  EXPECT_EQ(standard_.integerValue("app.selfHealCount"), 1);
  EXPECT_EQ(log_.count("[self-heal] connect (state, disconnected)"), 3u);
  EXPECT_FALSE(manager_->selfHealIfNeeded(Status::connecting)) << "only a drop to disconnected";
}

TEST_F(VPNManagerResilienceTest, SelfHealLeavesATunnelThatSomebodyStopped) {
  group_.setInteger("iosFixes.selfHealMaxPerDay", 50);
  auto due = [&] {
    loop_.advance(2min);  // past the spacing
    return manager_->selfHealIfNeeded(Status::disconnected);
  };
  bringUp();
  service_.stopFromSystemControls(id());
  EXPECT_FALSE(due()) << "the user, from the system's controls";
  bringUp();
  manager_->disconnect();
  loop_.advance(1s);
  EXPECT_EQ(standard_.boolValue("app.userIntentOn"), false);
  EXPECT_FALSE(due()) << "the user, in the application";

  bringUp();
  drop();
  manager_->setServerChangeInProgress(true);
  EXPECT_FALSE(due()) << "a server change";
  manager_->setServerChangeInProgress(false);
  ASSERT_TRUE(install().has_value());  // a key refresh stops the tunnel as the application
  EXPECT_FALSE(manager_->selfHealIfNeeded(Status::disconnected)) << "the application, within 5 s";
  EXPECT_TRUE(due()) << "a drop nobody asked for";
  EXPECT_EQ(log_.count("[self-heal] connect"), 1u);
}

TEST_F(VPNManagerResilienceTest, AHealthCheckFollowsTheReconnectWhenTheModeAsksForIt) {
  group_.setInteger("iosFixes.selfHealMaxPerDay", 5);
  group_.setInteger("iosFixes.healthCheckMode", 1);
  group_.setInteger("iosFixes.reconnectWaitMs", 2000);
  bringUp();
  service_.setConnectHangs(true);
  drop();
  ASSERT_TRUE(manager_->selfHealIfNeeded(Status::disconnected));
  manager_->connectAutomatically([](auto) {});
  manager_->followUpSelfHeal();
  loop_.advance(1999ms);
  EXPECT_FALSE(log_.contains("reconnect: still"));
  loop_.advance(1ms);
  EXPECT_TRUE(log_.hasLine("[VPNManager] reconnect: still connecting"));
}

// --- Silent restart ---

TEST_F(VPNManagerResilienceTest, ASilentRestartBringsTheTunnelBackWithoutShowingTheDrop) {
  bringUp();
  std::vector<Status> shown;
  auto watch = manager_->connectionState().subscribe([&](const Status& s) { shown.push_back(s); });
  std::optional<Restart> first, second;
  manager_->silentTunnelRestart(500, 5000, [&](const Restart& r) { first = r; });
  manager_->silentTunnelRestart(500, 5000, [&](const Restart& r) { second = r; });
  loop_.runUntil([&] { return first.has_value(); });
  EXPECT_EQ(second, (Restart{false, RestartStep::precondition, "починка уже идёт"}));
  EXPECT_EQ(first, (Restart{true, RestartStep::none, ""}));
  EXPECT_EQ(loop_.elapsed() - 1s, 900ms) << "100 ms to go down, the 500 ms delay, 300 ms to come up";
  EXPECT_TRUE(log_.hasLine("[VPNManager] [SmartStatus] silentTunnelRestart: start delay=500ms connectTimeout=5000ms"));
  EXPECT_TRUE(log_.hasLine("[VPNManager] [SmartStatus] silentTunnelRestart: end ok=true failStep="));
  EXPECT_TRUE(log_.hasLine("[VPNManager] [SmartStatus] applyRealStatus: raw=connected selfHeal=false"));
  EXPECT_TRUE(shown.empty()) << "the screens stayed on connected";
  EXPECT_EQ(service_.startOptions().size(), 2u);
}

TEST_F(VPNManagerResilienceTest, ARestartThatAPreconditionBlocksTouchesNothing) {
  EXPECT_EQ(restart(0, 1000), (Restart{false, RestartStep::precondition, "конфигурация отсутствует"}));
  bringUp();
  const std::size_t saves = service_.saveCount();
  const VPNManager::RepairToken old = manager_->repairToken();
  manager_->connect([](auto) {});  // the user acted since the repair began
  loop_.advance(1s);
  group_.setBool("routing.userInitiatedStop", true);
  manager_->setServerChangeInProgress(true);

  EXPECT_EQ(restart(0, 1000, old).reason, "токен сброшен");
  EXPECT_EQ(restart(0, 1000).reason, "стоп инициирован пользователем");
  EXPECT_TRUE(log_.hasLine("[VPNManager] [SmartStatus] silentTunnelRestart: end ok=false failStep=precondition"));
  EXPECT_TRUE(log_.hasLine("[VPNManager] [SmartStatus] починка провалена на шаге precondition"));
  group_.setBool("routing.userInitiatedStop", false);
  EXPECT_EQ(restart(0, 1000).reason, "идёт смена сервера — старый конфиг не поднимаем");

  EXPECT_EQ(took, 0ms);
  EXPECT_EQ(service_.status(id()), Status::connected);
  EXPECT_EQ(service_.saveCount(), saves);
  EXPECT_EQ(service_.startOptions().size(), 2u);
  EXPECT_FALSE(log_.contains("applyRealStatus"));
}

TEST_F(VPNManagerResilienceTest, AUserActionDuringTheRestartStopsItBeforeTheTunnelComesBack) {
  bringUp();
  std::optional<Restart> result;
  manager_->silentTunnelRestart(2000, 5000, [&](const Restart& r) { result = r; });
  loop_.advance(500ms);
  manager_->disconnect();
  loop_.advance(2s);
  EXPECT_EQ(result, (Restart{false, RestartStep::precondition, "токен сброшен"}));
  EXPECT_EQ(manager_->connectionState().get(), Status::disconnected) << "the real state is published";
  EXPECT_EQ(service_.startOptions().size(), 1u);

  bringUp();
  service_.setConnectHangs(true);
  result.reset();
  manager_->silentTunnelRestart(0, 5000, [&](const Restart& r) { result = r; });
  loop_.advance(1s);  // waiting for connected
  manager_->disconnect();
  loop_.advance(100ms);
  EXPECT_EQ(result, (Restart{false, RestartStep::precondition, "токен сброшен"})) << "at once, not at the time-out";
}

TEST_F(VPNManagerResilienceTest, EachStepFailsWithItsNameAndReasonAfterExactlyItsTime) {
  bringUp();
  service_.setConnectHangs(true);
  EXPECT_EQ(restart(200, 4321), (Restart{false, RestartStep::connect, "не дождались .connected за 4321ms"}));
  EXPECT_EQ(took, 100ms + 200ms + 4321ms);
  EXPECT_TRUE(log_.hasLine("[VPNManager] [SmartStatus] silentTunnelRestart: end ok=false failStep=connect"));
  EXPECT_TRUE(log_.hasLine("[VPNManager] [SmartStatus] applyRealStatus: raw=connecting selfHeal=false"));
  EXPECT_EQ(manager_->connectionState().get(), Status::connecting);

  service_.setDisconnectDelay(10s);
  EXPECT_EQ(restart(0, 1000), (Restart{false, RestartStep::disconnect, "не дождались .disconnected за 3000ms"}));
  EXPECT_EQ(took, 3000ms);
}

TEST_F(VPNManagerResilienceTest, ARestartWhoseStartFailsPublishesTheDropForSelfHeal) {
  group_.setInteger("iosFixes.selfHealMaxPerDay", 1);
  bringUp();
  std::optional<Restart> result;
  manager_->silentTunnelRestart(6000, 5000, [&](const Restart& r) { result = r; });
  loop_.advance(1s);
  service_.failNextLoadAll(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed, "locked"));
  loop_.advance(6s);
  EXPECT_EQ(result, (Restart{false, RestartStep::connect, "locked"}));
  EXPECT_TRUE(log_.hasLine("[VPNManager] [SmartStatus] подъём туннеля в починке не удался: locked"));
  EXPECT_TRUE(log_.hasLine("[VPNManager] [SmartStatus] applyRealStatus: raw=disconnected selfHeal=true"));
  EXPECT_EQ(manager_->connectionState().get(), Status::disconnected);
  EXPECT_FALSE(manager_->isSilentRestartRunning());
  EXPECT_TRUE(manager_->selfHealIfNeeded(Status::disconnected)) << "the drop is one the owner of the intent may heal";
}

}  // namespace
}  // namespace norvik
