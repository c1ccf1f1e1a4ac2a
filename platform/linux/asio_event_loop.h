#pragma once

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/thread_pool.hpp>
#include <thread>

#include "platform/event_loop.h"

namespace norvik {

// The production main loop: an Asio io_context run on the thread that created it, plus a small
// worker pool for blocking work. run() returns after stop(); the destructor waits for workers.
class AsioEventLoop final : public EventLoop {
 public:
  explicit AsioEventLoop(std::size_t workerThreads = 4);
  ~AsioEventLoop() override;

  void post(Task task) override;
  TaskHandle postAfter(Duration delay, Task task) override;
  [[nodiscard]] TimePoint now() const override;
  void runBlocking(Task work) override;
  [[nodiscard]] bool isLoopThread() const override;

  // Runs tasks until stop(). Call from the thread that created the loop.
  void run();
  // Any thread.
  void stop();
  // Waits for blocking work in flight. Call after run() returns and before destroying the objects
  // that such work may still use.
  void joinWorkers();

  asio::io_context& context() { return io_; }

 private:
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning_;
  asio::thread_pool workers_;
  std::thread::id loopThread_;
};

}  // namespace norvik
