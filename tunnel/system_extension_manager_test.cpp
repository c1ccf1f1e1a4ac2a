#include "tunnel/system_extension_manager.h"

#include <gtest/gtest.h>

#include "platform/simulated_tunnel_service.h"
#include "testing/direct_tunnel_intents.h"
#include "testing/fake_named_notifications.h"
#include "testing/fake_system_extension_requests.h"
#include "testing/fakes.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Kind = SystemExtensionState::Kind;
using Answer = SystemExtensionReplacementAction;

constexpr const char* kExtensionKey = "[Interface]\nPrivateKey = a2V5\n[Peer]\nEndpoint = 203.0.113.10:51820";

Error systemError(SystemExtensionErrorCode code) { return makeSystemExtensionError(code, "system says no"); }

class SystemExtensionManagerTest : public ::testing::Test {
 protected:
  SystemExtensionManagerTest() {
    vpn_.start();
    failures_ = vpn_.connectionFailed().subscribe([this](const std::string& text) { failureTexts_.push_back(text); });
    notices_ = manager_->updateNotice().subscribe([this](const std::string& text) { noticeTexts_.push_back(text); });
  }

  SystemExtensionManager::ActivationResult activate(bool forceReplace = false) {
    std::optional<SystemExtensionManager::ActivationResult> result;
    manager_->activate(forceReplace, [&](auto r) { result = std::move(r); });
    loop_.runUntil([&] { return result.has_value(); });
    return *result;
  }

  void connectTunnel() {
    std::optional<std::expected<void, Error>> done;
    vpn_.installKey(kExtensionKey, [&](auto r) { done = r; });
    loop_.runUntil([&] { return done.has_value(); });
    ASSERT_TRUE(done->has_value());
    done.reset();
    vpn_.connect([&](auto r) { done = r; });
    loop_.runUntil([&] { return done.has_value(); });
    ASSERT_TRUE(done->has_value());
    ASSERT_TRUE(loop_.runUntil([&] { return vpn_.connectionState().get() == TunnelStatus::connected; }, 5s));
  }

  [[nodiscard]] Kind stateKind() { return vpn_.systemExtensionState().get().kind; }
  [[nodiscard]] std::string failureText() { return vpn_.systemExtensionState().get().failureText; }
  [[nodiscard]] std::int64_t attempts(const std::string& version) const {
    return standard_.integerForKey("sysext.refreshAttempts." + version);
  }

  testing::VirtualEventLoop loop_;
  testing::VirtualClock clock_{loop_};
  testing::CapturingLog log_;
  testing::CapturingAnalytics analytics_;
  testing::MemoryDefaults group_;
  testing::MemoryDefaults standard_;
  testing::FakeNamedNotifications notifications_{loop_};
  SimulatedTunnelService tunnels_{loop_, clock_, log_, &notifications_, {}};
  VPNManager vpn_{{loop_, tunnels_, notifications_, group_, standard_, clock_, log_, analytics_, {}}};
  testing::FakeSystemExtensionRequests system_{loop_};
  testing::DirectTunnelIntents intents_{loop_, vpn_};
  std::unique_ptr<SystemExtensionManager> manager_ = std::make_unique<SystemExtensionManager>(
      SystemExtensionManager::Dependencies{loop_, system_, vpn_, intents_, standard_, log_, analytics_});
  std::vector<std::string> failureTexts_;
  std::vector<std::string> noticeTexts_;
  Subscription failures_;
  Subscription notices_;
};

// --- Preconditions ---

TEST_F(SystemExtensionManagerTest, ATranslocatedApplicationFailsBeforeAnyRequestWithTheTranslocationText) {
  system_.translocated = true;
  system_.bundlePath = "/private/var/folders/xy/AppTranslocation/1234/d/Norvik.app";  // outside too: order matters

  auto result = activate();
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().kind, SysExtError::Kind::translocated);
  const std::string text(sysext_texts::kTranslocated);
  EXPECT_EQ(result.error().description(), text);
  EXPECT_TRUE(system_.submitted().empty());
  EXPECT_EQ(stateKind(), Kind::failed);
  EXPECT_EQ(failureText(), text);
  EXPECT_EQ(failureTexts_, std::vector<std::string>{text});
  EXPECT_TRUE(log_.hasLine("[VPNManager] sysext activation failed: " + text));
}

