#pragma once

#include <cstdio>
#include <expected>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/log.h"

namespace norvik {

// The production log: each line goes to a file (with the wall-clock time in front) and, when
// asked, to stderr as it stands. The file is the user's own (0600) and is rotated once it passes
// a few megabytes, keeping one previous file.
class FileLog final : public Log {
 public:
  struct Options {
    std::optional<std::filesystem::path> file;  // none: stderr only
    bool toStderr = true;
    std::size_t rotateBytes = 4u << 20;
  };

  [[nodiscard]] static std::expected<std::unique_ptr<FileLog>, Error> open(Options options);
  ~FileLog() override;

  void write(std::string_view line) override;

 private:
  FileLog(std::FILE* file, bool toStderr);

  std::mutex mutex_;
  std::FILE* file_;
  bool toStderr_;
};

// Analytics events appended to a file, one "time tag" line each.
class FileAnalytics final : public Analytics {
 public:
  explicit FileAnalytics(std::filesystem::path file) : file_(std::move(file)) {}
  void record(std::string_view tag) override;

 private:
  std::mutex mutex_;
  std::filesystem::path file_;
};

}  // namespace norvik
