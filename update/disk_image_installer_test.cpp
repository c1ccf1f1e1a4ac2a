#include "update/disk_image_installer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "testing/fake_file_downloader.h"
#include "testing/fakes.h"
#include "testing/temp_dir.h"
#include "update/fake_mac_tools.h"
#include "update/file_signature.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::FakeMacTools;
namespace texts = update_texts;

constexpr std::string_view kInstallerImageURL = "https://dl.example.test/Norvik-2.0.dmg";
const std::string& installerImage() {
  static const std::string kImage = std::string(200 * 1024, 'D') + "disk image";
  return kImage;
}

class DiskImageInstallerTest : public ::testing::Test {
 protected:
  explicit DiskImageInstallerTest(const std::string& applicationsName = "Applications") {
    config_.applicationsDirectory = dir_ / applicationsName;
    config_.volumesDirectory = dir_ / "Volumes";
    config_.temporaryDirectory = dir_ / "tmp";
    for (const auto& d : {config_.applicationsDirectory, config_.volumesDirectory, config_.temporaryDirectory}) {
      std::filesystem::create_directories(d);
    }
    FakeMacTools::writeText(config_.installedApp() / "Contents" / "version", "1.0");
    downloader_.serve(std::string(kInstallerImageURL), installerImage());
  }

  InstallResult install(DiskImageSource source, ProcessRunner* runner = nullptr) {
    DiskImageInstaller installer(loop_, downloader_, runner ? *runner : runner_, log_, config_);
    std::optional<InstallResult> result;
    installer.install(
        std::move(source), [&](const InstallProgress& p) { progress_.push_back(p); },
        [&](InstallResult r) { result = std::move(r); });
    EXPECT_TRUE(loop_.runUntil([&] { return result.has_value(); }));
    EXPECT_FALSE(installer.isRunning());
    return result ? std::move(*result) : std::unexpected(InstallFailure{"no result", ""});
  }
  static DiskImageSource source(std::optional<std::uint64_t> length = installerImage().size(),
                                std::optional<std::string> signature = std::nullopt) {
    return DiskImageSource{std::string(kInstallerImageURL), "2.0", length, std::move(signature), false};
  }
  std::string installedVersion() const {
    return FakeMacTools::readText(config_.installedApp() / "Contents" / "version");
  }
  std::string mountedApp() const { return (tools_.mountPoint / "Norvik.app").string(); }
  std::vector<std::string> commandLines() const {
    std::vector<std::string> lines;
    for (const auto& c : runner_.commands()) lines.push_back(describeCommand(c));
    return lines;
  }
  bool ran(std::string_view program) const { return !runner_.commandsOf(std::string(program)).empty(); }
  std::size_t filesIn(const std::filesystem::path& d) const {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(d), {}));
  }

  testing::TempDir dir_;
  DiskImageInstallerConfig config_;
  testing::VirtualEventLoop loop_;
  testing::CapturingLog log_;
  testing::FakeFileDownloader downloader_{loop_};
  testing::ScriptedProcessRunner runner_{loop_};
  FakeMacTools tools_{runner_, config_};
  std::vector<InstallProgress> progress_;
};

TEST_F(DiskImageInstallerTest, InstallsStepByStepWithTheExactToolsAndOptions) {
  downloader_.setChunking(64 * 1024, 100ms);
  auto result = install(source());
  ASSERT_TRUE(result.has_value()) << result.error().userMessage << ": " << result.error().detail;

  const auto& request = downloader_.requests().at(0);
  EXPECT_TRUE(request.destination.filename().string().starts_with("Norvik-update-")) << request.destination;
  EXPECT_EQ(request.destination.parent_path(), config_.temporaryDirectory);
  EXPECT_EQ(request.maxBytes, installerImage().size());
  const std::string app = config_.installedApp().string();
  const std::string staging = config_.stagingApp().string();
  const std::vector<std::vector<std::string>> expected = {
      {"/usr/bin/hdiutil", "attach", "-nobrowse", "-noautoopen", "-noverify", request.destination.string()},
      {"/usr/bin/codesign", "--verify", "--deep", "--strict", mountedApp()},
      {"/usr/bin/codesign", "--display", "--verbose=2", mountedApp()},
      {"/usr/sbin/spctl", "--assess", "--type", "execute", mountedApp()},
      {"/bin/rm", "-rf", staging},
      {"/usr/bin/ditto", mountedApp(), staging},
      {"/usr/bin/hdiutil", "detach", tools_.mountPoint.string()},
      {"/bin/rm", "-rf", app},
      {"/bin/mv", staging, app},
  };
  EXPECT_EQ(runner_.commands(), expected);
  ASSERT_EQ(runner_.launched().size(), 1u);
  EXPECT_EQ(runner_.launched()[0], (std::vector<std::string>{"/bin/sh", "-c", "sleep 1; open \"" + app + "\""}));

  EXPECT_EQ(installedVersion(), "2.0");
  EXPECT_FALSE(std::filesystem::exists(config_.stagingApp()));
  EXPECT_EQ(filesIn(config_.temporaryDirectory), 0u) << "the download is removed";
  EXPECT_TRUE(log_.hasLine("[Update] msi: скачивание"));

  // Progress: the download in several reports with received and total, then the later steps.
  std::vector<std::uint64_t> received;
  for (const auto& p : progress_) {
    if (p.step == InstallStep::downloading) {
      EXPECT_EQ(p.download.total, installerImage().size());
      received.push_back(p.download.received);
    }
  }
  EXPECT_GE(received.size(), 4u);
  EXPECT_TRUE(std::is_sorted(received.begin(), received.end()));
  EXPECT_EQ(received.back(), installerImage().size());
  EXPECT_EQ(progress_.back().step, InstallStep::relaunching);
}

