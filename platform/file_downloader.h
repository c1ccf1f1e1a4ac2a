#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/http_transport.h"

namespace norvik {

// A large file fetched over HTTPS straight into a file (an update's disk image): the body is never
// held in memory.
struct DownloadRequest {
  std::string url;                    // https only
  std::filesystem::path destination;  // created or truncated, mode 0600
  // The transfer fails when no byte arrives for this long (a large file has no total time limit).
  std::chrono::milliseconds stallTimeout{std::chrono::seconds(60)};
  // A body longer than this is cut off and reported as `tooLarge`, so that a bad server cannot
  // fill the disk.
  std::optional<std::uint64_t> maxBytes{};
};

struct DownloadProgress {
  std::uint64_t received = 0;
  std::optional<std::uint64_t> total{};  // from Content-Length, when the server sends it
  bool operator==(const DownloadProgress&) const = default;
};

enum class DownloadErrorKind {
  network,     // no answer, TLS, time-out: `network` says which
  httpStatus,  // the server answered with a status other than 2xx
  file,        // the destination could not be written
  tooLarge,    // more than `maxBytes`
  cancelled,
};

struct DownloadError {
  DownloadErrorKind kind = DownloadErrorKind::network;
  std::string message{};
  std::optional<NetworkError> network{};
  int httpStatus = 0;
};

struct DownloadedFile {
  std::filesystem::path path;
  std::uint64_t bytes = 0;
};

using DownloadResult = std::expected<DownloadedFile, DownloadError>;
using DownloadCompletion = std::move_only_function<void(DownloadResult)>;
using DownloadProgressHandler = std::function<void(const DownloadProgress&)>;

// Cancels one download. Copies refer to the same download; cancelling a finished one does nothing.
// The completion still runs once, with `cancelled`, unless the download had already finished.
class DownloadHandle {
 public:
  DownloadHandle() = default;
  explicit DownloadHandle(std::shared_ptr<std::atomic<bool>> cancelled) : cancelled_(std::move(cancelled)) {}

  void cancel() {
    if (cancelled_) cancelled_->store(true);
  }

 private:
  std::shared_ptr<std::atomic<bool>> cancelled_;
};

// Downloads files. TLS verification is always on, with the same extra CA as the HTTPS transport;
// redirects are followed to https locations only. Progress reports come on the main loop, a few
// per second at most and always one at the end; the completion comes on the main loop after the
// last progress report, exactly once. A partial file is left in place for the caller to remove.
class FileDownloader {
 public:
  virtual ~FileDownloader() = default;
  virtual DownloadHandle download(DownloadRequest request, DownloadProgressHandler progress,
                                  DownloadCompletion completion) = 0;
};

}  // namespace norvik
