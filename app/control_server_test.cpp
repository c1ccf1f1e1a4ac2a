#include "app/control_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "app/control_client.h"
#include "testing/agent_host.h"
#include "testing/fakes.h"
#include "testing/temp_dir.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

// Raw bytes to the socket, and whatever comes back until the server closes (or a second passes).
std::string exchangeRaw(const std::filesystem::path& path, const std::string& bytes) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return "no connection";
  (void)::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  timeval timeout{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  std::string out;
  char chunk[4096];
  for (ssize_t n; (n = ::recv(fd, chunk, sizeof chunk, 0)) > 0;) out.append(chunk, static_cast<std::size_t>(n));
  ::close(fd);
  return out;
}

class ControlServerTest : public ::testing::Test {
 protected:
  ControlServerTest() {
    auto opened = ControlServer::open(loop_, path_, log_, [this](const Json& request, const ControlReply& reply) {
      ++handled_;
      if (request["command"] == "slow") {
        reply.event(Json{{"event", "progress"}, {"busy", "Подключаемся…"}});
        loop_.postAfter(50ms, [reply] { reply.finish(Json{{"ok", true}}); });
        return;
      }
      reply.finish(Json{{"ok", true}, {"echo", request["command"]}});
    });
    EXPECT_TRUE(opened.has_value());
    server_ = std::move(*opened);
  }

  // Runs `client` on a worker while the loop serves it.
  template <class Client>
  auto serve(Client client) {
    std::optional<decltype(client())> result;
    runBlockingThenReply(loop_, std::move(client), [&](auto r) {
      result = std::move(r);
      loop_.stop();
    });
    TaskHandle limit = loop_.postAfter(5s, [this] { loop_.stop(); });
    loop_.run();
    limit.cancel();
    return result;
  }

  testing::TempDir dir_;
  std::filesystem::path path_ = dir_ / "run" / "agent.sock";
  testing::CapturingLog log_;
  AsioEventLoop loop_;
  int handled_ = 0;
  std::unique_ptr<ControlServer> server_;
};

