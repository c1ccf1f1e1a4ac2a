#pragma once

#include <expected>
#include <filesystem>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "platform/error.h"

namespace norvik {

// Whether a written file must survive a crash of the machine: `durable` for settings and caches;
// `replaceOnly` for state that is written again at every start and every few seconds (the widget's
// state, cross-process notifications), where an fsync would only wake the process and wear the disk.
enum class FileDurability { durable, replaceOnly };

// Writes `contents` to `target` so that a reader sees either the old file or the whole new one:
// a temporary file beside the target (`temporaryName`, or the target's name with ".tmp"), fsync,
// rename over the target, fsync of the directory (both fsyncs left out for `replaceOnly`). On any
// failure the old file is left as it was and the temporary file is removed.
[[nodiscard]] std::expected<void, Error> writeFileAtomically(const std::filesystem::path& target,
                                                             std::string_view contents, mode_t mode = 0644,
                                                             const std::string& temporaryName = {},
                                                             FileDurability durability = FileDurability::durable);

// Reads a whole file. Only a regular file is read: a FIFO, a device, a socket or a directory in
// its place is refused without blocking (EINVAL, "… is not a regular file"), and so is a file
// larger than `maxBytes` (EFBIG), before anything is read.
[[nodiscard]] std::expected<std::string, Error> readFile(const std::filesystem::path& path,
                                                         std::size_t maxBytes = 64u << 20);

// Opens a file that must be a regular one (O_CLOEXEC is added), without ever blocking in open():
// whatever else stands at `path` is refused as readFile does. The descriptor is blocking again
// when it is returned; the caller closes it.
[[nodiscard]] std::expected<int, Error> openRegularFile(const std::filesystem::path& path, int flags,
                                                        mode_t mode = 0600);

// Creates `dir` and its parents; the last component gets `mode`.
[[nodiscard]] std::expected<void, Error> makeDirectories(const std::filesystem::path& dir, mode_t mode = 0755);

// An Error of domain "POSIX" for errno value `err`, naming the operation and the path.
[[nodiscard]] Error posixError(int err, std::string_view operation, const std::filesystem::path& path);

}  // namespace norvik
