#include "update/appcast.h"

#include <cctype>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "platform/text.h"

namespace norvik {
namespace {

// The namespace of the appcast extensions; feeds almost always bind it to "sparkle", but the
// prefix is whatever the document declares.
constexpr std::string_view kAppcastNamespace = "http://www.andymatuschak.org/xml-namespaces/sparkle";

std::string appcastPrefix(const pugi::xml_node& rss) {
  for (const auto& attribute : rss.attributes()) {
    const std::string_view name = attribute.name();
    if (name.starts_with("xmlns:") && attribute.value() == kAppcastNamespace) return std::string(name.substr(6));
  }
  return "sparkle";
}

std::optional<std::string> nonEmpty(std::string_view text) {
  auto trimmed = trimWhitespace(text);
  if (trimmed.empty()) return std::nullopt;
  return std::string(trimmed);
}

// Reads the item's fields one at a time; `error` names the first field that makes it unusable.
class ItemReader {
 public:
  ItemReader(const pugi::xml_node& item, const std::string& prefix) : item_(item), prefix_(prefix) {
    enclosure_ = item.child("enclosure");
  }

  std::expected<AppcastItem, std::string> read() {
    AppcastItem out;
    out.title = std::string(trimWhitespace(item_.child_value("title")));
    auto version = extension("version");
    if (!version) return std::unexpected("no version");
    out.version = std::move(*version);
    out.shortVersion = extension("shortVersionString");

    if (!enclosure_) return std::unexpected("no enclosure");
    auto url = nonEmpty(enclosure_.attribute("url").value());
    if (!url) return std::unexpected("the enclosure has no url");
    out.enclosureURL = std::move(*url);
    auto length = readLength();
    if (!length) return std::unexpected(length.error());
    out.enclosureLength = *length;
    out.edSignature = nonEmpty(enclosure_.attribute(name("edSignature").c_str()).value());

    out.releaseNotesURL = nonEmpty(item_.child_value(name("releaseNotesLink").c_str()));
    out.description = nonEmpty(item_.child("description").text().get());
    out.minimumSystemVersion = nonEmpty(item_.child_value(name("minimumSystemVersion").c_str()));
    out.channel = nonEmpty(item_.child_value(name("channel").c_str()));
    return out;
  }

 private:
  [[nodiscard]] std::string name(std::string_view local) const { return prefix_ + ":" + std::string(local); }

  // An appcast field may be an element of the item or an attribute of its enclosure.
  std::optional<std::string> extension(std::string_view local) const {
    const std::string qualified = name(local);
    if (auto element = nonEmpty(item_.child_value(qualified.c_str()))) return element;
    if (enclosure_) return nonEmpty(enclosure_.attribute(qualified.c_str()).value());
    return std::nullopt;
  }

