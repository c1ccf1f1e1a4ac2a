// Any bytes as a "smart_status" object: decoding either succeeds or reports an error, and the
// resolved policy always keeps its promises (ranges, cleaned lists, pins for probe hosts only).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string_view>

#include <nlohmann/json.hpp>

#include "health/smart_status_policy.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

bool within(std::int64_t value, std::int64_t low, std::int64_t high) { return value >= low && value <= high; }
bool offOrAtLeast(std::int64_t value, std::int64_t floor) { return value == 0 || value >= floor; }

void checkModes(const std::vector<std::int64_t>& modes) {
  std::set<std::int64_t> seen;
  for (auto mode : modes) require(within(mode, 0, 2) && seen.insert(mode).second);
}

void checkUrls(const std::vector<norvik::ProbeURL>& urls) {
  require(!urls.empty());
  for (const auto& url : urls) require(!url.host.empty() && !url.url.empty());
}

void checkPolicy(const norvik::SmartStatusPolicy& p) {
  require(within(p.verifyDelayMs, 0, 30000) && within(p.verifyWindowMs, 1000, 60000));
  require(within(p.pollIntervalMs, 100, 5000) && within(p.verifyFailFastMs, 0, 30000));
  require(within(p.handshakeLookbackMs, 0, 120000) && within(p.handshakeStaleMs, 10000, 3600000));
  require(p.rxMinBytes >= 1 && within(p.repairAttempts, 0, 5) && within(p.repairDelayMs, 100, 10000));
  require(offOrAtLeast(p.monitorIntervalMs, 10000) && offOrAtLeast(p.recheckAfterProblemMs, 10000));
  require(within(p.diagDialogCooldownMs, 0, 3600000) && within(p.hsProofAgeMs, 1000, 600000));
  require(within(p.subExpiryBufferHours, 0, 24) && within(p.probeTimeoutMs, 500, 15000));
  require(within(p.probeTunnelTimeoutMs, 500, 15000) && offOrAtLeast(p.resumeVisibleAfterMs, 1000));
  require(within(p.resumeBeatMs, 500, 10000) && offOrAtLeast(p.coldStartProofMaxAgeMs, 60000));
  require(within(p.netChangeGraceMs, 0, 10000) && within(p.telemetryTimeoutMs, 300, 5000));
  require(within(p.repairConnectTimeoutMs, 3000, 30000));
  checkModes(p.requireRxModes);
  checkModes(p.probeTunnelModes);
  checkUrls(p.probeRuUrls);
  checkUrls(p.probeForeignUrls);
  checkUrls(p.probeTunnelUrls);
  require(!p.probeBypassDns.empty());
  for (const auto& dns : p.probeBypassDns) require(!dns.empty());
  for (const auto& [host, addresses] : p.probeBypassPins) {
    const auto asks = [&host](const norvik::ProbeURL& u) { return u.host == host; };
    require(std::any_of(p.probeRuUrls.begin(), p.probeRuUrls.end(), asks) ||
            std::any_of(p.probeForeignUrls.begin(), p.probeForeignUrls.end(), asks));
    require(!addresses.empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return 0;
  auto config = norvik::decodeSmartStatusConfig(json);
  const auto policy = norvik::resolveSmartStatusPolicy(config ? std::optional(*config) : std::nullopt);
  checkPolicy(policy);
  if (!config) require(policy == norvik::defaultSmartStatusPolicy());
  // Every text resolves to something to show.
  for (std::size_t i = 0; i < norvik::kSmartStatusTextKeyCount; ++i) {
    require(!norvik::smartStatusText(policy.texts, static_cast<norvik::SmartStatusTextKey>(i)).empty());
  }
  return 0;
}
