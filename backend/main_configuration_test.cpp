#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "backend/network_service.h"
#include "testing/backend_environment.h"
#include "testing/http_fakes.h"
#include "testing/test_data.h"
#include "testing/test_provisioning.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using testing::FakeHttpTransport;

class MainConfigurationTest : public ::testing::Test, protected testing::BackendEnvironment {
 protected:
  MainConfigurationTest() {
    transport_.setHandler([this](const HttpRequest& request) -> HttpResult {
      if (request.url.ends_with("/main")) return FakeHttpTransport::json(200, mainBody_);
      return FakeHttpTransport::json(200, otherBody_);
    });
  }

  std::expected<NetworkService::MainResponse, APIError> load(NetworkService& service) {
    std::optional<std::expected<NetworkService::MainResponse, APIError>> result;
    service.loadMainConfiguration([&](auto r) { result = std::move(r); });
    loop.runUntil([&] { return result.has_value(); });
    return *result;
  }

  FakeHttpTransport transport_{loop};
  std::unique_ptr<NetworkService> service_ =
      std::make_unique<NetworkService>(loop, transport_, security, defaults, clock, log);
  std::string mainBody_ = testing::readTestData("main_response.json");
  std::string otherBody_ = "{}";
};

TEST_F(MainConfigurationTest, ALoadPublishesCachesAndSavesWhatItAnnounces) {
  int published = 0;
  auto subscription = service_->currentResponse().subscribe([&](const auto&) { ++published; });
  auto result = load(*service_);
  ASSERT_TRUE(result.has_value()) << result.error().message;

  EXPECT_EQ(published, 1);
  EXPECT_EQ(service_->currentResponse().get(), *result);
  EXPECT_TRUE(service_->hasLiveMainResponse());
  EXPECT_FALSE(service_->isFetchingMainConfig());
  EXPECT_FALSE(service_->isLoading().get());
  EXPECT_EQ(defaults.stringValue("cachedAPIResponse"), mainBody_) << "kept as received";
  EXPECT_EQ(defaults.doubleValue("cachedAPIResponseAt"), clock.secondsSince1970());
  EXPECT_EQ(defaults.stringValue("cachedMainDomain"), "api2.norvik.app");
  EXPECT_EQ(defaults.stringValue("cachedSupportURL"), "https://support.norvik.app/chat");
  EXPECT_EQ(defaults.stringValue("cachedTelegramURL"), "https://t.me/norvik_support");
  EXPECT_EQ(defaults.stringValue("cachedShareURL"), "https://norvik.app/s/abc");
  EXPECT_EQ(defaults.boolValue("cachedShowCompany"), true);
  EXPECT_EQ(defaults.boolValue("cachedMoveButton"), false);

  EXPECT_TRUE(log.hasLine("[Domain] Main domain saved to UserDefaults: api2.norvik.app"));
  EXPECT_TRUE(log.hasLine("[Support] Support URL saved to UserDefaults: https://support.norvik.app/chat"));
  EXPECT_TRUE(log.hasLine("[Share] Share URL saved to UserDefaults: https://norvik.app/s/abc"));
  EXPECT_TRUE(log.hasLine("[About] Show company flag saved: true"));
  EXPECT_TRUE(log.hasLine("[Settings] Move button flag saved: false"));
  EXPECT_TRUE(log.hasLine("[netProfile] access=standard"));
  EXPECT_TRUE(log.hasLine("net_profile changed"));
  EXPECT_EQ(service_->netProfile().keyValueText(), "access=standard\nmtu=1280\nobfs=off\n");
}

TEST_F(MainConfigurationTest, TheNextRequestGoesToTheAnnouncedHost) {
  ASSERT_TRUE(load(*service_).has_value());
  std::optional<std::expected<VPNKeyResponse, APIError>> key;
  service_->getKey([&](auto r) { key = std::move(r); });
  loop.runUntil([&] { return key.has_value(); });
  EXPECT_EQ(transport_.sent().back().request.url, "https://api2.norvik.app/api/v1/getkey");
}

TEST_F(MainConfigurationTest, TheRawLogLineNeverShowsTheTunnelKey) {
  ASSERT_TRUE(load(*service_).has_value());
  auto raw = log.matching("RAW JSON Response: ");
  ASSERT_EQ(raw.size(), 1u);
  EXPECT_EQ(raw[0].find("PrivateKey"), std::string::npos);
  EXPECT_NE(raw[0].find("\"key_data\":\"<"), std::string::npos) << raw[0];
}

