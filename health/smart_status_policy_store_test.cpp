#include "health/smart_status_policy_store.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "testing/fake_physical_path_source.h"
#include "testing/fakes.h"

namespace norvik {
namespace {

using nlohmann::json;
using MainResponse = SmartStatusPolicyStore::MainResponse;

MainResponse mainWith(std::optional<json> smartStatus, std::optional<std::int64_t> serverTime = std::nullopt) {
  auto response = std::make_shared<APIResponse>();
  response->main.smartStatus = std::move(smartStatus);
  response->main.serverTime = serverTime;
  return response;
}

// A store following a published main configuration, with a running path monitor to stop.
class SmartStatusPolicyStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store.setResetHandler([this](std::string_view reason) { resets.emplace_back(reason); });
    store.follow(responses);
    ASSERT_TRUE(monitor.start([](const PhysicalPath&) {}));
  }

  testing::VirtualEventLoop loop;
  testing::VirtualClock clock{loop};
  testing::MemoryDefaults defaults;
  testing::CapturingLog log;
  testing::FakePhysicalPathSource source;
  PhysicalPathMonitor monitor{source, log};
  Published<MainResponse> responses;
  SmartStatusPolicyStore store{log, defaults, clock, &monitor};
  std::vector<std::string> resets;
};

TEST_F(SmartStatusPolicyStoreTest, AnEnabledPolicyIsPublishedWithItsRawConfigAndLeavesTheMonitorRunning) {
  std::vector<SmartStatusPolicy> published;
  auto subscription = store.policy().subscribe([&](const SmartStatusPolicy& p) { published.push_back(p); });

  responses.set(mainWith(json{{"enabled", true}, {"verify_window_ms", 0}}));

  ASSERT_EQ(published.size(), 1u);
  EXPECT_TRUE(published[0].enabled);
  EXPECT_EQ(published[0].verifyWindowMs, 1000);
  EXPECT_EQ(store.policy().get(), published[0]);
  ASSERT_TRUE(store.lastConfig().has_value());
  EXPECT_EQ(store.lastConfig()->verifyWindowMs, 0);  // the raw value, as received
  EXPECT_TRUE(monitor.isRunning());
  EXPECT_TRUE(resets.empty());
  EXPECT_FALSE(log.contains("policy off"));
}

TEST_F(SmartStatusPolicyStoreTest, APolicySwitchedOffResetsStopsTheMonitorAndSaysWhy) {
  responses.set(mainWith(json{{"enabled", true}}));
  responses.set(mainWith(json{{"enabled", false}}));

  EXPECT_FALSE(store.policy().get().enabled);
  EXPECT_FALSE(monitor.isRunning());
  EXPECT_FALSE(source.isStarted());
  EXPECT_EQ(resets, std::vector<std::string>{"enabled_false"});
  EXPECT_TRUE(log.hasLine("[SmartStatus] policy off (ccept=enabled_false) — reset + stop path monitor"));

  // A main configuration without the object: the default policy, off again.
  responses.set(mainWith(std::nullopt));
  EXPECT_EQ(store.policy().get(), defaultSmartStatusPolicy());
  EXPECT_FALSE(store.lastConfig().has_value());
  EXPECT_TRUE(log.hasLine("[SmartStatus] policy off (ccept=no_smart_status) — reset + stop path monitor"));
}

TEST_F(SmartStatusPolicyStoreTest, AnUndecodableObjectFallsBackToTheBuiltInPolicyWithOneLineNamingTheField) {
  responses.set(mainWith(json{{"enabled", true}}));
  responses.set(mainWith(json{{"enabled", true}, {"probe_ru_urls", "https://one.example/"}}));

  EXPECT_EQ(store.policy().get(), defaultSmartStatusPolicy());
  EXPECT_EQ(log.count("[SmartStatus] smart_status not decoded, built-in policy used: "), 1u);
  EXPECT_EQ(log.count("\"smart_status.probe_ru_urls\""), 1u);
  EXPECT_TRUE(log.hasLine("[SmartStatus] policy off (ccept=decode_error) — reset + stop path monitor"));
  EXPECT_FALSE(monitor.isRunning());
}

TEST_F(SmartStatusPolicyStoreTest, RecordsTheServerClockOffsetAndArmsTheDebugObject) {
  const auto deviceSeconds = static_cast<std::int64_t>(clock.secondsSince1970());
  responses.set(mainWith(json{{"enabled", true}, {"debug", {{"force_fail_count", 1}}}}, deviceSeconds + 42));

  EXPECT_EQ(defaults.integerValue(kSmartStatusServerTimeOffsetKey), 42);
  ASSERT_TRUE(store.debugOverride().has_value());
  EXPECT_EQ(store.debugOverride()->forceFailCount, 1);
  EXPECT_EQ(log.count("[SmartStatus] debug override armed: forceFail=1 "), 1u);

  // The next configuration without a debug object disarms it.
  responses.set(mainWith(json{{"enabled", true}}));
  EXPECT_FALSE(store.debugOverride().has_value());
}

TEST(SmartStatusPolicyStore, TakesAConfigurationAlreadyPublishedAndStopsFollowingWhenGone) {
  testing::VirtualEventLoop loop;
  testing::VirtualClock clock{loop};
  testing::MemoryDefaults defaults;
  testing::CapturingLog log;
  Published<MainResponse> responses{mainWith(json{{"enabled", true}, {"cold_start_proof_max_age_ms", 0}})};
  {
    SmartStatusPolicyStore store(log, defaults, clock, nullptr);
    store.follow(responses);
    EXPECT_TRUE(store.policy().get().enabled);
    defaults.setDouble(kSmartStatusLastVerifiedAtKey, clock.secondsSince1970() * 1000.0);
    EXPECT_FALSE(store.hasColdStartProof());  // switched off by the policy
  }
  EXPECT_EQ(responses.observerCount(), 0u);
  responses.set(mainWith(std::nullopt));  // nobody left to tell
  EXPECT_FALSE(log.contains("policy off"));
}

}  // namespace
}  // namespace norvik