TEST_F(DiskImageInstallerTest, AnImageSignedByAnotherTeamIsRefusedBeforeAnythingIsCopied) {
  tools_.team = "EVILTEAM42";
  auto result = install(source());
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().userMessage, texts::kWrongTeam);
  EXPECT_EQ(result.error().detail, "TeamIdentifier=EVILTEAM42");
  EXPECT_FALSE(ran("/usr/bin/ditto"));
  EXPECT_FALSE(ran("/bin/rm"));
  EXPECT_FALSE(ran("/bin/mv"));
  EXPECT_EQ(tools_.detached, (std::vector<std::string>{describeCommand({tools_.mountPoint.string(), "-force"})}));
  EXPECT_EQ(installedVersion(), "1.0");
  EXPECT_EQ(filesIn(config_.temporaryDirectory), 0u);

  // A team line that merely begins with ours is not ours.
  tools_.team = "QX7RT2LM9AX";
  EXPECT_EQ(install(source()).error().userMessage, texts::kWrongTeam);
}

TEST_F(DiskImageInstallerTest, EachFailingStepEndsWithItsMessageAndTheImageDetached) {
  struct Case {
    const char* name;
    std::function<void(FakeMacTools&)> breakIt;
    std::string_view message;
    bool wasMounted;
  };
  const Case cases[] = {
      {"attach", [](FakeMacTools& t) { t.attachWorks = false; }, texts::kCannotOpenImage, false},
      {"no app", [](FakeMacTools& t) { t.imageHasApp = false; }, texts::kNoAppInImage, true},
      {"code signature", [](FakeMacTools& t) { t.codeSignatureValid = false; }, texts::kBadCodeSignature, true},
      {"assessment", [](FakeMacTools& t) { t.assessmentPasses = false; }, texts::kAssessmentFailed, true},
      {"staging", [](FakeMacTools& t) { t.diskFull = true; }, texts::kNoAccessToApplications, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testing::ScriptedProcessRunner runner(loop_);
    FakeMacTools tools(runner, config_);
    c.breakIt(tools);
    auto result = install(source(), &runner);
    ASSERT_FALSE(result.has_value());
    EXPECT_EQ(result.error().userMessage, c.message);
    EXPECT_TRUE(log_.contains(fmt::format("[Update] msi: установка не удалась: {}", c.message)));
    if (c.wasMounted) {
      EXPECT_EQ(describeCommand(runner.commands().back()),
                describeCommand({"/usr/bin/hdiutil", "detach", tools.mountPoint.string(), "-force"}));
    } else {
      EXPECT_TRUE(tools.detached.empty());
    }
    EXPECT_TRUE(runner.commandsOf("/bin/mv").empty());
    EXPECT_EQ(installedVersion(), "1.0");
    EXPECT_EQ(filesIn(config_.temporaryDirectory), 0u);
  }
}

TEST_F(DiskImageInstallerTest, AReadOnlyApplicationsFolderLeadsToTheAdministratorNotToAFailure) {
  tools_.readOnly = {config_.applicationsDirectory};
  auto result = install(source());
  ASSERT_TRUE(result.has_value()) << result.error().userMessage << ": " << result.error().detail;
  EXPECT_EQ(installedVersion(), "2.0");
  ASSERT_EQ(tools_.adminScripts.size(), 1u);
  EXPECT_EQ(log_.count("[Update] msi: замена без прав не прошла ("), 1u);
  EXPECT_TRUE(log_.contains(") — просим пароль администратора"));
  EXPECT_EQ(runner_.launched().size(), 1u);
  // The copy was staged privately, and nothing of it is left behind.
  EXPECT_EQ(filesIn(config_.temporaryDirectory), 0u);
  EXPECT_FALSE(std::filesystem::exists(config_.stagingApp()));
}

TEST_F(DiskImageInstallerTest, AnAppThatCannotBeRemovedAsTheUserIsReplacedAsAdministrator) {
  // The folder takes the staging copy, but the installed app belongs to someone else.
  runner_.on("/bin/rm", [this](const std::vector<std::string>& argv) {
    if (argv.at(2) == config_.installedApp().string()) {
      return testing::ScriptedProcessRunner::exited(1, "", "rm: Norvik.app: Operation not permitted");
    }
    std::filesystem::remove_all(argv.at(2));
    return testing::ScriptedProcessRunner::exited(0);
  });
  auto result = install(source());
  ASSERT_TRUE(result.has_value()) << result.error().detail;
  EXPECT_TRUE(log_.contains(
      "[Update] msi: замена без прав не прошла (rm -rf: exit status 1: rm: Norvik.app: Operation not permitted)"));
  EXPECT_EQ(tools_.adminScripts.at(0), "do shell script \"rm -rf \\\"" + config_.installedApp().string() +
                                           "\\\" && mv \\\"" + config_.stagingApp().string() + "\\\" \\\"" +
                                           config_.installedApp().string() + "\\\"\" with administrator privileges");
  EXPECT_EQ(installedVersion(), "2.0");
}

TEST_F(DiskImageInstallerTest, ARefusedAdministratorPromptEndsTheInstallWithItsMessage) {
  tools_.readOnly = {config_.applicationsDirectory};
  tools_.adminApproves = false;
  auto result = install(source());
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().userMessage, texts::kCouldNotFinish);
  EXPECT_TRUE(log_.contains("[Update] msi: замена с правами администратора не прошла: exit status 1: execution error"));
  EXPECT_TRUE(runner_.launched().empty());
  EXPECT_EQ(installedVersion(), "1.0");
}

