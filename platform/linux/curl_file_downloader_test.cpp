#include "platform/linux/curl_file_downloader.h"

#include <gtest/gtest.h>

#include "platform/files.h"
#include "testing/loopback_https_server.h"
#include "testing/temp_dir.h"
#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::ServerReply;
using testing::ServerRequest;

class CurlFileDownloaderTest : public ::testing::Test {
 protected:
  std::unique_ptr<CurlFileDownloader> downloader(bool trustServer = true) {
    CurlFileDownloader::Options options;
    if (trustServer) options.extraCaFile = server_.caFile();
    return CurlFileDownloader::create(loop_, options).value();
  }

  DownloadResult download(FileDownloader& d, DownloadRequest request, bool cancelAtOnce = false) {
    std::optional<DownloadResult> result;
    auto handle = d.download(
        std::move(request),
        [&](const DownloadProgress& p) {
          EXPECT_FALSE(result.has_value()) << "progress after the completion";
          progress_.push_back(p);
        },
        [&](DownloadResult r) {
          EXPECT_TRUE(loop_.isLoopThread());
          result = std::move(r);
        });
    if (cancelAtOnce) handle.cancel();
    loop_.runUntilIdle();
    EXPECT_TRUE(result.has_value()) << "the completion did not run";
    return result ? std::move(*result) : std::unexpected(DownloadError{});
  }

  testing::VirtualEventLoop loop_;
  testing::LoopbackHttpsServer server_;
  testing::TempDir dir_;
  std::vector<DownloadProgress> progress_;
};

TEST_F(CurlFileDownloaderTest, WritesTheBodyToTheFileAndEndsWithFullProgress) {
  const std::string body(3 << 20, 'x');
  server_.setHandler([&](const ServerRequest&) { return ServerReply{200, body, "application/octet-stream"}; });
  auto d = downloader();
  const auto file = dir_ / "image.dmg";
  auto result = download(*d, {server_.url("/u/Norvik.dmg"), file});
  ASSERT_TRUE(result.has_value()) << result.error().message;
  EXPECT_EQ(result->bytes, body.size());
  EXPECT_EQ(readFile(file).value(), body);
  ASSERT_FALSE(progress_.empty());
  EXPECT_EQ(progress_.back(), (DownloadProgress{body.size(), body.size()}));
  EXPECT_EQ(std::filesystem::status(file).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(CurlFileDownloaderTest, FollowsAnHttpsRedirect) {
  server_.setHandler([&](const ServerRequest& r) {
    if (r.path == "/old") return ServerReply{302, "", "text/plain", {{"Location", server_.url("/new")}}};
    return ServerReply{200, "payload", "application/octet-stream"};
  });
  auto d = downloader();
  auto result = download(*d, {server_.url("/old"), dir_ / "f"});
  ASSERT_TRUE(result.has_value()) << result.error().message;
  EXPECT_EQ(readFile(dir_ / "f").value(), "payload");
}

TEST_F(CurlFileDownloaderTest, ClassifiesFailures) {
  server_.setHandler([](const ServerRequest& r) {
    if (r.path == "/missing") return ServerReply{404, "not here", "text/plain"};
    return ServerReply{200, std::string(4096, 'y'), "application/octet-stream"};
  });
  auto d = downloader();

  auto missing = download(*d, {server_.url("/missing"), dir_ / "a"});
  ASSERT_FALSE(missing.has_value());
  EXPECT_EQ(missing.error().kind, DownloadErrorKind::httpStatus);
  EXPECT_EQ(missing.error().httpStatus, 404);
  EXPECT_NE(readFile(dir_ / "a").value_or("?"), "not here");  // an error page never lands in the file

  DownloadRequest capped{server_.url("/big"), dir_ / "b"};
  capped.maxBytes = 1000;
  auto tooLarge = download(*d, capped);
  ASSERT_FALSE(tooLarge.has_value());
  EXPECT_EQ(tooLarge.error().kind, DownloadErrorKind::tooLarge);

  auto unwritable = download(*d, {server_.url("/big"), dir_ / "no-such-dir" / "c"});
  ASSERT_FALSE(unwritable.has_value());
  EXPECT_EQ(unwritable.error().kind, DownloadErrorKind::file);

  auto plain = download(*d, {"http://127.0.0.1:1/x", dir_ / "d"});
  ASSERT_FALSE(plain.has_value());
  EXPECT_EQ(plain.error().kind, DownloadErrorKind::network);
}

TEST_F(CurlFileDownloaderTest, VerifiesTheServerCertificate) {
  server_.setHandler([](const ServerRequest&) { return ServerReply{200, "x", "text/plain"}; });
  auto d = downloader(/*trustServer=*/false);
  auto result = download(*d, {server_.url("/x"), dir_ / "f"});
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().kind, DownloadErrorKind::network);
}

TEST_F(CurlFileDownloaderTest, CancelEndsTheDownloadWithCancelled) {
  server_.setHandler([](const ServerRequest&) { return ServerReply{200, "late", "text/plain", {}, 1500ms}; });
  auto d = downloader();
  auto result = download(*d, {server_.url("/slow"), dir_ / "f"}, /*cancelAtOnce=*/true);
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().kind, DownloadErrorKind::cancelled);
}

}  // namespace
}  // namespace norvik
