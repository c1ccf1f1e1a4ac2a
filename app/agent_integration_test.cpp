// The product as a user runs it: the agent and the command line as separate processes, against the
// local backend over real HTTPS on loopback, with the simulated tunnel.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <fmt/chrono.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

#include "platform/files.h"
#include "platform/linux/curl_http_transport.h"
#include "testing/background_process.h"
#include "testing/subprocess.h"
#include "testing/temp_dir.h"
#include "testing/virtual_event_loop.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::BackgroundProcess;
using testing::ProcessResult;
using testing::waitFor;

class AgentIntegrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    backend_ = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{NORVIK_DEVBACKEND_PATH, "--state-dir", (dir_ / "backend").string(), "--port", "0",
                                 "--port-file", portFile_.string(), "--write-ca", ca_.string(), "--write-provisioning",
                                 provisioning_.string()},
        dir_ / "backend.log");
    ASSERT_TRUE(waitFor([&] { return !readFile(portFile_).value_or("").empty(); })) << backend_->output();
    std::string port = *readFile(portFile_);
    while (!port.empty() && (port.back() == '\n' || port.back() == '\r')) port.pop_back();
    base_ = "https://127.0.0.1:" + port;
  }

  std::vector<std::string> global() const {
    return {NORVIK_CLI_PATH, "--home",     home_.string(),   "--backend",           base_ + "/api/",
            "--ca-file",     ca_.string(), "--provisioning", provisioning_.string()};
  }

  void startAgent() {
    auto argv = global();
    argv.insert(argv.end(), {"agent", "--simulated-connect-ms", "50"});
    agent_ = std::make_unique<BackgroundProcess>(argv, dir_ / "agent.log");
    ASSERT_TRUE(waitFor([&] { return std::filesystem::exists(home_ / "run" / "agent.sock"); })) << agent_->output();
  }

  ProcessResult norvik(std::vector<std::string> args) {
    auto argv = global();
    argv.insert(argv.end(), args.begin(), args.end());
    return testing::runProcess(argv);
  }

  Json status() {
    Json answer = Json::parse(norvik({"status", "--json"}).out, nullptr, false);
    return answer.is_object() ? answer : Json::object();
  }

  // The local backend's admin API.
  Json admin(std::string method, const std::string& path, const Json& body = nullptr) {
    testing::VirtualEventLoop loop;
    auto http = CurlHttpTransport::create(loop, {ca_}).value();
    HttpRequest request{std::move(method),
                        base_ + path,
                        {{"Content-Type", "application/json"}},
                        body.is_null() ? "" : body.dump(),
                        10s};
    auto result = http->perform(request);
    if (!result) return Json{{"transport_error", result.error().message}};
    return Json::parse(result->body, nullptr, false);
  }
  int received(const std::string& endpoint) {
    const Json requests = admin("GET", "/admin/requests");
    if (!requests.contains("endpoints") || !requests["endpoints"].contains(endpoint)) return 0;
    return requests["endpoints"][endpoint].value("received", 0);
  }

  testing::TempDir dir_;
  std::filesystem::path home_ = dir_ / "home";
  std::filesystem::path portFile_ = dir_ / "port";
  std::filesystem::path ca_ = dir_ / "ca.pem";
  std::filesystem::path provisioning_ = dir_ / "provisioning.json";
  std::string base_;
  std::unique_ptr<BackgroundProcess> backend_;
  std::unique_ptr<BackgroundProcess> agent_;
};

