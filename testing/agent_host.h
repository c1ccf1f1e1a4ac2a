#pragma once

// Header-only: the test support library sits below the application, so the one piece of it that
// assembles the application lives where only the application's tests and fuzz targets include it.

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <map>
#include <memory>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include <nlohmann/json.hpp>

#include "app/application.h"
#include "app/control_commands.h"
#include "app/control_server.h"
#include "platform/files.h"
#include "platform/linux/asio_event_loop.h"
#include "platform/simulated_tunnel_service.h"
#include "testing/fake_clock_change_source.h"
#include "testing/fake_file_downloader.h"
#include "testing/fake_login_item.h"
#include "testing/fake_named_notifications.h"
#include "testing/fake_physical_path_source.h"
#include "testing/fakes.h"
#include "testing/scripted_process_runner.h"
#include "testing/temp_dir.h"
#include "testing/test_provisioning.h"
#include "testing/virtual_event_loop.h"

namespace norvik::testing {

// The backend as the agent's tests need it: every request is answered by its endpoint (the last
// path segment) after `latency` of loop time; an endpoint without an answer gets 404. Keeps only
// a count per endpoint, so that a long-running fuzz target does not grow.
class ScriptedBackend final : public HttpTransport {
 public:
  explicit ScriptedBackend(EventLoop& loop) : loop_(loop) {}

  void send(HttpRequest request, HttpCompletion completion) override {
    const std::string endpoint = request.url.substr(request.url.rfind('/') + 1);
    ++counts_[endpoint];
    urls_.push_back(request.url);
    HttpResult result = HttpResponse{404, {}, R"({"message":"not found"})"};
    if (auto found = answers_.find(endpoint); found != answers_.end()) result = found->second;
    loop_.postAfter(latency_, [completion = std::move(completion), result = std::move(result)]() mutable {
      completion(std::move(result));
    });
  }

  void answer(std::string endpoint, HttpResult result) { answers_[std::move(endpoint)] = std::move(result); }
  void answerJson(std::string endpoint, const nlohmann::json& body) {
    answer(std::move(endpoint), HttpResponse{200, {{"Content-Type", "application/json"}}, body.dump()});
  }
  void setLatency(EventLoop::Duration latency) { latency_ = latency; }
  [[nodiscard]] int count(const std::string& endpoint) const {
    auto found = counts_.find(endpoint);
    return found == counts_.end() ? 0 : found->second;
  }
  // Every address asked, in order.
  [[nodiscard]] const std::vector<std::string>& urls() const { return urls_; }

  // A WireGuard key text that names `server` as its endpoint, and the key endpoints' answer with it.
  static std::string keyText(const std::string& server) {
    return "[Interface]\nPrivateKey = bm9ydmlrLXNhbXBsZS1wcml2YXRlLWtleS0wMDAwMDE=\nAddress = 10.66.0.2/32\n\n"
           "[Peer]\nPublicKey = bm9ydmlrLXNhbXBsZS1wdWJsaWMta2V5LTAwMDAwMDE=\nEndpoint = " +
           server + ":51820";
  }
  static nlohmann::json keyAnswer(const std::string& server) {
    return {{"result", 1}, {"keyData", keyText(server)}, {"keyIP", server}};
  }

