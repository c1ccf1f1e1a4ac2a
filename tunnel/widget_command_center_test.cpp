#include "tunnel/widget_command_center.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "platform/simulated_tunnel_service.h"
#include "testing/direct_tunnel_intents.h"
#include "testing/fake_named_notifications.h"
#include "testing/fakes.h"
#include "testing/temp_dir.h"
#include "tunnel/vpn_manager.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

constexpr const char* kWidgetKey = "[Interface]\nPrivateKey = a2V5\n[Peer]\nEndpoint = 203.0.113.10:51820";

// The simulated service, except that it may not know yet when a session connected (the system
// reports the status change first).
class LateDateTunnelService final : public TunnelService {
 public:
  explicit LateDateTunnelService(SimulatedTunnelService& inner) : in_(inner) {}
  bool knowsConnectedDate = true;

  void loadAllFromPreferences(ConfigurationsCompletion c) override { in_.loadAllFromPreferences(std::move(c)); }
  void saveToPreferences(TunnelConfiguration t, ConfigurationCompletion c) override {
    in_.saveToPreferences(t, std::move(c));
  }
  void loadFromPreferences(std::string i, ConfigurationCompletion c) override {
    in_.loadFromPreferences(i, std::move(c));
  }
  void removeFromPreferences(std::string i, DoneCompletion c) override { in_.removeFromPreferences(i, std::move(c)); }
  std::expected<void, Error> startVPNTunnel(const std::string& i, const PropertyDictionary& o) override {
    return in_.startVPNTunnel(i, o);
  }
  void stopVPNTunnel(const std::string& i) override { in_.stopVPNTunnel(i); }
  TunnelStatus status(const std::string& i) const override { return in_.status(i); }
  std::optional<Clock::TimePoint> connectedDate(const std::string& i) const override {
    return knowsConnectedDate ? in_.connectedDate(i) : std::nullopt;
  }
  std::optional<Error> lastDisconnectError(const std::string& i) const override { return in_.lastDisconnectError(i); }
  void fetchTelemetry(const std::string& i, TelemetryCompletion c) override { in_.fetchTelemetry(i, std::move(c)); }
  Subscription observeStatus(StatusObserver o) override { return in_.observeStatus(std::move(o)); }

 private:
  SimulatedTunnelService& in_;
};

class WidgetCommandCenterTest : public ::testing::Test {
 protected:
  WidgetCommandCenterTest() {
    vpn_.start();
    loop_.runUntilIdle();
  }

  std::unique_ptr<WidgetCommandCenter> makeCenter() {
    return std::make_unique<WidgetCommandCenter>(WidgetCommandCenter::Dependencies{
        loop_, clock_, log_, notifications_, vpn_, dates_, intents_, dir_ / "group",
        [this] { actions_.emplace_back("bringToFront"); }, [this] { reloads_.push_back(loop_.elapsed()); }});
  }

  // The widget's side: a command file and its notification.
  void sendCommand(const std::string& id, std::chrono::milliseconds age = 0ms,
                   WidgetCommand::Kind kind = WidgetCommand::Kind::toggle, bool notify = true) {
    const WidgetCommand command{kind, clock_.now() - age, id};
    ASSERT_TRUE(writeFileAtomically(center_->commandFile(), encodeWidgetCommand(command)).has_value());
    if (notify) notifications_.post(WidgetCommandCenter::kCommandNotification);
    loop_.runUntilIdle();
  }

  void installAndConnect() {
    std::optional<std::expected<void, Error>> done;
    vpn_.installKey(kWidgetKey, [&](auto r) { done = r; });
    loop_.runUntil([&] { return done.has_value(); });
    vpn_.connect([](auto) {});
    ASSERT_TRUE(loop_.runUntil([&] { return vpn_.connectionState().get() == TunnelStatus::connected; }, 5s));
  }

  nlohmann::json stateFile() { return nlohmann::json::parse(readFile(center_->stateFile()).value()); }
  std::size_t stateWrites() const { return notifications_.postCount(WidgetCommandCenter::kStateNotification); }

