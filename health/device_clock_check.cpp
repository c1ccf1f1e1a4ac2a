#include "health/device_clock_check.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <fmt/format.h>

#include "backend/network_service.h"
#include "health/http_date.h"

namespace norvik {

std::optional<std::int64_t> measureClockSkew(std::optional<std::string_view> dateHeader, Clock::TimePoint sentAt,
                                             Clock::TimePoint receivedAt) {
  if (!dateHeader) return std::nullopt;
  const auto server = parseHttpDate(*dateHeader);
  if (!server) return std::nullopt;
  // The server stamped its answer somewhere between send and receipt: the middle is the best guess.
  const Clock::TimePoint midpoint = sentAt + (receivedAt - sentAt) / 2;
  return std::chrono::duration_cast<std::chrono::seconds>(*server - midpoint).count();  // truncates toward zero
}

DeviceClockCheck::DeviceClockCheck(EventLoop& loop, Log& log) : loop_(loop), log_(log) {}

DeviceClockCheck::~DeviceClockCheck() { stopWatchingSystemClock(); }

void DeviceClockCheck::onLoop(Task task) {
  if (loop_.isLoopThread()) return task();
  loop_.post([weak = weakFactory_.weak(), task = std::move(task)]() mutable {
    if (weak.lock()) task();
  });
}

void DeviceClockCheck::reportSkew(double seconds) {
  if (!std::isfinite(seconds)) return;
  onLoop([this, seconds] {
    const auto whole = static_cast<std::int64_t>(std::trunc(std::clamp(seconds, -9.0e18, 9.0e18)));
    setWrong(std::fabs(seconds) >= kWrongAtSeconds, fmt::format("расхождение {} с", whole));
  });
}

void DeviceClockCheck::reportCertificateOutOfDate() {
  onLoop([this] { setWrong(true, "сертификат сервера вне срока по часам Mac"); });
}

void DeviceClockCheck::reportExchange(const HttpResult& result, Clock::TimePoint sentAt, Clock::TimePoint receivedAt) {
  if (!result) {
    if (result.error().certificateOutOfDate) reportCertificateOutOfDate();
    return;
  }
  if (auto skew = measureClockSkew(findHeader(result->headers, "Date"), sentAt, receivedAt)) {
    reportSkew(static_cast<double>(*skew));
  }
}

void DeviceClockCheck::setWrong(bool wrong, const std::string& detail) {
  if (wrong == wrong_.get()) return;
  log_.write(fmt::format("[Clock] часы устройства {}: {}", wrong ? "сбиты" : "в порядке", detail));
  wrong_.set(wrong);
}

bool DeviceClockCheck::watchSystemClock(ClockChangeSource& source) {
  stopWatchingSystemClock();
  auto started = source.start([this, weak = weakFactory_.weak()] {
    // On the source's thread: only `loop_` is touched here, and the source stops before we go.
    loop_.post([weak] {
      if (auto self = weak.lock()) {
        self->log_.write("[Clock] время изменено в системе");
        self->systemClockChanges_.set(self->systemClockChanges_.get() + 1);
      }
    });
  });
  if (!started) {
    log_.write("[Clock] system clock changes not watched: " + started.error().description());
    return false;
  }
  clockChanges_ = &source;
  return true;
}

void DeviceClockCheck::stopWatchingSystemClock() {
  if (auto* source = std::exchange(clockChanges_, nullptr)) source->stop();
}

void DeviceClockCheck::feedFrom(NetworkService& service) {
  // The service calls its observer on the loop, where the weak pointer may be tested.
  service.setResponseObserver(
      [weak = weakFactory_.weak()](const HttpResult& result, const NetworkService::ExchangeTiming& timing) {
        if (auto self = weak.lock()) self->reportExchange(result, timing.sentAt, timing.receivedAt);
      });
}

}  // namespace norvik
