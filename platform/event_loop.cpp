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
  aligned_ = false;
  task_ = std::move(task);
  schedule();
}

void RepeatingTimer::startAligned(EventLoop& loop, EventLoop::Duration period, std::function<void()> task) {
  stop();
  loop_ = &loop;
  period_ = period;
  aligned_ = true;
  task_ = std::move(task);
  schedule();
}

void RepeatingTimer::stop() { handle_.cancel(); }

void RepeatingTimer::schedule() {
  // The timer cancels its pending run when destroyed, so `this` is alive whenever the task runs.
  EventLoop::Duration delay = period_;
  if (aligned_ && period_ > EventLoop::Duration::zero()) {
    // To the next whole multiple of the period; a run that came due exactly on one waits a period.
    delay = period_ - loop_->now().time_since_epoch() % period_;
  }
  handle_ = loop_->postAfter(delay, [this] {
    schedule();
    // A copy, so that the task may stop or even destroy this timer while it runs.
    auto task = task_;
    task();
  });
}

}  // namespace norvik
