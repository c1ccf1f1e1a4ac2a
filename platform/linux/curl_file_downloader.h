#pragma once

#include <expected>
#include <filesystem>
#include <memory>
#include <optional>

#include "platform/error.h"
#include "platform/event_loop.h"
#include "platform/file_downloader.h"

namespace norvik {

// Downloads on libcurl, written straight to the destination file as the bytes arrive. https only
// (redirects too), peer and host verification on, and the optional PEM file adds CAs to the
// system's trust store exactly as CurlHttpTransport does. Each download occupies one of the loop's
// workers for its duration.
class CurlFileDownloader final : public FileDownloader {
 public:
  struct Options {
    std::optional<std::filesystem::path> extraCaFile;
  };

  // Fails when the extra CA file cannot be read or holds no certificate.
  [[nodiscard]] static std::expected<std::unique_ptr<CurlFileDownloader>, Error> create(EventLoop& loop,
                                                                                        Options options);

  DownloadHandle download(DownloadRequest request, DownloadProgressHandler progress,
                          DownloadCompletion completion) override;

 private:
  CurlFileDownloader(EventLoop& loop, std::shared_ptr<const std::string> extraCaPem)
      : loop_(loop), extraCaPem_(std::move(extraCaPem)) {}

  EventLoop& loop_;
  std::shared_ptr<const std::string> extraCaPem_;  // empty: the system's store alone
};

}  // namespace norvik
