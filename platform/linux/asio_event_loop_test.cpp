#include "platform/linux/asio_event_loop.h"

#include <gtest/gtest.h>

#include <thread>

namespace norvik {
namespace {

using namespace std::chrono_literals;

TEST(AsioEventLoop, RunsPostsFromOtherThreadsOnTheLoopThread) {
  AsioEventLoop loop;
  bool onLoop = false;
  std::thread other([&] {
    loop.post([&] {
      onLoop = loop.isLoopThread();
      loop.stop();
    });
  });
  loop.run();
  other.join();
  EXPECT_TRUE(onLoop);
}

TEST(AsioEventLoop, DelayedTasksRunInOrderAndCancelledOnesDoNot) {
  AsioEventLoop loop;
  std::vector<int> order;
  loop.postAfter(20ms, [&] {
    order.push_back(2);
    loop.stop();
  });
  TaskHandle cancelled = loop.postAfter(5ms, [&] { order.push_back(99); });
  loop.postAfter(1ms, [&] { order.push_back(1); });
  cancelled.cancel();
  loop.run();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(AsioEventLoop, BlockingWorkRunsOffTheLoopAndRepliesOnIt) {
  AsioEventLoop loop;
  bool workOffLoop = false;
  bool replyOnLoop = false;
  runBlockingThenReply(
      loop,
      [&] {
        workOffLoop = !loop.isLoopThread();
        return 7;
      },
      [&](int value) {
        replyOnLoop = loop.isLoopThread() && value == 7;
        loop.stop();
      });
  loop.run();
  EXPECT_TRUE(workOffLoop);
  EXPECT_TRUE(replyOnLoop);
}

}  // namespace
}  // namespace norvik
