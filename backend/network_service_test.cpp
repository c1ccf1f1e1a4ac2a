#include "backend/network_service.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/linux/curl_http_transport.h"
#include "testing/backend_environment.h"
#include "testing/backend_verifier.h"
#include "testing/http_fakes.h"
#include "testing/loopback_https_server.h"
#include "testing/test_provisioning.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::FakeHttpTransport;
using testing::ServerReply;
using testing::ServerRequest;

// What a test needs around a NetworkService: identity, defaults, log and a virtual loop.
class NetworkServiceTest : public ::testing::Test, protected testing::BackendEnvironment {
 protected:
  NetworkService::BodyResult sendAndWait(NetworkService& service, const Endpoint& endpoint,
                                         const nlohmann::json& params = nlohmann::json::object()) {
    std::optional<NetworkService::BodyResult> result;
    service.send(endpoint, params, [&](NetworkService::BodyResult r) { result = std::move(r); });
    EXPECT_TRUE(loop.runUntil([&] { return result.has_value(); }));
    return result ? std::move(*result) : std::unexpected(APIError{"TEST", "no result"});
  }
};

// Against a real TLS server on loopback through the real libcurl transport.
class NetworkServiceOverTlsTest : public NetworkServiceTest {
 protected:
  NetworkServiceConfig config(std::string_view base) {
    NetworkServiceConfig c;
    c.location = BackendLocation::fromURL(base).value();
    return c;
  }

  testing::LoopbackHttpsServer server_;
  std::unique_ptr<CurlHttpTransport> curl_ = CurlHttpTransport::create(loop, {server_.caFile()}).value();
  testing::RecordingHttpTransport transport_{loop, *curl_};
};

TEST_F(NetworkServiceOverTlsTest, TheServerVerifiesTheSignatureAndOpensTheIdentity) {
  std::optional<std::expected<testing::VerifiedRequest, std::string>> verified;
  ServerRequest seen;
  server_.setHandler([&](const ServerRequest& r) {
    seen = r;
    verified = testing::verifySignedRequest(r.headers, r.body, asBytes(testing::testProvisioning().apiHmacKey),
                                            testing::testAesKey());
    return ServerReply{200, R"({"result":1})"};
  });
  NetworkService service(loop, transport_, security, defaults, clock, log, config(server_.url("/api/")));

  auto body = sendAndWait(service, endpoints::kGetKey, {{"extra", "значение"}});
  ASSERT_TRUE(body.has_value()) << body.error().message;
  EXPECT_EQ(*body, R"({"result":1})");

  ASSERT_TRUE(verified.has_value());
  ASSERT_TRUE(verified->has_value()) << verified->error();
  EXPECT_EQ((*verified)->vendorId, security.vendorID().identifier);
  EXPECT_EQ((*verified)->body["version_info"], kAppVersion);
  EXPECT_EQ((*verified)->body["extra"], "значение");
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.path, "/api/getkey");
  EXPECT_EQ(findHeader(seen.headers, "Content-Type"), "application/json");
  EXPECT_EQ(findHeader(seen.headers, "User-Agent"), "Norvik-macOS/1.0");
  EXPECT_EQ(log.count("[Request] Enhanced HMAC request (ts: "), 1u);
}

TEST_F(NetworkServiceOverTlsTest, A503OnEveryAttemptOfMainMeansFourSendsTwoSecondsApart) {
  server_.setHandler([](const ServerRequest&) {
    return ServerReply{503, R"({"message":"busy","title":"Перегрузка"})"};
  });
  NetworkService service(loop, transport_, security, defaults, clock, log, config(server_.url("/api/")));

  auto body = sendAndWait(service, endpoints::kMain);
  ASSERT_FALSE(body.has_value());
  EXPECT_EQ(body.error().code, "SERVER_OVERLOAD");
  EXPECT_EQ(body.error().message, "busy");
  EXPECT_EQ(body.error().title, "Перегрузка");

  auto sent = transport_.sent();
  ASSERT_EQ(sent.size(), 4u);
  EXPECT_EQ(server_.requests().size(), 4u);
  for (std::size_t i = 1; i < sent.size(); ++i) EXPECT_EQ(sent[i].at - sent[i - 1].at, 2s);
  EXPECT_EQ(log.count("Server overload (503), waiting 2s before retry..."), 3u);
  EXPECT_TRUE(log.hasLine("HTTP Status: 503 on attempt 3"));
}

