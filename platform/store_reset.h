#pragma once

#include <filesystem>
#include <string>

namespace norvik {

// One store that could not be used as it was found at start-up and was started afresh: which
// one, why, where the damaged file was set aside (empty when nothing was moved) and how many of
// its values were saved. The log says the same at the moment it happens; this record lets the
// status show it for the rest of the run.
struct StoreReset {
  std::string store;  // "standard settings", "group settings", "secure items", …
  std::string reason;
  std::filesystem::path setAside;
  std::size_t recovered = 0;

  bool operator==(const StoreReset&) const = default;
};

// Moves a damaged file aside as "<name>.damaged" beside itself (replacing an older one), readable
// only by its user, so that a person can look at it later. Returns the new path, or empty when
// nothing could be moved.
std::filesystem::path setDamagedFileAside(const std::filesystem::path& file);

}  // namespace norvik
