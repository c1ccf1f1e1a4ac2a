#include "testing/virtual_event_loop.h"

#include <gtest/gtest.h>

namespace norvik::testing {
namespace {

using namespace std::chrono_literals;

TEST(VirtualEventLoop, AdvanceRunsTimersInTimeOrderAtTheirOwnTime) {
  VirtualEventLoop loop;
  std::vector<std::pair<int, EventLoop::Duration>> runs;
  loop.postAfter(3s, [&] { runs.emplace_back(3, loop.elapsed()); });
  loop.postAfter(1s, [&] {
    runs.emplace_back(1, loop.elapsed());
    loop.postAfter(1s, [&] { runs.emplace_back(2, loop.elapsed()); });
  });
  loop.postAfter(10s, [&] { runs.emplace_back(10, loop.elapsed()); });
  loop.advance(5s);
  EXPECT_EQ(runs, (std::vector<std::pair<int, EventLoop::Duration>>{{1, 1s}, {2, 2s}, {3, 3s}}));
  EXPECT_EQ(loop.elapsed(), 5s);
  EXPECT_EQ(loop.pendingTimerCount(), 1u);
}

TEST(VirtualEventLoop, RunUntilIdleWaitsForBlockingWorkAndItsReply) {
  VirtualEventLoop loop;
  int reply = 0;
  runBlockingThenReply(
      loop, [] { return 42; }, [&](int v) { reply = v; });
  loop.runUntilIdle();
  EXPECT_EQ(reply, 42);
  EXPECT_EQ(loop.elapsed(), 0s);
}

TEST(VirtualEventLoop, RunUntilJumpsBetweenTimersUntilDone) {
  VirtualEventLoop loop;
  bool done = false;
  loop.postAfter(2h, [&] { done = true; });
  EXPECT_TRUE(loop.runUntil([&] { return done; }));
  EXPECT_EQ(loop.elapsed(), 2h);
  EXPECT_FALSE(loop.runUntil([] { return false; })) << "nothing left to wait for";
}

}  // namespace
}  // namespace norvik::testing