 private:
  EventLoop& loop_;
  std::map<std::string, HttpResult> answers_;
  std::map<std::string, int> counts_;
  std::vector<std::string> urls_;
  EventLoop::Duration latency_{std::chrono::milliseconds(100)};
};

// One client of the control socket, as the command line is one: it writes raw bytes (without
// blocking: whatever does not fit waits for the next pump) and collects the answer lines.
class ControlConnection {
 public:
  explicit ControlConnection(const std::filesystem::path& socket) : fd_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socket.native().copy(address.sun_path, sizeof address.sun_path - 1);
    if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      closedByServer_ = true;
      return;
    }
    ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
  }
  ControlConnection(const ControlConnection&) = delete;
  ControlConnection& operator=(const ControlConnection&) = delete;
  ~ControlConnection() { hangUp(); }

  void write(std::string_view bytes) { outgoing_.append(bytes); }
  // A client that stops reading leaves the agent's answers in the socket and the agent's queue.
  void setReading(bool reading) { reading_ = reading; }

  // Sends what the socket takes and reads what has come; true when anything moved.
  bool pump() {
    if (fd_ < 0) return false;
    bool moved = false;
    while (!outgoing_.empty()) {
      const ssize_t n = ::send(fd_, outgoing_.data(), outgoing_.size(), MSG_NOSIGNAL);
      if (n <= 0) {
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) outgoing_.clear();  // the server hung up
        break;
      }
      outgoing_.erase(0, static_cast<std::size_t>(n));
      moved = true;
    }
    std::array<char, 16384> chunk{};
    for (; reading_;) {
      const ssize_t n = ::recv(fd_, chunk.data(), chunk.size(), 0);
      if (n > 0) {
        received_.append(chunk.data(), static_cast<std::size_t>(n));
        moved = true;
        continue;
      }
      if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
        moved = moved || !closedByServer_;
        closedByServer_ = true;
      }
      break;
    }
    if (!reading_ && !closedByServer_) {
      pollfd p{fd_, POLLRDHUP, 0};
      if (::poll(&p, 1, 0) == 1 && (p.revents & (POLLRDHUP | POLLHUP)) != 0) closedByServer_ = moved = true;
    }
    return moved;
  }

  // Complete lines that have not been taken yet.
  std::vector<std::string> takeLines() {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t end; (end = received_.find('\n', start)) != std::string::npos; start = end + 1) {
      lines.push_back(received_.substr(start, end - start));
    }
    received_.erase(0, start);
    return lines;
  }
  // Every complete line received so far, as JSON (null for a line that is not JSON).
  std::vector<nlohmann::json> takeAnswers() {
    std::vector<nlohmann::json> answers;
    for (const auto& line : takeLines()) answers.push_back(nlohmann::json::parse(line, nullptr, false));
    return answers;
  }

  [[nodiscard]] bool closedByServer() const { return closedByServer_; }
  void hangUp() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
  std::string outgoing_;
  std::string received_;
  bool closedByServer_ = false;
  bool reading_ = true;
};

// The agent in one test process: the real Application, ControlCommands and ControlServer, with
// the application on virtual time over the platform fakes, the scripted backend and the simulated
// tunnel (in memory), and the control socket a real UNIX socket in a temporary home whose Asio
// context is polled from the same thread between the loop's tasks. Nothing runs by itself: the
// runUntil/advance calls move time and carry bytes both ways.
//
// Threading: the thread that made it.
class AgentHost {
 public:
  using Duration = EventLoop::Duration;
  static constexpr std::chrono::milliseconds kConnectDelay{50};
  static constexpr std::string_view kFirstServer = "203.0.113.10";
  static constexpr std::string_view kSecondServer = "198.51.100.7";

