#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/event_loop.h"

namespace norvik::testing {

// The test loop. Time stands still until the test moves it: advance(2s) runs every task that
// falls due on the way, in time order, in microseconds. Blocking work runs on real threads, and
// runUntilIdle() waits for it, so real HTTPS and real files mix with virtual time.
class VirtualEventLoop final : public EventLoop {
 public:
  VirtualEventLoop();
  ~VirtualEventLoop() override;

  void post(Task task) override;
  TaskHandle postAfter(Duration delay, Task task) override;
  [[nodiscard]] TimePoint now() const override { return now_; }
  void runBlocking(Task work) override;
  [[nodiscard]] bool isLoopThread() const override;

  // Runs ready tasks and timers due now, and waits for blocking work and what it posts, until
  // nothing is left to do at this moment. Time does not move.
  void runUntilIdle();
  // Moves time forward by `delta`, running everything that falls due on the way.
  void advance(Duration delta);
  // Runs and jumps from timer to timer until `done` holds; false when no timer is left within
  // `limit` of virtual time and `done` still does not hold.
  bool runUntil(const std::function<bool()>& done, Duration limit = std::chrono::hours(24));
  // Runs every task and timer there is, however far in the future (for teardown).
  void runUntilNoTasksRemain(Duration limit = std::chrono::hours(24 * 400));

  // Delayed tasks that are neither run nor cancelled.
  [[nodiscard]] std::size_t pendingTimerCount() const;
  [[nodiscard]] TimePoint start() const { return start_; }
  [[nodiscard]] Duration elapsed() const { return now_ - start_; }

 private:
  struct Timer {
    std::shared_ptr<TaskHandle::State> state;
    Task task;
  };

  bool runOneReadyTask();
  // Runs the earliest live timer due at or before `limit`; false when there is none.
  bool runDueTimer(TimePoint limit);
  [[nodiscard]] std::optional<TimePoint> nextTimerDue() const;

  const TimePoint start_;
  TimePoint now_;
  const std::thread::id loopThread_;
  std::multimap<TimePoint, Timer> timers_;  // equal due times keep their posting order

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Task> ready_;
  int blockingInFlight_ = 0;
  std::vector<std::thread> workers_;
};

}  // namespace norvik::testing
