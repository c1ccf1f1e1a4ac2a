#pragma once

#include <cstddef>
#include <expected>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "backend/network_service.h"
#include "platform/defaults.h"
#include "platform/error.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/published.h"
#include "platform/weak_ptr_factory.h"
#include "routing/geoip_payload.h"

namespace norvik {

inline constexpr std::string_view kGeoIPCacheFileName = "geoip_cache.txt";
inline constexpr std::string_view kGeoIPTemporaryFileName = "geoip_cache.tmp";
// A list with fewer entries is taken for a broken one: the smart mode would send most Russian
// destinations through the tunnel.
inline constexpr std::size_t kGeoIPMinimumCidrCount = 1000;

enum class GeoIPWriteStatus { written, tooFewCidrs, failed };

struct GeoIPWriteOutcome {
  GeoIPWriteStatus status = GeoIPWriteStatus::failed;
  std::optional<Error> error;  // set when failed
};

// Writes an accepted list as "geoip_cache.txt" in `directory` (made when missing): through
// "geoip_cache.tmp", fsync and one rename, so that the tunnel reads either the old file or the
// whole new one whatever happens on the way. Refuses a list of fewer than 1000 CIDRs without
// touching anything. Blocking; runs off the loop.
[[nodiscard]] GeoIPWriteOutcome writeGeoIPCacheFile(const std::filesystem::path& directory, const GeoIPList& list);

// Keeps the smart mode's list of Russian address ranges in the group container's "geodata"
// directory, where the tunnel reads it. Each main configuration response announces a version;
// a version that differs from the cached one is downloaded, judged and written. A version that
// failed in any way is not tried again during this run, while a newer one is.
//
// Threading: a main-loop object; the download's judging and the write run off the loop. The
// defaults, the backend client and the log are lent and must outlive it.
class GeoIPCache {
 public:
  static constexpr std::string_view kBackendVersionKey = "geodata.geoip_cache.backendVersion";
  // Whether the cached file has reached the tunnel since it was written: reset here with every
  // new file, set by the tunnel extras snapshot that hands the file's path to an install.
  static constexpr std::string_view kPushedToExtensionKey = "geodata.geoip_cache.pushedToExtension";

  GeoIPCache(EventLoop& loop, Defaults& groupDefaults, NetworkService& network, std::filesystem::path geodataDirectory,
             Log& log);
  GeoIPCache(const GeoIPCache&) = delete;
  GeoIPCache& operator=(const GeoIPCache&) = delete;

  [[nodiscard]] std::filesystem::path cacheFile() const { return directory_ / kGeoIPCacheFileName; }
  // The version check for an announced version; downloads when it is new.
  void checkVersion(const std::string& version);
  [[nodiscard]] bool isDownloading() const { return downloading_.has_value(); }
  [[nodiscard]] const std::set<std::string>& failedVersions() const { return failedVersions_; }

 private:
  struct Processed;

  void onResponse(const NetworkService::MainResponse& response);
  void onDownloaded(std::string version, int attempt, std::expected<std::string, APIError> body);
  void onProcessed(const std::string& version, int attempt, Processed processed);
  void finish(const std::string& version, bool succeeded);
  [[nodiscard]] std::optional<std::string> storedVersion() const;

  EventLoop& loop_;
  Defaults& defaults_;
  NetworkService& network_;
  std::filesystem::path directory_;
  Log& log_;

  std::set<std::string> failedVersions_;  // this run only
  std::optional<std::string> downloading_;
  std::optional<std::string> announcedMeanwhile_;
  Subscription responseSubscription_;

  WeakPtrFactory<GeoIPCache> weakFactory_{this};
};

}  // namespace norvik