  // `beforeStart` runs once everything is assembled and before the application starts: a test
  // scripts there what the agent must meet at launch (the backend's answers, stored settings).
  explicit AgentHost(ControlLimits limits = {}, const std::function<void(AgentHost&)>& beforeStart = nullptr)
      : asio_(1) {
    // A release key, so that the updater may download a release (the packages of the tests carry
    // no signature of it and are refused after the download).
    Provisioning provisioning = testProvisioning();
    provisioning.updateEd25519PublicKey = "AQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQEBAQE=";
    (void)writeProvisioning(home_ / "provisioning.json", provisioning);

    Platform platform;
    auto log = std::make_unique<CapturingLog>();
    log_ = log.get();
    platform.log = std::move(log);
    auto clock = std::make_unique<VirtualClock>(loop_);
    Clock& wallClock = *clock;
    platform.clock = std::move(clock);
    auto backend = std::make_unique<ScriptedBackend>(loop_);
    backend_ = backend.get();
    platform.http = std::move(backend);
    platform.analytics = std::make_unique<CapturingAnalytics>();
    platform.crypto = std::make_unique<DeterministicCrypto>();
    platform.standardDefaults = std::make_unique<MemoryDefaults>();
    platform.groupDefaults = std::make_unique<MemoryDefaults>();
    platform.secureItems = std::make_unique<FakeSecureItemStore>();
    platform.physicalPaths = std::make_unique<FakePhysicalPathSource>();
    auto networkReturns = std::make_unique<FakePhysicalPathSource>();
    networkReturns_ = networkReturns.get();
    platform.networkReturns = std::move(networkReturns);
    auto clockChanges = std::make_unique<FakeClockChangeSource>();
    clockChanges_ = clockChanges.get();
    platform.clockChanges = std::move(clockChanges);
    // The in-app updater downloads and installs through these.
    auto downloads = std::make_unique<FakeFileDownloader>(loop_);
    downloads_ = downloads.get();
    platform.downloads = std::move(downloads);
    auto processes = std::make_unique<ScriptedProcessRunner>(loop_);
    processes_ = processes.get();
    platform.processes = std::move(processes);
    auto loginItem = std::make_unique<FakeLoginItem>();
    loginItem_ = loginItem.get();
    platform.loginItem = std::move(loginItem);
    auto notifications = std::make_unique<FakeNamedNotifications>(loop_);
    auto tunnels = std::make_unique<SimulatedTunnelService>(
        loop_, wallClock, *log_, notifications.get(), SimulatedTunnelService::Options{.connectDelay = kConnectDelay});
    tunnels_ = tunnels.get();

    backend_->answerJson("main", mainAnswer());
    backend_->answerJson("getkey", ScriptedBackend::keyAnswer(std::string(kFirstServer)));
    backend_->answerJson("change_server", ScriptedBackend::keyAnswer(std::string(kSecondServer)));

    ApplicationOptions options;
    options.paths = AppPaths{home_.path()};
    options.provisioning = home_ / "provisioning.json";
    auto app = Application::assemble(
        loop_, options,
        Application::Adapters{std::move(platform), std::move(notifications), std::move(tunnels), "simulated"});
    if (!app) throw std::runtime_error("the application was not assembled: " + app.error().message);
    app_ = std::move(*app);
    commands_ = std::make_unique<ControlCommands>(*app_);
    limits.timers = &loop_;
    auto server = ControlServer::open(
        asio_, socketPath(), *log_,
        [this](const nlohmann::json& request, const ControlReply& r) { commands_->handle(request, r); }, limits);
    if (!server) throw std::runtime_error("the control socket did not open: " + server.error().message);
    server_ = std::move(*server);
    if (beforeStart) beforeStart(*this);
    app_->start();
    advance(std::chrono::seconds(1));
  }
  AgentHost(const AgentHost&) = delete;
  AgentHost& operator=(const AgentHost&) = delete;
  ~AgentHost() {
    try {
      connections_.clear();
      server_.reset();
      (void)asio_.context().poll();  // the sessions' aborted reads and writes let go of them
      loop_.runUntilIdle();          // blocking work in flight still refers to the application
      commands_.reset();
      app_.reset();
    } catch (...) {
      std::abort();  // a task that throws while the agent goes down is a fault of the agent
    }
  }

  // A main configuration with no key in it (the first connect fetches one), every routing mode
  // allowed and two services.
  static nlohmann::json mainAnswer() {
    const nlohmann::json services = nlohmann::json::array(
        {{{"key", "youtube"}, {"title", "YouTube"}, {"default_on", true}, {"domains", {"youtube.com"}}},
         {{"key", "chatgpt"}, {"title", "ChatGPT"}, {"domains", {"chatgpt.com", "openai.com"}}}});
    return {{"main",
             {{"sub_active", true},
              {"routing",
               {{"enabled", true},
                {"show_mode_tab", true},
                {"allowed_modes", {0, 1, 2}},
                {"default_mode", 0},
                {"allow_custom_domain", true},
                {"services", services}}}}},
            {"info", nlohmann::json::object()}};
  }

