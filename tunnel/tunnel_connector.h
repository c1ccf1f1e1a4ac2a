#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "platform/weak_ptr_factory.h"
#include "tunnel/tunnel_context.h"

namespace norvik {

class KeySoftRemoval;

// Starting and stopping the application's tunnel. The start path loads the configurations, finds
// the application's, applies the on-demand setting, repairs a configuration that is disabled or
// misnamed (saving it again on every pass until the eighth) and starts the session; the stop
// switches on-demand off first so that the system does not bring the tunnel straight back.
//
// A stop also cancels every start still being prepared: a start that began before the application
// stopped the tunnel never starts it afterwards.
//
// Threading: a main-loop object; completions of the tunnel service hold it weakly.
// Ownership: a part of VPNManager, which lends it the context and the soft removal.
class TunnelConnector {
 public:
  static constexpr int kRepairPasses = 8;
  static constexpr std::string_view kOnDemandEnabledKey = "routing.onDemandEnabled";
  static constexpr std::string_view kUserInitiatedStopKey = "routing.userInitiatedStop";

  using Done = std::move_only_function<void(std::expected<void, Error>)>;

  TunnelConnector(TunnelContext& context, KeySoftRemoval& softRemoval);
  TunnelConnector(const TunnelConnector&) = delete;
  TunnelConnector& operator=(const TunnelConnector&) = delete;

  // Completes when the start was accepted (or with the error); the outcome follows as status.
  void connect(Done completion);
  // Stops `configuration`'s session as the application. `then` gets the configuration as stored
  // afterwards.
  void stopAsApplication(TunnelConfiguration configuration, std::move_only_function<void(TunnelConfiguration)> then);
  // Stops the application's tunnel, if it has one, as the application.
  void stop();
  // A start being prepared now is dropped before it starts (the user said off); nothing is stopped.
  void cancelPendingStarts() { ++stopGeneration_; }

 private:
  struct Run;

  void pass(std::shared_ptr<Run> run);
  [[nodiscard]] bool cancelled(const Run& run) const;
  void onLoaded(std::shared_ptr<Run> run, std::expected<std::vector<TunnelConfiguration>, Error> loaded);
  void decideStart(std::shared_ptr<Run> run);
  void start(const std::shared_ptr<Run>& run);
  void finish(const std::shared_ptr<Run>& run, std::expected<void, Error> result);
  void save(TunnelConfiguration configuration, TunnelService::ConfigurationCompletion completion);

  TunnelContext& context_;
  KeySoftRemoval& softRemoval_;
  // Moves on with every stop by the application; a start prepared under an older value is dropped.
  std::uint64_t stopGeneration_ = 0;
  WeakPtrFactory<TunnelConnector> weakFactory_{this};
};

}  // namespace norvik
