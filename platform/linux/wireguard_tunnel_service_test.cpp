#include "platform/linux/wireguard_tunnel_service.h"

#include <gtest/gtest.h>

#include "platform/linux/tunnel_helper_protocol.h"
#include "testing/fake_named_notifications.h"
#include "testing/fakes.h"
#include "testing/temp_dir.h"
#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
namespace protocol = tunnel_helper_protocol;
using Result = std::expected<TunnelTelemetry, Error>;

// A helper run as the test scripts it: what the service wrote, and a way to answer.
struct ScriptedHelper {
  std::vector<std::string> input;
  bool inputClosed = false;
  std::vector<int> signals;
  TunnelHelperCallbacks callbacks;

  void say(const protocol::Event& event) const {
    std::string line = protocol::eventLine(event);
    line.pop_back();
    callbacks.event(line);
  }
  void exit(int status) const { callbacks.exited(status); }
};

class ScriptedLauncher final : public TunnelHelperLauncher {
 public:
  class Process final : public TunnelHelperProcess {
   public:
    explicit Process(std::shared_ptr<ScriptedHelper> helper) : helper_(std::move(helper)) {}
    void send(std::string line) override { helper_->input.push_back(std::move(line)); }
    void closeInput() override { helper_->inputClosed = true; }
    void terminate() override { helper_->signals.push_back(15); }
    void kill() override { helper_->signals.push_back(9); }

   private:
    std::shared_ptr<ScriptedHelper> helper_;
  };

  std::expected<std::unique_ptr<TunnelHelperProcess>, Error> launch(TunnelHelperCallbacks callbacks) override {
    if (failLaunch) return std::unexpected(Error{"POSIX", ENOENT, "exec: No such file or directory"});
    auto helper = std::make_shared<ScriptedHelper>();
    helper->callbacks = std::move(callbacks);
    helpers.push_back(helper);
    return std::make_unique<Process>(helper);
  }
  void cleanUpAfterCrash() override { ++cleanups; }

  std::vector<std::shared_ptr<ScriptedHelper>> helpers;
  int cleanups = 0;
  bool failLaunch = false;
};

class WireGuardTunnelServiceTest : public ::testing::Test {
 protected:
  std::string saveNorvik(bool onDemand = false) {
    TunnelConfiguration c;
    c.isEnabled = true;
    c.isOnDemandEnabled = onDemand;
    if (onDemand) c.onDemandRules = {OnDemandRule{}};
    c.protocolConfiguration =
        TunnelProviderProtocol{"com.norvik.macos.tunnel",
                               "10.200.0.1",
                               {{"wgQuickConfig", "[Interface]\nPrivateKey = secret"}, {"routing.goMode", "2"}}};
    std::string identifier;
    service_->saveToPreferences(c, [&](auto saved) { identifier = saved->identifier; });
    loop_.runUntilIdle();
    return identifier;
  }

  ScriptedHelper& helper(std::size_t i = 0) { return *launcher_->helpers.at(i); }

  Result telemetry(const std::string& id) {
    std::optional<Result> got;
    service_->fetchTelemetry(id, [&](Result r) { got = std::move(r); });
    loop_.runUntilIdle();
    return got.value_or(Result(std::unexpected(Error{"test", 0, "no answer yet"})));
  }

  testing::TempDir dir_;
  testing::VirtualEventLoop loop_;
  testing::VirtualClock clock_{loop_};
  testing::CapturingLog log_;
  testing::FakeNamedNotifications notifications_{loop_};
  ScriptedLauncher* launcher_ = nullptr;
  std::unique_ptr<WireGuardTunnelService> service_ = [this] {
    auto launcher = std::make_unique<ScriptedLauncher>();
    launcher_ = launcher.get();
    WireGuardTunnelService::Options options;
    options.storeFile = dir_ / "tunnel.json";
    return std::make_unique<WireGuardTunnelService>(loop_, clock_, log_, &notifications_, std::move(launcher), options);
  }();
  std::vector<TunnelStatus> statuses_;
  Subscription watch_ = service_->observeStatus([this](const std::string&, TunnelStatus s) { statuses_.push_back(s); });
};