TEST_F(DiskImageInstallerTest, AFailedReplacementAfterTheAppWasRemovedPutsTheStagingCopyInItsPlace) {
  // Removed as the user, then neither the move nor the administrator manages to put the new one in.
  runner_.on("/bin/mv", [](const std::vector<std::string>& argv) {
    return testing::ScriptedProcessRunner::exited(1, "", "mv: " + argv.at(2) + ": Operation not permitted");
  });
  tools_.adminApproves = false;
  auto result = install(source());
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().userMessage, texts::kCouldNotFinish);
  EXPECT_EQ(installedVersion(), "2.0") << "never left without the application";
  EXPECT_TRUE(log_.hasLine("[Update] msi: приложение восстановлено из копии обновления"));
  EXPECT_TRUE(runner_.launched().empty());
}

// A path with spaces, quotes or shell syntax in it stays one word in both shell texts.
class HostilePathInstallTest : public DiskImageInstallerTest {
 protected:
  HostilePathInstallTest() : DiskImageInstallerTest(R"(Apps "q" 'a' $(touch PWNED) `touch PWNED` ; && \ $HOME)") {}
};

TEST_F(HostilePathInstallTest, APathWithQuotesCannotBreakTheAdministratorScript) {
  tools_.readOnly = {config_.applicationsDirectory};
  auto result = install(source());
  ASSERT_TRUE(result.has_value()) << result.error().detail;
  EXPECT_EQ(installedVersion(), "2.0");
  EXPECT_FALSE(std::filesystem::exists("PWNED"));
  EXPECT_FALSE(std::filesystem::exists(dir_ / "PWNED"));
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_.path())) {
    EXPECT_NE(entry.path().filename(), "PWNED") << entry.path();
  }

  // The relaunch text, run by a real shell, names exactly the installed app.
  const auto& relaunch = runner_.launched().at(0).at(2);
  const std::string echoed =
      testing::runProcess({"/bin/sh", "-c", "open() { printf %s \"$1\"; }; " + relaunch.substr(8)}).out;
  EXPECT_EQ(echoed, config_.installedApp().string());
}

TEST(ShellQuotingTest, EveryByteSurvivesARealShell) {
  const std::string hostile = "a b\t\"c\" 'd' $(e) `f` ${HOME} \\ ; && | > < * ? ! # ~ \n newline";
  auto out = testing::runProcess({"/bin/sh", "-c", "printf %s " + shellQuoted(hostile)});
  EXPECT_EQ(out.out, hostile);
  EXPECT_EQ(relaunchShellText("/Applications/Norvik.app"), "sleep 1; open \"/Applications/Norvik.app\"");
  EXPECT_EQ(FakeMacTools::shellTextOf(administratorReplaceScript("/A/x\"y", "/A/x\"y.update")),
            "rm -rf \"/A/x\\\"y\" && mv \"/A/x\\\"y.update\" \"/A/x\\\"y\"");
}

