// The user's last word wins, tried as users break it: random interleavings of requests from every
// front-end (the command line over the real socket, the home screen, the widget's command file and
// links, the menu bar), mode and sites changes, server changes, tunnel events (slow and hanging
// starts, failures, drops, stops from the system's controls), backend answers (slow, 503, refusals)
// and automatic actions (self-heal, repairs, key refreshes, the network coming back), each sequence
// on a whole agent on virtual time (testing/agent_host.h). A small model follows what the user
// asked; after each sequence settles the tunnel must be as the model says, and every request must
// have been answered exactly once.
//
// NORVIK_MODEL_SEQUENCES sets how many sequences run (default below); NORVIK_MODEL_SEED runs one
// sequence of that seed — the seed of a failing sequence is printed with its trace.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "testing/agent_host.h"
#include "testing/env_setting.h"
#include "testing/sanitizer.h"
#include "tunnel/widget_files.h"

namespace norvik {
namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;
using testing::AgentHost;
using testing::ControlConnection;
using Target = TunnelStateMachine::Target;

// Sanitizer builds run the same sequences several times slower, so they run fewer of them.
constexpr int kDefaultSequences = testing::kUnderAddressSanitizer ? 300 : 1500;
constexpr int kStepsPerSequence = 24;

class IntentModel {
 public:
  explicit IntentModel(std::uint64_t seed) : seed_(seed), random_(seed) {}

  // Runs one sequence; empty when every rule held, otherwise what broke and the trace.
  std::string run() {
    Application& app = host_.app();
    app.platform().groupDefaults->setInteger("iosFixes.selfHealMaxPerDay", chance(50) ? 5 : 0);
    for (int step = 0; step < kStepsPerSequence; ++step) {
      act();
      host_.settle();
      collectAnswers();
      if (chance(60)) advance(std::chrono::milliseconds(uniform(0, 2500)));
    }
    if (!settleFully()) return report("the agent did not settle within 10 minutes");
    // Settled means settled: nothing changes on its own afterwards.
    advance(5s);
    if (!settleFully()) return report("the agent moved again after it settled");
    return check();
  }

 private:
  // --- Randomness ---
  int uniform(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }
  bool chance(int percent) { return uniform(1, 100) <= percent; }

  TunnelStateMachine& machine() { return host_.app().home().machine(); }
  TunnelStatus tunnel() { return host_.app().vpn().connectionState().get(); }

  void note(const std::string& what) {
    trace_.push_back(fmt::format("{:>8} ms  {:<44} [{} / {} / target {}]",
                                 std::chrono::duration_cast<std::chrono::milliseconds>(host_.loop().elapsed()).count(),
                                 what, toString(tunnel()), machine().stateName(),
                                 machine().isTargetOn() ? "on" : "off"));
  }
  // Whether a fault may have got in the way since the user's last word: one that is active now,
  // or one that happened since.
  [[nodiscard]] bool faultActive() const {
    return connectFailureQueued_ || hangs_ || keyBroken_ || changeBroken_ || mainBroken_;
  }
  void expect(Target target, const std::string& why) {
    expected_ = target;
    faultSinceIntent_ = faultActive();
    note(fmt::format("{} → {}", why, target == Target::on ? "on" : "off"));
  }
  void advance(EventLoop::Duration delta) {
    host_.advance(delta);
    collectAnswers();
  }

  // --- What the user and the world do ---

  void act() {
    const int roll = uniform(1, 100);
    if (roll <= 28) return commandLine();
    if (roll <= 36) return homeScreen();
    if (roll <= 40) return widgetToggle();
    if (roll <= 46) return link();
    if (roll <= 50) return menuBar();
    if (roll <= 58) {
      send({{"command", "mode"}, {"set", pick({"full", "smart", "services"})}, {"confirmed", true}});
      return note("norvik mode");
    }
    if (roll <= 62) {
      send({{"command", "sites"}, {"action", chance(50) ? "on" : "off"}, {"value", pick({"youtube", "chatgpt"})}});
      return note("norvik sites");
    }
    if (roll <= 66) return keyRefresh();
    if (roll <= 82) return tunnelEvent();
    if (roll <= 90) return backendMood();
    return automatic();
  }

  static std::string pick(std::initializer_list<const char*> choices, std::size_t index) {
    return *(choices.begin() + static_cast<std::ptrdiff_t>(index % choices.size()));
  }
  std::string pick(std::initializer_list<const char*> choices) {
    return pick(choices, static_cast<std::size_t>(uniform(0, static_cast<int>(choices.size()) - 1)));
  }

