#include "app/agent_commands.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <sys/inotify.h>
#include <unistd.h>

#include <fmt/format.h>

#include "app/agent.h"
#include "app/control_client.h"
#include "platform/app_paths.h"
#include "platform/files.h"

namespace norvik::cli {
namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

std::string text(const Json& object, const char* key) {
  auto it = object.find(key);
  return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// A store the status reports as reset, in the user's words.
std::string storeLabel(const std::string& store) {
  if (store == "standard settings") return "настройки приложения";
  if (store == "group settings") return "общие настройки";
  if (store == "secure items") return "защищённое хранилище";
  if (store == "tunnel preferences") return "настройки туннеля";
  return store;
}

// The state in the words the user knows from the menu bar and the home screen.
std::string describe(const Json& status) {
  std::string out = fmt::format("Norvik — {}\n", text(status, "tunnelText"));
  auto line = [&](std::string_view label, const std::string& value) {
    if (!value.empty()) out += fmt::format("  {:<12} {}\n", label, value);
  };
  line("Сервер:", text(status, "server"));
  line("Режим:", text(status, "modeLabel"));
  line("Примечание:", text(status, "modeNotice"));
  line("С момента:", text(status, "connectedSince"));
  line("Проверка:", text(status, "health"));
  line("Сейчас:", text(status, "busy"));
  if (status.contains("lastError") && status["lastError"].is_object()) {
    const auto& error = status["lastError"];
    const std::string title = text(error, "title");
    line("Ошибка:", title.empty() ? text(error, "message") : title + ": " + text(error, "message"));
  }
  line("Туннель:", text(status, "tunnelService"));
  // The user's word differs from what the tunnel does: say where it is going, or that it gave up.
  const std::string state = text(status, "state");
  if (text(status, "intent") == "on" && state == "failed") line("Включён:", "да, но поднять туннель не удалось");
  if (status.contains("storeResets") && status["storeResets"].is_array()) {
    for (const auto& reset : status["storeResets"]) {
      if (!reset.is_object()) continue;
      line("Сброшено:", fmt::format("{} — {}", storeLabel(text(reset, "store")), text(reset, "reason")));
    }
  }
  return out;
}

std::string errorText(const Json& answer) {
  const Json error = answer.value("error", Json::object());
  const std::string title = text(error, "title");
  const std::string message = text(error, "message");
  return title.empty() ? message : title + ": " + message;
}

// Sends one request to the agent of this home and maps the answer to an exit status. Progress
// lines are shown as they come. Requests the agent answers at once get a few seconds: an agent
// that does not answer them in that time is stuck or stopped, and the user hears so. Ctrl-C ends
// the process, which closes the connection; the agent takes that as the request's cancellation.
struct Exchange {
  static constexpr std::chrono::milliseconds kAtOnce = 5s;
  const GlobalOptions& global;
  std::chrono::milliseconds limit = 150s;

  std::expected<Json, CommandError> run(const Json& request,
                                        const std::function<void(const Json&)>& onEvent = nullptr) const {
    const auto socket = AppPaths::resolve(global.home).runtime() / "agent.sock";
    auto client = ControlClient::connect(socket, std::min(limit, kAtOnce));
    if (!client) {
      if (client.error().failure == ControlClient::Failure::timedOut) {
        return failure(ExitCode::failed, "Агент Norvik не ответил вовремя.");
      }
      if (client.error().failure == ControlClient::Failure::noAgent) {
        return failure(ExitCode::noAgent,
                       "Агент Norvik не запущен. Запустите его командой «norvik agent» "
                       "(или «systemctl --user start norvik-agent») и повторите.");
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

CommandResult finishWith(const std::expected<Json, CommandError>& answer,
                         const std::function<void(const Json&)>& onOk) {
  if (!answer) return std::unexpected(answer.error());
  if (answer->value("ok", false)) {
    onOk(*answer);
    return {};
  }
  const bool usage = text(*answer, "code") == "usage";
  return failure(usage ? ExitCode::usage : ExitCode::failed, errorText(*answer));
}

void showProgress(const Json& line) {
  if (text(line, "event") == "progress") fmt::print("… {}\n", text(line, "busy"));
  (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
}

CommandResult runStatus(const GlobalOptions& global, bool asJson) {
  return finishWith(Exchange{global, Exchange::kAtOnce}.run(Json{{"command", "status"}}), [asJson](const Json& answer) {
    if (asJson) {
      fmt::print("{}\n", answer["status"].dump(2, ' ', false, Json::error_handler_t::replace));
    } else {
      fmt::print("{}", describe(answer["status"]));
    }
  });
}

CommandResult runAction(const GlobalOptions& global, std::string_view command) {
  return finishWith(Exchange{global}.run(Json{{"command", command}}, &showProgress), [](const Json& answer) {
    const std::string message = text(answer, "message");
    if (!message.empty()) fmt::print("{}\n", message);
    fmt::print("{}", describe(answer["status"]));
  });
}

bool askYesNo(const std::string& question) {
  fmt::print("{} [y/N] ", question);
  (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
  std::string reply;
  if (!std::getline(std::cin, reply)) return false;
  return reply == "y" || reply == "Y" || reply == "yes" || reply == "д" || reply == "Д" || reply == "да";
}

struct ModeOptions {
  std::optional<std::string> mode;
  bool yes = false;
};

CommandResult runMode(const GlobalOptions& global, const ModeOptions& options) {
  Exchange exchange{global, Exchange::kAtOnce};
  if (!options.mode) {
    return finishWith(exchange.run(Json{{"command", "mode"}}), [](const Json& answer) {
      fmt::print("{}", describe(answer["status"]));
      std::string allowed;
      for (const auto& mode : answer.value("allowed", Json::array()))
        allowed += (allowed.empty() ? "" : ", ") + mode.get<std::string>();
      fmt::print("  {:<12} {}\n", "Доступны:", allowed);
    });
  }
  Json request = {{"command", "mode"}, {"set", *options.mode}, {"confirmed", options.yes}};
  auto answer = exchange.run(request);
  if (answer && text(*answer, "code") == "confirm") {
    const Json dialog = (*answer)["confirm"];
    fmt::print("{}\n{}\n", text(dialog, "title"), text(dialog, "message"));
    if (!askYesNo(fmt::format("{}?", text(dialog, "confirm")))) {
      fmt::print("{}\n", text(dialog, "cancel"));
      return {};
    }
    request["confirmed"] = true;
    answer = exchange.run(request);
  }
  return finishWith(answer, [](const Json& reply) { fmt::print("Режим: {}\n", text(reply["status"], "modeLabel")); });
}

struct SitesOptions {
  std::string action = "list";
  std::string value;
};

CommandResult runSites(const GlobalOptions& global, const SitesOptions& options) {
  const Json request = {{"command", "sites"}, {"action", options.action}, {"value", options.value}};
  return finishWith(Exchange{global, Exchange::kAtOnce}.run(request), [](const Json& answer) {
    fmt::print("Сайты через VPN\n");
    for (const auto& service : answer.value("services", Json::array())) {
      fmt::print("  [{}] {:<10} {}\n", service.value("on", false) ? "x" : " ", text(service, "key"),
                 text(service, "title"));
    }
    const auto domains = answer.value("domains", Json::array());
    if (!domains.empty()) fmt::print("Свои сайты\n");
    for (const auto& domain : domains) {
      fmt::print("  [{}] {}\n", domain.value("on", false) ? "x" : " ", text(domain, "domain"));
    }
  });
}

CommandResult runWatch(const GlobalOptions& global) {
  Exchange exchange{global};
  exchange.limit = std::chrono::hours(24 * 365);
  auto answer = exchange.run(Json{{"command", "watch"}}, [](const Json& line) {
    if (text(line, "event") != "status") return;
    fmt::print("{}\n", describe(line["status"]));
    (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
  });
  if (!answer) return std::unexpected(answer.error());
  return {};
}

struct LogsOptions {
  std::size_t lines = 50;
  bool follow = false;
};

CommandResult runLogs(const GlobalOptions& global, const LogsOptions& options) {
  const auto file = AppPaths::resolve(global.home).logs() / "norvik.log";
  auto content = readFile(file);
  if (!content) return failure(ExitCode::failed, fmt::format("Журнал не найден: {}", file.string()));
  // The last lines, as tail shows them.
  std::vector<std::size_t> lineStarts{0};
  for (std::size_t i = 0; i + 1 < content->size(); ++i) {
    if ((*content)[i] == '\n') lineStarts.push_back(i + 1);
  }
  const std::size_t start = lineStarts.size() > options.lines ? lineStarts[lineStarts.size() - options.lines] : 0;
  fmt::print("{}", std::string_view(*content).substr(start));
  (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
  if (!options.follow) return {};

  // New lines as the agent writes them, until interrupted.
  const int fd = ::inotify_init1(IN_CLOEXEC);
  if (fd < 0 || ::inotify_add_watch(fd, file.c_str(), IN_MODIFY) < 0) return failure(ExitCode::failed, "inotify");
  std::size_t offset = content->size();
  char events[4096];
  while (::read(fd, events, sizeof events) > 0) {
    auto now = readFile(file);
    if (!now) break;
    if (now->size() < offset) offset = 0;  // rotated
    fmt::print("{}", std::string_view(*now).substr(offset));
    (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
    offset = now->size();
  }
  ::close(fd);
  return {};
}

}  // namespace

void addAgentCommands(CLI::App& app, const GlobalOptions& global, CommandResult& result) {
  auto agentOptions = std::make_shared<AgentOptions>();
  auto* agent = app.add_subcommand("agent", "Запустить агент Norvik (приложение) в этом терминале");
  agent->add_option(
      "--simulated-connect-ms",
      [agentOptions](const CLI::results_t& values) {
        // Whole milliseconds up to a day; anything else is refused as a usage error (exit status 2).
        std::int64_t milliseconds = 0;
        const std::string& text = values.at(0);
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), milliseconds);
        if (error != std::errc() || end != text.data() + text.size() || milliseconds < 0 || milliseconds > 86'400'000) {
          return false;
        }
        agentOptions->simulatedConnectDelay = std::chrono::milliseconds(milliseconds);
        agentOptions->simulatedConnectGiven = true;
        return true;
      },
      "How long the simulated tunnel takes to connect (whole milliseconds)");
  agent->callback([&global, &result, agentOptions] { result = runAgent(global, *agentOptions); });

  auto json = std::make_shared<bool>(false);
  auto* status = app.add_subcommand("status", "Состояние VPN");
  status->add_flag("--json", *json, "Машиночитаемый вывод");
  status->callback([&global, &result, json] { result = runStatus(global, *json); });

  const std::pair<const char*, const char*> actions[] = {{"connect", "Подключить VPN"},
                                                         {"disconnect", "Отключить VPN"},
                                                         {"toggle", "Переключить VPN"},
                                                         {"change-server", "Сменить сервер"}};
  for (const auto& [name, help] : actions) {
    app.add_subcommand(name, help)->callback([&global, &result, command = std::string(name)] {
      result = runAction(global, command);
    });
  }

  auto mode = std::make_shared<ModeOptions>();
  auto* modeCommand = app.add_subcommand("mode", "Режим маршрутизации");
  modeCommand->add_option("mode", mode->mode, "full, smart или services")
      ->check(CLI::IsMember({"full", "smart", "services"}));
  modeCommand->add_flag("--yes", mode->yes, "Подтвердить включение Обычного режима без вопроса");
  modeCommand->callback([&global, &result, mode] { result = runMode(global, *mode); });

  auto sites = std::make_shared<SitesOptions>();
  auto* sitesCommand = app.add_subcommand("sites", "Сайты через VPN (режим «По сайтам»)");
  sitesCommand->add_option("action", sites->action, "list, on, off, add, remove, enable, disable")
      ->check(CLI::IsMember({"list", "on", "off", "add", "remove", "enable", "disable"}));
  sitesCommand->add_option("value", sites->value, "Сервис (youtube …) или домен");
  sitesCommand->callback([&global, &result, sites] { result = runSites(global, *sites); });

  app.add_subcommand("watch", "Показывать каждое изменение состояния, пока не прервут")->callback([&global, &result] {
    result = runWatch(global);
  });

  auto logs = std::make_shared<LogsOptions>();
  auto* logsCommand = app.add_subcommand("logs", "Журнал агента");
  logsCommand->add_option("-n,--lines", logs->lines, "Сколько последних строк");
  logsCommand->add_flag("-f,--follow", logs->follow, "Показывать новые строки");
  logsCommand->callback([&global, &result, logs] { result = runLogs(global, *logs); });
}

}  // namespace norvik::cli
