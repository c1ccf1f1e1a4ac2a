#include "platform/linux/system_clock.h"

#include <ctime>

#include <fmt/format.h>

namespace norvik {

Clock::TimePoint SystemClock::now() const { return std::chrono::system_clock::now(); }

std::string SystemClock::localDay(TimePoint moment) const {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(moment);
  std::tm local{};
  localtime_r(&seconds, &local);
  return fmt::format("{:04}-{:02}-{:02}", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
}

}  // namespace norvik
