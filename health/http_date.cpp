#include "health/http_date.h"

#include <array>
#include <chrono>

namespace norvik {
namespace {

constexpr std::array<std::string_view, 7> kDays = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The decimal number in text[at, at + width), all digits; -1 otherwise.
int digits(std::string_view text, std::size_t at, std::size_t width) {
  int value = 0;
  for (std::size_t i = at; i < at + width; ++i) {
    const char c = text[i];
    if (c < '0' || c > '9') return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

template <std::size_t N>
int indexOf(const std::array<std::string_view, N>& names, std::string_view name) {
  for (std::size_t i = 0; i < N; ++i) {
    if (names[i] == name) return static_cast<int>(i);
  }
  return -1;
}

}  // namespace

std::optional<Clock::TimePoint> parseHttpDate(std::string_view text) {
  // "Sun, 06 Nov 1994 08:49:37 GMT"
  //  0    5  8   12   17 20 23 26
  if (text.size() != 29) return std::nullopt;
  if (indexOf(kDays, text.substr(0, 3)) < 0 || text.substr(3, 2) != ", " || text[7] != ' ' || text[11] != ' ' ||
      text[16] != ' ' || text[19] != ':' || text[22] != ':' || text.substr(25) != " GMT") {
    return std::nullopt;
  }
  const int day = digits(text, 5, 2);
  const int month = indexOf(kMonths, text.substr(8, 3)) + 1;
  const int year = digits(text, 12, 4);
  const int hour = digits(text, 17, 2);
  const int minute = digits(text, 20, 2);
  const int second = digits(text, 23, 2);
  if (day < 0 || month < 1 || year < 0 || hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 ||
      second > 59) {
    return std::nullopt;
  }
  const std::chrono::year_month_day date{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                                         std::chrono::day{static_cast<unsigned>(day)}};
  if (!date.ok()) return std::nullopt;
  return std::chrono::time_point_cast<Clock::TimePoint::duration>(
      std::chrono::sys_days{date} + std::chrono::hours{hour} + std::chrono::minutes{minute} +
      std::chrono::seconds{second});
}

}  // namespace norvik