TEST_F(AgentIntegrationTest, ConnectChangeServerAndDisconnectAsAUserWould) {
  startAgent();
  auto connected = norvik({"connect"});
  ASSERT_EQ(connected.exitStatus, 0) << connected.err << agent_->output();
  EXPECT_NE(connected.out.find("Получаем ключ, подождите…"), std::string::npos) << connected.out;
  EXPECT_NE(connected.out.find("Norvik — Защищено"), std::string::npos) << connected.out;
  EXPECT_EQ(status()["server"], "203.0.113.10");

  auto changed = norvik({"change-server"});
  ASSERT_EQ(changed.exitStatus, 0) << changed.err;
  EXPECT_NE(changed.out.find("Сервер сменён"), std::string::npos) << changed.out;
  EXPECT_EQ(status()["server"], "198.51.100.7");
  EXPECT_EQ(status()["tunnel"], "connected");
  EXPECT_EQ(received("change_server"), 1);

  auto disconnected = norvik({"disconnect"});
  ASSERT_EQ(disconnected.exitStatus, 0) << disconnected.err;
  EXPECT_NE(disconnected.out.find("Norvik — Отключено"), std::string::npos);
  EXPECT_EQ(agent_->stop(), 0) << "SIGTERM ends the agent cleanly";
  EXPECT_FALSE(std::filesystem::exists(home_ / "run" / "agent.sock"));
}

TEST_F(AgentIntegrationTest, A503StormOnMainLeavesTheToggleUsableFromTheCachedConfiguration) {
  startAgent();
  ASSERT_EQ(norvik({"connect"}).exitStatus, 0);
  ASSERT_EQ(norvik({"disconnect"}).exitStatus, 0);
  agent_->stop();
  const int keysBefore = received("getkey");

  admin("POST", "/admin/faults", Json{{"status", "main:503"}});
  startAgent();
  auto connected = norvik({"connect"});
  ASSERT_EQ(connected.exitStatus, 0) << connected.err << agent_->output();
  EXPECT_EQ(status()["server"], "203.0.113.10") << "the installed key, from the last run";
  EXPECT_EQ(received("getkey"), keysBefore) << "no new key was needed";
  ASSERT_TRUE(waitFor(
      [&] { return admin("GET", "/admin/requests")["endpoints"]["main"]["statuses"].value("503", 0) >= 4; }, 30s));
  EXPECT_EQ(status()["switchLocked"], false);
}

TEST_F(AgentIntegrationTest, ALockedSecureStoreWithoutMirrorSendsNothingToTheBackend) {
  ASSERT_EQ(norvik({"debug", "secure-store", "lock"}).exitStatus, 0);
  startAgent();
  auto connected = norvik({"connect"});
  EXPECT_EQ(connected.exitStatus, 1);
  EXPECT_NE(connected.err.find("Не удалось получить ключ. Попробуйте позже."), std::string::npos) << connected.err;
  EXPECT_EQ(admin("GET", "/admin/requests").value("requests", Json::array()).size(), 0u);
  EXPECT_NE(agent_->output().find("зеркала нет — запасной ID, запросы к бэкенду заблокированы"), std::string::npos);
}

// One request line straight to the agent's socket, as any local program could send it; the first
// answer line.
std::string askAgentRaw(const std::filesystem::path& socketPath, const std::string& line) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (void)std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
  std::string answer;
  if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
    char c = 0;
    while (::read(fd, &c, 1) == 1 && c != '\n') answer.push_back(c);
  }
  if (fd >= 0) ::close(fd);
  return answer;
}

TEST_F(AgentIntegrationTest, ArgumentsOfTheWrongTypeAreAnsweredAndTheAgentCarriesOn) {
  startAgent();
  const auto socketPath = home_ / "run" / "agent.sock";
  for (const std::string line : {R"({"command":"sites","action":1})", R"({"command":"sites","value":null})",
                                 R"({"command":"mode","set":"full","confirmed":"yes"})"}) {
    const Json answer = Json::parse(askAgentRaw(socketPath, line + "\n"), nullptr, false);
    ASSERT_TRUE(answer.is_object()) << line;
    EXPECT_EQ(answer.value("code", ""), "usage") << line;
  }
  EXPECT_TRUE(agent_->running());
  EXPECT_EQ(norvik({"status"}).exitStatus, 0);
}

