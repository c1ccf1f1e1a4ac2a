#include "update/app_updater.h"

#include <gtest/gtest.h>

#include "testing/fake_file_downloader.h"
#include "testing/fakes.h"
#include "testing/http_fakes.h"
#include "testing/temp_dir.h"
#include "update/fake_mac_tools.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::FakeHttpTransport;
using S = AppUpdateState;
namespace texts = update_texts;

constexpr std::string_view kFeedURL = "https://updates.example.test/mac/appcast.xml";
constexpr std::string_view kMirrorURL = "https://mirror.example.test/mac/appcast.xml";
constexpr std::string_view kImageURL = "https://dl.example.test/Norvik-2.0.dmg";
constexpr std::string_view kNotesURL = "https://updates.example.test/notes/2.0.html";
const std::string& image() {
  static const std::string kImage(100 * 1024, 'I');
  return kImage;
}

class AppUpdaterTest : public ::testing::Test {
 protected:
  AppUpdaterTest() {
    std::filesystem::create_directories(installerConfig_.temporaryDirectory);
    testing::FakeMacTools::writeText(installerConfig_.installedApp() / "Contents" / "version", "1.0");
    downloader_.serve(std::string(kImageURL), image());

    http_.setHandler([this](const HttpRequest& request) -> HttpResult {
      if (auto it = answers_.find(request.url); it != answers_.end()) return it->second;
      return FakeHttpTransport::json(404, "");
    });
    answers_[std::string(kFeedURL)] = page(feed(signer_.sign(image())));
    answers_[std::string(kNotesURL)] = page("<h1>Что нового</h1><ul><li>Быстрее</li></ul>");

    config_.feedURL = kFeedURL;
    config_.mirrorFeedURL = kMirrorURL;
    config_.currentVersion = "1000";
  }

  DiskImageInstallerConfig makeInstallerConfig() const {
    DiskImageInstallerConfig c;
    c.applicationsDirectory = dir_ / "Applications";
    c.volumesDirectory = dir_ / "Volumes";
    c.temporaryDirectory = dir_ / "tmp";
    c.ed25519PublicKey = signer_.publicKey();
    return c;
  }
  static HttpResponse page(std::string body, int status = 200) { return HttpResponse{status, {}, std::move(body)}; }
  static std::string feed(const std::string& signature) {
    return R"(<rss xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle"><channel><item>
      <title>Norvik 2.0</title><sparkle:version>2000</sparkle:version><sparkle:shortVersionString>2.0</sparkle:shortVersionString>
      <sparkle:releaseNotesLink>)" +
           std::string(kNotesURL) + R"(</sparkle:releaseNotesLink>
      <enclosure url=")" +
           std::string(kImageURL) + "\" length=\"" + std::to_string(image().size()) + "\" sparkle:edSignature=\"" +
           signature + R"("/></item></channel></rss>)";
  }

  AppUpdater& updater() {
    if (!updater_) {
      updater_ =
          std::make_unique<AppUpdater>(loop_, http_, std::make_unique<FeedAppcastUpdater>(http_), installer_, log_,
                                       config_, AppUpdater::Hooks{[this] { ++quits_; }, [this] { ++dismissed_; }});
      states_ = updater_->state().subscribe([this](const AppUpdateState& s) { states_seen_.push_back(s); });
    }
    return *updater_;
  }
  const AppUpdateState& checkNow() {
    updater().checkForUpdates();
    loop_.runUntil([&] { return !updater().state().get().is<S::Checking>(); });
    loop_.runUntilIdle();
    return updater().state().get();
  }
  std::vector<std::string> requestedURLs() const {
    std::vector<std::string> urls;
    for (const auto& s : http_.sent()) urls.push_back(s.request.url);
    return urls;
  }
  std::size_t feedRequests() const { return std::ranges::count(requestedURLs(), std::string(kFeedURL)); }

  testing::TempDir dir_;
  testing::VirtualEventLoop loop_;
  testing::CapturingLog log_;
  FakeHttpTransport http_{loop_};
  std::map<std::string, HttpResult> answers_;
  testing::Ed25519Signer signer_;
  testing::FakeFileDownloader downloader_{loop_};
  testing::ScriptedProcessRunner runner_{loop_};
  DiskImageInstallerConfig installerConfig_ = makeInstallerConfig();
  testing::FakeMacTools tools_{runner_, installerConfig_};
  DiskImageInstaller installer_{loop_, downloader_, runner_, log_, installerConfig_};
  AppUpdaterConfig config_;
  int quits_ = 0;
  int dismissed_ = 0;
  std::vector<AppUpdateState> states_seen_;
  Subscription states_;
  std::unique_ptr<AppUpdater> updater_;
};

