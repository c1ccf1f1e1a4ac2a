#include "tunnel/vpn_manager.h"

#include <gtest/gtest.h>

#include "platform/simulated_tunnel_service.h"
#include "testing/fake_named_notifications.h"
#include "testing/fakes.h"
#include "tunnel/soft_remove_marker.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Status = TunnelStatus;

constexpr const char* kManagerKey =
    "[Interface]\nPrivateKey=aGVsbG8tdGhpcy1pcy1hLW1hZGUtdXAta2V5LTAwMDA=\nAddress = 10.8.0.2/32\n\n\n"
    "[Peer]\nPublicKey = bWFkZS11cC1wdWJsaWMta2V5LWZvci10ZXN0cy0wMDA=\nEndpoint = 203.0.113.10:51820\n";

class VPNManagerTest : public ::testing::Test {
 protected:
  VPNManagerTest() { manager_->start(); }

  std::unique_ptr<VPNManager> makeManager() {
    return std::make_unique<VPNManager>(VPNManager::Dependencies{loop_, service_, notifications_, group_, standard_,
                                                                 clock_, log_, analytics_, [this] { return extras_; }});
  }

  std::expected<void, Error> install(const std::string& key = kManagerKey) {
    std::optional<std::expected<void, Error>> result;
    manager_->installKey(key, [&](auto r) { result = std::move(r); });
    loop_.runUntil([&] { return result.has_value(); });
    return *result;
  }

  std::expected<void, Error> connect() {
    std::optional<std::expected<void, Error>> result;
    manager_->connect([&](auto r) { result = std::move(r); });
    loop_.runUntil([&] { return result.has_value(); });
    return *result;
  }

  // Puts a configuration straight into the system, as an earlier run of the application left it.
  TunnelConfiguration seed(std::optional<std::string> name, bool enabled, bool withKey = true) {
    TunnelConfiguration c;
    c.localizedDescription = std::move(name);
    c.isEnabled = enabled;
    c.protocolConfiguration = TunnelProviderProtocol{"com.norvik.macos.tunnel", std::nullopt, {}};
    if (withKey) c.protocolConfiguration->providerConfiguration["wgQuickConfig"] = "[Interface]";
    std::optional<TunnelConfiguration> saved;
    service_.saveToPreferences(c, [&](auto r) { saved = *r; });
    loop_.runUntilIdle();
    return *saved;
  }

  const TunnelConfiguration& stored() const { return service_.configurations().front(); }

  testing::VirtualEventLoop loop_;
  testing::VirtualClock clock_{loop_};
  testing::CapturingLog log_;
  testing::CapturingAnalytics analytics_;
  testing::MemoryDefaults group_;
  testing::MemoryDefaults standard_;
  testing::FakeNamedNotifications notifications_{loop_};
  SimulatedTunnelService service_{loop_, clock_, log_, &notifications_, {}};
  PropertyDictionary extras_{{"routing.goMode", "0"}};
  std::unique_ptr<VPNManager> manager_ = makeManager();
};

TEST_F(VPNManagerTest, InstallingAKeyCreatesTheConfigurationWithTheNormalisedTextAndTheExtras) {
  ASSERT_TRUE(install().has_value());
  ASSERT_EQ(service_.configurations().size(), 1u);
  const TunnelConfiguration& c = stored();
  EXPECT_EQ(c.localizedDescription, "Norvik");
  EXPECT_TRUE(c.isEnabled);
  EXPECT_FALSE(c.isOnDemandEnabled);
  ASSERT_TRUE(c.protocolConfiguration.has_value());
  EXPECT_EQ(c.protocolConfiguration->providerBundleIdentifier, "com.norvik.macos.tunnel");
  EXPECT_EQ(c.protocolConfiguration->serverAddress, "203.0.113.10");
  const auto& provider = c.protocolConfiguration->providerConfiguration;
  EXPECT_EQ(*provider.at("wgQuickConfig").string(),
            "[Interface]\nPrivateKey = aGVsbG8tdGhpcy1pcy1hLW1hZGUtdXAta2V5LTAwMDA=\nAddress = 10.8.0.2/32\n\n"
            "[Peer]\nPublicKey = bWFkZS11cC1wdWJsaWMta2V5LWZvci10ZXN0cy0wMDA=\nEndpoint = 203.0.113.10:51820");
  EXPECT_EQ(provider.at("routing.goMode"), PropertyValue("0"));
  EXPECT_EQ(service_.saveCount(), 2u) << "saved, read back and saved again";
  EXPECT_TRUE(manager_->isConfigured().get());
  EXPECT_EQ(manager_->tunnelManager()->identifier, c.identifier);
  EXPECT_EQ(manager_->lastServerIP(), "203.0.113.10");
  EXPECT_TRUE(log_.hasLine("Extracted server address: 203.0.113.10"));
}