TEST_F(AgentIntegrationTest, TheSmartModeOffConfirmationsDontShowAgainSurvivesARestart) {
  startAgent();
  const auto socketPath = home_ / "run" / "agent.sock";
  const std::string off = R"({"command":"smart-mode","enabled":false})"
                          "\n";
  // The command line's way, without the box: the question stays.
  auto once = norvik({"smart-mode", "off", "--yes"});
  ASSERT_EQ(once.exitStatus, 0) << once.err;
  EXPECT_EQ(status()["mode"], "full");
  ASSERT_EQ(norvik({"smart-mode", "on"}).exitStatus, 0);
  EXPECT_EQ(Json::parse(askAgentRaw(socketPath, off), nullptr, false).value("code", ""), "confirm");

  // The desktop application's way: the question waits in the agent's overlay queue, and the
  // user answers it with the box ticked.
  const Json asked = Json::parse(askAgentRaw(socketPath, R"({"command":"smart-mode","enabled":false,"dialog":true})"
                                                         "\n"),
                                 nullptr, false);
  ASSERT_EQ(asked.value("code", ""), "confirm") << asked;
  EXPECT_EQ(asked["confirm"]["dontShowAgain"], "Больше не показывать");
  const std::string id = asked["confirm"].value("id", "");
  ASSERT_FALSE(id.empty()) << asked;

  auto confirmed = norvik({"answer", id, "Выключить", "--dont-show-again"});
  ASSERT_EQ(confirmed.exitStatus, 0) << confirmed.err;
  EXPECT_EQ(status()["mode"], "full");
  ASSERT_EQ(agent_->stop(), 0);

  startAgent();
  ASSERT_EQ(norvik({"smart-mode", "on"}).exitStatus, 0);
  EXPECT_EQ(status()["mode"], "smart");
  const Json again = Json::parse(askAgentRaw(socketPath, off), nullptr, false);
  EXPECT_EQ(again.value("ok", false), true) << "asked again after a restart: " << again;
  EXPECT_EQ(status()["mode"], "full");
}

TEST_F(AgentIntegrationTest, AnUpdatePromptIsShownByStatusAndAnsweredFromTheCommandLine) {
  admin("POST", "/admin/app-update",
        Json{{"update", {{"update_type", "soft_screen"}, {"update_title", "Вышла версия 9"}, {"cooldown_hours", 5}}}});
  startAgent();
  std::string id;
  ASSERT_TRUE(waitFor([&] {
    const Json prompt = status().value("prompt", Json());
    if (prompt.is_object()) id = prompt.value("id", "");
    return !id.empty();
  })) << agent_->output();
  auto shown = norvik({"status"});
  EXPECT_NE(shown.out.find("Ждёт ответа — norvik answer " + id + " КНОПКА"), std::string::npos) << shown.out;
  EXPECT_NE(shown.out.find("Вышла версия 9"), std::string::npos) << shown.out;
  EXPECT_NE(shown.out.find("[1] Не сейчас"), std::string::npos) << shown.out;

  EXPECT_EQ(norvik({"answer", "overlay-77", "0"}).exitStatus, 1);
  auto later = norvik({"answer", id, "Не сейчас"});
  ASSERT_EQ(later.exitStatus, 0) << later.err;
  EXPECT_TRUE(status().value("prompt", Json()).is_null());
  EXPECT_NE(agent_->output().find("[Version] Soft_screen cooldown started (5h)"), std::string::npos);
}

TEST_F(AgentIntegrationTest, LinksReachTheAgentFromTheCommandLine) {
  auto noAgent = norvik({"open-url", "norvikvpn://widget/connect"});
  EXPECT_EQ(noAgent.exitStatus, 3);
  EXPECT_NE(noAgent.err.find("Агент Norvik не запущен"), std::string::npos) << noAgent.err;

  startAgent();
  ASSERT_EQ(norvik({"open-url", "norvikvpn://widget/connect"}).exitStatus, 0);
  ASSERT_TRUE(waitFor([&] { return status().value("tunnel", "") == "connected"; })) << agent_->output();
  auto unknown = norvik({"open-url", "https://example.org/"});
  EXPECT_EQ(unknown.exitStatus, 2);
  EXPECT_NE(unknown.err.find("неизвестная ссылка"), std::string::npos) << unknown.err;
}