TEST_F(WireGuardTunnelServiceTest, ASessionIsAHelperRunFromConnectingToAStopThatWaitsForItsExit) {
  const std::string id = saveNorvik();
  ASSERT_TRUE(service_->startVPNTunnel(id, {}).has_value());
  loop_.runUntilIdle();
  ASSERT_EQ(launcher_->helpers.size(), 1u);
  ASSERT_EQ(helper().input.size(), 1u);
  auto start = protocol::parseCommand(helper().input[0].substr(0, helper().input[0].size() - 1));
  ASSERT_TRUE(start.has_value());
  EXPECT_EQ(start->kind, protocol::Command::Kind::start);
  EXPECT_EQ(start->configuration["wgQuickConfig"], "[Interface]\nPrivateKey = secret");
  EXPECT_EQ(start->configuration["routing.goMode"], "2");
  EXPECT_FALSE(log_.contains("secret"));

  helper().say({protocol::Event::Kind::connecting, "norvik0"});
  loop_.runUntilIdle();
  EXPECT_EQ(service_->status(id), TunnelStatus::connecting);
  EXPECT_FALSE(telemetry(id).has_value()) << "nothing to report before the tunnel is up";
  helper().say({protocol::Event::Kind::connected, "norvik0"});
  loop_.runUntilIdle();
  EXPECT_EQ(service_->status(id), TunnelStatus::connected);
  EXPECT_EQ(service_->connectedDate(id), clock_.now());

  service_->stopVPNTunnel(id);
  loop_.runUntilIdle();
  EXPECT_EQ(service_->status(id), TunnelStatus::disconnecting) << "until the helper has given the network back";
  EXPECT_EQ(helper().input.back(), protocol::stopLine());
  EXPECT_TRUE(helper().inputClosed);
  helper().say({protocol::Event::Kind::stopped});
  helper().exit(0);
  loop_.runUntilIdle();
  EXPECT_EQ(service_->status(id), TunnelStatus::disconnected);
  EXPECT_FALSE(service_->lastDisconnectError(id).has_value());
  EXPECT_EQ(statuses_, (std::vector{TunnelStatus::connecting, TunnelStatus::connected, TunnelStatus::disconnecting,
                                    TunnelStatus::disconnected}));
  EXPECT_EQ(notifications_.postCount(WireGuardTunnelService::kUserStopNotification), 1u);
  EXPECT_EQ(launcher_->cleanups, 0);
}

