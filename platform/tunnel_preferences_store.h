#pragma once

#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/log.h"
#include "platform/store_reset.h"
#include "platform/tunnel_service.h"

namespace norvik {

// The system's tunnel preferences: the saved configurations with the service's identifiers and
// revisions. Kept in a file when one is given (0600, written atomically); a damaged file is moved
// aside as ".damaged" and the store starts empty. A change that cannot be written to the file
// fails with the system's reason (ENOSPC, EACCES, …) and the stored configurations stay as
// they were. Shared by the tunnel services, so that a machine
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
  // The change holds in memory even when the file cannot be written (the failure is answered).
  std::expected<void, Error> update(const std::string& identifier,
                                    const std::function<void(TunnelConfiguration&)>& change);
  // What had to be done to a damaged file at start, if anything.
  [[nodiscard]] const std::optional<StoreReset>& reset() const { return reset_; }

 private:
  [[nodiscard]] std::expected<void, Error> persist(const std::vector<TunnelConfiguration>& configurations,
                                                   std::uint64_t nextIdentifier);
  void restore();

  Log& log_;
  std::optional<std::filesystem::path> file_;
  std::vector<TunnelConfiguration> configurations_;
  std::uint64_t nextIdentifier_ = 1;
  std::optional<StoreReset> reset_;
};

// True when the system would bring this configuration's tunnel back up by itself.
[[nodiscard]] bool connectsOnDemand(const TunnelConfiguration& configuration);

}  // namespace norvik
