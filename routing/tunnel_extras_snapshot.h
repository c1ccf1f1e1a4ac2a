#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "platform/defaults.h"
#include "platform/property_list.h"

namespace norvik {

// The routing, GeoIP, transport-profile and feature-flag settings as the tunnel takes them: a
// dictionary merged into the provider configuration at every install, read from the group suite
// at that moment. Keys and value forms (all texts unless noted):
//
//   "routing.goMode"                 mode in force as a stored code: "0" smart, "1" services,
//                                    "2" full ("0" for anything else)
//   "routing.serviceCIDRs"           services mode: CIDRs, one a line ("" when none)
//   "routing.watchDomains"           services mode: domains, one a line, lower-case ASCII, each
//                                    covering its subdomains ("" when none)
//   "routing.geoBypassAllowed"       "1" or "0"; "1" unless the backend said false
//   "routing.netProfile"             the transport profile, one "key=value" a line ("" when none)
//   "routing.fullModeLightDatapath", "routing.onDemandEnabled", "routing.relayHarden" (Booleans)
//   and "routing.extMemLimitMb" (integer), each when the backend sent it
//   "iosFixes.iosFixedEnable" and "iosFixes.everReceived" (Booleans), and the cached integer
//   flags "iosFixes.<name>", each when cached
//   "geodata.geoip_cache.path"       absolute path of the GeoIP list file, when it exists
//   "geodata.geoip_cache.backendVersion"  its version, when known
//
// Taking a snapshot that carries the GeoIP file's path sets
// "geodata.geoip_cache.pushedToExtension": the install that takes it hands the file to the
// tunnel. The GeoIP cache clears it when it writes a new file.
//
// Threading: any thread that may read and write the group suite (the install runs on the loop).
class TunnelExtrasSnapshot {
 public:
  static constexpr std::string_view kGoMode = "routing.goMode";
  static constexpr std::string_view kServiceCIDRs = "routing.serviceCIDRs";
  static constexpr std::string_view kWatchDomains = "routing.watchDomains";
  static constexpr std::string_view kGeoBypassAllowed = "routing.geoBypassAllowed";
  static constexpr std::string_view kNetProfile = "routing.netProfile";
  static constexpr std::string_view kGeoIPPath = "geodata.geoip_cache.path";
  static constexpr std::string_view kGeoIPVersion = "geodata.geoip_cache.backendVersion";
  // Entries inside "routing.serviceCIDRs" and "routing.watchDomains" are separated by this.
  static constexpr char kListSeparator = '\n';

  // `netProfileText` gives the transport profile's key/value text at snapshot time.
  TunnelExtrasSnapshot(Defaults& groupDefaults, std::filesystem::path geoipCacheFile,
                       std::function<std::string()> netProfileText);

  [[nodiscard]] PropertyDictionary snapshot() const;

 private:
  Defaults& defaults_;
  std::filesystem::path geoipCacheFile_;
  std::function<std::string()> netProfileText_;
};

}  // namespace norvik
