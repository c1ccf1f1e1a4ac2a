#include "health/serial_queue.h"

#include <pthread.h>

namespace norvik {

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)), thread_([this] { run(); }) {}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void SerialQueue::dispatch(Task task) { (void)enqueue(std::move(task)); }

bool SerialQueue::enqueue(Task task) {
  {
    std::lock_guard lock(mutex_);
    if (stopping_) return false;
    tasks_.push_back(std::move(task));
  }
  changed_.notify_all();
  return true;
}

void SerialQueue::flush() {
  if (isCurrent()) return;
  std::mutex doneMutex;
  std::condition_variable doneChanged;
  bool done = false;
  const bool queued = enqueue([&] {
    std::lock_guard lock(doneMutex);
    done = true;
    doneChanged.notify_all();
  });
  if (!queued) return;
  std::unique_lock lock(doneMutex);
  doneChanged.wait(lock, [&] { return done; });
}

void SerialQueue::run() {
  // Thread names hold 15 characters; the end of the label is the telling part.
  const std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
  pthread_setname_np(pthread_self(), name.c_str());
  for (;;) {
    Task task;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return stopping_ || !tasks_.empty(); });
      if (stopping_) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
  }
}

}  // namespace norvik
