#include "platform/linux/asio_event_loop.h"

#include <asio/post.hpp>
#include <asio/steady_timer.hpp>
#include <cassert>

namespace norvik {

AsioEventLoop::AsioEventLoop(std::size_t workerThreads)
    : keepRunning_(asio::make_work_guard(io_)), workers_(workerThreads), loopThread_(std::this_thread::get_id()) {}

AsioEventLoop::~AsioEventLoop() {
  // Workers may still post replies; they are dropped with the context once the workers are done.
  joinWorkers();
}

void AsioEventLoop::joinWorkers() { workers_.join(); }

void AsioEventLoop::post(Task task) { asio::post(io_, std::move(task)); }

TaskHandle AsioEventLoop::postAfter(Duration delay, Task task) {
  assert(isLoopThread());
  auto state = std::make_shared<TaskHandle::State>();
  auto timer = std::make_shared<asio::steady_timer>(io_, delay);
  state->onCancel = [weakTimer = std::weak_ptr<asio::steady_timer>(timer)] {
    if (auto t = weakTimer.lock()) t->cancel();
  };
  timer->async_wait([state, timer, task = std::move(task)](const asio::error_code& error) mutable {
    if (error || state->cancelled) return;
    state->done = true;
    state->onCancel = nullptr;
    task();
  });
  return TaskHandle(std::move(state));
}

EventLoop::TimePoint AsioEventLoop::now() const { return std::chrono::steady_clock::now(); }

void AsioEventLoop::runBlocking(Task work) { asio::post(workers_, std::move(work)); }

bool AsioEventLoop::isLoopThread() const { return std::this_thread::get_id() == loopThread_; }

void AsioEventLoop::run() {
  assert(isLoopThread());
  io_.restart();
  io_.run();
}

void AsioEventLoop::stop() {
  asio::post(io_, [this] {
    keepRunning_.reset();
    io_.stop();
  });
}

}  // namespace norvik
