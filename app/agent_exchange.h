#pragma once

// How a command of the command line speaks to the agent of its home: one request, its events as
// they come, and the final answer or the reason there is none (no agent, no answer in time).

#include <chrono>
#include <expected>
#include <functional>
#include <string>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/command.h"
#include "app/control_client.h"
#include "platform/app_paths.h"

namespace norvik::cli {

using Json = nlohmann::json;
inline std::string text(const Json& object, const char* key) {
  auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

inline std::string errorText(const Json& answer) {
  const Json error = answer.value("error", Json::object());
  const std::string title = text(error, "title");
  const std::string message = text(error, "message");
  return title.empty() ? message : title + ": " + message;
}

inline constexpr std::string_view kNoAgentText =
    "Агент Norvik не запущен. Запустите его командой «norvik agent» (или «systemctl --user start norvik-agent») и "
    "повторите.";

// Sends one request to the agent of this home and maps the answer to an exit status. Progress
// lines are shown as they come. Requests the agent answers at once get a few seconds: an agent
// that does not answer them in that time is stuck or stopped, and the user hears so. Ctrl-C ends
// the process, which closes the connection; the agent takes that as the request's cancellation.
struct Exchange {
  static constexpr std::chrono::milliseconds kAtOnce{5000};
  const GlobalOptions& global;
  std::chrono::milliseconds limit{150000};

  std::expected<Json, CommandError> run(const Json& request,
                                        const std::function<void(const Json&)>& onEvent = nullptr) const {
    const auto socket = AppPaths::resolve(global.home).runtime() / "agent.sock";
    auto client = ControlClient::connect(socket, std::min(limit, kAtOnce));
    if (!client) {
      if (client.error().failure == ControlClient::Failure::timedOut) {
        return failure(ExitCode::failed, "Агент Norvik не ответил вовремя.");
      }
      if (client.error().failure == ControlClient::Failure::noAgent) {
        return failure(ExitCode::noAgent, std::string(kNoAgentText));
      }
      return failure(ExitCode::failed, fmt::format("Нет связи с агентом Norvik: {}", client.error().detail));
    }
    auto answer = client->request(request, onEvent, limit);
    if (!answer) {
      return failure(ExitCode::failed, answer.error().failure == ControlClient::Failure::timedOut
                                           ? "Агент Norvik не ответил вовремя."
                                           : fmt::format("Нет связи с агентом Norvik: {}", answer.error().detail));
    }
    return *answer;
  }
};

}  // namespace norvik::cli
