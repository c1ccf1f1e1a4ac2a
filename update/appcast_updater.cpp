#include "update/appcast_updater.h"

#include <fmt/format.h>

namespace norvik {

std::expected<void, std::string> FeedAppcastUpdater::start(const AppcastUpdaterSettings& settings) {
  if (settings.currentVersion.empty()) return std::unexpected("the application's version is unknown");
  settings_ = settings;
  return {};
}

void FeedAppcastUpdater::check(const std::string& feedURL, AppcastCompletion completion) {
  if (!settings_) return completion(std::unexpected(AppcastFailure{AppcastFailureKind::noConnection, "not started"}));
  if (busy_) return completion(std::unexpected(AppcastFailure{AppcastFailureKind::noConnection, "a check is running"}));
  busy_ = true;
  HttpRequest request;
  request.method = "GET";
  request.url = feedURL.starts_with("http://") ? "https://" + feedURL.substr(7) : feedURL;
  request.headers = {{"Accept", "application/rss+xml, application/xml;q=0.9, */*;q=0.1"}};
  request.timeout = kFeedTimeout;
  transport_.send(std::move(request),
                  [weak = weakFactory_.weak(), completion = std::move(completion)](HttpResult result) mutable {
                    if (auto self = weak.lock()) self->onFeed(std::move(result), std::move(completion));
                  });
}

void FeedAppcastUpdater::onFeed(HttpResult result, AppcastCompletion completion) {
  busy_ = false;
  if (!result) {
    return completion(std::unexpected(AppcastFailure{AppcastFailureKind::noConnection, result.error().message}));
  }
  if (result->status < 200 || result->status > 299) {
    return completion(
        std::unexpected(AppcastFailure{AppcastFailureKind::server, fmt::format("HTTP status {}", result->status)}));
  }
  if (result->body.size() > kMaxFeedBytes) {
    return completion(std::unexpected(
        AppcastFailure{AppcastFailureKind::malformed,
                       fmt::format("the feed has {} bytes, more than a feed can", result->body.size())}));
  }
  auto appcast = parseAppcast(result->body);
  if (!appcast) return completion(std::unexpected(AppcastFailure{AppcastFailureKind::malformed, appcast.error()}));
  AppcastCheckResult found;
  found.itemCount = appcast->items.size() + appcast->skipped.size();
  found.skipped = std::move(appcast->skipped);
  found.update = bestUpdate(*appcast, {settings_->currentVersion, settings_->betaChannel, settings_->systemVersion});
  completion(std::move(found));
}

}  // namespace norvik
