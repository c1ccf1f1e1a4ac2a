// The agent's commands as a client of its socket meets them: the real application on virtual
// time, the simulated tunnel and a scripted backend (testing/agent_host.h).
#include "app/control_commands.h"

#include <gtest/gtest.h>

#include "testing/agent_host.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::AgentHost;
using testing::ControlConnection;

class ControlCommandsTest : public ::testing::Test {
 protected:
  // Sends the requests on `connection` and collects every line up to the last one's answer.
  std::vector<Json> exchange(ControlConnection& connection, const std::vector<Json>& requests) {
    for (const Json& request : requests) connection.write(request.dump() + "\n");
    std::vector<Json> lines;
    std::size_t answers = 0;
    host_.runUntil(
        [&] {
          for (Json& line : connection.takeAnswers()) {
            answers += line.contains("ok") ? 1 : 0;
            lines.push_back(std::move(line));
          }
          return answers == requests.size();
        },
        5min);
    EXPECT_EQ(answers, requests.size()) << Json(lines).dump();
    return lines;
  }
  // One request on a connection of its own, as the command line sends it; its answer.
  Json ask(const Json& request) {
    ControlConnection& connection = host_.connect();
    std::vector<Json> lines = exchange(connection, {request});
    host_.hangUp(connection);
    host_.settle();
    return lines.empty() ? Json() : lines.back();
  }

  AgentHost host_;
};

TEST_F(ControlCommandsTest, ConnectChangeServerAndDisconnectAnswerOnceTheTunnelIsThere) {
  ControlConnection& connection = host_.connect();
  const std::vector<Json> lines = exchange(connection, {{{"command", "connect"}}});
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines.front(), (Json{{"event", "progress"}, {"busy", "Получаем ключ, подождите…"}}));
  EXPECT_EQ(lines.back()["ok"], true);
  EXPECT_EQ(lines.back()["status"]["tunnel"], "connected");
  EXPECT_EQ(lines.back()["status"]["tunnelText"], "Защищено");
  EXPECT_EQ(lines.back()["status"]["server"], AgentHost::kFirstServer);

  const Json changed = exchange(connection, {{{"command", "change-server"}}}).back();
  EXPECT_EQ(changed["message"], "Сервер сменён");
  EXPECT_EQ(changed["status"]["server"], AgentHost::kSecondServer);
  EXPECT_EQ(changed["status"]["tunnel"], "connected");
  EXPECT_EQ(host_.backend().count("change_server"), 1);

  EXPECT_EQ(exchange(connection, {{{"command", "connect"}}}).back()["message"], "VPN уже подключён");
  const Json down = exchange(connection, {{{"command", "toggle"}}}).back();
  EXPECT_EQ(down["status"]["tunnel"], "disconnected");
  EXPECT_EQ(ask({{"command", "disconnect"}})["message"], "VPN уже отключён");
}

TEST_F(ControlCommandsTest, AFailedConnectIsAnsweredWithTheErrorTheUserSees) {
  host_.backend().answer("getkey", HttpResponse{429, {}, "{}"});
  const Json answer = ask({{"command", "connect"}});
  EXPECT_EQ(answer["ok"], false);
  EXPECT_EQ(answer["code"], "failed");
  EXPECT_EQ(answer["error"]["title"], "Ошибка получения ключа");
  EXPECT_EQ(answer["error"]["message"], "Слишком много запросов. Пожалуйста, подождите немного и попробуйте снова.");
  EXPECT_NE(answer["status"]["tunnel"], "connected");
}

TEST_F(ControlCommandsTest, WrongArgumentsAndUnknownCommandsAreUsageErrorsThatChangeNothing) {
  const std::string modeBefore = ask({{"command", "status"}})["status"]["mode"];
  const std::vector<std::pair<Json, std::string>> cases = {
      {{{"command", "reboot"}}, R"(unknown command "reboot")"},
      {{{"command", "mode"}, {"set", 1}}, "режим: full, smart или services"},
      {{{"command", "mode"}, {"set", "nowhere"}}, "режим: full, smart или services"},
      {{{"command", "mode"}, {"set", "services"}, {"confirmed", "yes"}}, R"("confirmed" is true or false)"},
      {{{"command", "sites"}, {"action", 5}}, R"("action" and "value" are texts)"},
      {{{"command", "sites"}, {"action", "add"}, {"value", Json::array({"a"})}}, R"("action" and "value" are texts)"},
      {{{"command", "sites"}, {"action", "add"}}, "укажите сайт или сервис"},
      {{{"command", "sites"}, {"action", "on"}, {"value", "nope"}}, "нет такого сервиса: nope"},
      {{{"command", "sites"}, {"action", "explode"}, {"value", "x"}}, R"(unknown sites action "explode")"},
  };
  for (const auto& [request, message] : cases) {
    const Json answer = ask(request);
    EXPECT_EQ(answer["ok"], false) << request;
    EXPECT_EQ(answer["code"], "usage") << request;
    EXPECT_EQ(answer["error"]["message"], message) << request;
    EXPECT_EQ(answer["status"]["mode"], modeBefore) << request;
  }
}