  // A request over the socket, on a connection of its own as the command line sends it. Handled
  // at once (the socket is read without moving time); its answer may come much later.
  std::size_t send(const Json& request) {
    ControlConnection& connection = host_.connect();
    connection.write(request.dump() + "\n");
    requests_.push_back(Request{&connection, request.dump(), {}});
    host_.settle();
    collectAnswers();
    return requests_.size() - 1;
  }

  void commandLine() {
    switch (uniform(0, 3)) {
      case 0:
        send({{"command", "connect"}});
        return expect(Target::on, "norvik connect");
      case 1:
        send({{"command", "disconnect"}});
        return expect(Target::off, "norvik disconnect");
      case 2: {
        const bool wanted = machine().wantsTunnelUp();
        send({{"command", "toggle"}});
        return expect(wanted ? Target::off : Target::on, "norvik toggle");
      }
      default: {
        const std::size_t index = send({{"command", "change-server"}});
        const auto& answers = requests_[index].answers;
        const bool refused =
            !answers.empty() &&
            answers.back().value("error", Json::object()).value("message", "").starts_with("Дождитесь");
        if (refused) return note("norvik change-server (refused)");
        return expect(Target::on, "norvik change-server");
      }
    }
  }

  void homeScreen() {
    auto done = [this, id = directs_.size()](const IntentOutcome&) { ++directs_[id]; };
    directs_.push_back(0);
    if (chance(70)) {
      const bool wanted = machine().wantsTunnelUp();
      host_.app().home().toggleVPN(done);
      return expect(wanted ? Target::off : Target::on, "home toggle");
    }
    const bool refused = machine().isServerChangeRunning() || machine().isKeyInstallationRunning();
    host_.app().home().changeServerAction(done);
    if (refused) return note("home change server (refused)");
    expect(Target::on, "home change server");
  }

  void widgetToggle() {
    const Clock::TimePoint now = host_.app().platform().clock->now();
    const bool doubleClick = lastWidgetToggle_ && now - *lastWidgetToggle_ < 1500ms;
    const bool wanted = machine().wantsTunnelUp() || isLive(tunnel());
    const WidgetCommand command{WidgetCommand::Kind::toggle, now, fmt::format("model-{}", ++widgetCommands_)};
    ASSERT_TRUE(writeFileAtomically(host_.app().widget().commandFile(), encodeWidgetCommand(command)).has_value());
    host_.app().notifications().post(WidgetCommandCenter::kCommandNotification);
    host_.settle();
    if (doubleClick) return note("widget toggle (double click)");
    lastWidgetToggle_ = now;
    expect(wanted ? Target::off : Target::on, "widget toggle");
  }

  void link() {
    switch (uniform(0, 2)) {
      case 0: {
        const bool already = machine().wantsTunnelUp();
        host_.app().widget().handleURL("norvikvpn://widget/connect");
        if (already) return note("link connect (already up)");
        return expect(Target::on, "link connect");
      }
      case 1: {
        const bool already = !machine().isTargetOn() && !isLive(tunnel());
        host_.app().widget().handleURL("norvikvpn://widget/disconnect");
        if (already) return note("link disconnect (already off)");
        return expect(Target::off, "link disconnect");
      }
      default: {
        const bool refused = machine().isServerChangeRunning() || machine().isKeyInstallationRunning();
        host_.app().widget().handleURL("norvikvpn://widget/change-server");
        if (refused) return note("link change server (refused)");
        return expect(Target::on, "link change server");
      }
    }
  }

  void menuBar() {
    const MenuBarItem item = host_.app().menuBar().menu().get().items.front();
    host_.app().menuBar().choose(item);
    expect(item.action == MenuBarItem::Action::disconnect ? Target::off : Target::on, "menu: " + item.title);
  }

  void keyRefresh() {
    Json main = AgentHost::mainAnswer();
    main["main"]["key_data"] = testing::ScriptedBackend::keyText(fmt::format("192.0.2.{}", uniform(1, 250)));
    host_.backend().answerJson("main", main);
    host_.app().network().loadMainConfiguration();
    mainBroken_ = false;
    note("the main configuration carries another key");
  }

