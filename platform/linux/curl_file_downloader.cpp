#include "platform/linux/curl_file_downloader.h"

#include <cerrno>
#include <cstring>
#include <curl/curl.h>
#include <fcntl.h>
#include <mutex>
#include <openssl/x509_vfy.h>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/files.h"
#include "platform/linux/curl_support.h"

namespace norvik {
namespace {

using SteadyClock = std::chrono::steady_clock;
constexpr auto kProgressInterval = std::chrono::milliseconds(100);

// State of one transfer, touched only by the worker that runs it.
struct DownloadTransfer {
  EventLoop* loop = nullptr;
  std::shared_ptr<DownloadProgressHandler> progress;
  std::shared_ptr<std::atomic<bool>> cancelled;
  int fd = -1;
  std::optional<std::uint64_t> maxBytes;
  std::uint64_t received = 0;
  std::optional<std::uint64_t> total;
  bool tooLarge = false;
  int writeErrno = 0;
  SteadyClock::time_point lastReport{};

  void report() {
    lastReport = SteadyClock::now();
    if (!*progress) return;
    loop->post([progress = progress, p = DownloadProgress{received, total}] { (*progress)(p); });
  }
};

size_t onDownloadBody(char* data, size_t size, size_t count, void* userData) {
  auto* t = static_cast<DownloadTransfer*>(userData);
  const size_t n = size * count;
  if (t->maxBytes && t->received + n > *t->maxBytes) {
    t->tooLarge = true;
    return 0;  // aborts the transfer
  }
  size_t written = 0;
  while (written < n) {
    const ssize_t w = ::write(t->fd, data + written, n - written);
    if (w < 0) {
      if (errno == EINTR) continue;
      t->writeErrno = errno;
      return 0;
    }
    written += static_cast<size_t>(w);
  }
  t->received += n;
  return n;
}

int onProgress(void* userData, curl_off_t dlTotal, curl_off_t, curl_off_t, curl_off_t) {
  auto* t = static_cast<DownloadTransfer*>(userData);
  if (t->cancelled->load()) return 1;  // aborts with CURLE_ABORTED_BY_CALLBACK
  if (dlTotal > 0) t->total = static_cast<std::uint64_t>(dlTotal);
  if (SteadyClock::now() - t->lastReport >= kProgressInterval) t->report();
  return 0;
}

DownloadError networkFailure(CURL* curl, CURLcode code, const char* detail) {
  NetworkError error = curl_support::classifyFailure(curl, code, detail);
  return DownloadError{DownloadErrorKind::network, error.message, error, 0};
}

DownloadResult performDownload(const DownloadRequest& request, const std::string& extraCaPem, DownloadTransfer& t) {
  const int fd = ::open(request.destination.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    const Error e = posixError(errno, "open", request.destination);
    return std::unexpected(DownloadError{DownloadErrorKind::file, e.message, std::nullopt, 0});
  }
  t.fd = fd;

  CURL* curl = curl_easy_init();
  if (!curl) {
    ::close(fd);
    return std::unexpected(DownloadError{DownloadErrorKind::network, "curl_easy_init failed", std::nullopt, 0});
  }
  char errorText[CURL_ERROR_SIZE] = {};
  const long stallMs = std::max<long>(1000, static_cast<long>(request.stallTimeout.count()));
  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_support::configureTrust(curl, extraCaPem);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);  // an error page never lands in the file
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, stallMs);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, (stallMs + 999) / 1000);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &onDownloadBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &t);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &onProgress);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &t);

  const CURLcode code = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  DownloadResult result = DownloadedFile{request.destination, t.received};
  if (t.tooLarge) {
    result = std::unexpected(DownloadError{
        DownloadErrorKind::tooLarge, fmt::format("more than {} bytes", request.maxBytes.value_or(0)), std::nullopt, 0});
  } else if (t.writeErrno != 0) {
    result = std::unexpected(DownloadError{
        DownloadErrorKind::file, posixError(t.writeErrno, "write", request.destination).message, std::nullopt, 0});
  } else if (code == CURLE_ABORTED_BY_CALLBACK && t.cancelled->load()) {
    result = std::unexpected(DownloadError{DownloadErrorKind::cancelled, "cancelled", std::nullopt, 0});
  } else if (code == CURLE_HTTP_RETURNED_ERROR || (code == CURLE_OK && (status < 200 || status > 299))) {
    result = std::unexpected(DownloadError{DownloadErrorKind::httpStatus, fmt::format("HTTP status {}", status),
                                           std::nullopt, static_cast<int>(status)});
  } else if (code != CURLE_OK) {
    result = std::unexpected(networkFailure(curl, code, errorText));
  }
  curl_easy_cleanup(curl);
  if (::close(fd) != 0 && result) {
    result = std::unexpected(DownloadError{DownloadErrorKind::file,
                                           posixError(errno, "close", request.destination).message, std::nullopt, 0});
  }
  return result;
}

}  // namespace

std::expected<std::unique_ptr<CurlFileDownloader>, Error> CurlFileDownloader::create(EventLoop& loop, Options options) {
  curl_support::initialiseOnce();
  auto pem = std::make_shared<std::string>();
  if (options.extraCaFile) {
    auto text = curl_support::loadExtraCaPem(*options.extraCaFile);
    if (!text) return std::unexpected(text.error());
    *pem = std::move(*text);
  }
  return std::unique_ptr<CurlFileDownloader>(new CurlFileDownloader(loop, std::move(pem)));
}

DownloadHandle CurlFileDownloader::download(DownloadRequest request, DownloadProgressHandler progress,
                                            DownloadCompletion completion) {
  auto cancelled = std::make_shared<std::atomic<bool>>(false);
  auto progressHandler = std::make_shared<DownloadProgressHandler>(std::move(progress));
  loop_.runBlocking([loop = &loop_, pem = extraCaPem_, request = std::move(request), progressHandler, cancelled,
                     completion = std::move(completion)]() mutable {
    DownloadTransfer transfer;
    transfer.loop = loop;
    transfer.progress = progressHandler;
    transfer.cancelled = cancelled;
    transfer.maxBytes = request.maxBytes;
    DownloadResult result = performDownload(request, *pem, transfer);
    if (result) transfer.report();  // the final figures, before the completion
    loop->post(
        [completion = std::move(completion), result = std::move(result)]() mutable { completion(std::move(result)); });
  });
  return DownloadHandle(std::move(cancelled));
}

}  // namespace norvik
