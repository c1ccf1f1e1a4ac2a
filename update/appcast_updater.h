#pragma once

#include <chrono>
#include <expected>
#include <functional>
#include <optional>
#include <string>

#include "platform/event_loop.h"
#include "platform/http_transport.h"
#include "platform/weak_ptr_factory.h"
#include "update/appcast.h"

namespace norvik {

// What one look at the feed found.
struct AppcastCheckResult {
  std::size_t itemCount = 0;
  std::optional<AppcastItem> update;  // the newest item for us, when there is one
  std::vector<std::string> skipped;   // items that could not be read, with reasons
};

enum class AppcastFailureKind {
  noConnection,  // the feed host did not answer (time-out, refused, unknown host, TLS)
  server,        // it answered with an error status
  malformed,     // it answered with something that is not a feed
};

struct AppcastFailure {
  AppcastFailureKind kind = AppcastFailureKind::noConnection;
  std::string detail;
};

using AppcastResult = std::expected<AppcastCheckResult, AppcastFailure>;
using AppcastCompletion = std::move_only_function<void(AppcastResult)>;

struct AppcastUpdaterSettings {
  std::string currentVersion;
  bool betaChannel = false;
  std::optional<std::string> systemVersion{};
};

// The appcast updater the AppUpdater drives: it reads a feed and says which release, if any, is
// for us. The AppUpdater chooses the feed URL (main or mirror) for each check, schedules the
// checks and installs what is found. On macOS this is the system updater framework; on Linux it
// is FeedAppcastUpdater.
//
// Threading: main loop. One check at a time: check() while busy() completes at once with a
// failure and does not disturb the running check.
class AppcastUpdater {
 public:
  virtual ~AppcastUpdater() = default;

  // Prepares the updater; an error says why it cannot run (the AppUpdater then goes without it).
  [[nodiscard]] virtual std::expected<void, std::string> start(const AppcastUpdaterSettings& settings) = 0;
  [[nodiscard]] virtual bool busy() const = 0;
  virtual void check(const std::string& feedURL, AppcastCompletion completion) = 0;
};

// Our own appcast client: an HTTPS GET of the feed (through the platform transport, libcurl on
// Linux), the document read by parseAppcast, the item picked by bestUpdate.
class FeedAppcastUpdater final : public AppcastUpdater {
 public:
  static constexpr std::chrono::seconds kFeedTimeout{20};
  static constexpr std::size_t kMaxFeedBytes = 4u << 20;

  explicit FeedAppcastUpdater(HttpTransport& transport) : transport_(transport) {}

  [[nodiscard]] std::expected<void, std::string> start(const AppcastUpdaterSettings& settings) override;
  [[nodiscard]] bool busy() const override { return busy_; }
  void check(const std::string& feedURL, AppcastCompletion completion) override;

 private:
  void onFeed(HttpResult result, AppcastCompletion completion);

  HttpTransport& transport_;
  std::optional<AppcastUpdaterSettings> settings_;
  bool busy_ = false;

  WeakPtrFactory<FeedAppcastUpdater> weakFactory_{this};
};

}  // namespace norvik
