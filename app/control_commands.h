#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include <nlohmann/json.hpp>

#include "app/application.h"
#include "app/control_server.h"

namespace norvik {

// What the agent does with each request of the control socket. A request names a "command";
// the answer's last line has "ok" (true, or false with an "error" {title, message} and a "code":
// "failed", "usage" or "confirm") and the state after it ("status"). Commands that take time —
// connect, disconnect, toggle, change-server — send the busy texts as "progress" lines while
// they run and answer when the tunnel has reached the state asked for, or with the error the
// user would see. "watch" sends a "status" line at every change until the client hangs up.
//
// Threading: the main loop.
class ControlCommands {
 public:
  static constexpr std::chrono::seconds kConnectLimit{90};
  static constexpr std::chrono::seconds kDisconnectLimit{20};
  static constexpr std::chrono::seconds kChangeServerLimit{120};

  explicit ControlCommands(Application& app);
  ~ControlCommands();

  void handle(const nlohmann::json& request, const ControlReply& reply);

  // The state as the command line shows it.
  [[nodiscard]] nlohmann::json status();

 private:
  class Wait;

  void connect(const ControlReply& reply);
  void disconnect(const ControlReply& reply);
  void changeServer(const ControlReply& reply);
  void mode(const nlohmann::json& request, const ControlReply& reply);
  void sites(const nlohmann::json& request, const ControlReply& reply);
  void watch(const ControlReply& reply);

  void finishOk(const ControlReply& reply, std::string message = {});
  void finishError(const ControlReply& reply, std::string_view code, std::string title, std::string message);
  void track(std::unique_ptr<Wait> wait);

  Application& app_;
  std::vector<std::unique_ptr<Wait>> waits_;
};

}  // namespace norvik