  [[nodiscard]] std::filesystem::path socketPath() const { return home_ / "run" / "agent.sock"; }
  [[nodiscard]] VirtualEventLoop& loop() { return loop_; }
  [[nodiscard]] Application& app() { return *app_; }
  [[nodiscard]] ControlServer& server() { return *server_; }
  [[nodiscard]] ControlCommands& commands() { return *commands_; }
  [[nodiscard]] ScriptedBackend& backend() { return *backend_; }
  [[nodiscard]] SimulatedTunnelService& tunnels() { return *tunnels_; }
  [[nodiscard]] FakeLoginItem& loginItem() { return *loginItem_; }
  [[nodiscard]] FakeClockChangeSource& clockChanges() { return *clockChanges_; }
  [[nodiscard]] FakeFileDownloader& downloads() { return *downloads_; }
  [[nodiscard]] ScriptedProcessRunner& processes() { return *processes_; }
  // The network as the tunnel's on-demand rule sees it.
  [[nodiscard]] FakePhysicalPathSource& networkReturns() { return *networkReturns_; }
  [[nodiscard]] CapturingLog& log() { return *log_; }

  ControlConnection& connect() {
    connections_.push_back(std::make_unique<ControlConnection>(socketPath()));
    return *connections_.back();
  }
  // The client closes its end; the server notices on the next pump.
  void hangUp(ControlConnection& connection) {
    std::erase_if(connections_, [&](const auto& c) { return c.get() == &connection; });
  }

  // One request on a connection of its own, as the command line sends it: its answer (the line
  // with "ok"), or null when none came within five virtual minutes.
  nlohmann::json ask(const nlohmann::json& request) {
    ControlConnection& connection = connect();
    connection.write(request.dump() + "\n");
    nlohmann::json answer;
    runUntil(
        [&] {
          for (nlohmann::json& line : connection.takeAnswers()) {
            if (line.contains("ok")) answer = std::move(line);
          }
          return !answer.is_null();
        },
        std::chrono::minutes(5));
    hangUp(connection);
    settle();
    return answer;
  }

  // Carries bytes and runs what they cause until nothing moves at this moment.
  void settle() {
    for (;;) {
      loop_.runUntilIdle();
      bool moved = asio_.context().poll() > 0;
      for (const auto& connection : connections_) moved = connection->pump() || moved;
      if (!moved) return;
    }
  }
  // Moves virtual time timer by timer until `done` holds (true) or `limit` passes (false).
  bool runUntil(const std::function<bool()>& done, Duration limit) {
    return loop_.runUntil(
        [&] {
          settle();
          return done();
        },
        limit);
  }
  void advance(Duration delta) {
    const auto target = loop_.now() + delta;
    runUntil([] { return false; }, delta);
    loop_.advance(target - loop_.now());  // no timer is left before the target; time moves on
    settle();
  }

 private:
  TempDir home_;
  VirtualEventLoop loop_;
  AsioEventLoop asio_;
  // Owned by the application.
  CapturingLog* log_ = nullptr;
  ScriptedBackend* backend_ = nullptr;
  SimulatedTunnelService* tunnels_ = nullptr;
  FakeLoginItem* loginItem_ = nullptr;
  FakeClockChangeSource* clockChanges_ = nullptr;
  FakeFileDownloader* downloads_ = nullptr;
  ScriptedProcessRunner* processes_ = nullptr;
  FakePhysicalPathSource* networkReturns_ = nullptr;
  std::unique_ptr<Application> app_;
  std::unique_ptr<ControlCommands> commands_;
  std::unique_ptr<ControlServer> server_;
  std::vector<std::unique_ptr<ControlConnection>> connections_;
};

}  // namespace norvik::testing
