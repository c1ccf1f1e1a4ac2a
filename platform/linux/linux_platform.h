#pragma once

#include <expected>
#include <filesystem>
#include <optional>

#include "platform/app_paths.h"
#include "platform/error.h"
#include "platform/event_loop.h"
#include "platform/platform.h"

namespace norvik {

struct LinuxPlatformOptions {
  AppPaths paths;
  std::optional<std::filesystem::path> extraCaFile;
  bool logToStderr = true;
};

// The one place that picks the Linux adapters: SQLite defaults, the file secure item store,
// OpenSSL, libcurl, the system clock and the file log, all under the paths' home directory.
// Fails with a clear error when a store cannot be opened (a read-only or full home, say).
[[nodiscard]] std::expected<Platform, Error> makeLinuxPlatform(EventLoop& loop, const LinuxPlatformOptions& options);

}  // namespace norvik
