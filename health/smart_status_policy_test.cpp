#include "health/smart_status_policy.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "health/smart_status_debug.h"
#include "testing/fakes.h"

namespace norvik {
namespace {

using nlohmann::json;

SmartStatusPolicy resolve(const json& object) {
  auto config = decodeSmartStatusConfig(object);
  EXPECT_TRUE(config.has_value()) << config.error();
  return resolveSmartStatusPolicy(config ? std::optional(*config) : std::nullopt);
}

std::vector<std::string> urls(const std::vector<ProbeURL>& list) {
  std::vector<std::string> out;
  out.reserve(list.size());
  for (const auto& u : list) out.push_back(u.url);
  return out;
}

TEST(SmartStatusConfig, NullIsAbsentIntegersAreLenientAndAWrongTypeNamesItsPath) {
  auto config = decodeSmartStatusConfig(
      json::parse(R"({"enabled": true, "verify_delay_ms": null, "poll_interval_ms": "900", "rx_min_bytes": 1.5,
                      "probe_bypass_pins": {"ya.ru": ["1.2.3.4"]}, "debug": {"scenario": "repair"}})"));
  ASSERT_TRUE(config.has_value()) << config.error();
  EXPECT_EQ(config->enabled, true);
  EXPECT_FALSE(config->verifyDelayMs.has_value());
  EXPECT_EQ(config->pollIntervalMs, 900);
  EXPECT_FALSE(config->rxMinBytes.has_value());  // not an integer: read as absent
  EXPECT_EQ(config->probeBypassPins->at("ya.ru"), std::vector<std::string>{"1.2.3.4"});
  EXPECT_EQ(config->debug->scenario, "repair");

  auto bad = decodeSmartStatusConfig(json::parse(R"({"texts": {"status_checking": 5}})"));
  ASSERT_FALSE(bad.has_value());
  EXPECT_NE(bad.error().find("\"smart_status.texts.status_checking\""), std::string::npos) << bad.error();
  EXPECT_NE(bad.error().find("5"), std::string::npos) << bad.error();
  EXPECT_FALSE(decodeSmartStatusConfig(json::parse(R"({"enabled": "yes"})")).has_value());
  EXPECT_FALSE(decodeSmartStatusConfig(json::array()).has_value());
}

TEST(SmartStatusPolicy, WithoutAnObjectTheSharedDefaultAppliesAndIsOff) {
  const SmartStatusPolicy& shared = defaultSmartStatusPolicy();
  EXPECT_EQ(&shared, &defaultSmartStatusPolicy());
  EXPECT_FALSE(shared.enabled);
  EXPECT_EQ(resolveSmartStatusPolicy(std::nullopt), shared);
  EXPECT_EQ(resolve(json::object()), shared);

  EXPECT_EQ(urls(shared.probeRuUrls),
            (std::vector<std::string>{"https://api.vk.com/method/utils.getServerTime", "https://ya.ru/generate_204",
                                      "https://www.gosuslugi.ru/"}));
  ASSERT_EQ(shared.probeForeignUrls.size(), 4u);
  EXPECT_EQ(shared.probeForeignUrls[1].path, "/hotspot-detect.html");
  EXPECT_EQ(shared.probeForeignUrls[2].path, "/success.txt");
  ASSERT_EQ(shared.probeTunnelUrls.size(), 3u);
  EXPECT_EQ(shared.probeTunnelUrls[0], shared.probeForeignUrls[0]);
  EXPECT_EQ(shared.probeTunnelUrls[1], shared.probeForeignUrls[3]);
  EXPECT_EQ(shared.probeTunnelUrls[2], shared.probeForeignUrls[2]);
  EXPECT_EQ(shared.probeBypassDns, (std::vector<std::string>{"77.88.8.8", "77.88.8.1"}));
  EXPECT_EQ(shared.requireRxModes, (std::vector<std::int64_t>{0, 1}));
  EXPECT_EQ(shared.coldStartProofMaxAgeMs, 86400000);
  EXPECT_TRUE(shared.probeBypassPins.empty());
}

// Each row: a key, the value sent, the value the policy must hold. Below-range, above-range and
// the switch-off-with-0 keys, straight from the accepted ranges.
struct ClampCase {
  const char* key;
  std::int64_t sent;
  std::int64_t expected;
  std::int64_t SmartStatusPolicy::*field;
};

TEST(SmartStatusPolicy, PresentNumbersAreClampedNeverReplacedByTheDefault) {
  using P = SmartStatusPolicy;
  const ClampCase cases[] = {
      {"verify_delay_ms", -5, 0, &P::verifyDelayMs},
      {"verify_delay_ms", 40000, 30000, &P::verifyDelayMs},
      {"verify_window_ms", 0, 1000, &P::verifyWindowMs},
      {"verify_window_ms", 999999, 60000, &P::verifyWindowMs},
      {"poll_interval_ms", 1, 100, &P::pollIntervalMs},
      {"poll_interval_ms", 9000, 5000, &P::pollIntervalMs},
      {"verify_fail_fast_ms", -1, 0, &P::verifyFailFastMs},
      {"verify_fail_fast_ms", 30001, 30000, &P::verifyFailFastMs},
      {"handshake_lookback_ms", 120001, 120000, &P::handshakeLookbackMs},
      {"handshake_stale_ms", 0, 10000, &P::handshakeStaleMs},
      {"handshake_stale_ms", 4000000, 3600000, &P::handshakeStaleMs},
      {"rx_min_bytes", 0, 1, &P::rxMinBytes},
      {"rx_min_bytes", 1, 1, &P::rxMinBytes},
      {"rx_min_bytes", 2, 2, &P::rxMinBytes},
      {"rx_min_bytes", 5000000000, 5000000000, &P::rxMinBytes},
      {"repair_attempts", -3, 0, &P::repairAttempts},
      {"repair_attempts", 9, 5, &P::repairAttempts},
      {"repair_delay_ms", 0, 100, &P::repairDelayMs},
      {"repair_delay_ms", 20000, 10000, &P::repairDelayMs},
      {"monitor_interval_ms", 0, 0, &P::monitorIntervalMs},
      {"monitor_interval_ms", -1, 0, &P::monitorIntervalMs},
      {"monitor_interval_ms", 5000, 10000, &P::monitorIntervalMs},
      {"monitor_interval_ms", 7200000, 7200000, &P::monitorIntervalMs},
      {"recheck_after_problem_ms", 0, 0, &P::recheckAfterProblemMs},
      {"recheck_after_problem_ms", 1, 10000, &P::recheckAfterProblemMs},
      {"diag_dialog_cooldown_ms", 4000000, 3600000, &P::diagDialogCooldownMs},
      {"hs_proof_age_ms", 10, 1000, &P::hsProofAgeMs},
      {"hs_proof_age_ms", 700000, 600000, &P::hsProofAgeMs},
      {"sub_expiry_buffer_hours", 48, 24, &P::subExpiryBufferHours},
      {"sub_expiry_buffer_hours", -1, 0, &P::subExpiryBufferHours},
      {"probe_timeout_ms", 100, 500, &P::probeTimeoutMs},
      {"probe_timeout_ms", 16000, 15000, &P::probeTimeoutMs},
      {"probe_tunnel_timeout_ms", 0, 500, &P::probeTunnelTimeoutMs},
      {"probe_tunnel_timeout_ms", 99999, 15000, &P::probeTunnelTimeoutMs},
      {"resume_visible_after_ms", 0, 0, &P::resumeVisibleAfterMs},
      {"resume_visible_after_ms", 10, 1000, &P::resumeVisibleAfterMs},
      {"resume_beat_ms", 1, 500, &P::resumeBeatMs},
      {"resume_beat_ms", 20000, 10000, &P::resumeBeatMs},
      {"cold_start_proof_max_age_ms", 1, 60000, &P::coldStartProofMaxAgeMs},
      {"cold_start_proof_max_age_ms", -7, 0, &P::coldStartProofMaxAgeMs},
      {"net_change_grace_ms", 20000, 10000, &P::netChangeGraceMs},
      {"telemetry_timeout_ms", 100, 300, &P::telemetryTimeoutMs},
      {"telemetry_timeout_ms", 6000, 5000, &P::telemetryTimeoutMs},
      {"repair_connect_timeout_ms", 0, 3000, &P::repairConnectTimeoutMs},
      {"repair_connect_timeout_ms", 40000, 30000, &P::repairConnectTimeoutMs},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(resolve(json{{c.key, c.sent}}).*c.field, c.expected) << c.key << " = " << c.sent;
  }
}

TEST(SmartStatusPolicy, ModeListsKeepKnownCodesOnceInOrderAndAnEmptyListStaysEmpty) {
  EXPECT_EQ(resolve(json::parse(R"({"require_rx_modes": [2, 2, 7, 0]})")).requireRxModes,
            (std::vector<std::int64_t>{2, 0}));
  EXPECT_TRUE(resolve(json::parse(R"({"require_rx_modes": []})")).requireRxModes.empty());
  EXPECT_TRUE(resolve(json::parse(R"({"probe_tunnel_modes": [-1, 3]})")).probeTunnelModes.empty());
  EXPECT_EQ(resolve(json::parse(R"({"probe_tunnel_modes": [1, "2"]})")).probeTunnelModes,
            (std::vector<std::int64_t>{1, 2}));
}

TEST(SmartStatusPolicy, ProbeListsKeepOnlyHttpsWithAHostTrimmedAndInOrder) {
  const auto policy = resolve(json::parse(R"({"probe_ru_urls": [
      " https://one.example/a \n", "http://plain.example/", "HTTPS://Two.Example:8443/b?x=1", "https:///nohost",
      "ftp://files.example/", "not a url", "https:/x.example/", ""]})"));
  EXPECT_EQ(urls(policy.probeRuUrls),
            (std::vector<std::string>{"https://one.example/a", "HTTPS://Two.Example:8443/b?x=1"}));
  EXPECT_EQ(policy.probeRuUrls[1].host, "two.example");
  EXPECT_EQ(policy.probeRuUrls[1].port, 8443);
  EXPECT_EQ(policy.probeForeignUrls, defaultSmartStatusPolicy().probeForeignUrls);  // absent: default

