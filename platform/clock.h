#pragma once

#include <chrono>
#include <string>

namespace norvik {

// Wall-clock time: seconds since 1970 and the user's calendar day. Monotonic time for timers
// comes from the EventLoop instead; nothing in the product reads the system clock directly.
class Clock {
 public:
  using TimePoint = std::chrono::system_clock::time_point;

  virtual ~Clock() = default;
  [[nodiscard]] virtual TimePoint now() const = 0;
  // The user's local calendar day of `moment`, as "YYYY-MM-DD".
  [[nodiscard]] virtual std::string localDay(TimePoint moment) const = 0;

  [[nodiscard]] double secondsSince1970() const {
    return std::chrono::duration<double>(now().time_since_epoch()).count();
  }
};

}  // namespace norvik
