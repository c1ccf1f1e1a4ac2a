#include "routing/geoip_cache.h"

#include <algorithm>
#include <cassert>
#include <system_error>
#include <utility>

#include "platform/files.h"
#include "platform/text.h"

namespace norvik {
namespace {

constexpr std::size_t kDumpCharacters = 400;

std::string orNone(const std::optional<bool>& value) {
  if (!value) return "none";
  return *value ? "true" : "false";
}

}  // namespace

GeoIPWriteOutcome writeGeoIPCacheFile(const std::filesystem::path& directory, const GeoIPList& list) {
  if (list.cidrCount < kGeoIPMinimumCidrCount) return {GeoIPWriteStatus::tooFewCidrs, std::nullopt};
  if (auto made = makeDirectories(directory); !made) return {GeoIPWriteStatus::failed, made.error()};
  auto written =
      writeFileAtomically(directory / kGeoIPCacheFileName, list.text, 0644, std::string(kGeoIPTemporaryFileName));
  if (!written) return {GeoIPWriteStatus::failed, written.error()};
  return {GeoIPWriteStatus::written, std::nullopt};
}

// What the worker made of a body: the judgement, and the write when there was one.
struct GeoIPCache::Processed {
  std::expected<GeoIPList, GeoIPPayloadError> payload;
  std::optional<GeoIPWriteOutcome> write;
  std::string dump;  // the body's start, for a JSON body without the list
  std::size_t bodyBytes = 0;
};

GeoIPCache::GeoIPCache(EventLoop& loop, Defaults& groupDefaults, NetworkService& network,
                       std::filesystem::path geodataDirectory, Log& log)
    : loop_(loop), defaults_(groupDefaults), network_(network), directory_(std::move(geodataDirectory)), log_(log) {
  if (const auto& response = network_.currentResponse().get()) onResponse(response);
  responseSubscription_ =
      network_.currentResponse().subscribe([this](const NetworkService::MainResponse& r) { onResponse(r); });
}

void GeoIPCache::onResponse(const NetworkService::MainResponse& response) {
  assert(loop_.isLoopThread());
  if (!response) return;
  const MainConfig& main = response->main;
  log_.format("[GeoIP] backend response: geo_bypass_enabled={}, geoip_version={}", orNone(main.geoBypass()),
              main.geoipVersion.value_or("none"));
  if (main.geoipVersion && !main.geoipVersion->empty()) checkVersion(*main.geoipVersion);
}

std::optional<std::string> GeoIPCache::storedVersion() const {
  // A version whose file is gone describes nothing the tunnel could read: download again.
  std::error_code ec;
  if (!std::filesystem::is_regular_file(cacheFile(), ec)) return std::nullopt;
  return defaults_.stringValue(kBackendVersionKey);
}

void GeoIPCache::checkVersion(const std::string& version) {
  assert(loop_.isLoopThread());
  if (downloading_) {
    // One download at a time; the latest announcement is looked at when this one ends.
    if (*downloading_ != version) announcedMeanwhile_ = version;
    return;
  }
  if (failedVersions_.contains(version)) {
    log_.format("[GeoIP] version {} already failed this session — skip", version);
    return;
  }
  const auto stored = storedVersion();
  if (stored == version) {
    log_.format("[GeoIP] version unchanged ({})", version);
    return;
  }
  log_.format("[GeoIP] version changed (stored={}, new={}) — downloading /geoip", stored.value_or("none"), version);
  downloading_ = version;
  network_.fetchGeoIP([weak = weakFactory_.weak(), version](auto download) mutable {
    auto* self = weak.lock();
    if (!self) return;
    if (!download) return self->onDownloaded(version, 0, std::unexpected(std::move(download.error())));
    self->onDownloaded(version, download->attempt, std::move(download->body));
  });
}

void GeoIPCache::onDownloaded(std::string version, int attempt, std::expected<std::string, APIError> body) {
  if (!body) {
    log_.format("[GeoIP] download of version {} failed: {} {}", version, body.error().code, body.error().message);
    return finish(version, false);
  }
  // Judging 50 000 lines and writing them with fsync is work for a worker, not for the loop.
  auto work = [directory = directory_, body = std::move(*body)]() {
    Processed processed{acceptGeoIPPayload(body), std::nullopt, {}, body.size()};
    if (processed.payload) {
      processed.write = writeGeoIPCacheFile(directory, *processed.payload);
      processed.payload->text = {};  // written; the loop needs only the counts
    } else if (processed.payload.error().reason == GeoIPRejection::jsonWithoutCidrs) {
      processed.dump = utf8Prefix(repairUtf8(std::string_view(body).substr(0, kDumpCharacters * 4)), kDumpCharacters);
      std::ranges::replace_if(
          processed.dump, [](char c) { return c == '\n' || c == '\r'; }, ' ');  // one log line
    }
    return processed;
  };
  auto reply = [weak = weakFactory_.weak(), version = std::move(version), attempt](Processed processed) {
    if (auto self = weak.lock()) self->onProcessed(version, attempt, std::move(processed));
  };
  runBlockingThenReply(loop_, std::move(work), std::move(reply));
}

void GeoIPCache::onProcessed(const std::string& version, int attempt, Processed processed) {
  if (!processed.payload) {
    const GeoIPPayloadError& error = processed.payload.error();
    switch (error.reason) {
      case GeoIPRejection::jsonWithoutCidrs:
        log_.format("[/geoip] attempt {}: JSON response ({} bytes) без CIDR — dump: {}", attempt, error.bytes,
                    processed.dump);
        break;
      case GeoIPRejection::tooSmall:
      default:
        if (error.format == GeoIPPayloadFormat::plainText) {
          log_.format("[/geoip] fetched {}KB plain-text on attempt {}", error.bytes / 1024, attempt);
        }
        log_.format(
            "[GeoIP] applyBackendData rejected payload (backend returned {} bytes, expected 400KB+ plaintext CIDR "
            "list)",
            error.bytes);
        break;
    }
    return finish(version, false);
  }

  const GeoIPList& list = *processed.payload;
  log_.format("[/geoip] fetched {}KB {} on attempt {}", processed.bodyBytes / 1024,
              list.format == GeoIPPayloadFormat::plainText ? "plain-text" : "JSON envelope", attempt);
  if (list.malformedCount > 0) {
    log_.format("[GeoIP] skipped {} lines that are no CIDR (first: \"{}\")", list.malformedCount, list.firstMalformed);
  }
  const GeoIPWriteOutcome& write = *processed.write;
  switch (write.status) {
    case GeoIPWriteStatus::written:
      log_.format("[GeoIP][cache] wrote {} CIDRs, backendVersion={}", list.cidrCount, version);
      defaults_.setString(kBackendVersionKey, version);
      // A new file has not reached the tunnel yet.
      defaults_.setBool(kPushedToExtensionKey, false);
      log_.format("[GeoIP] cache refreshed: {} CIDRs, backendVersion={}", list.cidrCount, version);
      return finish(version, true);
    case GeoIPWriteStatus::tooFewCidrs:
      log_.format("[GeoIP][cache] reject: only {} CIDRs (backendVersion={}) — keeping old cache", list.cidrCount,
                  version);
      return finish(version, false);
    case GeoIPWriteStatus::failed:
    default:
      log_.format("[GeoIP][cache] atomic write failed: {}",
                  write.error ? write.error->description() : std::string("unknown error"));
      return finish(version, false);
  }
}

void GeoIPCache::finish(const std::string& version, bool succeeded) {
  if (!succeeded) failedVersions_.insert(version);
  downloading_.reset();
  if (auto next = std::exchange(announcedMeanwhile_, std::nullopt); next && *next != version) checkVersion(*next);
}

}  // namespace norvik
