#include "platform/linux/curl_http_transport.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "testing/loopback_https_server.h"
#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::ServerReply;
using testing::ServerRequest;

class CurlHttpTransportTest : public ::testing::Test {
 protected:
  std::unique_ptr<CurlHttpTransport> transport(bool trustServer = true) {
    CurlHttpTransport::Options options;
    if (trustServer) options.extraCaFile = server_.caFile();
    auto made = CurlHttpTransport::create(loop_, options);
    EXPECT_TRUE(made.has_value());
    return std::move(*made);
  }

  HttpResult send(HttpTransport& transport, HttpRequest request) {
    std::optional<HttpResult> result;
    transport.send(std::move(request), [&](HttpResult r) {
      EXPECT_TRUE(loop_.isLoopThread());
      result = std::move(r);
    });
    loop_.runUntilIdle();
    EXPECT_TRUE(result.has_value()) << "the completion did not run";
    return std::move(*result);
  }

  testing::VirtualEventLoop loop_;
  testing::LoopbackHttpsServer server_;
};

TEST_F(CurlHttpTransportTest, PostsBodyAndHeadersAndReturnsTheAnswer) {
  server_.setHandler([](const ServerRequest& r) {
    return ServerReply{201, "echo:" + r.body, "text/plain", {{"Date", "Sun, 22 Nov 2026 10:00:00 GMT"}}};
  });
  auto http = transport();
  auto result = send(*http, {"POST", server_.url("/api/main"), {{"X-Nonce", "abc"}}, "{\"a\":1}", 5s});
  ASSERT_TRUE(result.has_value()) << result.error().message;
  EXPECT_EQ(result->status, 201);
  EXPECT_EQ(result->body, "echo:{\"a\":1}");
  EXPECT_EQ(findHeader(result->headers, "date"), "Sun, 22 Nov 2026 10:00:00 GMT");

  auto received = server_.requests();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].method, "POST");
  EXPECT_EQ(received[0].path, "/api/main");
  EXPECT_EQ(findHeader(received[0].headers, "X-Nonce"), "abc");
}

TEST_F(CurlHttpTransportTest, AServerOutsideTheTrustStoreIsRefused) {
  auto http = transport(/*trustServer=*/false);
  auto result = send(*http, {"GET", server_.url("/"), {}, "", 5s});
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().kind, NetworkErrorKind::certificate) << "the user can act on it: another network";
  EXPECT_FALSE(result.error().certificateOutOfDate);
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(CurlHttpTransportTest, PlainHttpIsNeverSpoken) {
  auto http = transport();
  auto result = send(*http, {"GET", "http://127.0.0.1:" + std::to_string(server_.port()) + "/", {}, "", 5s});
  ASSERT_FALSE(result.has_value());
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(CurlHttpTransportTest, ASlowServerIsATimeOut) {
  server_.setHandler([](const ServerRequest&) { return ServerReply{200, "{}", "application/json", {}, 500ms}; });
  auto http = transport();
  auto result = send(*http, {"POST", server_.url("/slow"), {}, "{}", 100ms});
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().kind, NetworkErrorKind::timedOut);
}

TEST_F(CurlHttpTransportTest, AClosedPortCannotConnect) {
  // Bind a port and close it again: nothing listens there afterwards.
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);

  auto http = transport();
  auto result = send(*http, {"GET", "https://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/", {}, "", 5s});
  ASSERT_FALSE(result.has_value());
  EXPECT_EQ(result.error().kind, NetworkErrorKind::cannotConnect);
}

TEST_F(CurlHttpTransportTest, AnUnknownHostIsHostNotFound) {
  auto http = transport();
  auto result = send(*http, {"GET", "https://no-such-host.invalid/", {}, "", 10s});
  ASSERT_FALSE(result.has_value());
  if (result.error().kind == NetworkErrorKind::timedOut) GTEST_SKIP() << "this machine's resolver does not answer";
  EXPECT_EQ(result.error().kind, NetworkErrorKind::hostNotFound);
}