TEST_F(DiskImageInstallerTest, TheDownloadIsCheckedBeforeAnythingIsMounted) {
  testing::Ed25519Signer signer;
  EXPECT_EQ(install(source(installerImage().size(), signer.sign(installerImage()))).error().userMessage,
            texts::kCouldNotUpdate)
      << "a signature nobody can check is not trusted";
  config_.ed25519PublicKey = signer.publicKey();

  auto shorter = install(source(installerImage().size() + 1));
  EXPECT_EQ(shorter.error().userMessage, texts::kFileDamaged);
  EXPECT_EQ(shorter.error().detail,
            fmt::format("downloaded {} bytes, the feed says {}", installerImage().size(), installerImage().size() + 1));

  auto longer = install(source(installerImage().size() - 1));
  EXPECT_EQ(longer.error().userMessage, texts::kFileDamaged);

  auto tampered = install(source(installerImage().size(), signer.sign(installerImage() + "x")));
  EXPECT_EQ(tampered.error().userMessage, texts::kFileDamaged);
  EXPECT_EQ(tampered.error().detail, "Ed25519 signature: mismatch");

  auto otherKey = install(source(installerImage().size(), testing::Ed25519Signer().sign(installerImage())));
  EXPECT_EQ(otherKey.error().detail, "Ed25519 signature: mismatch");

  auto required = source();
  required.signatureRequired = true;
  EXPECT_EQ(install(required).error().detail, "the feed item carries no Ed25519 signature");

  EXPECT_TRUE(runner_.commands().empty()) << "nothing was mounted";
  EXPECT_EQ(filesIn(config_.temporaryDirectory), 0u);

  auto good = install(source(installerImage().size(), signer.sign(installerImage())));
  EXPECT_TRUE(good.has_value()) << good.error().detail;
}

TEST_F(DiskImageInstallerTest, DownloadFailuresKeepTheirOwnMessages) {
  downloader_.fail("https://dl.example.test/gone.dmg",
                   {DownloadErrorKind::httpStatus, "HTTP status 404", std::nullopt, 404});
  EXPECT_EQ(install({"https://dl.example.test/gone.dmg", "2.0"}).error().userMessage, texts::kDownloadFailed);
  EXPECT_EQ(install({"ftp://dl.example.test/x.dmg", "2.0"}).error().userMessage, texts::kDownloadFailed);

  // An http link is fetched over https.
  install({"http://dl.example.test/Norvik-2.0.dmg", "2.0"});
  EXPECT_EQ(downloader_.requests().back().url, kInstallerImageURL);

  config_.temporaryDirectory = dir_ / "no-such-dir";
  EXPECT_EQ(install(source()).error().userMessage, texts::kDownloadNotSaved);
}

TEST_F(DiskImageInstallerTest, CancellingTheDownloadEndsTheInstall) {
  downloader_.setChunking(1024, 1s);
  DiskImageInstaller installer(loop_, downloader_, runner_, log_, config_);
  std::optional<InstallResult> result;
  installer.install(source(), nullptr, [&](InstallResult r) { result = std::move(r); });
  loop_.advance(3s);
  installer.cancel();
  ASSERT_TRUE(loop_.runUntil([&] { return result.has_value(); }));
  EXPECT_EQ(result->error().userMessage, texts::kCancelled);
  EXPECT_TRUE(runner_.commands().empty());
  EXPECT_EQ(filesIn(config_.temporaryDirectory), 0u);
}

TEST_F(DiskImageInstallerTest, AnAppRunningOutsideTheApplicationsFolderIsNotReplaced) {
  config_.runningBundle = tools_.mountPoint / "Norvik.app";
  EXPECT_EQ(install(source()).error().userMessage, texts::kMoveToApplications);
  EXPECT_TRUE(downloader_.requests().empty());
}

TEST(AttachedTargetTest, FindsTheVolumeEvenWithSpacesAndFallsBackToTheDevice) {
  bool mounted = false;
  EXPECT_EQ(attachedTarget("/dev/disk4\tGUID_partition_scheme\t\n/dev/disk4s1\tApple_HFS\t/Volumes/Norvik 2.0 \n",
                           "/Volumes", &mounted),
            "/Volumes/Norvik 2.0");
  EXPECT_TRUE(mounted);
  EXPECT_EQ(attachedTarget("/dev/disk5\tGUID_partition_scheme\t\n", "/Volumes", &mounted), "/dev/disk5");
  EXPECT_FALSE(mounted);
  EXPECT_EQ(attachedTarget("/dev/disk6\tApple_HFS\t/Volumes/../etc\n", "/Volumes", &mounted), "/dev/disk6");
  EXPECT_FALSE(attachedTarget("", "/Volumes").has_value());
}

}  // namespace
}  // namespace norvik
