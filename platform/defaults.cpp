#include "platform/defaults.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace norvik {
namespace {

template <class T>
std::optional<T> exactly(const std::optional<DefaultsValue>& v) {
  if (v && std::holds_alternative<T>(*v)) return std::get<T>(*v);
  return std::nullopt;
}

// A string's leading number, as the system's string-to-number conversions read it: optional
// white space, a sign, digits, an optional fraction. Anything else reads as 0.
double leadingNumber(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  double result = 0;
  auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), result, std::chars_format::fixed);
  if (ec != std::errc{} || !std::isfinite(result)) return 0;
  return result;
}

std::int64_t clampToInt64(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9.2233720368547758e18) return std::numeric_limits<std::int64_t>::max();
  if (d <= -9.2233720368547758e18) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(d);  // toward zero
}

}  // namespace

std::optional<bool> Defaults::boolValue(std::string_view key) const { return exactly<bool>(value(key)); }
std::optional<std::int64_t> Defaults::integerValue(std::string_view key) const {
  return exactly<std::int64_t>(value(key));
}
std::optional<double> Defaults::doubleValue(std::string_view key) const {
  auto v = value(key);
  if (!v) return std::nullopt;
  if (auto* d = std::get_if<double>(&*v)) return *d;
  if (auto* i = std::get_if<std::int64_t>(&*v)) return static_cast<double>(*i);
  return std::nullopt;
}
std::optional<std::string> Defaults::stringValue(std::string_view key) const {
  return exactly<std::string>(value(key));
}
std::optional<std::vector<std::string>> Defaults::stringArrayValue(std::string_view key) const {
  return exactly<std::vector<std::string>>(value(key));
}

bool Defaults::boolForKey(std::string_view key) const {
  auto v = value(key);
  if (!v) return false;
  if (auto* b = std::get_if<bool>(&*v)) return *b;
  if (auto* i = std::get_if<std::int64_t>(&*v)) return *i != 0;
  if (auto* d = std::get_if<double>(&*v)) return *d != 0;
  if (auto* s = std::get_if<std::string>(&*v)) {
    std::string_view t = *s;
    while (!t.empty() && (t.front() == ' ' || t.front() == '\t')) t.remove_prefix(1);
    if (t.empty()) return false;
    char c = t.front();
    if (c == 'Y' || c == 'y' || c == 'T' || c == 't') return true;
    return leadingNumber(t) != 0;
  }
  return false;
}

std::int64_t Defaults::integerForKey(std::string_view key) const {
  auto v = value(key);
  if (!v) return 0;
  if (auto* b = std::get_if<bool>(&*v)) return *b ? 1 : 0;
  if (auto* i = std::get_if<std::int64_t>(&*v)) return *i;
  if (auto* d = std::get_if<double>(&*v)) return clampToInt64(*d);
  if (auto* s = std::get_if<std::string>(&*v)) return clampToInt64(leadingNumber(*s));
  return 0;
}

double Defaults::doubleForKey(std::string_view key) const {
  auto v = value(key);
  if (!v) return 0;
  if (auto* b = std::get_if<bool>(&*v)) return *b ? 1 : 0;
  if (auto* i = std::get_if<std::int64_t>(&*v)) return static_cast<double>(*i);
  if (auto* d = std::get_if<double>(&*v)) return *d;
  if (auto* s = std::get_if<std::string>(&*v)) return leadingNumber(*s);
  return 0;
}

}  // namespace norvik
