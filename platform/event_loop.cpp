#include "platform/event_loop.h"

namespace norvik {

void TaskHandle::cancel() {
  if (!state_ || state_->cancelled || state_->done) return;
  state_->cancelled = true;
  if (auto hook = std::move(state_->onCancel)) hook();
}

void OneShotTimer::start(EventLoop& loop, EventLoop::Duration delay, Task task) {
  stop();
  handle_ = loop.postAfter(delay, std::move(task));
}

void RepeatingTimer::start(EventLoop& loop, EventLoop::Duration period, std::function<void()> task) {
  stop();
  loop_ = &loop;
  period_ = period;
  task_ = std::move(task);
  schedule();
}

void RepeatingTimer::stop() { handle_.cancel(); }

void RepeatingTimer::schedule() {
  // The timer cancels its pending run when destroyed, so `this` is alive whenever the task runs.
  handle_ = loop_->postAfter(period_, [this] {
    schedule();
    // A copy, so that the task may stop or even destroy this timer while it runs.
    auto task = task_;
    task();
  });
}

}  // namespace norvik
