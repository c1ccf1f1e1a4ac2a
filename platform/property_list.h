#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace norvik {

// A property-list value, as the tunnel's provider configuration holds them: strings, integers,
// doubles, Booleans, arrays and dictionaries with string keys.
struct PropertyValue;
using PropertyArray = std::vector<PropertyValue>;
using PropertyDictionary = std::map<std::string, PropertyValue, std::less<>>;

struct PropertyValue {
  std::variant<std::string, std::int64_t, double, bool, PropertyArray, PropertyDictionary> value;

  PropertyValue() : value(std::string()) {}
  PropertyValue(std::string v) : value(std::move(v)) {}          // NOLINT: implicit on purpose
  PropertyValue(const char* v) : value(std::string(v)) {}        // NOLINT
  PropertyValue(std::int64_t v) : value(v) {}                    // NOLINT
  PropertyValue(int v) : value(static_cast<std::int64_t>(v)) {}  // NOLINT
  PropertyValue(double v) : value(v) {}                          // NOLINT
  PropertyValue(bool v) : value(v) {}                            // NOLINT
  PropertyValue(PropertyArray v) : value(std::move(v)) {}        // NOLINT
  PropertyValue(PropertyDictionary v) : value(std::move(v)) {}   // NOLINT

  [[nodiscard]] const std::string* string() const { return std::get_if<std::string>(&value); }
  [[nodiscard]] const std::int64_t* integer() const { return std::get_if<std::int64_t>(&value); }
  [[nodiscard]] const bool* boolean() const { return std::get_if<bool>(&value); }
  [[nodiscard]] const PropertyArray* array() const { return std::get_if<PropertyArray>(&value); }
  [[nodiscard]] const PropertyDictionary* dictionary() const { return std::get_if<PropertyDictionary>(&value); }

  bool operator==(const PropertyValue&) const = default;
};

}  // namespace norvik

#include <nlohmann/json_fwd.hpp>
#include <optional>

namespace norvik {

// The JSON form of property-list values (for files that hold them). Integers and doubles keep
// their kind; JSON null has no property-list form and reads as nothing.
[[nodiscard]] nlohmann::json toJson(const PropertyValue& value);
[[nodiscard]] nlohmann::json toJson(const PropertyDictionary& dictionary);
[[nodiscard]] std::optional<PropertyValue> propertyFromJson(const nlohmann::json& json);

}  // namespace norvik
