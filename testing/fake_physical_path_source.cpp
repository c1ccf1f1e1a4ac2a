#include "testing/fake_physical_path_source.h"

#include <algorithm>
#include <cerrno>

namespace norvik::testing {

std::expected<void, Error> FakePhysicalPathSource::start(PhysicalPathSourceOptions options, Handler handler) {
  std::unique_lock lock(mutex_);
  if (started_) return std::unexpected(Error{"POSIX", EALREADY, "the path source is already started"});
  if (failNext_) {
    Error error = std::move(*failNext_);
    failNext_.reset();
    return std::unexpected(std::move(error));
  }
  started_ = true;
  ++starts_;
  options_ = std::move(options);
  handler_ = std::move(handler);
  delivered_.reset();
  deliverLocked(lock);
  return {};
}

void FakePhysicalPathSource::stop() {
  std::lock_guard lock(mutex_);
  if (!started_) return;
  started_ = false;
  ++stops_;
  handler_ = nullptr;
  delivered_.reset();
}

std::optional<NetworkPath> FakePhysicalPathSource::currentPath() const {
  std::lock_guard lock(mutex_);
  if (!started_ || !system_) return std::nullopt;
  return filtered(*system_);
}

void FakePhysicalPathSource::setPath(NetworkPath path) {
  std::unique_lock lock(mutex_);
  system_ = std::move(path);
  deliverLocked(lock);
}

void FakePhysicalPathSource::failNextStart(Error error) {
  std::lock_guard lock(mutex_);
  failNext_ = std::move(error);
}

bool FakePhysicalPathSource::isStarted() const {
  std::lock_guard lock(mutex_);
  return started_;
}

std::size_t FakePhysicalPathSource::startCount() const {
  std::lock_guard lock(mutex_);
  return starts_;
}

std::size_t FakePhysicalPathSource::stopCount() const {
  std::lock_guard lock(mutex_);
  return stops_;
}

std::size_t FakePhysicalPathSource::deliveryCount() const {
  std::lock_guard lock(mutex_);
  return deliveries_;
}

PhysicalPathSourceOptions FakePhysicalPathSource::lastOptions() const {
  std::lock_guard lock(mutex_);
  return options_;
}

NetworkPath FakePhysicalPathSource::filtered(const NetworkPath& path) const {
  NetworkPath out = path;
  const auto& prohibited = options_.prohibitedInterfaceTypes;
  std::erase_if(out.availableInterfaces, [&](const NetworkInterface& i) {
    return std::find(prohibited.begin(), prohibited.end(), i.type) != prohibited.end();
  });
  return out;
}

void FakePhysicalPathSource::deliverLocked(std::unique_lock<std::mutex>& lock) {
  if (!started_ || !system_) return;
  NetworkPath path = filtered(*system_);
  if (delivered_ == path) return;
  delivered_ = path;
  ++deliveries_;
  Handler handler = handler_;
  // The real source calls out without holding its own lock; so does this one.
  lock.unlock();
  handler(path);
  lock.lock();
}

}  // namespace norvik::testing
