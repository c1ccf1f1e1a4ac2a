// The Linux update end to end, as `norvik update install` runs it: the local backend's feed (real
// HTTPS on loopback) offers a package; the updater downloads it with libcurl, checks its size and
// the feed's signature, the package's own signature and, with the real dpkg-deb, its fields, and
// hands it to pkexec. pkexec is the platform seam: a recording stand-in installs the package with
// dpkg into a throw-away root instead of the system. Needs root (dpkg sets owners); skips otherwise.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "platform/files.h"
#include "platform/linux/asio_event_loop.h"
#include "platform/linux/curl_file_downloader.h"
#include "platform/linux/curl_http_transport.h"
#include "platform/linux/posix_process_runner.h"
#include "testing/fakes.h"
#include "testing/subprocess.h"
#include "testing/temp_dir.h"
#include "tools/devbackend/dev_backend.h"
#include "tools/devbackend/dev_material.h"
#include "update/app_updater.h"
#include "update/deb_package_installer.h"
#include "update/file_signature.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

// Records every command; runs `pkexec apt-get install … FILE` as dpkg installing FILE into `root`.
class PkexecStandIn final : public ProcessRunner {
 public:
  PkexecStandIn(ProcessRunner& real, std::filesystem::path root) : real_(real), root_(std::move(root)) {}

  void run(ProcessCommand command, ProcessCompletion completion) override {
    commands.push_back(command.argv);
    if (command.argv.at(0) == package_tools::kPkexec) {
      command.argv = {"/usr/bin/dpkg",    "--root=" + root_.string(),  "--log=" + (root_ / "dpkg.log").string(),
                      "--force-depends",  "--force-script-chrootless", "--install",
                      command.argv.back()};
    }
    real_.run(std::move(command), std::move(completion));
  }
  [[nodiscard]] std::expected<void, Error> launchDetached(std::vector<std::string> argv) override {
    commands.push_back(std::move(argv));
    return {};
  }

  std::vector<std::vector<std::string>> commands;

 private:
  ProcessRunner& real_;
  std::filesystem::path root_;
};

class PackageUpdateEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: dpkg installs into the throw-away root as root";
    for (const auto* d : {"var/lib/dpkg/info", "var/lib/dpkg/updates", "var/lib/dpkg/triggers"}) {
      std::filesystem::create_directories(root_ / d);
    }
    ASSERT_TRUE(writeFileAtomically(root_ / "var/lib/dpkg/status", "").has_value());
    // The backend's feed key exists before the backend starts, so that the release can be signed
    // with it first.
    ASSERT_TRUE(devbackend::FeedSigner::loadOrCreate(dir_ / "backend" / "feed_signing_key.pem").has_value());
  }

  // A small package "norvik" 1.1.0 as dpkg-deb builds it, signed with `key` by scripts/sign-package.
  std::filesystem::path makePackage(const std::filesystem::path& key) {
    const auto stage = dir_ / "stage";
    std::filesystem::remove_all(stage);
    std::filesystem::create_directories(stage / "DEBIAN");
    std::filesystem::create_directories(stage / "usr/libexec/norvik");
    EXPECT_TRUE(writeFileAtomically(stage / "DEBIAN/control",
                                    "Package: norvik\nVersion: 1.1.0\nArchitecture: all\nMaintainer: Norvik "
                                    "<support@norvik.app>\nDescription: VPN client\n test package\n")
                    .has_value());
    EXPECT_TRUE(writeFileAtomically(stage / "usr/libexec/norvik/norvik-tunnel.version",
                                    "CFBundleVersion=1.1.0\nCFBundleShortVersionString=1.1.0\n")
                    .has_value());
    auto deb = dir_ / "norvik_1.1.0_all.deb";
    std::filesystem::remove(deb);
    auto built =
        testing::runProcess({"/usr/bin/dpkg-deb", "--root-owner-group", "--build", stage.string(), deb.string()});
    EXPECT_EQ(built.exitStatus, 0) << built.err;
    auto signedRun = testing::runProcess({NORVIK_SOURCE_DIR "/scripts/sign-package", key.string(), deb.string()});
    EXPECT_EQ(signedRun.exitStatus, 0) << signedRun.err;
    return deb;
  }

  // Runs the updater against a backend whose feed offers `package`, as `norvik update install`
  // does, and returns its final state.
  AppUpdateState update(const std::filesystem::path& package) {
    devbackend::DevBackendOptions options;
    options.stateDir = dir_ / "backend";
    options.feedVersion = "1.1.0";
    options.feedFile = package;
    options.log = &backendLog_;
    auto backend = devbackend::DevBackend::start(options);
    EXPECT_TRUE(backend.has_value()) << (backend ? "" : backend.error().description());
    if (!backend) return {};
    const auto key = parseEd25519PublicKey(*(*backend)->provisioning().updateEd25519PublicKey).value();

    AsioEventLoop loop;
    auto http = CurlHttpTransport::create(loop, {(*backend)->caFile()}).value();
    auto downloads = CurlFileDownloader::create(loop, {(*backend)->caFile()}).value();
    PosixProcessRunner real(loop);
    PkexecStandIn runner(real, root_);
    std::filesystem::create_directories(dir_ / "tmp");
    DebPackageInstallerConfig installerConfig;
    installerConfig.ed25519PublicKey = key;
    installerConfig.temporaryDirectory = dir_ / "tmp";
    DebPackageInstaller installer(loop, *downloads, runner, log_, installerConfig);
    AppUpdaterConfig config;
    config.feedURL = (*backend)->url("/linux/appcast.xml");
    config.mirrorFeedURL = "";
    config.currentVersion = "1.0.0";
    bool quit = false;
    AppUpdater updater(loop, *http, std::make_unique<FeedAppcastUpdater>(*http), installer, log_, config,
                       AppUpdater::Hooks{[&] {
                                           quit = true;
                                           loop.stop();
                                         },
                                         nullptr});
    updater.start();
    bool installing = false;
    auto watch = updater.state().subscribe([&](const AppUpdateState& state) {
      if (state.is<AppUpdateState::Available>() && !installing) {
        installing = true;
        loop.post([&] { updater.installUpdate(); });
      } else if (state.is<AppUpdateState::Failed>() || state.is<AppUpdateState::UpToDate>()) {
        loop.stop();
      }
    });
    auto watchdog = loop.postAfter(60s, [&] {
      ADD_FAILURE() << "the update did not end within 60 s";
      loop.stop();
    });
    updater.checkForUpdates();
    loop.run();
    loop.joinWorkers();
    quit_ = quit;
    commands_ = runner.commands;
    return updater.state().get();
  }

  bool pkexecRan() const {
    return std::ranges::any_of(commands_, [](const auto& argv) { return argv.at(0) == package_tools::kPkexec; });
  }

  testing::TempDir dir_;
  std::filesystem::path root_ = dir_ / "root";
  testing::CapturingLog log_;
  testing::CapturingLog backendLog_;
  bool quit_ = false;
  std::vector<std::vector<std::string>> commands_;
};

