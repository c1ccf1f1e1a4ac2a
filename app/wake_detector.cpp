#include "app/wake_detector.h"

#include <ctime>

namespace norvik {
namespace {

std::chrono::nanoseconds read(clockid_t clock) {
  timespec ts{};
  clock_gettime(clock, &ts);
  return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
}

}  // namespace

WakeDetector::WakeDetector(EventLoop& loop, SleepOffset offset, WakeHandler onWake)
    : loop_(loop), offset_(std::move(offset)), onWake_(std::move(onWake)) {}

std::chrono::nanoseconds WakeDetector::systemSleepOffset() { return read(CLOCK_BOOTTIME) - read(CLOCK_MONOTONIC); }

void WakeDetector::start() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  last_ = offset_();
  timer_.startAligned(loop_, kPeriod, [this] { check(); });
}

void WakeDetector::check() {
  const auto now = offset_();
  const auto slept = now - last_;
  last_ = now;
  if (slept >= kThreshold) onWake_(std::chrono::duration_cast<std::chrono::seconds>(slept));
}

}  // namespace norvik
