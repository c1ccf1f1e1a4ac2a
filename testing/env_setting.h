#pragma once

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace norvik::testing {

// A number that a long or reproducing run sets through the environment ("NORVIK_STRESS_BURSTS=3000");
// an unset or unreadable value keeps the everyday default, so that a typo never turns a test off.
template <typename Number>
Number envSetting(const char* name, Number fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr) return fallback;
  const std::string_view view(text);
  Number value{};
  const auto [end, error] = std::from_chars(view.data(), view.data() + view.size(), value);
  if (error != std::errc{} || end != view.data() + view.size()) return fallback;
  return value;
}

}  // namespace norvik::testing
