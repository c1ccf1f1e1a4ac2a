#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/bytes.h"
#include "platform/event_loop.h"
#include "platform/file_downloader.h"
#include "platform/log.h"
#include "platform/weak_ptr_factory.h"
#include "update/update_installer.h"

namespace norvik {

// The first step of every install: the release is downloaded into a fresh file that nobody can
// predict ("Norvik-update-XXXXXX" and the file's suffix, 0600, in the temporary directory), its
// size must equal the feed's length (a longer transfer is cut off as soon as it passes it), and a
// feed signature is verified off the loop against the provisioned Ed25519 key. Nothing else opens
// the file before this has passed.
//
// Threading: a main-loop object; the completion runs on the loop and is dropped if this is gone.
// The file stays until `removeFile()` (or destruction).
class VerifiedDownload {
 public:
  struct Settings {
    std::filesystem::path temporaryDirectory{};  // empty: the system's ($TMPDIR, else /tmp)
    std::string suffix;                          // ".dmg", ".deb"
    std::optional<Bytes> ed25519PublicKey{};
    std::chrono::milliseconds stallTimeout{std::chrono::seconds(60)};
  };
  using Completion = std::move_only_function<void(std::expected<void, InstallFailure>)>;

  VerifiedDownload(EventLoop& loop, FileDownloader& downloader, Log& log);
  VerifiedDownload(const VerifiedDownload&) = delete;
  VerifiedDownload& operator=(const VerifiedDownload&) = delete;
  ~VerifiedDownload();

  void start(const UpdateSource& source, const Settings& settings, std::function<void(DownloadProgress)> progress,
             Completion completion);
  void cancel() { download_.cancel(); }
  [[nodiscard]] const std::filesystem::path& file() const { return file_; }
  void removeFile();

 private:
  void onDownloaded(DownloadResult result);
  void finish(std::expected<void, InstallFailure> result);

  EventLoop& loop_;
  FileDownloader& downloader_;
  Log& log_;
  UpdateSource source_;
  std::optional<Bytes> key_;
  Completion completion_;
  DownloadHandle download_;
  std::filesystem::path file_;

  WeakPtrFactory<VerifiedDownload> weakFactory_{this};
};

// The temporary directory of `configured` (empty: $TMPDIR, else /tmp).
[[nodiscard]] std::filesystem::path updateTemporaryDirectory(const std::filesystem::path& configured);

}  // namespace norvik
