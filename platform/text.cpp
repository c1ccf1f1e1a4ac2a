#include "platform/text.h"

#include <cstdint>

namespace norvik {
namespace {

// Length of the well-formed UTF-8 sequence at the start of `s`, or 0 when it is ill-formed
// (overlong forms, surrogates and values above U+10FFFF included).
std::size_t sequenceLength(std::string_view s) {
  auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(s[i]); };
  auto continuation = [&](std::size_t i) { return i < s.size() && (byte(i) & 0xC0) == 0x80; };
  const std::uint8_t b0 = byte(0);
  if (b0 < 0x80) return 1;
  if (b0 >= 0xC2 && b0 <= 0xDF) return continuation(1) ? 2 : 0;
  if (b0 >= 0xE0 && b0 <= 0xEF) {
    if (!continuation(1) || !continuation(2)) return 0;
    const std::uint8_t b1 = byte(1);
    if (b0 == 0xE0 && b1 < 0xA0) return 0;  // overlong
    if (b0 == 0xED && b1 > 0x9F) return 0;  // surrogate
    return 3;
  }
  if (b0 >= 0xF0 && b0 <= 0xF4) {
    if (!continuation(1) || !continuation(2) || !continuation(3)) return 0;
    const std::uint8_t b1 = byte(1);
    if (b0 == 0xF0 && b1 < 0x90) return 0;  // overlong
    if (b0 == 0xF4 && b1 > 0x8F) return 0;  // above U+10FFFF
    return 4;
  }
  return 0;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t n = sequenceLength(text);
    if (n == 0) return false;
    text.remove_prefix(n);
  }
  return true;
}

std::string utf8Prefix(std::string_view text, std::size_t count) {
  std::string out;
  for (std::size_t taken = 0; taken < count && !text.empty(); ++taken) {
    std::size_t n = sequenceLength(text);
    if (n == 0) n = 1;  // an ill-formed byte counts as one character
    out.append(text.substr(0, n));
    text.remove_prefix(n);
  }
  return out;
}

std::string repairUtf8(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  while (!bytes.empty()) {
    const std::size_t n = sequenceLength(bytes);
    if (n == 0) {
      out.append("\xEF\xBF\xBD");
      bytes.remove_prefix(1);
    } else {
      out.append(bytes.substr(0, n));
      bytes.remove_prefix(n);
    }
  }
  return out;
}

std::string_view trimWhitespace(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\n\v\f";
  const auto first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(kSpace);
  return text.substr(first, last - first + 1);
}

}  // namespace norvik
