#include "platform/linux/inotify_notification_center.h"

#include <cerrno>
#include <sys/inotify.h>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/files.h"

namespace norvik {
namespace {

// A name becomes a file name: no separators, no hidden or special names.
bool isUsableName(std::string_view name) {
  return !name.empty() && name.size() < 200 && name.front() != '.' && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

}  // namespace

std::expected<std::unique_ptr<InotifyNotificationCenter>, Error> InotifyNotificationCenter::open(
    AsioEventLoop& loop, std::filesystem::path directory) {
  if (auto made = makeDirectories(directory, 0700); !made) return std::unexpected(made.error());
  const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) return std::unexpected(posixError(errno, "inotify_init1", directory));
  if (::inotify_add_watch(fd, directory.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
    const int err = errno;
    ::close(fd);
    return std::unexpected(posixError(err, "inotify_add_watch", directory));
  }
  std::unique_ptr<InotifyNotificationCenter> center(new InotifyNotificationCenter(loop, std::move(directory), fd));
  center->waitForEvents();
  return center;
}

InotifyNotificationCenter::InotifyNotificationCenter(AsioEventLoop& loop, std::filesystem::path directory,
                                                     int inotifyFd)
    : directory_(std::move(directory)),
      descriptor_(loop.context(), inotifyFd),
      observers_(std::make_shared<Observers>()) {}

InotifyNotificationCenter::~InotifyNotificationCenter() {
  asio::error_code ignored;
  descriptor_.cancel(ignored);
  descriptor_.close(ignored);
}

void InotifyNotificationCenter::post(std::string_view name) {
  if (!isUsableName(name)) return;
  // A temporary name of our own, so that two processes posting at once do not collide.
  const std::string temporary = fmt::format(".{}.{}.{}", name, ::getpid(), ++postCounter_);
  // The file is the signal, not data to keep: no fsync, which would block the poster every time.
  (void)writeFileAtomically(directory_ / std::string(name), fmt::format("{}\n", ::getpid()), 0600, temporary,
                            FileDurability::replaceOnly);
}

Subscription InotifyNotificationCenter::observe(std::string name, std::function<void()> observer) {
  const std::uint64_t id = observers_->nextId++;
  observers_->byName[name].emplace_back(id, std::move(observer));
  std::weak_ptr<Observers> weak = observers_;
  return Subscription([weak, name = std::move(name), id] {
    auto observers = weak.lock();
    if (!observers) return;
    auto it = observers->byName.find(name);
    if (it != observers->byName.end()) std::erase_if(it->second, [id](const auto& entry) { return entry.first == id; });
  });
}

void InotifyNotificationCenter::waitForEvents() {
  // The descriptor is cancelled before the centre dies, and a cancelled wait does nothing.
  descriptor_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const asio::error_code& error) {
    if (error) return;
    readEvents();
    waitForEvents();
  });
}

void InotifyNotificationCenter::readEvents() {
  alignas(inotify_event) char buffer[8192];
  std::vector<std::string> names;
  for (;;) {
    const ssize_t n = ::read(descriptor_.native_handle(), buffer, sizeof buffer);
    if (n <= 0) break;  // EAGAIN: all read
    for (ssize_t offset = 0; offset < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      if (event->len == 0) continue;
      const std::string name(event->name);
      // The writer's temporary file closes before the rename; only the rename is the post.
      if ((event->mask & IN_MOVED_TO) && isUsableName(name)) names.push_back(name);
    }
  }
  auto keepAlive = observers_;
  for (const auto& name : names) {
    auto it = keepAlive->byName.find(name);
    if (it == keepAlive->byName.end()) continue;
    auto snapshot = it->second;
    for (const auto& [id, observer] : snapshot) {
      const auto& current = keepAlive->byName[name];
      const bool still = std::ranges::any_of(current, [id = id](const auto& entry) { return entry.first == id; });
      if (still) observer();
    }
  }
}

}  // namespace norvik