TEST_F(SystemExtensionManagerTest, AnApplicationInTheUsersOwnApplicationsFolderFailsWithTheProgramsText) {
  system_.bundlePath = "/Users/anna/Applications/Norvik.app";

  auto result = activate();
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().kind, SysExtError::Kind::notInApplications);
  EXPECT_EQ(result.error().path, "/Users/anna/Applications/Norvik.app");
  EXPECT_EQ(result.error().description(), "Переместите приложение в папку «Программы» и запустите снова.");
  EXPECT_TRUE(system_.submitted().empty());
  EXPECT_EQ(failureText(), result.error().description());
}

// --- Replacement decision ---

TEST_F(SystemExtensionManagerTest, TheReplacementDecisionComparesVersionsForEqualityOnly) {
  struct Case {
    const char* name;
    std::string bundleVersion, shortVersion;
    bool awaitingApproval, forceReplace;
    Answer expected;
  };
  // The carried copy is 100 / 1.0.0.
  const std::vector<Case> cases = {
      {"equal versions", "100", "1.0.0", false, false, Answer::cancel},
      {"short version alone differs", "100", "1.0.1", false, false, Answer::replace},
      {"bundle version alone differs", "101", "1.0.0", false, false, Answer::replace},
      {"installed is newer", "200", "2.0.0", false, false, Answer::replace},
      {"installed awaits approval", "100", "1.0.0", true, false, Answer::replace},
      {"forced", "100", "1.0.0", false, true, Answer::replace},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    system_.installCopy(c.bundleVersion, c.shortVersion);
    system_.installed.front().isAwaitingUserApproval = c.awaitingApproval;
    const std::size_t asked = system_.replacementQuestions().size();

    auto result = activate(c.forceReplace);
    ASSERT_EQ(system_.replacementQuestions().size(), asked + 1);
    EXPECT_EQ(system_.replacementQuestions().back().answer, c.expected);
    // Keeping the installed copy ends the system's request as cancelled; that is success here.
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(*result, SystemExtensionOutcome::completed);
    EXPECT_EQ(stateKind(), Kind::active);
    const auto& running = system_.installed.front();
    EXPECT_EQ(running.bundleVersion, c.expected == Answer::cancel ? c.bundleVersion : "100");
  }
  EXPECT_TRUE(failureTexts_.empty());
  EXPECT_TRUE(log_.contains("[VPNManager] sysext keep installed: installed 100 (1.0.0), bundled 100 (1.0.0)"));
  EXPECT_TRUE(log_.contains("[VPNManager] sysext replace: installed 100 (1.0.1), bundled 100 (1.0.0)"));
}

// --- Outcomes and texts ---

TEST_F(SystemExtensionManagerTest, StateIsActivatingWhileTheRequestRunsAndActiveAfterwards) {
  std::vector<Kind> seen;
  auto watch = vpn_.systemExtensionState().subscribe([&](const SystemExtensionState& s) { seen.push_back(s.kind); });
  ASSERT_EQ(stateKind(), Kind::unknown);
  ASSERT_TRUE(activate().has_value());
  EXPECT_EQ(seen, (std::vector<Kind>{Kind::activating, Kind::active}));
}

TEST_F(SystemExtensionManagerTest, ApprovalAndRebootOutcomesSendTheirInstructionsChosenByTheSystemVersion) {
  system_.approvalRequired = true;
  system_.majorVersion = 14;
  EXPECT_EQ(activate().value(), SystemExtensionOutcome::needsUserApproval);
  EXPECT_EQ(stateKind(), Kind::needsApproval);
  ASSERT_EQ(failureTexts_.size(), 1u);
  EXPECT_NE(failureTexts_.back().find("в блоке «Безопасность» нажмите «Разрешить»"), std::string::npos);

  system_.majorVersion = 15;
  EXPECT_EQ(activate().value(), SystemExtensionOutcome::needsUserApproval);
  EXPECT_EQ(failureTexts_.back(), sysext_texts::kApprovalSwitch);

  system_.approve();
  system_.approvalRequired = false;
  system_.rebootRequired = true;
  system_.carried.bundleVersion = "101";
  EXPECT_EQ(activate().value(), SystemExtensionOutcome::willCompleteAfterReboot);
  EXPECT_EQ(stateKind(), Kind::needsReboot);
  EXPECT_EQ(failureTexts_.back(), "Для завершения установки расширения перезагрузите Mac.");
}

