#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace norvik {

// One release of the update feed: an RSS <item> with the appcast extensions.
struct AppcastItem {
  std::string title;
  std::string version;                      // the build version, compared with ours
  std::optional<std::string> shortVersion;  // the version people see
  std::string enclosureURL;
  std::optional<std::uint64_t> enclosureLength;
  std::optional<std::string> edSignature;  // Base64 Ed25519 signature of the enclosure's bytes
  std::optional<std::string> releaseNotesURL;
  std::optional<std::string> description;  // inline release notes (HTML)
  std::optional<std::string> minimumSystemVersion;
  std::optional<std::string> channel;  // absent: the default channel everyone gets

  // The short version when there is one, else the build version.
  [[nodiscard]] const std::string& displayVersion() const { return shortVersion ? *shortVersion : version; }
  bool operator==(const AppcastItem&) const = default;
};

struct Appcast {
  std::string title;
  std::vector<AppcastItem> items;
  // Items that could not be used, each with its reason; the rest of the feed still counts.
  std::vector<std::string> skipped;
};

// Reads an appcast document. A document that is not XML, or has no rss/channel, is an error; an
// item that lacks a version or an enclosure URL, or carries a bad length, is skipped with its
// reason. Errors quote the offending value.
[[nodiscard]] std::expected<Appcast, std::string> parseAppcast(std::string_view xml);

// Orders version texts the way people read them: numbers by value ("1.10" after "1.9"), missing
// components as zero ("2" equals "2.0"), a pre-release after its letters ("1.0b2" after "1.0b1",
// before "1.0" and "1.0.1"). Returns <0, 0 or >0.
[[nodiscard]] int compareVersions(std::string_view a, std::string_view b);

struct AppcastSelection {
  std::string currentVersion;
  bool betaChannel = false;                    // also offer items of the "beta" channel
  std::optional<std::string> systemVersion{};  // unknown: minimum system versions are not checked
};

// The newest item that is newer than the current version and meant for this system and channel.
[[nodiscard]] std::optional<AppcastItem> bestUpdate(const Appcast& appcast, const AppcastSelection& selection);

}  // namespace norvik
