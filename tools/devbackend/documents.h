#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "tools/devbackend/device_store.h"
#include "tools/devbackend/server_list.h"

namespace norvik::devbackend {

// The documents this backend serves, built from its configuration and a device's state. Pure
// functions: the same inputs give the same bytes.

// A list of CIDRs with the version the main configuration announces for it. The version is
// taken from the content, so the announced version and the served list cannot disagree.
struct VersionedText {
  std::string text;
  std::string version;
};

// `count` made-up ranges in Russian-looking public address space, one CIDR a line (IPv4 /24s,
// then a few IPv6 networks), sorted and each ending in a newline. At most kMaxGeoIPEntries.
inline constexpr int kMaxGeoIPEntries = 10000;
[[nodiscard]] VersionedText geoIPList(int count);

// A list with the size and shape of a real country's: `v4` IPv4 and `v6` IPv6 aggregated ranges
// (no two overlap or could be merged), of the prefix lengths real lists are made of (mostly /24 to
// /22 with some up to /16; IPv6 /29 to /48), spread over public address space, sorted. The first
// ranges are 5.3.0.0/24 and 2a00:1148::/32, which tests reach on purpose.
inline constexpr int kCountryIPv4Ranges = 20000;
inline constexpr int kCountryIPv6Ranges = 5000;
[[nodiscard]] VersionedText countryGeoIPList(int v4 = kCountryIPv4Ranges, int v6 = kCountryIPv6Ranges);

// The "service_lists" answer: {"version", "services": {key: [CIDR, …]}} for the eight catalog
// services, with its version.
struct ServiceLists {
  nlohmann::json document;
  std::string version;
};
[[nodiscard]] const ServiceLists& serviceLists();

// What the main configuration of one device is made from.
struct MainInputs {  // NOLINT(bugprone-exception-escape): nlohmann::json moves without throwing; the check cannot see
                     // it
  const Device* device = nullptr;
  const VpnServer* server = nullptr;  // the device's current server
  std::int64_t serverTime = 0;        // this server's clock, seconds since 1970
  std::string geoIPVersion;
  std::string listsVersion;
  nlohmann::json smartStatus;  // the "smart_status" object
  std::optional<std::string> linkDomain;
  nlohmann::json patch;  // a JSON merge patch applied last (null: none)
};
// An APIResponse document: "main" with its account, key, GeoIP, health and feature-flag values,
// "info", "routing" and "sub_panel".
[[nodiscard]] nlohmann::json mainDocument(const MainInputs& in);

// The update feed with one item.
struct FeedItem {
  std::string version;
  std::string enclosureURL;
  std::uint64_t length = 0;
  std::optional<std::string> edSignature;  // Base64 of the Ed25519 signature over the file
  std::string releaseNotesURL;
  std::int64_t publishedAt = 0;
};
[[nodiscard]] std::string appcastXml(const FeedItem& item);

// The release notes page of a version (a small HTML page).
[[nodiscard]] std::string releaseNotesHtml(std::string_view version);

// A body the client cannot read where it expects `original`: JSON and XML cut off in the middle;
// a GeoIP list replaced by a JSON object without its ranges.
[[nodiscard]] std::string malformedBody(std::string_view endpoint, std::string_view original);

// RFC 1123 date for the "Date" header: "Sun, 06 Nov 1994 08:49:37 GMT".
[[nodiscard]] std::string httpDate(std::int64_t secondsSince1970);

// A day as users here read it, "22.12.2026" (UTC).
[[nodiscard]] std::string russianDate(std::int64_t secondsSince1970);

// The first `hexDigits` lower-case hexadecimal digits of SHA-256 over `text`.
[[nodiscard]] std::string shortDigest(std::string_view text, std::size_t hexDigits = 12);

}  // namespace norvik::devbackend
