#include "health/smart_status_policy.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <set>

#include <curl/curl.h>

#include "platform/text.h"

namespace norvik {
namespace {

// The built-in probe endpoints, in the order the probes try them.
constexpr std::string_view kDefaultRuUrls[] = {
    "https://api.vk.com/method/utils.getServerTime",  // a social network's public API method
    "https://ya.ru/generate_204",                     // a search engine's connectivity check
    "https://www.gosuslugi.ru/",                      // the state-services portal
};
constexpr std::string_view kDefaultForeignUrls[] = {
    "https://www.google.com/generate_204",
    "https://captive.apple.com/hotspot-detect.html",
    "https://detectportal.firefox.com/success.txt",
    "https://cp.cloudflare.com/generate_204",
};
constexpr std::string_view kDefaultTunnelUrls[] = {
    "https://www.google.com/generate_204",
    "https://cp.cloudflare.com/generate_204",
    "https://detectportal.firefox.com/success.txt",
};
// Yandex DNS, primary then secondary.
constexpr std::string_view kDefaultBypassDns[] = {"77.88.8.8", "77.88.8.1"};

struct UrlHandle {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};

std::optional<std::string> urlPart(CURLU* url, CURLUPart part) {
  char* value = nullptr;
  if (curl_url_get(url, part, &value, 0) != CURLUE_OK || !value) return std::nullopt;
  std::string text(value);
  curl_free(value);
  return text;
}

std::string lowerAscii(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : static_cast<char>(c);
  });
  return out;
}

template <std::size_t N>
std::vector<ProbeURL> builtInUrls(const std::string_view (&texts)[N]) {
  std::vector<ProbeURL> urls;
  for (auto text : texts) urls.push_back(*ProbeURL::parse(text));
  return urls;
}

std::int64_t clamp(std::int64_t value, std::int64_t low, std::int64_t high) { return std::clamp(value, low, high); }

// Keys that 0 switches off: 0 or less is off, anything else is at least `floor`, with no ceiling.
std::int64_t offOrAtLeast(std::int64_t value, std::int64_t floor) { return value <= 0 ? 0 : std::max(value, floor); }

// Routing-mode codes 0..2, each once, in the order received. An empty result stays empty.
std::vector<std::int64_t> filterModes(const std::vector<std::int64_t>& modes) {
  std::vector<std::int64_t> kept;
  for (auto mode : modes) {
    if (mode >= 0 && mode <= 2 && std::find(kept.begin(), kept.end(), mode) == kept.end()) kept.push_back(mode);
  }
  return kept;
}

// https addresses with a host, in order. A list that cleans down to nothing keeps the built-in
// endpoints: with no probe address the check could never succeed, and the backend has "enabled"
// and the mode lists for switching probes off.
std::vector<ProbeURL> cleanUrls(const std::optional<std::vector<std::string>>& sent,
                                const std::vector<ProbeURL>& fallback) {
  if (!sent) return fallback;
  std::vector<ProbeURL> kept;
  for (const auto& text : *sent) {
    if (auto url = ProbeURL::parse(text)) kept.push_back(std::move(*url));
  }
  return kept.empty() ? fallback : kept;
}

std::vector<std::string> cleanResolvers(const std::optional<std::vector<std::string>>& sent,
                                        const std::vector<std::string>& fallback) {
  if (!sent) return fallback;
  std::vector<std::string> kept;
  for (const auto& entry : *sent) {
    if (auto trimmed = trimWhitespace(entry); !trimmed.empty()) kept.emplace_back(trimmed);
  }
  return kept.empty() ? fallback : kept;
}

