#include "tunnel_helper/helper_program.h"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/signal_set.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <sys/prctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "platform/linux/asio_event_loop.h"
#include "platform/linux/tunnel_helper_protocol.h"
#include "tunnel_helper/netlink_configurator.h"
#include "tunnel_helper/privilege.h"
#include "tunnel_helper/session_preparation.h"
#include "tunnel_helper/system_dns.h"
#include "tunnel_helper/wireguard_go_device.h"

namespace norvik::tunnel_helper {
namespace {

namespace protocol = tunnel_helper_protocol;
using protocol::Event;

struct RunOptions {
  std::string interfacePrefix = "norvik";
  std::string wireguardGo = "wireguard-go";
  long long handshakeTimeoutMs = 20000;
  SystemDnsChoice dns;
  std::string resolvedBus;  // empty: the system bus
};

// Log lines go to standard error, where the application picks them up for its own log.
class StderrLog final : public Log {
 public:
  void write(std::string_view line) override {
    std::lock_guard lock(mutex_);
    // With the application gone there is no reader left to tell: a failed write is dropped.
    (void)std::fwrite(line.data(), 1, line.size(), stderr);
    (void)std::fputc('\n', stderr);
    (void)std::fflush(stderr);
  }

 private:
  std::mutex mutex_;
};

void writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // the application is gone; closing standard input will stop us
    data.remove_prefix(static_cast<std::size_t>(n));
  }
}

void emit(const Event& event) { writeAll(STDOUT_FILENO, protocol::eventLine(event)); }

// Events to the application on standard output; the end of the session ends the loop.
class StdoutReporter final : public SessionReporter {
 public:
  explicit StdoutReporter(AsioEventLoop& loop) : loop_(loop) {}

  void connecting(const std::string& interfaceName) override { emit(Event{Event::Kind::connecting, interfaceName}); }
  void connected(const std::string& interfaceName, std::chrono::system_clock::time_point handshake) override {
    Event event{Event::Kind::connected, interfaceName};
    event.telemetry = TunnelTelemetry{handshake, 0, 0, interfaceName};
    emit(event);
  }
  void telemetry(std::uint64_t id, const std::expected<DeviceState, Error>& state,
                 const std::string& interfaceName) override {
    Event event{Event::Kind::telemetry, interfaceName, id};
    if (state) {
      event.telemetry = TunnelTelemetry{state->lastHandshake(), state->receivedBytes(), state->sentBytes(),
                                        interfaceName.empty() ? std::nullopt : std::optional(interfaceName)};
    } else {
      event.error = state.error();
    }
    emit(event);
  }
  void failed(const Error& error) override {
    Event event{Event::Kind::failed};
    event.error = error;
    emit(event);
    failed_ = true;
    loop_.stop();
  }
  void stopped() override {
    emit(Event{Event::Kind::stopped});
    loop_.stop();
  }

  [[nodiscard]] bool sessionFailed() const { return failed_; }

 private:
  AsioEventLoop& loop_;
  bool failed_ = false;
};

// The first line of standard input, read before the loop runs; what came after it stays in `rest`.
std::optional<std::string> readFirstLine(std::string& rest) {
  char chunk[65536];
  for (;;) {
    if (auto newline = rest.find('\n'); newline != std::string::npos) {
      std::string line = rest.substr(0, newline);
      rest.erase(0, newline + 1);
      return line;
    }
    if (rest.size() > protocol::kMaxLineBytes) return std::nullopt;
    const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    rest.append(chunk, static_cast<std::size_t>(n));
  }
}

void fail(Log& log, const Error& error) {
  log.format("[Tunnel] туннель не запущен: {}", error.message);
  Event event{Event::Kind::failed};
  event.error = error;
  emit(event);
}

