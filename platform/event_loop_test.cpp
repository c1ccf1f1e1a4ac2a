#include "platform/event_loop.h"

#include <gtest/gtest.h>

#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;

TEST(OneShotTimer, RestartReplacesThePendingRunAndDestructionCancels) {
  testing::VirtualEventLoop loop;
  int runs = 0;
  {
    OneShotTimer timer;
    timer.start(loop, 5s, [&] { ++runs; });
    loop.advance(3s);
    timer.start(loop, 5s, [&] { runs += 10; });
    loop.advance(3s);
    EXPECT_EQ(runs, 0) << "the first run was replaced";
    loop.advance(2s);
    EXPECT_EQ(runs, 10);
    timer.start(loop, 1s, [&] { ++runs; });
  }
  loop.advance(10s);
  EXPECT_EQ(runs, 10) << "a destroyed timer does not fire";
  EXPECT_EQ(loop.pendingTimerCount(), 0u);
}

TEST(RepeatingTimer, FiresEveryPeriodUntilStoppedEvenFromItsOwnTask) {
  testing::VirtualEventLoop loop;
  RepeatingTimer timer;
  std::vector<EventLoop::Duration> at;
  timer.start(loop, 1s, [&] {
    at.push_back(loop.elapsed());
    if (at.size() == 3) timer.stop();
  });
  loop.advance(10s);
  EXPECT_EQ(at, (std::vector<EventLoop::Duration>{1s, 2s, 3s}));
  EXPECT_FALSE(timer.isRunning());
}

TEST(RepeatingTimer, AlignedTimersComeDueTogetherWheneverTheyStart) {
  testing::VirtualEventLoop loop;
  loop.advance(300ms);
  RepeatingTimer everySecond;
  RepeatingTimer everyFiveSeconds;
  std::vector<EventLoop::Duration> seconds;
  std::vector<EventLoop::Duration> fives;
  everySecond.startAligned(loop, 1s, [&] { seconds.push_back(loop.elapsed()); });
  loop.advance(2200ms);
  everyFiveSeconds.startAligned(loop, 5s, [&] { fives.push_back(loop.elapsed()); });
  loop.advance(2500ms);
  // At whole seconds of the loop's clock, whenever started: the five-second run comes due with a
  // one-second run, not 5 s after its own start.
  EXPECT_EQ(seconds, (std::vector<EventLoop::Duration>{1s, 2s, 3s, 4s, 5s}));
  EXPECT_EQ(fives, (std::vector<EventLoop::Duration>{5s}));
  everySecond.stop();
  everyFiveSeconds.stop();
  EXPECT_EQ(loop.pendingTimerCount(), 0u);
}

TEST(TaskHandle, CancelAfterRunIsHarmless) {
  testing::VirtualEventLoop loop;
  int runs = 0;
  TaskHandle handle = loop.postAfter(1s, [&] { ++runs; });
  EXPECT_TRUE(handle.isPending());
  loop.advance(1s);
  EXPECT_FALSE(handle.isPending());
  handle.cancel();
  EXPECT_EQ(runs, 1);
}

}  // namespace
}  // namespace norvik
