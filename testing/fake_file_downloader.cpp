#include "testing/fake_file_downloader.h"

#include <fstream>

#include <fmt/format.h>

namespace norvik::testing {

struct FakeFileDownloader::Transfer {
  DownloadRequest request;
  DownloadProgressHandler progress;
  DownloadCompletion completion;
  std::shared_ptr<std::atomic<bool>> cancelled;
  std::string body;
  std::size_t sent = 0;
  std::ofstream file;

  void finish(DownloadResult result) {
    file.close();
    auto done = std::move(completion);
    done(std::move(result));
  }
};

void FakeFileDownloader::serve(const std::string& url, std::string body) { bodies_[url] = std::move(body); }

void FakeFileDownloader::fail(const std::string& url, DownloadError error) {
  bodies_[url] = std::unexpected(std::move(error));
}

void FakeFileDownloader::setChunking(std::size_t chunkBytes, EventLoop::Duration chunkInterval) {
  chunkBytes_ = std::max<std::size_t>(1, chunkBytes);
  chunkInterval_ = chunkInterval;
}

DownloadHandle FakeFileDownloader::download(DownloadRequest request, DownloadProgressHandler progress,
                                            DownloadCompletion completion) {
  requests_.push_back(request);
  auto transfer = std::make_shared<Transfer>();
  transfer->request = std::move(request);
  transfer->progress = std::move(progress);
  transfer->completion = std::move(completion);
  transfer->cancelled = std::make_shared<std::atomic<bool>>(false);
  DownloadHandle handle(transfer->cancelled);

  std::expected<std::string, DownloadError> body =
      std::unexpected(DownloadError{DownloadErrorKind::httpStatus, "HTTP status 404", std::nullopt, 404});
  if (auto it = bodies_.find(transfer->request.url); it != bodies_.end()) {
    body = it->second;
  } else if (fallback_) {
    body = fallback_(transfer->request);
  }
  if (!body) {
    loop_.postAfter(chunkInterval_,
                    [transfer, error = body.error()]() mutable { transfer->finish(std::unexpected(error)); });
    return handle;
  }
  transfer->body = std::move(*body);
  transfer->file.open(transfer->request.destination, std::ios::binary | std::ios::trunc);
  if (!transfer->file) {
    loop_.post([transfer] {
      transfer->finish(std::unexpected(DownloadError{
          DownloadErrorKind::file, fmt::format("open {}: cannot write", transfer->request.destination.string()),
          std::nullopt, 0}));
    });
    return handle;
  }
  loop_.postAfter(chunkInterval_, [this, transfer] { step(transfer); });
  return handle;
}

void FakeFileDownloader::step(const std::shared_ptr<Transfer>& transfer) {
  if (transfer->cancelled->load()) {
    transfer->finish(std::unexpected(DownloadError{DownloadErrorKind::cancelled, "cancelled", std::nullopt, 0}));
    return;
  }
  const std::size_t n = std::min(chunkBytes_, transfer->body.size() - transfer->sent);
  const auto& maxBytes = transfer->request.maxBytes;
  if (maxBytes && transfer->sent + n > *maxBytes) {
    transfer->finish(std::unexpected(
        DownloadError{DownloadErrorKind::tooLarge, fmt::format("more than {} bytes", *maxBytes), std::nullopt, 0}));
    return;
  }
  transfer->file.write(transfer->body.data() + transfer->sent, static_cast<std::streamsize>(n));
  transfer->file.flush();
  transfer->sent += n;
  if (transfer->progress) {
    std::optional<std::uint64_t> total;
    if (reportsTotal_) total = transfer->body.size();
    transfer->progress(DownloadProgress{transfer->sent, total});
  }
  if (transfer->sent < transfer->body.size()) {
    loop_.postAfter(chunkInterval_, [this, transfer] { step(transfer); });
    return;
  }
  transfer->finish(DownloadedFile{transfer->request.destination, transfer->sent});
}

}  // namespace norvik::testing
