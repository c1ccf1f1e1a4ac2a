#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/published.h"

namespace norvik {

// Named notifications between the processes of one user — the application, the tunnel program,
// the widget and the command line — shaped after the system's cross-process notify centre: a name
// and nothing else. Posting reaches every observer of the name in every process, the poster's
// own included; several posts in quick succession may arrive as one.
class NamedNotificationCenter {
 public:
  virtual ~NamedNotificationCenter() = default;

  virtual void post(std::string_view name) = 0;
  // The observer runs on the main loop of the observing process.
  [[nodiscard]] virtual Subscription observe(std::string name, std::function<void()> observer) = 0;
};

}  // namespace norvik
