#include "update/app_version_checker.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "testing/backend_environment.h"
#include "testing/http_fakes.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::FakeHttpTransport;
using Checker = AppVersionChecker;

class AppVersionCheckerTest : public ::testing::Test, protected testing::BackendEnvironment {
 protected:
  AppVersionCheckerTest() {
    transport_.setHandler([this](const HttpRequest&) -> HttpResult {
      if (failing_ > 0) {
        --failing_;
        return FakeHttpTransport::json(400, R"({"message":"bad"})");
      }
      return FakeHttpTransport::json(200, nlohmann::json{{"update", update_}}.dump());
    });
  }

  // One trigger, at least 30 s after the previous one, run to its end; a front-end shows the
  // prompt unless `seen` is false.
  const UpdatePrompt& checkLater(bool seen = true) {
    loop.advance(31s);
    checker_.check();
    loop.runUntil([&] { return !checker_.isChecking(); });
    if (seen) checker_.markSeen();
    return checker_.prompt().get();
  }
  std::size_t sends() const { return transport_.sent().size(); }

  nlohmann::json update_ = {
      {"update_type", "soft_screen"}, {"update_title", "Новая версия"}, {"update_link", "https://norvik.app/dl"}};
  int failing_ = 0;
  FakeHttpTransport transport_{loop};
  NetworkService network_{loop, transport_, security, defaults, clock, log};
  testing::CapturingAnalytics analytics_;
  std::vector<MandatoryUpdate> installs_;
  std::vector<std::string> opened_;
  Checker checker_{loop,
                   network_,
                   defaults,
                   clock,
                   log,
                   analytics_,
                   {[this](const MandatoryUpdate& u) { installs_.push_back(u); },
                    [this](const std::string& url) { opened_.push_back(url); }}};
};

TEST_F(AppVersionCheckerTest, TwoChecksWithinThirtySecondsSendOneRequest) {
  checker_.check();
  loop.runUntilIdle();
  loop.advance(10s);
  checker_.check();
  loop.runUntilIdle();
  EXPECT_EQ(sends(), 1u);
  EXPECT_TRUE(log.hasLine("[Version] Too soon since last check (20s remaining)"));

  loop.advance(19500ms);
  checker_.check();
  EXPECT_TRUE(log.hasLine("[Version] Too soon since last check (1s remaining)"));
  loop.advance(500ms);
  checker_.check();
  loop.runUntilIdle();
  EXPECT_EQ(sends(), 2u);
}

TEST_F(AppVersionCheckerTest, AFailedCheckIsRetriedThreeTimesThreeSecondsApartThenWaitsForTheNextTrigger) {
  failing_ = 100;
  checker_.check();
  loop.advance(1s);
  checker_.check();  // one check at a time: the running one is not doubled
  ASSERT_TRUE(loop.runUntil([&] { return !checker_.isChecking(); }));

  ASSERT_EQ(sends(), 4u);
  for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(transport_.sent()[i].at - loop.start(), 3s * i);
  EXPECT_EQ(log.count("[Version] Check failed: BAD_REQUEST: "), 4u);
  EXPECT_TRUE(log.hasLine("[Version] Retry attempt 1/3 in 3 seconds"));
  EXPECT_TRUE(log.hasLine("[Version] Retry attempt 3/3 in 3 seconds"));
  EXPECT_EQ(log.count("[Version] Max retries (3)"), 1u);
  EXPECT_EQ(loop.pendingTimerCount(), 0u);

  // The next trigger starts over with its own retries; a success ends them.
  failing_ = 2;
  const auto& prompt = checkLater();
  EXPECT_EQ(sends(), 7u);
  EXPECT_EQ(checker_.retryCount(), 0);
  EXPECT_TRUE(prompt.showUpdateAlert);
}

TEST_F(AppVersionCheckerTest, CooldownHoursZeroStoresNoCooldownAndThePromptReturns) {
  update_["cooldown_hours"] = 0;
  defaults.setDouble(Checker::kSoftScreenCooldownKey, 0);  // an old, expired cooldown
  ASSERT_TRUE(checkLater().isSoftScreen);
  checker_.dismiss();
  EXPECT_FALSE(checker_.prompt().get().showUpdateAlert);
  EXPECT_FALSE(defaults.contains(Checker::kSoftScreenCooldownKey));
  EXPECT_EQ(log.count("[Version] Soft_screen cooldown started"), 0u);

  EXPECT_TRUE(checkLater().showUpdateAlert);
  EXPECT_EQ(analytics_.count("later soft_screen"), 1u);
  EXPECT_EQ(analytics_.count("show soft_screen"), 2u);

  update_["cooldown_hours"] = -5;
  checker_.dismiss();
  EXPECT_FALSE(defaults.contains(Checker::kSoftScreenCooldownKey));
}