TEST_F(AgentIntegrationTest, UpdateCommandsGoThroughTheRunningAgent) {
  startAgent();
  const int before = received("appcast");
  auto checked = norvik({"update", "check"});
  ASSERT_EQ(checked.exitStatus, 0) << checked.err << agent_->output();
  EXPECT_EQ(received("appcast"), before + 1);
  // The agent, not the command, read the feed: the line is in the agent's log.
  EXPECT_NE(agent_->output().find("[Update] appcast загружен: 1 элементов"), std::string::npos) << agent_->output();
  EXPECT_TRUE(checked.out.find("Доступна версия") != std::string::npos ||
              checked.out.find("У вас последняя версия") != std::string::npos)
      << checked.out;
}

TEST_F(AgentIntegrationTest, WatchPrintsEveryTopicAndItsChangesAsJsonLines) {
  startAgent();
  auto argv = global();
  argv.insert(argv.end(), {"watch", "--json"});
  BackgroundProcess watch(argv, dir_ / "watch.log");
  auto lines = [&] {
    std::vector<Json> out;
    std::istringstream text(watch.output());
    for (std::string line; std::getline(text, line);) {
      Json event = Json::parse(line, nullptr, false);
      if (event.is_object()) out.push_back(std::move(event));
    }
    return out;
  };
  ASSERT_TRUE(waitFor([&] { return lines().size() >= 9; })) << watch.output();
  EXPECT_EQ(lines()[0].value("event", ""), "snapshot");
  EXPECT_EQ(lines()[0].value("topic", ""), "home");

  ASSERT_EQ(norvik({"connect"}).exitStatus, 0);
  EXPECT_TRUE(waitFor([&] {
    return std::ranges::any_of(lines(), [](const Json& e) {
      return e.value("event", "") == "changed" && e.value("topic", "") == "home" &&
             e["value"].value("tunnel", "") == "connected";
    });
  })) << watch.output();
  (void)watch.stop();
}

TEST_F(AgentIntegrationTest, ASecondAgentIsRefusedAndTheFirstCarriesOn) {
  startAgent();
  auto argv = global();
  argv.emplace_back("agent");
  auto second = testing::runProcess(argv);
  EXPECT_EQ(second.exitStatus, 1);
  EXPECT_NE(second.err.find("Агент Norvik уже запущен"), std::string::npos) << second.err;
  EXPECT_TRUE(agent_->running());
  EXPECT_EQ(norvik({"status"}).exitStatus, 0);
}

TEST_F(AgentIntegrationTest, WithoutAnAgentCommandsSayHowToStartIt) {
  auto result = norvik({"connect"});
  EXPECT_EQ(result.exitStatus, 3);
  EXPECT_NE(result.err.find("norvik agent"), std::string::npos) << result.err;
}

TEST_F(AgentIntegrationTest, AHomeThatCannotHoldTheStateIsAClearError) {
  ASSERT_TRUE(writeFileAtomically(dir_ / "not-a-directory", "x"));
  home_ = dir_ / "not-a-directory" / "home";
  auto argv = global();
  argv.emplace_back("agent");
  auto result = testing::runProcess(argv);
  EXPECT_EQ(result.exitStatus, 2);
  EXPECT_NE(result.err.find("not-a-directory"), std::string::npos) << result.err;
}

TEST_F(AgentIntegrationTest, TheWidgetsToggleConnectsAndItsStateFollowsTheTunnel) {
  startAgent();
  const auto container = home_ / "group" / "QX7RT2LM9A.com.norvik.macos";
  auto widgetState = [&] {
    Json state = Json::parse(readFile(container / "widget-state.json").value_or(""), nullptr, false);
    return state.is_object() ? state : Json::object();
  };
  ASSERT_TRUE(waitFor([&] { return widgetState().value("phase", "") == "disconnected"; })) << agent_->output();
  EXPECT_EQ(widgetState()["appRunning"], true);

  // The widget writes its command and leaves; the agent reads it on its poll.
  const std::time_t now = std::time(nullptr);
  const Json command = {
      {"kind", "toggle"}, {"issuedAt", fmt::format("{:%FT%TZ}", fmt::gmtime(now))}, {"id", "widget-1"}};
  ASSERT_TRUE(writeFileAtomically(container / "widget-command.json", command.dump()));
  ASSERT_TRUE(waitFor([&] { return status().value("tunnel", "") == "connected"; }, 20s)) << agent_->output();
  EXPECT_EQ(received("getkey"), 1);
  ASSERT_TRUE(waitFor(
      [&] {
        const Json state = widgetState();
        return state.value("phase", "") == "connected" && state.contains("trafficDown");
      },
      15s))
      << widgetState().dump();
  EXPECT_EQ(widgetState()["tunnelAddress"], "203.0.113.10");

  ASSERT_EQ(agent_->stop(), 0);
  EXPECT_EQ(widgetState()["appRunning"], false) << "the widget learns that nobody answers its buttons";
  EXPECT_EQ(widgetState()["phase"], "connected");
}

