#include "health/smart_status_engine.h"

#include <gtest/gtest.h>

#include "health/smart_status_test_environment.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Case = SmartStatusHealth::Case;
using nlohmann::json;

class SmartStatusEngineTest : public ::testing::Test {
 protected:
  SmartStatusEngine& start(json policy = json{{"enabled", true}}) {
    s.usePolicy(std::move(policy));
    auto& engine = s.makeEngine();
    healthSubscription = engine.health().subscribe([this](const SmartStatusHealth& h) { seen.push_back(h.kind()); });
    dialogSubscription = engine.dialogRequested().subscribe([this](const SmartStatusDialogRequest& d) {
      dialogs.push_back(d);
      dialogTimes.push_back(s.loop.now());
    });
    return engine;
  }

  // A tunnel that is "connected" but carries nothing: its last handshake is 200 s old.
  void breakTunnel() {
    s.tap.script = [this] { return TunnelTelemetry{s.clock.now() - 200s, 1000, 500, std::string("norvik0")}; };
    s.probes.tunnel = false;
  }

  bool seenCase(Case c) const { return std::find(seen.begin(), seen.end(), c) != seen.end(); }
  bool runUntilCase(Case c) {
    return s.loop.runUntil([&] { return s.kind() == c; }, 10min);
  }

  testing::HealthStack s;
  std::vector<Case> seen;
  std::vector<SmartStatusDialogRequest> dialogs;
  std::vector<EventLoop::TimePoint> dialogTimes;
  Subscription healthSubscription, dialogSubscription;
};

TEST_F(SmartStatusEngineTest, AHealthyTunnelIsProtectedAfterTheVerifyDelayAndWindow) {
  auto& engine = start();
  s.connect();
  const auto connectedAt = s.loop.now();
  s.loop.advance(1199ms);
  EXPECT_EQ(s.kind(), Case::none);
  EXPECT_EQ(engine.statusText().get(), "Подключено");
  EXPECT_EQ(s.tap.fetches, 0) << "nothing is asked before the verify delay";
  s.loop.advance(1ms);
  EXPECT_EQ(s.kind(), Case::checking);
  EXPECT_EQ(engine.healthRaw().get(), "busy");

  ASSERT_TRUE(runUntilCase(Case::protected_));
  EXPECT_LE(s.loop.now() - connectedAt, 1200ms + 5000ms);
  EXPECT_EQ(engine.statusText().get(), "Интернет работает");
  EXPECT_EQ(engine.healthRaw().get(), "ok");
  EXPECT_EQ(s.probes.tunnelInterfaces, (std::vector<std::optional<std::string>>{"norvik0"}));
  const auto stored = s.standard.doubleValue("smartStatusLastVerifiedAtMs");
  ASSERT_TRUE(stored.has_value());
  const double nowMs = std::chrono::duration<double, std::milli>(s.clock.now().time_since_epoch()).count();
  EXPECT_DOUBLE_EQ(*stored, nowMs);
  EXPECT_EQ(s.restarts(), 0u);
  EXPECT_TRUE(dialogs.empty());
}

TEST_F(SmartStatusEngineTest, PeriodicReverificationRefreshesWhileProtectedAndIsOffAtZero) {
  start(json{{"enabled", true}, {"monitor_interval_ms", 20000}});
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::protected_));
  seen.clear();
  const int fetches = s.tap.fetches;
  s.loop.advance(20s);
  EXPECT_EQ(seen, (std::vector<Case>{Case::refreshing}));
  s.loop.advance(5s);
  EXPECT_EQ(seen, (std::vector<Case>{Case::refreshing, Case::protected_}));
  EXPECT_GT(s.tap.fetches, fetches);

  s.usePolicy(json{{"enabled", true}, {"monitor_interval_ms", 0}});
  s.loop.advance(20s);  // the check already scheduled runs once more under the old interval
  const int after = s.tap.fetches;
  s.loop.advance(1h);
  EXPECT_EQ(s.tap.fetches, after);
}

// --- A tunnel that carries nothing: repairs, then a diagnosis from the probes outside ---

struct ProbePattern {
  OutsideProbeResult outside;
  bool subscriptionOver;
  SmartStatusDiagnosis diagnosis;
  std::string dialog;
  SmartStatusDialogAction primary;
};