TEST_F(MainConfigurationTest, AFailedLoadKeepsEverythingAndTheNextStartSeesTheLastGoodDocument) {
  ASSERT_TRUE(load(*service_).has_value());
  const auto good = service_->currentResponse().get();
  const auto savedAt = defaults.doubleValue("cachedAPIResponseAt");

  loop.advance(1h);
  mainBody_ = R"({"main": {"key_ip": 7}, "info": {}})";
  auto failed = load(*service_);
  ASSERT_FALSE(failed.has_value());
  EXPECT_EQ(failed.error(), (APIError{"DECODE_ERROR", "Failed to decode response"}));
  EXPECT_EQ(service_->lastError().get(), failed.error());
  EXPECT_EQ(service_->currentResponse().get(), good);
  EXPECT_EQ(defaults.doubleValue("cachedAPIResponseAt"), savedAt);
  EXPECT_TRUE(log.contains("Main config decoding error: \"main.key_ip\": expected a string"));

  mainBody_ = "<html>maintenance</html>";
  EXPECT_FALSE(load(*service_).has_value());

  // The next start-up shows the last good document before the network answers.
  service_ = std::make_unique<NetworkService>(loop, transport_, security, defaults, clock, log);
  EXPECT_EQ(service_->currentResponse().get(), nullptr);
  auto cached = service_->loadCachedMainConfiguration();
  ASSERT_NE(cached, nullptr);
  EXPECT_EQ(*cached, *good);
  EXPECT_EQ(service_->currentResponse().get(), cached);
  EXPECT_FALSE(service_->hasLiveMainResponse());
}

TEST_F(MainConfigurationTest, ADamagedCachedDocumentIsIgnoredAtStartAndTheNextLoadReplacesIt) {
  defaults.setString("cachedAPIResponse", R"({"main": 7, "info": {}})");
  EXPECT_EQ(service_->loadCachedMainConfiguration(), nullptr);
  EXPECT_EQ(service_->currentResponse().get(), nullptr) << "nothing half-read is published";
  EXPECT_TRUE(log.hasLine("Main config decoding error: \"main\": expected an object, found a number 7"));

  ASSERT_TRUE(load(*service_).has_value());
  EXPECT_EQ(defaults.stringValue("cachedAPIResponse"), mainBody_);
}

TEST_F(MainConfigurationTest, ASecondLoadWhileOneRunsJoinsIt) {
  transport_.setLatency(500ms);
  int answers = 0;
  service_->loadMainConfiguration([&](auto r) { answers += r.has_value(); });
  loop.runUntilIdle();
  EXPECT_TRUE(service_->isFetchingMainConfig());
  EXPECT_TRUE(service_->isLoading().get());
  service_->loadMainConfiguration([&](auto r) { answers += r.has_value(); });
  loop.advance(1s);
  EXPECT_EQ(answers, 2);
  EXPECT_EQ(transport_.sent().size(), 1u);
}

TEST_F(MainConfigurationTest, ATypedEndpointReportsAnUndecodableAnswerAsADecodeError) {
  otherBody_ = R"({"keyData": ["not", "text"]})";
  std::optional<std::expected<VPNKeyResponse, APIError>> key;
  service_->getKey([&](auto r) { key = std::move(r); });
  loop.runUntil([&] { return key.has_value(); });
  ASSERT_FALSE(key->has_value());
  EXPECT_EQ(key->error().code, "DECODE_ERROR");
  EXPECT_EQ(key->error().message, "Decoding error: \"keyData\": expected a string, found an array [\"not\",\"text\"]");
  EXPECT_TRUE(log.contains("VPN key decoding error: \"keyData\""));
  EXPECT_TRUE(log.contains("RAW JSON Response from getkey: "));

  otherBody_ = R"({"result": 1, "keyData": "[Interface]\nPrivateKey = c2VjcmV0", "error": "quota"})";
  key.reset();
  service_->changeServer([&](auto r) { key = std::move(r); });
  loop.runUntil([&] { return key.has_value(); });
  ASSERT_TRUE(key->has_value());
  EXPECT_TRUE(log.hasLine("VPNKeyResponse: result=1, keyData exists: true, keyIP exists: false"));
  EXPECT_EQ(log.count("c2VjcmV0"), 0u) << "the key text never reaches the log";
}

TEST_F(MainConfigurationTest, TheShareLinkFallsBackToTheBuiltInOne) {
  EXPECT_EQ(service_->shareURL(), "https://norvik.app/share");
  EXPECT_TRUE(log.hasLine("[Share] Using default share URL: https://norvik.app/share"));
}

}  // namespace
}  // namespace norvik
