#pragma once

#include "platform/clock.h"

namespace norvik {

// The system's real-time clock and the process's local time zone.
class SystemClock final : public Clock {
 public:
  [[nodiscard]] TimePoint now() const override;
  [[nodiscard]] std::string localDay(TimePoint moment) const override;
};

}  // namespace norvik
