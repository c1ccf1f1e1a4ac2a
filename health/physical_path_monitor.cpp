#include "health/physical_path_monitor.h"

namespace norvik {

PhysicalPathMonitor::PhysicalPathMonitor(PhysicalPathSource& source, Log& log) : source_(source), log_(log) {}

PhysicalPathMonitor::~PhysicalPathMonitor() { stop(); }

bool PhysicalPathMonitor::start(ChangeHandler onChange) {
  if (running_) stop();
  const std::uint64_t generation = ++generation_;
  queue_.dispatch([this, generation, onChange = std::move(onChange)]() mutable {
    queueGeneration_ = generation;
    lastDelivered_.reset();
    onChange_ = std::move(onChange);
  });

  PhysicalPathSourceOptions options;
  options.prohibitedInterfaceTypes = {NetworkInterfaceType::other};
  auto started = source_.start(std::move(options), [this, generation](const NetworkPath& path) {
    queue_.dispatch(
        [this, generation, path = toPhysicalPath(path)]() mutable { deliver(generation, std::move(path)); });
  });
  if (!started) {
    log_.write("[SmartStatus] physical path monitor could not start: " + started.error().description());
    ++generation_;
    queue_.dispatch([this] { onChange_ = nullptr; });
    return false;
  }
  running_ = true;
  return true;
}

void PhysicalPathMonitor::stop() {
  if (!running_) return;
  running_ = false;
  ++generation_;  // paths already on the queue are ignored from here on
  source_.stop();
  queue_.dispatch([this] {
    onChange_ = nullptr;
    lastDelivered_.reset();
  });
  queue_.flush();  // a change being reported right now finishes before stop() returns
}

std::optional<PhysicalPath> PhysicalPathMonitor::currentPath() const {
  if (!running_) return std::nullopt;
  auto path = source_.currentPath();
  if (!path) return std::nullopt;
  return toPhysicalPath(*path);
}

std::optional<std::string> PhysicalPathMonitor::interfaceName(NetworkInterfaceType type) const {
  if (!running_) return std::nullopt;
  auto path = source_.currentPath();
  if (!path) return std::nullopt;
  for (const auto& interface : path->availableInterfaces) {
    if (interface.type == type) return interface.name;
  }
  return std::nullopt;
}

std::optional<std::string> PhysicalPathMonitor::preferredInterfaceName() const {
  if (!running_) return std::nullopt;
  auto path = source_.currentPath();
  if (!path) return std::nullopt;
  for (const auto& interface : path->availableInterfaces) {
    switch (interface.type) {
      case NetworkInterfaceType::wifi:
      case NetworkInterfaceType::cellular:
      case NetworkInterfaceType::wiredEthernet:
        return interface.name;
      default:
        break;
    }
  }
  return std::nullopt;
}

void PhysicalPathMonitor::deliver(std::uint64_t generation, PhysicalPath path) {
  if (generation != generation_.load() || generation != queueGeneration_) return;
  if (!lastDelivered_) {
    // The first path is where we stand, not a change.
    log_.write("[SmartStatus] physical path baseline: " + describe(path));
    lastDelivered_ = std::move(path);
    return;
  }
  if (!isRouteChange(*lastDelivered_, path)) return;
  log_.write("[SmartStatus] physical path changed: " + describe(path));
  lastDelivered_ = path;
  if (onChange_) {
    auto onChange = onChange_;  // the handler may stop (and so clear) the monitor
    onChange(path);
  }
}

PhysicalPathMonitor::ChangeHandler PhysicalPathMonitor::postingTo(EventLoop& loop, ChangeHandler handler) {
  auto shared = std::make_shared<ChangeHandler>(std::move(handler));
  return [&loop, shared](const PhysicalPath& path) { loop.post([shared, path] { (*shared)(path); }); };
}

}  // namespace norvik