class SmartStatusDiagnosisTest : public SmartStatusEngineTest, public ::testing::WithParamInterface<ProbePattern> {};

TEST_P(SmartStatusDiagnosisTest, AStaleHandshakeIsRepairedTwiceThenDiagnosed) {
  const ProbePattern& p = GetParam();
  start(json{{"enabled", true}, {"sub_expiry_enabled", true}});
  if (p.subscriptionOver) {
    auto response = std::make_shared<APIResponse>();
    response->main.subActive = false;
    s.responses.set(response);
  }
  s.probes.outside = p.outside;
  breakTunnel();
  s.connect();
  s.loop.advance(1200ms);
  ASSERT_EQ(s.kind(), Case::checking);
  // The first window fails fast, not at its end.
  s.loop.advance(2499ms);
  EXPECT_EQ(s.restarts(), 0u);
  s.loop.advance(1ms);
  EXPECT_EQ(s.restarts(), 1u);
  EXPECT_EQ(s.kind(), Case::repairing);
  EXPECT_TRUE(s.log.contains("silentTunnelRestart: start delay=700ms connectTimeout=10000ms"));

  ASSERT_TRUE(runUntilCase(Case::problem));
  EXPECT_EQ(s.restarts(), 2u);
  EXPECT_EQ(s.probes.outsideCalls, 1);
  EXPECT_EQ(s.engine->health().get().diagnosis(), p.diagnosis);
  EXPECT_EQ(s.engine->healthRaw().get(), "problem");
  EXPECT_EQ(s.engine->statusText().get(), smartStatusText(std::nullopt, statusTextKey(s.engine->health().get())));
  ASSERT_EQ(dialogs.size(), 1u);
  EXPECT_EQ(dialogs[0].identifier, p.dialog);
  EXPECT_EQ(dialogs[0].texts, dialogTexts(std::nullopt, p.diagnosis));
  EXPECT_EQ(dialogs[0].primary, p.primary);
  EXPECT_EQ(s.vpn->connectionState().get(), TunnelStatus::connected) << "the user's tunnel stays on";
}

INSTANTIATE_TEST_SUITE_P(Patterns, SmartStatusDiagnosisTest,
                         ::testing::Values(ProbePattern{{true, false},
                                                        false,
                                                        SmartStatusDiagnosis::whitelist,
                                                        "smart_status_whitelist",
                                                        SmartStatusDialogAction::recheck},
                                           ProbePattern{{false, false},
                                                        false,
                                                        SmartStatusDiagnosis::noInternet,
                                                        "smart_status_no_internet",
                                                        SmartStatusDialogAction::recheck},
                                           ProbePattern{{true, true},
                                                        false,
                                                        SmartStatusDiagnosis::ourSide,
                                                        "smart_status_our_side",
                                                        SmartStatusDialogAction::changeServer},
                                           ProbePattern{{false, true},
                                                        false,
                                                        SmartStatusDiagnosis::ourSide,
                                                        "smart_status_our_side",
                                                        SmartStatusDialogAction::changeServer},
                                           ProbePattern{{true, true},
                                                        true,
                                                        SmartStatusDiagnosis::subExpired,
                                                        "smart_status_sub_expired",
                                                        SmartStatusDialogAction::disconnectAndCheck}));

TEST_F(SmartStatusEngineTest, AProblemIsRecheckedWithoutRestartsAndTheDialogCooldownHolds) {
  start(json{{"enabled", true}, {"recheck_after_problem_ms", 10000}, {"diag_dialog_cooldown_ms", 60000}});
  s.probes.outside = {true, true};
  breakTunnel();
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::problem));
  ASSERT_EQ(dialogs.size(), 1u);
  const std::size_t restarts = s.restarts();

  // The same problem again: rechecked, not restarted, not put to the user twice.
  seen.clear();
  s.loop.advance(10s);
  EXPECT_EQ(seen.front(), Case::rechecking);
  ASSERT_TRUE(runUntilCase(Case::problem));
  EXPECT_EQ(s.restarts(), restarts);
  EXPECT_EQ(dialogs.size(), 1u);

  // A new diagnosis within the cooldown waits; the first recheck after it shows the dialog.
  s.probes.outside = {true, false};
  s.loop.advance(15s);
  EXPECT_EQ(s.engine->health().get().diagnosis(), SmartStatusDiagnosis::whitelist);
  EXPECT_EQ(dialogs.size(), 1u);
  EXPECT_TRUE(s.log.contains("[SmartStatus] диалог whitelist отложен: пауза между диалогами"));
  s.loop.advance(60s);
  ASSERT_EQ(dialogs.size(), 2u);
  EXPECT_EQ(dialogs[1].identifier, "smart_status_whitelist");
  EXPECT_GE(dialogTimes[1] - dialogTimes[0], 60s);
}

