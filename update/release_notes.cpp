#include "update/release_notes.h"

#include <array>
#include <cctype>
#include <cstdint>
#include <utility>
#include <vector>

#include "platform/text.h"

namespace norvik {
namespace {

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
  }
  return true;
}

std::size_t findIgnoringCase(std::string_view text, std::string_view needle, std::size_t from) {
  for (std::size_t i = from; i + needle.size() <= text.size(); ++i) {
    if (equalsIgnoringCase(text.substr(i, needle.size()), needle)) return i;
  }
  return std::string_view::npos;
}

// The closing tags that end a line of text.
bool endsLine(std::string_view name) {
  static constexpr std::array<std::string_view, 9> kNames = {"p", "li", "div", "h1", "h2", "h3", "h4", "h5", "h6"};
  for (auto n : kNames) {
    if (equalsIgnoringCase(name, n)) return true;
  }
  return false;
}

void appendUtf8(std::string& out, std::uint32_t cp) {
  if (cp == 0 || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Decodes the character reference at `text[0] == '&'`; returns the bytes consumed, 0 when it is
// not a reference (the '&' is then kept as it is).
std::size_t decodeReference(std::string_view text, std::string& out) {
  const std::size_t semicolon = text.find(';');
  if (semicolon > 10) return 0;  // too far for a reference, or no ';' at all (npos)
  const std::string_view body = text.substr(1, semicolon - 1);
  if (body.starts_with('#')) {
    const bool hex = body.size() > 1 && (body[1] == 'x' || body[1] == 'X');
    const std::string_view digits = body.substr(hex ? 2 : 1);
    if (digits.empty()) return 0;
    std::uint32_t cp = 0;
    for (char c : digits) {
      const auto u = static_cast<unsigned char>(c);
      int digit = -1;
      if (std::isdigit(u))
        digit = c - '0';
      else if (hex && std::isxdigit(u))
        digit = std::tolower(u) - 'a' + 10;
      if (digit < 0) return 0;
      cp = std::min<std::uint32_t>(cp * (hex ? 16 : 10) + static_cast<std::uint32_t>(digit), 0x110000);
    }
    appendUtf8(out, cp);
    return semicolon + 1;
  }
  static constexpr std::pair<std::string_view, std::uint32_t> kNamed[] = {
      {"amp", '&'},       {"lt", '<'},       {"gt", '>'},       {"quot", '"'},     {"apos", '\''},
      {"nbsp", ' '},      {"laquo", 0x00AB}, {"raquo", 0x00BB}, {"mdash", 0x2014}, {"ndash", 0x2013},
      {"hellip", 0x2026}, {"bull", 0x2022},  {"copy", 0x00A9},
  };
  for (const auto& [name, cp] : kNamed) {
    if (body == name) {
      appendUtf8(out, cp);
      return semicolon + 1;
    }
  }
  return 0;
}

class TextBuilder {
 public:
  void addChar(char c) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f') {
      pendingSpace_ = !line_.empty();
      return;
    }
    if (pendingSpace_) line_ += ' ';
    pendingSpace_ = false;
    line_ += c;
  }
  void addText(std::string_view text) {
    for (char c : text) addChar(c);
  }
  void endLine() {
    auto trimmed = trimWhitespace(line_);
    if (!trimmed.empty()) lines_.emplace_back(trimmed);
    line_.clear();
    pendingSpace_ = false;
  }
  std::string finish() {
    endLine();
    std::string out;
    for (const auto& l : lines_) {
      if (!out.empty()) out += '\n';
      out += l;
    }
    return out;
  }

 private:
  std::string line_;
  bool pendingSpace_ = false;
  std::vector<std::string> lines_;
};

}  // namespace

std::string releaseNotesText(std::string_view html) {
  TextBuilder text;
  std::size_t i = 0;
  while (i < html.size()) {
    const char c = html[i];
    if (c == '&') {
      std::string decoded;
      if (const std::size_t used = decodeReference(html.substr(i), decoded); used > 0) {
        text.addText(decoded);
        i += used;
        continue;
      }
      text.addChar(c);
      ++i;
      continue;
    }
    const bool tagStart = c == '<' && i + 1 < html.size() &&
                          (std::isalpha(static_cast<unsigned char>(html[i + 1])) || html[i + 1] == '/' ||
                           html[i + 1] == '!' || html[i + 1] == '?');
    if (!tagStart) {
      text.addChar(c);
      ++i;
      continue;
    }
    if (html.substr(i, 4) == "<!--") {
      const std::size_t end = html.find("-->", i + 4);
      i = end == std::string_view::npos ? html.size() : end + 3;
      continue;
    }
    const std::size_t close = html.find('>', i);
    if (close == std::string_view::npos) break;  // an unfinished tag at the end is dropped
    const bool closing = html[i + 1] == '/';
    std::size_t nameStart = i + (closing ? 2 : 1);
    std::size_t nameEnd = nameStart;
    while (nameEnd < close && std::isalnum(static_cast<unsigned char>(html[nameEnd]))) ++nameEnd;
    const std::string_view name = html.substr(nameStart, nameEnd - nameStart);
    i = close + 1;
    if (closing) {
      if (endsLine(name)) text.endLine();
      continue;
    }
    // Scripts and style sheets are not text.
    if (equalsIgnoringCase(name, "script") || equalsIgnoringCase(name, "style")) {
      const std::size_t end = findIgnoringCase(html, std::string("</") + std::string(name), i);
      if (end == std::string_view::npos) break;
      const std::size_t endClose = html.find('>', end);
      i = endClose == std::string_view::npos ? html.size() : endClose + 1;
      continue;
    }
    if (equalsIgnoringCase(name, "br")) text.endLine();
  }
  return repairUtf8(text.finish());
}

}  // namespace norvik
