#include "tunnel_helper/wireguard_go_device.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <net/if.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/files.h"
#include "tunnel_helper/rtnetlink.h"

namespace norvik::tunnel_helper {
namespace {

constexpr int kMaxInterfaceNumber = 16;

bool isExecutableFile(const std::filesystem::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

// Whether something answers on a UNIX socket path: a live device of another network namespace.
bool socketAnswers(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() >= sizeof address.sun_path) return false;
  std::copy(text.begin(), text.end(), address.sun_path);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const bool answers = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return answers;
}

std::string describeStatus(int status) {
  if (WIFEXITED(status)) return fmt::format("код выхода {}", WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return fmt::format("сигнал {}", WTERMSIG(status));
  return "неизвестная причина";
}

}  // namespace

std::optional<std::filesystem::path> findProgram(const std::filesystem::path& program) {
  if (program.has_parent_path()) {
    if (isExecutableFile(program)) return program;
    return std::nullopt;
  }
  std::string path = ::getenv("PATH") ? ::getenv("PATH") : "";
  // A service's environment may lack the system directories.
  path += ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
  std::size_t start = 0;
  while (start <= path.size()) {
    auto end = path.find(':', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) {
      const std::filesystem::path candidate = std::filesystem::path(path.substr(start, end - start)) / program;
      if (isExecutableFile(candidate)) return candidate;
    }
    start = end + 1;
  }
  return std::nullopt;
}

WireGuardGoDevice::WireGuardGoDevice(Log& log, Options options) : log_(log), options_(std::move(options)) {}

WireGuardGoDevice::~WireGuardGoDevice() { destroy(); }

std::expected<std::string, Error> WireGuardGoDevice::create() {
  if (pid_ > 0) return name_;
  auto program = findProgram(options_.program);
  if (!program)
    return std::unexpected(Error{"POSIX", ENOENT, fmt::format("не найдена программа {}", options_.program.string())});

  name_.clear();
  for (int i = 0; i < kMaxInterfaceNumber; ++i) {
    const std::string candidate = fmt::format("{}{}", options_.namePrefix, i);
    if (::if_nametoindex(candidate.c_str()) != 0) continue;
    if (socketAnswers(options_.socketDirectory / (candidate + ".sock"))) continue;
    name_ = candidate;
    break;
  }
  if (name_.empty()) {
    return std::unexpected(Error{
        "POSIX", EEXIST,
        fmt::format("заняты все имена {}0…{}{}", options_.namePrefix, options_.namePrefix, kMaxInterfaceNumber - 1)});
  }

  // Everything the child needs is prepared before fork: after it, only async-signal-safe calls.
  const std::string programText = program->string();
  std::vector<std::string> args = {programText, "-f", name_};
  std::vector<char*> argv;
  argv.reserve(args.size() + 1);
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::vector<std::string> env = {"WG_PROCESS_FOREGROUND=1", "LOG_LEVEL=error"};
  for (char** e = environ; e && *e; ++e) {
    const std::string_view entry(*e);
    if (!entry.starts_with("WG_") && !entry.starts_with("LOG_LEVEL=")) env.emplace_back(entry);
  }
  std::vector<char*> envp;
  envp.reserve(env.size() + 1);
  for (auto& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);
  const pid_t parent = ::getpid();

  const pid_t pid = ::fork();
  if (pid < 0) return std::unexpected(posixError(errno, "fork", *program));
  if (pid == 0) {
    // The interface must not outlive the helper, however the helper ends.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) ::_exit(127);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    const int devnull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (devnull >= 0) ::dup2(devnull, STDIN_FILENO);
    ::dup2(STDERR_FILENO, STDOUT_FILENO);
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }
  pid_ = pid;

  const auto deadline = std::chrono::steady_clock::now() + options_.startTimeout;
  const auto socket = socketPath();
  for (;;) {
    if (auto ended = reap()) {
      return std::unexpected(Error{"POSIX", ECHILD, fmt::format("{} завершился при запуске: {}", programText, *ended)});
    }
    struct stat info {};
    if (::stat(socket.c_str(), &info) == 0 && S_ISSOCK(info.st_mode) && socketAnswers(socket)) {
      // The socket receives the private key: it must be our own process's.
      if (info.st_uid != ::geteuid()) {
        destroy();
        return std::unexpected(
            Error{"POSIX", EPERM, fmt::format("сокет {} принадлежит другому пользователю", socket.string())});
      }
      return name_;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      destroy();
      return std::unexpected(
          Error{"POSIX", ETIMEDOUT, fmt::format("{} не открыл сокет {} вовремя", programText, socket.string())});
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::expected<void, Error> WireGuardGoDevice::configure(const std::string& setRequest) {
  auto answer = uapiExchange(socketPath(), setRequest, options_.requestTimeout);
  if (!answer) return std::unexpected(answer.error());
  if (auto accepted = parseUapiSetResponse(*answer); !accepted)
    return std::unexpected(Error{"UAPI", 0, accepted.error()});
  return {};
}

std::expected<DeviceState, Error> WireGuardGoDevice::readState() {
  if (pid_ <= 0) return std::unexpected(Error{"POSIX", ESRCH, "устройство не запущено"});
  auto answer = uapiExchange(socketPath(), "get=1\n\n", options_.requestTimeout);
  if (!answer) return std::unexpected(answer.error());
  auto state = parseUapiGetResponse(*answer);
  if (!state) return std::unexpected(Error{"UAPI", 0, state.error()});
  return *state;
}

std::optional<std::string> WireGuardGoDevice::reap() {
  if (pid_ <= 0) return std::nullopt;
  int status = 0;
  const pid_t done = ::waitpid(pid_, &status, WNOHANG);
  if (done != pid_) return std::nullopt;
  pid_ = -1;
  return describeStatus(status);
}

void WireGuardGoDevice::destroy() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (pid_ > 0 && std::chrono::steady_clock::now() < deadline) {
      if (reap()) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      int status = 0;
      ::waitpid(pid_, &status, 0);
      pid_ = -1;
    }
  }
  if (name_.empty()) return;
  // A process that was killed leaves its interface and socket behind; neither may stay.
  if (const unsigned index = ::if_nametoindex(name_.c_str()); index != 0) {
    if (auto netlink = RouteNetlink::open()) {
      if (auto removed = netlink->deleteLink(static_cast<int>(index)); !removed) {
        log_.format("[Tunnel] интерфейс {} не удалён: {}", name_, removed.error().message);
      }
    }
  }
  const auto socket = socketPath();
  struct stat info {};
  if (::lstat(socket.c_str(), &info) == 0 && S_ISSOCK(info.st_mode) && info.st_uid == ::geteuid() &&
      !socketAnswers(socket)) {
    ::unlink(socket.c_str());
  }
  log_.format("[Tunnel] интерфейс {} удалён", name_);
  name_.clear();
}

}  // namespace norvik::tunnel_helper
