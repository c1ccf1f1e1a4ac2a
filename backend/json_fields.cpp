#include "backend/json_fields.h"

#include <charconv>
#include <cmath>

#include <fmt/format.h>

#include "platform/text.h"

namespace norvik::json_fields {
namespace {

std::string_view typeName(const nlohmann::json& value) {
  if (value.is_string()) return "a string";
  if (value.is_boolean()) return "a Boolean";
  if (value.is_number()) return "a number";
  if (value.is_array()) return "an array";
  if (value.is_object()) return "an object";
  return "null";
}

// The bad value, short enough for a log line.
std::string quote(const nlohmann::json& value) {
  std::string text = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  if (text.size() > 60) text = utf8Prefix(text, 57) + "...";
  return text;
}

std::optional<std::int64_t> lenientInteger(const nlohmann::json& value) {
  if (value.is_number_integer()) {
    if (value.is_number_unsigned() && value.get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX)) {
      return std::nullopt;
    }
    return value.get<std::int64_t>();
  }
  if (value.is_number_float()) {
    const double d = value.get<double>();
    if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) < 9.2e18) return static_cast<std::int64_t>(d);
    return std::nullopt;
  }
  if (value.is_string()) {
    const auto& s = value.get_ref<const std::string&>();
    std::int64_t out = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
    if (ec == std::errc{} && end == s.data() + s.size() && !s.empty()) return out;
  }
  return std::nullopt;
}

}  // namespace

Fields::Fields(const nlohmann::json& object, std::string path) : object_(object), path_(std::move(path)) {}

const nlohmann::json* Fields::find(const char* key) const {
  auto it = object_.find(key);
  if (it == object_.end() || it->is_null()) return nullptr;
  return &*it;
}

std::string Fields::childPath(const char* key) const { return path_.empty() ? std::string(key) : path_ + "." + key; }

void Fields::fail(const char* key, std::string_view expected, const nlohmann::json& found) const {
  failAt(childPath(key), expected, found);
}

void Fields::failAt(const std::string& path, std::string_view expected, const nlohmann::json& found) const {
  throw DecodeFailure{fmt::format("\"{}\": expected {}, found {} {}", path, expected, typeName(found), quote(found))};
}

void Fields::failMissing(const char* key) const {
  throw DecodeFailure{fmt::format("\"{}\": required key is missing", childPath(key))};
}

void Fields::text(const char* key, std::optional<std::string>& out) const {
  if (const auto* value = find(key)) {
    if (!value->is_string()) fail(key, "a string", *value);
    out = value->get<std::string>();
  }
}

void Fields::boolean(const char* key, std::optional<bool>& out) const {
  if (const auto* value = find(key)) {
    if (!value->is_boolean()) fail(key, "a Boolean", *value);
    out = value->get<bool>();
  }
}

void Fields::number(const char* key, std::optional<double>& out) const {
  if (const auto* value = find(key)) {
    if (!value->is_number()) fail(key, "a number", *value);
    out = value->get<double>();
  }
}

void Fields::integer(const char* key, std::optional<std::int64_t>& out) const {
  if (const auto* value = find(key)) out = lenientInteger(*value);
}

void Fields::integers(const char* key, std::optional<std::vector<std::int64_t>>& out) const {
  if (const auto* value = find(key)) {
    if (!value->is_array()) fail(key, "an array", *value);
    std::vector<std::int64_t> items;
    for (const auto& element : *value) {
      if (auto i = lenientInteger(element)) {
        items.push_back(*i);
      } else {
        fail(key, "an array of integers", element);
      }
    }
    out = std::move(items);
  }
}

void Fields::texts(const char* key, std::optional<std::vector<std::string>>& out) const {
  if (const auto* value = find(key)) {
    if (!value->is_array()) fail(key, "an array", *value);
    std::vector<std::string> items;
    items.reserve(value->size());
    for (const auto& element : *value) {
      if (!element.is_string()) fail(key, "an array of strings", element);
      items.push_back(element.get<std::string>());
    }
    out = std::move(items);
  }
}

void Fields::textLists(const char* key, std::optional<std::map<std::string, std::vector<std::string>>>& out) const {
  if (const auto* value = find(key)) {
    if (!value->is_object()) fail(key, "an object", *value);
    std::map<std::string, std::vector<std::string>> lists;
    for (const auto& [name, element] : value->items()) {
      const std::string path = childPath(key) + "." + name;
      if (!element.is_array()) failAt(path, "an array", element);
      std::vector<std::string> items;
      items.reserve(element.size());
      for (const auto& item : element) {
        if (!item.is_string()) failAt(path, "an array of strings", item);
        items.push_back(item.get<std::string>());
      }
      lists.emplace(name, std::move(items));
    }
    out = std::move(lists);
  }
}

void Fields::object(const char* key, std::optional<nlohmann::json>& out) const {
  if (const auto* value = find(key)) {
    if (!value->is_object()) fail(key, "an object", *value);
    out = *value;
  }
}

void Fields::array(const char* key, std::optional<nlohmann::json>& out) const {
  if (const auto* value = find(key)) {
    if (!value->is_array()) fail(key, "an array", *value);
    out = *value;
  }
}

void Fields::requiredText(const char* key, std::string& out) const {
  std::optional<std::string> value;
  text(key, value);
  if (!value) failMissing(key);
  out = std::move(*value);
}

void Fields::requiredBoolean(const char* key, bool& out) const {
  std::optional<bool> value;
  boolean(key, value);
  if (!value) failMissing(key);
  out = *value;
}

void Fields::requiredInteger(const char* key, std::int64_t& out) const {
  const auto* value = find(key);
  if (!value) failMissing(key);
  auto i = lenientInteger(*value);
  if (!i) fail(key, "an integer", *value);
  out = *i;
}

}  // namespace norvik::json_fields
