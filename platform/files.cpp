#include "platform/files.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace norvik {
namespace {

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace

Error posixError(int err, std::string_view operation, const std::filesystem::path& path) {
  return Error{"POSIX", err, fmt::format("{} {}: {}", operation, path.string(), std::strerror(err))};
}

std::expected<int, Error> openRegularFile(const std::filesystem::path& path, int flags, mode_t mode) {
  // O_NONBLOCK keeps open() from waiting for a FIFO's other end; O_NOCTTY keeps a terminal from
  // becoming ours.
  FileDescriptor fd(::open(path.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
  if (fd.get() < 0) return std::unexpected(posixError(errno, "open", path));
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return std::unexpected(posixError(errno, "stat", path));
  if (!S_ISREG(st.st_mode)) {
    return std::unexpected(Error{"POSIX", EINVAL, fmt::format("open {}: not a regular file", path.string())});
  }
  if (::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK) != 0) {
    return std::unexpected(posixError(errno, "fcntl", path));
  }
  return fd.release();
}

std::expected<void, Error> writeFileAtomically(const std::filesystem::path& target, std::string_view contents,
                                               mode_t mode, const std::string& temporaryName,
                                               FileDurability durability) {
  const bool durable = durability == FileDurability::durable;
  const auto directory = target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
  const auto temporary = directory / (temporaryName.empty() ? target.filename().string() + ".tmp" : temporaryName);

  // A link or anything but a regular file at the temporary name is not written through.
  auto opened = openRegularFile(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, mode);
  if (!opened) return std::unexpected(opened.error());
  FileDescriptor fd(*opened);
  auto fail = [&](std::string_view operation) {
    const int err = errno;
    ::unlink(temporary.c_str());
    return std::unexpected(posixError(err, operation, temporary));
  };
  // The mode of an existing temporary file is not changed by open(); make it right.
  if (::fchmod(fd.get(), mode) != 0) return fail("chmod");
  if (!writeAll(fd.get(), contents)) return fail("write");
  if (durable && ::fsync(fd.get()) != 0) return fail("fsync");
  if (::close(fd.release()) != 0) return fail("close");
  if (::rename(temporary.c_str(), target.c_str()) != 0) return fail("rename");

  if (!durable) return {};
  // Make the rename itself durable.
  FileDescriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() >= 0) ::fsync(dir.get());
  return {};
}

std::expected<std::string, Error> readFile(const std::filesystem::path& path, std::size_t maxBytes) {
  auto opened = openRegularFile(path, O_RDONLY);
  if (!opened) return std::unexpected(opened.error());
  FileDescriptor fd(*opened);
  struct stat st {};
  if (::fstat(fd.get(), &st) == 0 && static_cast<std::uintmax_t>(st.st_size) > maxBytes) {
    return std::unexpected(posixError(EFBIG, "read", path));
  }
  std::string out;
  char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::unexpected(posixError(errno, "read", path));
    }
    if (n == 0) break;
    if (out.size() + static_cast<std::size_t>(n) > maxBytes) {
      return std::unexpected(posixError(EFBIG, "read", path));
    }
    out.append(buffer, static_cast<std::size_t>(n));
  }
  return out;
}

std::expected<void, Error> makeDirectories(const std::filesystem::path& dir, mode_t mode) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) return std::unexpected(Error{"POSIX", ec.value(), fmt::format("mkdir {}: {}", dir.string(), ec.message())});
  if (::chmod(dir.c_str(), mode) != 0 && errno != EPERM) {
    return std::unexpected(posixError(errno, "chmod", dir));
  }
  return {};
}

}  // namespace norvik
