#include "platform/linux/timerfd_clock_change_source.h"

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>
#include <sys/timex.h>
#include <unistd.h>

namespace norvik {
namespace {

using namespace std::chrono_literals;

// Counts handler calls, for waiting on from the test thread.
class Calls {
 public:
  void add() {
    std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  bool waitFor(int count, std::chrono::milliseconds limit = 3s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return count_ >= count; });
  }
  int count() {
    std::lock_guard lock(mutex_);
    return count_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

// Steps the wall clock by `nanoseconds`: as far as the kernel is concerned the clock was set, while
// the time itself moves by nothing anyone could see. Needs CAP_SYS_TIME.
int stepClock(long nanoseconds) {
  timex change{};
  change.modes = ADJ_SETOFFSET | ADJ_NANO;
  change.time.tv_sec = nanoseconds < 0 ? -1 : 0;
  change.time.tv_usec = nanoseconds < 0 ? 1'000'000'000 + nanoseconds : nanoseconds;  // ADJ_NANO: nanoseconds
  return ::clock_adjtime(CLOCK_REALTIME, &change) < 0 ? errno : 0;
}

TEST(TimerfdClockChangeSource, EachSettingOfTheClockIsToldOnceAndNothingAfterStop) {
  if (::geteuid() != 0) GTEST_SKIP() << "setting the clock needs root";
  TimerfdClockChangeSource source;
  Calls calls;
  ASSERT_TRUE(source.start([&] { calls.add(); }).has_value());

  if (const int error = stepClock(1); error != 0) {
    source.stop();
    GTEST_SKIP() << "the clock cannot be set here: " << std::strerror(error);
  }
  ASSERT_TRUE(calls.waitFor(1));
  // The watch is armed again: a second setting is told too (and puts the clock back).
  ASSERT_EQ(stepClock(-1), 0);
  ASSERT_TRUE(calls.waitFor(2));

  source.stop();
  ASSERT_EQ(stepClock(1), 0);
  ASSERT_EQ(stepClock(-1), 0);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(calls.count(), 2);
}

TEST(TimerfdClockChangeSource, StartingTwiceFailsAndStopWithoutStartDoesNothing) {
  TimerfdClockChangeSource source;
  source.stop();
  ASSERT_TRUE(source.start([] {}).has_value());
  auto again = source.start([] {});
  ASSERT_FALSE(again.has_value());
  EXPECT_EQ(again.error().code, EALREADY);
  source.stop();
  source.stop();
}

}  // namespace
}  // namespace norvik