  // Absent and "0" both mean "not told": feeds use 0 as a placeholder.
  std::expected<std::optional<std::uint64_t>, std::string> readLength() const {
    const auto attribute = enclosure_.attribute("length");
    if (!attribute) return std::nullopt;
    const std::string_view text = trimWhitespace(attribute.value());
    std::uint64_t value = 0;
    bool ok = !text.empty() && text.size() <= 19;
    for (char c : text) {
      if (!std::isdigit(static_cast<unsigned char>(c))) {
        ok = false;
        break;
      }
      value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    if (!ok) return std::unexpected(fmt::format("enclosure length \"{}\" is not a number", attribute.value()));
    if (value == 0) return std::nullopt;
    return value;
  }

  const pugi::xml_node& item_;
  const std::string& prefix_;
  pugi::xml_node enclosure_;
};

// A version text as a sequence of numbers and letter runs; separators are dropped.
struct VersionToken {
  bool numeric = false;
  std::string_view text;  // digits without leading zeros, or letters
};

std::vector<VersionToken> tokenize(std::string_view version) {
  std::vector<VersionToken> tokens;
  std::size_t i = 0;
  while (i < version.size()) {
    const auto c = static_cast<unsigned char>(version[i]);
    std::size_t j = i;
    if (std::isdigit(c)) {
      while (j < version.size() && std::isdigit(static_cast<unsigned char>(version[j]))) ++j;
      std::size_t start = i;
      while (start + 1 < j && version[start] == '0') ++start;
      tokens.push_back({true, version.substr(start, j - start)});
    } else if (std::isalpha(c)) {
      while (j < version.size() && std::isalpha(static_cast<unsigned char>(version[j]))) ++j;
      tokens.push_back({false, version.substr(i, j - i)});
    } else {
      j = i + 1;  // '.', '-', '_', '+', spaces and anything else separate
    }
    i = j;
  }
  return tokens;
}

int compareNumbers(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  const int c = a.compare(b);
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

int compareLetters(std::string_view a, std::string_view b) {
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const int x = std::tolower(static_cast<unsigned char>(a[i]));
    const int y = std::tolower(static_cast<unsigned char>(b[i]));
    if (x != y) return x < y ? -1 : 1;
  }
  if (a.size() == b.size()) return 0;
  return a.size() < b.size() ? -1 : 1;
}

bool isZero(const VersionToken& t) { return t.numeric && t.text == "0"; }

}  // namespace

std::expected<Appcast, std::string> parseAppcast(std::string_view xml) {
  pugi::xml_document document;
  const auto parsed = document.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_utf8);
  if (!parsed) {
    return std::unexpected(fmt::format("the feed is not XML ({} at byte {})", parsed.description(), parsed.offset));
  }
  const auto rss = document.child("rss");
  if (!rss) {
    const auto root = document.document_element();
    return std::unexpected(fmt::format(R"(the feed's root element is "{}", not "rss")", root ? root.name() : ""));
  }
  const auto channel = rss.child("channel");
  if (!channel) return std::unexpected("the feed has no <channel>");

  const std::string prefix = appcastPrefix(rss);
  Appcast appcast;
  appcast.title = std::string(trimWhitespace(channel.child_value("title")));
  int index = 0;
  for (const auto& node : channel.children("item")) {
    ++index;
    auto item = ItemReader(node, prefix).read();
    if (!item) {
      appcast.skipped.push_back(fmt::format("item {}: {}", index, item.error()));
      continue;
    }
    appcast.items.push_back(std::move(*item));
  }
  return appcast;
}

int compareVersions(std::string_view a, std::string_view b) {
  const auto x = tokenize(a);
  const auto y = tokenize(b);
  const std::size_t n = std::max(x.size(), y.size());
  for (std::size_t i = 0; i < n; ++i) {
    const bool hasX = i < x.size();
    const bool hasY = i < y.size();
    if (hasX && hasY) {
      const auto& p = x[i];
      const auto& q = y[i];
      int c = 0;
      if (p.numeric && q.numeric) {
        c = compareNumbers(p.text, q.text);
      } else if (!p.numeric && !q.numeric) {
        c = compareLetters(p.text, q.text);
      } else {
        c = p.numeric ? 1 : -1;  // "1.0.1" is after "1.0b1"
      }
      if (c != 0) return c;
      continue;
    }
    // One side has ended. Trailing zeros change nothing; a trailing number is a later release; a
    // trailing letter run marks a pre-release, which comes before the release itself.
    const VersionToken& rest = hasX ? x[i] : y[i];
    const int sign = hasX ? 1 : -1;
    if (isZero(rest)) continue;
    return rest.numeric ? sign : -sign;
  }
  return 0;
}

std::optional<AppcastItem> bestUpdate(const Appcast& appcast, const AppcastSelection& selection) {
  const AppcastItem* best = nullptr;
  for (const auto& item : appcast.items) {
    if (item.channel && !(selection.betaChannel && *item.channel == "beta")) continue;
    if (selection.systemVersion && item.minimumSystemVersion &&
        compareVersions(*selection.systemVersion, *item.minimumSystemVersion) < 0) {
      continue;
    }
    if (compareVersions(item.version, selection.currentVersion) <= 0) continue;
    if (!best || compareVersions(item.version, best->version) > 0) best = &item;
  }
  if (!best) return std::nullopt;
  return *best;
}

}  // namespace norvik