  testing::TempDir dir_;
  testing::VirtualEventLoop loop_;
  testing::VirtualClock clock_{loop_};
  testing::CapturingLog log_;
  testing::CapturingAnalytics analytics_;
  testing::MemoryDefaults group_;
  testing::MemoryDefaults standard_;
  testing::FakeNamedNotifications notifications_{loop_};
  SimulatedTunnelService tunnels_{loop_, clock_, log_, &notifications_, {}};
  LateDateTunnelService dates_{tunnels_};
  VPNManager vpn_{{loop_, tunnels_, notifications_, group_, standard_, clock_, log_, analytics_, {}}};
  std::vector<std::string> actions_;
  testing::DirectTunnelIntents intents_{loop_, vpn_, &actions_};
  std::vector<EventLoop::Duration> reloads_;
  std::unique_ptr<WidgetCommandCenter> center_ = makeCenter();
};

// --- Start and the state file ---

TEST_F(WidgetCommandCenterTest, StartWritesTheStateOnceAndOnlyTheFirstTime) {
  center_->start();
  center_->start();
  loop_.runUntilIdle();
  EXPECT_EQ(log_.count("[Widget] мост запущен"), 1u);
  EXPECT_TRUE(log_.hasLine("[Widget] мост запущен, контейнер: " + (dir_ / "group").string()));
  EXPECT_EQ(stateWrites(), 1u);
  const auto state = stateFile();
  EXPECT_EQ(state["phase"], "disconnected");
  EXPECT_EQ(state["statusText"], "Отключено");
  EXPECT_EQ(state["canToggle"], true);
  EXPECT_EQ(state["appRunning"], true);
  EXPECT_EQ(state["updatedAt"], formatWidgetDate(clock_.now()));
  EXPECT_FALSE(state.contains("connectedSince"));
  EXPECT_FALSE(state.contains("healthRaw"));
  EXPECT_FALSE(std::filesystem::exists(center_->stateFile().string() + ".tmp"));
}

TEST_F(WidgetCommandCenterTest, TheStateFollowsTheTunnelWithItsConnectionDateAndAddress) {
  center_->start();
  installAndConnect();
  loop_.runUntilIdle();
  const auto state = stateFile();
  EXPECT_EQ(state["phase"], "connected");
  EXPECT_EQ(state["statusText"], "Защищено");
  EXPECT_EQ(state["connectedSince"], formatWidgetDate(*tunnels_.connectedDate(vpn_.tunnelManager()->identifier)));
  EXPECT_EQ(state["tunnelAddress"], "203.0.113.10");

  vpn_.disconnect();
  loop_.advance(10ms);
  EXPECT_EQ(stateFile()["phase"], "disconnecting");
  EXPECT_EQ(stateFile()["canToggle"], true) << "the last word wins: a toggle now brings it back";
  loop_.advance(1s);
  EXPECT_EQ(stateFile()["phase"], "disconnected");
  EXPECT_FALSE(stateFile().contains("connectedSince"));
}

TEST_F(WidgetCommandCenterTest, IdenticalStatesAreWrittenOnceAndChangesThatArriveTogetherMakeOneWrite) {
  center_->start();
  loop_.runUntilIdle();
  ASSERT_EQ(stateWrites(), 1u);

  center_->setHealth(std::nullopt);  // no change
  center_->setBusy(true);            // back and forth within one turn: nothing to write
  center_->setBusy(false);
  loop_.runUntilIdle();
  EXPECT_EQ(stateWrites(), 1u);

  center_->setHealth("busy");
  center_->setTraffic("1 МБ", "2 МБ");
  loop_.runUntilIdle();
  EXPECT_EQ(stateWrites(), 2u);
  EXPECT_EQ(stateFile()["healthRaw"], "busy");
  EXPECT_EQ(stateFile()["trafficUp"], "2 МБ");

  center_->setTraffic("1 МБ", "2 МБ");
  loop_.advance(5s);  // the clock moved, the content did not
  EXPECT_EQ(stateWrites(), 2u);
}

TEST_F(WidgetCommandCenterTest, TheHeartbeatRewritesTheStateWithAFreshTimeEveryThirtySeconds) {
  center_->start();
  loop_.advance(29s);
  EXPECT_EQ(stateWrites(), 1u);
  loop_.advance(1s);
  EXPECT_EQ(stateWrites(), 2u);
  EXPECT_EQ(stateFile()["updatedAt"], formatWidgetDate(clock_.now()));
}

