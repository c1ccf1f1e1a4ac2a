#pragma once

#include <cerrno>
#include <mutex>
#include <optional>

#include "platform/clock_change_source.h"

namespace norvik::testing {

// The system clock being set, when the test says so. Behaves as the timerfd source does: one
// handler call per change while started, none once stopped; start() while started fails. The call
// runs on the thread that calls signalClockChange(), standing in for the source's own thread.
class FakeClockChangeSource final : public ClockChangeSource {
 public:
  [[nodiscard]] std::expected<void, Error> start(Handler handler) override {
    std::lock_guard lock(mutex_);
    if (handler_) return std::unexpected(Error{"POSIX", EALREADY, "the clock change source is already started"});
    if (failNext_) return std::unexpected(*std::exchange(failNext_, std::nullopt));
    handler_ = std::move(handler);
    return {};
  }

  void stop() override {
    std::lock_guard lock(mutex_);
    handler_ = nullptr;
  }

  // The user sets the system clock.
  void signalClockChange() {
    Handler handler;
    {
      std::lock_guard lock(mutex_);
      handler = handler_;
    }
    if (handler) handler();
  }

  void failNextStart(Error error) {
    std::lock_guard lock(mutex_);
    failNext_ = std::move(error);
  }

  [[nodiscard]] bool isStarted() const {
    std::lock_guard lock(mutex_);
    return static_cast<bool>(handler_);
  }

 private:
  mutable std::mutex mutex_;
  Handler handler_;
  std::optional<Error> failNext_;
};

}  // namespace norvik::testing
