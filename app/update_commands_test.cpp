// `norvik update` as a user runs it: a separate process and a real HTTPS feed on loopback.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "testing/loopback_https_server.h"
#include "testing/subprocess.h"
#include "testing/temp_dir.h"
#include "testing/test_provisioning.h"
#include "update/fake_mac_tools.h"

namespace norvik {
namespace {

using testing::ProcessResult;
using testing::ServerReply;
using testing::ServerRequest;

// A function-local static: built on first use, not while the test program starts.
const std::string& image() {
  static const std::string kImage(300 * 1024, 'N');
  return kImage;
}

class UpdateCommandsTest : public ::testing::Test {
 protected:
  UpdateCommandsTest() {
    std::filesystem::create_directories(dir_ / "tmp");
    server_.setHandler([this](const ServerRequest& r) {
      if (r.path == "/mac/appcast.xml") return feedReply_;
      if (r.path == "/mirror/mac/appcast.xml") return ServerReply{200, feed(), "application/xml"};
      if (r.path == "/notes/2.0.html")
        return ServerReply{200, "<h2>Что нового</h2><ul><li>Быстрее</li></ul>", "text/html"};
      if (r.path == "/dl/Norvik-2.0.dmg") return ServerReply{200, image(), "application/octet-stream"};
      return ServerReply{404, "", "text/plain"};
    });
  }

  std::string feed() const {
    std::string signature;
    if (signImage_) signature = " sparkle:edSignature=\"" + signer_.sign(image()) + "\"";
    return R"(<rss xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle"><channel><item>
      <title>Norvik 2.0</title><sparkle:version>2.0.0</sparkle:version><sparkle:shortVersionString>2.0</sparkle:shortVersionString>
      <sparkle:releaseNotesLink>)" +
           server_.url("/notes/2.0.html") + R"(</sparkle:releaseNotesLink>
      <enclosure url=")" +
           server_.url("/dl/Norvik-2.0.dmg") + "\" length=\"" + std::to_string(image().size()) + "\"" + signature +
           R"(/></item></channel></rss>)";
  }

  void provisionUpdateKey() {
    auto p = testing::testProvisioning();
    p.updateEd25519PublicKey = base64Encode(signer_.publicKey());
    ASSERT_TRUE(writeProvisioning(provisioning_, p));
    provisioned_ = true;
  }

  ProcessResult norvik(std::vector<std::string> args) {
    std::vector<std::string> argv = {NORVIK_CLI_PATH, "--home", (dir_ / "home").string(), "--ca-file",
                                     server_.caFile().string()};
    if (provisioned_) argv.insert(argv.end(), {"--provisioning", provisioning_.string()});
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv, {{"NORVIK_PROVISIONING", ""}, {"TMPDIR", (dir_ / "tmp").string()}});
  }
  std::string feedURL() const { return server_.url("/mac/appcast.xml"); }

  testing::TempDir dir_;
  std::filesystem::path provisioning_ = dir_ / "provisioning.json";
  bool provisioned_ = false;
  testing::Ed25519Signer signer_;
  bool signImage_ = false;
  testing::LoopbackHttpsServer server_;
  ServerReply feedReply_{200, feed(), "application/xml"};
};

TEST_F(UpdateCommandsTest, CheckPrintsWhatTheFeedOffers) {
  auto result = norvik({"update", "check", "--feed", feedURL()});
  ASSERT_EQ(result.exitStatus, 0) << result.err;
  EXPECT_EQ(result.out,
            "Подключаемся к серверу обновлений…\n"
            "Доступна версия 2.0\n"
            "  title: Norvik 2.0\n"
            "  build: 2.0.0\n"
            "  file: " +
                server_.url("/dl/Norvik-2.0.dmg") +
                "\n"
                "  length: 307200 bytes\n"
                "  signature: none\n"
                "  release notes:\n"
                "    Что нового\n"
                "    Быстрее\n");

  auto upToDate = norvik({"update", "check", "--feed", feedURL(), "--current-version", "2.0.0"});
  ASSERT_EQ(upToDate.exitStatus, 0) << upToDate.err;
  EXPECT_NE(upToDate.out.find("У вас последняя версия"), std::string::npos) << upToDate.out;
}

TEST_F(UpdateCommandsTest, CheckFallsBackToTheMirrorAndReportsAFeedThatIsDown) {
  feedReply_ = ServerReply{503, "busy", "text/plain"};
  auto viaMirror =
      norvik({"-v", "update", "check", "--feed", feedURL(), "--mirror", server_.url("/mirror/mac/appcast.xml")});
  ASSERT_EQ(viaMirror.exitStatus, 0) << viaMirror.err;
  EXPECT_NE(viaMirror.out.find("Доступна версия 2.0"), std::string::npos);
  EXPECT_NE(viaMirror.err.find("[Update] фид: зеркало"), std::string::npos) << viaMirror.err;

  auto down = norvik({"update", "check", "--feed", feedURL()});
  EXPECT_EQ(down.exitStatus, 1);
  EXPECT_EQ(down.err, "Сервер обновлений недоступен\n");

  EXPECT_EQ(norvik({"update", "check", "--feed", "http://example.test/mac/appcast.xml"}).exitStatus, 2);
}

TEST_F(UpdateCommandsTest, InstallShowsDownloadProgressThenRefusesAFileThatIsNotAPackage) {
  signImage_ = true;
  feedReply_ = ServerReply{200, feed(), "application/xml"};
  provisionUpdateKey();
  auto result = norvik({"update", "install", "--feed", feedURL()});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_NE(result.out.find("Загрузка…: 0 / 307200 bytes\n"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("Загрузка…: 307200 / 307200 bytes\n"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("Подготовка обновления…\n"), std::string::npos) << "the signature passed: " << result.out;
  // On Linux the release must be a Debian package; a disk image is not one.
  EXPECT_EQ(result.err, "Не удалось открыть загруженный файл\n");
  EXPECT_TRUE(std::filesystem::is_empty(dir_ / "tmp")) << "the download is removed";
}

}  // namespace
}  // namespace norvik
