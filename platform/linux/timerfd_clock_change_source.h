#pragma once

#include <thread>

#include "platform/clock_change_source.h"

namespace norvik {

// Notices the wall clock being set on Linux: a CLOCK_REALTIME timerfd armed far in the future
// with TFD_TIMER_CANCEL_ON_SET is cancelled by the kernel (its read fails with ECANCELED) whenever
// the clock is set discontinuously, and is then armed again. Nothing is polled.
//
// Threading: a worker thread of the source's own waits on the timerfd and calls the handler.
class TimerfdClockChangeSource final : public ClockChangeSource {
 public:
  TimerfdClockChangeSource() = default;
  TimerfdClockChangeSource(const TimerfdClockChangeSource&) = delete;
  TimerfdClockChangeSource& operator=(const TimerfdClockChangeSource&) = delete;
  ~TimerfdClockChangeSource() override;

  [[nodiscard]] std::expected<void, Error> start(Handler handler) override;
  void stop() override;

 private:
  void run(const Handler& handler);
  void closeDescriptors();

  int timer_ = -1;
  int stopEvent_ = -1;
  std::thread worker_;
};

}  // namespace norvik
