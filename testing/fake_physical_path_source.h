#pragma once

#include <cstddef>
#include <mutex>
#include <optional>

#include "platform/physical_path_source.h"

namespace norvik::testing {

// The system's path as a test sets it. Behaves as the netlink source does: start() delivers the
// current path (if one is set), each later setPath() delivers the new path unless it equals the
// last one delivered, interfaces of prohibited types are left out of what is delivered, nothing is
// delivered once stopped, and start() while started fails. Deliveries run on the thread that calls
// setPath() (or start()), standing in for the source's own thread.
class FakePhysicalPathSource final : public PhysicalPathSource {
 public:
  [[nodiscard]] std::expected<void, Error> start(PhysicalPathSourceOptions options, Handler handler) override;
  void stop() override;
  [[nodiscard]] std::optional<NetworkPath> currentPath() const override;

  // The system's path changes to `path`.
  void setPath(NetworkPath path);
  // The next start() fails with `error`.
  void failNextStart(Error error);

  [[nodiscard]] bool isStarted() const;
  [[nodiscard]] std::size_t startCount() const;
  [[nodiscard]] std::size_t stopCount() const;
  [[nodiscard]] std::size_t deliveryCount() const;
  [[nodiscard]] PhysicalPathSourceOptions lastOptions() const;

 private:
  [[nodiscard]] NetworkPath filtered(const NetworkPath& path) const;  // under the lock
  void deliverLocked(std::unique_lock<std::mutex>& lock);

  mutable std::mutex mutex_;
  std::optional<NetworkPath> system_;
  std::optional<NetworkPath> delivered_;
  std::optional<Error> failNext_;
  PhysicalPathSourceOptions options_;
  Handler handler_;
  bool started_ = false;
  std::size_t starts_ = 0;
  std::size_t stops_ = 0;
  std::size_t deliveries_ = 0;
};

}  // namespace norvik::testing
