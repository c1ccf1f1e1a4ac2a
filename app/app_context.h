#pragma once

#include <memory>
#include <optional>

#include "app/command.h"
#include "backend/network_service.h"
#include "backend/security_manager.h"
#include "platform/app_paths.h"
#include "platform/linux/asio_event_loop.h"
#include "platform/platform.h"

namespace norvik::cli {

// What a command needs of the product, built on demand from the global options: the main loop,
// the Linux platform under the home directory, the identity and the backend client.
class AppContext {
 public:
  // Opens the platform; a home that cannot hold its stores is a usage error.
  [[nodiscard]] static std::expected<std::unique_ptr<AppContext>, CommandError> open(const GlobalOptions& options);
  ~AppContext();

  AsioEventLoop& loop() { return loop_; }
  Platform& platform() { return platform_; }
  const AppPaths& paths() const { return paths_; }

  // The identity alone needs no provisioning.
  SecurityManager& identity();
  // The backend client; fails when the provisioning file or the backend URL is missing or bad.
  [[nodiscard]] std::expected<NetworkService*, CommandError> backend();

  // Runs the loop until stop() is called from a completion.
  void runLoop();

 private:
  AppContext(GlobalOptions options, AppPaths paths);

  GlobalOptions options_;
  AppPaths paths_;
  AsioEventLoop loop_;
  Platform platform_;
  std::optional<Provisioning> provisioning_;
  std::unique_ptr<SecurityManager> security_;
  std::unique_ptr<NetworkService> network_;
};

}  // namespace norvik::cli
