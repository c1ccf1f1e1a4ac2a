#pragma once

#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/log.h"
#include "platform/tunnel_service.h"

namespace norvik {

// The system's tunnel preferences: the saved configurations with the service's identifiers and
// revisions. Kept in a file when one is given (0600, written atomically); a damaged file is moved
// aside as ".damaged" and the store starts empty. Shared by the tunnel services, so that a machine
// that changes from one to the other keeps its configuration.
//
// Threading: the owning service's (the main loop).
class TunnelPreferencesStore {
 public:
  TunnelPreferencesStore(Log& log, std::optional<std::filesystem::path> file);

  [[nodiscard]] const std::vector<TunnelConfiguration>& configurations() const { return configurations_; }
  [[nodiscard]] TunnelConfiguration* find(const std::string& identifier);
  [[nodiscard]] const TunnelConfiguration* find(const std::string& identifier) const;

  // Creates (empty identifier) or updates a configuration and answers the stored copy. Fails with
  // configurationInvalid for an unknown identifier and configurationStale for an older revision.
  [[nodiscard]] std::expected<TunnelConfiguration, Error> save(TunnelConfiguration configuration);
  [[nodiscard]] std::expected<void, Error> remove(const std::string& identifier);
  // Changes a stored configuration as the system itself would (a new revision) and persists it.
  void update(const std::string& identifier, const std::function<void(TunnelConfiguration&)>& change);

 private:
  void persist();
  void restore();

  Log& log_;
  std::optional<std::filesystem::path> file_;
  std::vector<TunnelConfiguration> configurations_;
  std::uint64_t nextIdentifier_ = 1;
};

// True when the system would bring this configuration's tunnel back up by itself.
[[nodiscard]] bool connectsOnDemand(const TunnelConfiguration& configuration);

}  // namespace norvik
