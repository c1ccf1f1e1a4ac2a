#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"
#include "platform/clock_change_source.h"
#include "platform/event_loop.h"
#include "platform/http_transport.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"

namespace norvik {

class NetworkService;

// The difference between a server's clock and the device's, from one exchange: the server moment
// of `dateHeader` minus the midpoint of the moments the request left and the answer came, on the
// device clock, truncated toward zero to whole seconds. Nothing when the header is missing or
// unreadable. Positive: the device clock is behind.
[[nodiscard]] std::optional<std::int64_t> measureClockSkew(std::optional<std::string_view> dateHeader,
                                                           Clock::TimePoint sentAt, Clock::TimePoint receivedAt);

// Decides whether the device clock is wrong, since a wrong clock breaks the tunnel's handshake and
// TLS and the user should be told so rather than blame the service. Fed by skews measured from
// servers' "Date" headers (60 s or more either way is wrong) and by TLS failures on a certificate
// that is not valid at the device's time. `wrong` changes, and "[Clock] часы устройства …" is
// logged, only when the verdict changes.
//
// It also notices the system clock being set, logs "[Clock] время изменено в системе" and counts it
// in systemClockChanges() for the health engine to react to.
//
// Threading: state lives on the main loop. The report operations may be called from any thread;
// off the loop they hand over to it. Ownership: borrows the loop, the log and the clock source.
class DeviceClockCheck {
 public:
  static constexpr double kWrongAtSeconds = 60;

  DeviceClockCheck(EventLoop& loop, Log& log);
  DeviceClockCheck(const DeviceClockCheck&) = delete;
  DeviceClockCheck& operator=(const DeviceClockCheck&) = delete;
  ~DeviceClockCheck();

  void reportSkew(double seconds);
  void reportCertificateOutOfDate();
  // One exchange with a server: a response with a "Date" header gives a skew; a TLS failure on an
  // out-of-date certificate says the clock is wrong; anything else says nothing.
  void reportExchange(const HttpResult& result, Clock::TimePoint sentAt, Clock::TimePoint receivedAt);

  [[nodiscard]] Published<bool>& wrong() { return wrong_; }

  // Feeds the check from every exchange of the backend client: each answer's "Date" header, and
  // TLS failures on an out-of-date certificate. Replaces the client's response observer.
  void feedFrom(NetworkService& service);

  // Watches the system clock being set until stopWatchingSystemClock() or destruction. False, with
  // a log line, when the system refused.
  bool watchSystemClock(ClockChangeSource& source);
  void stopWatchingSystemClock();
  // How many times the system clock was set while watched.
  [[nodiscard]] Published<std::uint64_t>& systemClockChanges() { return systemClockChanges_; }

 private:
  void onLoop(Task task);
  void setWrong(bool wrong, const std::string& detail);

  EventLoop& loop_;
  Log& log_;
  Published<bool> wrong_{false};
  Published<std::uint64_t> systemClockChanges_{0};
  ClockChangeSource* clockChanges_ = nullptr;
  WeakPtrFactory<DeviceClockCheck> weakFactory_{this};
};

}  // namespace norvik
