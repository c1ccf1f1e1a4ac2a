#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/bytes.h"

namespace norvik {

// One stored value. Absent is told apart from false, 0 and "" by the optional around it.
using DefaultsValue = std::variant<bool, std::int64_t, double, std::string, std::vector<std::string>, Bytes>;

// Typed key-value settings shaped after the system's user defaults: the application's standard
// suite, and the application-group suite "QX7RT2LM9A.com.norvik.macos" that the tunnel and the
// widget read too. Writes are visible to other processes at once. Thread-safe.
//
// A store that cannot be written keeps working for reads; failed writes are logged by the adapter
// and otherwise skipped, as a user-defaults write is on the original system.
class Defaults {
 public:
  virtual ~Defaults() = default;

  [[nodiscard]] virtual std::optional<DefaultsValue> value(std::string_view key) const = 0;
  virtual void set(std::string_view key, DefaultsValue value) = 0;
  virtual void remove(std::string_view key) = 0;

  // Typed setters: a plain set(key, "text") would pick the bool alternative.
  void setBool(std::string_view key, bool v) { set(key, DefaultsValue{v}); }
  void setInteger(std::string_view key, std::int64_t v) { set(key, DefaultsValue{v}); }
  void setDouble(std::string_view key, double v) { set(key, DefaultsValue{v}); }
  void setString(std::string_view key, std::string v) { set(key, DefaultsValue{std::move(v)}); }
  void setStringArray(std::string_view key, std::vector<std::string> v) { set(key, DefaultsValue{std::move(v)}); }
  void setData(std::string_view key, Bytes v) { set(key, DefaultsValue{std::move(v)}); }
  void set(std::string_view, const char*) = delete;

  // Strict reads: the value when it is stored with exactly this type, otherwise nothing.
  // (doubleValue also takes a stored integer, as a number is a number.)
  [[nodiscard]] std::optional<bool> boolValue(std::string_view key) const;
  [[nodiscard]] std::optional<std::int64_t> integerValue(std::string_view key) const;
  [[nodiscard]] std::optional<double> doubleValue(std::string_view key) const;
  [[nodiscard]] std::optional<std::string> stringValue(std::string_view key) const;
  [[nodiscard]] std::optional<std::vector<std::string>> stringArrayValue(std::string_view key) const;
  [[nodiscard]] bool contains(std::string_view key) const { return value(key).has_value(); }

  // Lenient reads with the user-defaults conversions: absent gives false or 0; numbers and
  // Booleans convert into each other; a string of digits reads as its number ("YES"/"true" as true).
  [[nodiscard]] bool boolForKey(std::string_view key) const;
  [[nodiscard]] std::int64_t integerForKey(std::string_view key) const;
  [[nodiscard]] double doubleForKey(std::string_view key) const;
};

}  // namespace norvik