TEST_F(WireGuardTunnelServiceTest, TelemetryIsAskedOfTheHelperAndAnsweredOrTimedOut) {
  const std::string id = saveNorvik();
  ASSERT_TRUE(service_->startVPNTunnel(id, {}).has_value());
  loop_.runUntilIdle();
  helper().say({protocol::Event::Kind::connected, "norvik0"});
  loop_.runUntilIdle();

  std::optional<Result> got;
  service_->fetchTelemetry(id, [&](Result r) { got = std::move(r); });
  loop_.runUntilIdle();
  auto request = protocol::parseCommand(helper().input.back().substr(0, helper().input.back().size() - 1));
  ASSERT_TRUE(request.has_value());
  ASSERT_EQ(request->kind, protocol::Command::Kind::telemetry);
  protocol::Event answer{protocol::Event::Kind::telemetry, "norvik0", request->id};
  const auto handshake = Clock::TimePoint(1'700'000'000s);
  answer.telemetry = TunnelTelemetry{handshake, 4096, 1024, "norvik0"};
  helper().say(answer);
  loop_.runUntilIdle();
  ASSERT_TRUE(got && got->has_value());
  EXPECT_EQ(**got, (TunnelTelemetry{handshake, 4096, 1024, "norvik0"}));

  // A helper that does not answer: the caller hears of it after the time-out, and a late answer is dropped.
  got.reset();
  service_->fetchTelemetry(id, [&](Result r) { got = std::move(r); });
  loop_.advance(3s);
  ASSERT_TRUE(got.has_value());
  EXPECT_FALSE(got->has_value());
  EXPECT_EQ(got->error().message, "norvik-tunnel не ответил вовремя");

  // The helper ending answers what was still waiting.
  got.reset();
  service_->fetchTelemetry(id, [&](Result r) { got = std::move(r); });
  helper().exit(1);
  loop_.runUntilIdle();
  ASSERT_TRUE(got.has_value());
  EXPECT_FALSE(got->has_value());
}

TEST_F(WireGuardTunnelServiceTest, TheHelpersFailureBecomesTheDisconnectError) {
  const std::string id = saveNorvik();
  ASSERT_TRUE(service_->startVPNTunnel(id, {}).has_value());
  loop_.runUntilIdle();
  protocol::Event failed{protocol::Event::Kind::failed};
  failed.error = makeNEVPNError(NEVPNErrorCode::connectionFailed, "сервер не ответил на рукопожатие за 20 с");
  helper().say(failed);
  helper().exit(1);
  loop_.runUntilIdle();
  EXPECT_EQ(service_->status(id), TunnelStatus::disconnected);
  EXPECT_EQ(service_->lastDisconnectError(id), failed.error);
  EXPECT_EQ(launcher_->cleanups, 0) << "the helper cleaned up itself";
  EXPECT_EQ(notifications_.postCount(WireGuardTunnelService::kUserStopNotification), 0u);
}

TEST_F(WireGuardTunnelServiceTest, AHelperThatCrashesIsCleanedUpAfter) {
  const std::string id = saveNorvik();
  ASSERT_TRUE(service_->startVPNTunnel(id, {}).has_value());
  loop_.runUntilIdle();
  helper().say({protocol::Event::Kind::connected, "norvik0"});
  helper().exit(128 + 9);
  loop_.runUntilIdle();
  EXPECT_EQ(launcher_->cleanups, 1);
  EXPECT_EQ(service_->status(id), TunnelStatus::disconnected);
  EXPECT_EQ(service_->lastDisconnectError(id)->message, "norvik-tunnel завершился (код 137)");
}

TEST_F(WireGuardTunnelServiceTest, AHelperThatWillNotStopIsTerminatedThenKilled) {
  const std::string id = saveNorvik();
  ASSERT_TRUE(service_->startVPNTunnel(id, {}).has_value());
  loop_.runUntilIdle();
  service_->stopVPNTunnel(id);
  loop_.advance(5s);
  EXPECT_EQ(helper().signals, std::vector<int>{15});
  loop_.advance(5s);
  EXPECT_EQ(helper().signals, (std::vector<int>{15, 9}));
  helper().exit(137);
  loop_.runUntilIdle();
  EXPECT_EQ(service_->status(id), TunnelStatus::disconnected);
}

TEST_F(WireGuardTunnelServiceTest, ARestartWaitsForThePreviousHelperToEnd) {
  const std::string id = saveNorvik();
  ASSERT_TRUE(service_->startVPNTunnel(id, {}).has_value());
  loop_.runUntilIdle();
  helper(0).say({protocol::Event::Kind::connected, "norvik0"});
  service_->stopVPNTunnel(id);
  ASSERT_TRUE(service_->startVPNTunnel(id, {}).has_value());
  loop_.runUntilIdle();
  EXPECT_EQ(launcher_->helpers.size(), 1u) << "two helpers never own the routes at once";
  EXPECT_EQ(service_->status(id), TunnelStatus::connecting);
  helper(0).say({protocol::Event::Kind::connected, "norvik0"});  // late news of the old session
  helper(0).exit(0);
  loop_.runUntilIdle();
  ASSERT_EQ(launcher_->helpers.size(), 2u);
  EXPECT_EQ(service_->status(id), TunnelStatus::connecting);
  helper(1).say({protocol::Event::Kind::connected, "norvik1"});
  loop_.runUntilIdle();
  EXPECT_EQ(service_->status(id), TunnelStatus::connected);
}

TEST_F(WireGuardTunnelServiceTest, RefusedStartsAndAHelperThatCannotRun) {
  EXPECT_EQ(service_->startVPNTunnel("unknown", {}).error().code,
            static_cast<int>(NEVPNErrorCode::configurationInvalid));
  const std::string id = saveNorvik();
  launcher_->failLaunch = true;
  ASSERT_TRUE(service_->startVPNTunnel(id, {}).has_value());
  loop_.runUntilIdle();
  EXPECT_EQ(service_->status(id), TunnelStatus::disconnected);
  EXPECT_EQ(service_->lastDisconnectError(id)->code, static_cast<int>(NEVPNErrorCode::configurationReadWriteFailed));
  EXPECT_TRUE(log_.contains("norvik-tunnel не запустился: exec: No such file or directory"));
}

TEST(TunnelHelperProtocolTest, EventsAndCommandsSurviveTheTripAndBadLinesAreRefused) {
  protocol::Event event{protocol::Event::Kind::telemetry, "norvik3", 42};
  event.telemetry = TunnelTelemetry{Clock::TimePoint(1'700'000'000'123'456'789ns), 18446744073709551615u, 7, "norvik3"};
  std::string line = protocol::eventLine(event);
  ASSERT_TRUE(line.ends_with("\n"));
  line.pop_back();
  auto back = protocol::parseEvent(line);
  ASSERT_TRUE(back.has_value()) << back.error();
  EXPECT_EQ(back->id, 42u);
  EXPECT_EQ(back->telemetry, event.telemetry);

  protocol::Event failed{protocol::Event::Kind::failed};
  failed.error = makeNEVPNError(NEVPNErrorCode::configurationInvalid, "строка 2: «PrivateKey = …» — не ключ");
  line = protocol::eventLine(failed);
  line.pop_back();
  EXPECT_EQ(protocol::parseEvent(line)->error, failed.error);

  EXPECT_EQ(protocol::parseEvent("{\"event\":\"failed\"}").error(), "failed без ошибки");
  EXPECT_EQ(protocol::parseEvent("{\"event\":\"exploded\"}").error(), "неизвестное событие «exploded»");
  EXPECT_FALSE(protocol::parseEvent("[1,2]").has_value());
  EXPECT_FALSE(protocol::parseEvent("{\"event\":").has_value());
  EXPECT_EQ(protocol::parseCommand("{\"command\":\"telemetry\",\"id\":-1}").error(), "telemetry без id");
  EXPECT_EQ(protocol::parseCommand("{\"command\":\"start\",\"configuration\":\"x\"}").error(),
            "start без configuration");
  EXPECT_EQ(protocol::parseCommand(protocol::stopLine())->kind, protocol::Command::Kind::stop);
}

}  // namespace
}  // namespace norvik
