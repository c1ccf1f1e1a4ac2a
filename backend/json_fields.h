#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace norvik::json_fields {

// Reads one JSON object field at a time, the way the backend's documents are decoded: a missing
// key or null is absent, never an error; a present value of the wrong type is an error that
// names the field's path and quotes the value. Integers are read leniently: a JSON number with no
// fraction or a string of digits; anything else reads as absent.
//
// Decoding stops at the first error (it throws internally); decodeDocument() turns that into an
// error text.
class Fields {
 public:
  Fields(const nlohmann::json& object, std::string path);

  void text(const char* key, std::optional<std::string>& out) const;
  void boolean(const char* key, std::optional<bool>& out) const;
  void number(const char* key, std::optional<double>& out) const;
  void integer(const char* key, std::optional<std::int64_t>& out) const;
  void integers(const char* key, std::optional<std::vector<std::int64_t>>& out) const;
  void texts(const char* key, std::optional<std::vector<std::string>>& out) const;
  void textLists(const char* key, std::optional<std::map<std::string, std::vector<std::string>>>& out) const;
  // Any JSON object, kept as received for the feature that owns its keys.
  void object(const char* key, std::optional<nlohmann::json>& out) const;
  // Any JSON array, kept as received.
  void array(const char* key, std::optional<nlohmann::json>& out) const;

  void requiredText(const char* key, std::string& out) const;
  void requiredBoolean(const char* key, bool& out) const;
  void requiredInteger(const char* key, std::int64_t& out) const;

  // A nested object decoded by `decode`.
  template <class T>
  void nested(const char* key, std::optional<T>& out, T (*decode)(const Fields&)) const {
    if (const auto* value = find(key)) {
      if (!value->is_object()) fail(key, "an object", *value);
      out = decode(Fields(*value, childPath(key)));
    }
  }
  template <class T>
  void requiredNested(const char* key, T& out, T (*decode)(const Fields&)) const {
    const auto* value = find(key);
    if (!value) failMissing(key);
    if (!value->is_object()) fail(key, "an object", *value);
    out = decode(Fields(*value, childPath(key)));
  }
  // An array of objects; every element must decode.
  template <class T>
  void list(const char* key, std::optional<std::vector<T>>& out, T (*decode)(const Fields&)) const {
    decodeList(key, out, decode, /*dropped=*/nullptr, /*lenient=*/false);
  }
  // An array of objects in which an element that fails to decode is dropped, the rest kept.
  template <class T>
  void lenientList(const char* key, std::optional<std::vector<T>>& out, T (*decode)(const Fields&),
                   std::vector<std::string>* dropped = nullptr) const {
    decodeList(key, out, decode, dropped, /*lenient=*/true);
  }

  // The value of `key`, or nothing when it is missing or null.
  [[nodiscard]] const nlohmann::json* find(const char* key) const;
  [[nodiscard]] const nlohmann::json& json() const { return object_; }
  [[nodiscard]] const std::string& path() const { return path_; }

  [[noreturn]] void fail(const char* key, std::string_view expected, const nlohmann::json& found) const;
  [[noreturn]] void failAt(const std::string& path, std::string_view expected, const nlohmann::json& found) const;
  [[noreturn]] void failMissing(const char* key) const;

 private:
  [[nodiscard]] std::string childPath(const char* key) const;
  template <class T>
  void decodeList(const char* key, std::optional<std::vector<T>>& out, T (*decode)(const Fields&),
                  std::vector<std::string>* dropped, bool lenient) const;

  const nlohmann::json& object_;
  std::string path_;
};

// Thrown inside a decoder; never leaves decodeDocument().
struct DecodeFailure {
  std::string message;
};

// Parses `body` and decodes its top-level object with `decode`; the error text names what failed.
template <class T>
std::expected<T, std::string> decodeDocument(std::string_view body, T (*decode)(const Fields&)) {
  auto json = nlohmann::json::parse(body, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) return std::unexpected(std::string("the data is not valid JSON"));
  if (!json.is_object()) return std::unexpected(std::string("the top level is not a JSON object"));
  try {
    return decode(Fields(json, ""));
  } catch (const DecodeFailure& failure) {
    return std::unexpected(failure.message);
  }
}

template <class T>
void Fields::decodeList(const char* key, std::optional<std::vector<T>>& out, T (*decode)(const Fields&),
                        std::vector<std::string>* dropped, bool lenient) const {
  const auto* value = find(key);
  if (!value) return;
  if (!value->is_array()) fail(key, "an array", *value);
  std::vector<T> items;
  items.reserve(value->size());
  for (std::size_t i = 0; i < value->size(); ++i) {
    const auto& element = (*value)[i];
    const std::string path = childPath(key) + "[" + std::to_string(i) + "]";
    try {
      if (!element.is_object()) failAt(path, "an object", element);
      items.push_back(decode(Fields(element, path)));
    } catch (const DecodeFailure& failure) {
      if (!lenient) throw;
      if (dropped) dropped->push_back(failure.message);
    }
  }
  out = std::move(items);
}

}  // namespace norvik::json_fields