TEST_F(WidgetCommandCenterTest, WidgetReloadsAreThrottledToOnePerSecond) {
  center_->start();
  ASSERT_EQ(reloads_.size(), 1u);
  loop_.advance(200ms);
  center_->setHealth("ok");
  loop_.advance(100ms);
  center_->setHealth("problem");
  loop_.advance(100ms);
  EXPECT_EQ(stateWrites(), 3u) << "the file is always current";
  EXPECT_EQ(reloads_.size(), 1u);
  loop_.advance(600ms);
  ASSERT_EQ(reloads_.size(), 2u) << "one reload for both changes";
  EXPECT_EQ(reloads_[1], 1000ms);
}

TEST_F(WidgetCommandCenterTest, ConnectedSinceFallsBackToNowAndIsAskedForOnceMore) {
  dates_.knowsConnectedDate = false;
  installAndConnect();
  const auto real = formatWidgetDate(*tunnels_.connectedDate(vpn_.tunnelManager()->identifier));
  loop_.advance(10s);
  center_->start();
  const auto fallback = stateFile()["connectedSince"];
  EXPECT_EQ(fallback, formatWidgetDate(clock_.now()));

  loop_.advance(1s);
  center_->setHealth("ok");  // a rewrite before the retry keeps the same fall-back
  loop_.runUntilIdle();
  EXPECT_EQ(stateFile()["connectedSince"], fallback) << "the fall-back does not creep forward";
  dates_.knowsConnectedDate = true;
  loop_.advance(1s);  // the one retry
  EXPECT_EQ(stateFile()["connectedSince"], real);
}

TEST_F(WidgetCommandCenterTest, TheRetryForTheConnectionDateRunsOnlyOnce) {
  dates_.knowsConnectedDate = false;
  installAndConnect();
  center_->start();
  loop_.advance(2s);  // the retry finds nothing new
  const std::size_t writes = stateWrites();
  dates_.knowsConnectedDate = true;
  loop_.advance(20s);
  EXPECT_EQ(stateWrites(), writes) << "no second retry before the heartbeat";
}

TEST_F(WidgetCommandCenterTest, StopTellsTheWidgetThatTheApplicationIsGone) {
  center_->start();
  center_->stop();
  EXPECT_EQ(stateFile()["appRunning"], false);
  sendCommand("after-stop");
  loop_.advance(2s);
  EXPECT_TRUE(actions_.empty());
}

// --- Commands ---

TEST_F(WidgetCommandCenterTest, ACommandThreeSecondsOldIsAcceptedAndOneAHundredthOlderIsDropped) {
  center_->start();
  sendCommand("fresh", 3000ms);
  EXPECT_TRUE(log_.hasLine("[Widget] команда fresh принята (3.00 с)"));
  EXPECT_EQ(actions_, std::vector<std::string>{"connect"});

  loop_.advance(2s);
  sendCommand("stale", 3010ms);
  EXPECT_TRUE(log_.hasLine("[Widget] команда stale протухла (3.01 с) — игнорирую"));
  EXPECT_EQ(actions_.size(), 1u);

  sendCommand("future", -3010ms);
  EXPECT_TRUE(log_.contains("[Widget] команда future протухла (-3.01 с)"));
  EXPECT_EQ(actions_.size(), 1u);
}

TEST_F(WidgetCommandCenterTest, TogglesLessThanOneAndAHalfSecondsApartActOnce) {
  center_->start();
  sendCommand("t1");
  loop_.advance(1400ms);
  sendCommand("t2");
  EXPECT_TRUE(log_.hasLine("[Widget] тумблер через 1.40 с после прошлого — двойной клик, игнорирую"));
  EXPECT_EQ(actions_.size(), 1u);

  // The dropped toggle does not count: 1.5 s after the one that acted, the next acts.
  loop_.advance(100ms);
  sendCommand("t3");
  EXPECT_EQ(actions_.size(), 2u);
  EXPECT_EQ(log_.count("двойной клик"), 1u);
}

