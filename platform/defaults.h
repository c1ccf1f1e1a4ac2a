#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/bytes.h"
#include "platform/error.h"

namespace norvik {

// One stored value. Absent is told apart from false, 0 and "" by the optional around it.
using DefaultsValue = std::variant<bool, std::int64_t, double, std::string, std::vector<std::string>, Bytes>;

// Typed key-value settings shaped after the system's user defaults: the application's standard
// suite, and the application-group suite "QX7RT2LM9A.com.norvik.macos" that the tunnel and the
// widget read too. Writes are visible to other processes at once. Thread-safe.
//
// A store that cannot be written keeps working for reads. A write that fails leaves the stored
// value as it was and answers the reason with the system's own error number (ENOSPC for a full
// disk, EACCES, EROFS, …), so that a caller whose change must persist can say why it did not.
// Callers for which a lost write is harmless (caches) may ignore the answer: the adapter has
// logged it.
class Defaults {
 public:
  using WriteResult = std::expected<void, Error>;

  virtual ~Defaults() = default;

  [[nodiscard]] virtual std::optional<DefaultsValue> value(std::string_view key) const = 0;
  virtual WriteResult set(std::string_view key, DefaultsValue value) = 0;
  virtual WriteResult remove(std::string_view key) = 0;

  // Typed setters: a plain set(key, "text") would pick the bool alternative.
  WriteResult setBool(std::string_view key, bool v) { return set(key, DefaultsValue{v}); }
  WriteResult setInteger(std::string_view key, std::int64_t v) { return set(key, DefaultsValue{v}); }
  WriteResult setDouble(std::string_view key, double v) { return set(key, DefaultsValue{v}); }
  WriteResult setString(std::string_view key, std::string v) { return set(key, DefaultsValue{std::move(v)}); }
  WriteResult setStringArray(std::string_view key, std::vector<std::string> v) {
    return set(key, DefaultsValue{std::move(v)});
  }
  WriteResult setData(std::string_view key, Bytes v) { return set(key, DefaultsValue{std::move(v)}); }
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

// A suite that could not be opened (the application group's container is missing or unusable):
// every read finds nothing, so each reader takes its default (the routing mode reads as smart),
// and every write is skipped without a log line, answering `reason`.
class UnavailableDefaults final : public Defaults {
 public:
  explicit UnavailableDefaults(Error reason) : reason_(std::move(reason)) {}
  [[nodiscard]] std::optional<DefaultsValue> value(std::string_view) const override { return std::nullopt; }
  WriteResult set(std::string_view, DefaultsValue) override { return std::unexpected(reason_); }
  WriteResult remove(std::string_view) override { return std::unexpected(reason_); }
  using Defaults::set;

 private:
  Error reason_;
};

}  // namespace norvik