TEST_F(AppUpdaterTest, StartsAndLooksAtTheFeedOnItsInterval) {
  updater().start();
  EXPECT_TRUE(log_.hasLine("[Update] Sparkle запущен, интервал 14400с, канал beta: false"));
  EXPECT_TRUE(updater().canCheck().get());
  loop_.advance(29s);
  EXPECT_EQ(feedRequests(), 0u);
  loop_.advance(1s);
  EXPECT_EQ(feedRequests(), 1u);
  EXPECT_TRUE(log_.hasLine("[Update] appcast загружен: 1 элементов"));
  EXPECT_TRUE(updater().state().get().is<S::Available>()) << "a background check shows a new release";
  loop_.advance(4h);
  EXPECT_EQ(feedRequests(), 2u);
}

TEST_F(AppUpdaterTest, AStartFailureLeavesTheUpdaterOff) {
  config_.feedURL = "http://updates.example.test/mac/appcast.xml";
  updater().start();
  EXPECT_TRUE(log_.hasLine(
      "[Update] Sparkle не стартовал: адрес фида \"http://updates.example.test/mac/appcast.xml\" не https"));
  EXPECT_FALSE(updater().canCheck().get());
  EXPECT_EQ(checkNow(), (S{S::Failed{"Не удалось обновить"}}));
  loop_.advance(5h);
  EXPECT_TRUE(http_.sent().empty());
}

TEST_F(AppUpdaterTest, AFailedMainFeedFallsBackToTheMirror) {
  answers_[std::string(kMirrorURL)] = answers_[std::string(kFeedURL)];
  answers_[std::string(kFeedURL)] = page("busy", 503);
  updater().start();
  ASSERT_TRUE(checkNow().is<S::Available>());
  EXPECT_TRUE(log_.hasLine("[Update] фид: зеркало"));
  EXPECT_EQ(requestedURLs(),
            (std::vector<std::string>{std::string(kFeedURL), std::string(kMirrorURL), std::string(kNotesURL)}));

  // The main feed is tried first again next time.
  answers_[std::string(kFeedURL)] = answers_[std::string(kMirrorURL)];
  checkNow();
  EXPECT_EQ(requestedURLs()[3], kFeedURL);
  EXPECT_EQ(log_.count("[Update] фид: зеркало"), 1u);
}

TEST_F(AppUpdaterTest, AFeedTooLargeToBeAFeedIsRefusedUnreadAndTheMirrorAsked) {
  const std::size_t size = FeedAppcastUpdater::kMaxFeedBytes + 1;
  answers_[std::string(kMirrorURL)] = answers_[std::string(kFeedURL)];
  answers_[std::string(kFeedURL)] = page(std::string(size, ' '));
  updater().start();
  EXPECT_TRUE(checkNow().is<S::Available>());
  EXPECT_TRUE(log_.hasLine("[Update] фид не загрузился: the feed has " + std::to_string(size) +
                           " bytes, more than a feed can"));
}

TEST_F(AppUpdaterTest, WhenBothFeedsFailOnlyACheckTheUserAskedForSaysSo) {
  answers_[std::string(kFeedURL)] = std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::cannotConnect));
  answers_[std::string(kMirrorURL)] = std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::timedOut));
  updater().start();
  EXPECT_EQ(checkNow(), (S{S::Failed{"Нет связи с сервером обновлений"}}));
  EXPECT_TRUE(updater().canCheck().get());

  answers_[std::string(kMirrorURL)] = page("<html>oops</html>");
  EXPECT_EQ(checkNow(), (S{S::Failed{"Сервер обновлений недоступен"}}));

  updater_.reset();
  updater().start();
  loop_.advance(30s);
  EXPECT_TRUE(updater().state().get().is<S::Idle>()) << "a background failure is only logged";
  EXPECT_EQ(log_.count("[Update] проверка обновлений не удалась: "), 3u);
}

TEST_F(AppUpdaterTest, OffersTheNewestReleaseWithItsNotesAsText) {
  updater().start();
  EXPECT_EQ(checkNow(), (S{S::Available{"2.0", "Доступна версия 2.0", "Norvik 2.0", "Обновить сейчас", true}}));
  EXPECT_EQ(updater().releaseNotes().get(), "Что нового\nБыстрее");
  EXPECT_EQ(describe(updater().state().get()), "Доступна версия 2.0");

  answers_[std::string(kNotesURL)] = page("gone", 404);
  updater_.reset();
  updater().start();
  checkNow();
  EXPECT_TRUE(log_.hasLine("[Update] release notes не загрузились: HTTP status 404"));
  EXPECT_FALSE(updater().releaseNotes().get().has_value());
}

TEST_F(AppUpdaterTest, SaysUpToDateWhenNothingIsNewer) {
  config_.currentVersion = "2000";
  updater().start();
  EXPECT_TRUE(checkNow().is<S::UpToDate>());
  EXPECT_EQ(describe(updater().state().get()), "У вас последняя версия");
}

