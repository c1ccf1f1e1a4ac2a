// The agent as several users hammer it at once: real processes (the agent, the local backend over
// real HTTPS, the simulated tunnel), several clients of the control socket firing random commands at
// the same moment, burst after burst, with no pause between. After each burst settles, the tunnel is
// as the last request the agent took asked, the agent says so itself, and every request was answered
// exactly once.
//
// Bounded in time: bursts run for NORVIK_STRESS_SECONDS (default below), or exactly
// NORVIK_STRESS_BURSTS of them. The figures — bursts, the share that ended as asked, the longest
// wait of any command — are printed and recorded as test properties.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <latch>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "app/control_client.h"
#include "platform/files.h"
#include "testing/background_process.h"
#include "testing/env_setting.h"
#include "testing/intent_log.h"
#include "testing/subprocess.h"
#include "testing/temp_dir.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::BackgroundProcess;
using testing::lastIntent;
using testing::waitFor;
using Clock = std::chrono::steady_clock;

constexpr int kDefaultSeconds = 25;

class AgentStressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    backend_ = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{NORVIK_DEVBACKEND_PATH, "--state-dir", (dir_ / "backend").string(), "--port", "0",
                                 "--port-file", (dir_ / "port").string(), "--write-ca", (dir_ / "ca.pem").string(),
                                 "--write-provisioning", (dir_ / "provisioning.json").string()},
        dir_ / "backend.log");
    ASSERT_TRUE(waitFor([&] { return !readFile(dir_ / "port").value_or("").empty(); })) << backend_->output();
    std::string port = *readFile(dir_ / "port");
    while (!port.empty() && (port.back() == '\n' || port.back() == '\r')) port.pop_back();
    agent_ = std::make_unique<BackgroundProcess>(
        std::vector<std::string>{NORVIK_CLI_PATH, "--home", home().string(), "--backend",
                                 "https://127.0.0.1:" + port + "/api/", "--ca-file", (dir_ / "ca.pem").string(),
                                 "--provisioning", (dir_ / "provisioning.json").string(), "agent",
                                 "--simulated-connect-ms", "30"},
        dir_ / "agent.log");
    ASSERT_TRUE(waitFor([&] { return std::filesystem::exists(socket()); })) << agent_->output();
  }

  [[nodiscard]] std::filesystem::path home() const { return dir_ / "home"; }
  [[nodiscard]] std::string port() const {
    std::string text = readFile(dir_ / "port").value_or("");
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
  }
  [[nodiscard]] std::filesystem::path socket() const { return home() / "run" / "agent.sock"; }

  // One request on a connection of its own, as the command line sends it.
  std::expected<Json, std::string> ask(const Json& request) {
    auto client = ControlClient::connect(socket());
    if (!client) return std::unexpected("connect: " + client.error().detail);
    auto answer = client->request(request, nullptr, 200s);
    if (!answer) return std::unexpected("request: " + answer.error().detail);
    return *answer;
  }

  testing::TempDir dir_;
  std::unique_ptr<BackgroundProcess> backend_;
  std::unique_ptr<BackgroundProcess> agent_;
};