TEST_F(AppVersionCheckerTest, WithoutCooldownHoursTheSoftScreenStaysHiddenForTwoDays) {
  ASSERT_TRUE(checkLater().showUpdateAlert);
  const double dismissedAt = clock.secondsSince1970();
  checker_.dismiss();
  EXPECT_EQ(defaults.doubleValue(Checker::kSoftScreenCooldownKey), dismissedAt + 172800);
  EXPECT_TRUE(log.hasLine("[Version] Soft_screen cooldown started (48h)"));

  loop.advance(47h);
  EXPECT_FALSE(checkLater().showUpdateAlert);
  EXPECT_EQ(log.count("[Version] Soft_screen update suppressed"), 1u);
  loop.advance(1h);
  EXPECT_TRUE(checkLater().showUpdateAlert);
}

TEST_F(AppVersionCheckerTest, CooldownHoursGiveTheSoftScreenCooldownInWholeHours) {
  update_["cooldown_hours"] = 1.5;
  checkLater();
  checker_.dismiss();
  EXPECT_EQ(defaults.doubleValue(Checker::kSoftScreenCooldownKey), clock.secondsSince1970() + 5400);
  EXPECT_TRUE(log.hasLine("[Version] Soft_screen cooldown started (1h)"));
  loop.advance(1h);
  EXPECT_FALSE(checkLater().showUpdateAlert);
  loop.advance(30min);
  EXPECT_TRUE(checkLater().showUpdateAlert);
}

TEST_F(AppVersionCheckerTest, AOneTimePromptDismissedForOneReleaseIsHiddenForItButShownForAnother) {
  update_ = {{"update_type", "ontime_hash"}, {"update_title", "Версия A"}, {"update_message", "Что нового в A"}};
  ASSERT_TRUE(checkLater().showUpdateAlert);
  const std::string hashA = checker_.releaseHash();
  ASSERT_EQ(hashA.size(), 16u);
  EXPECT_TRUE(log.hasLine("[Version] Ontime_hash update shown (hash: " + hashA + ")"));
  EXPECT_EQ(defaults.doubleValue(Checker::kOntimeUpdateLastShownKey), clock.secondsSince1970());

  checker_.dismiss();
  EXPECT_TRUE(log.hasLine("[Version] Ontime_hash cooldown started (2 days) for hash " + hashA));
  EXPECT_EQ(defaults.doubleValue("ontimeHashLastShown_" + hashA), clock.secondsSince1970());

  EXPECT_FALSE(checkLater().showUpdateAlert);
  EXPECT_TRUE(log.hasLine("[Version] Ontime_hash update suppressed (cooldown active for hash " + hashA + ")"));

  update_["update_title"] = "Версия B";
  update_["update_type"] = "ontime";
  ASSERT_TRUE(checkLater().showUpdateAlert);
  EXPECT_NE(checker_.releaseHash(), hashA);

  update_["update_title"] = "Версия A";
  EXPECT_FALSE(checkLater().showUpdateAlert);
  loop.advance(48h);
  EXPECT_TRUE(checkLater().showUpdateAlert) << "the cooldown of A is over";
}

TEST_F(AppVersionCheckerTest, AForcedUpdateInstallsInTheAppAndCannotBePutOff) {
  update_ = {{"update_type", "force"},
             {"in_app_update", true},
             {"msi_url", "https://dl.norvik.app/Norvik-2.0.dmg"},
             {"update_link", "https://norvik.app/dl"}};
  const UpdatePrompt prompt = checkLater();
  EXPECT_TRUE(prompt.isForceUpdate);
  EXPECT_EQ(prompt.updateLink, "https://dl.norvik.app/Norvik-2.0.dmg");
  EXPECT_EQ(prompt.updateWebLink, "https://norvik.app/dl");

  checker_.dismiss();
  EXPECT_TRUE(checker_.prompt().get().showUpdateAlert);

  checker_.pressMainButton();
  ASSERT_EQ(installs_.size(), 1u);
  EXPECT_EQ(installs_[0], (MandatoryUpdate{"https://dl.norvik.app/Norvik-2.0.dmg", "", "https://norvik.app/dl"}));
  EXPECT_TRUE(
      log.hasLine("[Version] кнопка обновления → обязательное (Sparkle, msi: https://dl.norvik.app/Norvik-2.0.dmg)"));
  EXPECT_TRUE(opened_.empty());
  EXPECT_TRUE(checker_.prompt().get().showUpdateAlert);
}

