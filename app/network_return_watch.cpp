#include "app/network_return_watch.h"

#include <utility>

namespace norvik {

NetworkReturnWatch::NetworkReturnWatch(EventLoop& loop, PhysicalPathSource& source, Log& log, ReturnHandler onReturn)
    : loop_(loop), source_(source), log_(log), onReturn_(std::move(onReturn)) {}

NetworkReturnWatch::~NetworkReturnWatch() { stop(); }

bool NetworkReturnWatch::start() {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (running_) return true;
  seenFirst_ = false;
  PhysicalPathSourceOptions options;
  options.prohibitedInterfaceTypes = {NetworkInterfaceType::other};
  // Called on the source's thread: the path is handed to the loop, where the owner may be gone.
  auto started =
      source_.start(std::move(options), [&loop = loop_, weak = weakFactory_.weak()](const NetworkPath& path) {
        loop.post([weak, path] {
          if (auto* self = weak.lock()) self->observe(path);
        });
      });
  if (!started) {
    log_.format("[on-demand] сеть не отслеживается: {}", started.error().description());
    return false;
  }
  running_ = true;
  return true;
}

void NetworkReturnWatch::stop() {
  if (!running_) return;
  running_ = false;
  source_.stop();
  weakFactory_.invalidateAll();  // paths already posted are dropped
}

void NetworkReturnWatch::observe(const NetworkPath& path) {
  NORVIK_ASSERT_ON_LOOP(loop_);
  if (!running_) return;
  const NetworkPath previous = std::exchange(last_, path);
  if (!std::exchange(seenFirst_, true)) return;
  if (path.status != NetworkPathStatus::satisfied) return;
  if (previous.status != NetworkPathStatus::satisfied) return onReturn_("сеть вернулась");
  if (previous.availableInterfaces != path.availableInterfaces || previous.gateways != path.gateways) {
    onReturn_("сеть сменилась");
  }
}

}  // namespace norvik