TEST_F(SystemExtensionManagerTest, ForbiddenByPolicyTellsHowToAllowTheExtensionOnThisSystem) {
  system_.majorVersion = 14;
  system_.failNextActivation(systemError(SystemExtensionErrorCode::forbiddenBySystemPolicy));
  EXPECT_EQ(activate().error().description(),
            "Расширение заблокировано системой. Разрешите сетевое расширение «Norvik»: откройте настройки, в блоке "
            "«Безопасность» нажмите «Разрешить» рядом с «Norvik», затем подключитесь снова.");

  system_.majorVersion = 15;
  system_.failNextActivation(systemError(SystemExtensionErrorCode::forbiddenBySystemPolicy));
  const std::string text = activate().error().description();
  EXPECT_EQ(text,
            "Расширение заблокировано системой. Разрешите сетевое расширение «Norvik»: откройте настройки и включите "
            "переключатель напротив «Norvik», затем подключитесь снова.");
  EXPECT_EQ(failureText(), text);
  EXPECT_EQ(failureTexts_.back(), text);
}

TEST_F(SystemExtensionManagerTest, EachFailureCodeHasItsText) {
  const std::string signature(sysext_texts::kSignatureInvalid);
  const std::vector<std::pair<SystemExtensionErrorCode, std::string>> cases = {
      {SystemExtensionErrorCode::missingEntitlement, signature},
      {SystemExtensionErrorCode::codeSignatureInvalid, signature},
      {SystemExtensionErrorCode::validationFailed, signature},
      {SystemExtensionErrorCode::unsupportedParentBundleLocation, "Приложение должно находиться в папке «Программы»."},
      {SystemExtensionErrorCode::authorizationRequired,
       "Требуется подтверждение. Повторите и подтвердите системный запрос."},
      {SystemExtensionErrorCode::extensionNotFound, "system says no"},  // the system's own description
  };
  for (const auto& [code, text] : cases) {
    SCOPED_TRACE(static_cast<int>(code));
    system_.failNextActivation(systemError(code));
    auto result = activate();
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().code, static_cast<int>(code));
    EXPECT_EQ(result.error().description(), text);
    EXPECT_EQ(failureText(), text);
  }
}

// --- One request at a time ---