TEST_F(PackageUpdateEndToEndTest, AReleaseSignedWithTheReleaseKeyIsInstalledAndTheApplicationRestarts) {
  const auto deb = makePackage(dir_ / "backend" / "feed_signing_key.pem");
  const AppUpdateState state = update(deb);

  ASSERT_TRUE(state.is<AppUpdateState::ReadyToInstall>()) << describe(state) << "\n"
                                                          << fmt::format("{}", fmt::join(log_.lines(), "\n"));
  EXPECT_TRUE(quit_) << "the application is asked to quit";
  ASSERT_TRUE(pkexecRan());
  const auto& pkexec =
      *std::ranges::find_if(commands_, [](const auto& argv) { return argv.at(0) == "/usr/bin/pkexec"; });
  EXPECT_EQ(pkexec.at(1), "/usr/bin/apt-get");
  EXPECT_EQ(pkexec.at(2), "install");
  EXPECT_EQ(std::filesystem::path(pkexec.back()).parent_path(), dir_ / "tmp");

  // Installed into the throw-away root: the files and dpkg's record of the package.
  EXPECT_EQ(readFile(root_ / "usr/libexec/norvik/norvik-tunnel.version", 4096).value_or(""),
            "CFBundleVersion=1.1.0\nCFBundleShortVersionString=1.1.0\n");
  const std::string status = readFile(root_ / "var/lib/dpkg/status", 1 << 20).value_or("");
  EXPECT_NE(status.find("Package: norvik\nStatus: install ok installed"), std::string::npos) << status;
  EXPECT_NE(status.find("Version: 1.1.0"), std::string::npos) << status;
  EXPECT_TRUE(std::filesystem::is_empty(dir_ / "tmp")) << "the download is removed";
  EXPECT_TRUE(log_.contains("[Update] пакет norvik 1.1.0 (all) подписан нами"));
}

TEST_F(PackageUpdateEndToEndTest, APackageSignedWithAnotherKeyIsRefusedBeforeInstallation) {
  const auto otherKey = dir_ / "other.pem";
  ASSERT_EQ(testing::runProcess({"/usr/bin/openssl", "genpkey", "-algorithm", "ed25519", "-out", otherKey.string()})
                .exitStatus,
            0);
  // The feed signs whatever file it offers, so the download passes its check; the package does not.
  const AppUpdateState state = update(makePackage(otherKey));

  ASSERT_TRUE(state.is<AppUpdateState::Failed>()) << describe(state);
  EXPECT_EQ(describe(state), update_texts::kWrongTeam);
  EXPECT_FALSE(pkexecRan()) << "nothing was handed to the administrator";
  EXPECT_TRUE(commands_.empty()) << "not even dpkg-deb read the package";
  EXPECT_FALSE(std::filesystem::exists(root_ / "usr"));
  EXPECT_TRUE(std::filesystem::is_empty(dir_ / "tmp"));
}

}  // namespace
}  // namespace norvik