TEST_F(AppUpdaterTest, APostponedVersionIsNotOfferedAgainByBackgroundChecks) {
  updater().start();
  checkNow();
  updater().postpone();
  EXPECT_TRUE(log_.hasLine("[Update] отложено (2.0)"));
  EXPECT_EQ(updater().postponedVersion().get(), "2.0");
  EXPECT_EQ(dismissed_, 1);
  EXPECT_TRUE(updater().state().get().is<S::Idle>());

  loop_.advance(30s);  // the first background check
  EXPECT_EQ(feedRequests(), 2u);
  EXPECT_TRUE(updater().state().get().is<S::Idle>());
  EXPECT_TRUE(checkNow().is<S::Available>()) << "asking shows it";
}

TEST_F(AppUpdaterTest, WorkThatArrivesWhileACheckRunsIsLoggedAndMandatoryWorkWaitsForIt) {
  http_.setLatency(5s);
  updater().start();
  updater().checkForUpdates();
  updater().checkForUpdates();
  EXPECT_TRUE(log_.hasLine("[Update] ручная проверка: Sparkle занят (идёт проверка)"));
  EXPECT_FALSE(updater().canCheck().get());

  updater().installMandatoryUpdate({std::string(kImageURL), "2.0", "https://norvik.app/dl"});
  EXPECT_TRUE(log_.hasLine("[Update] обязательное обновление: Sparkle занят (идёт проверка)"));
  EXPECT_TRUE(downloader_.requests().empty());
  ASSERT_TRUE(loop_.runUntil([&] { return quits_ == 1; }));
  EXPECT_EQ(feedRequests(), 1u);
  ASSERT_EQ(downloader_.requests().size(), 1u);
}

TEST_F(AppUpdaterTest, InstallingTheOfferedReleaseShowsProgressAndQuitsForTheRelaunch) {
  downloader_.setChunking(32 * 1024, 200ms);
  updater().start();
  checkNow();
  updater().installUpdate();
  EXPECT_FALSE(updater().canCheck().get());
  ASSERT_TRUE(loop_.runUntil([&] { return quits_ == 1; }));

  std::vector<S::Downloading> downloads;
  for (const auto& s : states_seen_) {
    if (auto d = s.as<S::Downloading>()) downloads.push_back(*d);
  }
  ASSERT_GE(downloads.size(), 4u);
  EXPECT_EQ(downloads.front(), (S::Downloading{"2.0", 0, image().size()}));
  EXPECT_EQ(downloads.back(), (S::Downloading{"2.0", image().size(), image().size()}));
  EXPECT_TRUE(std::ranges::any_of(states_seen_, [](const S& s) { return s.is<S::Extracting>(); }));
  EXPECT_TRUE(std::ranges::any_of(states_seen_, [](const S& s) { return s.is<S::Installing>(); }));
  EXPECT_EQ(updater().state().get(), (S{S::ReadyToInstall{"2.0"}}));
  EXPECT_EQ(testing::FakeMacTools::readText(installerConfig_.installedApp() / "Contents" / "version"), "2.0");
}

TEST_F(AppUpdaterTest, AFeedReleaseWhoseImageWasTamperedWithIsNotInstalled) {
  answers_[std::string(kFeedURL)] = page(feed(signer_.sign(image() + "tampered")));
  updater().start();
  checkNow();
  updater().installUpdate();
  ASSERT_TRUE(loop_.runUntil([&] { return updater().state().get().is<S::Failed>(); }));
  EXPECT_EQ(updater().state().get(), (S{S::Failed{"Файл обновления повреждён"}}));
  EXPECT_TRUE(runner_.commands().empty());
  EXPECT_EQ(quits_, 0);
  EXPECT_TRUE(updater().canCheck().get());
}

TEST_F(AppUpdaterTest, AMandatoryUpdateWithoutADiskImageInstallsTheFeedRelease) {
  updater().start();
  updater().installMandatoryUpdate({std::nullopt, "", "https://norvik.app/dl"});
  ASSERT_TRUE(loop_.runUntil([&] { return quits_ == 1; }));
  EXPECT_TRUE(std::ranges::any_of(
      states_seen_, [](const S& s) { return s.as<S::Available>() && !s.as<S::Available>()->dismissible; }));
  EXPECT_EQ(downloader_.requests().at(0).url, kImageURL);

  // Without a newer release in the feed, the page is the way.
  config_.currentVersion = "2000";
  updater_.reset();
  updater().start();
  updater().installMandatoryUpdate({std::nullopt, "", "https://norvik.app/dl"});
  loop_.runUntilIdle();
  EXPECT_EQ(updater().state().get(), (S{S::Failed{"Обновление доступно на сайте"}}));
}

}  // namespace
}  // namespace norvik
