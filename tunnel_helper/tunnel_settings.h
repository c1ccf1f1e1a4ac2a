#pragma once

#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "tunnel_helper/ip_prefix.h"
#include "tunnel_helper/tunnel_key.h"

namespace norvik::tunnel_helper {

// How the tunnel routes, by the stored code the application sends as "routing.goMode".
enum class TunnelRoutingMode { smart = 0, services = 1, full = 2 };

[[nodiscard]] std::string_view toString(TunnelRoutingMode mode);

// The keys of the provider configuration the tunnel reads. The application writes them (the key
// text and its extras snapshot); these names are the contract between the two programs.
namespace provider_keys {
inline constexpr std::string_view kKeyText = "wgQuickConfig";
inline constexpr std::string_view kGoMode = "routing.goMode";
inline constexpr std::string_view kServiceCIDRs = "routing.serviceCIDRs";
inline constexpr std::string_view kWatchDomains = "routing.watchDomains";
inline constexpr std::string_view kGeoBypassAllowed = "routing.geoBypassAllowed";
inline constexpr std::string_view kGeoIPPath = "geodata.geoip_cache.path";
inline constexpr std::string_view kTunMTU = "iosFixes.tunMTU";
inline constexpr std::string_view kDisableIPv6 = "iosFixes.disableIPv6";
}  // namespace provider_keys

inline constexpr std::size_t kMaxServiceCIDRs = 100'000;
inline constexpr std::size_t kMaxWatchDomains = 512;
inline constexpr std::size_t kMaxGeoIPRanges = 500'000;

// Everything the tunnel takes from the application for one session.
struct TunnelSettings {
  TunnelKey key;
  TunnelRoutingMode mode = TunnelRoutingMode::smart;
  std::vector<IpPrefix> serviceCIDRs;
  std::vector<std::string> watchDomains;
  bool geoBypassAllowed = true;
  std::optional<std::filesystem::path> geoipPath;
  std::optional<int> tunMTU;  // the backend's MTU for the tunnel, when it sent a usable one
  bool disableIPv6 = false;
  // What was passed over and why (bad list entries, an MTU out of range); for the log.
  std::vector<std::string> notes;
};

// Reads the provider configuration (a JSON object of property-list values). Only a missing or bad
// key text refuses the whole configuration; a bad extra entry is left out and noted, since the
// tunnel is still usable without it.
[[nodiscard]] std::expected<TunnelSettings, KeyTextError> readTunnelSettings(const nlohmann::json& configuration);

// The GeoIP list file: one CIDR a line. Lines that are not a CIDR are left out and counted.
struct GeoIPRanges {
  std::vector<IpPrefix> ranges;
  std::size_t skippedLines = 0;
  std::optional<std::string> firstSkipped;
};
[[nodiscard]] std::expected<GeoIPRanges, std::string> readGeoIPRanges(const std::filesystem::path& file);

// Drops the second and later occurrences of each prefix, keeping the order of the first ones.
void removeRepeats(std::vector<IpPrefix>& prefixes);

}  // namespace norvik::tunnel_helper