  void tunnelEvent() {
    SimulatedTunnelService& tunnels = host_.tunnels();
    const auto& manager = host_.app().vpn().tunnelManager();
    switch (uniform(0, 5)) {
      case 0:
        if (!manager || isDown(tunnels.status(manager->identifier))) return;
        tunnels.endSessionFromTunnel(manager->identifier, makeNEVPNError(NEVPNErrorCode::connectionFailed));
        faultSinceIntent_ = true;
        return note("the tunnel drops");
      case 1: {
        if (!manager || !isLive(tunnels.status(manager->identifier))) return;
        const auto stop = host_.app().vpn().lastApplicationStop();
        const bool ownStop = stop && host_.app().platform().clock->now() - *stop < VPNManager::kAppStopGrace;
        tunnels.stopFromSystemControls(manager->identifier);
        // Within five seconds of the application's own stop it cannot be told from that stop.
        if (ownStop) {
          faultSinceIntent_ = true;
          return note("a stop from the system's controls (taken for ours)");
        }
        return expect(Target::off, "a stop from the system's controls");
      }
      case 2:
        tunnels.setConnectDelay(std::chrono::milliseconds(uniform(10, 3000)));
        return note("the tunnel starts at another speed");
      case 3:
        tunnels.failNextConnect(makeNEVPNError(NEVPNErrorCode::connectionFailed));
        connectFailureQueued_ = true;
        faultSinceIntent_ = true;
        return note("the next start will fail");
      case 4:
        hangs_ = chance(40);
        faultSinceIntent_ = faultSinceIntent_ || hangs_;
        tunnels.setConnectHangs(hangs_);
        return note(hangs_ ? "starts hang" : "starts come through");
      default:
        host_.app().platform().groupDefaults->setBool("routing.onDemandEnabled", chance(30));
        return note("on-demand changed");
    }
  }

  void backendMood() {
    testing::ScriptedBackend& backend = host_.backend();
    switch (uniform(0, 3)) {
      case 0:
        backend.setLatency(std::chrono::milliseconds(uniform(0, 3000)));
        return note("the backend answers at another speed");
      case 1:
        keyBroken_ = chance(50);
        faultSinceIntent_ = faultSinceIntent_ || keyBroken_;
        if (keyBroken_) {
          backend.answer("getkey", HttpResponse{chance(50) ? 503 : 429, {}, "{}"});
        } else {
          backend.answerJson("getkey", testing::ScriptedBackend::keyAnswer(std::string(AgentHost::kFirstServer)));
        }
        return note(keyBroken_ ? "getkey fails" : "getkey works");
      case 2:
        changeBroken_ = chance(50);
        faultSinceIntent_ = faultSinceIntent_ || changeBroken_;
        if (changeBroken_) {
          backend.answer("change_server", HttpResponse{503, {}, "{}"});
        } else {
          backend.answerJson("change_server",
                             testing::ScriptedBackend::keyAnswer(fmt::format("198.51.100.{}", uniform(1, 250))));
        }
        return note(changeBroken_ ? "change_server fails" : "change_server works");
      default:
        // Without a key installed, a failed main configuration locks the toggle until one loads.
        backend.answer("main", HttpResponse{503, {}, "{}"});
        host_.app().network().loadMainConfiguration();
        mainBroken_ = true;
        faultSinceIntent_ = true;
        return note("main fails");
    }
  }

  void automatic() {
    switch (uniform(0, 2)) {
      case 0: {
        repairs_.push_back(0);
        machine().silentTunnelRestart(machine().repairToken(), uniform(0, 500), uniform(500, 4000),
                                      [this, id = repairs_.size() - 1](const SilentRestartResult&) { ++repairs_[id]; });
        faultSinceIntent_ = true;  // a repair may fail and leave the tunnel down
        return note("the health engine repairs");
      }
      case 1:
        machine().networkAvailable("model");
        return note("the network came back");
      default:
        host_.app().platform().groupDefaults->setInteger("iosFixes.selfHealMaxPerDay", chance(50) ? 5 : 0);
        return note("self-heal changed");
    }
  }

  // --- Settling and judging ---

  struct Request {
    ControlConnection* connection;
    std::string text;
    std::vector<Json> answers;
  };

  void collectAnswers() {
    for (Request& request : requests_) {
      for (Json& line : request.connection->takeAnswers()) {
        if (line.contains("ok")) request.answers.push_back(std::move(line));
      }
    }
  }