TEST_F(ControlServerTest, OnlyItsUserCanReachTheSocket) {
  struct stat st {};
  ASSERT_EQ(::stat(path_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(::stat(path_.parent_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST_F(ControlServerTest, ProgressLinesComeBeforeTheFinalAnswerAndTheConnectionServesTheNext) {
  auto result = serve([path = path_] {
    std::vector<Json> lines;
    auto client = ControlClient::connect(path);
    if (!client) return lines;
    auto first = client->request(
        Json{{"command", "slow"}}, [&](const Json& line) { lines.push_back(line); }, 2s);
    if (first) lines.push_back(*first);
    auto second = client->request(Json{{"command", "status"}}, nullptr, 2s);
    if (second) lines.push_back(*second);
    return lines;
  });
  ASSERT_TRUE(result.has_value());
  ASSERT_EQ(result->size(), 3u);
  EXPECT_EQ((*result)[0]["busy"], "Подключаемся…");
  EXPECT_EQ((*result)[1]["ok"], true);
  EXPECT_EQ((*result)[2]["echo"], "status");
}

TEST_F(ControlServerTest, GarbageIsAnsweredAndTheConnectionClosedWhileOthersCarryOn) {
  auto result = serve([path = path_] {
    std::vector<std::string> answers;
    answers.push_back(exchangeRaw(path, "not json at all\n"));
    answers.push_back(exchangeRaw(path, std::string("\x00\xff\xfe{", 4) + "\n"));
    answers.push_back(exchangeRaw(path, "[1, 2, 3]\n{\"command\": \"status\"}\n"));
    answers.push_back(exchangeRaw(path, std::string(70 * 1024, 'x')));
    auto client = ControlClient::connect(path);
    auto ok =
        client ? client->request(Json{{"command", "status"}}, nullptr, 2s) : std::unexpected(ControlClient::Error{});
    answers.push_back(ok ? ok->dump() : "failed");
    return answers;
  });
  ASSERT_TRUE(result.has_value());
  for (int i = 0; i < 4; ++i) {
    const auto answer = Json::parse((*result)[i].substr(0, (*result)[i].find('\n')), nullptr, false);
    EXPECT_EQ(answer.value("ok", true), false) << (*result)[i];
    EXPECT_EQ(std::count((*result)[i].begin(), (*result)[i].end(), '\n'), 1) << "one answer, then closed";
  }
  EXPECT_EQ((*result)[4], R"({"echo":"status","ok":true})");
  EXPECT_EQ(handled_, 1) << "only the well-formed request reached the handler";
}

TEST(ControlServerOpen, ASocketPathThatCannotExistIsAClearError) {
  AsioEventLoop loop;
  testing::CapturingLog log;
  auto opened = ControlServer::open(loop, "/tmp/" + std::string(200, 'd') + "/agent.sock", log, {});
  ASSERT_FALSE(opened.has_value());
  EXPECT_NE(opened.error().message.find("too long"), std::string::npos);
}

// The limits, with the whole agent on virtual time behind the real socket.
constexpr std::string_view kStatus = "{\"command\":\"status\"}\n";

TEST(ControlServerLimitsTest, AClientThatDoesNotReadIsDisconnectedAndTheOthersCarryOn) {
  testing::AgentHost host(ControlLimits{.maxUnreadOutput = 64 * 1024});
  auto& reader = host.connect();
  auto& slow = host.connect();
  slow.setReading(false);
  std::string burst;
  for (int i = 0; i < 4000; ++i) burst += kStatus;
  slow.write(burst);
  host.settle();
  EXPECT_TRUE(slow.closedByServer());
  EXPECT_TRUE(host.log().contains("клиент не читает ответы"));

  reader.write(kStatus);
  host.settle();
  const auto answers = reader.takeAnswers();
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].value("ok", false), true);
  EXPECT_EQ(host.server().sessionCount(), 1u);
}

TEST(ControlServerLimitsTest, ASilentClientIsClosedAfterTheIdleTimeOutAndAWatcherIsNot) {
  testing::AgentHost host(ControlLimits{.idleTimeout = 60s});
  auto& silent = host.connect();
  auto& dribbling = host.connect();
  auto& watcher = host.connect();
  watcher.write(R"({"command":"watch"})"
                "\n");
  host.settle();
  dribbling.write(R"({"comm)");
  host.advance(59s);
  EXPECT_FALSE(silent.closedByServer());
  host.advance(2s);
  EXPECT_TRUE(silent.closedByServer());
  EXPECT_TRUE(dribbling.closedByServer()) << "bytes without a whole request do not keep a connection";
  EXPECT_FALSE(watcher.closedByServer());
  EXPECT_TRUE(host.log().hasLine("[Agent] управляющее соединение закрыто: клиент молчит 60 с"));
}

TEST(ControlServerLimitsTest, OverTheLimitTheLongestIdleGivesWayOrTheNewcomerIsRefused) {
  testing::AgentHost host(ControlLimits{.maxConnections = 2});
  auto& first = host.connect();
  host.advance(1s);
  auto& second = host.connect();
  host.advance(1s);
  auto& third = host.connect();
  third.write(kStatus);
  host.settle();
  EXPECT_TRUE(first.closedByServer()) << "the longest idle gave way";
  EXPECT_FALSE(second.closedByServer());
  ASSERT_EQ(third.takeAnswers().size(), 1u);

  // Both connections busy: a newcomer is told so and closed.
  second.write(R"({"command":"watch"})"
               "\n");
  third.write(R"({"command":"watch"})"
              "\n");
  host.settle();
  auto& fourth = host.connect();
  host.settle();
  const auto refusal = fourth.takeAnswers();
  ASSERT_EQ(refusal.size(), 1u);
  EXPECT_EQ(refusal[0]["error"]["message"], "Агент Norvik занят: слишком много подключений. Повторите позже.");
  EXPECT_TRUE(fourth.closedByServer());
  EXPECT_FALSE(second.closedByServer());
  EXPECT_FALSE(third.closedByServer());
}

TEST(ControlServerLimitsTest, ARequestWhoseClientHungUpBeforeItBeganIsNotCarriedOut) {
  testing::AgentHost host;
  auto& client = host.connect();
  client.write(R"({"command":"connect"})"
               "\n");
  client.pump();        // the request reaches the socket …
  host.hangUp(client);  // … and the user gives up before the agent reads it
  host.advance(5s);
  EXPECT_TRUE(host.log().hasLine("[Agent] клиент ушёл раньше, чем начался запрос «connect», — запрос не выполняется"));
  EXPECT_EQ(host.backend().count("getkey"), 0);
  EXPECT_EQ(host.server().sessionCount(), 0u);
}

// A peer that sends an endless line is not the agent: the command line stops reading at its bound
// instead of growing and rescanning.
TEST(ControlClientTest, AnAnswerWithoutEndIsRefusedAtTheBound) {
  testing::TempDir dir;
  const auto path = dir / "fake.sock";
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.native().copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  std::thread fake([listener] {
    const int fd = ::accept(listener, nullptr, nullptr);
    const std::string block(1 << 20, 'x');
    for (int i = 0; i < 64 && ::send(fd, block.data(), block.size(), MSG_NOSIGNAL) > 0; ++i) {
    }
    ::close(fd);
  });
  auto client = ControlClient::connect(path);
  ASSERT_TRUE(client.has_value());
  const auto start = std::chrono::steady_clock::now();
  auto answer = client->request(Json{{"command", "status"}}, nullptr, 10s);
  const auto took = std::chrono::steady_clock::now() - start;
  client = std::unexpected(ControlClient::Error{});  // hang up, so that the fake stops sending
  fake.join();
  ::close(listener);
  ASSERT_FALSE(answer.has_value());
  EXPECT_EQ(answer.error().failure, ControlClient::Failure::badAnswer);
  EXPECT_LT(took, 2s);
}

}  // namespace
}  // namespace norvik
