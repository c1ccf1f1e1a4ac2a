#include "app/agent.h"

#include <asio/signal_set.hpp>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/file.h>
#include <unistd.h>

#include <fmt/format.h>

#include "app/application.h"
#include "app/control_commands.h"
#include "app/control_server.h"
#include "backend/network_service.h"
#include "platform/files.h"

namespace norvik::cli {
namespace {

// Held for the agent's whole run; the kernel lets it go when the process ends, however it ends.
class InstanceLock {
 public:
  explicit InstanceLock(int fd) : fd_(fd) {}
  InstanceLock(InstanceLock&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  InstanceLock(const InstanceLock&) = delete;
  ~InstanceLock() {
    if (fd_ >= 0) ::close(fd_);
  }

 private:
  int fd_;
};

std::expected<InstanceLock, CommandError> takeInstanceLock(const AppPaths& paths) {
  if (auto made = makeDirectories(paths.runtime(), 0700); !made) return failure(ExitCode::usage, made.error().message);
  const auto file = paths.runtime() / "agent.lock";
  const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return failure(ExitCode::usage, posixError(errno, "open", file).message);
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    ::close(fd);
    return failure(ExitCode::failed, fmt::format("Агент Norvik уже запущен для каталога {}", paths.home.string()));
  }
  return InstanceLock(fd);
}

}  // namespace

CommandResult runAgent(const GlobalOptions& global, const AgentOptions& agentOptions) {
  const AppPaths paths = AppPaths::resolve(global.home);
  auto lock = takeInstanceLock(paths);
  if (!lock) return std::unexpected(lock.error());

  AsioEventLoop loop;
  ApplicationOptions options{paths,
                             global.backend,
                             global.caFile,
                             global.provisioning,
                             /*logToStderr=*/true,
                             agentOptions.simulatedConnectDelay};
  // A simulated connect time asks for the simulated tunnel, unless a tunnel is named.
  if (global.tunnel) {
    options.tunnel = tunnelServiceKindNamed(*global.tunnel).value_or(TunnelServiceKind::automatic);
  } else if (agentOptions.simulatedConnectGiven) {
    options.tunnel = TunnelServiceKind::simulated;
  }
  auto app = Application::create(loop, options);
  if (!app) return std::unexpected(app.error());
  Log& log = *(*app)->platform().log;

  ControlCommands commands(**app);
  auto server = ControlServer::open(
      loop, paths.runtime() / "agent.sock", log,
      [&commands](const nlohmann::json& request, const ControlReply& reply) { commands.handle(request, reply); });
  if (!server) return failure(ExitCode::usage, server.error().description());

  asio::signal_set signals(loop.context(), SIGINT, SIGTERM);
  signals.async_wait([&](const asio::error_code& error, int signal) {
    if (error) return;
    log.format("[Agent] остановка по сигналу {}", signal);
    loop.stop();
  });

  // SIGHUP, as daemons take it: the main configuration is asked for again now, rather than at the
  // next occasion (a changed key is then refreshed, a changed GeoIP version downloaded).
  asio::signal_set reload(loop.context(), SIGHUP);
  std::function<void()> awaitReload = [&] {
    reload.async_wait([&](const asio::error_code& error, int) {
      if (error) return;
      log.write("[Agent] SIGHUP — главная конфигурация запрошена заново");
      (*app)->network().loadMainConfiguration();
      awaitReload();
    });
  };
  awaitReload();

  (*app)->start();
  log.format("[Agent] запущен, управление: {}", (paths.runtime() / "agent.sock").string());
  loop.run();

  asio::error_code ignored;
  reload.cancel(ignored);
  server->reset();
  (*app)->shutDown();
  loop.joinWorkers();
  log.write("[Agent] остановлен");
  return {};
}

}  // namespace norvik::cli
