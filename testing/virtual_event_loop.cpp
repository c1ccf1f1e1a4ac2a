#include "testing/virtual_event_loop.h"

#include <cstdio>
#include <cstdlib>

namespace norvik::testing {
namespace {

// Real time allowed for blocking work (a loopback request, a file write) before the test is
// declared stuck.
constexpr auto kBlockingWorkLimit = std::chrono::seconds(60);

}  // namespace

VirtualEventLoop::VirtualEventLoop()
    : start_(TimePoint{} + std::chrono::hours(1000)), now_(start_), loopThread_(std::this_thread::get_id()) {}

VirtualEventLoop::~VirtualEventLoop() {
  for (auto& worker : workers_) worker.join();
}

void VirtualEventLoop::post(Task task) {
  std::lock_guard lock(mutex_);
  ready_.push_back(std::move(task));
  changed_.notify_all();
}

TaskHandle VirtualEventLoop::postAfter(Duration delay, Task task) {
  auto state = std::make_shared<TaskHandle::State>();
  timers_.emplace(now_ + std::max(delay, Duration::zero()), Timer{state, std::move(task)});
  return TaskHandle(std::move(state));
}

void VirtualEventLoop::runBlocking(Task work) {
  std::lock_guard lock(mutex_);
  ++blockingInFlight_;
  workers_.emplace_back([this, work = std::move(work)]() mutable {
    work();
    std::lock_guard done(mutex_);
    --blockingInFlight_;
    changed_.notify_all();
  });
}

bool VirtualEventLoop::isLoopThread() const { return std::this_thread::get_id() == loopThread_; }

bool VirtualEventLoop::runOneReadyTask() {
  Task task;
  {
    std::lock_guard lock(mutex_);
    if (ready_.empty()) return false;
    task = std::move(ready_.front());
    ready_.pop_front();
  }
  task();
  return true;
}

bool VirtualEventLoop::runDueTimer(TimePoint limit) {
  while (!timers_.empty() && timers_.begin()->first <= limit) {
    auto node = timers_.extract(timers_.begin());
    Timer& timer = node.mapped();
    if (timer.state->cancelled) continue;
    now_ = std::max(now_, node.key());
    timer.state->done = true;
    timer.task();
    return true;
  }
  return false;
}

std::optional<EventLoop::TimePoint> VirtualEventLoop::nextTimerDue() const {
  for (const auto& [due, timer] : timers_) {
    if (!timer.state->cancelled) return due;
  }
  return std::nullopt;
}

void VirtualEventLoop::runUntilIdle() {
  for (;;) {
    if (runOneReadyTask()) continue;
    if (runDueTimer(now_)) continue;
    std::unique_lock lock(mutex_);
    if (ready_.empty() && blockingInFlight_ == 0) return;
    if (!changed_.wait_for(lock, kBlockingWorkLimit, [&] { return !ready_.empty() || blockingInFlight_ == 0; })) {
      (void)std::fprintf(stderr, "VirtualEventLoop: blocking work did not finish within %lld s\n",
                         static_cast<long long>(kBlockingWorkLimit.count()));
      std::abort();
    }
  }
}

void VirtualEventLoop::advance(Duration delta) {
  const TimePoint target = now_ + delta;
  do {
    runUntilIdle();
  } while (runDueTimer(target));
  now_ = std::max(now_, target);
  runUntilIdle();
}

bool VirtualEventLoop::runUntil(const std::function<bool()>& done, Duration limit) {
  const TimePoint deadline = now_ + limit;
  for (;;) {
    runUntilIdle();
    if (done()) return true;
    auto next = nextTimerDue();
    if (!next || *next > deadline) return false;
    runDueTimer(*next);
  }
}

void VirtualEventLoop::runUntilNoTasksRemain(Duration limit) {
  runUntil([] { return false; }, limit);
}

std::size_t VirtualEventLoop::pendingTimerCount() const {
  std::size_t count = 0;
  for (const auto& [due, timer] : timers_) count += timer.state->cancelled ? 0 : 1;
  return count;
}

}  // namespace norvik::testing
