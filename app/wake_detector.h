#pragma once

#include <chrono>
#include <functional>

#include "platform/event_loop.h"

namespace norvik {

// Notices the system waking from sleep. The boot-time clock keeps counting through a suspend
// while the monotonic clock stands still, so the gap between the two grows by the time slept;
// a look every few seconds sees it grow. (The session manager's sleep signal would come over a
// message bus the client does not otherwise need.)
//
// Threading: a main-loop object.
class WakeDetector {
 public:
  // The boot-time clock minus the monotonic clock.
  using SleepOffset = std::function<std::chrono::nanoseconds()>;
  using WakeHandler = std::function<void(std::chrono::seconds slept)>;

  static constexpr std::chrono::seconds kPeriod{5};
  static constexpr std::chrono::seconds kThreshold{3};

  WakeDetector(EventLoop& loop, SleepOffset offset, WakeHandler onWake);

  void start();
  void stop() { timer_.stop(); }

  // The system's own offset, from clock_gettime.
  [[nodiscard]] static std::chrono::nanoseconds systemSleepOffset();

 private:
  void check();

  EventLoop& loop_;
  SleepOffset offset_;
  WakeHandler onWake_;
  std::chrono::nanoseconds last_{};
  RepeatingTimer timer_;
};

}  // namespace norvik
