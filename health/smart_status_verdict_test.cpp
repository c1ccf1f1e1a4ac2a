#include "health/smart_status_verdict.h"

#include <gtest/gtest.h>

namespace norvik {
namespace {

using namespace std::chrono_literals;
using V = WindowVerdict;

class JudgeWindowTest : public ::testing::Test {
 protected:
  V judge(std::chrono::milliseconds elapsed, bool over = false) {
    return judgeWindow(policy, demands, evidence, now, elapsed, over);
  }
  void sample(std::optional<Clock::TimePoint> handshake, std::uint64_t rx) {
    if (!evidence.rxAtStart) evidence.rxAtStart = rx;
    evidence.latest = TunnelTelemetry{handshake, rx, 0, std::nullopt};
  }

  SmartStatusPolicy policy = defaultSmartStatusPolicy();
  Clock::TimePoint now = Clock::TimePoint(std::chrono::seconds(1'800'000'000));
  VerifyDemands demands;
  VerifyEvidence evidence;
};

TEST_F(JudgeWindowTest, AfterConnectingTheHandshakeMustBelongToTheSessionWithinTheLookBack) {
  demands.freshHandshake = true;
  demands.anchor = now - 2s;
  sample(demands.anchor - 10s, 0);  // exactly the look-back
  EXPECT_EQ(judge(0ms), V::passed);
  sample(demands.anchor - 10s - 1ms, 0);
  EXPECT_EQ(judge(0ms), V::pending);
  EXPECT_EQ(judge(5000ms, true), V::failed);
  demands.freshHandshake = false;  // a later window takes any handshake that is not stale
  EXPECT_EQ(judge(0ms), V::passed);
}

TEST_F(JudgeWindowTest, AStaleHandshakeFailsOnlyOnceTheFailFastTimeHasPassed) {
  sample(now - 180001ms, 0);
  EXPECT_EQ(judge(2499ms), V::pending);
  EXPECT_EQ(judge(2500ms), V::failed);
  sample(now - 180000ms, 0);  // exactly the stale limit is still alive
  EXPECT_EQ(judge(2500ms), V::passed);
  sample(std::nullopt, 0);
  EXPECT_EQ(judge(2500ms), V::failed);
}

TEST_F(JudgeWindowTest, ReceivedBytesCountFromTheWindowsFirstSample) {
  demands.receivedBytes = true;
  sample(now - 1s, 10'000);
  sample(now - 1s, 10'399);
  EXPECT_EQ(judge(800ms), V::pending);
  sample(now - 1s, 10'400);
  EXPECT_EQ(judge(1600ms), V::passed);
  sample(now - 1s, 500);  // the counter restarted with a new session
  EXPECT_EQ(judge(2400ms), V::passed);
}

TEST_F(JudgeWindowTest, TheTunnelProbeDecidesAWindowWithoutTelemetry) {
  demands.tunnelProbe = true;
  EXPECT_EQ(judge(5000ms, true), V::pending) << "the window waits for its probe";
  evidence.tunnelProbe = true;
  EXPECT_EQ(judge(4000ms), V::pending);
  EXPECT_EQ(judge(5000ms, true), V::passed);
  evidence.tunnelProbe = false;
  EXPECT_EQ(judge(2500ms), V::failed);
  demands.tunnelProbe = false;
  evidence.tunnelProbe.reset();
  EXPECT_EQ(judge(5000ms, true), V::inconclusive);
}

TEST(SubscriptionExpiryTest, TheBufferIsCountedOnTheBackendsClock) {
  SmartStatusPolicy policy = defaultSmartStatusPolicy();
  const Clock::TimePoint now(std::chrono::seconds(1'800'000'000));
  MainConfig main;
  main.subExpireTs = 1'800'000'000 + 25 * 3600;
  EXPECT_FALSE(isSubscriptionExpired(policy, &main, now, 0)) << "off unless enabled";
  policy.subExpiryEnabled = true;
  EXPECT_FALSE(isSubscriptionExpired(policy, &main, now, 0));
  EXPECT_TRUE(isSubscriptionExpired(policy, &main, now, 3600)) << "the backend's clock is an hour ahead";
  policy.subExpiryBufferHours = 0;
  EXPECT_FALSE(isSubscriptionExpired(policy, &main, now, 3600));
  main.subActive = false;
  EXPECT_TRUE(isSubscriptionExpired(policy, &main, now, 0));
  EXPECT_FALSE(isSubscriptionExpired(policy, nullptr, now, 0));
}

}  // namespace
}  // namespace norvik
