#include "platform/property_list.h"

#include <nlohmann/json.hpp>

namespace norvik {

nlohmann::json toJson(const PropertyValue& value) {
  return std::visit(
      [](const auto& v) -> nlohmann::json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, PropertyArray>) {
          nlohmann::json array = nlohmann::json::array();
          for (const auto& element : v) array.push_back(toJson(element));
          return array;
        } else if constexpr (std::is_same_v<T, PropertyDictionary>) {
          return toJson(v);
        } else {
          return nlohmann::json(v);
        }
      },
      value.value);
}

nlohmann::json toJson(const PropertyDictionary& dictionary) {
  nlohmann::json object = nlohmann::json::object();
  for (const auto& [key, element] : dictionary) object[key] = toJson(element);
  return object;
}

namespace {

// Fills `out` in place; false when some element has no property-list form.
bool fill(const nlohmann::json& json, PropertyValue& out) {
  if (json.is_string()) {
    out.value = json.get<std::string>();
  } else if (json.is_boolean()) {
    out.value = json.get<bool>();
  } else if (json.is_number_integer()) {
    out.value = json.get<std::int64_t>();
  } else if (json.is_number()) {
    out.value = json.get<double>();
  } else if (json.is_array()) {
    auto& array = out.value.emplace<PropertyArray>();
    array.resize(json.size());
    for (std::size_t i = 0; i < json.size(); ++i) {
      if (!fill(json[i], array[i])) return false;
    }
  } else if (json.is_object()) {
    auto& dictionary = out.value.emplace<PropertyDictionary>();
    for (const auto& [key, element] : json.items()) {
      if (!fill(element, dictionary[key])) return false;
    }
  } else {
    return false;
  }
  return true;
}

}  // namespace

std::optional<PropertyValue> propertyFromJson(const nlohmann::json& json) {
  std::optional<PropertyValue> out(std::in_place);
  if (!fill(json, *out)) out.reset();
  return out;
}

}  // namespace norvik
