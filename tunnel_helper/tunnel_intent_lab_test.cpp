// The user's last word on the real tunnel (tunnel_lab.h): the agent killed or stopped and started
// again brings back what the user had, and bursts of concurrent commands from several command lines
// end as the last one asked, with traffic flowing when the tunnel is on. Root only; skips otherwise.
#include <gtest/gtest.h>

#include <csignal>
#include <latch>
#include <random>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "testing/env_setting.h"
#include "testing/intent_log.h"
#include "tunnel_helper/tunnel_lab.h"

namespace norvik::tunnel_helper {
namespace {

using namespace std::chrono_literals;
using namespace lab;
using Json = nlohmann::json;
using testing::waitFor;
using Clock = std::chrono::steady_clock;

class TunnelIntentLabTest : public TunnelLabTest {
 protected:
  Json status() {
    auto answer = norvik({"status", "--json"});
    return Json::parse(answer.out, nullptr, false);
  }
  // The agent's state and the system's tunnel have both come to rest.
  bool settledAt(const std::string& tunnel) {
    return waitFor(
        [&] {
          const Json now = status();
          return now.is_object() && now.value("tunnel", "") == tunnel &&
                 (now.value("state", "") == "connected" || now.value("state", "") == "disconnected");
        },
        30s);
  }
  bool tunnelLinkExists() { return run({kIp, "-n", client_, "-br", "link"}).find("norvik") != std::string::npos; }
  void listenForTheService() {
    service_ = inNamespace(server_, [&] { return listenOn(kServiceAddress, wgA_); });
    listeners_.push_back(service_);
    ASSERT_GE(service_, 0);
  }
  void connectOnce() {
    ASSERT_TRUE(waitFor([&] { return agent_->output().find("[GeoIP] cache refreshed") != std::string::npos; }, 20s))
        << agent_->output();
    auto connected = norvikWhileAdmitting({"connect"}, "lab-1", wgA_, &address_);
    ASSERT_EQ(connected.exitStatus, 0) << connected.out << agent_->output();
  }