// Pins for hosts that the Russian and foreign probes ask for; a pin left without addresses is
// dropped (the resolvers answer for that host instead). Keys that differ only in case or white space
// are merged.
std::map<std::string, std::vector<std::string>> cleanPins(
    const std::optional<std::map<std::string, std::vector<std::string>>>& sent, const SmartStatusPolicy& policy) {
  std::map<std::string, std::vector<std::string>> kept;
  if (!sent) return kept;
  std::set<std::string, std::less<>> hosts;
  for (const auto* list : {&policy.probeRuUrls, &policy.probeForeignUrls}) {
    for (const auto& url : *list) hosts.insert(url.host);
  }
  for (const auto& [key, addresses] : *sent) {
    std::string host = lowerAscii(trimWhitespace(key));
    if (!hosts.contains(host)) continue;
    std::vector<std::string> cleaned;
    for (const auto& address : addresses) {
      if (auto trimmed = trimWhitespace(address); !trimmed.empty()) cleaned.emplace_back(trimmed);
    }
    if (cleaned.empty()) continue;
    auto& slot = kept[host];
    for (auto& address : cleaned) {
      if (std::find(slot.begin(), slot.end(), address) == slot.end()) slot.push_back(std::move(address));
    }
  }
  return kept;
}

}  // namespace

