#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "health/physical_path.h"
#include "health/serial_queue.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/physical_path_source.h"

namespace norvik {

// Watches the physical network path under the tunnel and reports real changes of it.
//
// The first path after start() is the baseline: logged ("[SmartStatus] physical path baseline: …"),
// not reported. After that a path is reported ("[SmartStatus] physical path changed: …", then
// onChange) only when its status, its set of interface names or its ordered gateways differ from the
// last one reported; other flags alone are not a change. stop() forgets the baseline, so a later
// start() begins with a new one.
//
// Threading: start(), stop() and the queries are called from one thread (the main loop). Paths are
// compared on the monitor's own serial queue "com.Quillon.smartstatus.path", and onChange runs there;
// postingTo() wraps a handler so that it runs on the main loop instead. No onChange call starts after
// stop() has returned (unless stop() is called from onChange itself).
//
// Ownership: borrows the source and the log, which must outlive it.
class PhysicalPathMonitor {
 public:
  static constexpr std::string_view kQueueLabel = "com.Quillon.smartstatus.path";
  using ChangeHandler = std::function<void(const PhysicalPath&)>;

  PhysicalPathMonitor(PhysicalPathSource& source, Log& log);
  PhysicalPathMonitor(const PhysicalPathMonitor&) = delete;
  PhysicalPathMonitor& operator=(const PhysicalPathMonitor&) = delete;
  ~PhysicalPathMonitor();

  // Watches the system path with virtual ("other") interfaces left out. A monitor that runs is
  // restarted (with a new baseline). False, with a log line, when the system refused to watch.
  bool start(ChangeHandler onChange);
  void stop();
  [[nodiscard]] bool isRunning() const { return running_; }

  // The current path, for synchronous questions; nothing while stopped.
  [[nodiscard]] std::optional<PhysicalPath> currentPath() const;
  // The name of the preferred available interface of `type` (the probes bind to it); nothing while
  // stopped or when there is none.
  [[nodiscard]] std::optional<std::string> interfaceName(NetworkInterfaceType type) const;
  // The preferred available Wi-Fi, cellular or wired interface, whatever its type (the one the
  // system's default route leaves through, when it has one): where probes outside the tunnel go.
  [[nodiscard]] std::optional<std::string> preferredInterfaceName() const;

  // Waits until the queue has handled every path that arrived before the call.
  void flush() { queue_.flush(); }
  [[nodiscard]] const SerialQueue& queue() const { return queue_; }

  // A handler that hands each change to `handler` on `loop`. `handler` should hold its owner
  // weakly: it may run after the owner stopped the monitor, if the change was already on its way.
  [[nodiscard]] static ChangeHandler postingTo(EventLoop& loop, ChangeHandler handler);

 private:
  void deliver(std::uint64_t generation, PhysicalPath path);  // on the queue

  PhysicalPathSource& source_;
  Log& log_;
  bool running_ = false;
  std::atomic<std::uint64_t> generation_{0};  // bumped by start() and stop(): older paths are ignored
  // Confined to the queue:
  std::uint64_t queueGeneration_ = 0;
  std::optional<PhysicalPath> lastDelivered_;
  ChangeHandler onChange_;
  // Last: destroyed first, so no queued task outlives the state above.
  SerialQueue queue_{std::string(kQueueLabel)};
};

}  // namespace norvik