TEST_F(SystemExtensionManagerTest, RequestsRunOneAtATimeInTheOrderAsked) {
  system_.setLatency(1s);
  std::vector<int> finished;
  manager_->activate(false, [&](auto) { finished.push_back(1); });
  manager_->installedProperties([&](auto) { finished.push_back(2); });
  manager_->activate(true, [&](auto) { finished.push_back(3); });
  loop_.advance(999ms);
  EXPECT_EQ(system_.submitted().size(), 1u);
  EXPECT_TRUE(manager_->isRequestRunning());
  loop_.advance(1ms);
  EXPECT_EQ(system_.submitted().size(), 2u);
  loop_.advance(3s);
  EXPECT_EQ(finished, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(manager_->isRequestRunning());
}

TEST_F(SystemExtensionManagerTest, ARunnerAnswersOnceAndIgnoresWhatTheSystemSaysAfterwards) {
  system_.approvalRequired = true;
  system_.failureAfterApprovalRequest = systemError(SystemExtensionErrorCode::requestCanceled);
  int answers = 0;
  manager_->activate(false, [&](auto result) {
    ++answers;
    EXPECT_EQ(result.value(), SystemExtensionOutcome::needsUserApproval);
  });
  loop_.advance(1s);
  EXPECT_EQ(answers, 1);
  EXPECT_EQ(stateKind(), Kind::needsApproval);
  EXPECT_EQ(failureTexts_.size(), 1u);
  EXPECT_FALSE(log_.contains("sysext activation failed"));
}

// --- Quiet replacement after an update ---

TEST_F(SystemExtensionManagerTest, AfterAnUpdateTheExtensionIsReplacedQuietlyWhileTheTunnelIsDown) {
  system_.installCopy("90", "0.9.0");
  manager_->activateOnLaunch();
  loop_.advance(1s);

  EXPECT_TRUE(log_.hasLine("[SysExtUpdate] installed=90 bundled=100 vpn=disconnected"));
  EXPECT_TRUE(log_.hasLine("[SysExtUpdate] расширение 100 заменено тихо"));
  ASSERT_EQ(system_.replacementQuestions().size(), 1u);
  EXPECT_EQ(system_.replacementQuestions()[0].answer, Answer::replace);
  EXPECT_TRUE(log_.contains("sysext replace (forced)"));
  EXPECT_EQ(stateKind(), Kind::active);
  EXPECT_FALSE(standard_.contains("sysext.refreshAttempts.100")) << "a success clears the count";
  EXPECT_TRUE(noticeTexts_.empty());
}

TEST_F(SystemExtensionManagerTest, AQuietReplacementReconnectsATunnelThatWasUp) {
  connectTunnel();
  system_.installCopy("90", "0.9.0");
  manager_->activateOnLaunch();
  loop_.advance(200ms);
  EXPECT_EQ(noticeTexts_, std::vector<std::string>{"Обновление применяется, переподключаем…"});
  loop_.advance(5s);

  EXPECT_TRUE(log_.hasLine("[SysExtUpdate] installed=90 bundled=100 vpn=connected"));
  EXPECT_TRUE(log_.hasLine("[SysExtUpdate] расширение 100 заменено тихо, VPN снова подключён"));
  EXPECT_EQ(analytics_.count("sysext reconnect ok"), 1u);
  EXPECT_EQ(noticeTexts_.back(), "Обновление применено");
  EXPECT_EQ(vpn_.connectionState().get(), TunnelStatus::connected);
  EXPECT_TRUE(log_.contains("reconnectIfActive: VPN is connected, triggering reconnect"));
}

TEST_F(SystemExtensionManagerTest, ATunnelThatDoesNotComeBackInThirtySecondsIsReportedAsATimeout) {
  connectTunnel();
  system_.installCopy("90", "0.9.0");
  tunnels_.setConnectHangs(true);
  manager_->activateOnLaunch();
  loop_.advance(100ms);  // the quiet replacement is done; the reconnect starts
  ASSERT_EQ(noticeTexts_.size(), 1u);
  loop_.advance(29'999ms);
  EXPECT_EQ(analytics_.count("sysext reconnect fail timeout"), 0u);
  loop_.advance(2ms);
  EXPECT_EQ(analytics_.count("sysext reconnect fail timeout"), 1u);
  EXPECT_EQ(analytics_.count("sysext reconnect ok"), 0u);
  EXPECT_EQ(noticeTexts_.size(), 1u) << "no success notice";
}

TEST_F(SystemExtensionManagerTest, EqualVersionsSkipTheQuietPathAndActivateAsUsual) {
  system_.installCopy("100", "1.0.0");
  manager_->activateOnLaunch();
  loop_.advance(1s);
  EXPECT_TRUE(log_.hasLine("[SysExtUpdate] пропуск: версии совпадают"));
  ASSERT_EQ(system_.activationCount(), 1u);
  EXPECT_EQ(system_.replacementQuestions().back().answer, Answer::cancel) << "not forced";
  EXPECT_EQ(stateKind(), Kind::active);
  EXPECT_FALSE(standard_.contains("sysext.refreshAttempts.100"));
}

TEST_F(SystemExtensionManagerTest, QuietOutcomesOtherThanSuccessAreReportedAndCounted) {
  system_.installCopy("90", "0.9.0");
  system_.failNextActivation(systemError(SystemExtensionErrorCode::validationFailed));
  manager_->activateOnLaunch();
  loop_.advance(1s);
  EXPECT_EQ(analytics_.count("sysext quiet fail"), 1u);
  EXPECT_TRUE(log_.hasLine(std::string("[SysExtUpdate] тихая замена не удалась: ") +
                           std::string(sysext_texts::kSignatureInvalid)));
  EXPECT_EQ(attempts("100"), 1);

  system_.approvalRequired = true;
  manager_->activateOnLaunch();
  loop_.advance(1s);
  EXPECT_EQ(analytics_.count("sysext quiet approval"), 1u);
  EXPECT_EQ(attempts("100"), 2);
}

TEST_F(SystemExtensionManagerTest, AnExhaustedLimitWaitsForTheUserToConnect) {
  system_.installCopy("90", "0.9.0");
  standard_.setInteger("sysext.refreshAttempts.100", 3);
  manager_->activateOnLaunch();
  loop_.advance(1s);
  EXPECT_TRUE(log_.hasLine("[SysExtUpdate] 100: лимит попыток исчерпан, ждём подключения"));
  EXPECT_EQ(system_.activationCount(), 0u);

  connectTunnel();
  loop_.advance(5s);
  EXPECT_EQ(system_.activationCount(), 1u);
  EXPECT_EQ(system_.installed.front().bundleVersion, "100");
  EXPECT_TRUE(log_.hasLine("[SysExtUpdate] расширение 100 заменено тихо, VPN снова подключён"));
}

}  // namespace
}  // namespace norvik
