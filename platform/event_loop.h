#pragma once

#include <cassert>
#include <chrono>
#include <functional>
#include <memory>
#include <utility>

namespace norvik {

using Task = std::move_only_function<void()>;

// The cancellation side of a delayed task. Copies refer to the same task. Cancelling a task that
// already ran, or was cancelled before, does nothing. Used on the loop thread only.
class TaskHandle {
 public:
  struct State {
    bool cancelled = false;
    bool done = false;
    std::function<void()> onCancel;  // lets a loop release its timer early
  };

  TaskHandle() = default;
  explicit TaskHandle(std::shared_ptr<State> state) : state_(std::move(state)) {}

  void cancel();
  // True while the task has neither run nor been cancelled.
  [[nodiscard]] bool isPending() const { return state_ && !state_->cancelled && !state_->done; }

 private:
  std::shared_ptr<State> state_;
};

// The one loop that owns all product state. Every product object lives on it; system and network
// work runs elsewhere and reports back with post(). Production runs it on Asio; tests run a
// virtual-time loop (testing/virtual_event_loop.h) whose clock only moves when the test says so.
class EventLoop {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using Duration = std::chrono::steady_clock::duration;

  virtual ~EventLoop() = default;

  // Any thread. Runs `task` on the loop thread after the tasks posted before it.
  virtual void post(Task task) = 0;
  // Loop thread. Runs `task` once `delay` has passed on this loop's clock, unless cancelled.
  virtual TaskHandle postAfter(Duration delay, Task task) = 0;
  // Loop thread. Monotonic time of this loop.
  [[nodiscard]] virtual TimePoint now() const = 0;
  // Any thread. Runs `work` on a worker thread; the work reports back by posting to this loop.
  // Blocking calls (HTTP, child processes, large writes) go here, never on the loop itself.
  virtual void runBlocking(Task work) = 0;
  // True on the thread that runs this loop's tasks.
  [[nodiscard]] virtual bool isLoopThread() const = 0;
};

// Main-loop objects are single-sequence: they check at every public entry point that they are
// called on their loop, instead of locking. Checked where assertions are on (debug builds and CI's
// sanitizer build); free elsewhere.
#define NORVIK_ASSERT_ON_LOOP(loop) assert((loop).isLoopThread())

// Runs `work` off the loop and hands its result to `reply` on the loop.
template <class Work, class Reply>
void runBlockingThenReply(EventLoop& loop, Work work, Reply reply) {
  loop.runBlocking([&loop, work = std::move(work), reply = std::move(reply)]() mutable {
    auto result = work();
    loop.post([reply = std::move(reply), result = std::move(result)]() mutable { reply(std::move(result)); });
  });
}

// A delayed task owned by an object: restarting replaces the pending run, and destroying the
// timer cancels it, so a task can never outlive the object that scheduled it.
class OneShotTimer {
 public:
  OneShotTimer() = default;
  OneShotTimer(const OneShotTimer&) = delete;
  OneShotTimer& operator=(const OneShotTimer&) = delete;
  ~OneShotTimer() { stop(); }

  void start(EventLoop& loop, EventLoop::Duration delay, Task task);
  void stop() { handle_.cancel(); }
  [[nodiscard]] bool isRunning() const { return handle_.isPending(); }

 private:
  TaskHandle handle_;
};

// Runs a task every `period` until stopped or destroyed. The first run comes one period after start.
class RepeatingTimer {
 public:
  RepeatingTimer() = default;
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;
  ~RepeatingTimer() { stop(); }

  void start(EventLoop& loop, EventLoop::Duration period, std::function<void()> task);
  // The same, with every run at a whole multiple of `period` on the loop's monotonic clock (the
  // first within one period). Periodic work of an idle process started this way, with periods
  // that divide one another, comes due at the same instants and costs the process one wake-up
  // instead of one per timer.
  void startAligned(EventLoop& loop, EventLoop::Duration period, std::function<void()> task);
  void stop();
  [[nodiscard]] bool isRunning() const { return handle_.isPending(); }

 private:
  void schedule();

  EventLoop* loop_ = nullptr;
  EventLoop::Duration period_{};
  bool aligned_ = false;
  std::function<void()> task_;
  TaskHandle handle_;
};

}  // namespace norvik
