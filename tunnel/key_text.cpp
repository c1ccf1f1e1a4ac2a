#include "tunnel/key_text.h"

#include <array>
#include <vector>

namespace norvik {
namespace {

// Horizontal white space, ASCII and the Unicode spaces a copied key may carry (no-break space,
// the typographic spaces, the byte-order mark).
constexpr std::array<std::string_view, 8> kWideSpaces = {
    "\xC2\xA0",      // U+00A0
    "\xE2\x80\xAF",  // U+202F
    "\xE2\x81\x9F",  // U+205F
    "\xE3\x80\x80",  // U+3000
    "\xEF\xBB\xBF",  // U+FEFF
    "\xE2\x80\x8B",  // U+200B
    "\xE1\x9A\x80",  // U+1680
    "\xE2\x80\x80",  // U+2000 (the range up to U+200A is matched below)
};

// Length of the white-space character at the start of `s`, or 0.
std::size_t spaceAtFront(std::string_view s) {
  if (s.empty()) return 0;
  if (s.front() == ' ' || s.front() == '\t') return 1;
  if (s.size() >= 3 && s[0] == '\xE2' && s[1] == '\x80' && static_cast<unsigned char>(s[2]) >= 0x80 &&
      static_cast<unsigned char>(s[2]) <= 0x8B) {
    return 3;  // U+2000 … U+200B
  }
  for (auto space : kWideSpaces) {
    if (s.starts_with(space)) return space.size();
  }
  return 0;
}

std::size_t spaceAtBack(std::string_view s) {
  if (s.empty()) return 0;
  if (s.back() == ' ' || s.back() == '\t') return 1;
  for (std::size_t n : {2u, 3u}) {
    if (s.size() >= n && spaceAtFront(s.substr(s.size() - n)) == n) return n;
  }
  return 0;
}

std::string_view trim(std::string_view s) {
  while (std::size_t n = spaceAtFront(s)) s.remove_prefix(n);
  while (std::size_t n = spaceAtBack(s)) s.remove_suffix(n);
  return s;
}

// Length of the line break at the start of `s`, or 0.
std::size_t breakAtFront(std::string_view s) {
  if (s.empty()) return 0;
  if (s.starts_with("\r\n")) return 2;
  const char c = s.front();
  if (c == '\n' || c == '\r' || c == '\v' || c == '\f') return 1;
  if (s.starts_with("\xC2\x85")) return 2;                                       // U+0085
  if (s.starts_with("\xE2\x80\xA8") || s.starts_with("\xE2\x80\xA9")) return 3;  // U+2028, U+2029
  return 0;
}

std::vector<std::string_view> splitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (const std::size_t n = breakAtFront(text.substr(i))) {
      lines.push_back(text.substr(start, i - start));
      i += n;
      start = i;
    } else {
      ++i;
    }
  }
  lines.push_back(text.substr(start));
  return lines;
}

std::string normalizeLine(std::string_view line) {
  if (line.starts_with('[') && line.ends_with(']')) return std::string(line);
  const auto equals = line.find('=');
  if (equals == std::string_view::npos) return std::string(line);
  std::string out(trim(line.substr(0, equals)));
  out += " = ";
  out += trim(line.substr(equals + 1));
  return out;
}

}  // namespace

std::string normalizeKeyText(std::string_view text) {
  std::vector<std::string> out;
  for (std::string_view raw : splitLines(text)) {
    const std::string_view line = trim(raw);
    if (line.empty()) {
      if (!out.empty() && !out.back().empty()) out.emplace_back();
      continue;
    }
    out.push_back(normalizeLine(line));
  }
  while (!out.empty() && out.back().empty()) out.pop_back();

  std::string joined;
  std::size_t size = 0;
  for (const auto& line : out) size += line.size() + 1;
  joined.reserve(size);
  for (std::size_t i = 0; i < out.size(); ++i) {
    if (i > 0) joined.push_back('\n');
    joined += out[i];
  }
  return joined;
}

std::optional<std::string> extractServerAddress(std::string_view normalizedText) {
  std::size_t start = 0;
  while (start <= normalizedText.size()) {
    const std::size_t end = std::min(normalizedText.find('\n', start), normalizedText.size());
    const std::string_view line = normalizedText.substr(start, end - start);
    if (line.starts_with("Endpoint")) {
      const std::string_view afterLastEquals =
          line.substr(line.rfind('=') == std::string_view::npos ? 0 : line.rfind('=') + 1);
      const std::string_view endpoint = trim(afterLastEquals);
      const std::string_view host = endpoint.substr(0, endpoint.find(':'));
      if (host.empty()) return std::nullopt;
      return std::string(host);
    }
    start = end + 1;
  }
  return std::nullopt;
}

}  // namespace norvik
