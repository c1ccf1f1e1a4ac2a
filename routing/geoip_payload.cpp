#include "routing/geoip_payload.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

#include <nlohmann/json.hpp>

#include "platform/text.h"

namespace norvik {
namespace {

constexpr std::size_t kMaxAddressLength = 45;  // the longest IPv6 text form
constexpr std::size_t kMalformedQuoteBytes = 64;

class ListBuilder {
 public:
  explicit ListBuilder(GeoIPList& list) : list_(list) {}

  void line(std::string_view raw) {
    const std::string_view entry = trimWhitespace(raw);
    if (entry.empty() || entry.front() == '#') return;
    if (!isCidr(entry)) {
      if (list_.malformedCount++ == 0) list_.firstMalformed = utf8Prefix(entry, kMalformedQuoteBytes);
      return;
    }
    list_.text.append(entry);
    list_.text.push_back('\n');
    ++list_.cidrCount;
  }

  void lines(std::string_view text) {
    while (!text.empty()) {
      const std::size_t end = text.find('\n');
      line(text.substr(0, end));
      if (end == std::string_view::npos) break;
      text.remove_prefix(end + 1);
    }
  }

 private:
  GeoIPList& list_;
};

std::string_view leftTrimmed(std::string_view body) {
  const auto start = body.find_first_not_of(" \t\r\n");
  return start == std::string_view::npos ? std::string_view{} : body.substr(start);
}

bool looksLikeJson(std::string_view body) {
  const auto text = leftTrimmed(body);
  return !text.empty() && (text.front() == '{' || text.front() == '[');
}

}  // namespace

bool isCidr(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos || slash == 0 || slash > kMaxAddressLength) return false;
  const std::string_view address = text.substr(0, slash);
  const std::string_view prefix = text.substr(slash + 1);
  if (prefix.empty() || prefix.size() > 3 ||
      !std::ranges::all_of(prefix, [](char c) { return c >= '0' && c <= '9'; })) {
    return false;
  }
  if (prefix.size() > 1 && prefix.front() == '0') return false;
  int bits = 0;
  for (char c : prefix) bits = bits * 10 + (c - '0');

  char buffer[kMaxAddressLength + 1];
  std::memcpy(buffer, address.data(), address.size());
  buffer[address.size()] = '\0';
  unsigned char parsed[16];
  if (address.find(':') != std::string_view::npos) return bits <= 128 && ::inet_pton(AF_INET6, buffer, parsed) == 1;
  return bits <= 32 && ::inet_pton(AF_INET, buffer, parsed) == 1;
}

std::expected<GeoIPList, GeoIPPayloadError> acceptGeoIPPayload(std::string_view body) {
  GeoIPList list;
  list.text.reserve(body.size());
  ListBuilder builder(list);

  if (looksLikeJson(body)) {
    list.format = GeoIPPayloadFormat::jsonEnvelope;
    auto json = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
    bool carriesList = false;
    if (json.is_object()) {
      if (auto cidrs = json.find("cidrs"); cidrs != json.end() && cidrs->is_array() && !cidrs->empty()) {
        carriesList = true;
        for (const auto& entry : *cidrs) {
          if (entry.is_string()) {
            builder.line(entry.get_ref<const std::string&>());
          } else if (list.malformedCount++ == 0) {
            list.firstMalformed = utf8Prefix(entry.dump(), kMalformedQuoteBytes);
          }
        }
      } else if (auto data = json.find("data"); data != json.end() && data->is_string() &&
                                                !trimWhitespace(data->get_ref<const std::string&>()).empty()) {
        carriesList = true;
        builder.lines(data->get_ref<const std::string&>());
      }
    }
    if (!carriesList) {
      return std::unexpected(GeoIPPayloadError{GeoIPRejection::jsonWithoutCidrs, list.format, body.size()});
    }
    if (body.size() < kGeoIPMinimumPayloadBytes) {
      return std::unexpected(GeoIPPayloadError{GeoIPRejection::tooSmall, list.format, body.size()});
    }
    return list;
  }

  if (body.size() < kGeoIPMinimumPayloadBytes) {
    return std::unexpected(GeoIPPayloadError{GeoIPRejection::tooSmall, list.format, body.size()});
  }
  builder.lines(body);
  return list;
}

}  // namespace norvik