  // A list with nothing usable left keeps the built-in endpoints.
  EXPECT_EQ(resolve(json::parse(R"({"probe_tunnel_urls": ["http://a.example/"]})")).probeTunnelUrls,
            defaultSmartStatusPolicy().probeTunnelUrls);
  EXPECT_EQ(resolve(json::parse(R"({"probe_foreign_urls": []})")).probeForeignUrls,
            defaultSmartStatusPolicy().probeForeignUrls);

  EXPECT_EQ(resolve(json::parse(R"({"probe_bypass_dns": [" 1.1.1.1 ", "  ", "8.8.8.8"]})")).probeBypassDns,
            (std::vector<std::string>{"1.1.1.1", "8.8.8.8"}));
}

TEST(SmartStatusPolicy, PinsAreCleanedAndKeptOnlyForHostsTheHealthProbesAsk) {
  const auto policy = resolve(json::parse(R"({
      "probe_ru_urls": ["https://ru.example/"],
      "probe_foreign_urls": ["https://foreign.example/x"],
      "probe_tunnel_urls": ["https://tunnel-only.example/"],
      "probe_bypass_pins": {
        " RU.Example ": [" 10.0.0.1 ", "", "10.0.0.2"],
        "foreign.example": ["  "],
        "tunnel-only.example": ["10.0.0.3"],
        "elsewhere.example": ["10.0.0.4"]}})"));
  ASSERT_EQ(policy.probeBypassPins.size(), 1u);
  EXPECT_EQ(policy.probeBypassPins.at("ru.example"), (std::vector<std::string>{"10.0.0.1", "10.0.0.2"}));
}

TEST(SmartStatusPolicy, TextsFallBackPerKeyAndStatusesUseTheirKeys) {
  auto policy = resolve(json::parse(R"({"texts": {"status_refreshing": "Обновляем", "status_checking": ""}})"));
  EXPECT_EQ(smartStatusText(policy.texts, SmartStatusTextKey::statusChecking), "Проверяем соединение…");
  EXPECT_EQ(smartStatusText(policy.texts, SmartStatusTextKey::statusRefreshing), "Обновляем");
  EXPECT_EQ(jsonKey(SmartStatusTextKey::dlgNoInternetSecondary), "dlg_no_internet_secondary");

  // Refreshing and protected share a wording unless the backend sets one.
  using Case = SmartStatusHealth::Case;
  EXPECT_EQ(smartStatusText(std::nullopt, statusTextKey(SmartStatusHealth::of(Case::refreshing))),
            smartStatusText(std::nullopt, statusTextKey(SmartStatusHealth::of(Case::protected_))));
  EXPECT_EQ(statusTextKey(SmartStatusHealth{}), SmartStatusTextKey::statusConnected);
  EXPECT_EQ(statusTextKey(SmartStatusHealth::problem(SmartStatusDiagnosis::whitelist)),
            SmartStatusTextKey::statusProblemWhitelist);
  EXPECT_EQ(statusTextKey(SmartStatusHealth::problem(SmartStatusDiagnosis::subExpired)),
            SmartStatusTextKey::statusProblemSubExpired);
  EXPECT_EQ(toString(SmartStatusHealth::problem(SmartStatusDiagnosis::noInternet)), "problem(noInternet)");

  const auto noInternet = dialogTexts(std::nullopt, SmartStatusDiagnosis::noInternet);
  EXPECT_EQ(noInternet.title, "Нет интернета");
  EXPECT_EQ(noInternet.primary, "Проверить ещё раз");
  EXPECT_EQ(noInternet.secondary, "Понятно");
  EXPECT_EQ(dialogTexts(std::nullopt, SmartStatusDiagnosis::subExpired).primary, "Выключить и проверить");
}

TEST(SmartStatusDebug, TheOverrideTakesWhatIsCompleteAndArmingLogsIt) {
  auto policy = resolve(json::parse(R"({"debug": {"force_fail_count": 2, "force_inconclusive_count": -4,
      "probe_override": {"ru": true, "foreign": false}, "scenario": "no_internet", "gesture": true}})"));
  ASSERT_TRUE(policy.debug.has_value());
  testing::CapturingLog log;
  const DebugOverride armed = armDebugOverride(*policy.debug, log);
  EXPECT_EQ(armed.forceFailCount, 2);
  EXPECT_EQ(armed.forceInconclusiveCount, 0);
  EXPECT_EQ(armed.scenario, SmartStatusDebugScenario::noInternet);
  EXPECT_TRUE(
      log.hasLine("[SmartStatus] debug override armed: forceFail=2 forceInconclusive=0 "
                  "probe=ru:true,foreign:false tunnelProbe=none scenario=no_internet"))
      << log.lines().at(0);

  SmartStatusDebugConfig partial;
  partial.probeOverride = SmartStatusProbeOverrideConfig{true, std::nullopt};
  partial.scenario = "sideways";
  const DebugOverride half = makeDebugOverride(partial);
  EXPECT_FALSE(half.probeOverride.has_value());
  EXPECT_FALSE(half.scenario.has_value());
  EXPECT_EQ(debugScenarioFromRaw("our_side"), SmartStatusDebugScenario::ourSide);
}

// The cold-start proof against a stored last-verified moment, on the virtual clock.
class ColdStartProofTest : public ::testing::Test {
 protected:
  double nowMs() const { return clock.secondsSince1970() * 1000.0; }