TEST_F(VPNManagerTest, AKeyWithoutEndpointInstallsWithoutServerAddress) {
  ASSERT_TRUE(install("[Interface]\nPrivateKey = x\n[Peer]\nAllowedIPs = 0.0.0.0/0").has_value());
  EXPECT_FALSE(stored().protocolConfiguration->serverAddress.has_value());
  EXPECT_FALSE(log_.contains("Extracted server address"));
}

TEST_F(VPNManagerTest, AnExtraNamedLikeTheKeyTextReplacesIt) {
  extras_["wgQuickConfig"] = "from the snapshot";
  ASSERT_TRUE(install().has_value());
  EXPECT_EQ(stored().protocolConfiguration->providerConfiguration.at("wgQuickConfig"),
            PropertyValue("from the snapshot"));
}

TEST_F(VPNManagerTest, ReinstallingStopsTheRunningTunnelAsTheApplicationAndKeepsTheConfiguration) {
  ASSERT_TRUE(install().has_value());
  group_.setBool("routing.onDemandEnabled", true);
  ASSERT_TRUE(connect().has_value());
  loop_.advance(1s);
  ASSERT_EQ(manager_->connectionState().get(), Status::connected);
  ASSERT_TRUE(stored().isOnDemandEnabled);
  const std::string identifier = stored().identifier;

  ASSERT_TRUE(install("[Interface]\nPrivateKey = new\n[Peer]\nEndpoint = 198.51.100.7:51820").has_value());
  loop_.advance(5s);
  ASSERT_EQ(service_.configurations().size(), 1u);
  EXPECT_EQ(stored().identifier, identifier) << "updated in place";
  EXPECT_EQ(stored().protocolConfiguration->serverAddress, "198.51.100.7");
  EXPECT_FALSE(stored().isOnDemandEnabled) << "on-demand went off before the stop";
  EXPECT_EQ(manager_->connectionState().get(), Status::disconnected) << "on-demand did not bring it back";
  EXPECT_EQ(group_.boolValue("routing.userInitiatedStop"), false) << "the application's own stop is not the user's";
}

TEST_F(VPNManagerTest, TheCurrentNameWinsOverTheLegacyName) {
  const TunnelConfiguration legacy = seed("NorvikVPN Mac", true);
  const TunnelConfiguration current = seed("Norvik", true);
  std::vector<TunnelConfiguration> all = {legacy, current};
  EXPECT_EQ(VPNManager::findManager(all)->identifier, current.identifier);
  all.pop_back();
  EXPECT_EQ(VPNManager::findManager(all)->identifier, legacy.identifier);
  std::vector<TunnelConfiguration> unnamed = {TunnelConfiguration{}};
  EXPECT_EQ(VPNManager::findManager(unnamed), nullptr);
}

TEST_F(VPNManagerTest, AHealthyConfigurationStartsAtOnceWithTheApplicationsOption) {
  ASSERT_TRUE(install().has_value());
  const std::size_t saves = service_.saveCount();
  ASSERT_TRUE(connect().has_value());
  EXPECT_EQ(service_.saveCount(), saves);
  ASSERT_EQ(service_.startOptions().size(), 1u);
  EXPECT_EQ(service_.startOptions()[0], (PropertyDictionary{{"vpnInAPP", "yes"}}));
  EXPECT_TRUE(log_.hasLine("Attempting to turn on tunnel (recursion: 0)"));
  EXPECT_EQ(group_.boolValue("routing.userInitiatedStop"), false);
  loop_.advance(1s);
  EXPECT_EQ(manager_->connectionState().get(), Status::connected);
  EXPECT_TRUE(log_.hasLine("[VPNManager] System VPN status changed: connected"));
}

TEST_F(VPNManagerTest, ADisabledConfigurationIsSavedOnEveryPassUpToTheEighthAndThenStarted) {
  seed("Norvik", /*enabled=*/false);
  const std::size_t saves = service_.saveCount();
  ASSERT_TRUE(connect().has_value());
  EXPECT_EQ(service_.saveCount() - saves, 8u);
  EXPECT_TRUE(log_.hasLine("Attempting to turn on tunnel (recursion: 8)"));
  EXPECT_FALSE(log_.contains("(recursion: 9)"));
  EXPECT_EQ(service_.startOptions().size(), 1u);
  EXPECT_TRUE(stored().isEnabled);
}