std::optional<ProbeURL> ProbeURL::parse(std::string_view text) {
  const std::string trimmed(trimWhitespace(text));
  // The authority must follow "scheme://" at once: the URL parser would read "https:///x" or
  // "https:/x" as having the host "x", where a strict reading sees no host at all.
  const auto colon = trimmed.find(':');
  if (colon == std::string::npos || trimmed.compare(colon + 1, 2, "//") != 0 || colon + 3 >= trimmed.size() ||
      trimmed[colon + 3] == '/') {
    return std::nullopt;
  }
  std::unique_ptr<CURLU, UrlHandle> url(curl_url());
  if (!url) return std::nullopt;
  if (curl_url_set(url.get(), CURLUPART_URL, trimmed.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
    return std::nullopt;
  }
  auto scheme = urlPart(url.get(), CURLUPART_SCHEME);
  auto host = urlPart(url.get(), CURLUPART_HOST);
  if (!scheme || lowerAscii(*scheme) != "https" || !host || host->empty()) return std::nullopt;

  ProbeURL probe;
  probe.url = trimmed;
  probe.host = lowerAscii(*host);
  if (auto port = urlPart(url.get(), CURLUPART_PORT)) {
    int number = 0;
    auto [end, ec] = std::from_chars(port->data(), port->data() + port->size(), number);
    if (ec == std::errc{} && end == port->data() + port->size()) probe.port = number;
  }
  probe.path = urlPart(url.get(), CURLUPART_PATH).value_or("/");
  return probe;
}

const SmartStatusPolicy& defaultSmartStatusPolicy() {
  static const SmartStatusPolicy policy = [] {
    SmartStatusPolicy p;
    p.probeRuUrls = builtInUrls(kDefaultRuUrls);
    p.probeForeignUrls = builtInUrls(kDefaultForeignUrls);
    p.probeTunnelUrls = builtInUrls(kDefaultTunnelUrls);
    p.probeBypassDns.assign(std::begin(kDefaultBypassDns), std::end(kDefaultBypassDns));
    return p;
  }();
  return policy;
}

SmartStatusPolicy resolveSmartStatusPolicy(const std::optional<SmartStatusConfig>& config) {
  const SmartStatusPolicy& defaults = defaultSmartStatusPolicy();
  SmartStatusPolicy p = defaults;
  if (!config) return p;
  const SmartStatusConfig& c = *config;

  // Each present value replaces the default after `adjust`; absent ones keep it.
  auto take = [](auto& field, const auto& sent, auto adjust) {
    if (sent) field = adjust(*sent);
  };
  auto asIs = [](const auto& v) { return v; };
  auto within = [](std::int64_t low, std::int64_t high) { return [=](std::int64_t v) { return clamp(v, low, high); }; };
  auto offOrFloor = [](std::int64_t floor) { return [=](std::int64_t v) { return offOrAtLeast(v, floor); }; };

  take(p.enabled, c.enabled, asIs);
  take(p.verifyDelayMs, c.verifyDelayMs, within(0, 30000));
  take(p.verifyWindowMs, c.verifyWindowMs, within(1000, 60000));
  take(p.pollIntervalMs, c.pollIntervalMs, within(100, 5000));
  take(p.verifyFailFastMs, c.verifyFailFastMs, within(0, 30000));
  take(p.handshakeLookbackMs, c.handshakeLookbackMs, within(0, 120000));
  take(p.handshakeStaleMs, c.handshakeStaleMs, within(10000, 3600000));
  take(p.requireRxModes, c.requireRxModes, filterModes);
  take(p.rxMinBytes, c.rxMinBytes, [](std::int64_t v) { return v < 2 ? std::int64_t{1} : v; });
  take(p.repairAttempts, c.repairAttempts, within(0, 5));
  take(p.resumeRepair, c.resumeRepair, asIs);
  take(p.repairDelayMs, c.repairDelayMs, within(100, 10000));
  take(p.monitorIntervalMs, c.monitorIntervalMs, offOrFloor(10000));
  take(p.recheckAfterProblemMs, c.recheckAfterProblemMs, offOrFloor(10000));
  take(p.diagDialogCooldownMs, c.diagDialogCooldownMs, within(0, 3600000));
  take(p.hsProofAgeMs, c.hsProofAgeMs, within(1000, 600000));
  take(p.showDialogOurSide, c.showDialogOurSide, asIs);
  take(p.showDialogWhitelist, c.showDialogWhitelist, asIs);
  take(p.showDialogNoInternet, c.showDialogNoInternet, asIs);
  take(p.subExpiryEnabled, c.subExpiryEnabled, asIs);
  take(p.subExpiryBufferHours, c.subExpiryBufferHours, within(0, 24));
  take(p.showDialogSubExpired, c.showDialogSubExpired, asIs);
  take(p.probeTimeoutMs, c.probeTimeoutMs, within(500, 15000));
  p.probeRuUrls = cleanUrls(c.probeRuUrls, defaults.probeRuUrls);
  p.probeForeignUrls = cleanUrls(c.probeForeignUrls, defaults.probeForeignUrls);
  p.texts = c.texts;
  p.probeTunnelUrls = cleanUrls(c.probeTunnelUrls, defaults.probeTunnelUrls);
  take(p.probeTunnelTimeoutMs, c.probeTunnelTimeoutMs, within(500, 15000));
  take(p.resumeVisibleAfterMs, c.resumeVisibleAfterMs, offOrFloor(1000));
  take(p.resumeBeatMs, c.resumeBeatMs, within(500, 10000));
  take(p.coldStartProofMaxAgeMs, c.coldStartProofMaxAgeMs, offOrFloor(60000));
  take(p.probeTunnelModes, c.probeTunnelModes, filterModes);
  take(p.probeBypassEnabled, c.probeBypassEnabled, asIs);
  p.probeBypassDns = cleanResolvers(c.probeBypassDns, defaults.probeBypassDns);
  p.probeBypassPins = cleanPins(c.probeBypassPins, p);  // after the probe lists it is filtered by
  take(p.netChangeGraceMs, c.netChangeGraceMs, within(0, 10000));
  take(p.telemetryTimeoutMs, c.telemetryTimeoutMs, within(300, 5000));
  take(p.repairConnectTimeoutMs, c.repairConnectTimeoutMs, within(3000, 30000));
  p.debug = c.debug;
  return p;
}

bool hasColdStartProof(const SmartStatusPolicy& policy, const Defaults& standardDefaults, const Clock& clock) {
  if (policy.coldStartProofMaxAgeMs <= 0) return false;
  const auto stored = standardDefaults.doubleValue(kSmartStatusLastVerifiedAtKey);
  if (!stored || !(*stored > 0)) return false;  // also refuses NaN
  const double nowMs = static_cast<double>(
      std::chrono::duration_cast<std::chrono::milliseconds>(clock.now().time_since_epoch()).count());
  const double age = nowMs - *stored;
  if (age < 0) return false;  // a verification "in the future" proves nothing
  return age <= static_cast<double>(policy.coldStartProofMaxAgeMs);
}

}  // namespace norvik
