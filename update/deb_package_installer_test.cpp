#include "update/deb_package_installer.h"

#include <gtest/gtest.h>

#include "testing/fake_file_downloader.h"
#include "testing/fakes.h"
#include "testing/temp_dir.h"
#include "update/package_test_support.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::ScriptedProcessRunner;
namespace texts = update_texts;

constexpr std::string_view kPackageURL = "https://dl.example.test/norvik_2.0.0_amd64.deb";

class DebPackageInstallerTest : public ::testing::Test {
 protected:
  DebPackageInstallerTest() {
    std::filesystem::create_directories(dir_ / "tmp");
    config_.temporaryDirectory = dir_ / "tmp";
    config_.architecture = "amd64";
    config_.ed25519PublicKey = release_.publicKey();
    runner_.on("/usr/bin/dpkg-deb", [this](const std::vector<std::string>&) { return dpkgDeb_; });
    runner_.on("/usr/bin/pkexec", [this](const std::vector<std::string>& argv) {
      // The file is still there, and checked, when the administrator's install reads it.
      EXPECT_TRUE(std::filesystem::exists(argv.back()));
      return pkexec_;
    });
  }

  // Serves `package` and answers with the feed's signature over it, by `feedSigner` when given.
  UpdateSource serve(const std::string& package, const testing::Ed25519Signer* feedSigner = nullptr) {
    downloader_.serve(std::string(kPackageURL), package);
    UpdateSource source{std::string(kPackageURL), "2.0.0", package.size(), std::nullopt, true};
    source.edSignature = (feedSigner ? *feedSigner : release_).sign(package);
    return source;
  }

  InstallResult install(UpdateSource source) {
    DebPackageInstaller installer(loop_, downloader_, runner_, log_, config_);
    std::optional<InstallResult> result;
    installer.install(
        std::move(source), [&](const InstallProgress& p) { steps_.push_back(p.step); },
        [&](InstallResult r) { result = std::move(r); });
    EXPECT_TRUE(loop_.runUntil([&] { return result.has_value(); }));
    EXPECT_FALSE(installer.isRunning());
    EXPECT_TRUE(std::filesystem::is_empty(dir_ / "tmp")) << "the download is removed either way";
    return result ? std::move(*result) : std::unexpected(InstallFailure{"no result", ""});
  }
  std::string failure(InstallResult result) const {
    return result ? std::string("installed") : result.error().userMessage;
  }
  bool ran(std::string_view program) const { return !runner_.commandsOf(std::string(program)).empty(); }

  testing::TempDir dir_;
  DebPackageInstallerConfig config_;
  testing::VirtualEventLoop loop_;
  testing::CapturingLog log_;
  testing::FakeFileDownloader downloader_{loop_};
  ScriptedProcessRunner runner_{loop_};
  testing::Ed25519Signer release_;
  ProcessRunResult dpkgDeb_ =
      ScriptedProcessRunner::exited(0, "Package: norvik\nVersion: 2.0.0\nArchitecture: amd64\n");
  ProcessRunResult pkexec_ = ScriptedProcessRunner::exited(0, "Setting up norvik (2.0.0) ...\n");
  std::vector<InstallStep> steps_;
};

TEST_F(DebPackageInstallerTest, ASignedPackageOfOursIsInstalledThroughPkexecAfterEveryCheck) {
  auto result = install(serve(testing::signedPackage(release_)));
  ASSERT_TRUE(result.has_value()) << result.error().userMessage << ": " << result.error().detail;

  const auto& request = downloader_.requests().at(0);
  EXPECT_TRUE(request.destination.filename().string().starts_with("Norvik-update-")) << request.destination;
  EXPECT_EQ(request.destination.extension(), ".deb") << "apt installs a file by its .deb name";
  const std::string file = request.destination.string();
  const std::vector<std::vector<std::string>> expected = {
      {"/usr/bin/dpkg-deb", "--field", file, "Package", "Version", "Architecture"},
      {"/usr/bin/pkexec", "/usr/bin/apt-get", "install", "--yes", "--quiet", "--no-install-recommends",
       "--allow-downgrades", "-o", "Dpkg::Options::=--force-confdef", "-o", "Dpkg::Options::=--force-confold", file}};
  EXPECT_EQ(runner_.commands(), expected);
  EXPECT_EQ(steps_.front(), InstallStep::downloading);
  EXPECT_EQ(std::vector<InstallStep>(steps_.end() - 3, steps_.end()),
            (std::vector<InstallStep>{InstallStep::verifying, InstallStep::replacing, InstallStep::relaunching}));
  EXPECT_TRUE(log_.contains("[Update] пакет norvik 2.0.0 (amd64) подписан нами"));
  EXPECT_TRUE(log_.contains("[Update] msi: обновление установлено, перезапуск"));
}

TEST_F(DebPackageInstallerTest, APackageThatIsNotOursIsRefusedBeforeAnythingRuns) {
  const testing::Ed25519Signer stranger;
  // The feed vouches for the file, but the package itself is signed by another key.
  auto foreign = install(serve(testing::signedPackage(stranger)));
  EXPECT_EQ(failure(foreign), texts::kWrongTeam);
  EXPECT_NE(foreign.error().detail.find("package signed with the key " + base64Encode(stranger.publicKey())),
            std::string::npos)
      << foreign.error().detail;
  EXPECT_TRUE(log_.contains("[Update] msi: установка не удалась: Файл подписан не нами — установка отменена"));
  EXPECT_EQ(failure(install(serve(testing::unsignedPackage()))), texts::kWrongTeam);
  EXPECT_TRUE(runner_.commands().empty()) << "neither dpkg-deb nor pkexec ran";

  // Signed by us, but named otherwise: not ours either, and never handed to pkexec.
  dpkgDeb_ = ScriptedProcessRunner::exited(0, "Package: norvik-evil\nVersion: 9\nArchitecture: amd64\n");
  auto renamed = install(serve(testing::signedPackage(release_)));
  EXPECT_EQ(failure(renamed), texts::kWrongTeam);
  EXPECT_EQ(renamed.error().detail, "the package is \"norvik-evil\", not \"norvik\"");
  EXPECT_FALSE(ran("/usr/bin/pkexec"));
}

