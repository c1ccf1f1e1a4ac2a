#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/event_loop.h"

namespace norvik {

// The running tunnel helper of one session, as the tunnel service drives it.
class TunnelHelperProcess {
 public:
  virtual ~TunnelHelperProcess() = default;
  // Queues a line (ending in "\n") for the helper's standard input.
  virtual void send(std::string line) = 0;
  // Closes the helper's standard input once the queued lines are written: the helper stops.
  virtual void closeInput() = 0;
  virtual void terminate() = 0;  // SIGTERM
  virtual void kill() = 0;       // SIGKILL
};

// What the helper says, delivered on the main loop in order; `exited` comes last, exactly once.
struct TunnelHelperCallbacks {
  std::function<void(std::string line)> event;  // a line of standard output
  std::function<void(std::string line)> log;    // a line of standard error
  std::function<void(int exitStatus)> exited;   // the exit code, or 128 + the signal
};

// Starts helpers. The production one runs norvik-tunnel; tests script their own.
class TunnelHelperLauncher {
 public:
  virtual ~TunnelHelperLauncher() = default;
  [[nodiscard]] virtual std::expected<std::unique_ptr<TunnelHelperProcess>, Error> launch(
      TunnelHelperCallbacks callbacks) = 0;
  // Takes away what a helper that did not end by itself may have left on the system. Asynchronous.
  virtual void cleanUpAfterCrash() = 0;
};

// Runs the helper program (`argv`: its path and options) as a child process with three pipes. One
// thread per helper moves the lines and waits for the exit; everything it hears is posted to the
// loop. Destroying a process object that still runs closes its input, gives it `stopGrace` to end
// (it gives the network back meanwhile) and kills it after that.
//
// Threading: launch and the process objects on the main loop.
class PosixTunnelHelperLauncher final : public TunnelHelperLauncher {
 public:
  PosixTunnelHelperLauncher(EventLoop& loop, std::vector<std::string> argv,
                            std::chrono::milliseconds stopGrace = std::chrono::seconds(5));

  [[nodiscard]] std::expected<std::unique_ptr<TunnelHelperProcess>, Error> launch(
      TunnelHelperCallbacks callbacks) override;
  void cleanUpAfterCrash() override;

 private:
  EventLoop& loop_;
  std::vector<std::string> argv_;
  std::chrono::milliseconds stopGrace_;
};

// Where norvik-tunnel is: $NORVIK_TUNNEL_HELPER; else beside the running program, in
// ../libexec/norvik/ of it, or in the build tree's tunnel_helper/; else on PATH.
[[nodiscard]] std::optional<std::filesystem::path> findTunnelHelper();

// Runs "norvik-tunnel probe": whether this machine lets the helper create interfaces and run
// userspace WireGuard. The error says what is missing. Blocking, at most `timeout`.
[[nodiscard]] std::expected<void, std::string> probeTunnelHelper(
    const std::filesystem::path& helper, std::chrono::milliseconds timeout = std::chrono::seconds(5));

}  // namespace norvik
