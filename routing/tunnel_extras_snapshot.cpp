#include "routing/tunnel_extras_snapshot.h"

#include <system_error>

#include "routing/geoip_cache.h"
#include "routing/ios_fixes.h"
#include "routing/modes_store.h"

namespace norvik {

TunnelExtrasSnapshot::TunnelExtrasSnapshot(Defaults& groupDefaults, std::filesystem::path geoipCacheFile,
                                           std::function<std::string()> netProfileText)
    : defaults_(groupDefaults), geoipCacheFile_(std::move(geoipCacheFile)), netProfileText_(std::move(netProfileText)) {
  // The tunnel runs elsewhere: it needs a path that does not depend on our working directory.
  std::error_code ec;
  if (auto absolute = std::filesystem::absolute(geoipCacheFile_, ec); !ec) geoipCacheFile_ = std::move(absolute);
}

PropertyDictionary TunnelExtrasSnapshot::snapshot() const {
  PropertyDictionary extras;

  const std::int64_t mode = defaults_.integerForKey(ModesStore::kModeServicesActive);
  extras[std::string(kGoMode)] = std::to_string(mode >= 0 && mode <= 2 ? mode : 0);
  extras[std::string(kServiceCIDRs)] = defaults_.stringValue(kServiceCIDRs).value_or("");
  extras[std::string(kWatchDomains)] = defaults_.stringValue(kWatchDomains).value_or("");
  const bool geoBypass = defaults_.boolValue(ModesStore::kGeoBypassAllowedByBackend).value_or(true);
  extras[std::string(kGeoBypassAllowed)] = geoBypass ? "1" : "0";
  extras[std::string(kNetProfile)] = netProfileText_ ? netProfileText_() : std::string();

  auto copyBool = [&](std::string_view key) {
    if (auto value = defaults_.boolValue(key)) extras[std::string(key)] = *value;
  };
  auto copyInteger = [&](std::string_view key) {
    if (auto value = defaults_.integerValue(key)) extras[std::string(key)] = *value;
  };
  copyBool(ModesStore::kFullModeLightDatapath);
  copyBool(ModesStore::kOnDemandEnabled);
  copyBool(ModesStore::kRelayHarden);
  copyInteger(ModesStore::kExtMemLimitMb);
  copyBool(kIOSFixesEnableKey);
  for (const auto& key : iosFixesCachedIntegerKeys()) copyInteger(key);
  copyBool(kIOSFixesEverReceivedKey);

  std::error_code ec;
  if (std::filesystem::is_regular_file(geoipCacheFile_, ec)) {
    extras[std::string(kGeoIPPath)] = geoipCacheFile_.string();
    if (auto version = defaults_.stringValue(GeoIPCache::kBackendVersionKey))
      extras[std::string(kGeoIPVersion)] = *version;
    // The install taking this snapshot hands the file to the tunnel.
    if (defaults_.boolValue(GeoIPCache::kPushedToExtensionKey) != true) {
      defaults_.setBool(GeoIPCache::kPushedToExtensionKey, true);
    }
  }
  return extras;
}

}  // namespace norvik
