#pragma once

#include <expected>

#include "platform/files.h"
#include "platform/login_item.h"

namespace norvik::testing {

// The login item as the system keeps it: on or off, and a write that can be made to fail (a home
// directory that is not writable) without changing the state.
class FakeLoginItem final : public LoginItem {
 public:
  explicit FakeLoginItem(bool enabled = true) : enabled_(enabled) {}

  [[nodiscard]] bool isEnabled() const override { return enabled_; }
  [[nodiscard]] std::expected<void, Error> setEnabled(bool enabled) override {
    ++writes;
    if (failWrites) return std::unexpected(posixError(EACCES, "write", "autostart/com.norvik.Norvik.desktop"));
    enabled_ = enabled;
    return {};
  }

  bool failWrites = false;
  int writes = 0;

 private:
  bool enabled_;
};

}  // namespace norvik::testing