TEST_F(SmartStatusEngineTest, ADialogSwitchedOffByTheBackendIsNotRequested) {
  start(json{{"enabled", true}, {"show_dialog_our_side", false}, {"repair_attempts", 0}});
  breakTunnel();
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::problem));
  EXPECT_EQ(s.restarts(), 0u) << "repair_attempts 0";
  EXPECT_TRUE(dialogs.empty());
  EXPECT_EQ(s.engine->statusText().get(), "Есть проблемы с доступом");
}

TEST_F(SmartStatusEngineTest, AWrongDeviceClockIsNamedInsteadOfTheService) {
  start();
  breakTunnel();
  s.clockCheck.reportSkew(-400);
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::problem));
  EXPECT_TRUE(s.engine->clockBlamed().get());
  EXPECT_EQ(s.engine->statusText().get(), "Проверьте дату и время");
  ASSERT_EQ(dialogs.size(), 1u);
  EXPECT_EQ(dialogs[0].identifier, "smart_status_clock");
  EXPECT_TRUE(dialogs[0].deviceClockWrong);
  EXPECT_EQ(dialogs[0].primary, SmartStatusDialogAction::recheck);
  // Once the clock is right again the label names the diagnosis itself.
  s.clockCheck.reportSkew(2);
  EXPECT_EQ(s.engine->statusText().get(), "Есть проблемы с доступом");
}

// --- Modes, telemetry and the probe through the tunnel ---

TEST_F(SmartStatusEngineTest, ReceivedBytesAndTheTunnelProbeAreDemandedOnlyInTheirModes) {
  start(json{{"enabled", true}, {"repair_attempts", 0}});
  s.service.setTrafficFlows(false);  // handshakes are fresh after connecting, but no bytes arrive
  s.modeCode = 2;                    // services
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::protected_));
  EXPECT_TRUE(s.probes.tunnelInterfaces.empty());

  s.vpn->disconnect();
  s.loop.runUntilIdle();
  EXPECT_EQ(s.kind(), Case::none);
  s.modeCode = 0;  // smart: the probe answers, but no bytes came in
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::problem));
  EXPECT_EQ(s.probes.tunnelInterfaces.size(), 1u);
}

TEST_F(SmartStatusEngineTest, TelemetryThatNeverAnswersEndsTheWindowWithoutAVerdictOrOnTheProbe) {
  start(json{{"enabled", true}, {"monitor_interval_ms", 0}});
  s.tap.hang = true;
  s.modeCode = 2;
  s.connect();
  s.loop.advance(1200ms + 5000ms);
  EXPECT_TRUE(seenCase(Case::checking));
  EXPECT_EQ(s.kind(), Case::none) << "no telemetry and no probe: no verdict";
  EXPECT_EQ(s.tap.fetches, 4) << "one request at a time, each cut after 1500 ms";
  EXPECT_EQ(s.restarts(), 0u);

  s.modeCode = 1;  // full: the probe through the tunnel gets through
  s.engine->recheck();
  ASSERT_TRUE(runUntilCase(Case::protected_));
}

// --- What starts a check ---

TEST_F(SmartStatusEngineTest, APathChangeWaitsForTheGraceTimeThenRechecks) {
  start();
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::protected_));
  const int fetches = s.tap.fetches;
  s.changePath("10.0.0.1");
  s.loop.advance(1499ms);
  EXPECT_EQ(s.tap.fetches, fetches);
  EXPECT_EQ(s.kind(), Case::protected_);
  s.loop.advance(1ms);
  EXPECT_EQ(s.kind(), Case::rechecking);
  EXPECT_EQ(s.tap.fetches, fetches + 1);
  ASSERT_TRUE(runUntilCase(Case::protected_));
}