TEST_F(VPNManagerTest, ALegacyConfigurationIsRenamedByTheRepairLoop) {
  seed("NorvikVPN Mac", /*enabled=*/true);
  ASSERT_TRUE(connect().has_value());
  EXPECT_EQ(stored().localizedDescription, "Norvik");
  EXPECT_EQ(service_.startOptions().size(), 1u);
}

TEST_F(VPNManagerTest, WithoutAConfigurationTheTunnelsAreNotFound) {
  auto result = connect();
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error(), (Error{"", 2, "Туннели не найдены"}));
  EXPECT_TRUE(log_.hasLine("[VPNManager] Failed to connect VPN: Туннели не найдены"));

  seed("Norvik", true).protocolConfiguration.reset();
  TunnelConfiguration bare;
  bare.localizedDescription = "Norvik";
  bare.isEnabled = true;
  service_.removeFromPreferences(service_.configurations().front().identifier, [](auto) {});
  loop_.runUntilIdle();
  service_.saveToPreferences(bare, [](auto) {});
  loop_.runUntilIdle();
  EXPECT_EQ(connect().error(), (Error{"", 3, "Tunnel Provider не найден"}));
}

TEST_F(VPNManagerTest, ASoftRemovedConfigurationCountsAsMissingWhileTheGateIsOn) {
  TunnelConfiguration marker = seed("Norvik", false, /*withKey=*/false);
  marker.protocolConfiguration->providerConfiguration[std::string(kSoftRemoveMarkerKey)] = true;
  service_.saveToPreferences(marker, [](auto) {});
  loop_.runUntilIdle();
  group_.setInteger("iosFixes.keySoftDelete", 1);
  EXPECT_EQ(connect().error().message, "Туннели не найдены");
  EXPECT_EQ(analytics_.count("connect_blocked"), 1u);
  EXPECT_TRUE(service_.startOptions().empty());
}

TEST_F(VPNManagerTest, TheOnDemandSettingIsAppliedOnConnect) {
  ASSERT_TRUE(install().has_value());
  group_.setBool("routing.onDemandEnabled", true);
  group_.setBool("routing.userInitiatedStop", true);
  ASSERT_TRUE(connect().has_value());
  EXPECT_TRUE(stored().isOnDemandEnabled);
  EXPECT_EQ(stored().onDemandRules, (std::vector<OnDemandRule>{OnDemandRule{}}));
  EXPECT_TRUE(log_.hasLine("[on-demand] isOnDemandEnabled=true"));
  EXPECT_EQ(group_.boolValue("routing.userInitiatedStop"), false);

  group_.setBool("routing.onDemandEnabled", false);
  loop_.advance(1s);
  ASSERT_TRUE(connect().has_value());
  EXPECT_FALSE(stored().isOnDemandEnabled);
}

TEST_F(VPNManagerTest, DisconnectTurnsOnDemandOffFirstAndClearsTheUsersIntent) {
  ASSERT_TRUE(install().has_value());
  group_.setBool("routing.onDemandEnabled", true);
  group_.setInteger("iosFixes.selfHealMaxPerDay", 3);
  standard_.setBool("app.userIntentOn", true);
  ASSERT_TRUE(connect().has_value());
  loop_.advance(1s);

  manager_->disconnect();
  loop_.advance(10s);
  EXPECT_EQ(manager_->connectionState().get(), Status::disconnected);
  EXPECT_FALSE(stored().isOnDemandEnabled);
  EXPECT_EQ(standard_.boolValue("app.userIntentOn"), false);
  EXPECT_EQ(manager_->lastApplicationStop(), clock_.now() - 10s);
}

TEST_F(VPNManagerTest, AStopFromTheSystemsControlsIsTheUsersUnlessTheApplicationStoppedWithinFiveSeconds) {
  ASSERT_TRUE(install().has_value());
  ASSERT_TRUE(connect().has_value());
  loop_.advance(1s);

  manager_->disconnect();
  loop_.advance(4900ms);  // the tunnel's own stop notification came 100 ms after the application's stop
  EXPECT_EQ(group_.boolValue("routing.userInitiatedStop"), false);

  loop_.advance(100ms);  // exactly 5.0 s after the application's stop
  notifications_.post("com.norvik.macos.tunnel.userstop");
  loop_.runUntilIdle();
  EXPECT_EQ(group_.boolValue("routing.userInitiatedStop"), true);

  group_.setBool("routing.userInitiatedStop", false);
  ASSERT_TRUE(connect().has_value());
  loop_.advance(10s);
  service_.stopFromSystemControls(stored().identifier);
  loop_.runUntilIdle();
  EXPECT_EQ(group_.boolValue("routing.userInitiatedStop"), true);
}

