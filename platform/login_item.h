#pragma once

#include <expected>

#include "platform/error.h"

namespace norvik {

// Whether the application starts when the user logs in: the login item that the menu bar's
// "Запускать при входе в систему" switches. The user's last word is kept by the system, not by the
// application, so it holds even when the application is not running.
//
// Threading: any thread; each call reads or writes the system's state afresh.
class LoginItem {
 public:
  virtual ~LoginItem() = default;
  [[nodiscard]] virtual bool isEnabled() const = 0;
  // Idempotent: switching on what is on (or off what is off) changes nothing.
  [[nodiscard]] virtual std::expected<void, Error> setEnabled(bool enabled) = 0;
};

}  // namespace norvik