TEST_F(SmartStatusEngineTest, WithoutANetworkUnderTheTunnelThereIsNoRepair) {
  start();
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::protected_));
  breakTunnel();
  s.probes.outside = {false, false};
  s.paths.setPath(NetworkPath{NetworkPathStatus::unsatisfied, {}, {}, false, false, "notAvailable"});
  s.pathMonitor.flush();
  ASSERT_TRUE(runUntilCase(Case::problem));
  EXPECT_EQ(s.engine->health().get().diagnosis(), SmartStatusDiagnosis::noInternet);
  EXPECT_EQ(s.restarts(), 0u);
}

TEST_F(SmartStatusEngineTest, AReturnAfterLongEnoughAwayRechecksAfterTheBeatAndRepairsOnlyWhenAllowed) {
  auto& engine = start(json{{"enabled", true}, {"monitor_interval_ms", 0}, {"recheck_after_problem_ms", 0}});
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::protected_));
  engine.setForeground(false);
  s.loop.advance(30s);
  engine.setForeground(true);
  s.loop.advance(5s);
  EXPECT_FALSE(seenCase(Case::rechecking)) << "30 s away is not a return";

  breakTunnel();
  engine.setForeground(false);
  s.loop.advance(60s);
  engine.setForeground(true);
  s.loop.advance(999ms);
  EXPECT_EQ(s.kind(), Case::protected_);
  s.loop.advance(1ms);
  EXPECT_EQ(s.kind(), Case::rechecking);
  ASSERT_TRUE(runUntilCase(Case::problem));
  EXPECT_EQ(s.restarts(), 0u) << "resume_repair is off";

  // The user's own "Проверить ещё раз" may restart the tunnel.
  engine.perform(SmartStatusDialogAction::recheck);
  s.loop.runUntil([&] { return s.restarts() > 0; }, 1min);
  EXPECT_EQ(s.restarts(), 1u);
}

TEST_F(SmartStatusEngineTest, AColdStartWithARecentProofIsProtectedAtOnce) {
  s.usePolicy(json{{"enabled", true}});
  s.connect();
  s.loop.advance(10s);  // the tunnel's handshake is 10 s old, inside hs_proof_age_ms
  const double hourAgo = std::chrono::duration<double, std::milli>((s.clock.now() - 1h).time_since_epoch()).count();
  s.standard.setDouble("smartStatusLastVerifiedAtMs", hourAgo);
  start();
  s.loop.runUntilIdle();
  EXPECT_EQ(s.kind(), Case::protected_);
  EXPECT_EQ(s.tap.fetches, 1);
  EXPECT_TRUE(s.probes.tunnelInterfaces.empty()) << "no verify window";
  EXPECT_EQ(s.standard.doubleValue("smartStatusLastVerifiedAtMs"), hourAgo) << "a proof is not a verification";
}

TEST_F(SmartStatusEngineTest, AColdStartWithoutAProofVerifiesAtOnce) {
  s.usePolicy(json{{"enabled", true}, {"cold_start_proof_max_age_ms", 0}});
  s.connect();
  s.loop.advance(10s);
  s.standard.setDouble("smartStatusLastVerifiedAtMs",
                       std::chrono::duration<double, std::milli>(s.clock.now().time_since_epoch()).count());
  start(json{{"enabled", true}, {"cold_start_proof_max_age_ms", 0}});
  s.loop.runUntilIdle();
  EXPECT_EQ(s.kind(), Case::checking);
  ASSERT_TRUE(runUntilCase(Case::protected_));
  EXPECT_EQ(s.probes.tunnelInterfaces.size(), 1u);
}

// --- Off, debug, dialogs and the toggle ---

TEST_F(SmartStatusEngineTest, WithThePolicyOffTheEngineDoesNothingAtAll) {
  for (const auto& policy :
       {std::optional<json>(), std::optional<json>(json{{"enabled", false}, {"verify_delay_ms", 0}})}) {
    testing::HealthStack stack;
    stack.usePolicy(policy);
    auto& engine = stack.makeEngine();
    stack.connect();
    stack.changePath("10.0.0.9");
    engine.setForeground(false);
    stack.loop.advance(2h);
    engine.setForeground(true);
    engine.systemDidWake();
    engine.recheck();
    stack.loop.advance(1h);
    EXPECT_EQ(stack.tap.fetches, 0);
    EXPECT_EQ(stack.probes.internetCalls + stack.probes.outsideCalls, 0);
    EXPECT_EQ(stack.paths.startCount(), 0u) << "no path monitor";
    EXPECT_FALSE(engine.isCheckRunning());
    EXPECT_EQ(stack.kind(), Case::none);
    std::optional<std::optional<SmartStatusDialogRequest>> answer;
    engine.preConnectCheck([&](auto dialog) { answer = dialog; });
    ASSERT_TRUE(answer.has_value()) << "answered at once";
    EXPECT_FALSE(answer->has_value());
  }
}

