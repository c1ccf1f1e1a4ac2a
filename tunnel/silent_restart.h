#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/weak_ptr_factory.h"
#include "tunnel/tunnel_context.h"

namespace norvik {

class TunnelConnector;

// The step at which a silent restart stopped.
enum class RestartStep { none, precondition, disconnect, connect };
[[nodiscard]] std::string_view toString(RestartStep step);

struct SilentRestartResult {
  bool ok = false;
  RestartStep failStep = RestartStep::none;  // none when ok
  std::string reason;
  bool operator==(const SilentRestartResult&) const = default;
};

// The health engine's repair step: stop the tunnel, wait, start it again and wait for connected,
// without the screens seeing the drop — they keep the state they had and get the real one at the
// end. Superseded as soon as the repair token moves on (any action on the tunnel), and never run
// while the user stopped the tunnel, during a server change, or without a configuration.
//
// Threading: a main-loop object; timers and completions hold it weakly.
// Ownership: a part of VPNManager.
class SilentRestart {
 public:
  static constexpr std::chrono::milliseconds kPollInterval{100};
  static constexpr std::chrono::milliseconds kDisconnectLimit{3000};

  using Done = std::move_only_function<void(SilentRestartResult)>;

  SilentRestart(TunnelContext& context, TunnelConnector& connector);
  SilentRestart(const SilentRestart&) = delete;
  SilentRestart& operator=(const SilentRestart&) = delete;
  ~SilentRestart();

  void run(std::uint64_t token, std::int64_t delayMs, std::int64_t connectTimeoutMs, Done completion);
  // A restart its caller's preconditions refuse: logged as one that failed at "precondition", and
  // answered one loop turn later, touching nothing.
  void refuse(std::int64_t delayMs, std::int64_t connectTimeoutMs, std::string reason, Done completion);
  [[nodiscard]] bool isRunning() const { return current_ != nullptr; }

 private:
  struct Run;

  [[nodiscard]] std::optional<std::string> blockedBy(std::uint64_t token) const;
  void reject(std::string reason, Done completion);
  void connectStep();
  void poll(TunnelStatus wanted, EventLoop::TimePoint deadline, std::move_only_function<void(bool)> then);
  void finish(RestartStep failStep, std::string reason);
  void applyRealStatus();

  TunnelContext& context_;
  TunnelConnector& connector_;
  std::shared_ptr<Run> current_;
  WeakPtrFactory<SilentRestart> weakFactory_{this};
};

}  // namespace norvik
