#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include <nlohmann/json.hpp>

#include "app/application.h"
#include "app/control_server.h"
#include "app/management_feed.h"

namespace norvik {

// What the agent does with each request of the control socket. A request names a "command";
// the answer's last line has "ok" (true, or false with an "error" {title, message} and a "code":
// "failed", "usage", "confirm" or "superseded") and the state after it ("status"). The requests
// about the tunnel — connect, disconnect, toggle, change-server — go to the tunnel state machine;
// they send the busy texts as "progress" lines while they run and are answered when the tunnel is
// as asked, with the error the user would see, or at once as superseded when a later request
// replaced them. "watch" sends a "status" line at every change until the client hangs up.
// docs/management_interface.md is the schema of every request, reply and event; "subscribe"
// streams the topics of ManagementFeed, "answer" answers the dialog or update prompt on screen.
//
// Threading: the main loop.
class ControlCommands {
 public:
  // The tunnel state machine answers every request about the tunnel; this limit only guards the
  // client against a fault of ours. Longer than the longest way up: a key fetched with its
  // retries, then a start.
  static constexpr std::chrono::seconds kIntentLimit{180};

  explicit ControlCommands(Application& app);
  ~ControlCommands();

  void handle(const nlohmann::json& request, const ControlReply& reply);

  // The state as the command line shows it. The answer to "status" counts its update prompt as shown.
  [[nodiscard]] nlohmann::json status();
  [[nodiscard]] ManagementFeed& feed() { return *feed_; }
  // Requests still waiting for their answer ("watch" included).
  [[nodiscard]] std::size_t waitingCount() const;

 private:
  class Wait;

  enum class Intent { connect, disconnect, toggle, changeServer };
  // Hands the request to the tunnel state machine and answers with its outcome, sending the busy
  // texts as "progress" lines meanwhile.
  void intent(const ControlReply& reply, Intent kind);
  void mode(const nlohmann::json& request, const ControlReply& reply);
  void sites(const nlohmann::json& request, const ControlReply& reply);
  void watch(const ControlReply& reply);
  // The management interface's own requests (management_commands.cpp).
  void hello(const ControlReply& reply);
  void subscribe(const nlohmann::json& request, const ControlReply& reply);
  void answer(const nlohmann::json& request, const ControlReply& reply);
  void answerOverlay(std::uint64_t id, const nlohmann::json& request, const ControlReply& reply);
  void answerPrompt(std::uint64_t id, const nlohmann::json& request, const ControlReply& reply);
  void openURL(const nlohmann::json& request, const ControlReply& reply);
  void update(const nlohmann::json& request, const ControlReply& reply);
  // `checkWhenFree`: a check is to start once the updater's own has ended.
  void updateAndWait(const ControlReply& reply, bool install, bool checkWhenFree = false);
  void menu(const nlohmann::json& request, const ControlReply& reply);
  void smartMode(const nlohmann::json& request, const ControlReply& reply);

  void finishOk(const ControlReply& reply, std::string message = {});
  void finishError(const ControlReply& reply, std::string_view code, std::string title, std::string message);
  void track(std::unique_ptr<Wait> wait);

  Application& app_;
  std::unique_ptr<ManagementFeed> feed_;
  std::vector<std::unique_ptr<Wait>> waits_;
};

}  // namespace norvik
