#include "app/agent.h"

#include <asio/signal_set.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>
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
  // A write to a client, a helper or a standard error that has gone away fails with EPIPE where it
  // is made; it never ends the agent.
  (void)::signal(SIGPIPE, SIG_IGN);
  const AppPaths paths = AppPaths::resolve(global.home);
  auto lock = takeInstanceLock(paths);
  if (!lock) return std::unexpected(lock.error());

  AsioEventLoop loop;
  Log* log = nullptr;  // once the platform is up
  // SIGHUP (the terminal that ran the agent was closed) ends it as cleanly as SIGTERM: the socket
  // is removed and the tunnel left as the user would find it after a stop. Under the service
  // manager nothing sends SIGHUP to the agent, so there is no separate "ignore" mode.
  asio::signal_set signals(loop.context(), SIGINT, SIGTERM, SIGHUP);
  signals.async_wait([&log, &loop](const asio::error_code& error, int signal) {
    if (error) return;
    if (log) log->format("[Agent] остановка по сигналу {} ({})", signal, sigabbrev_np(signal));
    loop.stop();
  });
  ApplicationOptions options{paths,
                             global.backend,
                             global.caFile,
                             global.provisioning,
                             /*logToStderr=*/true,
                             agentOptions.simulatedConnectDelay};
  // An installed update has put the new program in place: this run ends so that it takes over
  // (the service manager starts it again; by hand, the user does).
  options.quit = [&loop, &log] {
    if (log) log->write("[Agent] обновление установлено — агент завершается, новая версия запустится вместо него");
    loop.stop();
  };
  // A simulated connect time asks for the simulated tunnel, unless a tunnel is named.
  if (global.tunnel) {
    options.tunnel = tunnelServiceKindNamed(*global.tunnel).value_or(TunnelServiceKind::automatic);
  } else if (agentOptions.simulatedConnectGiven) {
    options.tunnel = TunnelServiceKind::simulated;
  }
  auto app = Application::create(loop, options);
  if (!app) return std::unexpected(app.error());
  log = (*app)->platform().log.get();

  ControlCommands commands(**app);
  auto server = ControlServer::open(
      loop, paths.runtime() / "agent.sock", *log,
      [&commands](const nlohmann::json& request, const ControlReply& reply) { commands.handle(request, reply); });
  if (!server) return failure(ExitCode::usage, server.error().description());

  // SIGUSR1 asks for the main configuration again now rather than at the next occasion (a changed
  // key is then refreshed, a changed GeoIP version downloaded). SIGHUP is taken above: it means the
  // terminal went away.
  asio::signal_set reload(loop.context(), SIGUSR1);
  std::function<void()> awaitReload = [&] {
    reload.async_wait([&](const asio::error_code& error, int) {
      if (error) return;
      log->write("[Agent] SIGUSR1 — главная конфигурация запрошена заново");
      (*app)->network().loadMainConfiguration();
      awaitReload();
    });
  };
  awaitReload();

  (*app)->start();
  log->format("[Agent] запущен, управление: {}", (paths.runtime() / "agent.sock").string());
  loop.run();

  asio::error_code ignored;
  reload.cancel(ignored);
  server->reset();
  (*app)->shutDown();
  loop.joinWorkers();
  log->write("[Agent] остановлен");
  return {};
}

}  // namespace norvik::cli
