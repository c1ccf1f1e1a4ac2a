// The backend as the client meets it: real TLS on loopback, the product's NetworkService over
// libcurl, and the client's own readers for the GeoIP list and the update feed.
#include "tools/devbackend/dev_backend.h"

#include <sys/stat.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "platform/linux/curl_http_transport.h"
#include "routing/geoip_payload.h"
#include "testing/temp_dir.h"
#include "tools/devbackend/devbackend_test_support.h"
#include "update/appcast.h"
#include "update/file_signature.h"

namespace norvik::devbackend {
namespace {

using namespace std::chrono_literals;
using testsupport::ManualClock;

class DevBackendTest : public ::testing::Test {
 protected:
  std::unique_ptr<DevBackend> start(DevBackendOptions options = {}) {
    options.stateDir = dir_ / "state";
    options.clock = &clock_;
    options.log = &log_;
    auto backend = DevBackend::start(std::move(options));
    EXPECT_TRUE(backend.has_value()) << backend.error().message;
    return backend ? std::move(*backend) : nullptr;
  }

  // A client device for `backend`, trusting its CA.
  struct Client {
    explicit Client(DevBackend& backend)
        : device(backend.provisioning()),
          curl(CurlHttpTransport::create(device.loop, {backend.caFile()}).value()),
          service(device.service(*curl, backend.apiURL())) {}

    template <class T>
    std::expected<T, APIError> await(std::function<void(APICompletion<T>)> start) {
      std::optional<std::expected<T, APIError>> result;
      start([&](std::expected<T, APIError> r) { result = std::move(r); });
      EXPECT_TRUE(device.loop.runUntil([&] { return result.has_value(); }));
      return result ? std::move(*result) : std::unexpected(APIError{"TEST", "no answer"});
    }
    std::expected<VPNKeyResponse, APIError> getKey() {
      return await<VPNKeyResponse>([&](auto done) { service.getKey(std::move(done)); });
    }
    std::expected<NetworkService::MainResponse, APIError> loadMain() {
      return await<NetworkService::MainResponse>([&](auto done) { service.loadMainConfiguration(std::move(done)); });
    }
    HttpResult get(const std::string& url, std::chrono::milliseconds timeout = 10s) const {
      return curl->perform(HttpRequest{"GET", url, {}, {}, timeout});
    }

    testsupport::Device device;
    std::unique_ptr<CurlHttpTransport> curl;
    NetworkService service;
  };

