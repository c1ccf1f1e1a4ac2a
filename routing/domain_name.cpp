#include "routing/domain_name.h"

#include <algorithm>
#include <cctype>
#include <memory>

#include <idn2.h>

#include "platform/text.h"

namespace norvik {
namespace {

// Longer input cannot be a domain in any script; it is refused before any conversion.
constexpr std::size_t kMaxInputBytes = 1024;
constexpr std::size_t kMaxNameLength = 253;
constexpr std::size_t kMaxLabelLength = 63;

struct Idn2Free {
  void operator()(char* p) const { idn2_free(p); }
};
using Idn2String = std::unique_ptr<char, Idn2Free>;

std::unexpected<std::string> refuse(std::string reason) { return std::unexpected(std::move(reason)); }

bool isLetterOrDigit(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

// The checks that follow IDNA: every label is letters, digits and inner hyphens.
std::expected<void, std::string> checkAsciiName(std::string_view name) {
  if (name.size() > kMaxNameLength) return refuse("the name is longer than 253 characters");
  std::size_t labels = 0;
  std::string_view last;
  for (std::size_t start = 0;;) {
    const std::size_t dot = name.find('.', start);
    const std::string_view label = name.substr(start, dot == std::string_view::npos ? name.npos : dot - start);
    if (label.empty()) return refuse("an empty label");
    if (label.size() > kMaxLabelLength) return refuse("a label is longer than 63 characters");
    if (!std::ranges::all_of(label, [](char c) { return isLetterOrDigit(c) || c == '-'; })) {
      return refuse("a label has characters other than letters, digits and hyphens");
    }
    if (label.front() == '-' || label.back() == '-') return refuse("a label starts or ends with a hyphen");
    ++labels;
    last = label;
    if (dot == std::string_view::npos) break;
    start = dot + 1;
  }
  if (labels < 2) return refuse("a single label is no public domain");
  if (std::ranges::all_of(last, [](char c) { return c >= '0' && c <= '9'; })) {
    return refuse("an IP address is no domain");
  }
  if (last.size() < 2) return refuse("the top-level label is shorter than 2 characters");
  return {};
}

}  // namespace

std::expected<DomainName, std::string> parseDomainName(std::string_view text) {
  std::string_view name = trimWhitespace(text);
  if (name.empty()) return refuse("empty");
  if (name.size() > kMaxInputBytes) return refuse("too long");
  if (!isValidUtf8(name)) return refuse("not UTF-8");
  if (name.find("://") != std::string_view::npos) return refuse("a scheme is not part of a domain");
  if (name.find_first_of("/?#\\") != std::string_view::npos) return refuse("a path is not part of a domain");
  if (name.find('@') != std::string_view::npos) return refuse("a user name is not part of a domain");
  if (name.find(':') != std::string_view::npos) return refuse("a port is not part of a domain");
  if (std::ranges::any_of(name, [](char c) { return static_cast<unsigned char>(c) <= 0x20 || c == 0x7F; })) {
    return refuse("a space or control character inside");
  }
  // IDNA would quietly drop or map some ASCII ("under_score" becomes "underscore"): a name the
  // user did not type. ASCII other than letters, digits, hyphens and dots is refused as it stands.
  if (std::ranges::any_of(name, [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u < 0x80 && !std::isalnum(u) && c != '-' && c != '.';
      })) {
    return refuse("characters other than letters, digits, hyphens and dots");
  }
  while (!name.empty() && name.back() == '.') name.remove_suffix(1);  // the root label
  if (name.empty()) return refuse("empty");

  const std::string input(name);
  char* converted = nullptr;
  const int rc =
      idn2_to_ascii_8z(input.c_str(), &converted, IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL | IDN2_USE_STD3_ASCII_RULES);
  Idn2String ascii(converted);
  if (rc != IDN2_OK || !ascii) return refuse(std::string("IDNA: ") + idn2_strerror(rc));

  DomainName result;
  result.ascii = ascii.get();
  // The mapping lower-cases letters; ASCII input without non-ASCII letters passes unchanged, so
  // make sure of the case here too.
  std::ranges::transform(result.ascii, result.ascii.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  if (auto checked = checkAsciiName(result.ascii); !checked) return std::unexpected(checked.error());

  char* unicode = nullptr;
  if (idn2_to_unicode_8z8z(result.ascii.c_str(), &unicode, 0) == IDN2_OK && unicode) {
    result.display = unicode;
  } else {
    result.display = result.ascii;
  }
  idn2_free(unicode);
  return result;
}

}  // namespace norvik