TEST_F(AgentStressTest, BurstsOfConcurrentCommandsEndAsTheLastOneAsked) {
  const int fixedBursts = testing::envSetting("NORVIK_STRESS_BURSTS", 0);
  const auto budget = std::chrono::seconds(testing::envSetting("NORVIK_STRESS_SECONDS", kDefaultSeconds));
  // A fixed default, so that CI runs the same bursts; NORVIK_STRESS_SEED explores others.
  const auto seed = testing::envSetting<std::uint32_t>("NORVIK_STRESS_SEED", 20261124U);
  RecordProperty("seed", std::to_string(seed));
  std::mt19937 random(seed);
  const std::vector<Json> commands = {
      {{"command", "connect"}},
      {{"command", "disconnect"}},
      {{"command", "toggle"}},
      {{"command", "change-server"}},
      {{"command", "mode"}, {"set", "services"}, {"confirmed", true}},
      {{"command", "mode"}, {"set", "smart"}, {"confirmed", true}},
      {{"command", "mode"}, {"set", "full"}, {"confirmed", true}},
  };

  int bursts = 0;
  int matched = 0;
  Clock::duration longestWait{};
  std::string longestWhat;
  std::vector<std::string> mismatches;
  const auto started = Clock::now();
  while (fixedBursts > 0 ? bursts < fixedBursts : Clock::now() - started < budget) {
    const std::size_t logBefore = agent_->output().size();
    const int clients = std::uniform_int_distribution<int>(2, 5)(random);
    std::vector<Json> sent;
    sent.reserve(static_cast<std::size_t>(clients));
    for (int i = 0; i < clients; ++i) {
      sent.push_back(commands[std::uniform_int_distribution<std::size_t>(0, commands.size() - 1)(random)]);
    }

    // Every client connects first, then all send at the same moment.
    std::vector<std::string> problems(sent.size());
    std::vector<Clock::duration> waited(sent.size());
    std::latch ready(static_cast<std::ptrdiff_t>(sent.size()));
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < sent.size(); ++i) {
      threads.emplace_back([&, i] {
        auto client = ControlClient::connect(socket());
        ready.arrive_and_wait();
        if (!client) {
          problems[i] = "connect: " + client.error().detail;
          return;
        }
        const auto sentAt = Clock::now();
        int finals = 0;
        auto answer = client->request(sent[i], nullptr, 200s);
        waited[i] = Clock::now() - sentAt;
        if (!answer) {
          problems[i] = "no answer: " + answer.error().detail;
          return;
        }
        finals += answer->contains("ok") ? 1 : 0;
        if (finals != 1) problems[i] = "answered " + std::to_string(finals) + " times";
      });
    }
    for (auto& thread : threads) thread.join();
    ++bursts;
    for (std::size_t i = 0; i < sent.size(); ++i) {
      ASSERT_TRUE(problems[i].empty()) << sent[i].dump() << ": " << problems[i] << "\n" << agent_->output();
      if (waited[i] > longestWait) {
        longestWait = waited[i];
        longestWhat = sent[i].dump();
      }
    }

    // The burst settles (a mode change is answered at once and reconnects after), then the last word
    // the agent took about the tunnel decides what it must look like.
    Json now;
    const bool settled = waitFor(
        [&] {
          auto status = ask({{"command", "status"}});
          if (!status) return false;
          now = (*status)["status"];
          const std::string state = now.value("state", "");
          const std::string tunnel = now.value("tunnel", "");
          return (state == "connected" || state == "disconnected" || state == "failed") &&
                 (tunnel == "connected" || tunnel == "disconnected");
        },
        60s);
    ASSERT_TRUE(settled) << now.dump() << "\n" << agent_->output();
    auto expected = lastIntent(std::string_view(agent_->output()).substr(logBefore));
    if (!expected) expected = now.value("intent", "");  // the burst held no word about the tunnel
    const bool asked = now.value("intent", "") == *expected;
    const bool tunnelFollows =
        *expected == "on" ? now.value("tunnel", "") == "connected" : now.value("tunnel", "") == "disconnected";
    if (asked && tunnelFollows) {
      ++matched;
    } else {
      std::string what;
      for (const Json& command : sent) what += command.dump() + " ";
      mismatches.push_back(fmt::format("burst {}: {}→ expected {}, status {}\nthe agent meanwhile:\n{}", bursts, what,
                                       *expected, now.dump(), std::string_view(agent_->output()).substr(logBefore)));
    }
  }

  const double share = bursts == 0 ? 0 : 100.0 * matched / bursts;
  const auto longestMs = std::chrono::duration_cast<std::chrono::milliseconds>(longestWait).count();
  (void)std::fprintf(stderr,
                     "stress: %d bursts, %d ended as the last command asked (%.1f %%), longest wait %lld ms (%s)\n",
                     bursts, matched, share, static_cast<long long>(longestMs), longestWhat.c_str());
  RecordProperty("bursts", bursts);
  RecordProperty("matched", matched);
  RecordProperty("longest_wait_ms", static_cast<int>(longestMs));
  EXPECT_GE(bursts, 10) << "the machine is too slow for the time given";
  EXPECT_EQ(matched, bursts) << fmt::format("{}", fmt::join(mismatches, "\n"));
  EXPECT_EQ(agent_->stop(), 0);
}

// The demo's own walk through the product (status, connect, change server, the modes, a Cyrillic site,
// disconnect), through the real command line, fifty times in a row with no pause between commands:
// it ends disconnected every time.
TEST_F(AgentStressTest, TheDemosWalkFiftyTimesInARowEndsDisconnectedEveryTime) {
  const std::vector<std::string> global = {NORVIK_CLI_PATH,
                                           "--home",
                                           home().string(),
                                           "--backend",
                                           "https://127.0.0.1:" + port() + "/api/",
                                           "--ca-file",
                                           (dir_ / "ca.pem").string(),
                                           "--provisioning",
                                           (dir_ / "provisioning.json").string()};
  const std::vector<std::vector<std::string>> walk = {{"status"},
                                                      {"connect"},
                                                      {"status"},
                                                      {"change-server"},
                                                      {"mode"},
                                                      {"mode", "services"},
                                                      {"sites", "add", "пример.рф"},
                                                      {"sites", "list"},
                                                      {"mode", "smart"},
                                                      {"disconnect"},
                                                      {"status", "--json"}};
  const int rounds = testing::envSetting("NORVIK_DEMO_ROUNDS", 50);
  for (int round = 1; round <= rounds; ++round) {
    testing::ProcessResult last;
    for (const auto& step : walk) {
      auto argv = global;
      argv.insert(argv.end(), step.begin(), step.end());
      last = testing::runProcess(argv);
      // Adding the same site again says so; every other step succeeds.
      if (step[0] == "sites" && step.size() > 1 && step[1] == "add" && round > 1) continue;
      ASSERT_EQ(last.exitStatus, 0) << "round " << round << ": norvik " << fmt::format("{}", fmt::join(step, " "))
                                    << "\n"
                                    << last.out << last.err << "\n"
                                    << agent_->output();
    }
    const Json status = Json::parse(last.out, nullptr, false);
    ASSERT_EQ(status.value("tunnel", ""), "disconnected") << "round " << round << ": " << last.out;
    ASSERT_EQ(status.value("intent", ""), "off") << "round " << round;
  }
  EXPECT_EQ(agent_->stop(), 0);
}

}  // namespace
}  // namespace norvik