int runSession(const RunOptions& options) {
  StderrLog log;
  // Standard input closing tells us the application is gone; the parent-death signal is the
  // second line of defence, for a parent that leaves the pipe open in another process.
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  (void)std::signal(SIGPIPE, SIG_IGN);
  if (const std::string passed = passCapabilitiesToChildren(); !passed.empty()) {
    log.format("[Tunnel] возможности для WireGuard: {}", passed);
  }

  std::string pending;
  auto first = readFirstLine(pending);
  if (!first) {
    log.write("[Tunnel] конфигурация не пришла — выходим");
    return 0;
  }
  auto command = protocol::parseCommand(*first);
  if (!command || command->kind != protocol::Command::Kind::start) {
    fail(log, makeNEVPNError(NEVPNErrorCode::configurationInvalid,
                             command ? "первой должна прийти конфигурация туннеля" : command.error()));
    return 1;
  }
  const auto preparing = std::chrono::steady_clock::now();
  auto prepared = prepareSession(command->configuration, systemResolver(std::chrono::seconds(5)));
  if (!prepared) {
    fail(log, prepared.error());
    return 1;
  }
  for (const std::string& note : prepared->notes) log.format("[Tunnel] {}", note);
  const RoutingPlan& plan = prepared->session.plan;
  const auto bypass = std::ranges::count_if(plan.routes, [](const PlannedRoute& r) { return r.bypass; });
  log.format(
      "[Tunnel] режим {}: {} маршрутов в туннель, {} в обход{}, пиров {}; подготовка за {} мс",
      toString(prepared->settings.mode), plan.routes.size() - static_cast<std::size_t>(bypass), bypass,
      plan.bypassList ? " и список GeoIP после подключения" : "", prepared->settings.key.peers.size(),
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - preparing).count());

  AsioEventLoop loop(1);
  StdoutReporter reporter(loop);
  WireGuardGoDevice device(log, WireGuardGoDevice::Options{options.wireguardGo, options.interfacePrefix});
  NetlinkConfigurator network(log);
  // Left-overs of any kind first (a saved resolv.conf outlives a crash of the machine), then the way
  // this machine's resolvers are set today.
  repairDnsLeftovers(log, options.dns);
  auto dns = chooseSystemDns(log, options.dns, makeSdBusResolved(options.resolvedBus));
  if (plan.dns) {
    std::string servers;
    for (const IpAddress& server : plan.dns->servers) servers += (servers.empty() ? "" : ", ") + server.toString();
    log.format("[Tunnel] DNS туннеля: {} — через {}", servers, dns->name());
  } else if (prepared->settings.mode == TunnelRoutingMode::services) {
    log.write("[Tunnel] режим services: DNS системы не меняется");
  }
  TunnelSession session(loop, log, device, network, *dns, reporter,
                        TunnelSession::Options{std::chrono::milliseconds(options.handshakeTimeoutMs)});

  asio::signal_set stopSignals(loop.context(), SIGTERM, SIGINT, SIGHUP);
  stopSignals.async_wait([&](const asio::error_code& error, int signal) {
    if (error) return;
    log.format("[Tunnel] сигнал {} — остановка", signal);
    session.stop();
  });
  asio::signal_set children(loop.context(), SIGCHLD);
  std::function<void()> watchChildren = [&] {
    children.async_wait([&](const asio::error_code& error, int) {
      if (error) return;
      if (auto ended = device.reap()) session.deviceEnded(*ended);
      watchChildren();
    });
  };
  watchChildren();

  auto handleLine = [&](std::string_view line) {
    auto next = protocol::parseCommand(line);
    if (!next) {
      log.format("[Tunnel] непонятная команда: {}", next.error());
      return;
    }
    switch (next->kind) {
      case protocol::Command::Kind::telemetry:
        session.requestTelemetry(next->id);
        break;
      case protocol::Command::Kind::stop:
        session.stop();
        break;
      case protocol::Command::Kind::start:
      default:
        log.write("[Tunnel] повторная конфигурация не принимается: одна сессия на процесс");
        break;
    }
  };
  auto drain = [&] {
    for (auto newline = pending.find('\n'); newline != std::string::npos; newline = pending.find('\n')) {
      const std::string line = pending.substr(0, newline);
      pending.erase(0, newline + 1);
      handleLine(line);
    }
  };
  asio::posix::stream_descriptor input(loop.context(), ::dup(STDIN_FILENO));
  std::array<char, 4096> chunk{};
  std::function<void()> readMore = [&] {
    input.async_read_some(asio::buffer(chunk), [&](const asio::error_code& error, std::size_t n) {
      if (error) {
        if (error != asio::error::operation_aborted) {
          log.write("[Tunnel] приложение закрыло канал — остановка");
          session.stop();
        }
        return;
      }
      pending.append(chunk.data(), n);
      drain();
      if (pending.size() > protocol::kMaxLineBytes) pending.clear();
      readMore();
    });
  };

  loop.post([&] {
    session.start(prepared->session);
    drain();
    readMore();
  });
  loop.run();
  asio::error_code ignored;
  input.cancel(ignored);
  stopSignals.cancel(ignored);
  children.cancel(ignored);
  loop.joinWorkers();
  return reporter.sessionFailed() ? 1 : 0;
}

}  // namespace

int runTunnelHelper(int argc, char** argv) {
  CLI::App app{"Norvik tunnel helper: one WireGuard tunnel session driven over standard input and output",
               "norvik-tunnel"};
  RunOptions options;
  app.add_option("--interface-prefix", options.interfacePrefix, "Interface names are PREFIX0 … PREFIX15")
      ->check([](const std::string& prefix) {
        const bool ok = !prefix.empty() && prefix.size() <= 12 &&
                        std::ranges::all_of(prefix, [](char c) { return std::isalnum(static_cast<unsigned char>(c)); });
        return ok ? std::string() : std::string("1 to 12 letters or digits");
      });
  app.add_option("--wireguard-go", options.wireguardGo, "The userspace WireGuard program")
      ->envname("NORVIK_WIREGUARD_GO");
  app.add_option("--handshake-timeout-ms", options.handshakeTimeoutMs, "Give up when no handshake completes by then")
      ->check(CLI::Range(1000LL, 600000LL));
  app.add_option("--state-dir", options.dns.stateDir,
                 "Where the machine's own resolver settings are kept while a tunnel replaces them")
      ->envname("NORVIK_TUNNEL_STATE_DIR")
      ->capture_default_str();
  app.add_option("--resolvconf", options.dns.resolvconfProgram, "The resolvconf program")
      ->envname("NORVIK_RESOLVCONF")
      ->capture_default_str();
  app.add_option("--resolved-bus", options.resolvedBus, "D-Bus address of systemd-resolved (default: the system bus)")
      ->envname("NORVIK_RESOLVED_BUS");
  auto* probe = app.add_subcommand("probe", "Exit status 0 when a tunnel can be run here");
  auto* cleanup = app.add_subcommand(
      "cleanup", "Remove the rules and routes a killed helper left behind and give the machine its resolvers back");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int status = app.exit(e);
    return status == 0 ? 0 : 2;
  }
  if (probe->parsed()) {
    passCapabilitiesToChildren();
    auto ok = probeTunnelPrivilege(options.wireguardGo, "/var/run/wireguard");
    const bool written = std::fputs(ok ? "ok\n" : (ok.error() + "\n").c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
    return ok && written ? 0 : 1;
  }
  if (cleanup->parsed()) {
    StderrLog log;
    NetlinkConfigurator(log).removeLeftovers();
    repairDnsLeftovers(log, options.dns);
    return 0;
  }
  return runSession(options);
}

}  // namespace norvik::tunnel_helper
