#include "update/verified_download.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/text.h"
#include "update/file_signature.h"
#include "update/update_texts.h"

namespace norvik {
namespace {

namespace texts = update_texts;

InstallFailure failure(std::string_view userMessage, std::string detail) {
  return InstallFailure{std::string(userMessage), std::move(detail)};
}

// The URL the download may use: http is upgraded, anything else is refused.
std::expected<std::string, std::string> downloadURL(std::string_view url) {
  const auto trimmed = trimWhitespace(url);
  if (trimmed.starts_with("https://")) return std::string(trimmed);
  if (trimmed.starts_with("http://")) return "https://" + std::string(trimmed.substr(7));
  return std::unexpected(fmt::format("\"{}\" is not an https URL", utf8Prefix(trimmed, 200)));
}

}  // namespace

std::filesystem::path updateTemporaryDirectory(const std::filesystem::path& configured) {
  if (!configured.empty()) return configured;
  std::error_code ec;
  auto dir = std::filesystem::temp_directory_path(ec);
  return ec ? std::filesystem::path("/tmp") : dir;
}

VerifiedDownload::VerifiedDownload(EventLoop& loop, FileDownloader& downloader, Log& log)
    : loop_(loop), downloader_(downloader), log_(log) {}

VerifiedDownload::~VerifiedDownload() {
  download_.cancel();
  removeFile();
}

void VerifiedDownload::removeFile() {
  std::error_code ec;
  if (!file_.empty()) std::filesystem::remove(file_, ec);
  file_.clear();
}

void VerifiedDownload::start(const UpdateSource& source, const Settings& settings,
                             std::function<void(DownloadProgress)> progress, Completion completion) {
  source_ = source;
  key_ = settings.ed25519PublicKey;
  completion_ = std::move(completion);
  removeFile();

  auto url = downloadURL(source_.url);
  if (!url) return finish(std::unexpected(failure(texts::kDownloadFailed, url.error())));

  // The file is made here, with a name nobody can predict, before anything is written into it.
  std::string pattern =
      (updateTemporaryDirectory(settings.temporaryDirectory) / ("Norvik-update-XXXXXX" + settings.suffix)).string();
  const int fd = ::mkstemps(pattern.data(), static_cast<int>(settings.suffix.size()));
  if (fd < 0) {
    return finish(std::unexpected(
        failure(texts::kDownloadNotSaved, fmt::format("mkstemps {}: {}", pattern, std::strerror(errno)))));
  }
  ::close(fd);
  file_ = pattern;

  log_.write("[Update] msi: скачивание");
  if (progress) progress(DownloadProgress{0, source_.expectedLength});
  DownloadRequest request{*url, file_, settings.stallTimeout, source_.expectedLength};
  download_ = downloader_.download(
      std::move(request),
      [weak = weakFactory_.weak(), progress = std::move(progress)](DownloadProgress p) {
        auto self = weak.lock();
        if (!self || !progress) return;
        // Before the server's headers arrive the total is the feed's word for it.
        if (!p.total) p.total = self->source_.expectedLength;
        progress(p);
      },
      [weak = weakFactory_.weak()](DownloadResult result) {
        if (auto self = weak.lock()) self->onDownloaded(std::move(result));
      });
}

void VerifiedDownload::onDownloaded(DownloadResult result) {
  download_ = {};
  if (!result) {
    const DownloadError& e = result.error();
    switch (e.kind) {
      case DownloadErrorKind::cancelled:
        return finish(std::unexpected(failure(texts::kCancelled, "the download was cancelled")));
      case DownloadErrorKind::file:
        return finish(std::unexpected(failure(texts::kDownloadNotSaved, e.message)));
      case DownloadErrorKind::tooLarge:
        return finish(
            std::unexpected(failure(texts::kFileDamaged, "download larger than the feed says: " + e.message)));
      case DownloadErrorKind::network:
      case DownloadErrorKind::httpStatus:
      default:
        return finish(std::unexpected(failure(texts::kDownloadFailed, e.message)));
    }
  }
  if (source_.expectedLength && result->bytes != *source_.expectedLength) {
    return finish(std::unexpected(failure(texts::kFileDamaged, fmt::format("downloaded {} bytes, the feed says {}",
                                                                           result->bytes, *source_.expectedLength))));
  }
  if (!source_.edSignature) {
    if (source_.signatureRequired) {
      return finish(std::unexpected(failure(texts::kFileDamaged, "the feed item carries no Ed25519 signature")));
    }
    return finish({});
  }
  if (!key_) {
    return finish(std::unexpected(
        failure(texts::kCouldNotUpdate, "the download is signed, but no Ed25519 public key is provisioned")));
  }
  // Hashing a large file takes a while: off the loop.
  runBlockingThenReply(
      loop_,
      [file = file_, signature = *source_.edSignature, key = *key_]() -> std::expected<void, InstallFailure> {
        auto verified = verifyEd25519FileSignature(file, signature, key);
        if (!verified) return std::unexpected(failure(texts::kFileDamaged, "Ed25519 signature: " + verified.error()));
        return {};
      },
      [weak = weakFactory_.weak()](std::expected<void, InstallFailure> checked) {
        if (auto self = weak.lock()) self->finish(std::move(checked));
      });
}

void VerifiedDownload::finish(std::expected<void, InstallFailure> result) {
  if (auto completion = std::move(completion_)) completion(std::move(result));
}

}  // namespace norvik