  int service_ = -1;
  std::string address_;
};

TEST_F(TunnelIntentLabTest, TheAgentStartedAgainAfterAKillOrAStopBringsBackWhatTheUserHad) {
  const std::string before = routingState();
  listenForTheService();
  startAgent("agent-1.log");
  connectOnce();
  ASSERT_EQ(arrivesFrom(client_, kServiceAddress, service_), address_);

  // Killed with the tunnel on: the next agent takes the user's "on" back up.
  ASSERT_EQ(::kill(agent_->pid(), SIGKILL), 0);
  EXPECT_EQ(agent_->stop(), 128 + SIGKILL);
  startAgent("agent-2.log");
  EXPECT_TRUE(waitFor([&] { return agentLogCount("[Intent] при запуске: пользователь оставил VPN включённым") == 1; }))
      << agent_->output();
  ASSERT_TRUE(settledAt("connected")) << status().dump() << agent_->output();
  EXPECT_TRUE(waitFor([&] { return arrivesFrom(client_, kServiceAddress, service_) == address_; }, 10s))
      << agent_->output();

  // Stopped with the tunnel on (a service restart): the same.
  EXPECT_EQ(agent_->stop(), 0);
  startAgent("agent-3.log");
  ASSERT_TRUE(settledAt("connected")) << status().dump() << agent_->output();
  EXPECT_TRUE(waitFor([&] { return arrivesFrom(client_, kServiceAddress, service_) == address_; }, 10s));

  // The user turns it off; neither a kill nor a stop brings it back.
  ASSERT_EQ(norvik({"disconnect"}).exitStatus, 0);
  ASSERT_EQ(::kill(agent_->pid(), SIGKILL), 0);
  EXPECT_EQ(agent_->stop(), 128 + SIGKILL);
  startAgent("agent-4.log");
  EXPECT_TRUE(waitFor([&] { return agentLogCount("[Intent] при запуске: пользователь оставил VPN выключенным") == 1; }))
      << agent_->output();
  EXPECT_EQ(agent_->stop(), 0);
  startAgent("agent-5.log");
  EXPECT_TRUE(
      waitFor([&] { return agentLogCount("[Intent] при запуске: пользователь оставил VPN выключенным") == 1; }));
  ASSERT_TRUE(settledAt("disconnected")) << status().dump() << agent_->output();
  EXPECT_FALSE(tunnelLinkExists());
  EXPECT_EQ(routingState(), before);
  EXPECT_EQ(arrivesFrom(client_, kServiceAddress, service_), "");
  EXPECT_EQ(agent_->stop(), 0);
}

// A few command lines at once, over and over, on the real tunnel: after each burst the tunnel is
// what the last command the agent took asked for. Bounded by NORVIK_LAB_STRESS_SECONDS (default 20).
TEST_F(TunnelIntentLabTest, BurstsOfConcurrentCommandsEndAsTheLastOneAsked) {
  const std::string before = routingState();
  listenForTheService();
  startAgent();
  connectOnce();

  const std::vector<std::vector<std::string>> commands = {
      {"connect"}, {"disconnect"}, {"toggle"}, {"mode", "smart"}, {"mode", "services"}, {"mode", "full", "--yes"}};
  const auto seed = testing::envSetting<std::uint32_t>("NORVIK_LAB_STRESS_SEED", 20261124U);
  std::mt19937 random(seed);
  const auto budget = std::chrono::seconds(testing::envSetting("NORVIK_LAB_STRESS_SECONDS", 20));
  int bursts = 0;
  int matched = 0;
  Clock::duration longestWait{};
  std::vector<std::string> mismatches;
  const auto started = Clock::now();
  while (Clock::now() - started < budget) {
    const std::size_t logBefore = agent_->output().size();
    const auto clients = static_cast<std::size_t>(std::uniform_int_distribution<int>(2, 4)(random));
    std::vector<std::vector<std::string>> sent;
    sent.reserve(clients);
    for (std::size_t i = 0; i < clients; ++i) {
      sent.push_back(commands[std::uniform_int_distribution<std::size_t>(0, commands.size() - 1)(random)]);
    }
    std::vector<int> exits(clients, -1);
    std::vector<Clock::duration> waited(clients);
    std::latch ready(static_cast<std::ptrdiff_t>(clients));
    std::vector<std::thread> threads;
    threads.reserve(clients);
    for (std::size_t i = 0; i < clients; ++i) {
      threads.emplace_back([&, i] {
        ready.arrive_and_wait();
        const auto sentAt = Clock::now();
        exits[i] = norvik(sent[i]).exitStatus;
        waited[i] = Clock::now() - sentAt;
      });
    }
    for (auto& thread : threads) thread.join();
    ++bursts;
    for (std::size_t i = 0; i < clients; ++i) {
      longestWait = std::max(longestWait, waited[i]);
      // A command may fail (a superseded connect); it must answer, never hang or crash.
      EXPECT_TRUE(exits[i] >= 0 && exits[i] < 128) << fmt::format("{}", fmt::join(sent[i], " "));
    }

    const auto expected = testing::lastIntent(std::string_view(agent_->output()).substr(logBefore));
    const Json initially = status();
    const std::string want = expected.value_or(initially.value("intent", ""));
    const bool settled = settledAt(want == "on" ? "connected" : "disconnected");
    const Json now = status();
    if (settled && now.value("intent", "") == want) {
      ++matched;
    } else {
      std::string what;
      for (const auto& command : sent) what += fmt::format("[{}] ", fmt::join(command, " "));
      mismatches.push_back(fmt::format("burst {}: {}→ expected {}, status {}\nthe agent meanwhile:\n{}", bursts, what,
                                       want, now.dump(), std::string_view(agent_->output()).substr(logBefore)));
    }
  }

  const auto longestMs = std::chrono::duration_cast<std::chrono::milliseconds>(longestWait).count();
  (void)std::fprintf(stderr, "real tunnel: %d bursts, %d ended as the last command asked, longest wait %lld ms\n",
                     bursts, matched, static_cast<long long>(longestMs));
  RecordProperty("bursts", bursts);
  RecordProperty("matched", matched);
  RecordProperty("longest_wait_ms", static_cast<int>(longestMs));
  EXPECT_GE(bursts, 5);
  EXPECT_EQ(matched, bursts) << fmt::format("{}", fmt::join(mismatches, "\n"));

  // Whatever the bursts did, the tunnel still carries traffic when switched on, and leaves nothing
  // behind when switched off.
  ASSERT_EQ(norvik({"mode", "smart"}).exitStatus, 0) << agent_->output();
  ASSERT_EQ(norvik({"connect"}).exitStatus, 0) << agent_->output();
  EXPECT_TRUE(waitFor([&] { return arrivesFrom(client_, kServiceAddress, service_) == address_; }, 10s))
      << agent_->output();
  ASSERT_EQ(norvik({"disconnect"}).exitStatus, 0);
  EXPECT_FALSE(tunnelLinkExists());
  EXPECT_EQ(routingState(), before);
  EXPECT_EQ(agent_->stop(), 0);
}

}  // namespace
}  // namespace norvik::tunnel_helper
