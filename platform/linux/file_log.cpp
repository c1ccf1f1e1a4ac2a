#include "platform/linux/file_log.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <unistd.h>

#include <fmt/chrono.h>

#include "platform/files.h"

namespace norvik {
namespace {

std::string timestamp() {
  const auto now = std::chrono::system_clock::now();
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) % 1000;
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03}", fmt::localtime(std::chrono::system_clock::to_time_t(now)),
                     ms.count());
}

// Writes a whole line with one call and drops it if the stream cannot take it (a closed stderr, a
// full disk): a log has nowhere to report its own failure, and must never end the process.
void putLine(std::FILE* stream, const std::string& text) { (void)std::fwrite(text.data(), 1, text.size(), stream); }

std::FILE* openAppend(const std::filesystem::path& path) {
  auto opened = openRegularFile(path, O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (!opened) {
    errno = opened.error().code;
    return nullptr;
  }
  const int fd = *opened;
  std::FILE* file = ::fdopen(fd, "a");
  if (!file) ::close(fd);
  return file;
}

}  // namespace

std::expected<std::unique_ptr<FileLog>, Error> FileLog::open(Options options) {
  std::FILE* file = nullptr;
  if (options.file) {
    if (auto made = makeDirectories(options.file->parent_path(), 0700); !made) return std::unexpected(made.error());
    std::error_code ec;
    if (std::filesystem::file_size(*options.file, ec) > options.rotateBytes && !ec) {
      auto previous = *options.file;
      previous += ".1";
      std::filesystem::rename(*options.file, previous, ec);
    }
    file = openAppend(*options.file);
    if (!file) return std::unexpected(posixError(errno, "open", *options.file));
  }
  return std::unique_ptr<FileLog>(new FileLog(file, options.toStderr));
}

FileLog::FileLog(std::FILE* file, bool toStderr) : file_(file), toStderr_(toStderr) {}

FileLog::~FileLog() {
  // A log that cannot be written has nowhere to report it: a failed flush or close is dropped.
  if (file_) (void)std::fclose(file_);
}

void FileLog::write(std::string_view line) {
  std::lock_guard lock(mutex_);
  if (file_) {
    putLine(file_, fmt::format("{} {}\n", timestamp(), line));
    (void)std::fflush(file_);
  }
  if (toStderr_) putLine(stderr, fmt::format("{}\n", line));
}

void FileAnalytics::record(std::string_view tag) {
  std::lock_guard lock(mutex_);
  if (std::FILE* file = openAppend(file_)) {
    putLine(file, fmt::format("{} {}\n", timestamp(), tag));
    (void)std::fclose(file);
  }
}

}  // namespace norvik