TEST_F(SmartStatusEngineTest, SwitchingThePolicyOffResetsAndStopsEverything) {
  auto& engine = start();
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::protected_));
  EXPECT_TRUE(s.pathMonitor.isRunning());
  s.usePolicy(json{{"enabled", false}});
  EXPECT_EQ(s.kind(), Case::none);
  EXPECT_EQ(engine.healthRaw().get(), std::nullopt);
  EXPECT_FALSE(s.pathMonitor.isRunning());
  EXPECT_TRUE(s.log.hasLine("[SmartStatus] policy off (ccept=enabled_false) — reset + stop path monitor"));
  const int fetches = s.tap.fetches;
  s.loop.advance(2h);
  EXPECT_EQ(s.tap.fetches, fetches);
}

TEST_F(SmartStatusEngineTest, TheDebugScenarioPlaysAProblemThroughWithoutTheNetwork) {
  start(json{{"enabled", true}, {"debug", {{"scenario", "whitelist"}}}});
  s.connect();
  ASSERT_TRUE(runUntilCase(Case::problem));
  EXPECT_EQ(s.engine->health().get().diagnosis(), SmartStatusDiagnosis::whitelist);
  EXPECT_EQ(s.restarts(), 2u) << "the repairs are real";
  EXPECT_EQ(s.probes.outsideCalls, 0) << "the probe results are fixed";
  EXPECT_TRUE(s.log.contains("[SmartStatus] debug override armed: "));
}

TEST_F(SmartStatusEngineTest, AForcedInconclusiveWindowLeavesTheLabelAsItWas) {
  start(json{{"enabled", true}, {"monitor_interval_ms", 10000}, {"debug", {{"force_inconclusive_count", 1}}}});
  s.connect();
  s.loop.advance(1200ms + 5000ms);
  EXPECT_EQ(seen, (std::vector<Case>{Case::checking, Case::none}));
  s.loop.advance(10s);
  ASSERT_TRUE(runUntilCase(Case::protected_));
}

TEST_F(SmartStatusEngineTest, DialogButtonsChangeServerOrStopAndReload) {
  auto& engine = start();
  int changeRequests = 0;
  auto subscription = engine.changeServerRequested().subscribe([&] { ++changeRequests; });
  s.connect();
  engine.perform(SmartStatusDialogAction::changeServer);
  EXPECT_EQ(changeRequests, 1);
  EXPECT_TRUE(s.log.hasLine("[SmartStatus] SmartStatusChangeServer"));
  engine.perform(SmartStatusDialogAction::disconnectAndCheck);
  s.loop.advance(1s);
  EXPECT_EQ(s.reloads, 1);
  EXPECT_EQ(s.vpn->connectionState().get(), TunnelStatus::disconnected);
}

TEST_F(SmartStatusEngineTest, ThePreConnectCheckAnswersWithTheNoInternetDialogOnlyWhenNothingAnswers) {
  auto& engine = start();
  std::vector<std::optional<SmartStatusDialogRequest>> answers;
  engine.preConnectCheck([&](auto dialog) { answers.push_back(dialog); });
  s.probes.outside = {false, false};
  engine.preConnectCheck([&](auto dialog) { answers.push_back(dialog); });
  s.loop.runUntilIdle();
  s.loop.advance(1s);
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_FALSE(answers[0].has_value());
  ASSERT_TRUE(answers[1].has_value());
  EXPECT_EQ(answers[1]->identifier, "smart_status_pre_connect_no_internet");
  EXPECT_EQ(answers[1]->texts.title, "Нет интернета");
  EXPECT_EQ(s.probes.internetCalls, 2);
}

}  // namespace
}  // namespace norvik