TEST_F(NetworkServiceOverTlsTest, AServerChangeIsSentExactlyOnceOn503) {
  server_.setHandler([](const ServerRequest&) { return ServerReply{503, "overloaded"}; });
  NetworkService service(loop, transport_, security, defaults, clock, log, config(server_.url("/api/")));
  auto body = sendAndWait(service, endpoints::kChangeServer);
  ASSERT_FALSE(body.has_value());
  EXPECT_EQ(body.error().code, "SERVER_OVERLOAD");
  EXPECT_EQ(body.error().message, "Server returned status code 503");
  EXPECT_EQ(server_.requests().size(), 1u);
  loop.advance(1h);
  EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(NetworkServiceOverTlsTest, AServerChangeToAnUnreachableServerIsSentOnce) {
  // Nothing listens on the discard port of loopback: the connection is refused at once.
  NetworkService service(loop, transport_, security, defaults, clock, log, config("https://127.0.0.1:9/api/"));
  auto body = sendAndWait(service, endpoints::kChangeServer);
  ASSERT_FALSE(body.has_value());
  EXPECT_EQ(body.error().code, "NETWORK_ERROR");
  EXPECT_FALSE(body.error().timedOut);
  loop.advance(1h);
  EXPECT_EQ(transport_.sent().size(), 1u);
}

TEST_F(NetworkServiceOverTlsTest, A200ThatIsNotTheEndpointsDocumentIsADecodeError) {
  server_.setHandler([](const ServerRequest&) { return ServerReply{200, "<html>captive portal</html>", "text/html"}; });
  NetworkService service(loop, transport_, security, defaults, clock, log, config(server_.url("/api/")));
  std::optional<std::expected<VPNKeyResponse, APIError>> key;
  service.getKey([&](auto r) { key = std::move(r); });
  ASSERT_TRUE(loop.runUntil([&] { return key.has_value(); }));
  ASSERT_FALSE(key->has_value());
  EXPECT_EQ(key->error(), (APIError{"DECODE_ERROR", "Decoding error: the data is not valid JSON"}));
  EXPECT_EQ(server_.requests().size(), 1u) << "a decoding error is not retried";
}

TEST_F(NetworkServiceOverTlsTest, AnHttpBaseURLArrivesOverTls) {
  server_.setHandler([](const ServerRequest&) { return ServerReply{200, "{}"}; });
  const std::string plain = "http://127.0.0.1:" + std::to_string(server_.port()) + "/api/";
  NetworkService service(loop, transport_, security, defaults, clock, log, config(plain));
  ASSERT_TRUE(sendAndWait(service, endpoints::kMain).has_value());
  ASSERT_EQ(transport_.sent().size(), 1u);
  EXPECT_TRUE(transport_.sent()[0].request.url.starts_with("https://"));
  EXPECT_EQ(server_.requests().size(), 1u) << "the TLS-only server answered";
}

TEST_F(NetworkServiceOverTlsTest, TheHostAnnouncedByTheLastMainResponseWins) {
  server_.setHandler([](const ServerRequest&) { return ServerReply{200, "{}"}; });
  defaults.setString(NetworkService::kCachedMainDomainKey, "127.0.0.1:" + std::to_string(server_.port()));
  NetworkService service(loop, transport_, security, defaults, clock, log, config("https://backend.invalid/api/"));
  ASSERT_TRUE(sendAndWait(service, endpoints::kMain).has_value());
  ASSERT_EQ(server_.requests().size(), 1u);
  EXPECT_EQ(server_.requests()[0].path, "/api/main");
}

class NetworkServiceScriptedTest : public NetworkServiceTest {
 protected:
  FakeHttpTransport transport_{loop};
  NetworkService service_{loop, transport_, security, defaults, clock, log};
};

TEST_F(NetworkServiceScriptedTest, ANewlyAnnouncedHostTakesOverFromTheNextRequest) {
  auto urlOf = [&](const Endpoint& endpoint) { return service_.buildRequest(endpoint, {}).value().url; };
  const std::string builtIn = urlOf(endpoints::kMain);
  defaults.setString(NetworkService::kCachedMainDomainKey, "mirror.example:8443");
  EXPECT_EQ(urlOf(endpoints::kMain), "https://mirror.example:8443/api/v1/main");
  EXPECT_EQ(urlOf(endpoints::kGetKey), "https://mirror.example:8443/api/v1/getkey");
  defaults.remove(NetworkService::kCachedMainDomainKey);
  EXPECT_EQ(urlOf(endpoints::kMain), builtIn);
}

TEST_F(NetworkServiceScriptedTest, ALockedStoreWithoutMirrorSendsNothingAtAll) {
  store.setLockedStatus(errSecInteractionNotAllowed);
  for (const auto& endpoint : endpoints::kAll) {
    auto body = sendAndWait(service_, endpoint);
    ASSERT_FALSE(body.has_value());
    EXPECT_EQ(body.error().code, "KEYCHAIN_LOCKED") << endpoint.name;
    EXPECT_EQ(body.error().message, "Device ID unavailable while keychain is locked");
  }
  EXPECT_TRUE(transport_.sent().empty());
}

TEST_F(NetworkServiceScriptedTest, AnUnusableAesKeyIsAnEncryptionError) {
  auto p = testing::testProvisioning();
  p.aesEncryptionKey = "";
  SecurityManager noKey(p, store, defaults, crypto, clock, log);
  NetworkService service(loop, transport_, noKey, defaults, clock, log);
  auto body = sendAndWait(service, endpoints::kMain);
  EXPECT_EQ(body.error(), (APIError{"ENCRYPTION_FAILED", "Encryption Error"}));
  EXPECT_TRUE(transport_.sent().empty());
}

TEST_F(NetworkServiceScriptedTest, CryptoFailuresStopTheRequestBeforeItIsSent) {
  (void)security.vendorID();  // the identifier exists before the crypto breaks
  crypto.failRandom(true);    // both nonces come from one draw, which fails
  EXPECT_EQ(sendAndWait(service_, endpoints::kMain).error(), (APIError{"ENCRYPTION_FAILED", "Encryption Error"}));
  crypto.failRandom(false);
  crypto.failHmac(true);
  EXPECT_EQ(sendAndWait(service_, endpoints::kMain).error(),
            (APIError{"NO_HMAC", "Failed to generate HMAC signature"}));
  EXPECT_TRUE(transport_.sent().empty());
}

TEST_F(NetworkServiceScriptedTest, AServerChangeIsNeverRepeatedAfterANetworkErrorOrATimeOut) {
  for (auto kind : {NetworkErrorKind::cannotConnect, NetworkErrorKind::timedOut}) {
    transport_.setHandler([kind](const HttpRequest&) { return std::unexpected(FakeHttpTransport::failure(kind)); });
    const auto before = transport_.sent().size();
    auto body = sendAndWait(service_, endpoints::kChangeServer);
    ASSERT_FALSE(body.has_value());
    EXPECT_EQ(body.error().code, "NETWORK_ERROR");
    EXPECT_EQ(body.error().message, "Network request failed");
    EXPECT_EQ(body.error().timedOut, kind == NetworkErrorKind::timedOut);
    loop.advance(1h);
    EXPECT_EQ(transport_.sent().size(), before + 1);
  }
  EXPECT_EQ(log.count("Attempt 0 failed: scripted failure"), 2u);
}

TEST_F(NetworkServiceScriptedTest, NetworkErrorsAreRetriedWithinTheBudget) {
  int calls = 0;
  transport_.setHandler([&](const HttpRequest&) -> HttpResult {
    if (++calls < 3) return std::unexpected(FakeHttpTransport::failure(NetworkErrorKind::hostNotFound));
    return FakeHttpTransport::json(200, R"({"ok":true})");
  });
  auto body = sendAndWait(service_, endpoints::kGetKey);
  ASSERT_TRUE(body.has_value());
  ASSERT_EQ(transport_.sent().size(), 3u);
  EXPECT_EQ(transport_.sent()[2].at - transport_.sent()[0].at, 4s);
  EXPECT_EQ(transport_.sent()[0].request.timeout, 15s);
  EXPECT_TRUE(log.hasLine("Attempt 1 failed: scripted failure"));
}

TEST_F(NetworkServiceScriptedTest, StatusErrorsCarryTheServersMessageAndTheStatusName) {
  const std::pair<int, const char*> statuses[] = {
      {400, "BAD_REQUEST"}, {401, "UNAUTHORIZED"}, {403, "FORBIDDEN"}, {429, "RATE_LIMIT"}, {500, "HTTP_ERROR"}};
  for (auto [status, code] : statuses) {
    transport_.setHandler([status](const HttpRequest&) {
      return FakeHttpTransport::json(status, R"({"message":"Подождите","title":"Лимит"})");
    });
    auto body = sendAndWait(service_, endpoints::kStoreOpen);
    ASSERT_FALSE(body.has_value());
    EXPECT_EQ(body.error().code, code);
    EXPECT_EQ(body.error().message, "Подождите");
    EXPECT_EQ(body.error().title, "Лимит");
    EXPECT_EQ(body.error().httpStatus, status);
  }
  transport_.setHandler([](const HttpRequest&) { return FakeHttpTransport::json(418, "<html>teapot</html>"); });
  auto body = sendAndWait(service_, endpoints::kStoreOpen);
  EXPECT_EQ(body.error().message, "Server returned status code 418");
  EXPECT_FALSE(body.error().title.has_value());
  EXPECT_EQ(transport_.sent().size(), 6u) << "statuses other than 503 are not retried";
}

TEST_F(NetworkServiceScriptedTest, NoCompletionRunsOnceTheServiceIsGone) {
  transport_.setLatency(1s);
  bool called = false;
  {
    NetworkService service(loop, transport_, security, defaults, clock, log);
    service.send(endpoints::kMain, nlohmann::json::object(), [&](NetworkService::BodyResult) { called = true; });
  }
  loop.advance(10s);
  EXPECT_FALSE(called);
}

}  // namespace
}  // namespace norvik
