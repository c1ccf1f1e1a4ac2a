// Any bytes as an update feed: the reader either returns the feed or an error; it never crashes,
// reads out of bounds or grows without bound. What is done with a feed afterwards (choosing the
// release, comparing versions, turning its notes into text) must hold for whatever was read.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "update/appcast.h"
#include "update/release_notes.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto appcast = norvik::parseAppcast(text);
  if (appcast) {
    for (const auto& item : appcast->items) {
      if (norvik::compareVersions(item.version, item.version) != 0) __builtin_trap();
      if (item.description) (void)norvik::releaseNotesText(*item.description);
    }
    auto best = norvik::bestUpdate(*appcast, {"1.0", true, "12.0"});
    if (best && norvik::compareVersions(best->version, "1.0") <= 0) __builtin_trap();
  }
  // The same bytes as version texts and as release notes.
  const auto half = text.substr(0, size / 2);
  const auto rest = text.substr(size / 2);
  if (norvik::compareVersions(half, rest) != -norvik::compareVersions(rest, half)) __builtin_trap();
  (void)norvik::releaseNotesText(text);
  return 0;
}
