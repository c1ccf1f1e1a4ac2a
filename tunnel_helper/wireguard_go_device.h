#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/log.h"
#include "tunnel_helper/tunnel_session.h"

namespace norvik::tunnel_helper {

// A program found on PATH (or the path itself when it names a file); nothing when it is not there
// or not executable.
[[nodiscard]] std::optional<std::filesystem::path> findProgram(const std::filesystem::path& program);

// The device as a userspace WireGuard process (Debian's wireguard-go) run in the foreground for an
// interface name of our own, configured over its configuration socket. The name is the first of
// prefix0 … prefix15 that neither names an interface here nor has a live socket (the socket
// directory is shared by every network namespace of the machine).
//
// The process is this helper's child and gets SIGTERM when the helper dies, so the interface never
// outlives the helper. Its output goes to the helper's standard error.
//
// Threading: one thread (the helper's loop); the helper's SIGCHLD handler calls reap().
class WireGuardGoDevice final : public WireGuardDevice {
 public:
  struct Options {
    std::filesystem::path program = "wireguard-go";
    std::string namePrefix = "norvik";
    std::filesystem::path socketDirectory = "/var/run/wireguard";
    std::chrono::milliseconds startTimeout{5000};
    std::chrono::milliseconds requestTimeout{2000};
  };

  WireGuardGoDevice(Log& log, Options options);
  WireGuardGoDevice(const WireGuardGoDevice&) = delete;
  WireGuardGoDevice& operator=(const WireGuardGoDevice&) = delete;
  ~WireGuardGoDevice() override;

  [[nodiscard]] std::expected<std::string, Error> create() override;
  [[nodiscard]] std::expected<void, Error> configure(const std::string& setRequest) override;
  [[nodiscard]] std::expected<DeviceState, Error> readState() override;
  void destroy() override;

  // When the process has ended, collects it and says how it ended; nothing while it runs.
  [[nodiscard]] std::optional<std::string> reap();

 private:
  [[nodiscard]] std::filesystem::path socketPath() const { return options_.socketDirectory / (name_ + ".sock"); }

  Log& log_;
  Options options_;
  std::string name_;
  int pid_ = -1;
};

}  // namespace norvik::tunnel_helper