TEST_F(ControlCommandsTest, FullModeIsConfirmedFirstAndCustomSitesComeAndGo) {
  const Json asked = ask({{"command", "mode"}, {"set", "full"}});
  EXPECT_EQ(asked["code"], "confirm");
  EXPECT_FALSE(asked["confirm"]["title"].get<std::string>().empty());
  EXPECT_NE(asked["status"]["mode"], "full");
  EXPECT_EQ(ask({{"command", "mode"}, {"set", "full"}, {"confirmed", true}})["status"]["mode"], "full");

  const Json added = ask({{"command", "sites"}, {"action", "add"}, {"value", "example.org"}});
  EXPECT_EQ(added["domains"], (Json::array({{{"domain", "example.org"}, {"on", true}}})));
  const Json disabled = ask({{"command", "sites"}, {"action", "disable"}, {"value", "example.org"}});
  EXPECT_EQ(disabled["domains"], (Json::array({{{"domain", "example.org"}, {"on", false}}})));
  EXPECT_EQ(ask({{"command", "sites"}, {"action", "remove"}, {"value", "example.org"}})["domains"], Json::array());
}

// Each waiting request keeps a hang-up handler on its connection; requests answered earlier on a
// connection that stays open are forgotten when the next one starts, and the hang-up came to them
// after they were gone (a use after free under the sanitizers).
TEST_F(ControlCommandsTest, AClientHangingUpAfterSeveralAnsweredRequestsLeavesNothingBehind) {
  ControlConnection& connection = host_.connect();
  const std::vector<Json> lines = exchange(connection, {{{"command", "connect"}},
                                                        {{"command", "disconnect"}},
                                                        {{"command", "change-server"}},
                                                        {{"command", "disconnect"}}});
  EXPECT_EQ(lines.back()["status"]["tunnel"], "disconnected");
  host_.hangUp(connection);
  host_.settle();
  EXPECT_EQ(host_.server().sessionCount(), 0u);
  EXPECT_EQ(ask({{"command", "status"}})["ok"], true);
}

// A connect whose tunnel never comes up is answered when the start's time runs out; the answer
// starts the connection's next request, which must not find the timed-out request half gone.
TEST_F(ControlCommandsTest, AConnectThatTimesOutIsAnsweredAndTheNextRequestOnItsConnectionRuns) {
  host_.tunnels().setConnectHangs(true);
  ControlConnection& connection = host_.connect();
  const auto start = host_.loop().now();
  std::vector<Json> lines = exchange(connection, {{{"command", "connect"}}, {{"command", "connect"}}});
  const auto took = host_.loop().now() - start;
  EXPECT_GE(took, 2 * TunnelStateMachine::kConnectLimit);
  EXPECT_LT(took, 2 * TunnelStateMachine::kConnectLimit + 5s) << "a key fetch and two starts";
  std::erase_if(lines, [](const Json& line) { return !line.contains("ok"); });
  ASSERT_EQ(lines.size(), 2u);
  for (const Json& answer : lines) {
    EXPECT_EQ(answer["code"], "failed");
    EXPECT_EQ(answer["error"]["message"], "Не удалось подключиться к VPN. Попробуйте снова или смените сервер.");
  }
  host_.hangUp(connection);
  host_.settle();
  EXPECT_EQ(host_.server().sessionCount(), 0u);
}

// A client that hangs up while its connect is on the way (Ctrl-C on the command line) gave the connect
// up: the tunnel stays down — unless another client still waits for it.
TEST_F(ControlCommandsTest, AConnectWhoseClientHangsUpIsCancelledUnlessAnotherWaits) {
  host_.backend().setLatency(5s);
  ControlConnection& gaveUp = host_.connect();
  gaveUp.write(R"({"command":"connect"})"
               "\n");
  host_.advance(1s);  // the key is on its way
  host_.hangUp(gaveUp);
  host_.advance(30s);
  EXPECT_EQ(host_.tunnels().startOptions().size(), 0u);
  EXPECT_TRUE(host_.log().contains("[Intent] подключение отменено: командная строка перестал ждать"));
  EXPECT_EQ(ask({{"command", "status"}})["status"]["intent"], "off");

  ControlConnection& first = host_.connect();
  ControlConnection& second = host_.connect();
  first.write(R"({"command":"connect"})"
              "\n");
  second.write(R"({"command":"connect"})"
               "\n");
  host_.advance(1s);
  host_.hangUp(first);
  std::vector<Json> answers;
  host_.runUntil(
      [&] {
        for (Json& line : second.takeAnswers()) {
          if (line.contains("ok")) answers.push_back(std::move(line));
        }
        return !answers.empty();
      },
      2min);
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0]["ok"], true);
  EXPECT_EQ(answers[0]["status"]["tunnel"], "connected");
}

TEST_F(ControlCommandsTest, WatchSendsTheStateAtEachChangeUntilTheClientHangsUp) {
  ControlConnection& watcher = host_.connect();
  watcher.write(R"({"command":"watch"})"
                "\n");
  host_.settle();
  ask({{"command", "connect"}});
  std::vector<std::string> tunnel;
  for (const Json& line : watcher.takeAnswers()) {
    EXPECT_EQ(line["event"], "status");
    tunnel.push_back(line["status"]["tunnel"]);
  }
  ASSERT_GE(tunnel.size(), 3u);
  EXPECT_NE(tunnel.front(), "connected");
  EXPECT_EQ(tunnel.back(), "connected");
  host_.hangUp(watcher);
  host_.settle();
  EXPECT_EQ(host_.server().sessionCount(), 0u);
}

}  // namespace
}  // namespace norvik