TEST(CurlHttpTransportCertificates, AnExpiredCertificateIsMarkedAsOutOfDate) {
  testing::VirtualEventLoop loop;
  testing::TestPkiOptions expired;
  expired.validFrom = -std::chrono::hours(48);
  expired.validUntil = -std::chrono::hours(24);
  testing::LoopbackHttpsServer server(expired);
  auto http = CurlHttpTransport::create(loop, {server.caFile()});
  ASSERT_TRUE(http.has_value());
  std::optional<HttpResult> result;
  (*http)->send({"GET", server.url("/"), {}, "", std::chrono::seconds(5)},
                [&](HttpResult r) { result = std::move(r); });
  loop.runUntilIdle();
  ASSERT_TRUE(result && !result->has_value());
  EXPECT_EQ(result->error().kind, NetworkErrorKind::certificate);
  EXPECT_TRUE(result->error().certificateOutOfDate) << result->error().message;
}

// The health probes pin addresses and choose the interface a request leaves through.
TEST(CurlHttpTransportPaths, APinnedAddressIsUsedInsteadOfTheResolverAndTheNameIsStillVerified) {
  testing::VirtualEventLoop loop;
  testing::TestPkiOptions named;
  named.extraNames = {"probe.norvik.invalid"};
  testing::LoopbackHttpsServer server(named);
  server.setHandler([](const ServerRequest&) { return ServerReply{204, "", "text/plain"}; });
  auto http = CurlHttpTransport::create(loop, {server.caFile()});
  ASSERT_TRUE(http.has_value());
  const std::string port = std::to_string(server.port());

  auto sendTo = [&](const std::string& host, std::vector<std::string> pins) {
    HttpRequest request{"GET", "https://" + host + ":" + port + "/generate_204", {}, "", 5s};
    request.pinnedAddresses = std::move(pins);
    std::optional<HttpResult> result;
    (*http)->send(std::move(request), [&](HttpResult r) { result = std::move(r); });
    loop.runUntilIdle();
    return std::move(*result);
  };

  auto pinned = sendTo("probe.norvik.invalid", {"probe.norvik.invalid:" + port + ":127.0.0.1"});
  ASSERT_TRUE(pinned.has_value()) << pinned.error().message;
  EXPECT_EQ(pinned->status, 204);
  // The pin belonged to that request only: the next one asks the resolver, which knows no such name.
  auto unpinned = sendTo("probe.norvik.invalid", {});
  ASSERT_FALSE(unpinned.has_value());
  EXPECT_NE(unpinned.error().kind, NetworkErrorKind::cannotConnect) << unpinned.error().message;
  // A pin does not switch off verification: a name the certificate does not cover is refused.
  auto wrongName = sendTo("other.norvik.invalid", {"other.norvik.invalid:" + port + ":127.0.0.1"});
  EXPECT_FALSE(wrongName.has_value());
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST_F(CurlHttpTransportTest, ARequestLeavesThroughTheNamedInterfaceOnly) {
  server_.setHandler([](const ServerRequest&) { return ServerReply{204, "", "text/plain"}; });
  auto http = transport();
  HttpRequest missing{"GET", server_.url("/generate_204"), {}, "", 5s};
  missing.interfaceName = "norvik-none0";
  auto refused = send(*http, missing);
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(refused.error().kind, NetworkErrorKind::cannotConnect) << refused.error().message;
  EXPECT_TRUE(server_.requests().empty());

  HttpRequest loopback{"GET", server_.url("/generate_204"), {}, "", 5s};
  loopback.interfaceName = "lo";
  auto bound = send(*http, loopback);
  if (!bound && geteuid() != 0) GTEST_SKIP() << "binding to a device needs privileges here: " << bound.error().message;
  ASSERT_TRUE(bound.has_value()) << bound.error().message;
  EXPECT_EQ(bound->status, 204);
}

TEST(CurlHttpTransportCreate, ACaFileWithoutCertificatesIsRefused) {
  testing::VirtualEventLoop loop;
  EXPECT_FALSE(CurlHttpTransport::create(loop, {"/dev/null"}).has_value());
  EXPECT_FALSE(CurlHttpTransport::create(loop, {"/nonexistent/ca.pem"}).has_value());
}

}  // namespace
}  // namespace norvik
