#include "platform/linux/timerfd_clock_change_source.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace norvik {
namespace {

Error posixFailure(const char* what, int code) {
  return Error{"POSIX", code, std::string(what) + ": " + std::strerror(code)};
}

// Arms `timer` at an absolute moment that never comes, so that only a clock change ends the wait.
// (The timer setting's type is taken from timerfd_settime itself.)
template <class Setting>
bool armWith(int timer, int (*settime)(int, int, const Setting*, Setting*)) {
  Setting farAway{};
  farAway.it_value.tv_sec = static_cast<time_t>(INT32_MAX) * 4;  // year 2242: far, and within 64-bit time_t
  return settime(timer, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &farAway, nullptr) == 0;
}

bool arm(int timer) { return armWith(timer, &::timerfd_settime); }

}  // namespace

TimerfdClockChangeSource::~TimerfdClockChangeSource() { stop(); }

std::expected<void, Error> TimerfdClockChangeSource::start(Handler handler) {
  if (worker_.joinable())
    return std::unexpected(Error{"POSIX", EALREADY, "the clock change source is already started"});
  timer_ = ::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK);
  stopEvent_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (timer_ < 0 || stopEvent_ < 0) {
    const int code = errno;
    closeDescriptors();
    return std::unexpected(posixFailure("timerfd", code));
  }
  if (!arm(timer_)) {
    const int code = errno;
    closeDescriptors();
    return std::unexpected(posixFailure("timerfd_settime", code));
  }
  worker_ = std::thread([this, handler = std::move(handler)]() mutable { run(handler); });
  return {};
}

void TimerfdClockChangeSource::stop() {
  if (!worker_.joinable()) return;
  const std::uint64_t one = 1;
  (void)!::write(stopEvent_, &one, sizeof one);
  worker_.join();
  closeDescriptors();
}

void TimerfdClockChangeSource::closeDescriptors() {
  for (int* fd : {&timer_, &stopEvent_}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
}

void TimerfdClockChangeSource::run(const Handler& handler) {
  for (;;) {
    pollfd fds[2] = {{stopEvent_, POLLIN, 0}, {timer_, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[0].revents & POLLIN) return;
    if (!(fds[1].revents & POLLIN)) continue;
    std::uint64_t expirations = 0;
    const ssize_t n = ::read(timer_, &expirations, sizeof expirations);
    if (n < 0 && errno == ECANCELED) {
      // The cancellation disarms nothing for good: arm again before telling, so that a second
      // change right after the first is not lost.
      if (!arm(timer_)) return;
      handler();
    }
  }
}

}  // namespace norvik