TEST_F(VPNManagerTest, TheWidgetsDisconnectRequestCountsForLessThanTenSeconds) {
  int requests = 0;
  auto watch = manager_->disconnectRequested().subscribe([&] { ++requests; });
  // The request file is read every second from start-up on: at 1 s, 2 s, 3 s …
  group_.setBool("shouldDisconnectVPN", true);
  group_.setDouble("disconnectRequestTime", clock_.secondsSince1970() - 9.0);
  loop_.advance(1s);  // read when exactly 10.0 s old
  EXPECT_EQ(group_.boolValue("shouldDisconnectVPN"), false) << "the request is used up either way";
  EXPECT_EQ(requests, 0);
  EXPECT_TRUE(log_.contains("[VPNManager] запрос виджета на отключение устарел"));

  group_.setBool("shouldDisconnectVPN", true);
  group_.setDouble("disconnectRequestTime", clock_.secondsSince1970() - 8.9);
  loop_.advance(1s);  // 9.9 s old
  EXPECT_EQ(requests, 1) << "the user's disconnect, for the owner of the intent";
  EXPECT_EQ(group_.boolValue("shouldDisconnectVPN"), false);
  EXPECT_FALSE(manager_->lastApplicationStop().has_value()) << "recognised, not acted on here";
}

TEST_F(VPNManagerTest, TheWidgetsDisconnectNotificationAndAStopFromTheSystemAreHandedOn) {
  int disconnects = 0;
  int systemStops = 0;
  auto watchDisconnects = manager_->disconnectRequested().subscribe([&] { ++disconnects; });
  auto watchStops = manager_->stoppedFromSystemControls().subscribe([&] { ++systemStops; });
  ASSERT_TRUE(install().has_value());
  ASSERT_TRUE(connect().has_value());
  loop_.advance(1s);
  notifications_.post("com.Quillon.disconnect.vpn");
  loop_.advance(1s);
  EXPECT_EQ(disconnects, 1);
  EXPECT_EQ(manager_->connectionState().get(), Status::connected);

  service_.stopFromSystemControls(stored().identifier);
  loop_.advance(1s);
  EXPECT_EQ(systemStops, 1);
  manager_->disconnect();
  loop_.advance(1s);
  EXPECT_EQ(systemStops, 1) << "the application's own stop is not the user's";
}

TEST_F(VPNManagerTest, StartUpPublishesTheSystemsStateAndChecksItHalfASecondLater) {
  ASSERT_TRUE(install().has_value());
  ASSERT_TRUE(connect().has_value());
  loop_.advance(1s);
  log_.clear();
  manager_ = makeManager();  // the application starts again while the tunnel runs
  manager_->start();
  loop_.runUntilIdle();
  EXPECT_TRUE(manager_->isConfigured().get());
  EXPECT_EQ(manager_->connectionState().get(), Status::connected);
  EXPECT_FALSE(log_.contains("[VPNManager] Checking initial VPN state: connected"));
  loop_.advance(500ms);
  EXPECT_TRUE(log_.hasLine("[VPNManager] Checking initial VPN state: connected"));
}

TEST_F(VPNManagerTest, TheExistenceCheckReportsAndCorrectsTheCachedValue) {
  std::optional<bool> exists;
  manager_->checkConfigurationExists([&](bool e) { exists = e; });
  loop_.runUntilIdle();
  EXPECT_EQ(exists, false);
  EXPECT_TRUE(log_.hasLine("[VPNManager] ЖЕЛЕЗНАЯ ПРОВЕРКА: конфигурация ОТСУТСТВУЕТ"));

  seed("Norvik", true);  // made by another run behind this one's back
  manager_->checkConfigurationExists([&](bool e) { exists = e; });
  loop_.runUntilIdle();
  EXPECT_EQ(exists, true);
  EXPECT_TRUE(log_.hasLine("[VPNManager] ЖЕЛЕЗНАЯ ПРОВЕРКА: конфигурация СУЩЕСТВУЕТ"));
  EXPECT_TRUE(log_.hasLine("[VPNManager] Обнаружено несоответствие кэша! Было: false, стало: true"));
  EXPECT_TRUE(manager_->isConfigured().get());

  service_.failNextLoadAll(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed));
  manager_->checkConfigurationExists([&](bool e) { exists = e; });
  loop_.runUntilIdle();
  EXPECT_EQ(exists, true) << "a failed load keeps what was known";
  EXPECT_TRUE(log_.contains("[VPNManager] Ошибка проверки конфигурации: "));
}

