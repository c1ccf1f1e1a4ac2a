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
// A body shorter than kGeoIPMinimumPayloadBytes is refused before it is read. The shortest
// possible line is 10 bytes ("1.0.0.0/8" and a newline), so a list that can hold the 1000
// entries the cache insists on is at least 9 999 bytes long and always passes this gate; the
// gate stops error pages and cut-off bodies, the entry count decides the rest.
inline constexpr std::size_t kGeoIPMinimumPayloadBytes = 8 * 1024;

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
