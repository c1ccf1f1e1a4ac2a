#include "app/wake_detector.h"

#include <gtest/gtest.h>

#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

TEST(WakeDetector, ASleepIsTheGrowthOfTheGapBetweenBootTimeAndMonotonicTime) {
  testing::VirtualEventLoop loop;
  std::chrono::nanoseconds offset = 100s;
  std::vector<std::chrono::seconds> wakes;
  WakeDetector detector(
      loop, [&] { return offset; }, [&](std::chrono::seconds slept) { wakes.push_back(slept); });
  detector.start();

  loop.advance(1min);
  EXPECT_TRUE(wakes.empty()) << "awake: the gap stays";
  offset += 2s;  // jitter below the threshold
  loop.advance(5s);
  EXPECT_TRUE(wakes.empty());
  offset += 40min;
  loop.advance(5s);
  EXPECT_EQ(wakes, (std::vector<std::chrono::seconds>{40min}));
  loop.advance(1min);
  EXPECT_EQ(wakes.size(), 1u) << "one sleep, one wake";
  detector.stop();
  EXPECT_EQ(loop.pendingTimerCount(), 0u);
}

}  // namespace
}  // namespace norvik
