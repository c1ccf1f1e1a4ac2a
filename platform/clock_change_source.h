#pragma once

#include <expected>
#include <functional>

#include "platform/error.h"

namespace norvik {

// Tells when the system's wall clock is set (by the user, or by time synchronisation stepping it),
// as opposed to running on. Event-driven: nothing is polled.
//
// Call order: start() → handler calls … → stop(); start() again afterwards begins a new watch.
// start() while started fails. The handler is called once per clock change (several changes in
// quick succession may give one call), from a thread of the source's own, never after stop() has
// returned. stop() must not be called from inside the handler.
class ClockChangeSource {
 public:
  using Handler = std::function<void()>;

  virtual ~ClockChangeSource() = default;

  [[nodiscard]] virtual std::expected<void, Error> start(Handler handler) = 0;
  // Does nothing when not started.
  virtual void stop() = 0;
};

}  // namespace norvik