TEST_F(WidgetCommandCenterTest, AToggleDisconnectsARunningTunnelAndConnectsOtherwise) {
  center_->start();
  installAndConnect();
  sendCommand("off");
  EXPECT_EQ(actions_, std::vector<std::string>{"disconnect"});
  EXPECT_TRUE(log_.hasLine("[Widget] отключить (connected)"));
  loop_.advance(2s);
  sendCommand("on");
  EXPECT_EQ(actions_, (std::vector<std::string>{"disconnect", "connect"}));
  EXPECT_TRUE(log_.hasLine("[Widget] подключить (disconnected)"));
}

TEST_F(WidgetCommandCenterTest, TheSameIdByNotificationAndByPollActsOnce) {
  center_->start();
  sendCommand("same", 0ms, WidgetCommand::Kind::changeServer);
  loop_.advance(3s);  // the poll reads the file three more times
  EXPECT_EQ(actions_, std::vector<std::string>{"changeServer"});

  // The other way round: the poll finds it first, then the notification arrives.
  sendCommand("polled", 0ms, WidgetCommand::Kind::changeServer, /*notify=*/false);
  loop_.advance(1s);
  EXPECT_EQ(actions_.size(), 2u) << "the poll is the fall-back when the notification is lost";
  notifications_.post(WidgetCommandCenter::kCommandNotification);
  loop_.runUntilIdle();
  EXPECT_EQ(actions_.size(), 2u);
  EXPECT_EQ(log_.count("принята"), 2u);
}

TEST_F(WidgetCommandCenterTest, ABadCommandFileIsIgnoredAndReportedOnce) {
  center_->start();
  const std::string pad(kWidgetCommandMaxBytes + 10, ' ');
  for (const std::string& content :
       {std::string(R"({"kind":"toggle","issuedAt":"2026-)"),
        std::string(R"({"kind":"reboot","issuedAt":"x","id":"a"})"),
        std::string(R"({"kind":["toggle"],"issuedAt":3,"id":false})"),
        R"({"kind":"toggle","id":"a","p":")" + pad + "\"}", std::string("\x00\xff\xfe", 3)}) {
    ASSERT_TRUE(writeFileAtomically(center_->commandFile(), content).has_value());
    notifications_.post(WidgetCommandCenter::kCommandNotification);
    loop_.advance(3s);
  }
  EXPECT_TRUE(actions_.empty());
  EXPECT_EQ(log_.count("[Widget] файл команды не"), 5u) << "one line per bad content, not one per poll";
  EXPECT_TRUE(log_.contains(R"("kind" is not a known command: "reboot")"));
}

// --- Links ---

TEST_F(WidgetCommandCenterTest, LinksActUnlessTheTunnelIsAlreadyWhereTheyWantIt) {
  EXPECT_TRUE(center_->handleURL("norvikvpn://widget/disconnect"));
  EXPECT_TRUE(log_.hasLine("[Widget] ссылка: norvikvpn://widget/disconnect"));
  EXPECT_TRUE(log_.hasLine("[Widget] отключить: туннель уже выключен (disconnected) — ничего не делаю"));
  EXPECT_TRUE(actions_.empty());

  installAndConnect();
  EXPECT_TRUE(center_->handleURL("norvikvpn://widget/connect"));
  EXPECT_TRUE(log_.hasLine("[Widget] подключить: туннель уже поднят (connected) — ничего не делаю"));
  EXPECT_TRUE(actions_.empty());

  EXPECT_TRUE(center_->handleURL("NorvikVPN://Widget/change-server/"));
  EXPECT_TRUE(center_->handleURL("norvikvpn://widget/open?from=widget"));
  EXPECT_TRUE(center_->handleURL("norvikvpn://widget/disconnect"));
  EXPECT_EQ(actions_, (std::vector<std::string>{"changeServer", "bringToFront", "disconnect"}));

  for (const char* other : {"norvikvpn://widget/reboot", "https://widget/connect", "norvikvpn:", "norvikvpn://connect",
                            "norvikvpn://widget/connect/now"}) {
    EXPECT_FALSE(center_->handleURL(other)) << other;
  }
  EXPECT_EQ(actions_.size(), 3u);
}

}  // namespace
}  // namespace norvik
