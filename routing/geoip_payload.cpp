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

// The common line of a list, "a.b.c.d/n\n", judged as it is read: octets of one to three digits
// without a leading zero, at most 255, and a prefix length of at most 32 without a leading zero —
// what inet_pton and isCidr accept. Answers where the next line starts, or nullptr for any other
// line (which isCidr then judges), the last line without its newline included.
const char* plainIPv4Line(const char* p, const char* const end) {
  for (int octet = 0; octet < 4; ++octet) {
    if (octet > 0) {
      if (p == end || *p != '.') return nullptr;
      ++p;
    }
    if (p == end || *p < '0' || *p > '9') return nullptr;
    const bool leadingZero = *p == '0';
    auto value = static_cast<unsigned>(*p++ - '0');
    for (int digits = 1; p != end && *p >= '0' && *p <= '9'; ++digits) {
      if (leadingZero || digits == 3) return nullptr;
      value = value * 10 + static_cast<unsigned>(*p++ - '0');
    }
    if (value > 255) return nullptr;
  }
  if (p == end || *p != '/') return nullptr;
  ++p;
  if (p == end || *p < '0' || *p > '9') return nullptr;
  const bool zero = *p == '0';
  auto bits = static_cast<unsigned>(*p++ - '0');
  if (p != end && *p >= '0' && *p <= '9') {
    if (zero) return nullptr;
    bits = bits * 10 + static_cast<unsigned>(*p++ - '0');
  }
  if (bits > 32 || p == end || *p != '\n') return nullptr;
  return p + 1;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

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

  // A list is mostly lines that are already what the cache file holds: runs of them are copied as
  // they are, in one piece, and only the other lines are trimmed, skipped or judged one by one.
  void lines(std::string_view text) {
    const char* p = text.data();
    const char* const end = p + text.size();
    const char* run = p;  // the start of the current run of lines kept as they are
    std::size_t runLines = 0;
    auto flush = [&](const char* upTo) {
      list_.text.append(run, static_cast<std::size_t>(upTo - run));
      list_.cidrCount += runLines;
      runLines = 0;
    };
    while (p != end) {
      if (const char* next = plainIPv4Line(p, end)) {
        ++runLines;
        p = next;
        continue;
      }
      const auto* newline = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
      if (!newline) {
        flush(p);
        line(std::string_view(p, static_cast<std::size_t>(end - p)));
        return;
      }
      const std::string_view entry(p, static_cast<std::size_t>(newline - p));
      if (!entry.empty() && !isSpace(entry.front()) && !isSpace(entry.back()) && isCidr(entry)) {
        ++runLines;  // an IPv6 range, already as the cache file holds it
      } else {
        flush(p);
        line(entry);
        run = newline + 1;
      }
      p = newline + 1;
    }
    flush(p);
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