TEST_F(VPNManagerTest, ConnectedSessionsAreCountedOnceAndATunnelThatEndsOnItsOwnIsReported) {
  ASSERT_TRUE(install().has_value());
  std::vector<Error> crashes;
  auto watch = manager_->extensionCrashed().subscribe([&](const Error& e) { crashes.push_back(e); });
  ASSERT_TRUE(connect().has_value());
  loop_.advance(1s);
  EXPECT_EQ(manager_->connectionStartTime(), clock_.now() - 700ms);
  EXPECT_EQ(analytics_.count("vpn_connected"), 1u);

  service_.endSessionFromTunnel(stored().identifier, makeNEVPNError(NEVPNErrorCode::connectionFailed));
  loop_.runUntilIdle();
  ASSERT_EQ(crashes.size(), 1u);
  EXPECT_EQ(crashes[0].code, 3);
  EXPECT_FALSE(manager_->connectionStartTime().has_value());

  ASSERT_TRUE(connect().has_value());
  loop_.advance(1s);
  EXPECT_EQ(analytics_.count("vpn_connected"), 2u) << "a new session is counted again";
}

TEST_F(VPNManagerTest, AFailedSaveEndsTheInstallWithTheErrorAndItsLogLine) {
  service_.failNextSave(makeNEVPNError(NEVPNErrorCode::configurationReadWriteFailed, "disk full"));
  auto result = install();
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().code, 5);
  EXPECT_TRUE(log_.hasLine("Error on first save: disk full"));
  EXPECT_TRUE(service_.configurations().empty());

  ASSERT_TRUE(install().has_value());
  service_.failNextSave(makeNEVPNError(NEVPNErrorCode::configurationStale, "stale"));
  EXPECT_FALSE(install().has_value());
  EXPECT_TRUE(log_.hasLine("Ошибка сохранения конфигурации: stale"));
}

TEST_F(VPNManagerTest, ReconnectIfActiveRestartsARunningTunnelAndLeavesAStoppedOneAlone) {
  loop_.runUntilIdle();
  manager_->reconnectIfActive();
  EXPECT_TRUE(log_.hasLine("[VPNManager] reconnectIfActive: VPN is disconnected, skip reconnect"));

  ASSERT_TRUE(install().has_value());
  ASSERT_TRUE(connect().has_value());
  loop_.advance(1s);
  manager_->reconnectIfActive();
  EXPECT_TRUE(log_.hasLine("[VPNManager] reconnectIfActive: VPN is connected, triggering reconnect"));
  loop_.advance(2s);
  EXPECT_EQ(manager_->connectionState().get(), Status::connected);
  EXPECT_EQ(service_.startOptions().size(), 2u);
}

TEST_F(VPNManagerTest, NothingRunsOnceTheManagerIsGone) {
  bool called = false;
  manager_->installKey(kManagerKey, [&](auto) { called = true; });
  manager_.reset();
  loop_.runUntilNoTasksRemain();
  EXPECT_FALSE(called);
}

TEST(TunnelErrorMessages, EveryDomainAndCodeHasItsText) {
  EXPECT_EQ(VPNManager::errorMessage(makeNEVPNError(NEVPNErrorCode::configurationInvalid)),
            "Неверная конфигурация VPN. Получите новый ключ через \"Сменить сервер\".");
  EXPECT_EQ(VPNManager::errorMessage(makeNEVPNError(NEVPNErrorCode::configurationUnknown)),
            "Конфигурация не найдена. Получите VPN ключ заново.");
  EXPECT_EQ(VPNManager::errorMessage(Error{"NEVPNErrorDomain", 7, ""}),
            "Ошибка VPN (код 7). Попробуйте позже или смените сервер.");
  EXPECT_EQ(VPNManager::errorMessage(Error{"NSURLErrorDomain", -1020, ""}),
            "Мобильные данные отключены. Включите их в настройках iOS.");
  EXPECT_EQ(VPNManager::errorMessage(Error{"NSURLErrorDomain", -1009, ""}),
            "Нет подключения к интернету. Проверьте WiFi или мобильные данные.");
  EXPECT_EQ(VPNManager::errorMessage(Error{"NSURLErrorDomain", -1001, ""}),
            "Превышено время ожидания. Проверьте скорость интернета.");
  EXPECT_EQ(VPNManager::errorMessage(Error{"NSURLErrorDomain", -1002, ""}),
            "Ошибка сети (код -1002). Проверьте подключение к интернету.");
  EXPECT_EQ(VPNManager::errorMessage(Error{"POSIX", 13, "Permission denied"}),
            "Не удалось подключиться к VPN. Permission denied");
}

}  // namespace
}  // namespace norvik
