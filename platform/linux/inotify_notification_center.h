#pragma once

#include <expected>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <asio/posix/stream_descriptor.hpp>

#include "platform/error.h"
#include "platform/linux/asio_event_loop.h"
#include "platform/named_notifications.h"

namespace norvik {

// Named notifications between the processes of one user on Linux: a directory (0700) holds one
// file per notification name; posting replaces that file by a rename, and every process that
// watches the directory with inotify hears the name. No payload, no daemon, and a process that
// starts later does not see old posts. Observers run on the loop thread.
class InotifyNotificationCenter final : public NamedNotificationCenter {
 public:
  [[nodiscard]] static std::expected<std::unique_ptr<InotifyNotificationCenter>, Error> open(
      AsioEventLoop& loop, std::filesystem::path directory);
  ~InotifyNotificationCenter() override;

  void post(std::string_view name) override;
  [[nodiscard]] Subscription observe(std::string name, std::function<void()> observer) override;

 private:
  InotifyNotificationCenter(AsioEventLoop& loop, std::filesystem::path directory, int inotifyFd);
  void waitForEvents();
  void readEvents();

  struct Observers {
    std::uint64_t nextId = 1;
    std::map<std::string, std::vector<std::pair<std::uint64_t, std::function<void()>>>, std::less<>> byName;
  };

  std::filesystem::path directory_;
  asio::posix::stream_descriptor descriptor_;
  std::shared_ptr<Observers> observers_;
  std::uint64_t postCounter_ = 0;
};

}  // namespace norvik
