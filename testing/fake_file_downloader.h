#pragma once

#include <expected>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/event_loop.h"
#include "platform/file_downloader.h"

namespace norvik::testing {

// A file downloader that serves scripted bodies on loop time. The body is written to the real
// destination file chunk by chunk, `chunkInterval` apart, with a progress report after each chunk;
// cancellation and `maxBytes` act between chunks as they do in the real adapter. URLs without a
// script answer HTTP 404. Every request is recorded.
class FakeFileDownloader final : public FileDownloader {
 public:
  using Script = std::function<std::expected<std::string, DownloadError>(const DownloadRequest&)>;

  explicit FakeFileDownloader(EventLoop& loop) : loop_(loop) {}

  DownloadHandle download(DownloadRequest request, DownloadProgressHandler progress,
                          DownloadCompletion completion) override;

  void serve(const std::string& url, std::string body);
  void fail(const std::string& url, DownloadError error);
  // Answers every URL that has no body or failure of its own.
  void setFallback(Script script) { fallback_ = std::move(script); }
  void setChunking(std::size_t chunkBytes, EventLoop::Duration chunkInterval);
  // Whether progress reports carry the total, as a server sending Content-Length does.
  void setReportsTotal(bool reports) { reportsTotal_ = reports; }

  [[nodiscard]] const std::vector<DownloadRequest>& requests() const { return requests_; }

 private:
  struct Transfer;
  void step(const std::shared_ptr<Transfer>& transfer);

  EventLoop& loop_;
  std::map<std::string, std::expected<std::string, DownloadError>> bodies_;
  Script fallback_;
  std::size_t chunkBytes_ = 64 * 1024;
  EventLoop::Duration chunkInterval_ = std::chrono::milliseconds(50);
  bool reportsTotal_ = true;
  std::vector<DownloadRequest> requests_;
};

}  // namespace norvik::testing