// The user's "on" survives the agent, however it ends; their "off" too. With the simulated tunnel
// the session dies with the agent, as the real one does.
TEST_F(AgentIntegrationTest, TheUsersIntentSurvivesAKillAndAStopOfTheAgent) {
  struct Case {
    bool on;
    int signal;
  };
  for (const Case c : {Case{true, SIGKILL}, Case{true, SIGTERM}, Case{false, SIGKILL}, Case{false, SIGTERM}}) {
    SCOPED_TRACE(fmt::format("intent {}, signal {}", c.on ? "on" : "off", c.signal));
    startAgent();
    ASSERT_EQ(norvik({"connect"}).exitStatus, 0) << agent_->output();
    if (!c.on) {
      ASSERT_EQ(norvik({"disconnect"}).exitStatus, 0);
    }
    ASSERT_EQ(::kill(agent_->pid(), c.signal), 0);
    ASSERT_TRUE(waitFor([&] { return !agent_->running(); }, 10s));
    (void)agent_->stop();
    if (c.signal == SIGKILL) std::filesystem::remove(home_ / "run" / "agent.sock");

    startAgent();
    if (c.on) {
      // Nobody asks: the agent brings back what the user had.
      EXPECT_TRUE(waitFor([&] { return status().value("tunnel", "") == "connected"; }, 20s)) << agent_->output();
      EXPECT_EQ(status()["intent"], "on");
      EXPECT_NE(agent_->output().find("[Intent] при запуске: пользователь оставил VPN включённым — поднимаем"),
                std::string::npos);
    } else {
      std::this_thread::sleep_for(1500ms);  // long enough for a connect to have begun (50 ms here)
      EXPECT_EQ(status()["tunnel"], "disconnected") << agent_->output();
      EXPECT_EQ(status()["intent"], "off");
    }
    EXPECT_EQ(agent_->stop(), 0);
  }
  EXPECT_EQ(received("getkey"), 1) << "the key stays installed across the restarts";
}

// A server change on a full disk (a small filesystem of its own; root only): the new key cannot be
// saved, and the user hears why — never "Сервер сменён".
TEST_F(AgentIntegrationTest, OnAFullDiskAServerChangeSaysWhyAndNeverClaimsSuccess) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting a small filesystem needs root";
  ASSERT_TRUE(makeDirectories(home_, 0700));
  if (::mount("norvik-test", home_.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "size=4m,mode=0700") != 0) {
    GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
  }
  struct Unmount {
    std::filesystem::path where;
    ~Unmount() { ::umount2(where.c_str(), MNT_DETACH); }
  } unmount{home_};
  startAgent();
  ASSERT_EQ(norvik({"connect"}).exitStatus, 0) << agent_->output();
  {
    const int fd = ::open((home_ / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    const std::string block(64 * 1024, 'x');
    while (::write(fd, block.data(), block.size()) > 0) {
    }
    while (::write(fd, "x", 1) > 0) {
    }
    ::close(fd);
  }
  auto changed = norvik({"change-server"});
  EXPECT_EQ(changed.exitStatus, 1) << changed.out;
  EXPECT_EQ(changed.out.find("Сервер сменён"), std::string::npos) << changed.out;
  EXPECT_NE(
      changed.err.find("Не удалось установить новую конфигурацию VPN. Изменение не сохранено: на диске нет места."),
      std::string::npos)
      << changed.err << agent_->output();
  EXPECT_EQ(agent_->stop(), 0);
}

}  // namespace
}  // namespace norvik