  testing::TempDir dir_;
  ManualClock clock_;
  testing::CapturingLog log_;
};

TEST_F(DevBackendTest, ARealClientGetsAKeyAndTheMainConfigurationOverTls) {
  auto backend = start();
  Client client(*backend);
  std::optional<std::string> date;
  client.service.setResponseObserver([&](const HttpResult& result, const auto&) {
    if (result) date = std::string(findHeader(result->headers, "Date").value_or(""));
  });

  auto key = client.getKey();
  ASSERT_TRUE(key.has_value()) << key.error().code << ": " << key.error().message;
  auto main = client.loadMain();
  ASSERT_TRUE(main.has_value()) << main.error().message;
  EXPECT_EQ((*main)->main.keyData, key->keyData);
  EXPECT_EQ(date, "Fri, 15 Jan 2027 08:00:00 GMT") << "the clock check reads the server's Date";

  // One line per request, with the device's prefix and never the key.
  const std::string prefix = client.device.security.vendorID().identifier.substr(0, 8);
  EXPECT_TRUE(log_.hasLine("[devbackend] POST getkey device=" + prefix + " verdict=ok status=200"));
  const std::string privateKey = key->keyData->substr(key->keyData->find("PrivateKey = ") + 13, 44);
  for (const auto& line : log_.lines()) EXPECT_EQ(line.find(privateKey), std::string::npos) << line;
}

TEST_F(DevBackendTest, FaultsGivenAtStartReachTheClient) {
  DevBackendOptions options;
  options.statusFaults = {"main:503:10"};
  auto backend = start(options);
  Client client(*backend);
  auto main = client.loadMain();
  ASSERT_FALSE(main.has_value());
  EXPECT_EQ(main.error().code, "SERVER_OVERLOAD");
  EXPECT_EQ(log_.count("[devbackend] POST main device="), 4u) << "four attempts, all answered 503";
  EXPECT_EQ(log_.count("status=503"), 4u);
}

TEST_F(DevBackendTest, TheGeoIPListPassesTheClientsOwnReader) {
  auto backend = start();
  Client client(*backend);
  auto download =
      client.await<NetworkService::GeoIPDownload>([&](auto done) { client.service.fetchGeoIP(std::move(done)); });
  ASSERT_TRUE(download.has_value());
  auto list = acceptGeoIPPayload(download->body);
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(list->format, GeoIPPayloadFormat::plainText);
  EXPECT_EQ(list->cidrCount, 10000u);
  EXPECT_EQ(list->malformedCount, 0u) << list->firstMalformed;
}

TEST_F(DevBackendTest, TheUpdateFeedOffersOneSignedReleaseTheClientCanVerify) {
  DevBackendOptions options;
  options.feedVersion = "1.1.0";
  auto backend = start(options);
  Client client(*backend);

  auto feedAnswer = client.get(backend->url("/mac/appcast.xml"));
  ASSERT_TRUE(feedAnswer.has_value() && feedAnswer->status == 200);
  auto feed = parseAppcast(feedAnswer->body);
  ASSERT_TRUE(feed.has_value()) << feed.error();
  ASSERT_EQ(feed->items.size(), 1u);
  const AppcastItem& item = feed->items[0];
  EXPECT_EQ(item.version, "1.1.0");
  ASSERT_TRUE(item.edSignature && item.enclosureLength);

  auto image = client.get(item.enclosureURL);
  ASSERT_TRUE(image.has_value() && image->status == 200);
  EXPECT_EQ(image->body.size(), *item.enclosureLength);
  const auto file = dir_ / "Norvik-1.1.0.dmg";
  ASSERT_TRUE(writeFileAtomically(file, image->body).has_value());
  ASSERT_TRUE(backend->provisioning().updateEd25519PublicKey.has_value())
      << "the written provisioning carries the feed key";
  const auto publicKey = parseEd25519PublicKey(*backend->provisioning().updateEd25519PublicKey).value();
  EXPECT_TRUE(verifyEd25519FileSignature(file, *item.edSignature, publicKey).has_value());

  auto notes = client.get(item.releaseNotesURL.value_or(""));
  ASSERT_TRUE(notes.has_value());
  EXPECT_EQ(notes->status, 200);
}

TEST_F(DevBackendTest, ADelayBeyondTheClientsTimeOutIsATimeOutAndStoppingDoesNotWaitForIt) {
  DevBackendOptions options;
  options.delayFaults = {"appcast:60000"};
  auto backend = start(options);
  Client client(*backend);
  // A real wait, short: the client's own time-out against the real socket.
  auto answer = client.get(backend->url("/mac/appcast.xml"), 150ms);
  ASSERT_FALSE(answer.has_value());
  EXPECT_EQ(answer.error().kind, NetworkErrorKind::timedOut);

  const auto before = std::chrono::steady_clock::now();
  backend.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - before, 10s) << "the held answer is cut short";
}

TEST_F(DevBackendTest, ARestartKeepsDevicesKeysAndCertificates) {
  DevBackendOptions options;
  options.writeCa = dir_ / "out" / "ca.pem";
  options.writeProvisioning = dir_ / "out" / "provisioning.json";
  ASSERT_TRUE(makeDirectories(dir_ / "out").has_value());
  auto backend = start(options);
  ASSERT_EQ(readFile(*options.writeCa).value(), readFile(backend->caFile()).value());
  auto written = loadProvisioning(*options.writeProvisioning);
  ASSERT_TRUE(written.has_value());
  EXPECT_EQ(written->apiHmacKey, backend->provisioning().apiHmacKey);
  struct stat info {};
  ASSERT_EQ(::stat(options.writeProvisioning->c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  Client client(*backend);
  auto key = client.getKey();
  ASSERT_TRUE(key.has_value());
  const std::string ca = readFile(backend->caFile()).value();
  backend.reset();

  // The same state directory: the same keys, the same CA, the same device and key.
  backend = start(options);
  EXPECT_EQ(readFile(backend->caFile()).value(), ca);
  EXPECT_EQ(backend->provisioning().apiHmacKey, written->apiHmacKey);
  Client again(*backend);
  again.device.defaults.setString(SecurityManager::kOverrideKey, client.device.security.vendorID().identifier);
  auto main = again.loadMain();
  ASSERT_TRUE(main.has_value()) << main.error().message;
  EXPECT_EQ((*main)->main.keyData, key->keyData);
}

TEST_F(DevBackendTest, BadOptionsAreRefusedBeforeAnythingListens) {
  DevBackendOptions options;
  options.statusFaults = {"main:700"};
  EXPECT_FALSE(DevBackend::start([&] {
                 auto o = options;
                 o.stateDir = dir_ / "state";
                 o.log = &log_;
                 return o;
               }())
                   .has_value());
  DevBackendOptions noState;
  auto refused = DevBackend::start(noState);
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(refused.error().message, "a state directory is required");

  ASSERT_TRUE(makeDirectories(dir_ / "state").has_value());
  ASSERT_TRUE(writeFileAtomically(dir_ / "state" / "state.json", "not json").has_value());
  DevBackendOptions damaged;
  damaged.stateDir = dir_ / "state";
  damaged.log = &log_;
  auto failed = DevBackend::start(damaged);
  ASSERT_FALSE(failed.has_value());
  EXPECT_NE(failed.error().message.find("state.json"), std::string::npos);
  EXPECT_EQ(readFile(dir_ / "state" / "state.json").value(), "not json") << "the damaged file is kept for a look";
}

}  // namespace
}  // namespace norvik::devbackend
