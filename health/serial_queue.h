#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "platform/event_loop.h"

namespace norvik {

// A labelled serial queue: tasks run one after another, in the order dispatched, on a thread of
// the queue's own. For the few pieces of work that must stay off the main loop and in order.
//
// Threading: dispatch() and flush() may be called from any thread. Destroying the queue lets the
// running task finish, drops those still waiting and joins the thread.
class SerialQueue {
 public:
  explicit SerialQueue(std::string label);
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  ~SerialQueue();

  void dispatch(Task task);
  // Returns once every task dispatched before the call has run. On the queue itself it returns at
  // once (waiting there could never end).
  void flush();
  [[nodiscard]] bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }
  [[nodiscard]] const std::string& label() const { return label_; }

 private:
  void run();
  [[nodiscard]] bool enqueue(Task task);

  const std::string label_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Task> tasks_;
  bool stopping_ = false;
  std::thread thread_;  // last: starts once everything above exists
};

}  // namespace norvik