  bool settled() {
    collectAnswers();
    const bool answered = std::ranges::all_of(requests_, [](const Request& r) { return !r.answers.empty(); });
    return answered && machine().isIdle() && machine().pendingRequests() == 0 &&
           host_.app().home().operation().get() == HomeScreen::Operation::none &&
           (isDown(tunnel()) || tunnel() == TunnelStatus::connected);
  }
  bool settleFully() {
    return host_.runUntil([&] { return settled(); }, 10min);
  }

  std::string check() {
    if (machine().isTargetOn() != (expected_ == Target::on)) return report("the target is not the user's last word");
    const TunnelStatus status = tunnel();
    const auto state = machine().state().get();
    const bool faults = faultSinceIntent_ || faultActive();
    if (expected_ == Target::off) {
      if (!isDown(status) || state != TunnelStateMachine::State::disconnected) {
        return report("the user said off, and the tunnel is not down");
      }
    } else if (status != TunnelStatus::connected || state != TunnelStateMachine::State::connected) {
      if (state != TunnelStateMachine::State::failed) return report("the user said on, and the tunnel is not up");
      if (!faults) return report("failed although nothing went wrong");
      if (!isDown(status)) return report("failed with the tunnel half-way up");
    }
    for (const Request& request : requests_) {
      if (request.answers.size() != 1) {
        return report(fmt::format("{} was answered {} times", request.text, request.answers.size()));
      }
    }
    for (std::size_t i = 0; i < directs_.size(); ++i) {
      if (directs_[i] != 1) return report(fmt::format("home request {} was answered {} times", i, directs_[i]));
    }
    for (std::size_t i = 0; i < repairs_.size(); ++i) {
      if (repairs_[i] != 1) return report(fmt::format("repair {} was answered {} times", i, repairs_[i]));
    }
    if (host_.commands().waitingCount() != 0) return report("a request of the socket still waits");
    return {};
  }

  std::string report(const std::string& what) {
    std::string out = fmt::format("seed {}: {}\n  tunnel {}, machine {}, target {}, expected {}\n", seed_, what,
                                  toString(tunnel()), machine().stateName(), machine().isTargetOn() ? "on" : "off",
                                  expected_ == Target::on ? "on" : "off");
    for (const auto& line : trace_) out += "  " + line + "\n";
    for (const auto& request : requests_) {
      out += "  " + request.text + " →";
      for (const auto& answer : request.answers)
        out += " " + answer.value("code", "ok") + ":" + answer.dump().substr(0, 160);
      out += "\n";
    }
    return out;
  }

  std::uint64_t seed_;
  std::mt19937_64 random_;
  AgentHost host_;
  Target expected_ = Target::off;
  bool faultSinceIntent_ = false;
  bool connectFailureQueued_ = false;
  bool hangs_ = false;
  bool keyBroken_ = false;
  bool changeBroken_ = false;
  bool mainBroken_ = false;
  std::optional<Clock::TimePoint> lastWidgetToggle_;
  int widgetCommands_ = 0;
  std::vector<Request> requests_;
  std::vector<int> directs_;
  std::vector<int> repairs_;
  std::vector<std::string> trace_;
};

TEST(TunnelIntentModel, TheTunnelEndsAsTheUserLastAskedAndEveryRequestIsAnsweredOnce) {
  // Each agent's home is written through files that are synced to disk; in memory, thousands of
  // sequences take seconds instead of minutes, and nothing else changes.
  if (std::filesystem::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
  std::vector<std::uint64_t> seeds;
  if (const char* one = std::getenv("NORVIK_MODEL_SEED")) {
    seeds.push_back(std::strtoull(one, nullptr, 10));
  } else {
    const int count = testing::envSetting("NORVIK_MODEL_SEQUENCES", kDefaultSequences);
    // A fixed base, so that CI runs the same sequences; a failing seed reproduces alone.
    for (int i = 0; i < count; ++i) seeds.push_back(20261124ULL * 1000 + static_cast<std::uint64_t>(i));
  }
  int failures = 0;
  for (std::uint64_t seed : seeds) {
    const std::string broken = IntentModel(seed).run();
    if (broken.empty()) continue;
    ADD_FAILURE() << broken << "reproduce: NORVIK_MODEL_SEED=" << seed;
    if (++failures == 3) break;  // enough to read
  }
  RecordProperty("sequences", static_cast<int>(seeds.size()));
}

}  // namespace
}  // namespace norvik