TEST_F(AppVersionCheckerTest, OtherwiseTheMainButtonOpensThePageWithDefaultButtonTexts) {
  const UpdatePrompt prompt = checkLater();
  EXPECT_EQ(prompt.updateMainButton, "Обновить сейчас");
  EXPECT_EQ(prompt.updateLaterButton, "Не сейчас");
  EXPECT_EQ(analytics_.tags(), (std::vector<std::string>{"update_available", "show soft_screen"}));

  checker_.pressMainButton();
  EXPECT_EQ(opened_, (std::vector<std::string>{"https://norvik.app/dl"}));
  EXPECT_TRUE(log.hasLine("[Version] кнопка обновления → сайт"));
  EXPECT_EQ(analytics_.count("store soft_screen"), 1u);
  EXPECT_FALSE(checker_.prompt().get().showUpdateAlert);

  // A forced update whose mode says "page" goes to the page, and stays on screen.
  update_ = {{"update_type", "force"},
             {"update_mode", "web"},
             {"in_app_update", true},
             {"update_link", "https://norvik.app/dl"},
             {"update_main_button", "Скачать"}};
  EXPECT_EQ(checkLater().updateMainButton, "Скачать");
  checker_.pressMainButton();
  EXPECT_TRUE(installs_.empty());
  EXPECT_EQ(opened_.size(), 2u);
  EXPECT_TRUE(checker_.prompt().get().showUpdateAlert);
}

TEST_F(AppVersionCheckerTest, AnUnknownUpdateModeIsLoggedAndTheInAppFlagDecides) {
  update_ = {{"update_type", "force"}, {"update_mode", "teleport"}, {"in_app_update", true}};
  checkLater();
  EXPECT_TRUE(log.hasLine("[Version] Windows update: unknown mode"));
  checker_.pressMainButton();
  ASSERT_EQ(installs_.size(), 1u);
  EXPECT_FALSE(installs_[0].msiURL.has_value()) << "no disk image: the updater takes the feed's release";
}

TEST_F(AppVersionCheckerTest, TheSamePromptAgainIsNotNewsAndNoUpdateClearsIt) {
  update_ = {{"update_title", "Обычное"}, {"cooldown_hours", 6}};
  EXPECT_TRUE(checkLater().showUpdateAlert);
  EXPECT_TRUE(checkLater().showUpdateAlert);
  EXPECT_EQ(analytics_.count("update_available"), 1u);

  checker_.dismiss();
  EXPECT_EQ(defaults.doubleValue(Checker::kNormalCooldownKey), clock.secondsSince1970() + 6 * 3600);
  EXPECT_FALSE(checkLater().showUpdateAlert);
  loop.advance(6h);
  EXPECT_TRUE(checkLater().showUpdateAlert);

  transport_.setHandler([](const HttpRequest&) { return FakeHttpTransport::json(200, "{}"); });
  EXPECT_FALSE(checkLater().showUpdateAlert);
}

TEST_F(AppVersionCheckerTest, APromptNobodySawRecordsNothingAndCannotBePutOff) {
  update_ = {{"update_type", "ontime_hash"}, {"update_title", "Версия A"}};
  const UpdatePrompt unseen = checkLater(/*seen=*/false);
  ASSERT_TRUE(unseen.showUpdateAlert);
  EXPECT_NE(unseen.id, 0u);
  EXPECT_TRUE(analytics_.tags().empty());
  EXPECT_FALSE(defaults.contains(Checker::kOntimeUpdateLastShownKey));
  EXPECT_FALSE(checker_.dismiss());
  EXPECT_TRUE(checker_.prompt().get().showUpdateAlert);
  EXPECT_FALSE(defaults.contains("ontimeHashLastShown_" + checker_.releaseHash()));

  // Seen twice is shown once; the same prompt keeps its id, another prompt gets a new one.
  checker_.markSeen();
  checker_.markSeen();
  EXPECT_EQ(analytics_.count("update_available"), 1u);
  EXPECT_EQ(defaults.doubleValue(Checker::kOntimeUpdateLastShownKey), clock.secondsSince1970());
  EXPECT_EQ(checkLater().id, unseen.id);
  update_["update_title"] = "Версия B";
  EXPECT_GT(checkLater().id, unseen.id);
  EXPECT_TRUE(checker_.dismiss());
}

}  // namespace
}  // namespace norvik
