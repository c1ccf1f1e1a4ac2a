#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>

namespace norvik {

// The GeoIP list as the backend serves it. Two shapes are accepted:
//
//  - plain text, one CIDR a line ("2.56.88.0/22"); blank lines and "#" comments are skipped;
//  - a JSON envelope, an object carrying the list either as "cidrs" (an array of CIDR strings)
//    or as "data" (the plain-text list in one string); "version" may be present and is not used,
//    since the version that counts is the one the main configuration announced.
//
// A body shorter than kGeoIPMinimumPayloadBytes is refused before it is read ("expected 400KB+"
// in the log). The full list of Russian ranges runs to several hundred kilobytes; a body of a
// fraction of that is an error page or a cut-off transfer, and must not replace the list the
// tunnel has, even when the thousand entries the cache insists on happen to be in it (a thousand
// ranges take some 16 KB). The gate sits at a quarter of the announced size, so that a list which
// shrinks a little is still taken.
inline constexpr std::size_t kGeoIPMinimumPayloadBytes = 100 * 1024;

enum class GeoIPPayloadFormat { plainText, jsonEnvelope };

struct GeoIPList {
  GeoIPPayloadFormat format = GeoIPPayloadFormat::plainText;
  // The valid CIDRs, one a line, each line ending in a newline: the cache file's contents.
  std::string text;
  std::size_t cidrCount = 0;
  // Lines that are no CIDR (an address with a prefix); left out of `text`.
  std::size_t malformedCount = 0;
  std::string firstMalformed;  // the first of them, cut to 64 bytes, for the log
};

enum class GeoIPRejection {
  jsonWithoutCidrs,  // a JSON body (or something that starts like one) without the list
  tooSmall,          // below kGeoIPMinimumPayloadBytes
};

struct GeoIPPayloadError {
  GeoIPRejection reason = GeoIPRejection::tooSmall;
  GeoIPPayloadFormat format = GeoIPPayloadFormat::plainText;
  std::size_t bytes = 0;
};

// Reads a /geoip body. Never throws, whatever the bytes.
[[nodiscard]] std::expected<GeoIPList, GeoIPPayloadError> acceptGeoIPPayload(std::string_view body);

// True for "a.b.c.d/n" (n 0..32) and IPv6 "x::y/n" (n 0..128).
[[nodiscard]] bool isCidr(std::string_view text);

}  // namespace norvik