TEST_F(DebPackageInstallerTest, ADamagedDownloadOrPackageIsRefusedBeforeItIsOpened) {
  const testing::Ed25519Signer stranger;
  const std::string package = testing::signedPackage(release_);
  // The feed's signature is checked first: a download it does not cover is damaged.
  EXPECT_EQ(failure(install(serve(package, &stranger))), texts::kFileDamaged);
  auto shorter = serve(package);
  shorter.expectedLength = package.size() + 1;
  EXPECT_EQ(failure(install(shorter)), texts::kFileDamaged);

  // A forced update carries no feed signature; the package's own still has to hold.
  std::string tampered = package;
  tampered[100] ^= 1;
  auto forced = serve(tampered);
  forced.edSignature.reset();
  forced.signatureRequired = false;
  EXPECT_EQ(failure(install(forced)), texts::kBadCodeSignature);

  auto notAPackage = serve("<html>captive portal</html>");
  notAPackage.edSignature.reset();
  notAPackage.signatureRequired = false;
  EXPECT_EQ(failure(install(notAPackage)), texts::kCannotOpenImage);
  EXPECT_TRUE(runner_.commands().empty());

  dpkgDeb_ = ScriptedProcessRunner::exited(2, "", "dpkg-deb: error: archive has premature member 'data.tar.xz'");
  EXPECT_EQ(failure(install(serve(package))), texts::kCannotOpenImage);
  EXPECT_FALSE(ran("/usr/bin/pkexec"));
}

TEST_F(DebPackageInstallerTest, APackageForAnotherArchitectureIsRefused) {
  dpkgDeb_ = ScriptedProcessRunner::exited(0, "Package: norvik\nVersion: 2.0.0\nArchitecture: arm64\n");
  auto result = install(serve(testing::signedPackage(release_)));
  EXPECT_EQ(failure(result), texts::kWrongArchitecture);
  EXPECT_EQ(result.error().detail, "the package is built for \"arm64\", this system is \"amd64\"");

  // Without a configured architecture dpkg is asked; "all" fits every system.
  config_.architecture.clear();
  runner_.on("/usr/bin/dpkg",
             [](const std::vector<std::string>&) { return ScriptedProcessRunner::exited(0, "arm64\n"); });
  EXPECT_EQ(failure(install(serve(testing::signedPackage(release_)))), "installed");
  EXPECT_EQ(runner_.indexOf({"/usr/bin/dpkg", "--print-architecture"}) >= 0, true);
  dpkgDeb_ = ScriptedProcessRunner::exited(0, "Package: norvik\nVersion: 2.0.0\nArchitecture: all\n");
  config_.architecture = "riscv64";
  EXPECT_EQ(failure(install(serve(testing::signedPackage(release_)))), "installed");
}

TEST_F(DebPackageInstallerTest, TheAdministratorsAnswerDecidesTheOutcome) {
  const std::string package = testing::signedPackage(release_);
  pkexec_ = ScriptedProcessRunner::exited(126, "", "Error executing command as another user: Request dismissed");
  EXPECT_EQ(failure(install(serve(package))), texts::kCancelled);
  EXPECT_TRUE(
      log_.contains("[Update] msi: замена с правами администратора не прошла: exit status 126: Error executing "
                    "command as another user: Request dismissed"));

  pkexec_ = ScriptedProcessRunner::exited(127, "", "Error executing command as another user: Not authorized");
  EXPECT_EQ(failure(install(serve(package))), texts::kCouldNotFinish);
  pkexec_ = ScriptedProcessRunner::exited(100, "", "E: Unable to correct problems, you have held broken packages.");
  EXPECT_EQ(failure(install(serve(package))), texts::kCouldNotFinish);
  runner_.on("/usr/bin/pkexec",
             [](const std::vector<std::string>&) { return ScriptedProcessRunner::missing("/usr/bin/pkexec"); });
  EXPECT_EQ(failure(install(serve(package))), texts::kCouldNotFinish);
}

TEST_F(DebPackageInstallerTest, WithoutAReleaseKeyNothingIsDownloaded) {
  config_.ed25519PublicKey.reset();
  auto result = install(serve(testing::signedPackage(release_)));
  EXPECT_EQ(failure(result), texts::kCouldNotUpdate);
  EXPECT_TRUE(downloader_.requests().empty());
  EXPECT_TRUE(runner_.commands().empty());
}

TEST_F(DebPackageInstallerTest, PackageFieldsAreReadLineByLine) {
  const auto fields = parsePackageFields("Package: norvik\nVersion:  1.2.3+ci1 \nArchitecture: amd64\nOther: x");
  EXPECT_EQ(fields.package, "norvik");
  EXPECT_EQ(fields.version, "1.2.3+ci1");
  EXPECT_EQ(fields.architecture, "amd64");
  EXPECT_EQ(parsePackageFields("garbage\n").package, "");
}

}  // namespace
}  // namespace norvik
