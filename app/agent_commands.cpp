#include "app/agent_commands.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <memory>
#include <sys/inotify.h>
#include <unistd.h>

#include <fmt/format.h>

#include "app/agent.h"
#include "app/agent_exchange.h"
#include "platform/app_paths.h"
#include "platform/files.h"

namespace norvik::cli {
namespace {

using Json = nlohmann::json;
using namespace std::chrono_literals;

// A store the status reports as reset, in the user's words.
std::string storeLabel(const std::string& store) {
  if (store == "standard settings") return "настройки приложения";
  if (store == "group settings") return "общие настройки";
  if (store == "secure items") return "защищённое хранилище";
  if (store == "tunnel preferences") return "настройки туннеля";
  return store;
}

// A dialog or update prompt that waits for the user's answer, with the command that gives it; a
// toast in one line.
std::string describeWaiting(const Json& item) {
  if (!item.is_object()) return {};
  if (text(item, "kind") == "toast") return fmt::format("Уведомление: {}\n", text(item, "message"));
  std::string out = fmt::format("Ждёт ответа — norvik answer {} КНОПКА\n", text(item, "id"));
  if (!text(item, "title").empty()) out += fmt::format("  {}\n", text(item, "title"));
  if (!text(item, "message").empty()) out += fmt::format("  {}\n", text(item, "message"));
  if (!text(item, "textAfterButton").empty()) out += fmt::format("  {}\n", text(item, "textAfterButton"));
  for (const auto& button : item.value("buttons", Json::array())) {
    if (button.is_object()) out += fmt::format("  [{}] {}\n", button.value("index", 0), text(button, "title"));
  }
  const Json choice = item.value("choice", Json());
  if (choice.is_object()) out += fmt::format("  [ ] {} (--dont-show-again)\n", text(choice, "title"));
  return out;
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
  out += describeWaiting(status.value("overlay", Json()));
  out += describeWaiting(status.value("prompt", Json()));
  return out;
}

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

// One event of the subscription in the user's words.
std::string describeEvent(const Json& line) {
  const std::string event = text(line, "event");
  const std::string topic = text(line, "topic");
  const Json value = line.value("value", Json());
  if (event == "open-window") return "Открыть окно Norvik\n";
  if (topic == "home" && value.is_object()) {
    // The status without what waits for an answer: that has its own topics.
    Json home = value;
    home.erase("overlay");
    home.erase("prompt");
    return describe(home);
  }
  if (topic == "overlay" || topic == "prompt") {
    if (!value.is_object()) return event == "snapshot" ? std::string() : fmt::format("Окно закрыто ({})\n", topic);
    return describeWaiting(value);
  }
  if (!value.is_object()) return {};
  if (topic == "updater") {
    if (text(value, "text").empty()) return {};  // idle: nothing to tell
    std::string out = fmt::format("Обновление: {}", text(value, "text"));
    if (value.contains("received")) {
      out += value["total"].is_number() ? fmt::format(" {} / {} байт", value["received"].dump(), value["total"].dump())
                                        : fmt::format(" {} байт", value["received"].dump());
    }
    if (!text(value, "failure").empty()) out += fmt::format(" — {}", text(value, "failure"));
    return out + "\n";
  }
  if (topic == "extension") {
    const Json banner = value.value("banner", Json());
    if (!banner.is_object()) return fmt::format("Расширение: {}\n", text(value, "state"));
    return fmt::format("Расширение: {} — {}: {}\n", text(value, "state"), text(banner, "title"),
                       text(banner, "message"));
  }
  if (topic == "menu") {
    std::string out = fmt::format("Меню: {}\n", text(value, "title"));
    for (const auto& item : value.value("items", Json::array())) {
      const bool checked = item.value("checked", Json()).is_boolean() && item["checked"].get<bool>();
      out += fmt::format("  [{}] {}{}{}\n", item.value("index", 0), checked ? "✓ " : "", text(item, "title"),
                         item.value("enabled", true) ? "" : " (недоступно)");
    }
    return out;
  }
  if (topic == "mode") {
    std::string out = fmt::format("Режим: {}", text(value, "label"));
    if (!text(value, "notice").empty()) out += fmt::format(" — {}", text(value, "notice"));
    return out + "\n";
  }
  if (topic == "sites") {
    std::string on;
    for (const auto& service : value.value("services", Json::array())) {
      if (service.value("on", false)) on += (on.empty() ? "" : ", ") + text(service, "title");
    }
    for (const auto& domain : value.value("domains", Json::array())) {
      if (domain.value("on", false)) on += (on.empty() ? "" : ", ") + text(domain, "domain");
    }
    return fmt::format("Сайты через VPN: {}\n", on.empty() ? "ни одного" : on);
  }
  if (topic == "links") {
    auto link = [&](const char* key) {
      const std::string url = text(value, key);
      return url.empty() ? std::string("—") : url;
    };
    return fmt::format("Ссылки: поддержка {}, канал {}, поделиться {}\n", link("support"), link("supportChannel"),
                       link("share"));
  }
  return {};
}

CommandResult runWatch(const GlobalOptions& global, bool asJson) {
  Exchange exchange{global};
  exchange.limit = std::chrono::hours(24 * 365);
  // A topic whose change does not show in words (a field the text leaves out) prints nothing new.
  std::map<std::string, std::string> lastShown;
  auto answer = exchange.run(Json{{"command", "subscribe"}}, [asJson, &lastShown](const Json& line) {
    if (asJson) {
      fmt::print("{}\n", line.dump(-1, ' ', false, Json::error_handler_t::replace));
    } else {
      const std::string shown = describeEvent(line);
      std::string& last = lastShown[text(line, "topic")];
      if (!shown.empty() && (shown != last || text(line, "event") == "open-window")) fmt::print("{}\n", shown);
      last = shown;
    }
    (void)std::fflush(stdout);  // nothing to do when the terminal or pipe has gone
  });
  if (!answer) return std::unexpected(answer.error());
  return finishWith(answer, [](const Json&) {});
}

struct AnswerOptions {
  std::string id;
  std::string button;
  bool dontShowAgain = false;
};

CommandResult runAnswer(const GlobalOptions& global, const AnswerOptions& options) {
  // A button is named by its number or its title.
  Json button = options.button;
  std::uint64_t index = 0;
  const auto [end, error] =
      std::from_chars(options.button.data(), options.button.data() + options.button.size(), index);
  if (error == std::errc() && end == options.button.data() + options.button.size()) button = index;
  const Json request = {
      {"command", "answer"}, {"id", options.id}, {"button", button}, {"dontShowAgain", options.dontShowAgain}};
  return finishWith(Exchange{global}.run(request), [](const Json& answer) {
    const std::string page = text(answer, "openURL");
    if (!page.empty()) fmt::print("Откройте страницу: {}\n", page);
    fmt::print("{}", describe(answer["status"]));
  });
}

CommandResult runOpenURL(const GlobalOptions& global, const std::string& url) {
  return finishWith(Exchange{global, Exchange::kAtOnce}.run(Json{{"command", "open-url"}, {"url", url}}),
                    [](const Json& answer) { fmt::print("{}", describe(answer["status"])); });
}

struct SmartModeOptions {
  std::string state;
  bool yes = false;
  bool dontShowAgain = false;
};

CommandResult runSmartMode(const GlobalOptions& global, const SmartModeOptions& options) {
  Exchange exchange{global, Exchange::kAtOnce};
  Json request = {{"command", "smart-mode"},
                  {"enabled", options.state == "on"},
                  {"confirmed", options.yes},
                  {"dontShowAgain", options.dontShowAgain}};
  auto answer = exchange.run(request);
  if (answer && text(*answer, "code") == "confirm") {
    const Json dialog = (*answer)["confirm"];
    fmt::print("{}\n{}\n", text(dialog, "title"), text(dialog, "message"));
    if (!askYesNo(fmt::format("{}?", text(dialog, "confirm")))) {
      fmt::print("{}\n", text(dialog, "keep"));
      return {};
    }
    request["confirmed"] = true;
    request["dontShowAgain"] = options.dontShowAgain || askYesNo(fmt::format("{}?", text(dialog, "dontShowAgain")));
    answer = exchange.run(request);
  }
  return finishWith(answer, [](const Json& reply) { fmt::print("Режим: {}\n", text(reply["status"], "modeLabel")); });
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

  auto watchJson = std::make_shared<bool>(false);
  auto* watch = app.add_subcommand("watch", "Показывать каждое изменение состояния, пока не прервут");
  watch->add_flag("--json", *watchJson, "События как их присылает агент, по одному JSON в строке");
  watch->callback([&global, &result, watchJson] { result = runWatch(global, *watchJson); });

  auto answer = std::make_shared<AnswerOptions>();
  auto* answerCommand = app.add_subcommand("answer", "Ответить на окно или предложение обновления кнопкой");
  answerCommand->add_option("id", answer->id, "Окно: overlay-N или prompt-N (см. norvik status)")->required();
  answerCommand->add_option("button", answer->button, "Номер кнопки или её текст")->required();
  answerCommand->add_flag("--dont-show-again", answer->dontShowAgain, "Отметить «Больше не показывать»");
  answerCommand->callback([&global, &result, answer] { result = runAnswer(global, *answer); });

  auto url = std::make_shared<std::string>();
  auto* openURL = app.add_subcommand("open-url", "Передать агенту ссылку norvikvpn://");
  openURL->add_option("url", *url, "norvikvpn://widget/connect, disconnect, change-server или open")->required();
  openURL->callback([&global, &result, url] { result = runOpenURL(global, *url); });

  auto smart = std::make_shared<SmartModeOptions>();
  auto* smartCommand = app.add_subcommand("smart-mode", "Умный режим в настройках: включить или выключить");
  smartCommand->add_option("state", smart->state, "on или off")->required()->check(CLI::IsMember({"on", "off"}));
  smartCommand->add_flag("--yes", smart->yes, "Выключить без вопроса");
  smartCommand->add_flag("--dont-show-again", smart->dontShowAgain, "Больше не спрашивать при выключении");
  smartCommand->callback([&global, &result, smart] { result = runSmartMode(global, *smart); });

  auto logs = std::make_shared<LogsOptions>();
  auto* logsCommand = app.add_subcommand("logs", "Журнал агента");
  logsCommand->add_option("-n,--lines", logs->lines, "Сколько последних строк");
  logsCommand->add_flag("-f,--follow", logs->follow, "Показывать новые строки");
  logsCommand->callback([&global, &result, logs] { result = runLogs(global, *logs); });
}

}  // namespace norvik::cli
