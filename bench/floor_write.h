#pragma once

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <string_view>
#include <unistd.h>

namespace norvik::bench {

// The floor of every durable file write: `bytes` written to a temporary file beside `target`,
// fsync, rename over `target`, and (when `syncDirectory`) fsync of the directory, which makes the
// rename itself durable. False when any step fails.
inline bool writeFsyncRename(const std::filesystem::path& target, std::string_view bytes, bool syncDirectory) {
  const std::string temporary = target.string() + ".floor-tmp";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  std::size_t done = 0;
  while (fd >= 0 && done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno != EINTR) break;
    if (n > 0) done += static_cast<std::size_t>(n);
  }
  bool ok = fd >= 0 && done == bytes.size() && ::fsync(fd) == 0 && ::close(fd) == 0 &&
            ::rename(temporary.c_str(), target.c_str()) == 0;
  if (syncDirectory) {
    const int directory = ::open(target.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ok = ok && directory >= 0 && ::fsync(directory) == 0 && ::close(directory) == 0;
  }
  return ok;
}

}  // namespace norvik::bench