  testing::VirtualEventLoop loop;
  testing::VirtualClock clock{loop};
  testing::MemoryDefaults defaults;
  SmartStatusPolicy policy = resolve(json{{"cold_start_proof_max_age_ms", 120000}});
};

TEST_F(ColdStartProofTest, CountsOnlyARecentPastVerification) {
  EXPECT_FALSE(hasColdStartProof(policy, defaults, clock));  // nothing stored

  defaults.setDouble(kSmartStatusLastVerifiedAtKey, nowMs() - 120000);
  EXPECT_TRUE(hasColdStartProof(policy, defaults, clock));  // exactly the greatest age
  loop.advance(std::chrono::milliseconds(1));
  EXPECT_FALSE(hasColdStartProof(policy, defaults, clock));

  defaults.setDouble(kSmartStatusLastVerifiedAtKey, nowMs() + 30000);  // 30 s in the future
  EXPECT_FALSE(hasColdStartProof(policy, defaults, clock));
  defaults.setDouble(kSmartStatusLastVerifiedAtKey, 0);
  EXPECT_FALSE(hasColdStartProof(policy, defaults, clock));

  defaults.setDouble(kSmartStatusLastVerifiedAtKey, nowMs() - 1000);
  EXPECT_TRUE(hasColdStartProof(policy, defaults, clock));
  EXPECT_FALSE(hasColdStartProof(resolve(json{{"cold_start_proof_max_age_ms", 0}}), defaults, clock));
}

}  // namespace
}  // namespace norvik
