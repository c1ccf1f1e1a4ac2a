#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/defaults.h"
#include "platform/log.h"

namespace norvik {

// The transport profile ("net_profile" of the main configuration), kept as received: its keys are
// the tunnel's business. The last profile survives restarts in the standard defaults, so that a
// change is noticed across runs, and its key/value text goes to the tunnel with the extras.
class NetProfileStore {
 public:
  static constexpr std::string_view kStoredKey = "netProfile.last";

  NetProfileStore(Defaults& defaults, Log& log);

  // Takes the profile of a new main configuration (nothing when it carries none). Logs
  // "[netProfile] access=" with the profile's access value, and "net_profile changed" when it
  // differs from the last one.
  void update(const std::optional<nlohmann::json>& profile);

  [[nodiscard]] const std::optional<nlohmann::json>& current() const { return current_; }
  // One "key=value" line per top-level key, in key order; strings as they are, other values as
  // JSON. Empty without a profile.
  [[nodiscard]] std::string keyValueText() const;

 private:
  Defaults& defaults_;
  Log& log_;
  std::optional<nlohmann::json> current_;
};

}  // namespace norvik
